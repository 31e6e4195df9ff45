// Zoom records: parameters, binding and the weight tables.
#include "kelpimage/il/ilzoom.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace {
using Real = long double;  // intermediate precision between stored floats

bool builtinWord(const std::string& name) { return name == "auto" || name == "impulse" || name == "dirac"; }

std::string& defaultName() {
  static std::string name;
  return name;
}

void dropLoaded(ILzoom* z) {
  ILdropfilter(z->loadedX);
  ILdropfilter(z->loadedY);
  z->loadedX = z->loadedY = nullptr;
}

// Loads the pair of filters the record's name (or `name`) gives.
void loadPair(ILzoom* z, const std::string& name) {
  dropLoaded(z);
  ILloadfilterpair(name, z->blurX, z->blurY, z->loadedX, z->loadedY);
  z->activeX = z->loadedX;
  z->activeY = z->loadedY;
  z->bound = false;
}

// The running-sum table at u, interpolated.
float tableAt(const ILfilterdef* f, float u) {
  int k = int(u);  // toward zero
  if (k < 0) return 0.0f;
  if (k >= 511) return f->table[511];
  return f->table[k] + (f->table[k + 1] - f->table[k]) * (u - float(k));
}

// Scales raw weights to integers summing to 16384, after trimming taps at
// either end that carry under 2 percent of the mean weight. Returns false
// when nothing is left.
bool normalise(std::vector<float>& raw, int& first) {
  auto total = [&](size_t from, size_t to) {
    double sum = 0, abs = 0;
    for (size_t i = from; i < to; ++i) {
      sum += raw[i];
      abs += std::fabs(double(raw[i]));
    }
    return sum != 0.0 ? sum : abs;
  };
  double sum = total(0, raw.size());
  if (sum == 0.0) return false;
  float threshold = float(std::fabs(sum) * 0.02 / double(raw.size()));
  size_t end = raw.size(), begin = 0;
  while (end > 0 && std::fabs(raw[end - 1]) <= threshold) --end;
  while (begin < end && std::fabs(raw[begin]) <= threshold) ++begin;
  if (begin == end) return false;
  raw = std::vector<float>(raw.begin() + long(begin), raw.begin() + long(end));
  first += int(begin);
  sum = total(0, raw.size());
  if (sum == 0.0) return false;
  double scale = std::fabs(16384.0 / sum);
  for (float& w : raw) w = float(std::trunc(scale * double(w) + 0.5));
  return true;
}

int truncClamp(Real v, int low, int high) {
  Real t = std::trunc(v);
  if (t < low) return low;
  if (t > high) return high;
  return int(t);
}
}  // namespace

int ILbuildtaps(std::vector<ILtaps>& taps, const ILfilterdef* f, int n, int m, float blur, float offset, float low,
                float high) {
  taps.assign(size_t(m), ILtaps{});
  Real step = (Real(n) - low - high) / Real(m);
  bool magnify = unsigned(m) > unsigned(n);
  float b = float(Real(blur) * 0.01L);
  Real t = magnify ? Real(b) * (2.0L * n - 2.0L * low - 2.0L * high) : Real(b) * 2.0L * m;
  if (blur >= 0.0f) {
    if (t < 1.0L) t = 1.0L;
  } else {
    t = 1.0L / (1.0L - t);
    if (t <= 0.0L) t = 0.0001L;
  }
  float w = magnify ? float(t) : float(t * step);
  Real half = Real(w) * f->radius + (magnify ? 0.5L : 0.0L);
  float K = float(511.0L / (2.0L * f->radius));
  Real inv = 1.0L / Real(w);
  int support = 0;
  std::vector<float> raw;
  for (int i = 0; i < m; ++i) {
    ILtaps& e = taps[size_t(i)];
    Real c = (Real(i) + offset) * step + low;
    float cf = float(c);
    int lo = truncClamp(c - half + 0.000001L, 0, n - 1);
    int hi = truncClamp(Real(cf) + half - 0.000001L, lo, n - 1);
    int count = hi - lo + 1;
    bool single = count == 1;
    if (!single) {
      raw.clear();
      for (int j = lo; j <= hi; ++j) {
        float a = float(((Real(j) - c) * inv + f->radius) * K);
        float b2 = float(((Real(j) + 1 - c) * inv + f->radius) * K);
        raw.push_back(tableAt(f, b2) - tableAt(f, a));
      }
      int firstIndex = lo;
      if (normalise(raw, firstIndex)) {
        e.count = int(raw.size());
        e.first = firstIndex;
        e.weights.assign(raw.begin(), raw.end());
        e.absSum = 0;
        for (int32_t w : e.weights) e.absSum += std::abs(int64_t(w));
      } else {
        single = true;
      }
    }
    if (single) {
      e.count = 1;
      e.first = truncClamp(Real(cf), 0, n - 1);
      e.weights.clear();
    }
    support = std::max(support, e.count);
  }
  return support;
}

static ILzoom* unguardedNewzoom(const char* filter) {
  auto* z = new ILzoom;
  if (filter)
    z->name = filter;
  else
    z->name = defaultName().empty() ? "auto" : defaultName();
  if (!builtinWord(z->name)) {
    loadPair(z, z->name);
    if (!z->loadedX || !z->loadedY) dropLoaded(z);
  }
  return z;
}

void ILdelzoom(ILzoom* z) {
  if (!z) return;
  dropLoaded(z);
  delete z;
}

void ILsetzoomthreads(ILzoom* z, uint32_t threads) {
  if (z) z->threads = threads;
}

void ILsetzoomblur(ILzoom* z, float x, float y) {
  if (!z || (z->blurX == x && z->blurY == y)) return;
  z->blurX = x;
  z->blurY = y;
  z->bound = false;
}

