#include "image/base/tpixelmap.h"

#include <algorithm>
#include <cstring>

#include "il/il.h"

TpixelMap::TpixelMap(const TpixelMap& other) : TportRect(other), fChannels(other.fChannels) {
  size_t n = size_t(std::max(0, width())) * size_t(std::max(0, height()));
  if (other.fPixels) {
    fOwned.assign(other.fPixels, other.fPixels + n);
    fPixels = fOwned.data();
  }
}

TpixelMap& TpixelMap::operator=(const TpixelMap& other) {
  if (this != &other) {
    TpixelMap copy(other);
    TportRect::operator=(copy);
    fOwned = std::move(copy.fOwned);
    fPixels = fOwned.empty() ? nullptr : fOwned.data();
    fChannels = copy.fChannels;
  }
  return *this;
}

void TpixelMap::setSize(int width, int height) {
  width = std::clamp(width, 0, 32767);
  height = std::clamp(height, 0, 32767);
  fMinX = fMinY = 0;
  fMaxX = int16_t(width);
  fMaxY = int16_t(height);
  fOwned.assign(size_t(width) * size_t(height), Tpixel32{0});
  fPixels = fOwned.empty() ? nullptr : fOwned.data();
}

Tpixel32* TpixelMap::pixelPointer(int x, int y) {
  if (!fPixels || x < 0 || y < 0 || x >= width() || y >= height()) return nullptr;
  return fPixels + size_t(y) * size_t(width()) + size_t(x);
}

const Tpixel32* TpixelMap::pixelPointer(int x, int y) const {
  return const_cast<TpixelMap*>(this)->pixelPointer(x, y);
}

void TpixelMap::setPixelPtr(Tpixel32* memory, const TportRect& rect) {
  TportRect::operator=(rect);
  fOwned.clear();
  fPixels = memory;
}

void TpixelMap::setPixel(int x, int y, int count, const Tpixel32* source, bool blend) {
  Tpixel32* dst = pixelPointer(x, y);
  if (!dst || !source || count <= 0) return;
  size_t room = size_t(width()) * size_t(height()) - size_t(dst - fPixels);
  size_t n = std::min(size_t(count), room);
  if (!blend) {
    std::memcpy(dst, source, n * sizeof(Tpixel32));
    return;
  }
  for (size_t i = 0; i < n; ++i) {
    uint32_t a = source[i].fChannels.fAlpha;
    uint8_t* d = reinterpret_cast<uint8_t*>(dst + i);
    const uint8_t* s = reinterpret_cast<const uint8_t*>(source + i);
    for (int c = 0; c < 4; ++c) d[c] = uint8_t(std::min<uint32_t>(255, s[c] + d[c] * (255 - a) / 255));
  }
}

void TpixelMap::verticalFlip() {
  int w = width(), h = height();
  if (!fPixels || w <= 0) return;
  for (int top = 0, bottom = h - 1; top < bottom; ++top, --bottom)
    std::swap_ranges(fPixels + size_t(top) * size_t(w), fPixels + size_t(top + 1) * size_t(w),
                     fPixels + size_t(bottom) * size_t(w));
}

void TpixelMap::rgbaSwitch() {
  if (!fPixels) return;
  size_t n = size_t(std::max(0, width())) * size_t(std::max(0, height()));
  for (size_t i = 0; i < n; ++i) std::swap(fPixels[i].fChannels.fRed, fPixels[i].fChannels.fBlue);
}

namespace {
struct MapRows {
  const Tpixel32* next;
  int width;
};

int mapRow(void* arg, uint8_t** color, float** depth) {
  auto* rows = static_cast<MapRows*>(arg);
  if (color) *color = reinterpret_cast<uint8_t*>(const_cast<Tpixel32*>(rows->next));
  if (depth) *depth = nullptr;
  rows->next += rows->width;
  return 0;
}
}  // namespace

bool TpixelMap::zoom(const TportRect& rect) {
  int w = width(), h = height(), nw = rect.width(), nh = rect.height();
  if (!fPixels || w < 1 || h < 1 || nw < 1 || nh < 1) return false;
  std::vector<Tpixel32> result(size_t(nw) * size_t(nh));
  MapRows rows{fPixels, w};
  ILzoom* z = ILnewzoom(nullptr);
  int bound = ILbindzoom(z, &rows, mapRow, 0, nw, nh, w, h);
  if (bound > 1) {
    ILdelzoom(z);
    return false;
  }
  for (int y = 0; y < nh; ++y) ILreadzoom(z, &result[size_t(y) * size_t(nw)], nullptr);
  ILdelzoom(z);
  TportRect::operator=(rect);
  fOwned = std::move(result);
  fPixels = fOwned.data();
  return true;
}
