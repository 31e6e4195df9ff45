// Shapes shared by the pixel codecs: where each channel of a tile lies in a
// memory buffer, and the plane scratch space.
#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

#include "kelpimage/il/ilinternal.h"

namespace ilcodec {

// A tile in a memory buffer, as a pack or unpack call sees it.
struct Tile {
  uint32_t w, h;
  uint32_t bytes;     // bytes per channel in the file
  uint32_t esize;     // bytes per channel in memory
  uint32_t channels;  // memory channels per pixel
  uint32_t stride;    // pixels per memory row
  uint32_t bitmask;
  int present[4];  // working channels present, from bit 0 up
  int count;       // how many
  uint8_t** lookups;

  Tile(const ILpackinfo* info, bool unpacking);
  uint64_t pixels() const { return uint64_t(w) * h; }
  // The stored size: every present channel of every pixel at `bytes` each.
  uint64_t storedSize() const { return pixels() * bytes * uint32_t(count); }
  // Memory channel of working channel n: four-channel pixels are turned
  // (working order alpha, blue, green, red; memory blue, green, red, alpha).
  uint32_t memChannel(int n) const { return channels == 4 ? uint32_t(n + 3) & 3u : uint32_t(n); }
  uint8_t* element(uint8_t* base, uint32_t x, uint32_t y, int n) const {
    return base + ((uint64_t(y) * stride + x) * channels + memChannel(n)) * esize;
  }
  const uint8_t* table(int i) const { return lookups && lookups[i] ? lookups[i] : nullptr; }
};

// The run length decoder; with `streaming` the pixels are stored past the
// caches, for a raster larger than they are that is not read back at once.
int unpackRle(void* dest, void* src, ILpackinfo* info, bool streaming);

// Scratch space of the calling thread, grown as needed.
uint8_t* scratch(size_t bytes);

inline int fail() {
  flerrno = FL_EFIT;
  return 0;
}

}  // namespace ilcodec
