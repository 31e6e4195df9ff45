// The quick run length forms, packets that end with each row. QRL carries
// colour pixels of three bytes and then an alpha section; QR4 carries pixels
// of four bytes. Both keep their historical byte orders exactly.
#include <bit>

#include "kelpimage/il/ilcodec.h"

using namespace ilcodec;

namespace {

// Splits one row of pixel values into run and literal packets, calling
// run(first, count) and literal(first, count), each for up to 128 pixels.
// They return false when the budget is spent.
template <class Value, class Run, class Literal>
bool scanRow(const Value* px, uint32_t w, Run run, Literal literal) {
  uint32_t anchor = 0, scan = 0;
  while (anchor < w) {
    scan = anchor;
    while (scan < w && px[scan] == px[anchor]) ++scan;
    while (scan - anchor >= 2) {
      uint32_t n = std::min<uint32_t>(scan - anchor, 128);
      if (!run(anchor, n)) return false;
      anchor += n;
    }
    if (scan < w && px[scan] != px[scan - 1]) {
      do ++scan;
      while (scan < w && px[scan] != px[scan - 1]);
      if (scan < w) --scan;  // the equal pair stays for the next run
    }
    while (scan - anchor >= 128) {
      if (!literal(anchor, 128)) return false;
      anchor += 128;
    }
    if (scan > anchor) {
      if (!literal(anchor, scan - anchor)) return false;
      anchor = scan;
    }
  }
  return true;
}

inline uint8_t map(const uint8_t* lut, uint8_t v) { return lut ? lut[v] : v; }

// Reads the packets of one row of `w` pixels of `psize` bytes, calling
// put(x, bytes) for each pixel. False if a packet runs past the row or the payload.
template <class Put>
bool decodeRow(const uint8_t*& in, const uint8_t* end, uint32_t w, uint32_t psize, Put put) {
  uint32_t x = 0;
  while (x < w) {
    if (in >= end) return false;
    uint8_t c = *in++;
    uint32_t n = uint32_t(c & 127) + 1;
    if (n > w - x) return false;
    if (c & 0x80) {
      if (uint32_t(end - in) < psize) return false;
      for (uint32_t i = 0; i < n; ++i) put(x + i, in);
      in += psize;
    } else {
      if (uint64_t(end - in) < uint64_t(n) * psize) return false;
      for (uint32_t i = 0; i < n; ++i, in += psize) put(x + i, in);
    }
    x += n;
  }
  return true;
}

uint8_t* rowOf(const Tile& t, uint8_t* base, uint32_t y) { return base + uint64_t(y) * t.stride * t.channels; }

int produced(const Tile& t) {
  uint64_t n = t.pixels() * uint32_t(t.count);
  return n > INT32_MAX ? INT32_MAX : int(n ? n : 1);
}

}  // namespace

