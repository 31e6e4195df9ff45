// Image tools: the quick blur, Fourier transforms and the frame-range scan.
#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "kelpimage/il/ilzoom.h"

// ---------------------------------------------------------------------------
// ILqblur

namespace {
struct RasterSource {
  const uint8_t* next;
  int32_t width;
};

int rasterLine(void* arg, uint8_t** color, float** depth) {
  auto* s = static_cast<RasterSource*>(arg);
  if (color) *color = const_cast<uint8_t*>(s->next);
  if (depth) *depth = nullptr;
  s->next += size_t(s->width) * 4;
  return 0;
}

// The two records of the blur, made on first use; they stay for the process.
struct BlurPair {
  std::mutex lock;
  ILzoom* reducer = nullptr;
  ILzoom* expander = nullptr;
};
}  // namespace

int ILqblur(void* out, const void* in, int32_t w, int32_t h, float blur) {
  size_t bytes = size_t(w) * size_t(h) * 4;
  if (blur <= 0.0f) {
    if (out != in) std::memmove(out, in, bytes);
    return 0;
  }
  static BlurPair& pair = *new BlurPair;
  std::lock_guard<std::mutex> guard(pair.lock);
  if (!pair.reducer) pair.reducer = ILnewzoom("gauss");
  if (!pair.expander) pair.expander = ILnewzoom("gauss");
  if (!pair.reducer || !pair.expander) return flerrno;
  ILsetzoomblur(pair.expander, blur, blur);

  // Reading runs behind writing; a blur in place reads from a copy.
  std::vector<uint8_t> copy;
  if (out == in) copy.assign(static_cast<const uint8_t*>(in), static_cast<const uint8_t*>(in) + bytes);
  RasterSource source{copy.empty() ? static_cast<const uint8_t*>(in) : copy.data(), w};
  float a = float(w) * blur * 0.01f, b = float(h) * blur * 0.01f;
  if (a < 1.5f && b < 1.5f) {
    ILbindzoom(pair.expander, &source, rasterLine, 0, w, h, w, h);
  } else {
    a = std::clamp(a, 1.0f, 4096.0f);
    b = std::clamp(b, 1.0f, 4096.0f);
    int32_t rw = int32_t(std::max(4.0f, float(w) / a)), rh = int32_t(std::max(4.0f, float(h) / b));
    ILbindzoom(pair.reducer, &source, rasterLine, 0, rw, rh, w, h);
    ILbindzoom(pair.expander, pair.reducer, ILgetzoom, 0, w, h, rw, rh);
  }
  auto* dst = static_cast<uint8_t*>(out);
  for (int32_t y = 0; y < h; ++y) ILreadzoom(pair.expander, dst + size_t(y) * size_t(w) * 4, nullptr);
  return 0;
}

// ---------------------------------------------------------------------------
// Transforms

