// PackBits, as a document's run-length rows have it.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "kelpimage/photoshop/tchannel.h"

namespace zkPhotoshop {

namespace {

// How many bytes from `i` on each differ from the byte behind them (the
// last byte of the row counts as differing), eight at a time.
size_t singles(const uint8_t* src, size_t i, size_t count) {
  size_t j = i;
  while (j + 9 <= count) {
    uint64_t a, b;
    std::memcpy(&a, src + j, 8);
    std::memcpy(&b, src + j + 1, 8);
    uint64_t x = a ^ b;
    if ((x - 0x0101010101010101ull) & ~x & 0x8080808080808080ull) break;  // an equal pair among them
    j += 8;
  }
  while (j + 1 < count && src[j] != src[j + 1]) ++j;
  return j + 1 == count ? j + 1 - i : j - i;
}

}  // namespace

// PackBits with four states, so that a run of two inside literal bytes is
// folded back into the literal when that costs nothing.
size_t packRow(uint8_t* dst, const uint8_t* src, size_t count) {
  enum { BASE, LITERAL, RUN, LITERAL_RUN } state = BASE;
  uint8_t* out = dst;
  uint8_t* literalCount = nullptr;  // control byte of the current literal
  uint8_t* lastControl = nullptr;   // control byte of the last run
  auto emitRun = [&](size_t n, uint8_t b) {
    while (n > 128) {
      lastControl = out;
      *out++ = 129;
      *out++ = b;
      n -= 128;
    }
    lastControl = out;
    *out++ = uint8_t(1 - int(n));
    *out++ = b;
  };
  auto startLiteral = [&](uint8_t b) {
    literalCount = out;
    *out++ = 0;
    *out++ = b;
    state = LITERAL;
  };
  size_t i = 0;
  while (i < count) {
    if (state == LITERAL) {
      // A stretch of bytes that each differ from the next joins the open
      // literal at once, as the byte-by-byte steps would add them.
      size_t k = singles(src, i, count);
      size_t m = std::min<size_t>(k, 127 - *literalCount);
      if (m) {
        std::memcpy(out, src + i, m);
        out += m;
        i += m;
        *literalCount = uint8_t(*literalCount + m);
        if (*literalCount == 127) state = BASE;
        continue;
      }
    }
    uint8_t b = src[i];
    size_t n = 1;
    while (i + n < count && src[i + n] == b) ++n;
    i += n;
    for (bool again = true; again;) {
      again = false;
      switch (state) {
        case BASE:
        case RUN:
          if (n >= 2) {
            state = RUN;
            emitRun(n, b);
          } else {
            startLiteral(b);
          }
          break;
        case LITERAL:
          if (n >= 2) {
            state = LITERAL_RUN;
            emitRun(n, b);
          } else {
            if (++*literalCount == 127) state = BASE;
            *out++ = b;
          }
          break;
        case LITERAL_RUN:
          // A run of two folds back into the literal only when it follows
          // the literal directly: a run of 130 is 128 and then 2, and
          // folding that 2 would move bytes across the 128.
          if (n == 1 && *lastControl == 0xFF && *literalCount < 126 &&
              lastControl == literalCount + *literalCount + 2) {
            *literalCount = uint8_t(*literalCount + 2);
            state = *literalCount == 127 ? BASE : LITERAL;
            *lastControl = lastControl[1];
          } else {
            state = RUN;
          }
          again = true;
          break;
      }
    }
  }
  return size_t(out - dst);
}

// Runs and literals are stored 32 or 128 bytes at a time where the row
// has room: a fixed-size store is far cheaper than a call, and what it
// writes past the run is written over by what follows.
bool unpackRow8(uint8_t* dst, const uint8_t* src, size_t srcLength, size_t dstLength) {
  constexpr size_t kWide = 32;
  size_t in = 0, out = 0;
  while (in < srcLength) {
    int c = int8_t(src[in++]);
    if (c >= 0) {
      size_t n = size_t(c) + 1;
      if (in + n > srcLength || out + n > dstLength) return false;
      if (n <= kWide && in + kWide <= srcLength && out + kWide <= dstLength)
        std::memcpy(dst + out, src + in, kWide);
      else if (in + 128 <= srcLength && out + 128 <= dstLength)
        std::memcpy(dst + out, src + in, 128);  // a literal is at most 128 bytes
      else
        std::memcpy(dst + out, src + in, n);
      in += n;
      out += n;
    } else if (c > -128) {
      size_t n = size_t(1 - c);
      if (in >= srcLength || out + n > dstLength) return false;
      uint8_t v = src[in++];
      if (out + 128 <= dstLength)
        std::memset(dst + out, v, 128);  // a run is at most 128 bytes
      else
        std::memset(dst + out, v, n);
      out += n;
    }
  }
  return out == dstLength;
}

Tchannel::Tchannel(uint32_t width, uint32_t height, TdataFormat format)
    : fPixelCount(width * height), fWidth(width), fHeight(height), fFormat(format) {}

}  // namespace zkPhotoshop
