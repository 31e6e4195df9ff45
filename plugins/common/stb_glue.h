// What the stb-based plug-ins share: a file read into memory at the open,
// its header told and its size checked there, its pixels decoded whole by
// stb at the first row; and a picture gathered whole for an stb encoder,
// which writes it to the framework's stream.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <stb/stb_image.h>
#include <stb/stb_image_write.h>

#include "plugin_util.h"

namespace pxfplugin {

// The file's bytes through stb's callbacks. stb reads zeros past the end of
// its input without a word; this source notices, and a file that ends
// early is an error.
struct StbSource {
  const std::vector<uint8_t>* bytes = nullptr;
  size_t at = 0;
  bool overrun = false;  // the decoder asked for bytes the file does not have

  static int read(void* user, char* data, int size) {
    auto* s = static_cast<StbSource*>(user);
    size_t n = std::min(size_t(size > 0 ? size : 0), s->bytes->size() - s->at);
    if (n > 0) std::memcpy(data, s->bytes->data() + s->at, n);
    s->at += n;
    if (n > 0 || size <= 0) return int(n);
    // Line ends: they close every header line a decoder may be looking for
    // the end of, and in pixel data they are counts of 10 (Radiance) or
    // packets of 11 pixels (Targa), never the 0 that stalls a decoder.
    s->overrun = true;
    std::memset(data, '\n', size_t(size));
    return size;
  }
  static void skip(void* user, int n) {
    auto* s = static_cast<StbSource*>(user);
    if (n < 0)
      s->at = size_t(std::max<int64_t>(0, int64_t(s->at) + n));
    else
      s->at = std::min(s->bytes->size(), s->at + size_t(n));
  }
  static int eof(void* user) {
    auto* s = static_cast<StbSource*>(user);
    return s->at >= s->bytes->size() ? 1 : 0;
  }
  static constexpr stbi_io_callbacks callbacks{read, skip, eof};
};

// A picture read: the file's bytes, its header, and once decoded its rows
// from the top, `channels` samples a pixel, bytes (8-bit) or floats.
struct StbPicture {
  std::vector<uint8_t> file;
  int32_t width = 0, height = 0;
  int channels = 0;
  bool floats = false;
  void* pixels = nullptr;
  ~StbPicture() { stbi_image_free(pixels); }
};

// Reads the stream and its header: false with the reason. A picture larger
// than the pixel limit, or than the file could hold at `pixelsPerByte`
// pixels a byte, is refused here.
inline bool stbHeader(PxfStream* in, bool asFloat, uint64_t pixelsPerByte, StbPicture& p, char* error, size_t size) {
  if (!readWhole(in, p.file, error, size)) return false;
  if (p.file.size() > size_t(INT32_MAX)) return fail(error, size, "the file is too large for this reader"), false;
  int w = 0, h = 0, n = 0;
  StbSource source{&p.file, 0, false};
  if (!stbi_info_from_callbacks(&StbSource::callbacks, &source, &w, &h, &n) || source.overrun) {
    const char* why = stbi_failure_reason();
    return fail(error, size, "%s", why ? why : "not a picture of this format"), false;
  }
  if (!TplausibleSize(uint64_t(w), uint64_t(h), int64_t(p.file.size()), pixelsPerByte) ||
      !sizeAllowed(uint64_t(w), uint64_t(h), nullptr, 0, error, size)) {
    if (!TplausibleSize(uint64_t(w), uint64_t(h), int64_t(p.file.size()), pixelsPerByte))
      fail(error, size, "a file of %zu bytes cannot hold a picture of %d x %d pixels: it is damaged", p.file.size(), w,
           h);
    return false;
  }
  p.width = w;
  p.height = h;
  p.channels = n;
  p.floats = asFloat;
  return true;
}

// Decodes the picture whole, once; false with the reason.
inline bool stbDecode(StbPicture& p, char* error, size_t size) {
  if (p.pixels) return true;
  int w = 0, h = 0, n = 0;
  StbSource source{&p.file, 0, false};
  p.pixels = p.floats ? static_cast<void*>(stbi_loadf_from_callbacks(&StbSource::callbacks, &source, &w, &h, &n, 0))
                      : static_cast<void*>(stbi_load_from_callbacks(&StbSource::callbacks, &source, &w, &h, &n, 0));
  if (!p.pixels) {
    const char* why = stbi_failure_reason();
    return fail(error, size, "%s", why ? why : "the picture cannot be decoded"), false;
  }
  if (source.overrun) return fail(error, size, "the file ends before its pixels do"), false;
  if (w != p.width || h != p.height || n != p.channels)
    return fail(error, size, "the picture is not what its header says"), false;
  p.file = std::vector<uint8_t>();  // done with
  return true;
}

// Hands row `row` (counted from the bottom) of the picture to the
// framework's channels, decoding it first if need be.
inline int stbRow(StbPicture& p, int32_t row, void* const* channels, int64_t stride, char* error, size_t size) {
  if (!stbDecode(p, error, size)) return -1;
  if (row < 0 || row >= p.height) return fail(error, size, "no row %d", row);
  size_t bytes = p.floats ? 4 : 1;
  auto* line =
      static_cast<const uint8_t*>(p.pixels) + size_t(p.height - 1 - row) * size_t(p.width) * size_t(p.channels) * bytes;
  deinterleave(line, p.channels, int(bytes), channels, stride, 0, p.channels, p.width);
  return 0;
}

// A picture gathered for an stb encoder: rows from the top, interleaved.
struct StbCanvas {
  int32_t width = 0, height = 0;
  int channels = 0;
  int bytes = 1;  // 1, or 4 for floats
  int32_t rows = 0;
  std::vector<uint8_t> pixels;