namespace {
struct QftState {
  std::mutex lock;
  std::vector<float> table;  // (cos, sin) of 2 pi k / n
  std::vector<float> scratch;
};

// The quick transform of n values at `stride` (in pairs). Its twiddles come
// from the first table entry throughout, the one the table size word leads to.
void qft(float* out, const float* in, int n, int stride, const std::vector<float>& table) {
  auto at = [&](int k) { return in + size_t(k) * size_t(stride) * 2; };
  if (n == 1) {
    out[0] = at(0)[0], out[1] = at(0)[1];
    return;
  }
  if (n == 2) {
    out[0] = at(0)[0] + at(1)[0], out[1] = at(0)[1] + at(1)[1];
    out[2] = at(0)[0] - at(1)[0], out[3] = at(0)[1] - at(1)[1];
    return;
  }
  if (n == 4) {
    float ar = at(0)[0], ai = at(0)[1], br = at(1)[0], bi = at(1)[1];
    float cr = at(2)[0], ci = at(2)[1], dr = at(3)[0], di = at(3)[1];
    out[0] = ar + br + cr + dr, out[1] = ai + bi + ci + di;
    out[2] = ar - bi - cr + di, out[3] = ai + br - ci - dr;  // a + i b - c - i d
    out[4] = ar - br + cr - dr, out[5] = ai - bi + ci - di;
    out[6] = ar + bi - cr - di, out[7] = ai - br - ci + dr;  // a - i b - c + i d
    return;
  }
  if (n % 2) {
    // An odd size: the direct sum over the table.
    for (int k = 0; k < n; ++k) {
      float re = 0, im = 0;
      for (int j = 0; j < n; ++j) {
        size_t e = size_t((int64_t(j) * k) % n) * 2;
        float c = table[e], s = table[e + 1];
        re += at(j)[0] * c - at(j)[1] * s;
        im += at(j)[0] * s + at(j)[1] * c;
      }
      out[2 * k] = re, out[2 * k + 1] = im;
    }
    return;
  }
  int half = n / 2;
  qft(out, in, half, stride * 2, table);
  qft(out + size_t(half) * 2, in + size_t(stride) * 2, half, stride * 2, table);
  float wr = table[0], wi = table[1];
  for (int k = 0; k < half; ++k) {
    float* e = out + size_t(k) * 2;
    float* o = out + size_t(k + half) * 2;
    float tr = o[0] * wr - o[1] * wi, ti = o[0] * wi + o[1] * wr;
    o[0] = e[0] - tr, o[1] = e[1] - ti;
    e[0] += tr, e[1] += ti;
  }
}

int paddedSize(int n) {
  if (n <= 1) return 1;
  int high = FLhbset(uint32_t(n));
  return (n & (n - 1)) == 0 ? n : 1 << (high + 1);
}

// The complex transform of `pairs` points in place, with the rotation by
// recurrence, all in floats. sign 1 forward, -1 inverse; no scaling.
void four1(float* data, int pairs, int sign) {
  int n = pairs * 2;
  for (int i = 0, j = 0; i < n; i += 2) {
    if (j > i) {
      std::swap(data[j], data[i]);
      std::swap(data[j + 1], data[i + 1]);
    }
    int m = pairs;
    while (m >= 2 && j >= m) {
      j -= m;
      m >>= 1;
    }
    j += m;
  }
  for (int block = 2; n > block; block <<= 1) {
    int step = block << 1;
    float theta = float(sign) * (6.2831855f / float(block));
    float wtemp = std::sin(0.5f * theta);
    float wpr = -2.0f * wtemp * wtemp, wpi = std::sin(theta);
    float wr = 1.0f, wi = 0.0f;
    for (int m = 0; m < block; m += 2) {
      for (int i = m; i < n; i += step) {
        int j = i + block;
        float tr = wr * data[j] - wi * data[j + 1];
        float ti = wr * data[j + 1] + wi * data[j];
        data[j] = data[i] - tr;
        data[j + 1] = data[i + 1] - ti;
        data[i] += tr;
        data[i + 1] += ti;
      }
      wtemp = wr;
      wr = wtemp * wpr - wi * wpi + wr;
      wi = wi * wpr + wtemp * wpi + wi;
    }
  }
}

int complexTransform(float* out, const float* in, int32_t n, int sign) {
  int m = paddedSize(2 * n);
  if (m > 2 * n) std::fill(out + 2 * n, out + m, 0.0f);
  if (out != in) std::memmove(out, in, size_t(2 * n) * sizeof(float));
  four1(out, m / 2, sign);
  return 0;
}

int realTransform(float* out, const float* in, int32_t n, int sign) {
  int m = paddedSize(n);
  if (m > n) std::fill(out + n, out + m, 0.0f);
  if (out != in) std::memmove(out, in, size_t(n) * sizeof(float));
  if (m < 4) return 0;
  float c1 = 0.5f, c2, theta = 3.1415927f / float(m);
  if (sign > 0) {
    c2 = -0.5f;
    four1(out, m / 2, 1);
  } else {
    c2 = 0.5f;
    theta = -theta;
  }
  float wtemp = std::sin(0.5f * theta);
  float wpr = -2.0f * wtemp * wtemp, wpi = std::sin(theta);
  float wr = 1.0f + wpr, wi = wpi;
  for (int i = 1; i < m / 4; ++i) {
    int i1 = 2 * i, i2 = i1 + 1, i3 = m - i1, i4 = i3 + 1;
    float h1r = c1 * (out[i1] + out[i3]), h1i = c1 * (out[i2] - out[i4]);
    float h2r = -c2 * (out[i2] + out[i4]), h2i = c2 * (out[i1] - out[i3]);
    out[i1] = h1r + wr * h2r - wi * h2i;
    out[i2] = h1i + wr * h2i + wi * h2r;
    out[i3] = h1r - wr * h2r + wi * h2i;
    out[i4] = -h1i + wr * h2i + wi * h2r;
    wtemp = wr;
    wr = wtemp * wpr - wi * wpi + wr;
    wi = wi * wpr + wtemp * wpi + wi;
  }
  float h1r = out[0];
  if (sign > 0) {
    out[0] = h1r + out[1];
    out[1] = h1r - out[1];
  } else {
    out[0] = c1 * (h1r + out[1]);
    out[1] = c1 * (h1r - out[1]);
    four1(out, m / 2, -1);
    for (int i = 0; i < m; ++i) out[i] *= 1.0f / float(m);
  }
  return 0;
}
}  // namespace

void ILqft(float* out, const float* in, int32_t n) {
  if (n < 1) return;
  static QftState state;
  std::lock_guard<std::mutex> guard(state.lock);
  // The table is made anew on each call.
  state.table.assign(size_t(n) * 2, 0.0f);
  const double twoPi = 6.283185307179586;
  if (n % 2) {
    for (int k = 0; k < n; ++k) {
      state.table[size_t(k) * 2] = float(std::cos(twoPi * k / n));
      state.table[size_t(k) * 2 + 1] = float(std::sin(twoPi * k / n));
    }
  } else {
    for (int k = 0; k <= n / 2; ++k) {
      state.table[size_t(k) * 2] = float(std::cos(twoPi * k / n));
      state.table[size_t(k) * 2 + 1] = float(std::sin(twoPi * k / n));
    }
    for (int k = n / 2 + 1; k < n; ++k) {
      state.table[size_t(k) * 2] = state.table[size_t(n - k) * 2];
      state.table[size_t(k) * 2 + 1] = -state.table[size_t(n - k) * 2 + 1];
    }
  }
  if (out == in) {
    state.scratch.assign(size_t(n) * 2, 0.0f);
    qft(state.scratch.data(), in, n, 1, state.table);
    std::copy(state.scratch.begin(), state.scratch.end(), out);
  } else {
    qft(out, in, n, 1, state.table);
  }
}

