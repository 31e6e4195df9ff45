// The WebP plug-in, on libwebp: lossy and lossless pictures with alpha,
// and the frames of animations, each read as the whole canvas it shows.
// Written lossless by default, exactly (colour under transparent pixels
// too), or lossy at the "Quality" setting; several frames make an
// animation, "Frame Duration" milliseconds each.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include <webp/decode.h>
#include <webp/demux.h>
#include <webp/encode.h>
#include <webp/mux.h>

#include "kelpimage/plugin/pxf.h"
#include "plugin_util.h"

using pxfplugin::fail;

namespace {

constexpr int16_t kDurationCode = 6;
constexpr int32_t kMaxSide = WEBP_MAX_DIMENSION;

struct Reader {
  std::vector<uint8_t> bytes;
  WebPAnimDecoder* decoder = nullptr;
  int32_t width = 0, height = 0;
  int32_t frames = 0;
  bool matte = false;
  int32_t frame = -1;  // the frame `canvas` shows
  const uint8_t* canvas = nullptr;  // RGBA rows from the top: the decoder's, or `still`
  std::unique_ptr<uint8_t[]> still;  // a picture of one frame, decoded straight into place
  ~Reader() {
    if (decoder) WebPAnimDecoderDelete(decoder);
  }
};

struct Writer {
  std::string name;
  WebPAnimEncoder* encoder = nullptr;
  WebPConfig config;
  int32_t width = 0, height = 0;
  int colors = 3;
  bool matte = false;
  int duration = 100;
  int timestamp = 0;
  int32_t rows = 0;
  std::vector<uint8_t> canvas;  // RGBA rows from the top
  ~Writer() {
    if (encoder) WebPAnimEncoderDelete(encoder);
  }
};

struct State {
  Reader* reader = nullptr;
  Writer* writer = nullptr;
  ~State() {
    delete reader;
    delete writer;
  }
};

int recognise(const uint8_t* b, size_t n) {
  return n >= 12 && std::memcmp(b, "RIFF", 4) == 0 && std::memcmp(b + 8, "WEBP", 4) == 0;
}

// The whole file; false with the reason.
bool readFile(const char* name, std::vector<uint8_t>& bytes, std::string& why) {
  FILE* f = std::fopen(name, "rb");
  if (!f) return why = std::strerror(errno), false;
  struct stat st;
  bool ok = ::fstat(fileno(f), &st) == 0;
  // A RIFF file holds at most 4 GiB; a WebP picture much less.
  if (ok && (st.st_size < 12 || uint64_t(st.st_size) > 0xFFFFFFFFu)) {
    why = "file size out of range";
    ok = false;
  } else if (ok) {
    bytes.resize(size_t(st.st_size));
    ok = std::fread(bytes.data(), 1, bytes.size(), f) == bytes.size();
    if (!ok) why = std::ferror(f) ? std::strerror(errno) : "the file ended while read";
  } else {
    why = std::strerror(errno);
  }
  std::fclose(f);
  return ok;
}

// Decodes frames up to `frame`, from the start when it lies behind.
bool showFrame(Reader& r, int32_t frame, char* error, size_t size) {
  if (frame < 0 || frame >= r.frames) return fail(error, size, "no frame %d", frame), false;
  if (!r.decoder) return true;  // a still picture
  if (frame < r.frame) {
    WebPAnimDecoderReset(r.decoder);
    r.frame = -1;
  }
  while (r.frame < frame) {
    uint8_t* canvas = nullptr;
    int timestamp = 0;
    if (!WebPAnimDecoderGetNext(r.decoder, &canvas, &timestamp))
      return fail(error, size, "frame %d cannot be decoded", r.frame + 1), false;
    r.canvas = canvas;
    r.frame++;
  }
  return true;
}

void* openRead(const char* name, PxfImageData* image, int32_t* frames, char* error, size_t size) {
  auto* s = new State;
  s->reader = new Reader;
  Reader& r = *s->reader;
  std::string why;
  WebPBitstreamFeatures features;
  if (!readFile(name, r.bytes, why)) {
    fail(error, size, "%s", why.c_str());
  } else if (WebPGetFeatures(r.bytes.data(), r.bytes.size(), &features) != VP8_STATUS_OK) {
    fail(error, size, "not a WebP picture, or a damaged one");
  } else if (features.width < 1 || features.height < 1 ||
             !pxfplugin::wholeAllowed(uint64_t(features.width), uint64_t(features.height))) {
    fail(error, size, "picture of %d x %d pixels is beyond the pixel limit", features.width, features.height);
  } else if (!features.has_animation) {
    // One frame: decoded straight into place, without an animation's canvas.
    r.width = features.width;
    r.height = features.height;
    r.frames = 1;
    r.matte = features.has_alpha != 0;
    size_t bytes = size_t(r.width) * size_t(r.height) * 4;
    r.still.reset(new (std::nothrow) uint8_t[bytes]);  // not cleared: the decoder fills it all
    if (!r.still || !WebPDecodeRGBAInto(r.bytes.data(), r.bytes.size(), r.still.get(), bytes, r.width * 4)) {
      fail(error, size, "the picture cannot be decoded");
    } else {
      r.canvas = r.still.get();
      r.frame = 0;
      r.bytes = std::vector<uint8_t>();  // the file is done with
      pxfplugin::describePicture(image, r.width, r.height, PXF_TOP_DOWN, 3, r.matte, 8);
      *frames = 1;
      return s;
    }
  } else {
    WebPAnimDecoderOptions options;
    WebPAnimDecoderOptionsInit(&options);
    options.color_mode = MODE_RGBA;
    options.use_threads = 1;
    WebPData data{r.bytes.data(), r.bytes.size()};
    r.decoder = WebPAnimDecoderNew(&data, &options);
    WebPAnimInfo info;
    if (!r.decoder || !WebPAnimDecoderGetInfo(r.decoder, &info) || info.frame_count < 1) {
      fail(error, size, "the file's frames cannot be read");
    } else {
      r.width = int32_t(info.canvas_width);
      r.height = int32_t(info.canvas_height);
      r.frames = int32_t(info.frame_count);
      r.matte = features.has_alpha != 0;
      if (showFrame(r, 0, error, size)) {
        pxfplugin::describePicture(image, r.width, r.height, PXF_TOP_DOWN, 3, r.matte, 8);
        *frames = r.frames;
        return s;
      }
    }
  }
  delete s;
  return nullptr;
}

int setFrame(void* state, int32_t frame, PxfImageData*, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  if (!s->reader) return fail(error, size, "the file is open for writing");
  return showFrame(*s->reader, frame, error, size) ? 0 : -1;
}

int readRow(void* state, int32_t row, void* const* channels, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  if (!s->reader) return fail(error, size, "the file is open for writing");
  Reader& r = *s->reader;
  if (row < 0 || row >= r.height) return fail(error, size, "no row %d", row);
  const uint8_t* line = r.canvas + size_t(r.height - 1 - row) * size_t(r.width) * 4;
  pxfplugin::deinterleave(line, 4, 1, channels, 0, r.matte ? 4 : 3, r.width);
  return 0;
}

void* openWrite(const char* name, const PxfImageData* image, PxfCapSetting* const* settings, const PxfLut*,
                char* error, size_t size) {
  int32_t w = image->width(), h = image->height();
  if (image->colorChannels == 0 || w < 1 || h < 1) {
    fail(error, size, "WebP pictures need colour channels and a size");
    return nullptr;
  }
  if (w > kMaxSide || h > kMaxSide) {
    fail(error, size, "WebP pictures are at most %d pixels a side, not %d x %d", kMaxSide, w, h);
    return nullptr;
  }
  float quality = pxfplugin::setting(settings, pxfplugin::kQualityCode, -1.0f);
  if (quality > 100.0f) {
    fail(error, size, "quality %g is above 100", double(quality));
    return nullptr;
  }
  auto* s = new State;
  s->writer = new Writer;
  Writer& wr = *s->writer;
  wr.name = name;
  wr.width = w;
  wr.height = h;
  wr.colors = image->colorChannels >= 3 ? 3 : 1;
  wr.matte = image->matteChannels > 0;
  wr.duration = int(pxfplugin::setting(settings, kDurationCode, 100.0f));
  wr.canvas.assign(size_t(w) * size_t(h) * 4, 255);
  WebPConfigInit(&wr.config);
  if (quality < 0.0f) {
    wr.config.lossless = 1;
    wr.config.exact = 1;
  } else {
    wr.config.quality = quality;
  }
  WebPAnimEncoderOptions options;
  WebPAnimEncoderOptionsInit(&options);
  wr.encoder = WebPAnimEncoderNew(w, h, &options);
  if (!wr.encoder) {
    fail(error, size, "libwebp could not start");
    delete s;
    return nullptr;
  }
  return s;
}

int writeRow(void* state, int32_t row, const void* const* channels, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  if (!s->writer) return fail(error, size, "the file is open for reading");
  Writer& w = *s->writer;
  if (row < 0 || row >= w.height) return fail(error, size, "no row %d", row);
  uint8_t* line = w.canvas.data() + size_t(w.height - 1 - row) * size_t(w.width) * 4;
  for (int c = 0; c < 3; ++c) {
    auto* from = static_cast<const uint8_t*>(channels[w.colors == 3 ? c : 0]);
    for (int32_t x = 0; x < w.width; ++x) line[size_t(x) * 4 + size_t(c)] = from[x];
  }
  if (w.matte) {
    auto* from = static_cast<const uint8_t*>(channels[w.colors]);
    for (int32_t x = 0; x < w.width; ++x) line[size_t(x) * 4 + 3] = from[x];
  }
  w.rows++;
  return 0;
}

// Hands the frame in the canvas to the encoder.
bool addFrame(Writer& w, char* error, size_t size) {
  if (w.rows != w.height) return fail(error, size, "only %d of %d rows were written", w.rows, w.height), false;
  WebPPicture picture;
  if (!WebPPictureInit(&picture)) return fail(error, size, "libwebp could not start"), false;
  picture.use_argb = 1;
  picture.width = w.width;
  picture.height = w.height;
  bool ok = w.matte ? WebPPictureImportRGBA(&picture, w.canvas.data(), w.width * 4)
                    : WebPPictureImportRGBX(&picture, w.canvas.data(), w.width * 4);
  ok = ok && WebPAnimEncoderAdd(w.encoder, &picture, w.timestamp, &w.config);
  WebPPictureFree(&picture);
  if (!ok) {
    const char* why = WebPAnimEncoderGetError(w.encoder);
    return fail(error, size, "%s", why && *why ? why : "the frame cannot be encoded"), false;
  }
  w.timestamp += w.duration;
  w.rows = 0;
  return true;
}

int nextFrame(void* state, const PxfImageData* image, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  if (!s->writer) return fail(error, size, "the file is open for reading");
  Writer& w = *s->writer;
  if (image->width() != w.width || image->height() != w.height) return fail(error, size, "frames differ in size");
  if (!addFrame(w, error, size)) return -1;
  w.matte = w.matte || image->matteChannels > 0;
  return 0;
}

// Ends the animation and writes the file.
int finish(Writer& w, char* error, size_t size) {
  if (!addFrame(w, error, size)) return -1;
  WebPData data;
  WebPDataInit(&data);
  if (!WebPAnimEncoderAdd(w.encoder, nullptr, w.timestamp, nullptr) || !WebPAnimEncoderAssemble(w.encoder, &data)) {
    const char* why = WebPAnimEncoderGetError(w.encoder);
    return fail(error, size, "%s", why && *why ? why : "the file cannot be assembled");
  }
  FILE* f = std::fopen(w.name.c_str(), "wb");
  int rc = 0;
  if (!f) rc = fail(error, size, "%s", std::strerror(errno));
  else if (std::fwrite(data.bytes, 1, data.size, f) != data.size) rc = fail(error, size, "%s", std::strerror(errno));
  if (f && pxfplugin::closeWritten(f, rc == 0 ? error : nullptr, size) != 0) rc = -1;
  WebPDataClear(&data);
  return rc;
}

int closeFile(void* state, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  int rc = s->writer ? finish(*s->writer, error, size) : 0;
  delete s;
  return rc;
}

const PxfCapability kCapabilities[] = {
    {pxfplugin::kQualityCode, "Quality", 1, 2},
    {kDurationCode, "Frame Duration", 1, 2},
};

}  // namespace

PXF_IMAGE_PLUGIN("webp", "webp", "WebP", "WebP, lossy and lossless, with alpha and animation frames",
                 (PxfPluginOps{PXF_PLUGIN_VERSION, sizeof(PxfPluginOps), 3u, 1u << 7, 1u, 0u, 0u, PXF_MULTIFRAME, true,
                               true, kCapabilities, 2, recognise, openRead, setFrame, readRow, openWrite, nextFrame,
                               writeRow, closeFile}));
