// Speed of the pixel codecs and of whole-image writing and reading.
// Throughput is counted in bytes of decoded pixels (4 bytes a pixel for
// colour, plus 4 for depth).
#include <benchmark/benchmark.h>

#include <unistd.h>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "kelpimage/il/il.h"

namespace {

// A render-like RGBA picture: smooth gradients, flat shapes, soft edges.
std::vector<uint8_t> renderLike(int w, int h, int x0 = 0, int y0 = 0) {
  std::vector<uint8_t> p(size_t(w) * h * 4);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      double u = (x + x0) / 4096.0, v = (y + y0) / 4096.0;
      double dx = u - 0.4, dy = v - 0.5;
      bool disc = dx * dx + dy * dy < 0.05;
      uint8_t* px = &p[(size_t(y) * w + x) * 4];
      px[0] = disc ? 30 : uint8_t(255 * (1 - u));
      px[1] = disc ? 140 : uint8_t(255 * v);
      px[2] = disc ? 255 : uint8_t(255 * u);
      px[3] = (u > 0.8) ? uint8_t(255 * (1 - (u - 0.8) * 5)) : 255;
    }
  return p;
}

std::vector<float> depthLike(int w, int h) {
  std::vector<float> z(size_t(w) * h);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) z[size_t(y) * w + x] = -1.0f / (1.0f + 0.002f * float(x) + 0.001f * float(y));
  return z;
}

ILcodecfn packer(int n) {
  ILcodecfn f = nullptr;
  ILfindcompressor(uint32_t(n), nullptr, &f, nullptr);
  return f;
}
ILcodecfn unpacker(int n) {
  ILcodecfn f = nullptr;
  ILfindcompressor(uint32_t(n), nullptr, nullptr, &f);
  return f;
}

ILpackinfo tileInfo(int bytes) {
  ILpackinfo i{};
  i.width = 64;
  i.height = 64;
  i.bytes = uint32_t(bytes);
  i.bitmask = 15;
  i.channels = 4;
  i.linewidth = 64;
  return i;
}

// Tiles from across the picture, so that flat and busy ones both count.
std::vector<std::vector<uint8_t>> tiles() {
  std::vector<std::vector<uint8_t>> t;
  for (int ty = 0; ty < 4096; ty += 512)
    for (int tx = 0; tx < 4096; tx += 512) t.push_back(renderLike(64, 64, tx, ty));
  return t;
}

void BM_Pack(benchmark::State& state) {
  auto src = tiles();
  ILcodecfn pack = packer(int(state.range(0)));
  std::vector<uint8_t> out(64 * 64 * 4);
  size_t i = 0;
  for (auto _ : state) {
    ILpackinfo info = tileInfo(1);
    auto& tile = src[i++ % src.size()];
    benchmark::DoNotOptimize(pack(out.data(), tile.data(), &info));
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * 64 * 64 * 4);
}

void BM_Unpack(benchmark::State& state) {
  auto src = tiles();
  int n = int(state.range(0));
  std::vector<std::vector<uint8_t>> packed;
  std::vector<uint32_t> sizes;
  for (auto& t : src) {
    std::vector<uint8_t> out(64 * 64 * 4);
    ILpackinfo info = tileInfo(1);
    auto copy = t;
    sizes.push_back(uint32_t(packer(n)(out.data(), copy.data(), &info)));
    packed.push_back(out);
  }
  ILcodecfn unpack = unpacker(n);
  std::vector<uint8_t> dest(64 * 64 * 4);
  size_t i = 0;
  for (auto _ : state) {
    size_t k = i++ % packed.size();
    ILpackinfo info = tileInfo(1);
    info.size = sizes[k];
    benchmark::DoNotOptimize(unpack(dest.data(), packed[k].data(), &info));
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * 64 * 64 * 4);
}

void BM_UnpackDepth(benchmark::State& state) {
  auto z = depthLike(64, 64);
  std::vector<uint8_t> out(64 * 64 * 4);
  ILpackinfo info{64, 64, 4, 1, 0, 1, 64, 0, 0, nullptr};
  info.size = uint32_t(ILpackrle(out.data(), z.data(), &info));
  std::vector<float> dest(64 * 64);
  for (auto _ : state) benchmark::DoNotOptimize(ILunpackrle(dest.data(), out.data(), &info));
  state.SetBytesProcessed(int64_t(state.iterations()) * 64 * 64 * 4);
}

struct BigImage {
  int w = 4096, h = 4096;
  std::vector<uint8_t> color = renderLike(w, h);
  std::vector<float> z = depthLike(w, h);
  std::string name = "/tmp/kelp_bench_" + std::to_string(getpid()) + ".iff";
  ~BigImage() { std::remove(name.c_str()); }
  // RGBA, with depth unless `depth` is false.
  void write(uint32_t compress, bool depth = true) {
    ILimage* im = ILopen(name.c_str(), "w");
    ILsetsize(im, w, h);
    ILsettype(im, depth ? 7 : 3);
    ILsetcompress(im, compress);
    ILsave(im, color.data(), z.data(), 0);
    ILclose(im);
  }
};
BigImage& big() {
  static BigImage b;
  return b;
}

