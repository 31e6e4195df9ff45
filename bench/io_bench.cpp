// The readers and writers on a 4096 x 4096 RGBA IFF picture: a whole read
// through TimageReader (bytes of pixels a second; straight colour, or
// premultiplied as the file holds it), and conversions to an
// uncompressed format and at 1920 x 1080 through the zoom, at one and at two
// threads (the argument). Wall time: the second thread is the point.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "kelpimage/io/tconvert.h"
#include "kelpimage/io/timagereader.h"
#include "kelpimage/io/timagewriter.h"

namespace {

constexpr int32_t kSide = 4096;

std::string scratch(const std::string& name) {
  const char* dir = std::getenv("TMPDIR");
  return std::string(dir && *dir ? dir : "/tmp") + "/kelp_io_bench_" + std::to_string(::getpid()) + "_" + name;
}

// A picture of some detail, RLE-packed as renderers write it; made once.
const std::string& source() {
  static const std::string name = [] {
    std::string path = scratch("source.iff");
    TimageInfo spec;
    spec.width = spec.height = kSide;
    spec.alpha = true;
    std::vector<uint8_t> row(size_t(kSide) * 4);
    TimageWriter out;
    if (!out.create(path, spec)) return std::string();
    for (int32_t y = 0; y < kSide; ++y) {
      for (int32_t x = 0; x < kSide; ++x) {
        uint8_t* p = &row[size_t(x) * 4];
        p[0] = uint8_t((x ^ y) >> 3), p[1] = uint8_t(x * 7 / 64 + y / 32), p[2] = uint8_t((x + y) / 32), p[3] = 255;
      }
      if (!out.writeRows(y, y + 1, row.data(), TsampleType::kUint8)) return std::string();
    }
    return out.close() ? path : std::string();
  }();
  return name;
}

void BM_ReadIff(benchmark::State& state) {
  if (source().empty()) return state.SkipWithError("cannot write the source picture");
  std::vector<uint8_t> pixels(size_t(kSide) * kSide * 4);
  for (auto _ : state) {
    TimageReader in;
    const auto association = state.range(0) ? Tassociation::kPremultiplied : Tassociation::kStraight;
    TreadOptions options;
    options.threads = int(state.range(1));
    if (!in.open(source(), options) || !in.readImage(pixels.data(), TsampleType::kUint8, 0, association))
      return state.SkipWithError(in.error().c_str());
    benchmark::DoNotOptimize(pixels.data());
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(pixels.size()));
}

void convert(benchmark::State& state, const char* output, int32_t width, int32_t height) {
  if (source().empty()) return state.SkipWithError("cannot write the source picture");
  TconvertOptions options;
  options.threads = int(state.range(0));
  options.width = width;
  options.height = height;
  const std::string target = scratch(output);
  for (auto _ : state) {
    std::string error;
    if (!TconvertImage(source(), target, options, error)) return state.SkipWithError(error.c_str());
  }
  ::unlink(target.c_str());
  state.counters["Mpixel/s"] =
      benchmark::Counter(double(kSide) * kSide / 1e6, benchmark::Counter::kIsIterationInvariantRate);
}

void BM_IffToPam(benchmark::State& state) { convert(state, "out.pam", 0, 0); }
void BM_ResizeIffToHD(benchmark::State& state) { convert(state, "out.iff", 1920, 1080); }

}  // namespace

BENCHMARK(BM_ReadIff)
    ->ArgsProduct({{0, 1}, {1, 2}})
    ->ArgNames({"premultiplied", "threads"})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_IffToPam)->Arg(1)->Arg(2)->ArgName("threads")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ResizeIffToHD)->Arg(1)->Arg(2)->ArgName("threads")->Unit(benchmark::kMillisecond)->UseRealTime();
