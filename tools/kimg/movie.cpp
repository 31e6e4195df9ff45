// kimg movie: pictures of any format kimg reads into an AVI movie, the
// frames of a movie out as pictures, and what kimg info says of a movie.
#include "movie.h"

#include <cstdio>
#include <cstring>
#include <memory>

#include "commands.h"
#include "files.h"
#include "kelpimage/il/il.h"
#include "kelpimage/image/formatgateway.h"
#include "kelpimage/image/timagefile.h"
#include "kelpimage/movie/tmovie.h"
#include "kelpimage/plugin/plugins.h"
#include "kelpimage/sgi/sgi.h"
#include "lines.h"
#include "psd.h"
#include "sequence.h"
#include "util.h"

namespace kimg {
namespace {

// A picture as 4-byte pixels (blue, green, red, alpha), bottom row first.
struct Picture {
  int width = 0, height = 0;
  std::vector<uint8_t> pixels;
};

bool readLines(Lines& lines, Picture& picture, std::string& why) {
  picture.width = lines.width;
  picture.height = lines.height;
  size_t row = size_t(lines.width) * 4;
  picture.pixels.resize(row * size_t(lines.height));
  std::vector<uint8_t> line(row * size_t(lines.bytes));
  for (int i = 0; i < lines.height; ++i) {
    if (!lines.next(line.data())) {
      why = lines.error.empty() ? "cannot be read" : lines.error;
      return false;
    }
    int y = lines.topdown ? lines.height - 1 - i : i;
    uint8_t* out = picture.pixels.data() + size_t(y) * row;
    if (lines.bytes == 1) std::memcpy(out, line.data(), row);
    else
      for (size_t k = 0; k < row; ++k) out[k] = line[2 * k + 1];  // the high byte of each 16-bit sample
  }
  return true;
}

bool readIff(const std::string& path, Picture& picture, std::string& why) {
  ILimage* im = ILopen(path.c_str(), "r");
  if (!im) {
    why = FLstrerror(flerrno);
    return false;
  }
  bool ok = false;
  if (!ILgetheader(im)) why = FLstrerror(flerrno);
  else if (im->bytes == 4) why = "holds floating-point pixels, which a movie frame cannot";
  else if (int rc = ILsetbpp(im, 1)) why = FLstrerror(rc);  // 16-bit channels as the library makes them 8
  else {
    std::unique_ptr<Lines> lines = iffLines(im, false);
    lines->bytes = 1;
    ok = readLines(*lines, picture, why);
  }
  ILclose(im);
  return ok;
}

// Any picture the front door reads; 0, or the status after a message.
int readPicture(const std::string& name, Picture& picture) {
  Input input(name);
  if (!input.error().empty()) return fail(name, input.error());
  Tstring key = TimageFile().getImageType(Tstring(input.path().c_str()));
  if (key.isEmpty()) return fail(name, takeReport("not a picture of a format kimg reads"));
  std::string why;
  bool ok = false;
  if (key == "kelp") {
    ok = readIff(input.path(), picture, why);
  } else if (key == "sgi") {
    IMAGE* sgi = iopen(input.path().c_str(), "r");
    if (!sgi) return fail(name, takeReport("cannot be read as an SGI picture"));
    ok = readLines(*sgiLines(sgi, false), picture, why);
    iclose(sgi);
  } else if (key == "psd") {
    std::unique_ptr<Lines> lines = psdLines(input.path(), PsdPart{}, false, why);
    if (!lines) return why.empty() ? kFailed : fail(name, why);
    ok = readLines(*lines, picture, why);
  } else {
    Scratch iff;
    if (!iff.error().empty()) return fail(name, iff.error());
    if (anytoiff(input.path().c_str(), iff.path().c_str(), key.asChar(), 0) != 0)
      return fail(name, takeReport("cannot be read"));
    ok = readIff(iff.path(), picture, why);
  }
  return ok ? 0 : fail(name, why);
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

int makeMovie(const MovieOptions& o) {
  std::vector<std::string> files;
  for (const std::string& f : o.frames) {
    FramePattern pattern;
    if (FramePattern::parse(f, pattern)) {
      if (int status = sequenceFiles(f, "", files)) return status;
    } else {
      files.push_back(f);
    }
  }
  if (files.empty()) return usage("kimg movie OUT.avi needs pictures, or a frame pattern that has frames on disk");
  if (!(o.rate >= 1)) return usage("--rate must be at least 1");
  if (int status = startLayer(o.movie)) return status;
  TmovieLayer layer;
  if (!o.codec.empty()) {
    int code = TmovieLayer::mvHandlerCode(o.codec.c_str());
    if (code == 0 || TmovieLayer::mvSetMovieDefaults(nullptr, code) != 0)
      return usage("--codec takes DIB, MJPG, msvc, cvid or FFV1 (as this FFmpeg has their encoders): " + o.codec);
  }
  Picture picture;
  if (int status = readPicture(files[0], picture)) return status;
  TaviWrapper *movie = nullptr, *track = nullptr;
  if (TmovieLayer::mvCreateFile(o.movie.c_str(), nullptr, nullptr, &movie) != 0)
    return fail(o.movie, layerWhy(o.movie));
  unsigned char* params = nullptr;
  TmovieLayer::dmParamsCreate(&params);
  TmovieLayer::dmSetImageDefaults(params, picture.width, picture.height, 0);
  int rc = TmovieLayer::mvAddTrack(movie, TmovieLayer::kVideo, params, nullptr, &track);
  TmovieLayer::dmParamsDestroy(params);
  if (rc == 0) rc = TmovieLayer::mvSetImageRate(track, o.rate);
  int status = rc ? fail(o.movie, layerWhy(o.movie)) : 0;
  const int width = picture.width, height = picture.height;
  for (size_t i = 0; i < files.size() && !status; ++i) {
    if (i > 0 && (status = readPicture(files[i], picture)) != 0) break;
    if (picture.width != width || picture.height != height) {
      status = fail(files[i], "is " + std::to_string(picture.width) + " x " + std::to_string(picture.height) +
                                  ", the movie's frames " + std::to_string(width) + " x " + std::to_string(height));
      break;
    }
    if (TmovieLayer::mvInsertFrames(track, int(i), 1, 0, picture.pixels.data()) != 0)
      status = fail(o.movie, layerWhy(o.movie));
  }
  if (status) {
    TmovieLayer::mvAbandon(movie);
    return status;
  }
  if (TmovieLayer::mvClose(movie) != 0) return fail(o.movie, layerWhy(o.movie));
  return 0;
}

// One frame written as `name`, in the format its extension says.
int writeFrame(const TpixelMap& map, const std::string& movie, const std::string& name) {
  std::string format, why;
  if (!outputFormat(name, "", format, why)) return fail(name, why);
  if (format == "iff" || format == "sgi") {
    Output out(name);
    if (!out.error().empty()) return fail(name, out.error());
    std::unique_ptr<Lines> lines = mapLines(map, false);
    int status = format == "iff" ? writeIff(*lines, out.path(), 1, 0, 0, movie, name)
                                 : writeSgi(*lines, out.path(), false, movie, name);
    return status ? status : out.commit();
  }
  Scratch iff;
  if (!iff.error().empty()) return fail(name, iff.error());
  if (int status = writeIff(*mapLines(map, false), iff.path(), 0, 0, 0, movie, name)) return status;
  ConvertOptions c;
  c.in = iff.path();
  c.out = name;
  return convert(c);
}

int extractFrames(const MovieOptions& o) {
  FramePattern pattern;
  if (!FramePattern::parse(o.extract, pattern))
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
  TpixelMap map;
  for (int i = 0; i < movie.imageTrackLength(); ++i) {
    if (!movie.readFrame(i, map)) return fail(o.movie, layerWhy(input.path()));
    if (int status = writeFrame(map, o.movie, pattern.name(i + 1))) return status;
  }
  return 0;
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