void ILsetzoomoffset(ILzoom* z, float x, float y) {
  auto clamp = [](float v) { return v <= 0.0f ? 0.000001f : v >= 1.0f ? 0.999999f : v; };
  x = clamp(x);
  y = clamp(y);
  if (!z || (z->offsetX == x && z->offsetY == y)) return;
  z->offsetX = x;
  z->offsetY = y;
  z->bound = false;
}

void ILsetzoommargin(ILzoom* z, float xl, float yl, float xh, float yh) {
  auto clamp = [](float v) { return v < 0.0f ? 0.0f : v >= 1.0f ? 0.999999f : v; };
  float m[4] = {clamp(xl), clamp(yl), clamp(xh), clamp(yh)};
  if (!z || std::memcmp(m, z->margin, sizeof m) == 0) return;
  std::memcpy(z->margin, m, sizeof m);
  z->bound = false;
}

static int unguardedBindzoom(ILzoom* z, void* arg, ILlinefn callback, int mode, int32_t rw, int32_t rh, int32_t sw,
                             int32_t sh) {
  for (int32_t v : {rw, rh, sw, sh})
    if (v < 1 || v > 32768) return ILfail(IL_ERANGE);
  z->arg = arg;
  z->callback = callback;
  z->mode = mode & 3;
  z->depthBytes = rw * 4;
  z->colorBytes = rw * ((mode & 2) ? 8 : 4);
  z->row = 0;
  z->taken = 0;
  z->batch = ILzoomBatch();
  z->lastLine = -1;
  z->target = int(std::trunc(double(z->offsetY) / rh * sh));

  if (z->name == "auto") {
    bool magnify = rw > sw || rh > sh;
    if (!z->loadedX || magnify != z->magnified) {
      loadPair(z, magnify ? "box" : "sinc");
      z->magnified = magnify;
    }
  }
  if (z->bound && z->sourceW == sw && z->sourceH == sh && z->resultW == rw && z->resultH == rh) return z->identity;
  z->sourceW = sw;
  z->sourceH = sh;
  z->resultW = rw;
  z->resultH = rh;
  z->activeX = z->loadedX;
  z->activeY = z->loadedY;
  z->bound = true;

  for (;;) {
    z->xmap.clear();
    z->xTaps.clear();
    z->yTaps.clear();
    bool noMargins = z->margin[0] == 0 && z->margin[1] == 0 && z->margin[2] == 0 && z->margin[3] == 0;
    if (!z->activeX && !z->activeY && sw == rw && sh == rh && z->blurX == 0.0f && z->blurY == 0.0f &&
        z->offsetX == 0.5f && z->offsetY == 0.5f && noMargins) {
      z->identity = 1;
      return 1;
    }
    z->identity = 0;
    if (!z->activeX) {
      z->xmap.resize(size_t(rw));
      for (int i = 0; i < rw; ++i)
        z->xmap[size_t(i)] = std::min(sw - 1, int(std::trunc((i + double(z->offsetX)) / rw * sw)));
    }
    if (z->activeX && z->activeY) {
      z->xSupport = ILbuildtaps(z->xTaps, z->activeX, sw, rw, z->blurX, z->offsetX, z->margin[0], z->margin[2]);
      z->ySupport = ILbuildtaps(z->yTaps, z->activeY, sh, rh, z->blurY, z->offsetY, z->margin[1], z->margin[3]);
      if (z->xSupport < 2 && z->ySupport == 1) {
        // Every tap trimmed to one: this is nearest-neighbour after all.
        z->activeX = z->activeY = nullptr;
        continue;
      }
    }
    break;
  }
  size_t ring = size_t(z->activeY ? z->ySupport : 0);
  z->ringColor.assign(ring, std::vector<int32_t>(size_t(rw) * 4));
  z->ringDepth.assign(ring, std::vector<float>(size_t(rw)));
  z->ringHead = 0;
  z->accColor.assign(size_t(rw) * 4, 0);
  z->accDepth.assign(size_t(rw), 0.0f);
  z->colorLine.assign(size_t(rw) * 8, 0);
  z->depthLine.assign(size_t(rw), 0.0f);
  return 0;
}

const char* ILdefaultzoom(const char* filter) {
  defaultName() = filter ? filter : "";
  return defaultName().c_str();
}

void ILzoomsize(const ILzoom* z, int32_t* w, int32_t* h) {
  if (w) *w = z ? z->resultW : 0;
  if (h) *h = z ? z->resultH : 0;
}

const char* ILzoomfilter(const ILzoom* z, int axis) {
  const ILfilterdef* f = z ? (axis ? z->activeY : z->activeX) : nullptr;
  return f ? f->name.c_str() : nullptr;
}

int ILzoomtaps(const ILzoom* z, int axis, int32_t index, int32_t* first, int32_t* weights, int32_t max) {
  if (!z) return 0;
  const std::vector<ILtaps>& taps = axis ? z->yTaps : z->xTaps;
  if (index < 0 || size_t(index) >= taps.size()) return 0;
  const ILtaps& t = taps[size_t(index)];
  if (first) *first = t.first;
  for (int32_t j = 0; weights && j < max && size_t(j) < t.weights.size(); ++j) weights[j] = t.weights[size_t(j)];
  return t.count;
}

// The entry points: no exception leaves the library; running out of memory
// is FL_ENOMEM, anything else unexpected FL_EFIT.
ILzoom* ILnewzoom(const char* filter) {
  return ILguardpointer([&] { return unguardedNewzoom(filter); });
}

int ILbindzoom(ILzoom* z, void* arg, ILlinefn callback, int mode, int32_t rw, int32_t rh, int32_t sw, int32_t sh) {
  return ILguard([&] { return unguardedBindzoom(z, arg, callback, mode, rw, rh, sw, sh); });
}