void BM_WriteImage(benchmark::State& state) {
  for (auto _ : state) big().write(uint32_t(state.range(0)));
  state.SetBytesProcessed(int64_t(state.iterations()) * 4096 * 4096 * 8);
}

// Bytes are the pixels handed back: four a pixel of colour, four more of depth.
void BM_ReadImage(benchmark::State& state) {
  bool depth = state.range(3) != 0;
  big().write(uint32_t(state.range(0)), depth);
  std::vector<uint8_t> color(size_t(4096) * 4096 * 4);
  std::vector<float> z(depth ? size_t(4096) * 4096 : 0);
  for (auto _ : state) {
    ILimage* im = ILopen(big().name.c_str(), "r");
    ILsetthreads(im, uint32_t(state.range(2)));
    if (state.range(1)) ILctrl(im, ILC_TOPDOWN, 1);  // by lines instead of tiles straight into place
    benchmark::DoNotOptimize(ILload(im, color.data(), depth ? z.data() : nullptr));
    ILclose(im);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * 4096 * 4096 * (depth ? 8 : 4));
}

}  // namespace

BENCHMARK(BM_Pack)->DenseRange(0, 3)->ArgName("compressor");
BENCHMARK(BM_Unpack)->DenseRange(0, 3)->ArgName("compressor");
BENCHMARK(BM_UnpackDepth);
BENCHMARK(BM_WriteImage)->Arg(0)->Arg(1)->Arg(3)->ArgName("compressor")->Unit(benchmark::kMillisecond);
// Wall time: the second thread is the point. Reading by lines has one.
BENCHMARK(BM_ReadImage)
    ->Args({0, 0, 1, 1})
    ->Args({1, 0, 1, 1})
    ->Args({1, 0, 2, 1})
    ->Args({1, 1, 1, 1})
    ->Args({3, 0, 1, 1})
    ->Args({3, 0, 2, 1})
    ->Args({1, 0, 1, 0})
    ->Args({1, 0, 2, 0})
    ->ArgNames({"compressor", "bylines", "threads", "depth"})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

namespace {
// Resampling a whole picture through a zoom record, line by line.
struct RasterRows {
  const uint8_t* next;
  int width;
};
int rasterRow(void* arg, uint8_t** color, float** depth) {
  auto* r = static_cast<RasterRows*>(arg);
  if (color) *color = const_cast<uint8_t*>(r->next);
  if (depth) *depth = nullptr;
  r->next += size_t(r->width) * 4;
  return 0;
}

const char* const kFilters[] = {"auto", "gauss", "lanczos"};

void resample(benchmark::State& state, int sw, int sh, int rw, int rh) {
  static std::vector<uint8_t> big = renderLike(4096, 4096);
  std::vector<uint8_t> line(size_t(rw) * 4);
  ILzoom* z = ILnewzoom(kFilters[state.range(0)]);
  ILsetzoomthreads(z, uint32_t(state.range(1)));
  for (auto _ : state) {
    RasterRows rows{big.data(), sw};
    ILbindzoom(z, &rows, rasterRow, 0, rw, rh, sw, sh);
    for (int y = 0; y < rh; ++y) ILreadzoom(z, line.data(), nullptr);
    // Rebinding with the same sizes only rewinds; bind another size between runs.
    ILbindzoom(z, &rows, rasterRow, 0, rw + 1, rh, sw, sh);
  }
  ILdelzoom(z);
  state.counters["in_Mpixel/s"] =
      benchmark::Counter(double(sw) * sh / 1e6, benchmark::Counter::kIsIterationInvariantRate);
  state.counters["out_Mpixel/s"] =
      benchmark::Counter(double(rw) * rh / 1e6, benchmark::Counter::kIsIterationInvariantRate);
  state.SetLabel(std::string(kFilters[state.range(0)]) + ", " + std::to_string(state.range(1)) + " thread(s)");
}

void BM_Reduce4KtoHD(benchmark::State& state) { resample(state, 4096, 4096, 1920, 1080); }
void BM_Enlarge1Kto4K(benchmark::State& state) { resample(state, 1024, 1024, 4096, 4096); }

void BM_QuickBlur(benchmark::State& state) {
  static std::vector<uint8_t> pic = renderLike(2048, 2048);
  std::vector<uint8_t> out(pic.size());
  for (auto _ : state) ILqblur(out.data(), pic.data(), 2048, 2048, float(state.range(0)));
  state.counters["Mpixel/s"] = benchmark::Counter(2048.0 * 2048 / 1e6, benchmark::Counter::kIsIterationInvariantRate);
}
}  // namespace

BENCHMARK(BM_Reduce4KtoHD)
    ->ArgsProduct({{0, 1, 2}, {1, 2}})
    ->ArgNames({"filter", "threads"})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_Enlarge1Kto4K)
    ->ArgsProduct({{0, 1, 2}, {1, 2}})
    ->ArgNames({"filter", "threads"})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_QuickBlur)->Arg(1)->Arg(10)->Arg(50)->Unit(benchmark::kMillisecond);
