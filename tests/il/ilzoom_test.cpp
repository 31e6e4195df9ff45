// Zoom: weight tables, the choice of path, resampling known pictures,
// 8/16-bit and depth lines, filter programs.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <vector>

#include "kelpimage/il/il.h"
#include "testutil.h"

using namespace kelptest;

namespace {
// A source of lines from a raster of 32-bit pixels (or 8-byte pixels), and depth.
struct Source {
  const uint8_t* color = nullptr;
  const float* depth = nullptr;
  int width = 0, pixelBytes = 4, row = 0, rows = 0;
};

int sourceLine(void* arg, uint8_t** color, float** depth) {
  auto* s = static_cast<Source*>(arg);
  if (s->row >= s->rows) return IL_EDONE;
  if (color) *color = const_cast<uint8_t*>(s->color + size_t(s->row) * s->width * s->pixelBytes);
  if (depth) *depth = s->depth ? const_cast<float*>(s->depth + size_t(s->row) * s->width) : nullptr;
  s->row++;
  return 0;
}

// Grey 8-bit pixels (blue = green = red = v, alpha 255) as 32-bit words.
std::vector<uint32_t> grey(const std::vector<int>& values) {
  std::vector<uint32_t> px;
  for (int v : values) px.push_back(0xFF000000u | uint32_t(v) << 16 | uint32_t(v) << 8 | uint32_t(v));
  return px;
}

std::vector<int> taps(const ILzoom* z, int axis, int index, int* first) {
  int32_t w[64], f = 0;
  int n = ILzoomtaps(z, axis, index, &f, w, 64);
  *first = f;
  return std::vector<int>(w, w + (n > 1 ? n : 0));
}

// Resamples a single row of grey values with `filter` and gives the greys back.
std::vector<int> resampleRow(const char* filter, const std::vector<int>& values, int m) {
  auto px = grey(values);
  Source src{reinterpret_cast<uint8_t*>(px.data()), nullptr, int(values.size()), 4, 0, 1};
  ILzoom* z = ILnewzoom(filter);
  ILbindzoom(z, &src, sourceLine, 0, m, 1, int(values.size()), 1);
  std::vector<uint32_t> out(static_cast<size_t>(m));
  EXPECT_EQ(ILreadzoom(z, out.data(), nullptr), 0);
  ILdelzoom(z);
  std::vector<int> g;
  for (uint32_t p : out) g.push_back(int((p >> 8) & 255));
  return g;
}
// Each source pixel's share of result pixel i, in 16384ths: the kernel's
// integral over the pixel, with the kernel as wide as a result pixel when
// minifying and as a source pixel when magnifying; pixels past the image's
// edge do not exist, so the shares of those that do are scaled up.
std::vector<double> integralWeights(double (*kernel)(double), double radius, int n, int m, int i) {
  double step = double(n) / m;
  double width = m < n ? step : 1.0;
  double centre = (i + 0.5) * step;
  std::vector<double> w(size_t(n), 0.0);
  double total = 0;
  for (int j = 0; j < n; ++j) {
    const int samples = 4000;
    double a = (j - centre) / width, b = (j + 1 - centre) / width, sum = 0;
    for (int k = 0; k < samples; ++k) {
      double x = a + (b - a) * (k + 0.5) / samples;
      if (std::fabs(x) <= radius) sum += kernel(x);
    }
    w[size_t(j)] = sum * (b - a) / samples;
    total += w[size_t(j)];
  }
  for (double& v : w) v = v * 16384.0 / total;
  return w;
}
}  // namespace