int ILpackqrl(void* dest, void* src, ILpackinfo* info) {
  Tile t(info, false);
  if (t.bytes != 1 || std::popcount(t.bitmask & 0xFFu) < 3) return ILpackrle(dest, src, info);
  auto* base = static_cast<uint8_t*>(src);
  auto* out = static_cast<uint8_t*>(dest);
  int64_t budget = int64_t(t.storedSize());
  bool four = t.channels == 4;
  // The three carried bytes of a pixel, in stream order. With four channels
  // they are the working word's bits 16-23, 8-15 and 0-7: green, blue and
  // alpha. Red is not carried.
  const uint8_t* lut1 = t.table(1);
  const uint8_t* lut2 = t.lookups && t.lookups[3] ? t.table(2) : nullptr;
  const uint8_t* lut3 = t.lookups && t.lookups[4] ? t.table(3) : nullptr;
  std::vector<uint32_t> values(t.w);
  for (uint32_t y = 0; y < t.h; ++y) {
    const uint8_t* row = rowOf(t, base, y);
    for (uint32_t x = 0; x < t.w; ++x) {
      const uint8_t* p = row + size_t(x) * t.channels;
      values[x] =
          four ? uint32_t(p[1]) << 16 | uint32_t(p[0]) << 8 | p[3] : uint32_t(p[0]) << 16 | uint32_t(p[1]) << 8 | p[2];
    }
    auto put = [&](uint32_t v) {
      *out++ = map(lut1, uint8_t(v >> 16));
      *out++ = map(lut2, uint8_t(v >> 8));
      *out++ = map(lut3, uint8_t(v));
    };
    bool ok = scanRow(
        values.data(), t.w,
        [&](uint32_t at, uint32_t n) {
          if ((budget -= 4) < 1) return false;
          *out++ = uint8_t(0x80 | (n - 1));
          put(values[at]);
          return true;
        },
        [&](uint32_t at, uint32_t n) {
          if ((budget -= int64_t(n) * 3 + 1) < 1) return false;
          *out++ = uint8_t(n - 1);
          for (uint32_t i = 0; i < n; ++i) put(values[at + i]);
          return true;
        });
    if (!ok) return ILpack(dest, src, info);
  }
  if (four && (t.bitmask & 1)) {
    const uint8_t* lut0 = t.table(0);
    std::vector<uint8_t> alpha(t.w);
    for (uint32_t y = 0; y < t.h; ++y) {
      const uint8_t* row = rowOf(t, base, y);
      for (uint32_t x = 0; x < t.w; ++x) alpha[x] = row[size_t(x) * 4 + 3];
      bool ok = scanRow(
          alpha.data(), t.w,
          [&](uint32_t at, uint32_t n) {
            if ((budget -= 2) < 1) return false;
            *out++ = uint8_t(0x80 | (n - 1));
            *out++ = map(lut0, alpha[at]);
            return true;
          },
          [&](uint32_t at, uint32_t n) {
            if ((budget -= int64_t(n) + 1) < 1) return false;
            *out++ = uint8_t(n - 1);
            for (uint32_t i = 0; i < n; ++i) *out++ = map(lut0, alpha[at + i]);
            return true;
          });
      if (!ok) return ILpack(dest, src, info);
    }
  }
  // This one path leaves a four-channel source in working order (alpha,
  // blue, green, red), as files and callers have always seen it do.
  if (four && !t.lookups) ConvertBGRAtoABGR(src, info);
  return int(out - static_cast<uint8_t*>(dest));
}

int ILunpackqrl(void* dest, void* src, ILpackinfo* info) {
  Tile t(info, true);
  if (t.bytes != 1 || std::popcount(t.bitmask & 0xFFu) < 3) return ILunpackrle(dest, src, info);
  if (info->size == t.storedSize()) return ILunpack(dest, src, info);
  auto* base = static_cast<uint8_t*>(dest);
  const auto* in = static_cast<const uint8_t*>(src);
  const uint8_t* end = in + info->size;
  bool four = t.channels == 4;
  const uint8_t* lut1 = t.table(1);
  const uint8_t* lut2 = t.table(2);
  const uint8_t* lut3 = t.table(3);
  for (uint32_t y = 0; y < t.h; ++y) {
    uint8_t* row = rowOf(t, base, y);
    bool ok = decodeRow(in, end, t.w, 3, [&](uint32_t x, const uint8_t* b) {
      uint8_t* p = row + size_t(x) * t.channels;
      uint8_t b0 = map(lut1, b[0]), b1 = map(lut2, b[1]), b2 = map(lut3, b[2]);
      if (four) {
        p[0] = b1;  // blue
        p[1] = b0;  // green
        p[2] = 0;   // red is not carried
        p[3] = b2;  // alpha, unless the alpha section follows
      } else {
        p[0] = b0, p[1] = b1, p[2] = b2;
      }
    });
    if (!ok) return fail();
  }
  if (!info->noalpha && four && (t.bitmask & 1)) {
    const uint8_t* lut0 = t.table(0);
    for (uint32_t y = 0; y < t.h; ++y) {
      uint8_t* row = rowOf(t, base, y);
      bool ok =
          decodeRow(in, end, t.w, 1, [&](uint32_t x, const uint8_t* b) { row[size_t(x) * 4 + 3] = map(lut0, b[0]); });
      if (!ok) return fail();
    }
  }
  return produced(t);
}

