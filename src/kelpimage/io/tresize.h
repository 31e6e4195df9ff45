// A picture in memory at another size, through the library's zoom filters
// (kimg filters lists them): what `kimg convert --resize` does to a file,
// for a caller's buffer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "kelpimage/io/timageinfo.h"
#include "kelpimage/kelpexport.h"

struct KELP_API TresizeOptions {
  std::string filter;                // empty: the default for the change of size
  float blurX = 0.0f, blurY = 0.0f;  // in percent
};

// `pixels` (spec's size, channels and sample type, colour in spec's
// association, rows `rowStride` bytes apart or packed) into `out` at width x
// height, packed, in the same channels, sample type and association. The
// zoom works at 8 or 16 bits: halves and floats go through 16 bits, clamped
// to 0 to 1. False, with why, for an unknown filter or a size out of range.
KELP_API bool TresizePixels(const void* pixels, const TimageInfo& spec, ptrdiff_t rowStride, void* out, int32_t width,
                            int32_t height, const TresizeOptions& options, std::string& why);
