// Sizes read from files, checked before anything is allocated for them: one
// pixel limit for every reader, and products that cannot overflow.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "kelpimage/kelpexport.h"

class KELP_API TpixelLimit {
 public:
  // 2^27 pixels (128 megapixels) unless KELP_MAX_PIXELS or a caller says
  // otherwise.
  static constexpr uint64_t kDefault = uint64_t(1) << 27;
  // The most pixels a picture may have.
  static uint64_t get();
  // Sets the limit for the process; 0 goes back to the default.
  static void set(uint64_t pixels);
  // Whether a picture of width x height may be held (each side from 1).
  static bool allows(uint64_t width, uint64_t height);
  // Why a picture of width x height is refused: its size against the limit,
  // and how to raise it.
  static std::string refusal(uint64_t width, uint64_t height);
};

// Whether a picture of width x height could come out of `bytes` bytes of a
// format that holds at most `pixelsPerByte` pixels in a byte (its best
// compression): a picture that claims more is damaged, and is refused
// before anything is allocated for it. A size of -1 (a stream of unknown
// length) passes.
KELP_API bool TplausibleSize(uint64_t width, uint64_t height, int64_t bytes, uint64_t pixelsPerByte);

// a x b x c x d in `out`; false when the product overflows 64 bits.
KELP_API bool TcheckedProduct(uint64_t a, uint64_t b, uint64_t c, uint64_t d, uint64_t& out);
// The same, fitting a size_t (what an allocation takes).
KELP_API bool TcheckedSize(uint64_t a, uint64_t b, uint64_t c, uint64_t d, size_t& out);
