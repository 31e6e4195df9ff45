// Reading a layered document: every layer's pixels and the flattened image,
// expanded, from the file named by KELP_PSD_BENCH_FILE (bench/psd_bench.sh
// makes one and runs this beside psd-tools).
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "kelpimage/photoshop/tpsdfile.h"

using namespace zkPhotoshop;

namespace {

size_t expandAll(TpixelData16* pixels) {
  size_t bytes = 0;
  if (!pixels) return 0;
  for (auto& [id, ch] : pixels->fChannels) {
    if (!ch) continue;
    benchmark::DoNotOptimize(ch->rawPointer());
    bytes += ch->rawBytes();
  }
  return bytes;
}

// The document of KELP_PSD_BENCH_FILE opened, its channel bytes read;
// false, with the benchmark skipped, when that cannot be.
bool readDocument(benchmark::State& state, TpsdFile& doc) {
  const char* path = std::getenv("KELP_PSD_BENCH_FILE");
  if (!path) {
    state.SkipWithError("KELP_PSD_BENCH_FILE names no document");
    return false;
  }
  doc.open(TfilePath(path), false);
  if (!doc.readAllChannelInformation()) {
    state.SkipWithError(doc.lastError().asChar());
    return false;
  }
  return true;
}

// The flattened image expanded, its bytes added to `bytes`.
bool addFlattened(benchmark::State& state, TpsdFile& doc, size_t& bytes) {
  TrgbaData* flat = nullptr;
  if (!doc.getCompositeImage(flat)) {
    state.SkipWithError(doc.lastError().asChar());
    return false;
  }
  bytes += expandAll(flat->pixels16());
  return true;
}

void BM_ReadEveryLayerAndTheFlattenedImage(benchmark::State& state) {
  size_t bytes = 0;
  for (auto _ : state) {
    TpsdFile doc;
    if (!readDocument(state, doc)) return;
    if (!doc.expandLayerChannels()) {
      state.SkipWithError(doc.lastError().asChar());
      return;
    }
    bytes = 0;
    for (const auto& layer : doc.fLayers) bytes += expandAll(layer->fPixels.get());
    if (!addFlattened(state, doc, bytes)) return;
  }
  state.SetBytesProcessed(int64_t(bytes) * state.iterations());
}
BENCHMARK(BM_ReadEveryLayerAndTheFlattenedImage)->Unit(benchmark::kMillisecond)->UseRealTime();

// The same pixels the way a reader that works layer by layer takes them:
// each layer expanded, used and given back before the next.
void BM_ReadLayerByLayer(benchmark::State& state) {
  size_t bytes = 0;
  for (auto _ : state) {
    TpsdFile doc;
    if (!readDocument(state, doc)) return;
    bytes = 0;
    for (const auto& layer : doc.fLayers) {
      if (!doc.layerPixels(*layer)) {
        state.SkipWithError(doc.lastError().asChar());
        return;
      }
      bytes += expandAll(layer->fPixels.get());
      doc.releaseLayerPixels(*layer);
    }
    if (!addFlattened(state, doc, bytes)) return;
  }
  state.SetBytesProcessed(int64_t(bytes) * state.iterations());
}
BENCHMARK(BM_ReadLayerByLayer)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

// A set's composite (KELP_PSD_SET_BENCH_FILE, its set "set"), on the
// threads given as the argument.
void BM_CompositeSet(benchmark::State& state) {
  const char* path = std::getenv("KELP_PSD_SET_BENCH_FILE");
  if (!path) {
    state.SkipWithError("KELP_PSD_SET_BENCH_FILE names no document");
    return;
  }
  for (auto _ : state) {
    TpsdFile doc;
    doc.setThreads(unsigned(state.range(0)));
    doc.open(TfilePath(path), false);
    TrgbaData* image = nullptr;
    if (!doc.getCompositeImageOfLayerSet("set", image)) {
      state.SkipWithError(doc.lastError().asChar());
      return;
    }
    benchmark::DoNotOptimize(image->pixels16()->getTransparencyPixelPtr());
  }
}
BENCHMARK(BM_CompositeSet)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

// Writing a 4096 x 4096 document of 10 layers (run-length at 8 bits, zip
// with prediction at 16; the argument is the depth), packing included,
// and reading it back: every layer's channels expanded.
TrgbaData* layerImage(uint32_t w, uint32_t h, TdataFormat format, int seed) {
  auto* p = new TpixelData16(format, w, h, false);
  p->addChannel(channelTransparency, w, h, 0);
  for (PHOTOSHOP_CHANNEL id : {channelRed, channelGreen, channelBlue, channelTransparency}) {
    Tchannel* ch = p->channel(id);
    uint8_t* raw = ch->rawPointer();
    for (uint32_t y = 0; y < h; ++y)
      for (uint32_t x = 0; x < w; ++x) {
        uint32_t v = ((x / (4 + seed)) * (y / 16 + id + 2) + seed * 40) & 0xFFFF;
        if (format == dataFormat8)
          raw[size_t(y) * w + x] = uint8_t(v >> 4);
        else
          std::memcpy(raw + (size_t(y) * w + x) * 2, &v, 2);
      }
  }
  return new TrgbaData(w, h, p, 4, false);
}

std::string benchDocument(int depth) { return "/tmp/kelp-bench-written-" + std::to_string(depth) + ".psd"; }

void BM_WriteDocument(benchmark::State& state) {
  const int depth = int(state.range(0));
  const TdataFormat format = depth == 16 ? dataFormat16 : dataFormat8;
  std::vector<std::unique_ptr<TrgbaData>> images;
  for (int i = 0; i < 10; ++i) images.emplace_back(layerImage(4096, 4096, format, i));
  for (auto _ : state) {
    TpsdFile doc;
    unsigned short w = 4096, h = 4096;
    doc.fDepth = uint16_t(depth);
    doc.create(TfilePath(benchDocument(depth).c_str()), w, h);
    for (int i = 0; i < 10; ++i)
      doc.addNormalLayer(Tstring(("layer " + std::to_string(i)).c_str()), images[size_t(i)].get());
    if (!doc.savePsdFile(TfilePath())) {
      state.SkipWithError(doc.lastError().asChar());
      return;
    }
  }
}
BENCHMARK(BM_WriteDocument)->Arg(8)->Arg(16)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);

void BM_ReadWrittenDocument(benchmark::State& state) {
  const std::string path = benchDocument(int(state.range(0)));
  for (auto _ : state) {
    TpsdFile doc;
    doc.open(TfilePath(path.c_str()), false);
    if (!doc.readAllChannelInformation() || !doc.expandLayerChannels()) {
      state.SkipWithError(doc.lastError().asChar());
      return;
    }
  }
}
BENCHMARK(BM_ReadWrittenDocument)->Arg(8)->Arg(16)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);
