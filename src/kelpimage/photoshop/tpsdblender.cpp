#include "kelpimage/photoshop/tpsdblender.h"

#include "kelpimage/base/tparallel.h"
#include "kelpimage/photoshop/channelwork.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <utility>
#include <vector>

namespace zkPhotoshop {

namespace {

// The constants of a sample width. The 8-bit forms are the program's; the
// 16-bit ones put each 8-bit shift, mask and "low 16 bits" at 16-bit scale.
template <class T>
struct Scale;
template <>
struct Scale<uint8_t> {
  static constexpr uint32_t M = 255, mid = 128, hi = 8, lo = 7;
  static constexpr uint64_t low = 0xFFFF, top = 255;
  static bool negative(uint32_t r) { return int16_t(uint16_t(r)) < 0; }
};
template <>
struct Scale<uint16_t> {
  static constexpr uint32_t M = 65535, mid = 32768, hi = 16, lo = 15;
  static constexpr uint64_t low = 0xFFFFFFFF, top = 65535;
  static bool negative(uint32_t r) { return int32_t(r) < 0; }
};

inline int64_t tr(double x) { return int64_t(x); }
inline int64_t rnd(double x) { return int64_t(std::nearbyint(x)); }

enum Mode {
  kNormal = 0,
  kMultiply,
  kDarken,
  kDifference,
  kSmudge,
  kHardLight,
  kDivide,
  kLighten,
  kScreen,
  kInverseDivide,
  kOverlay,
  kHue,
  kSaturation,
  kLuminosity,
  kColor,
  kModes
};

// One colour sample by a mode of the first eleven; a, t and u as the
// blend computes them once a pixel.
template <class T, int MODE>
inline T colour(uint32_t s, uint32_t d, uint32_t sA, double a, double t, double u) {
  using S = Scale<T>;
  constexpr double M = S::M;
  int64_t v = 0;
  if constexpr (MODE == kNormal) {
    v = rnd((double(uint32_t(s * sA)) + d * t) * (1.0 / (sA + t)));
  } else if constexpr (MODE == kMultiply) {
    v = ((tr(a * s * d) >> S::hi) & int64_t(S::top)) + tr(u * d);
  } else if constexpr (MODE == kDarken) {
    v = tr(u * d + a * s);
    if ((uint64_t(v) & S::low) >= d) v = d;
  } else if constexpr (MODE == kDifference) {
    v = tr(std::fabs(d - double(sA) * double(s) / M));
  } else if constexpr (MODE == kSmudge) {
    v = tr(a * s + d) - int64_t((uint64_t(tr(a * s * d)) & S::low) >> S::lo);
  } else if constexpr (MODE == kHardLight) {
    double p = a * s;
    if ((uint64_t(tr(p)) & S::low) < S::mid)
      v = int64_t((uint64_t(tr(p * d)) & S::low) >> S::lo);
    else
      v = int64_t(S::M) - int64_t((uint64_t(tr((M - p) * (M - d))) & S::low) >> S::lo);
  } else if constexpr (MODE == kDivide || MODE == kLighten) {
    double p = a * s;
    v = p > d ? tr(p) : int64_t(d);
  } else if constexpr (MODE == kScreen) {
    v = tr(M - double((uint64_t(tr((M - a * s) * (M - d))) >> S::hi) & S::top));
  } else if constexpr (MODE == kInverseDivide) {
    if (s == 0) return 0;
    uint32_t r = S::M - ((uint32_t(S::M - d) << S::hi) / s);
    v = S::negative(r) ? 0 : int64_t(r);
  } else if constexpr (MODE == kOverlay) {
    v = d < S::mid ? int64_t((d * s) >> S::lo) : int64_t(S::M - (((S::M - d) * (S::M - s)) >> S::lo));
  }
  return T(uint64_t(v));  // cut to the sample width, never clamped
}

template <class T, int MODE>
inline void hslMode(const T* s, T* d) {
  constexpr uint32_t M = Scale<T>::M;
  Thsl from = rgbToHsl(s[0], s[1], s[2], M);
  Thsl to = rgbToHsl(d[0], d[1], d[2], M);
  Thsl out = to;
  if constexpr (MODE == kHue) out.h = from.h;
  if constexpr (MODE == kSaturation) out.s = from.s;
  if constexpr (MODE == kLuminosity) out.l = from.l;
  if constexpr (MODE == kColor) {
    out.h = from.h;
    out.s = from.s;
  }
  uint32_t r, g, b;
  hslToRgb(out, M, r, g, b);
  d[0] = T(r);
  d[1] = T(g);
  d[2] = T(b);
}

struct Planes {
  uint8_t* c[4];  // red, green, blue, transparency
};

template <class T>
inline T load(const uint8_t* plane, size_t i) {
  T v;
  std::memcpy(&v, plane + i * sizeof(T), sizeof(T));
  return v;
}
template <class T>
inline void store(uint8_t* plane, size_t i, T v) {
  std::memcpy(plane + i * sizeof(T), &v, sizeof(T));
}

// The pixels [first, last) of one row.
template <class T, int MODE>
void blendSpan(const Planes& src, const Planes& dst, size_t first, size_t last) {
  using S = Scale<T>;
  for (size_t i = first; i < last; ++i) {
    uint32_t sA = load<T>(src.c[3], i);
    if (sA == 0) continue;
    uint32_t dA = load<T>(dst.c[3], i);
    T sc[3] = {load<T>(src.c[0], i), load<T>(src.c[1], i), load<T>(src.c[2], i)};
    if (dA == 0) {
      for (int k = 0; k < 3; ++k) store<T>(dst.c[k], i, sc[k]);
      store<T>(dst.c[3], i, T(sA));
      continue;
    }
    if constexpr (MODE >= kHue) {
      T dc[3] = {load<T>(dst.c[0], i), load<T>(dst.c[1], i), load<T>(dst.c[2], i)};
      hslMode<T, MODE>(sc, dc);
      for (int k = 0; k < 3; ++k) store<T>(dst.c[k], i, dc[k]);
      if (sA < dA) store<T>(dst.c[3], i, T(sA));
    } else {
      double t = double(uint32_t((S::M - sA) * dA)) * (1.0 / S::M);
      double a = sA * (1.0 / S::M);
      double u = t / (sA + t);
      for (int k = 0; k < 3; ++k) store<T>(dst.c[k], i, colour<T, MODE>(sc[k], load<T>(dst.c[k], i), sA, a, t, u));
      if constexpr (MODE == kNormal) store<T>(dst.c[3], i, T(uint64_t(rnd(sA + t))));
      if constexpr (MODE == kInverseDivide || MODE == kOverlay) store<T>(dst.c[3], i, T(uint64_t(tr(sA + t))));
    }
  }
}

using SpanFn = void (*)(const Planes&, const Planes&, size_t, size_t);

template <class T, size_t... I>
constexpr std::array<SpanFn, sizeof...(I)> spanTable(std::index_sequence<I...>) {
  return {&blendSpan<T, int(I)>...};
}

}  // namespace

Thsl rgbToHsl(uint32_t R, uint32_t G, uint32_t B, uint32_t maximum) {
  const double k = 1.0 / maximum;
  double r = R * k, g = G * k, b = B * k;
  double max = std::max({r, g, b}), min = std::min({r, g, b});
  double sum = max + min;
  Thsl out;
  out.l = 0.5 * sum;
  double d = max - min;
  if (d == 0) return out;
  out.s = out.l <= 0.5 ? d / sum : d / (2 - max - min);
  double h;
  if (r == max)
    h = g == min ? 5 + (max - b) / d : 1 - (max - g) / d;
  else if (g == max)
    h = b == min ? 1 + (max - r) / d : 3 - (max - b) / d;
  else
    h = r == min ? 3 + (max - g) / d : 5 - (max - r) / d;
  out.h = h * (1.0 / 6);
  return out;
}

void hslToRgb(const Thsl& c, uint32_t maximum, uint32_t& r, uint32_t& g, uint32_t& b) {
  const double M = maximum;
  auto cut = [&](double v) { return uint32_t(uint64_t(tr(v * M + 0.5)) & (maximum == 255 ? 0xFFFF : 0xFFFFFFFF)); };
  if (c.s == 0) {
    r = g = b = cut(c.l);
    return;
  }
  double q = c.l <= 0.5 ? (c.s + 1) * c.l : c.s + c.l - c.s * c.l;
  double p = 2 * c.l - q;
  double x = c.h * 6;
  int64_t k = tr(x);
  double ft = (x - double(k)) * (q - p);
  double rise = p + ft, fall = q - ft;
  double o[3];
  switch (k) {
    case 1: o[0] = fall, o[1] = q, o[2] = p; break;
    case 2: o[0] = p, o[1] = q, o[2] = rise; break;
    case 3: o[0] = p, o[1] = fall, o[2] = q; break;
    case 4: o[0] = rise, o[1] = p, o[2] = q; break;
    case 5: o[0] = q, o[1] = p, o[2] = fall; break;
    default: o[0] = q, o[1] = rise, o[2] = p; break;
  }
  r = cut(o[0]);
  g = cut(o[1]);
  b = cut(o[2]);
}

TpsdBlender::TpsdBlender(unsigned threads) : fThreads(threadsFor(threads)) {
  const char* keys[] = {"norm", "mul ", "dark", "diff", "smud", "hLit", "div ", "lite",
                        "scrn", "idiv", "over", "hue ", "sat ", "lum ", "colr"};
  for (int mode = 0; mode < kModes; ++mode) {
    const char* k = keys[mode];
    fModes[uint32_t(uint8_t(k[0])) << 24 | uint32_t(uint8_t(k[1])) << 16 | uint32_t(uint8_t(k[2])) << 8 |
           uint8_t(k[3])] = mode;
  }
}

int TpsdBlender::modeOf(uint32_t key) {
  auto it = fModes.find(key);
  if (it == fModes.end()) it = fModes.emplace(key, kNormal).first;
  return it->second;
}

void TpsdBlender::blend(TpixelData16& source, TpixelData16& canvas, uint32_t key, int32_t top, int32_t left,
                        int32_t bottom, int32_t right) {
  fMode = modeOf(key);
  for (const auto& [id, ch] : source.fChannels) {
    if (!ch || canvas.hasChannel(id)) continue;
    canvas.addChannel(id, ch->fWidth, ch->fHeight, 0);
  }
  const PHOTOSHOP_CHANNEL ids[4] = {channelRed, channelGreen, channelBlue, channelTransparency};
  Planes src{}, dst{};
  uint32_t stride = canvas.width(channelRed);
  size_t samples = SIZE_MAX;
  for (int c = 0; c < 4; ++c) {
    src.c[c] = source.getChannelPixPtr(ids[c]);
    dst.c[c] = canvas.getChannelPixPtr(ids[c]);
    if (!src.c[c] || !dst.c[c]) return;  // nothing is read of a channel that is not there
    samples = std::min<size_t>({samples, source.size(ids[c]), canvas.size(ids[c])});
  }
  if (source.format() != canvas.format() || stride == 0) return;
  int64_t rows = int64_t(samples / stride);
  int64_t y0 = std::max<int64_t>(top, 0), y1 = std::min<int64_t>(bottom, rows);
  int64_t x0 = std::max<int64_t>(left, 0), x1 = std::min<int64_t>(right, stride);
  if (y0 >= y1 || x0 >= x1) return;
  static constexpr auto spans8 = spanTable<uint8_t>(std::make_index_sequence<kModes>());
  static constexpr auto spans16 = spanTable<uint16_t>(std::make_index_sequence<kModes>());
  auto span = canvas.is8bit() ? spans8[size_t(fMode)] : spans16[size_t(fMode)];
  auto band = [&](int64_t from, int64_t to) {
    for (int64_t y = from; y < to; ++y) span(src, dst, size_t(y * stride + x0), size_t(y * stride + x1));
  };
  // Pixels are independent: bands of rows go to threads where that pays.
  int64_t area = (y1 - y0) * (x1 - x0);
  unsigned threads = area < (1 << 18) ? 1 : fThreads;
  int64_t height = y1 - y0;
  TparallelFor(threads, threads,
               [&](size_t t) { band(y0 + height * int64_t(t) / threads, y0 + height * int64_t(t + 1) / threads); });
}

}  // namespace zkPhotoshop
