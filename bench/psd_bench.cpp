// Reading a layered document: every layer's pixels and the flattened image,
// expanded, from the file named by KELP_PSD_BENCH_FILE (bench/psd_bench.sh
// makes one and runs this beside psd-tools).
#include <benchmark/benchmark.h>

#include <cstdlib>

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

void BM_ReadEveryLayerAndTheFlattenedImage(benchmark::State& state) {
  const char* path = std::getenv("KELP_PSD_BENCH_FILE");
  if (!path) {
    state.SkipWithError("KELP_PSD_BENCH_FILE names no document");
    return;
  }
  size_t bytes = 0;
  for (auto _ : state) {
    TpsdFile doc;
    doc.open(TfilePath(path), false);
    if (!doc.readAllChannelInformation()) {
      state.SkipWithError(doc.lastError().asChar());
      return;
    }
    if (!doc.expandLayerChannels()) {
      state.SkipWithError(doc.lastError().asChar());
      return;
    }
    bytes = 0;
    for (const auto& layer : doc.fLayers) bytes += expandAll(layer->fPixels.get());
    TrgbaData* flat = nullptr;
    if (!doc.getCompositeImage(flat)) {
      state.SkipWithError(doc.lastError().asChar());
      return;
    }
    bytes += expandAll(flat->pixels16());
  }
  state.SetBytesProcessed(int64_t(bytes) * state.iterations());
}
BENCHMARK(BM_ReadEveryLayerAndTheFlattenedImage)->Unit(benchmark::kMillisecond)->UseRealTime();

// The same pixels the way a reader that works layer by layer takes them:
// each layer expanded, used and given back before the next.
void BM_ReadLayerByLayer(benchmark::State& state) {
  const char* path = std::getenv("KELP_PSD_BENCH_FILE");
  if (!path) {
    state.SkipWithError("KELP_PSD_BENCH_FILE names no document");
    return;
  }
  size_t bytes = 0;
  for (auto _ : state) {
    TpsdFile doc;
    doc.open(TfilePath(path), false);
    if (!doc.readAllChannelInformation()) {
      state.SkipWithError(doc.lastError().asChar());
      return;
    }
    bytes = 0;
    for (const auto& layer : doc.fLayers) {
      if (!doc.layerPixels(*layer)) {
        state.SkipWithError(doc.lastError().asChar());
        return;
      }
      bytes += expandAll(layer->fPixels.get());
      doc.releaseLayerPixels(*layer);
    }
    TrgbaData* flat = nullptr;
    if (!doc.getCompositeImage(flat)) {
      state.SkipWithError(doc.lastError().asChar());
      return;
    }
    bytes += expandAll(flat->pixels16());
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