int ILdfft1x(float* out, const float* in, int32_t n) { return complexTransform(out, in, n, 1); }
int ILifft1x(float* out, const float* in, int32_t n) { return complexTransform(out, in, n, -1); }
int ILdfft1f(float* out, const float* in, int32_t n) { return realTransform(out, in, n, 1); }
int ILifft1f(float* out, const float* in, int32_t n) { return realTransform(out, in, n, -1); }

// ---------------------------------------------------------------------------
// ILrange

namespace {
// Frame numbers of the files in `dir` whose names start with `prefix`.
std::vector<float> scanFrames(const std::string& dir, const std::string& prefix, float first, float last) {
  std::vector<float> frames;
  DIR* d = opendir(dir.empty() ? "." : dir.c_str());
  if (!d) return frames;
  while (const dirent* e = readdir(d)) {
    std::string name = e->d_name;
    if (name.size() <= prefix.size() || name.compare(0, prefix.size(), prefix) != 0) continue;
    float frame = float(std::atof(name.c_str() + prefix.size() + 1));
    if (frame >= first && frame <= last && frames.size() < 4095) frames.push_back(frame);
  }
  closedir(d);
  return frames;
}

std::vector<float> scanStem(const std::string& base, const std::string& stem, float first, float last) {
  size_t slash = stem.rfind('/');
  std::string dir = slash == std::string::npos ? "" : stem.substr(0, slash);
  std::string prefix = slash == std::string::npos ? stem : stem.substr(slash + 1);
  if (!base.empty() && base != ".") dir = dir.empty() ? base : base + "/" + dir;
  return scanFrames(dir, prefix, first, last);
}

void copyText(const std::string& s, char* out, size_t size) {
  if (!out || size == 0) return;
  size_t n = std::min(s.size(), size - 1);
  std::memcpy(out, s.data(), n);
  out[n] = 0;
}
}  // namespace

int ILrange(const char* name, ILframerange* range, char* dirOut, size_t dirSize, float* framesOut) {
  if (!name) return -1;
  if (std::strchr(name, ':')) {
    if (std::strncmp(name, "mmap:", 5) != 0) return 0;
    name += 5;
  }
  FLpath* old = FLswappath(ILgetpath());
  bool plain = FLfindfile(name, nullptr, 0);
  FLpath* path = FLswappath(old);
  if (plain) {
    char cwd[4096];
    copyText(getcwd(cwd, sizeof cwd) ? cwd : ".", dirOut, dirSize);
    return 0;
  }
  std::vector<char> stemBuf(std::strlen(name) + 1), bracketBuf(std::strlen(name) + 1);
  FLgetext(name, stemBuf.data(), stemBuf.size(), bracketBuf.data(), bracketBuf.size());
  std::string stem = stemBuf.data(), bracket = bracketBuf.data();
  if (!stem.empty() && stem.back() == '.') stem.pop_back();
  ILframerange local{0.0f, 10000000000.0f, 0.0f};
  if (!range) range = &local;
  else *range = local;
  if (!bracket.empty()) {
    size_t comma = bracket.find(',');
    if (comma == std::string::npos) return -1;
    range->first = float(std::atof(bracket.substr(0, comma).c_str()));
    std::string rest = bracket.substr(comma + 1);
    range->last = float(std::atof(rest.c_str()));
    if (size_t second = rest.find(','); second != std::string::npos)
      range->step = float(std::atoi(rest.substr(second + 1).c_str()));
    if (range->last == 0.0f) range->last = local.last;
    if (range->last < range->first) range->last = range->first;
  }

  std::vector<float> frames;
  std::string dir;
  if (!stem.empty() && stem[0] == '/') {
    frames = scanStem("", stem, range->first, range->last);
    dir.assign(1, '/');  // (assigning a literal trips a false -Wrestrict in GCC 12 at -O3)
  } else {
    for (FLnode* n = path ? path->dirs.head : nullptr; n && frames.empty(); n = n->next) {
      frames = scanStem(n->name ? n->name : ".", stem, range->first, range->last);
      dir = n->name ? n->name : ".";
    }
  }
  if (frames.empty()) return -1;
  std::sort(frames.begin(), frames.end());
  if (framesOut) std::copy(frames.begin(), frames.end(), framesOut);
  copyText(dir, dirOut, dirSize);
  range->first = frames.front();
  range->last = frames.back();
  if (range->step == 0.0f && frames.size() > 1) {
    float gap = frames[1] - frames[0];
    for (size_t i = 2; i < frames.size(); ++i) gap = std::min(gap, frames[i] - frames[i - 1]);
    range->step = gap;
  }
  return int(frames.size());
}