int ILpackqr4(void* dest, void* src, ILpackinfo* info) {
  Tile t(info, false);
  if (t.bytes != 1 || std::popcount(t.bitmask & 0xFFu) != 4) return ILpackqrl(dest, src, info);
  if (t.channels != 4) return ILpackqrl(dest, src, info);
  auto* base = static_cast<uint8_t*>(src);
  auto* out = static_cast<uint8_t*>(dest);
  int64_t budget = int64_t(t.pixels()) * 4;
  const uint8_t* l0 = t.table(0);
  const uint8_t* l1 = t.table(1);
  const uint8_t* l2 = t.lookups && t.lookups[3] ? t.table(2) : nullptr;
  const uint8_t* l3 = t.lookups && t.lookups[4] ? t.table(3) : nullptr;
  std::vector<uint32_t> values(t.w);
  for (uint32_t y = 0; y < t.h; ++y) {
    const uint8_t* row = rowOf(t, base, y);
    std::memcpy(values.data(), row, size_t(t.w) * 4);
    // Red, green, blue, alpha of a memory pixel (blue, green, red, alpha).
    auto rgba = [&](const uint8_t* p) {
      *out++ = map(l0, p[2]);
      *out++ = map(l1, p[1]);
      *out++ = map(l2, p[0]);
      *out++ = map(l3, p[3]);
    };
    bool ok = scanRow(
        values.data(), t.w,
        [&](uint32_t at, uint32_t n) {
          if ((budget -= 5) < 1) return false;
          *out++ = uint8_t(0x80 | (n - 1));
          rgba(row + size_t(at) * 4);
          return true;
        },
        [&](uint32_t at, uint32_t n) {
          if ((budget -= int64_t(n) * 4 + 1) < 1) return false;
          *out++ = uint8_t(n - 1);
          for (uint32_t i = 0; i < n; ++i) {
            const uint8_t* p = row + size_t(at + i) * 4;
            if (t.lookups) {
              rgba(p);
            } else {
              // Literal pixels go as their working bytes lie: alpha, blue, green, red.
              *out++ = p[3];
              *out++ = p[0];
              *out++ = p[1];
              *out++ = p[2];
            }
          }
          return true;
        });
    if (!ok) return ILpack(dest, src, info);
  }
  return int(out - static_cast<uint8_t*>(dest));
}

int ILunpackqr4(void* dest, void* src, ILpackinfo* info) {
  Tile t(info, true);
  if (t.bytes != 1 || std::popcount(t.bitmask & 0xFFu) != 4 || t.channels != 4) return ILunpackqrl(dest, src, info);
  if (info->size == t.pixels() * 4) return ILunpack(dest, src, info);
  auto* base = static_cast<uint8_t*>(dest);
  const auto* in = static_cast<const uint8_t*>(src);
  const uint8_t* end = in + info->size;
  const uint8_t* l0 = t.table(0);
  const uint8_t* l1 = t.table(1);
  const uint8_t* l2 = t.table(2);
  const uint8_t* l3 = t.table(3);
  for (uint32_t y = 0; y < t.h; ++y) {
    uint8_t* row = rowOf(t, base, y);
    bool ok = decodeRow(in, end, t.w, 4, [&](uint32_t x, const uint8_t* b) {
      uint8_t* p = row + size_t(x) * 4;
      p[2] = map(l0, b[0]);  // red
      p[1] = map(l1, b[1]);  // green
      p[0] = map(l2, b[2]);  // blue
      p[3] = map(l3, b[3]);  // alpha
    });
    if (!ok) return fail();
  }
  return produced(t);
}
