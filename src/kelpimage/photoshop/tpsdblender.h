// The program's own blending of one canvas onto another: fifteen blend
// keys with their exact arithmetic, on 8-bit canvases as the program has it
// and on 16-bit canvases with the same formulas at 16-bit scale.
#pragma once

#include <cstdint>
#include <map>

#include "kelpimage/kelpexport.h"
#include "kelpimage/photoshop/tpixeldata16.h"

namespace zkPhotoshop {

// Hue, saturation and lightness, each from 0 to 1.
struct Thsl {
  double h = 0, s = 0, l = 0;
};
// From samples of `maximum` (255 or 65535) and back.
KELP_API Thsl rgbToHsl(uint32_t r, uint32_t g, uint32_t b, uint32_t maximum);
KELP_API void hslToRgb(const Thsl& hsl, uint32_t maximum, uint32_t& r, uint32_t& g, uint32_t& b);

class KELP_API TpsdBlender {
 public:
  // Large rectangles are blended in bands on `threads` threads (0: one a core).
  explicit TpsdBlender(unsigned threads = 1);
  // The mode of a blend key; keys it does not know are entered as 0.
  int modeOf(uint32_t key);
  // Blends the rectangle of `source` onto `canvas` (both of the document's
  // size) by the key's mode. Channels of the source that the canvas lacks
  // are added, transparent.
  void blend(TpixelData16& source, TpixelData16& canvas, uint32_t key, int32_t top, int32_t left, int32_t bottom,
             int32_t right);

 private:
  std::map<uint32_t, int> fModes;
  int fMode = 0;
  unsigned fThreads;
};

}  // namespace zkPhotoshop
