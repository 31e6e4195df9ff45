// Numbered frame sequences on the command line: "name.####.ext" (padded to
// the number of marks), "name.#.ext" (unpadded) and "name.%04d.ext".
#pragma once

#include <string>
#include <vector>

#include "kelpimage/naming/tframepattern.h"

namespace kimg {

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
