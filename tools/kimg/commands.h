// The subcommands of kimg. Each returns the process exit status.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace kimg {

struct CreateOptions {
  std::string out;
  std::string size = "384x288";
  std::string type = "rgba";
  int bytes = 1;
  std::string compression = "rle";
  float dpi = 72.0f;
  std::string origin = "0,0";
  std::string ratio = "1:1";
  std::vector<std::string> fields;  // TAG=TEXT
  int images = 1;
};

struct PatternOptions {
  std::string out;
  std::string size = "640x480";
  bool alpha = false;
  bool depth = false;
  int bytes = 1;
  std::string compression = "rle";
};

struct ConvertOptions {
  std::string in, out;
  std::string compression;  // empty: as the input
  bool topdown = false;
  std::string tile;                  // WxH, empty: the default layout
  std::string resize;                // WxH, empty: the input's size
  std::string filter;                // zoom filter, empty: the default
  std::string blur;                  // X,Y in percent
  std::string format;                // "iff", "sgi" or a plug-in's key; empty: by the output's extension
  int frame = -1;                    // one frame (or IFF image) of the input, from 0; -1: all an output holds
  std::vector<std::string> options;  // NAME=VALUE for the output format's plug-in
  std::string layer;     // of a Photoshop document: this layer ("#N": the N-th) instead of the flattened image
  int alpha = -1;        // of a Photoshop document: this alpha channel instead
  std::string set;       // of a Photoshop document: this layer set's composite instead
  bool lenient = false;  // read past damage a decoder can step over, with a warning
  bool quiet = false;    // no warnings of what the output could not hold
};

struct PsdOptions {
  std::string file;
  bool sets = false;  // list the outermost layer sets
  std::string set;    // write this set's composite to `out`
  std::string out;
  // Edits, applied in this order; the document is saved to `out`.
  std::vector<int> newSize;  // W H of a new document
  int depth = 8;
  std::vector<std::string> addSets, addToSets, addLayers, addAlphas, blends, opacities, deleteLayers, deleteSets;
};

struct FindOptions {
  std::string name;
  std::string field;  // "odd", "even" or empty
  int frame = -1;     // -1: the frame as the name has it
  bool verbose = false;
};

int info(const std::vector<std::string>& files, bool stats);
int find(const FindOptions& options);
int chunks(const std::string& file);
int create(const CreateOptions& options);
int pattern(const PatternOptions& options);
int convert(const ConvertOptions& options);
// The options of a conversion checked once, for the frames of a sequence:
// 0 with `run` set to convert one frame's files, or the status of the check
// that failed.
using FrameConverter = std::function<int(const std::string& in, const std::string& out)>;
// `threads` is what each frame's conversion may use (0: one a core).
int prepareConvert(const ConvertOptions& options, int threads, FrameConverter& run);
int filters();
int formats();
int depth(const std::string& in, const std::string& out);
int psd(const PsdOptions& options);

}  // namespace kimg
