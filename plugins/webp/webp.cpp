// The WebP plug-in, on libwebp: lossy and lossless pictures with alpha,
// and the frames of animations, each read as the whole canvas it shows.
// Opening reads the file and its header (and the frame count of an
// animation, from its chunks); pixels are decoded at the first row.
// Written lossless by default, exactly (colour under transparent pixels
// too), or lossy at the "Quality" setting; several frames make an
// animation, "Frame Duration" milliseconds each.
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
  bool animated = false;
  bool matte = false;
  int32_t wanted = 0;                // the frame the rows come from
  int32_t frame = -1;                // the frame `canvas` shows
  const uint8_t* canvas = nullptr;   // RGBA rows from the top: the decoder's, or `still`
  std::unique_ptr<uint8_t[]> still;  // a picture of one frame, decoded straight into place
  ~Reader() {
    if (decoder) WebPAnimDecoderDelete(decoder);
  }
};

struct Writer {
  PxfStream* stream = nullptr;
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

// Decodes frames up to `frame`, from the start when it lies behind.
bool showFrame(Reader& r, int32_t frame, char* error, size_t size) {
  if (frame < 0 || frame >= r.frames) return fail(error, size, "no frame %d", frame), false;
  if (!r.decoder) {
    WebPAnimDecoderOptions options;
    WebPAnimDecoderOptionsInit(&options);
    options.color_mode = MODE_RGBA;
    options.use_threads = 1;
    WebPData data{r.bytes.data(), r.bytes.size()};
    r.decoder = WebPAnimDecoderNew(&data, &options);
    if (!r.decoder) return fail(error, size, "the file's frames cannot be read"), false;
  }
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

// A still picture, decoded straight into place.
bool decodeStill(Reader& r, char* error, size_t size) {
  size_t bytes = size_t(r.width) * size_t(r.height) * 4;
  r.still.reset(new (std::nothrow) uint8_t[bytes]);  // not cleared: the decoder fills it all
  if (!r.still) return fail(error, size, "out of memory"), false;
  if (!WebPDecodeRGBAInto(r.bytes.data(), r.bytes.size(), r.still.get(), bytes, r.width * 4))
    return fail(error, size, "the picture cannot be decoded"), false;
  r.canvas = r.still.get();
  r.frame = 0;
  r.bytes = std::vector<uint8_t>();  // the file is done with
  return true;
}

void* openRead(PxfStream* in, PxfImageData* image, int32_t* frames, char* error, size_t size) {
  auto s = std::make_unique<State>();
  s->reader = new Reader;
  Reader& r = *s->reader;
  WebPBitstreamFeatures features;
  if (!pxfplugin::readWhole(in, r.bytes, error, size)) return nullptr;
  if (r.bytes.size() < 12 || WebPGetFeatures(r.bytes.data(), r.bytes.size(), &features) != VP8_STATUS_OK) {
    fail(error, size, "not a WebP picture, or a damaged one");
    return nullptr;
  }
  r.matte = features.has_alpha != 0;
  r.animated = features.has_animation != 0;
  r.width = features.width;
  r.height = features.height;
  r.frames = 1;
  if (r.animated) {
    // The canvas and the frame count, from the file's chunks: nothing decoded.
    WebPData data{r.bytes.data(), r.bytes.size()};
    WebPDemuxer* demux = WebPDemux(&data);
    if (!demux) {
      fail(error, size, "the file's frames cannot be read");
      return nullptr;
    }
    r.width = int32_t(WebPDemuxGetI(demux, WEBP_FF_CANVAS_WIDTH));
    r.height = int32_t(WebPDemuxGetI(demux, WEBP_FF_CANVAS_HEIGHT));
    r.frames = int32_t(WebPDemuxGetI(demux, WEBP_FF_FRAME_COUNT));
    WebPDemuxDelete(demux);
    if (r.frames < 1) {
      fail(error, size, "the animation has no frames");
      return nullptr;
    }
  }
  // A lossless picture of one colour takes next to no bytes: the pixel
  // limit is what bounds a WebP picture.
  if (!pxfplugin::sizeAllowed(uint64_t(r.width), uint64_t(r.height), nullptr, 0, error, size)) return nullptr;
  pxfplugin::describePicture(image, r.width, r.height, PXF_TOP_DOWN, 3, r.matte, 8);
  image->compression = features.format == 2 ? "lossless" : features.format == 1 ? "lossy" : "lossy and lossless";
  *frames = r.frames;
  return s.release();
}

int setFrame(void* state, int32_t frame, PxfImageData*, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  if (!s->reader) return fail(error, size, "the file is open for writing");
  if (frame < 0 || frame >= s->reader->frames) return fail(error, size, "no frame %d", frame);
  s->reader->wanted = frame;
  return 0;
}

int readRow(void* state, int32_t row, void* const* channels, int64_t stride, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  if (!s->reader) return fail(error, size, "the file is open for writing");
  Reader& r = *s->reader;
  if (row < 0 || row >= r.height) return fail(error, size, "no row %d", row);
  if (r.animated ? r.frame != r.wanted && !showFrame(r, r.wanted, error, size)
                 : !r.canvas && !decodeStill(r, error, size))
    return -1;
  const uint8_t* line = r.canvas + size_t(r.height - 1 - row) * size_t(r.width) * 4;
  pxfplugin::deinterleave(line, 4, 1, channels, stride, 0, r.matte ? 4 : 3, r.width);
  return 0;
}

void* openWrite(PxfStream* out, const PxfImageData* image, PxfCapSetting* const* settings, const PxfLut*, char* error,
                size_t size) {
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
  auto* s = new State;
  s->writer = new Writer;
  Writer& wr = *s->writer;
  wr.stream = out;
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

int writeRow(void* state, int32_t row, const void* const* channels, int64_t stride, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  if (!s->writer) return fail(error, size, "the file is open for reading");
  Writer& w = *s->writer;
  if (row < 0 || row >= w.height) return fail(error, size, "no row %d", row);
  uint8_t* line = w.canvas.data() + size_t(w.height - 1 - row) * size_t(w.width) * 4;
  for (int c = 0; c < 3; ++c) {
    const void* from = channels[w.colors == 3 ? c : 0];
    for (int32_t x = 0; x < w.width; ++x)
      line[size_t(x) * 4 + size_t(c)] = pxfplugin::sampleOf<uint8_t>(from, stride, x);
  }
  if (w.matte)
    for (int32_t x = 0; x < w.width; ++x)
      line[size_t(x) * 4 + 3] = pxfplugin::sampleOf<uint8_t>(channels[w.colors], stride, x);
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
  int rc = 0;
  if (w.stream->write(w.stream->user, data.bytes, int64_t(data.size)) < 0)
    rc = fail(error, size, "%s", pxfplugin::streamError(w.stream, "cannot be written"));
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
    {pxfplugin::kQualityCode, "Quality", 1, 2, 0.0f, 100.0f, -1.0f, "0 to 100 for lossy; unset, lossless and exact"},
    {kDurationCode, "Frame Duration", 1, 2, 1.0f, 65535.0f, 100.0f, "milliseconds each frame shows"},
};

}  // namespace

PXF_IMAGE_PLUGIN("webp", "webp", "WebP", "WebP, lossy and lossless, with alpha and animation frames",
                 (PxfPluginOps{PXF_PLUGIN_VERSION,
                               sizeof(PxfPluginOps),
                               3u,
                               1u << 7,
                               1u,
                               0u,
                               0u,
                               PXF_MULTIFRAME,
                               true,
                               true,
                               kCapabilities,
                               2,
                               recognise,
                               openRead,
                               setFrame,
                               readRow,
                               openWrite,
                               nextFrame,
                               writeRow,
                               closeFile,
                               0}));
