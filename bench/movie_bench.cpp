// Writing and reading back a movie through the track layer: the frames of
// an image sequence are loaded once (not timed), then written as an AVI
// movie with a codec, and the movie's frames read back through Tmovie.
// KELP_MOVIE_BENCH_FRAMES names the sequence in printf form
// (/path/frame.%04d.ppm, numbered from 1), KELP_MOVIE_BENCH_COUNT the frames
// (240), KELP_MOVIE_BENCH_DIR where the movies go.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "kelpimage/image/timagefile.h"
#include "kelpimage/movie/tmovie.h"

namespace {

std::string env(const char* name, const char* fallback) {
  const char* v = std::getenv(name);
  return v && *v ? v : fallback;
}

const std::vector<TpixelMap>& frames() {
  static std::vector<TpixelMap> loaded = [] {
    std::vector<TpixelMap> maps;
    std::string pattern = env("KELP_MOVIE_BENCH_FRAMES", "");
    int count = std::atoi(env("KELP_MOVIE_BENCH_COUNT", "240").c_str());
    for (int i = 1; i <= count && !pattern.empty(); ++i) {
      char name[4096];
      std::snprintf(name, sizeof name, pattern.c_str(), i);
      TimageFile file;
      TpixelMap map;
      if (file.identifyAndOpen(Tstring(name)) != 0 || file.readPixelMap(map) != 0) {
        std::fprintf(stderr, "cannot read %s\n", name);
        std::exit(1);
      }
      maps.push_back(map);
    }
    return maps;
  }();
  return loaded;
}

std::string movieName(const char* codec) {
  return env("KELP_MOVIE_BENCH_DIR", "/tmp") + "/kelp_bench_" + codec + ".avi";
}

void write(benchmark::State& state, const char* codec) {
  if (!TmovieLayer::initMovieLayer() || frames().empty()) {
    state.SkipWithError("no FFmpeg libraries or no frames (set KELP_MOVIE_BENCH_FRAMES)");
    return;
  }
  TmovieLayer::mvSetMovieDefaults(nullptr, TmovieLayer::mvHandlerCode(codec));
  const TpixelMap& first = frames()[0];
  for (auto _ : state) {
    TaviWrapper *movie = nullptr, *track = nullptr;
    unsigned char* params = nullptr;
    TmovieLayer::dmParamsCreate(&params);
    TmovieLayer::dmSetImageDefaults(params, first.width(), first.height(), 0);
    bool ok = TmovieLayer::mvCreateFile(movieName(codec).c_str(), nullptr, nullptr, &movie) == 0 &&
              TmovieLayer::mvAddTrack(movie, 0, params, nullptr, &track) == 0 &&
              TmovieLayer::mvSetImageRate(track, 24) == 0;
    TmovieLayer::dmParamsDestroy(params);
    for (size_t i = 0; ok && i < frames().size(); ++i)
      ok = TmovieLayer::mvInsertFrames(track, int(i), 1, 0, const_cast<Tpixel32*>(frames()[i].pixels())) == 0;
    ok = TmovieLayer::mvClose(movie) == 0 && ok;
    if (!ok) state.SkipWithError(TmovieLayer::mvLastError());
  }
  state.counters["frames"] = double(frames().size());
}

void read(benchmark::State& state, const char* codec) {
  if (!TmovieLayer::initMovieLayer()) {
    state.SkipWithError("no FFmpeg libraries");
    return;
  }
  for (auto _ : state) {
    TaviWrapper* handle = nullptr;
    if (TmovieLayer::mvOpenFile(movieName(codec).c_str(), 0, &handle) != 0) {
      state.SkipWithError(TmovieLayer::mvLastError());
      return;
    }
    Tmovie movie(handle);
    TpixelMap map;
    for (int i = 0; i < movie.imageTrackLength(); ++i)
      if (!movie.readFrame(i, map)) {
        state.SkipWithError(TmovieLayer::mvLastError());
        return;
      }
    benchmark::DoNotOptimize(map.pixels());
  }
}

BENCHMARK_CAPTURE(write, MJPG, "MJPG")->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK_CAPTURE(read, MJPG, "MJPG")->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK_CAPTURE(write, FFV1, "FFV1")->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK_CAPTURE(read, FFV1, "FFV1")->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

}  // namespace
