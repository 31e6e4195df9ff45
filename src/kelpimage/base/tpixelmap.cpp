#include "kelpimage/base/tpixelmap.h"

#include <algorithm>
#include <cstring>

#include <cmath>

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

const Tpixel32* TpixelMap::pixelPointer(int x, int y) const { return const_cast<TpixelMap*>(this)->pixelPointer(x, y); }

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
// The source samples one result sample draws on, with weights summing to one.
struct Taps {
  int first = 0;
  std::vector<float> weights;
};

// Minifying averages the source samples each result sample covers (by how
// much of each it covers); magnifying interpolates linearly between centres.
std::vector<Taps> axisTaps(int n, int m) {
  std::vector<Taps> taps(static_cast<size_t>(m), Taps{});
  double scale = double(n) / m;
  for (int i = 0; i < m; ++i) {
    Taps& t = taps[size_t(i)];
    if (m < n) {
      double lo = i * scale, hi = (i + 1) * scale;
      t.first = int(lo);
      for (int s = t.first; s < n && s < hi; ++s)
        t.weights.push_back(float((std::min(hi, s + 1.0) - std::max(lo, double(s))) / scale));
    } else {
      double c = std::clamp((i + 0.5) * scale - 0.5, 0.0, double(n - 1));
      t.first = std::min(int(c), n - 1);
      double f = c - t.first;
      t.weights = {float(1.0 - f)};
      if (t.first + 1 < n) t.weights.push_back(float(f));
    }
  }
  return taps;
}

// One pass along an axis: `count` lines of `n` samples (4 channels each,
// `step` floats apart) become lines of `m` samples.
std::vector<float> resampleAxis(const std::vector<float>& in, int n, int m, int count, bool alongRows) {
  std::vector<Taps> taps = axisTaps(n, m);
  std::vector<float> out(size_t(m) * size_t(count) * 4);
  for (int line = 0; line < count; ++line)
    for (int i = 0; i < m; ++i) {
      const Taps& t = taps[size_t(i)];
      float acc[4] = {};
      for (size_t k = 0; k < t.weights.size(); ++k) {
        int s = t.first + int(k);
        size_t at =
            alongRows ? (size_t(line) * size_t(n) + size_t(s)) * 4 : (size_t(s) * size_t(count) + size_t(line)) * 4;
        for (int c = 0; c < 4; ++c) acc[c] += t.weights[k] * in[at + size_t(c)];
      }
      size_t to =
          alongRows ? (size_t(line) * size_t(m) + size_t(i)) * 4 : (size_t(i) * size_t(count) + size_t(line)) * 4;
      std::copy(acc, acc + 4, out.begin() + std::ptrdiff_t(to));
    }
  return out;
}
}  // namespace

bool TpixelMap::zoom(const TportRect& rect) {
  int w = width(), h = height(), nw = rect.width(), nh = rect.height();
  if (!fPixels || w < 1 || h < 1 || nw < 1 || nh < 1) return false;
  size_t n = size_t(w) * size_t(h);
  std::vector<float> planes(n * 4);
  for (size_t i = 0; i < n; ++i)
    for (int c = 0; c < 4; ++c) planes[i * 4 + size_t(c)] = float((fPixels[i].fValue >> (8 * c)) & 0xFFu);
  planes = resampleAxis(planes, w, nw, h, true);
  planes = resampleAxis(planes, h, nh, nw, false);
  std::vector<Tpixel32> result(size_t(nw) * size_t(nh));
  for (size_t i = 0; i < result.size(); ++i) {
    uint32_t v = 0;
    for (int c = 0; c < 4; ++c) v |= uint32_t(std::clamp(std::lround(planes[i * 4 + size_t(c)]), 0L, 255L)) << (8 * c);
    result[i].fValue = v;
  }
  TportRect::operator=(rect);
  fOwned = std::move(result);
  fPixels = fOwned.data();
  return true;
}