TEST(ILzoom, WeightTablesOfSmallCases) {
  std::vector<uint32_t> px(8, 0);
  Source src{reinterpret_cast<uint8_t*>(px.data()), nullptr, 4, 4, 0, 2};
  ILzoom* z = ILnewzoom("box");
  ASSERT_EQ(ILbindzoom(z, &src, sourceLine, 0, 2, 1, 4, 2), 0);
  int first = -1;
  // Halving with a box: each result pixel is two source pixels, half and half.
  EXPECT_EQ(taps(z, 0, 0, &first), (std::vector<int>{8192, 8192}));
  EXPECT_EQ(first, 0);
  EXPECT_EQ(taps(z, 0, 1, &first), (std::vector<int>{8192, 8192}));
  EXPECT_EQ(first, 2);
  EXPECT_EQ(taps(z, 1, 0, &first), (std::vector<int>{8192, 8192}));
  ILdelzoom(z);

  // The weights of other cases against the filters' integrals over each
  // source pixel, worked out here from the kernels themselves.
  struct Case {
    const char* filter;
    double radius;
    double (*kernel)(double);
    int n, m;
  };
  const Case cases[] = {
      {"box", 0.5, [](double) { return 1.0; }, 4, 8},
      {"triangle", 1.0, [](double x) { return 1.0 - std::fabs(x); }, 4, 2},
      {"triangle", 1.0, [](double x) { return 1.0 - std::fabs(x); }, 9, 4},
      {"gauss", 1.5, [](double x) { return std::exp(-2.0 * x * x); }, 12, 5},
  };
  for (const Case& c : cases) {
    std::vector<uint32_t> row(size_t(c.n), 0);
    Source one{reinterpret_cast<uint8_t*>(row.data()), nullptr, c.n, 4, 0, 1};
    z = ILnewzoom(c.filter);
    ASSERT_EQ(ILbindzoom(z, &one, sourceLine, 0, c.m, 1, c.n, 1), 0);
    for (int i = 0; i < c.m; ++i) {
      auto expected = integralWeights(c.kernel, c.radius, c.n, c.m, i);
      int got = 0;
      auto w = taps(z, 0, i, &got);
      if (w.empty()) w = {16384};  // a single tap has no weights
      for (int j = 0; j < c.n; ++j) {
        int k = j - got;
        double actual = k >= 0 && k < int(w.size()) ? w[size_t(k)] : 0.0;
        // The kernels are sampled into 512 steps, and taps under 2 percent go.
        EXPECT_NEAR(actual, expected[size_t(j)], expected[size_t(j)] < 330 ? 330 : 100)
            << c.filter << " " << c.n << "->" << c.m << " result " << i << " source " << j;
      }
    }
    ILdelzoom(z);
  }
}

TEST(ILzoom, PathsAndAutoChoice) {
  std::vector<uint32_t> px(64 * 64, 0xFF102030);
  Source src{reinterpret_cast<uint8_t*>(px.data()), nullptr, 64, 4, 0, 64};
  ILzoom* z = ILnewzoom(nullptr);
  EXPECT_EQ(ILbindzoom(z, &src, sourceLine, 0, 128, 32, 64, 64), 0);  // wider counts as magnifying
  EXPECT_STREQ(ILzoomfilter(z, 0), "x@box");
  EXPECT_EQ(ILbindzoom(z, &src, sourceLine, 0, 100, 100, 64, 64), 0);
  EXPECT_STREQ(ILzoomfilter(z, 0), "x@box");
  EXPECT_EQ(ILbindzoom(z, &src, sourceLine, 0, 16, 16, 64, 64), 0);
  EXPECT_STREQ(ILzoomfilter(z, 1), "y@sinc");
  EXPECT_EQ(ILbindzoom(z, &src, sourceLine, 0, 64, 64, 64, 64), 0);  // auto filters are loaded: no identity
  ILdelzoom(z);

  // No filter and equal sizes: nothing to do.
  z = ILnewzoom("impulse");
  EXPECT_EQ(ILbindzoom(z, &src, sourceLine, 0, 64, 64, 64, 64), 1);
  EXPECT_EQ(ILbindzoom(z, &src, sourceLine, 0, 32769, 64, 64, 64), IL_ERANGE);
  EXPECT_EQ(ILbindzoom(z, &src, sourceLine, 0, 32768, 1, 64, 64), 0);
  EXPECT_EQ(ILzoomfilter(z, 0), nullptr);
  ILsetzoomoffset(z, 0.0f, 1.0f);
  ILsetzoomoffset(nullptr, 0.5f, 0.5f);
  ILdelzoom(z);

  // Nearest-neighbour takes column trunc((i + 0.5) / m * n).
  std::vector<int> ramp;
  for (int i = 0; i < 10; ++i) ramp.push_back(i * 20);
  EXPECT_EQ(resampleRow("dirac", ramp, 4), (std::vector<int>{20, 60, 120, 160}));
  EXPECT_EQ(resampleRow("impulse", ramp, 3), (std::vector<int>{20, 100, 160}));

  // An unknown filter is a box, with 112 left behind.
  flerrno = 0;
  z = ILnewzoom("no-such-filter");
  EXPECT_EQ(flerrno, IL_ENOFILTER);
  ILdelzoom(z);
  EXPECT_EQ(resampleRow("no-such-filter", {0, 100, 200, 40}, 2), (std::vector<int>{50, 120}));
}

