#include "kelpimage/image/timage.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "kelpimage/base/tarray.h"

namespace {
int sizeOf(TpixelFormat f) {
  static const int sizes[] = {4, 4, 3, 8, 6, 16, 12, 4, 4, 4};
  return (f >= 0 && f <= 9) ? sizes[f] : -1;
}
}  // namespace

Timage::Timage(unsigned short w, unsigned short h, TpixelFormat format) : TportRect(0, 0, int16_t(w), int16_t(h)) {
  setPixelFormat(format);
  allocate();
}

Timage::Timage(const Timage& other)
    : TportRect(other), fPixels(other.fPixels), fFormat(other.fFormat), fPixelSize(other.fPixelSize) {}

Timage& Timage::operator=(const Timage& other) {
  if (this != &other) {
    TportRect::operator=(other);
    setPixelFormat(other.fFormat);
    reset();
    fPixels = other.fPixels;
  }
  return *this;
}

Timage::~Timage() { std::free(fPixels); }

void Timage::reset() {
  std::free(fPixels);
  fPixels = nullptr;
}

void Timage::allocate() {
  reset();
  size_t bytes = size_t(std::max(0, height())) * size_t(std::max(0, width())) * fPixelSize;
  if (bytes == 0) throw TmemoryException();
  fPixels = std::malloc(bytes);
  if (!fPixels) throw TmemoryException();
}

void Timage::set(const Timage& other) {
  TportRect::operator=(other);
  setPixelFormat(other.fFormat);
  allocate();
  std::memcpy(fPixels, other.fPixels, size_t(width()) * size_t(height()) * fPixelSize);
}

void Timage::setSize(unsigned short w, unsigned short h) {
  fMinX = fMinY = 0;
  fMaxX = int16_t(w);
  fMaxY = int16_t(h);
  if (w && h)
    allocate();
  else
    reset();
}

void Timage::setSize(const TportRect& rect) { setSize(uint16_t(rect.width()), uint16_t(rect.height())); }

void Timage::setPixels(void* pixels) {
  reset();
  fPixels = pixels;
}

const void* Timage::pixels(unsigned short x, unsigned short y) const {
  return static_cast<const uint8_t*>(fPixels) + (size_t(y) * size_t(width()) + x) * fPixelSize;
}

void* Timage::pixels(unsigned short x, unsigned short y) {
  return static_cast<uint8_t*>(fPixels) + (size_t(y) * size_t(width()) + x) * fPixelSize;
}

void Timage::setPixelFormat(TpixelFormat format) {
  fFormat = format;
  if (int size = sizeOf(format); size > 0) fPixelSize = uint16_t(size);
}

bool Timage::glToIffDepthBuffer(bool orthographic, float n, float f, double depthNear, double depthFar) {
  if (fFormat == kDepthIFF) return true;
  if (fFormat != kDepthGL) return false;
  auto* v = static_cast<float*>(fPixels);
  size_t count = size_t(std::max(0, width())) * size_t(std::max(0, height()));
  if (!v) return true;
  float a = float(depthNear);
  double b = depthFar;
  if (orthographic) {
    float s = float(b - double(a)), r = f - n;
    for (size_t i = 0; i < count; ++i) {
      if (v[i] == 1.0f) {  // bits of exactly 1.0 only: no other value compares equal
        v[i] = 0.0f;
        continue;
      }
      v[i] = float(-1.0 / (double(v[i] - a) * double(s) * double(r) + double(n)));
    }
  } else {
    float scale = float((b - double(a)) * double(n) * double(f) / double(f - n));
    float offset = float(double(n + f) * (b - double(a)) / (2.0 * double(f - n)) + (double(a) + b) * 0.5);
    for (size_t i = 0; i < count; ++i) {
      if (v[i] > 0.998f) {
        v[i] = 0.0f;
        continue;
      }
      long double d = (long double)v[i] - offset;
      v[i] = d == 0.0L ? 0.0f : float(-1.0L / ((-1.0L / d) * (long double)scale));
    }
  }
  return true;
}
