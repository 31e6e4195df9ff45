// kimg movie: pictures of any format kimg reads into an AVI movie, the
// frames of a movie out as pictures, and what kimg info says of a movie.
#include "movie.h"

#include <cstdio>
#include <cstring>
#include <deque>
#include <future>
#include <memory>

#include "commands.h"
#include "files.h"
#include "kelpimage/io/timagereader.h"
#include "kelpimage/io/timagewriter.h"
#include "kelpimage/movie/tmovie.h"
#include "sequence.h"
#include "util.h"

namespace kimg {
namespace {

// A picture as 4-byte pixels (blue, green, red, alpha), bottom row first.
struct Picture {
  int width = 0, height = 0;
  std::vector<uint8_t> pixels;
};

// Any picture the library reads, its colour at 8 bits; 0, or the status
// after a message.
int readPicture(const std::string& name, Picture& picture) {
  Input input(name);
  if (!input.error().empty()) return fail(name, input.error());
  TimageReader reader;
  if (!reader.open(input.path())) return failFrom(name, input.path(), reader.error());
  const TimageInfo& spec = reader.spec();
  std::vector<uint8_t> rgb(spec.rowBytes(TsampleType::kUint8) * size_t(spec.height));
  if (!reader.readImage(rgb.data(), TsampleType::kUint8)) return failFrom(name, input.path(), reader.error());
  picture.width = spec.width;
  picture.height = spec.height;
  picture.pixels.resize(size_t(spec.width) * size_t(spec.height) * 4);
  const size_t channels = size_t(spec.channels());
  const bool grey = spec.colorChannels == 1;
  for (int32_t y = 0; y < spec.height; ++y) {
    const uint8_t* in = rgb.data() + size_t(y) * size_t(spec.width) * channels;
    // Blue, green, red, alpha, the bottom row first.
    uint8_t* out = picture.pixels.data() + size_t(spec.height - 1 - y) * size_t(spec.width) * 4;
    for (int32_t x = 0; x < spec.width; ++x, in += channels, out += 4) {
      out[0] = in[grey ? 0 : 2], out[1] = in[grey ? 0 : 1], out[2] = in[0];
      out[3] = spec.alpha ? in[channels - 1] : 255;
    }
  }
  return 0;
}

// The layer's reason for the last failure, without the file name it starts
// with when that is `path` (kimg says the name itself).
std::string layerWhy(const std::string& path) {
  std::string why = TmovieLayer::mvLastError();
  if (why.compare(0, path.size() + 2, path + ": ") == 0) why.erase(0, path.size() + 2);
  return why;
}

int startLayer(const std::string& name) {
  if (!TmovieLayer::initMovieLayer()) return fail(name, TmovieLayer::mvLastError());
  return 0;
}

// The pictures named, frame patterns standing for their frames on disk.
int gatherFiles(const std::vector<std::string>& names, std::vector<std::string>& files) {
  for (const std::string& f : names) {
    TframePattern pattern;
    if (!TframePattern::parse(f, pattern))
      files.push_back(f);
    else if (int status = sequenceFiles(f, "", files))
      return status;
  }
  if (files.empty()) return usage("kimg movie OUT.avi needs pictures, or a frame pattern that has frames on disk");
  return 0;
}

// A new movie with one video track of this size and rate; 0, or the status
// after a message (no movie then).
int startMovie(const MovieOptions& o, int width, int height, TaviWrapper*& movie, TaviWrapper*& track) {
  if (TmovieLayer::mvCreateFile(o.movie.c_str(), nullptr, nullptr, &movie) != 0)
    return fail(o.movie, layerWhy(o.movie));
  unsigned char* params = nullptr;
  TmovieLayer::dmParamsCreate(&params);
  TmovieLayer::dmSetImageDefaults(params, width, height, 0);
  int rc = TmovieLayer::mvAddTrack(movie, TmovieLayer::kVideo, params, nullptr, &track);
  TmovieLayer::dmParamsDestroy(params);
  if (rc == 0) rc = TmovieLayer::mvSetImageRate(track, o.rate);
  if (rc == 0) return 0;
  int status = fail(o.movie, layerWhy(o.movie));
  TmovieLayer::mvAbandon(movie);
  return status;
}

int makeMovie(const MovieOptions& o) {
  std::vector<std::string> files;
  if (int status = gatherFiles(o.frames, files)) return status;
  if (!(o.rate >= 1)) return usage("--rate must be at least 1");
  if (int status = startLayer(o.movie)) return status;
  TmovieLayer layer;
  if (!o.codec.empty()) {
    int code = TmovieLayer::mvHandlerCode(o.codec.c_str());
    if (code == 0 || TmovieLayer::mvSetMovieDefaults(nullptr, code) != 0)
      return usage("--codec takes DIB, MJPG, msvc, cvid or FFV1 (as this FFmpeg has their encoders): " + o.codec);
  }
  // The next picture is read while this one is compressed.
  struct Loaded {
    int status = 0;
    Picture picture;
  };
  auto load = [&files](size_t i) {
    Loaded loaded;
    loaded.status = readPicture(files[i], loaded.picture);
    return loaded;
  };
  Loaded current = load(0);
  if (current.status) return current.status;
  const int width = current.picture.width, height = current.picture.height;
  TaviWrapper *movie = nullptr, *track = nullptr;
  if (int status = startMovie(o, width, height, movie, track)) return status;
  int status = 0;
  for (size_t i = 0; i < files.size() && !status; ++i) {
    std::future<Loaded> next;
    if (i + 1 < files.size()) next = std::async(std::launch::async, load, i + 1);
    const Picture& picture = current.picture;
    if (current.status) {
      status = current.status;
    } else if (picture.width != width || picture.height != height) {
      status = fail(files[i], "is " + std::to_string(picture.width) + " x " + std::to_string(picture.height) +
                                  ", the movie's frames " + std::to_string(width) + " x " + std::to_string(height));
    } else if (TmovieLayer::mvInsertFrames(track, int(i), 1, 0, current.picture.pixels.data()) != 0) {
      status = fail(o.movie, layerWhy(o.movie));
    }
    if (next.valid()) current = next.get();
  }
  if (status) {
    TmovieLayer::mvAbandon(movie);
    return status;
  }
  if (TmovieLayer::mvClose(movie) != 0) return fail(o.movie, layerWhy(o.movie));
  return 0;
}

// One frame written as `name`, in the format its extension says.
int writeFrame(const TpixelMap& map, const std::string& name) {
  TformatInfo format;
  std::string why;
  if (!outputFormat(name, "", format, why)) return fail(name, why);
  Output out(name, Output::kLibrary);  // the library writes the file whole itself
  if (!out.error().empty()) return fail(name, out.error());
  TimageInfo spec;
  spec.width = map.width();
  spec.height = map.height();
  std::vector<uint8_t> rgb(spec.rowBytes(TsampleType::kUint8) * size_t(spec.height));
  for (int32_t y = 0; y < spec.height; ++y) {
    const auto* p = reinterpret_cast<const uint8_t*>(map.pixelPointer(0, spec.height - 1 - y));
    uint8_t* o = rgb.data() + size_t(y) * size_t(spec.width) * 3;
    for (int32_t x = 0; x < spec.width; ++x, p += 4, o += 3) o[0] = p[2], o[1] = p[1], o[2] = p[0];
  }
  TimageWriter writer;
  if (!writer.create(out.path(), spec, {}, format.key) || !writer.writeImage(rgb.data(), TsampleType::kUint8) ||
      !writer.close())
    return failFrom(name, out.path(), writer.error());
  return out.commit();
}

int extractFrames(const MovieOptions& o) {
  TframePattern pattern;
  if (!TframePattern::parse(o.extract, pattern))
    return usage("--extract takes a frame pattern such as frame.####.iff: " + o.extract);
  if (!o.frames.empty()) return usage("kimg movie IN.avi --extract PATTERN takes no pictures");
  if (int status = startLayer(o.movie)) return status;
  TmovieLayer layer;
  Input input(o.movie);
  if (!input.error().empty()) return fail(o.movie, input.error());
  TaviWrapper* handle = nullptr;
  if (TmovieLayer::mvOpenFile(input.path().c_str(), 0, &handle) != 0) return fail(o.movie, layerWhy(input.path()));
  Tmovie movie(handle);
  if (movie.imageTrackLength() == 0) return fail(o.movie, "has no video frames");
  // Frames are written while the next ones are decoded, two at most in hand.
  std::deque<std::future<int>> writing;
  int status = 0;
  auto finishOne = [&writing, &status] {
    int one = writing.front().get();
    writing.pop_front();
    status = status ? status : one;
  };
  for (int i = 0; i < movie.imageTrackLength() && !status; ++i) {
    auto map = std::make_shared<TpixelMap>();
    if (!movie.readFrame(i, *map)) {
      status = fail(o.movie, layerWhy(input.path()));
      break;
    }
    if (writing.size() >= 2) finishOne();
    writing.push_back(
        std::async(std::launch::async, [map, name = pattern.name(i + 1), &o] { return writeFrame(*map, name); }));
  }
  while (!writing.empty()) finishOne();
  return status;
}

}  // namespace

bool isAvi(const std::string& path) {
  std::FILE* f = std::fopen(path.c_str(), "rb");
  char b[12] = {};
  bool whole = f && std::fread(b, 1, sizeof b, f) == sizeof b;
  if (f) std::fclose(f);
  return whole && std::memcmp(b, "RIFF", 4) == 0 && std::memcmp(b + 8, "AVI ", 4) == 0;
}

int infoMovie(const std::string& name, const std::string& path) {
  if (int status = startLayer(name)) return status;
  TmovieLayer layer;
  TaviWrapper* movie = nullptr;
  if (TmovieLayer::mvOpenFile(path.c_str(), 0, &movie) != 0) return fail(name, layerWhy(path));
  std::printf("%s\n  format       AVI movie\n", name.c_str());
  int tracks = TmovieLayer::mvGetNumTracks(movie);
  tagRECT rect;
  if (TmovieLayer::mvGetMovieRect(movie, &rect) == 0)
    std::printf("  size         %d x %d\n", rect.right - rect.left, rect.top - rect.bottom);
  for (int i = 0; i < tracks; ++i) {
    TaviWrapper* track = nullptr;
    if (TmovieLayer::mvFindTrackByIndex(movie, i, &track) != 0) continue;
    bool video = TmovieLayer::mvGetTrackMedium(track) == TmovieLayer::kVideo;
    double rate = 0;
    char codec[64] = "?";
    TmovieLayer::mvGetTrackRate(track, &rate);
    TmovieLayer::mvGetTrackCodec(track, codec, sizeof codec);
    if (video)
      std::printf("  video        %d frames at %g a second, %s\n", TmovieLayer::mvGetTrackLength(track), rate, codec);
    else
      std::printf("  audio        %d samples at %g a second, %s\n", TmovieLayer::mvGetTrackLength(track), rate, codec);
  }
  if (tracks == 0) std::printf("  tracks       none\n");
  TmovieLayer::mvClose(movie);
  return 0;
}

int movie(const MovieOptions& o) { return o.extract.empty() ? makeMovie(o) : extractFrames(o); }

}  // namespace kimg
