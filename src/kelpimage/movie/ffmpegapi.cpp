#include "kelpimage/movie/ffmpegapi.h"

#include <cstdlib>

#include "kelpimage/base/tdynamicload.h"

// The libraries of the movie services: FFmpeg's container library first.
const char* const TdynamicLoad::kMovieLibraryName = "libavformat.so." AV_STRINGIFY(LIBAVFORMAT_VERSION_MAJOR);

namespace kelpmovie {
namespace {
Ffmpeg gEntries;
}

Ffmpeg& ffmpeg() { return gEntries; }

std::string libraryName(int library) {
  static const char* const kNames[4] = {
      TdynamicLoad::kMovieLibraryName,
      "libavcodec.so." AV_STRINGIFY(LIBAVCODEC_VERSION_MAJOR),
      "libavutil.so." AV_STRINGIFY(LIBAVUTIL_VERSION_MAJOR),
      "libswscale.so." AV_STRINGIFY(LIBSWSCALE_VERSION_MAJOR),
  };
  std::string name = kNames[library];
  const char* dir = std::getenv("KELP_FFMPEG_DIR");
  if (dir && *dir) {
    std::string folder = dir;
    if (folder.back() != '/') folder += '/';
    name = folder + name;
  }
  return name;
}

bool bindFfmpeg(std::unique_ptr<TdynamicLoad> (&handles)[4], std::string& why) {
  for (int i = 0; i < 4; ++i) {
    if (handles[i] && handles[i]->isLoaded()) continue;
    // FFmpeg and the codec libraries it brings are not made to be unloaded
    // (their start-up allocations would be lost): they stay once loaded.
    handles[i] =
        std::make_unique<TdynamicLoad>(Tstring(libraryName(i).c_str()), TdynamicLoad::kNow | TdynamicLoad::kKeep);
    if (!handles[i]->isLoaded()) {
      why = "the FFmpeg libraries are not available: " + std::string(handles[i]->error().asChar());
      for (auto& h : handles) h.reset();
      return false;
    }
  }
  Ffmpeg bound;
  std::string missing;
#define KELP_FFMPEG_BIND(lib, name)                                              \
  bound.name = reinterpret_cast<decltype(&::name)>(handles[lib]->symbol(#name)); \
  if (!bound.name && missing.empty()) missing = #name;
  KELP_FFMPEG_ENTRIES(KELP_FFMPEG_BIND)
#undef KELP_FFMPEG_BIND
  if (!missing.empty()) {
    why = "the FFmpeg libraries lack " + missing;
    for (auto& h : handles) h.reset();
    return false;
  }
  gEntries = bound;
  return true;
}

void unbindFfmpeg() { gEntries = Ffmpeg(); }

std::string errorText(int code) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {};
  if (!gEntries.av_strerror || gEntries.av_strerror(code, text, sizeof text) < 0)
    return "error " + std::to_string(code);
  return text;
}

}  // namespace kelpmovie
