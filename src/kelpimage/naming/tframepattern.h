// Numbered frame sequences named by a pattern: "name.####.ext" (padded to
// the number of marks), "name.#.ext" (unpadded) and "name.%04d.ext"; and
// ranges of frames, "FIRST-LAST" or "FIRST-LASTxSTEP".
#pragma once

#include <string>
#include <vector>

#include "kelpimage/kelpexport.h"

struct KELP_API TframePattern {
  std::string prefix, suffix;
  int width = 0;  // digits of a padded frame; 0 unpadded

  // True when `name` holds a frame pattern, which `pattern` then takes.
  static bool parse(const std::string& name, TframePattern& pattern);
  // The frames "FIRST-LAST", "FIRST-LASTxSTEP" or "N" name; false, with why.
  static bool parseRange(const std::string& text, std::vector<long>& frames, std::string& why);
  // The file name of `frame`.
  std::string name(long frame) const;
  // The frame number of a file name of this pattern; false when it is none.
  bool frameOf(const std::string& file, long& frame) const;
  // The frames of this pattern that exist on disk, in order.
  std::vector<long> onDisk() const;
};