  // False when the picture is beyond the pixel limit.
  bool start(int32_t w, int32_t h, int n, int sampleBytes) {
    if (!TpixelLimit::allows(uint64_t(w), uint64_t(h))) return false;
    width = w, height = h, channels = n, bytes = sampleBytes;
    pixels.assign(size_t(w) * size_t(h) * size_t(n) * size_t(sampleBytes), 0);
    return true;
  }
  uint8_t* line(int32_t row) {
    return pixels.data() + size_t(height - 1 - row) * size_t(width) * size_t(channels) * size_t(bytes);
  }
};

// The stream an stb encoder writes to, keeping its first failure.
struct StbSink {
  PxfStream* stream = nullptr;
  bool failed = false;
  static void write(void* user, void* data, int size) {
    auto* s = static_cast<StbSink*>(user);
    if (!s->failed && s->stream->write(s->stream->user, data, size) < 0) s->failed = true;
  }
};

// Writes a gathered picture with `encode(canvas, sink)` (an
// stbi_write_*_to_func call); 0, or -1 with the reason.
template <typename Encode>
int stbWrite(PxfStream* out, const StbCanvas& canvas, Encode encode, char* error, size_t size) {
  if (canvas.rows != canvas.height)
    return fail(error, size, "only %d of %d rows were written", canvas.rows, canvas.height);
  StbSink sink;
  sink.stream = out;
  bool encoded = encode(canvas, &sink) != 0;
  if (sink.failed) return fail(error, size, "%s", streamError(out, "cannot be written"));
  if (!encoded) return fail(error, size, "the encoder failed");
  return 0;
}

// What an stb plug-in keeps between calls: the picture it read, or the
// canvas it gathers for writing.
struct StbState {
  StbPicture picture;
  StbCanvas canvas;
  PxfStream* out = nullptr;  // the stream to write
  bool writing = false;
  int32_t bits = 8;  // of the samples handed in for writing
  bool floats = false;
  int colors = 0;  // colour channels handed in for writing
};

// Reads a stream's header into a new state; null after the reason.
inline StbState* stbOpen(PxfStream* in, bool asFloat, uint64_t pixelsPerByte, char* error, size_t size) {
  auto s = std::make_unique<StbState>();
  if (!stbHeader(in, asFloat, pixelsPerByte, s->picture, error, size)) return nullptr;
  return s.release();
}

inline int stbReadRow(void* state, int32_t row, void* const* channels, int64_t stride, char* error, size_t size) {
  return stbRow(static_cast<StbState*>(state)->picture, row, channels, stride, error, size);
}

// A state that gathers the picture `image` describes for writing to `out`,
// as `channels` samples of `bytes` a pixel; null after the reason.
inline StbState* stbStartWriting(PxfStream* out, const PxfImageData* image, int channels, int bytes, const char* format,
                                 char* error, size_t size) {
  if (image->colorChannels == 0) {
    fail(error, size, "%s pictures need colour channels", format);
    return nullptr;
  }
  auto s = std::make_unique<StbState>();
  s->writing = true;
  s->out = out;
  s->bits = image->colorBits;
  s->floats = image->colorKind == PXF_FLOAT && image->colorBits == 32;
  s->colors = image->colorChannels >= 3 ? 3 : 1;
  if (!s->canvas.start(image->width(), image->height(), channels, bytes)) {
    fail(error, size, "%s", TpixelLimit::refusal(uint64_t(image->width()), uint64_t(image->height())).c_str());
    return nullptr;
  }
  return s.release();
}

// Ends a state: a written picture goes to its stream through `encode`.
template <typename Encode>
int stbClose(void* state, Encode encode, char* error, size_t size) {
  auto* s = static_cast<StbState*>(state);
  int rc = s->writing ? stbWrite(s->out, s->canvas, encode, error, size) : 0;
  delete s;
  return rc;
}

}  // namespace pxfplugin
