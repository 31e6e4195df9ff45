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
#include "kelpimage/il/il.h"
#include "kelpimage/image/formatgateway.h"
#include "kelpimage/image/timagefile.h"
#include "kelpimage/movie/tmovie.h"
#include "kelpimage/plugin/plugins.h"
#include "kelpimage/plugin/pxf.h"
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

// One row of a plug-in's channels (red, green, blue, or grey) of `step`
// bytes a sample into 4-byte pixels, the high byte of each sample.
void packRow(void* const* channels, int colours, size_t step, int32_t width, uint8_t* out) {
  const auto* r = static_cast<const uint8_t*>(channels[0]) + step - 1;
  const auto* g = colours >= 2 ? static_cast<const uint8_t*>(channels[1]) + step - 1 : r;
  const auto* b = colours == 3 ? static_cast<const uint8_t*>(channels[2]) + step - 1 : r;
  if (colours == 3 && step == 1) {
    for (int32_t x = 0; x < width; ++x, out += 4) {
      out[0] = b[x];
      out[1] = g[x];
      out[2] = r[x];
    }
    return;
  }
  for (int32_t x = 0; x < width; ++x, out += 4) {
    size_t at = size_t(x) * step;
    out[0] = colours == 2 ? 0 : b[at];
    out[1] = g[at];
    out[2] = r[at];
  }
}

// A picture of a plug-in format of 8 or 16-bit integer samples and 1 to 3
// colour channels, read row by row straight from its plug-in. False when
// the picture is of another kind, for the road through an IFF file.
bool readPluginRows(const std::string& key, const std::string& path, Picture& picture) {
  PxfHandle* handle = openPluginPicture(key, path);
  const PxfImageData* im = handle ? handle->image : nullptr;
  bool simple = im && im->colorKind == PXF_INTEGER && (im->colorBits == 8 || im->colorBits == 16) &&
                im->colorChannels >= 1 && im->colorChannels <= 3 && im->width() >= 1 && im->height() >= 1 &&
                im->width() <= 32767 && im->height() <= 32767;
  PxfChannels* channels = simple ? PXF_chan_alloc(im, im->width(), key.c_str(), nullptr) : nullptr;
  bool ok = channels != nullptr;
  if (ok) {
    picture.width = im->width();
    picture.height = im->height();
    picture.pixels.resize(size_t(picture.width) * size_t(picture.height) * 4);
    size_t step = size_t(im->colorBits / 8);
    int colours = im->colorChannels;
    // Rows come in the order the file keeps them: from the top for most.
    bool fromTop = im->orientation != PXF_BOTTOM_UP;
    for (int32_t i = 0; i < picture.height && ok; ++i) {
      int32_t row = fromTop ? picture.height - 1 - i : i;
      ok = PXF_scan_read(handle, row, channels) == 0;
      if (ok) packRow(channels->buffers, colours, step, picture.width,
                      picture.pixels.data() + size_t(row) * size_t(picture.width) * 4);
    }
    PXF_chan_free(channels);
  }
  if (handle) PXF_close(handle);
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
  } else if (readPluginRows(key.str(), input.path(), picture)) {
    ok = true;
  } else {
    TscratchFile iff;
    if (!iff.error().empty()) return fail(name, iff.error());
    if (anytoiffCompressed(input.path().c_str(), iff.path().c_str(), key.asChar(), 0, 0) != 0)
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

// The pictures named, frame patterns standing for their frames on disk.
int gatherFiles(const std::vector<std::string>& names, std::vector<std::string>& files) {
  for (const std::string& f : names) {
    FramePattern pattern;
    if (!FramePattern::parse(f, pattern)) files.push_back(f);
    else if (int status = sequenceFiles(f, "", files)) return status;
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

// A frame written straight through the plug-in of `key`, 8 bits a colour
// channel, to `path`. 1 when the plug-in writes no 8-bit pictures (for the
// road through an IFF file), -1 after a failure, 0 once written.
int writePluginRows(const std::string& key, const std::string& path, const TpixelMap& map) {
  const PxfFormat* format = PXF_find(key.c_str());
  if (!format || !format->ops || !format->ops->canWrite || !(format->depths & (1u << 7))) return 1;
  PxfImageData image;
  image.windowRight = image.window2[1] = map.width() - 1;
  image.windowTop = image.window2[3] = map.height() - 1;
  image.dataKind = FMT_def_image_data();
  image.colorChannels = 3;
  image.colorBits = image.matteBits = 8;
  image.orientation = (format->orientations & uint32_t(PXF_BOTTOM_UP)) ? PXF_BOTTOM_UP : PXF_TOP_DOWN;
  std::string extension = path.substr(std::min(path.size(), path.rfind('.')));
  PxfFileInfo info;
  PXF_info_init(&info);
  info.key = key.c_str();
  info.name = info.name2 = path.c_str();
  info.one = 1;
  info.extension = extension.c_str();
  info.imageCount = 1;
  info.image = &image;
  PxfHandle* handle = PXF_open(&info, "w");
  if (!handle) return -1;
  PxfChannels* channels = PXF_chan_alloc(&image, map.width(), key.c_str(), nullptr);
  int rc = channels ? 0 : -1;
  for (int32_t i = 0; i < map.height() && rc == 0; ++i) {
    int32_t row = image.orientation == PXF_TOP_DOWN ? map.height() - 1 - i : i;
    const auto* p = reinterpret_cast<const uint8_t*>(map.pixelPointer(0, row));
    for (int32_t x = 0; x < map.width(); ++x, p += 4)
      for (int c = 0; c < 3; ++c) static_cast<uint8_t*>(channels->buffers[c])[x] = p[2 - c];
    rc = PXF_scan_write(handle, row, channels) == 0 ? 0 : -1;
  }
  if (channels) PXF_chan_free(channels);
  int closed = PXF_close(handle);
  return rc == 0 && closed == 0 ? 0 : -1;
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
  Output out(name, Output::kNamed);
  if (!out.error().empty()) return fail(name, out.error());
  int direct = writePluginRows(format, out.path(), map);
  if (direct < 0) return fail(name, std::string("cannot be written as ") + format + ": " + PXF_last_error());
  if (direct == 0) return out.commit();
  // Other formats: an IFF file, which the format's plug-in writes out.
  TscratchFile iff;
  if (!iff.error().empty()) return fail(name, iff.error());
  if (int status = writeIff(*mapLines(map, false), iff.path(), 0, 0, 0, movie, name)) return status;
  int rc = ifftoany(iff.path().c_str(), out.path().c_str(), format.c_str());
  int finished = ifftoanyFinish(out.path().c_str());
  if (rc != 0 || finished != 0) return fail(name, takeReport("cannot be written as " + format));
  return out.commit();
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
    writing.push_back(std::async(std::launch::async, [map, name = pattern.name(i + 1), &o] {
      return writeFrame(*map, o.movie, name);
    }));
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
