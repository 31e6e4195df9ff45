// Numbered frame sequences on the command line: "name.####.ext" (padded to
// the number of marks), "name.#.ext" (unpadded) and "name.%04d.ext".
#pragma once

#include <string>
#include <vector>

namespace kimg {

struct FramePattern {
  std::string prefix, suffix;
  int width = 0;  // digits of a padded frame; 0 unpadded

  // True when `name` holds a frame pattern, which `pattern` then takes.
  static bool parse(const std::string& name, FramePattern& pattern);
  std::string name(long frame) const;
  // The frame number of a file name of this pattern; false when it is none.
  bool frameOf(const std::string& file, long& frame) const;
  // The frames of this pattern that exist on disk, in order.
  std::vector<long> onDisk() const;
};

// "FIRST-LAST" or "FIRST-LASTxSTEP", or one frame "N".
bool parseFrameRange(const std::string& text, std::vector<long>& frames, std::string& why);

struct SequenceOptions {
  std::string frames;  // empty: the frames on disk
  int threads = 0;     // 0: one a core
  bool skipBad = false;
  bool quiet = false, verbose = false;
};

struct ConvertOptions;
// Converts every frame of `o.in` (a pattern) to the same frame of `o.out`.
int convertSequence(const ConvertOptions& o, const SequenceOptions& s);
// The files a pattern stands for, by --frames or on disk.
int sequenceFiles(const std::string& pattern, const std::string& frames, std::vector<std::string>& files);

}  // namespace kimg
