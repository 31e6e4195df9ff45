// Image tools: the quick blur, the transforms against a direct DFT, and the
// frame-range scan.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <vector>

#include "kelpimage/il/il.h"
#include "testutil.h"

using namespace kelptest;

namespace {
// The direct transform with the kernel e^{+2 pi i jk/n}.
std::vector<std::complex<double>> dft(const std::vector<float>& pairs, int sign = 1) {
  size_t n = pairs.size() / 2;
  std::vector<std::complex<double>> out(n);
  for (size_t k = 0; k < n; ++k)
    for (size_t j = 0; j < n; ++j)
      out[k] += std::complex<double>(pairs[2 * j], pairs[2 * j + 1]) *
                std::polar(1.0, sign * 2 * M_PI * double(j * k) / double(n));
  return out;
}

std::vector<float> signal(size_t pairs) {
  std::vector<float> v(pairs * 2);
  for (size_t i = 0; i < v.size(); ++i) v[i] = float(std::sin(0.7 * double(i)) + 0.25 * double(i % 3));
  return v;
}
}  // namespace

TEST(ILtools, QuickBlur) {
  const int w = 60, h = 40;
  std::vector<uint32_t> in(w * h), out(w * h);
  for (int i = 0; i < w * h; ++i) in[size_t(i)] = (i % w < w / 2) ? 0xFFFFFFFF : 0xFF000000;
  // No blur copies, in place too.
  ILqblur(out.data(), in.data(), w, h, 0.0f);  // returns 0 whatever happens: the pixels tell
  EXPECT_EQ(out, in);
  auto same = in;
  ILqblur(same.data(), same.data(), w, h, -1.0f);
  EXPECT_EQ(same, in);
  // A blur softens the edge and keeps the flat parts; small and wide blurs both.
  for (float blur : {2.0f, 10.0f, 50.0f}) {
    ILqblur(out.data(), in.data(), w, h, blur);
    int edge = int((out[size_t(20 * w + w / 2)] >> 8) & 255);
    EXPECT_GT(edge, 0) << blur;
    EXPECT_LT(edge, 255) << blur;
    if (blur < 20) {
      EXPECT_NEAR(int(out[size_t(20 * w + 2)] & 255), 255, 2) << blur;
      EXPECT_NEAR(int(out[size_t(20 * w + w - 3)] & 255), 0, 2) << blur;
    }
  }
  // In place gives what a separate output gives.
  same = in;
  ILqblur(out.data(), in.data(), w, h, 10.0f);
  ILqblur(same.data(), same.data(), w, h, 10.0f);
  EXPECT_EQ(same, out);
}

