// What the stb-based plug-ins share: a picture decoded whole through stb
// from a file whose size is checked against the library's pixel limit
// first, and a picture gathered whole for an stb encoder. stb reads zeros
// past the end of a file without a word; the reader's callbacks notice, and
// a file that ends early is an error.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <stb/stb_image.h>
#include <stb/stb_image_write.h>

#include "kelpimage/plugin/pxf.h"
#include "plugin_util.h"

namespace pxfplugin {

// A file read through stb's callbacks.
struct StbSource {
  FILE* file = nullptr;
  bool overrun = false;  // the decoder asked for bytes the file does not have

  static int read(void* user, char* data, int size) {
    auto* s = static_cast<StbSource*>(user);
    size_t n = std::fread(data, 1, size_t(size), s->file);
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
    std::fseek(s->file, n, SEEK_CUR);
  }
  static int eof(void* user) { return std::feof(static_cast<StbSource*>(user)->file) ? 1 : 0; }
  static constexpr stbi_io_callbacks callbacks{read, skip, eof};
};

// A picture decoded whole: rows from the top, `channels` samples a pixel,
// bytes (8-bit) or floats.
struct StbPicture {
  int32_t width = 0, height = 0;
  int channels = 0;
  bool floats = false;
  void* pixels = nullptr;
  ~StbPicture() { stbi_image_free(pixels); }
};

// Decodes `name`: floats when `asFloat`. False with the reason in `error`.
inline bool stbDecode(const char* name, bool asFloat, StbPicture& picture, char* error, size_t size) {
  StbSource source;
  source.file = std::fopen(name, "rb");
  if (!source.file) return fail(error, size, "%s", std::strerror(errno)), false;
  int w = 0, h = 0, n = 0;
  bool ok = stbi_info_from_callbacks(&StbSource::callbacks, &source, &w, &h, &n) != 0;
  std::string why;
  if (!ok) {
    why = stbi_failure_reason() ? stbi_failure_reason() : "not a picture of this format";
  } else if (w < 1 || h < 1 || !wholeAllowed(uint64_t(w), uint64_t(h))) {
    why = "picture of " + std::to_string(w) + " x " + std::to_string(h) + " pixels is beyond the pixel limit";
  }
  if (why.empty()) {
    std::rewind(source.file);
    source.overrun = false;
    picture.floats = asFloat;
    picture.pixels = asFloat ? static_cast<void*>(stbi_loadf_from_callbacks(&StbSource::callbacks, &source, &w, &h, &n, 0))
                             : static_cast<void*>(stbi_load_from_callbacks(&StbSource::callbacks, &source, &w, &h, &n, 0));
    if (!picture.pixels) why = stbi_failure_reason() ? stbi_failure_reason() : "cannot be decoded";
    else if (source.overrun || std::ferror(source.file)) why = "the file ends before its pixels do";
  }
  std::fclose(source.file);
  if (!why.empty()) return fail(error, size, "%s", why.c_str()), false;
  picture.width = w;
  picture.height = h;
  picture.channels = n;
  return true;
}

// Hands row `row` (counted from the bottom) of a decoded picture to the
// framework's channel buffers: bytes or floats as decoded.
inline int stbRow(const StbPicture& p, int32_t row, void* const* channels, char* error, size_t size) {
  if (row < 0 || row >= p.height) return fail(error, size, "no row %d", row);
  size_t bytes = p.floats ? 4 : 1;
  auto* line = static_cast<const uint8_t*>(p.pixels) + size_t(p.height - 1 - row) * size_t(p.width) * size_t(p.channels) * bytes;
  deinterleave(line, p.channels, int(bytes), channels, 0, p.channels, p.width);
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
    if (w < 1 || h < 1 || !wholeAllowed(uint64_t(w), uint64_t(h))) return false;
    width = w, height = h, channels = n, bytes = sampleBytes;
    pixels.assign(size_t(w) * size_t(h) * size_t(n) * size_t(sampleBytes), 0);
    return true;
  }
  uint8_t* line(int32_t row) { return pixels.data() + size_t(height - 1 - row) * size_t(width) * size_t(channels) * size_t(bytes); }
};

// The stream an stb encoder writes to, keeping its first failure.
struct StbSink {
  FILE* file = nullptr;
  bool failed = false;
  int reason = 0;
  static void write(void* user, void* data, int size) {
    auto* s = static_cast<StbSink*>(user);
    if (!s->failed && std::fwrite(data, 1, size_t(size), s->file) != size_t(size)) {
      s->failed = true;
      s->reason = errno;
    }
  }
};

// Writes a gathered picture to `name` with `encode(canvas, sink)` (an
// stbi_write_*_to_func call); 0, or -1 with the reason.
template <typename Encode>
int stbWrite(const char* name, const StbCanvas& canvas, Encode encode, char* error, size_t size) {
  if (canvas.rows != canvas.height)
    return fail(error, size, "only %d of %d rows were written", canvas.rows, canvas.height);
  StbSink sink;
  sink.file = std::fopen(name, "wb");
  if (!sink.file) return fail(error, size, "%s", std::strerror(errno));
  bool encoded = encode(canvas, &sink) != 0;
  int rc = 0;
  if (sink.failed) rc = fail(error, size, "%s", std::strerror(sink.reason));
  else if (!encoded) rc = fail(error, size, "the encoder failed");
  if (closeWritten(sink.file, rc == 0 ? error : nullptr, size) != 0) rc = -1;
  return rc;
}

// What an stb plug-in keeps between calls: the picture it read, or the
// canvas it gathers for writing.
struct StbState {
  StbPicture picture;
  StbCanvas canvas;
  std::string name;  // the file to write
  bool writing = false;
  int32_t bits = 8;  // of the samples handed in for writing
  int colors = 0;    // colour channels handed in for writing
};

// Decodes `name` into a new state; null after the reason.
inline StbState* stbOpen(const char* name, bool asFloat, char* error, size_t size) {
  auto* s = new StbState;
  if (!stbDecode(name, asFloat, s->picture, error, size)) {
    delete s;
    return nullptr;
  }
  return s;
}

inline int stbReadRow(void* state, int32_t row, void* const* channels, char* error, size_t size) {
  return stbRow(static_cast<StbState*>(state)->picture, row, channels, error, size);
}

// A state that gathers the picture `image` describes for writing to `name`,
// as `channels` samples of `bytes` a pixel; null after the reason.
inline StbState* stbStartWriting(const char* name, const PxfImageData* image, int channels, int bytes,
                                 const char* format, char* error, size_t size) {
  if (image->colorChannels == 0) {
    fail(error, size, "%s pictures need colour channels", format);
    return nullptr;
  }
  auto* s = new StbState;
  s->writing = true;
  s->name = name;
  s->bits = image->colorBits;
  s->colors = image->colorChannels >= 3 ? 3 : 1;
  if (!s->canvas.start(image->width(), image->height(), channels, bytes)) {
    fail(error, size, "picture of %d x %d pixels is beyond the pixel limit", image->width(), image->height());
    delete s;
    return nullptr;
  }
  return s;
}

// Ends a state: a written picture goes to its file through `encode`.
template <typename Encode>
int stbClose(void* state, Encode encode, char* error, size_t size) {
  auto* s = static_cast<StbState*>(state);
  int rc = s->writing ? stbWrite(s->name.c_str(), s->canvas, encode, error, size) : 0;
  delete s;
  return rc;
}

}  // namespace pxfplugin
