// A raster of 32-bit pixels: blue, green, red, alpha in memory order.
#pragma once

#include <cstdint>
#include <vector>

#include "kelpimage/base/tgeometry.h"
#include "kelpimage/kelpexport.h"

union Tpixel32 {
  uint32_t fValue;  // alpha, red, green, blue from the high byte down
  struct {
    uint8_t fBlue, fGreen, fRed, fAlpha;
  } fChannels;
};
static_assert(sizeof(Tpixel32) == 4);

class KELP_API TpixelMap : public TportRect {
 public:
  TpixelMap() = default;
  TpixelMap(int width, int height) { setSize(width, height); }
  // Copies own their pixels, even when the original had adopted memory.
  TpixelMap(const TpixelMap& other);
  TpixelMap& operator=(const TpixelMap& other);
  ~TpixelMap() override = default;

  // A raster of its own of this size, cleared to zero.
  void setSize(int width, int height);
  void setChannels(int count) { fChannels = count; }
  int channels() const { return fChannels; }
  int width() const { return TportRect::width(); }
  int height() const { return TportRect::height(); }

  Tpixel32* pixels() { return fPixels; }
  const Tpixel32* pixels() const { return fPixels; }
  // Null outside the raster.
  Tpixel32* pixelPointer(int x, int y);
  const Tpixel32* pixelPointer(int x, int y) const;
  Tpixel32* pixelPointer(const Tpoint& p) { return pixelPointer(p.x, p.y); }
  const Tpixel32* pixelPointer(const Tpoint& p) const { return pixelPointer(p.x, p.y); }

  // Works on `memory` in place, without copying or owning it; the caller
  // keeps it alive and sized for the rectangle.
  void setPixelPtr(Tpixel32* memory, const TportRect& rect);
  bool ownsPixels() const { return !fOwned.empty() && fPixels == fOwned.data(); }

  // Stores `count` pixels from `source` starting at (x, y) and running on
  // row by row; with `blend` the source is laid over by its alpha
  // (premultiplied colour). Pixels past the raster are dropped.
  void setPixel(int x, int y, int count, const Tpixel32* source, bool blend);

  // Resamples the raster to the size of `rect` (with the default zoom
  // filter) and takes on its rectangle. False if a size is out of range.
  bool zoom(const TportRect& rect);

  void verticalFlip();
  // Swaps red and blue in every pixel.
  void rgbaSwitch();

 private:
  std::vector<Tpixel32> fOwned;
  Tpixel32* fPixels = nullptr;
  int fChannels = 4;
};