TEST(ILzoom, KnownPicturesResampleAsExpected) {
  // A ramp halved with a box is the mean of each pair.
  std::vector<int> ramp;
  for (int i = 0; i < 100; ++i) ramp.push_back(2 * i);
  auto half = resampleRow("box", ramp, 50);
  for (int i = 0; i < 50; ++i) EXPECT_NEAR(half[size_t(i)], 4 * i + 1, 1) << i;
  // Doubled with the triangle, a ramp stays a ramp away from the edges.
  auto twice = resampleRow("triangle", ramp, 200);
  for (int i = 4; i < 196; ++i) EXPECT_NEAR(twice[size_t(i)], (i + 0.5) / 2 * 2 - 0.5 * 2 / 2, 1.5) << i;
  // A constant picture stays constant through every kernel, edges included:
  // an edge pixel is a weighted mean of what exists.
  for (const char* f : {"gauss", "sinc", "lanczos", "mitchell", "catrom", "triangle"})
    for (int m : {7, 33, 80}) {
      auto flat = resampleRow(f, std::vector<int>(33, 200), m);
      for (int v : flat) EXPECT_NEAR(v, 200, 1) << f << " to " << m;
    }
  // A 1-pixel-wide source gives single taps throughout.
  auto one = resampleRow("lanczos", {77}, 5);
  EXPECT_EQ(one, (std::vector<int>{77, 77, 77, 77, 77}));
}

TEST(ILzoom, SixteenBitAndDepthLines) {
  // Two rows of two 16-bit pixels, blue, green, red, alpha.
  std::vector<uint16_t> deep = {100, 200, 300, 400, 100, 200, 300, 400, 100, 200, 300, 400, 100, 200, 300, 400};
  std::vector<float> z = {-1.0f, -0.5f, -1.0f, -0.5f};
  Source src{reinterpret_cast<uint8_t*>(deep.data()), z.data(), 2, 8, 0, 2};
  ILzoom* zoom = ILnewzoom("box");
  ASSERT_EQ(ILbindzoom(zoom, &src, sourceLine, 3, 1, 1, 2, 2), 0);
  uint16_t out[4];
  float d = 0;
  ASSERT_EQ(ILreadzoom(zoom, out, &d), 0);
  // The filtered 16-bit path gives its channels in pairs swapped.
  EXPECT_EQ(std::vector<uint16_t>(out, out + 4), (std::vector<uint16_t>{200, 100, 400, 300}));
  EXPECT_FLOAT_EQ(d, -0.75f);
  ILdelzoom(zoom);

  // Widening through the nearest-neighbour path keeps channels in place.
  std::vector<uint32_t> px = {0x80402010, 0x80402010};
  Source s8{reinterpret_cast<uint8_t*>(px.data()), nullptr, 2, 4, 0, 1};
  zoom = ILnewzoom("dirac");
  ASSERT_EQ(ILbindzoom(zoom, &s8, sourceLine, 2, 4, 1, 2, 1), 0);
  uint16_t wide[16];
  float zl[4] = {1, 1, 1, 1};
  ASSERT_EQ(ILreadzoom(zoom, wide, zl), 0);
  EXPECT_EQ(wide[0], 0x1010);
  EXPECT_EQ(wide[3], 0x8080);
  EXPECT_EQ(zl[0], 0.0f);  // no depth in the source: zeros
  ILdelzoom(zoom);
}

