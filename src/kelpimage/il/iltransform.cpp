// Fourier transforms: the quick transform with its table, and the complex
// and real transforms of one dimension.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include "kelpimage/il/ilinternal.h"

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
