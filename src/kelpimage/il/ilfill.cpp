// Filling in what a raster lacks: grey copied into red and blue, alpha made
// opaque, or colour cleared, in 8-bit or 16-bit pixels.
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "kelpimage/il/il.h"

void ILfill(void* raster, int32_t w, int32_t h, int32_t bytes, int32_t stride, uint32_t mask) {
  if (stride < 1) stride = w;
  bool colour = mask & 1, alpha = mask & 2, clear = mask & 16;
  if ((colour && alpha) || (bytes != 1 && bytes != 2) || w < 1 || h < 1) return;
  auto fillRows = [&](auto* base, auto full) {
    using E = std::remove_pointer_t<decltype(base)>;
    if (!clear) {
      for (int32_t y = 0; y < h; ++y) {
        E* p = base + size_t(y) * size_t(stride) * 4;
        for (int32_t x = 0; x < w; ++x, p += 4) {
          if (!colour) p[0] = p[2] = p[1];
          if (!alpha) p[3] = full;
        }
      }
      return;
    }
    // Clearing steps rows by `stride` pixels of four bytes whatever the
    // channel size, from the last row to the first.
    auto* bytesBase = reinterpret_cast<uint8_t*>(base);
    for (int32_t y = h - 1; y >= 0; --y) {
      E* p = reinterpret_cast<E*>(bytesBase + size_t(y) * size_t(stride) * 4);
      for (int32_t x = 0; x < w; ++x, p += 4) {
        p[0] = p[1] = p[2] = 0;
        if (!alpha) p[3] = 0;
      }
    }
  };
  if (bytes == 1)
    fillRows(static_cast<uint8_t*>(raster), uint8_t(255));
  else
    fillRows(static_cast<uint16_t*>(raster), uint16_t(65535));
}
