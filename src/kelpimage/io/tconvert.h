// A picture from one file into another of any format, in one pass, a band
// of rows at a time: memory is bounded by the band, not the picture. The
// samples keep their kind where the output holds it, the alpha and depth
// where it has them, and the colour is converted to the output's
// association. Several frames go to a format that holds them.
#pragma once

#include <cstdint>
#include <string>

#include "kelpimage/io/timagereader.h"
#include "kelpimage/io/timagewriter.h"
#include "kelpimage/kelpexport.h"

struct KELP_API TconvertOptions {
  // The output's format: a catalogue key, or empty for the one its
  // name's extension says.
  std::string key;
  TreadOptions read;
  TwriteOptions write;
  // This frame of the input (from 0), or -1: every frame, when the output
  // holds several, else the first (a document's flattened image: its
  // layers are frames of their own only when asked for).
  int frame = -1;
  // A new size through a zoom filter (0: the input's), the filter's name
  // (empty: the default for the change of size) and a blur, in percent.
  int32_t width = 0, height = 0;
  std::string filter;
  float blurX = 0.0f, blurY = 0.0f;
  // 1: one thread reads, resizes and writes in turn; otherwise the next band
  // is read on a second thread while the last is written, and the reader
  // and the zoom work on this many threads (0: one a core). It stands for
  // read.threads. The file's bytes are the same at any count.
  int threads = 0;
};

// False, with "FILE: reason" naming the file that failed, when the
// conversion cannot be made; the output is then as it was. `warnings`
// gets what the output could not hold and what a lenient read stepped over.
KELP_API bool TconvertImage(const std::string& input, const std::string& output, const TconvertOptions& options,
                            std::string& error, std::string* warnings = nullptr);
