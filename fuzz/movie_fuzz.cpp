// Reads any bytes as an AVI movie through the track layer: its tracks,
// lengths, rate, codec and rectangle, then frames through Tmovie, in order,
// out of order and past the end, and a few through mvReadFrames.
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "kelpimage/movie/tmovie.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool ready = TmovieLayer::initMovieLayer();
  if (!ready) return 0;
  static std::string name = "/dev/shm/kelp_movie_fuzz_" + std::to_string(getpid()) + ".avi";
  FILE* f = std::fopen(name.c_str(), "wb");
  if (!f) return 0;
  std::fwrite(data, 1, size, f);
  std::fclose(f);
  TaviWrapper* handle = nullptr;
  if (TmovieLayer::mvOpenFile(name.c_str(), 0, &handle) != 0) return 0;
  int tracks = TmovieLayer::mvGetNumTracks(handle);
  for (int i = 0; i < tracks; ++i) {
    TaviWrapper* track = nullptr;
    if (TmovieLayer::mvFindTrackByIndex(handle, i, &track) != 0) continue;
    double rate = 0;
    char codec[32];
    TmovieLayer::mvGetTrackRate(track, &rate);
    TmovieLayer::mvGetTrackCodec(track, codec, sizeof codec);
    TmovieLayer::mvGetTrackLength(track);
  }
  Tmovie movie(handle);
  TpixelMap map;
  int length = movie.imageTrackLength();
  for (int frame : {0, 1, 2, length - 1, 1, length, 3})
    if (frame >= 0 && frame < 64) movie.readFrame(frame, map);
  TaviWrapper* video = nullptr;
  if (TmovieLayer::mvFindTrackByIndex(handle, 0, &video) == 0 && movie.width() > 0 &&
      int64_t(movie.width()) * movie.height() <= (1 << 20)) {
    std::vector<uint8_t> two(size_t(movie.width()) * movie.height() * 8);
    TmovieLayer::mvReadFrames(video, 0, 2, unsigned(two.size()), two.data());
  }
  return 0;
}
