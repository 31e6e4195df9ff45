// Rectangles and points in pixel coordinates.
#pragma once

#include <cstdint>

#include "kelpimage/kelpexport.h"

// Four 16-bit coordinates; the maximum sides lie just outside the area, so
// width is fMaxX - fMinX.
class KELP_API TportRect {
 public:
  TportRect() = default;
  TportRect(int16_t minX, int16_t minY, int16_t maxX, int16_t maxY)
      : fMinX(minX), fMinY(minY), fMaxX(maxX), fMaxY(maxY) {}
  TportRect(const TportRect&) = default;
  TportRect& operator=(const TportRect&) = default;
  virtual ~TportRect() = default;

  bool operator==(const TportRect& o) const {
    return fMinX == o.fMinX && fMinY == o.fMinY && fMaxX == o.fMaxX && fMaxY == o.fMaxY;
  }
  bool operator!=(const TportRect& o) const { return !(*this == o); }
  int width() const { return fMaxX - fMinX; }
  int height() const { return fMaxY - fMinY; }

  int16_t fMinX = 0, fMinY = 0, fMaxX = 0, fMaxY = 0;
};

struct Tpoint {
  int x = 0;
  int y = 0;
  Tpoint() = default;
  Tpoint(int px, int py) : x(px), y(py) {}
};