TEST(ILzoom, ImagesReadThroughAZoom) {
  TempDir dir;
  std::string name = dir.file("z.iff");
  ILimage* im = ILopen(name.c_str(), "w");
  ILsetsize(im, 64, 48);
  ILsettype(im, 7);
  std::vector<uint8_t> px(64 * 48 * 4);
  std::vector<float> z(64 * 48, -0.25f);
  for (size_t i = 0; i < px.size(); ++i) px[i] = uint8_t(i % 4 == 3 ? 255 : 90);
  ASSERT_EQ(ILsave(im, px.data(), z.data(), 0), 0);
  ILclose(im);

  im = ILopen(name.c_str(), "r");
  EXPECT_EQ(ILsetsize(im, 64, 48), 0);
  EXPECT_EQ(im->zoom, nullptr);  // the same size: no zoom stays attached
  EXPECT_EQ(ILsetzoom(im, nullptr, 40000, 10, 0, 0, 0.5f, 0.5f), IL_ERANGE);
  EXPECT_EQ(im->zoom, nullptr);
  ASSERT_EQ(ILsetsize(im, 32, 20), 0);
  ASSERT_NE(im->zoom, nullptr);
  int32_t w, h;
  ASSERT_EQ(ILgetsize(im, &w, &h), 0);
  EXPECT_EQ(w, 32);
  EXPECT_EQ(h, 20);
  std::vector<uint8_t> back(32 * 20 * 4);
  std::vector<float> zb(32 * 20);
  ASSERT_EQ(ILload(im, back.data(), zb.data()), 0);
  for (size_t i = 0; i < back.size(); ++i) ASSERT_NEAR(back[i], i % 4 == 3 ? 255 : 90, 1) << i;
  for (float v : zb) ASSERT_NEAR(v, -0.25f, 5e-4);  // weights sum to 16384 give or take rounding
  ILclose(im);

  // Line by line with ILgetline, magnified.
  im = ILopen(name.c_str(), "r");
  ILsetsize(im, 128, 96);
  for (int y = 0; y < 96; ++y) {
    uint8_t* line = nullptr;
    ASSERT_EQ(ILgetline(im, &line, nullptr), 0);
    ASSERT_NE(line, nullptr);
    EXPECT_NEAR(line[127 * 4], 90, 1);
  }
  ILclose(im);

  // Compositing at half size goes through a zoom too.
  im = ILopen(name.c_str(), "r");
  std::vector<uint32_t> buf(40 * 30, 0);
  ASSERT_EQ(ILcload(im, buf.data(), 40, 30, 0, 0, 0.5f, 0.0f, 1), 0);
  EXPECT_EQ(buf[0], 0xFF5A5A5Au);
  EXPECT_EQ(buf[31], 0xFF5A5A5Au);
  EXPECT_EQ(buf[32], 0u);
  ILclose(im);
}