TEST(ILtools, ComplexTransformsAgainstADirectSum) {
  for (int n : {1, 2, 4, 8, 16, 64}) {
    auto in = signal(size_t(n));
    std::vector<float> out(in.size());
    ILdfft1x(out.data(), in.data(), n);
    auto want = dft(in);
    for (int k = 0; k < n; ++k) {
      EXPECT_NEAR(out[2 * k], want[size_t(k)].real(), 1e-3 * n) << n << " " << k;
      EXPECT_NEAR(out[2 * k + 1], want[size_t(k)].imag(), 1e-3 * n) << n << " " << k;
    }
    // The inverse undoes it, times n.
    std::vector<float> back(in.size());
    ILifft1x(back.data(), out.data(), n);
    for (size_t i = 0; i < in.size(); ++i) EXPECT_NEAR(back[i], in[i] * float(n), 1e-3 * n);
  }
  // Three values are padded to four; forward and back gives four times the input.
  std::vector<float> three = {1, 2, 3, 4, 5, 6}, out(8), back(8);
  ILdfft1x(out.data(), three.data(), 3);
  ILifft1x(back.data(), out.data(), 4);
  for (size_t i = 0; i < 6; ++i) EXPECT_NEAR(back[i], three[i] * 4, 1e-4);
  EXPECT_NEAR(back[6], 0.0f, 1e-4);

  // The quick transform is exact up to four values and for odd sizes.
  for (int n : {1, 2, 3, 4, 5}) {
    auto in = signal(size_t(n));
    std::vector<float> q(in.size());
    ILqft(q.data(), in.data(), n);
    auto want = dft(in);
    for (int k = 0; k < n; ++k) {
      EXPECT_NEAR(q[2 * k], want[size_t(k)].real(), 1e-4) << n;
      EXPECT_NEAR(q[2 * k + 1], want[size_t(k)].imag(), 1e-4) << n;
    }
  }
  // Above four its butterflies all take the first twiddle, (1, 0).
  auto in = signal(8);
  std::vector<float> q(16);
  ILqft(q.data(), in.data(), 8);
  std::vector<float> evens, odds;
  for (int j = 0; j < 8; ++j) (j % 2 ? odds : evens).insert((j % 2 ? odds : evens).end(), {in[2 * j], in[2 * j + 1]});
  auto e = dft(evens), o = dft(odds);
  for (int k = 0; k < 4; ++k) {
    EXPECT_NEAR(q[2 * k], (e[size_t(k)] + o[size_t(k)]).real(), 1e-4);
    EXPECT_NEAR(q[2 * (k + 4) + 1], (e[size_t(k)] - o[size_t(k)]).imag(), 1e-4);
  }
  std::vector<float> inPlace = in;
  ILqft(inPlace.data(), inPlace.data(), 8);
  EXPECT_EQ(inPlace, q);
}

TEST(ILtools, RealTransformPackedForm) {
  // The sum and the alternating sum stand in the first two floats.
  std::vector<float> in = {1, 2, 3, 4, 5, 6, 7, 8}, out(8);
  ILdfft1f(out.data(), in.data(), 8);
  EXPECT_NEAR(out[0], 36.0f, 1e-4);
  EXPECT_NEAR(out[1], -4.0f, 1e-4);
  // Forward and inverse give half the input back: the inverse scales by 1/m.
  std::vector<float> back(8);
  ILifft1f(back.data(), out.data(), 8);
  for (size_t i = 0; i < 8; ++i) EXPECT_NEAR(back[i], in[i] / 2, 1e-4) << i;
  // Padding: five values are transformed as eight.
  std::vector<float> five = {1, 1, 1, 1, 1}, padded(8);
  ILdfft1f(padded.data(), five.data(), 5);
  EXPECT_NEAR(padded[0], 5.0f, 1e-4);
}

TEST(ILtools, FrameRanges) {
  TempDir dir;
  for (int f : {1, 3, 4, 12}) {
    char name[32];
    std::snprintf(name, sizeof name, "shot.%04d.iff", f);
    writeBytes(dir.file(name), {0});
  }
  std::string stem = dir.file("shot");
  ILframerange r{};
  float frames[16];
  char found[512];
  EXPECT_EQ(ILrange((stem + ".[1,10]").c_str(), &r, found, sizeof found, frames), 3);
  EXPECT_EQ(r.first, 1.0f);
  EXPECT_EQ(r.last, 4.0f);
  EXPECT_EQ(r.step, 1.0f);  // the smallest gap
  EXPECT_EQ(frames[2], 4.0f);
  EXPECT_STREQ(found, "/");
  EXPECT_EQ(ILrange((stem + ".[0,0,5]").c_str(), &r, nullptr, 0, frames), 4);  // last 0: no end
  EXPECT_EQ(r.step, 5.0f);
  EXPECT_EQ(ILrange((stem + ".[3]").c_str(), &r, nullptr, 0, nullptr), -1);  // no comma
  EXPECT_EQ(ILrange(dir.file("none.[1,2]").c_str(), &r, nullptr, 0, nullptr), -1);
  EXPECT_EQ(ILrange(dir.file("shot.0003.iff").c_str(), &r, nullptr, 0, nullptr), 0);  // a file, not a range
  EXPECT_EQ(ILrange("http://x", &r, nullptr, 0, nullptr), 0);
}