TEST(ILzoom, FilterProgramsInTheWorkArea) {
  TempDir dir;
  std::filesystem::create_directories(dir.path() / "filters");
  auto write = [&](const std::string& name, const std::string& text) {
    writeBytes(dir.file("filters/" + name), std::vector<uint8_t>(text.begin(), text.end()));
  };
  write("flat", "# a box of my own\nradius = 0.5\nnoclip = 1\ny = 1\n");
  write("wider", "radius = 1 + blur / 100\nblur = 0\ny = 1 - abs(x) / radius\n");
  write("broken", "radius = 1\ny = 1 +* x\n");
  setenv("KELP_WORK", dir.path().c_str(), 1);

  EXPECT_EQ(resampleRow("flat", {0, 100, 200, 40}, 2), (std::vector<int>{50, 120}));

  // A program may change "blur": the record gets the new value.
  ILzoom* z = ILnewzoom("wider");
  EXPECT_EQ(flerrno == IL_ENOFILTER, false);
  std::vector<uint32_t> px(16, 0);
  Source src{reinterpret_cast<uint8_t*>(px.data()), nullptr, 16, 4, 0, 1};
  ASSERT_EQ(ILbindzoom(z, &src, sourceLine, 0, 8, 1, 16, 1), 0);
  int first;
  EXPECT_GT(ILzoomtaps(z, 0, 3, &first, nullptr, 0), 2);
  ILdelzoom(z);

  // A broken program: a box, code 112, and a reason naming the file and line.
  flerrno = 0;
  z = ILnewzoom("broken");
  EXPECT_EQ(flerrno, IL_ENOFILTER);
  std::string reason = ILfiltererror();
  EXPECT_NE(reason.find("filters/broken line 2"), std::string::npos) << reason;
  ILdelzoom(z);
  EXPECT_EQ(resampleRow("broken", {0, 100, 200, 40}, 2), (std::vector<int>{50, 120}));
  unsetenv("KELP_WORK");
}

namespace {
// Every line of a zoom of `src` (a fresh copy each time), on `threads`;
// colour and depth as asked. Stops at the first failure and gives its code.
struct Zoomed {
  std::vector<uint8_t> color;
  std::vector<float> depth;
  int code = 0;
  int lines = 0;
};
Zoomed zoomAll(const char* filter, Source src, int mode, int rw, int rh, uint32_t threads, bool color, bool depth,
               float blur = 0.0f) {
  Zoomed z;
  ILzoom* zoom = ILnewzoom(filter);
  ILsetzoomblur(zoom, blur, blur);
  ILsetzoomthreads(zoom, threads);
  int binds = 2;  // a second bind with the same sizes rewinds, and must give the same again
  for (int bind = 0; bind < binds; ++bind) {
    src.row = 0;
    z = Zoomed();
    ILbindzoom(zoom, &src, sourceLine, mode, rw, rh, src.width, src.rows);
    size_t lineBytes = size_t(rw) * ((mode & 2) ? 8 : 4);
    z.color.assign(color ? lineBytes * size_t(rh) : 0, 0);
    z.depth.assign(depth ? size_t(rw) * size_t(rh) : 0, 0.0f);
    for (int y = 0; y < rh; ++y) {
      z.code = ILreadzoom(zoom, color ? &z.color[size_t(y) * lineBytes] : nullptr,
                          depth ? &z.depth[size_t(y) * size_t(rw)] : nullptr);
      if (z.code) break;
      z.lines++;
    }
  }
  ILdelzoom(zoom);
  return z;
}
}  // namespace

// A zoom made a batch of lines at a time on several threads gives the bytes
// of the one made a line at a time, for every filter, size change and mode.
TEST(ILzoom, SeveralThreadsGiveTheSameLines) {
  const int sw = 97, sh = 71;
  std::vector<uint8_t> px(size_t(sw) * sh * 8);
  for (size_t i = 0; i < px.size(); ++i) px[i] = uint8_t((i * 2654435761u) >> 13 ^ (i / 700));
  std::vector<float> z(size_t(sw) * sh);
  for (size_t i = 0; i < z.size(); ++i) z[i] = -1.0f / float(1 + (i * 7) % 501);
  struct Case {
    int rw, rh, mode;
    float blur;
  };
  const Case cases[] = {{41, 23, 0, 0.0f},  {200, 150, 0, 0.0f}, {97, 30, 0, 0.0f},
                        {41, 160, 3, 0.0f}, {60, 50, 1, 30.0f},  {58, 44, 2, 0.0f},
                        {17, 5, 0, 300.0f}, {1, 1, 0, 0.0f},     {50, 67, 0, 0.0f}};
  for (int f = 0; const char* filter = ILbuiltinfilter(f); ++f)
    for (const Case& c : cases) {
      SCOPED_TRACE(testing::Message() << filter << " to " << c.rw << "x" << c.rh << " mode " << c.mode);
      Source src{px.data(), z.data(), sw, (c.mode & 1) ? 8 : 4, 0, sh};
      Zoomed one = zoomAll(filter, src, c.mode, c.rw, c.rh, 1, true, true, c.blur);
      ASSERT_EQ(one.code, 0);
      for (uint32_t threads : {2u, 3u}) {
        Zoomed more = zoomAll(filter, src, c.mode, c.rw, c.rh, threads, true, true, c.blur);
        EXPECT_EQ(more.code, 0);
        EXPECT_EQ(more.color, one.color);
        EXPECT_EQ(more.depth, one.depth);
      }
      // Colour alone reads no depth, and gives the same colour.
      EXPECT_EQ(zoomAll(filter, src, c.mode, c.rw, c.rh, 2, true, false, c.blur).color, one.color);
    }
  // A tall source shrunk a long way: batches end at the lines they may hold,
  // and each starts where the last left its lines.
  std::vector<uint8_t> tall(size_t(7) * 1500 * 4);
  for (size_t i = 0; i < tall.size(); ++i) tall[i] = uint8_t((i * 40503u) >> 5);
  for (const char* filter : {"gauss", "lanczos", "box"}) {
    Source src{tall.data(), nullptr, 7, 4, 0, 1500};
    Zoomed one = zoomAll(filter, src, 0, 5, 90, 1, true, false);
    EXPECT_EQ(zoomAll(filter, src, 0, 5, 90, 2, true, false).color, one.color) << filter;
    EXPECT_EQ(zoomAll(filter, src, 0, 5, 1400, 2, true, false).color,
              zoomAll(filter, src, 0, 5, 1400, 1, true, false).color)
        << filter;
  }
}

TEST(ILzoom, SeveralThreadsFailWhereOneDoes) {
  const int sw = 120, sh = 200;
  std::vector<uint8_t> px(size_t(sw) * sh * 4, 99);
  // The source runs out after 150 of its 200 lines: the lines made before are
  // the same, and then both fail with the source's code.
  Source cut{px.data(), nullptr, sw, 4, 0, 150};
  auto run = [&](uint32_t threads) {
    ILzoom* zoom = ILnewzoom("gauss");
    ILsetzoomthreads(zoom, threads);
    ILbindzoom(zoom, &cut, sourceLine, 0, 50, 90, sw, sh);
    cut.row = 0;
    Zoomed z;
    z.color.assign(50 * 4, 0);
    while ((z.code = ILreadzoom(zoom, z.color.data(), nullptr)) == 0) z.lines++;
    ILdelzoom(zoom);
    return z;
  };
  Zoomed one = run(1), two = run(2);
  EXPECT_EQ(one.code, IL_EDONE);
  EXPECT_EQ(two.code, one.code);
  EXPECT_EQ(two.lines, one.lines);
  EXPECT_GT(one.lines, 0);

  // A batch holds what its first line asked for: depth asked later is refused.
  Source src{px.data(), nullptr, sw, 4, 0, sh};
  ILzoom* zoom = ILnewzoom("gauss");
  ILsetzoomthreads(zoom, 2);
  ILbindzoom(zoom, &src, sourceLine, 0, 50, 90, sw, sh);
  std::vector<uint8_t> line(50 * 4);
  std::vector<float> depth(50);
  ASSERT_EQ(ILreadzoom(zoom, line.data(), nullptr), 0);
  EXPECT_EQ(ILreadzoom(zoom, line.data(), depth.data()), FL_EARG);
  // Asking for less than the first line did is served throughout.
  ILbindzoom(zoom, &src, sourceLine, 0, 50, 90, sw, sh);
  src.row = 0;
  ASSERT_EQ(ILreadzoom(zoom, line.data(), depth.data()), 0);
  for (int y = 1; y < 90; ++y) ASSERT_EQ(ILreadzoom(zoom, line.data(), nullptr), 0) << y;
  ILdelzoom(zoom);
}
