// The PNG plug-in, on libpng: 8 and 16 bits; grey, grey with alpha,
// palette (read), RGB and RGBA; the resolution of the pHYs chunk. Bytes go
// through the framework's stream. libpng reports errors by longjmp: every
// call into it stands behind a setjmp in a function that holds nothing
// needing destruction.
#include <png.h>

#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "plugin_util.h"

using pxfplugin::fail;

namespace {

struct State {
  PxfStream* stream = nullptr;
  png_structp png = nullptr;
  png_infop info = nullptr;
  bool writing = false;
  int32_t width = 0, height = 0;
  int channels = 0;  // interleaved samples a pixel after the transforms
  int bytes = 1;
  int colors = 0;
  bool matte = false;
  int passes = 1;
  uint8_t* row = nullptr;     // one interleaved row
  uint8_t* whole = nullptr;   // an interlaced picture, read at once
  png_bytep* rows = nullptr;  // the row pointers into `whole`
  int32_t next = 0;           // the next row the file gives (counted from the top)
  char message[256] = {};
};

void onError(png_structp png, png_const_charp text) {
  auto* s = static_cast<State*>(png_get_error_ptr(png));
  std::snprintf(s->message, sizeof s->message, "%s", text);
  png_longjmp(png, 1);
}

void onWarning(png_structp, png_const_charp) {}

void readBytes(png_structp png, png_bytep data, size_t length) {
  auto* s = static_cast<State*>(png_get_io_ptr(png));
  while (length > 0) {
    int64_t n = s->stream->read(s->stream->user, data, int64_t(length));
    if (n <= 0)
      png_error(png, n < 0 ? pxfplugin::streamError(s->stream, "the file cannot be read") : "the file ends early");
    data += n;
    length -= size_t(n);
  }
}

void writeBytes(png_structp png, png_bytep data, size_t length) {
  auto* s = static_cast<State*>(png_get_io_ptr(png));
  if (s->stream->write(s->stream->user, data, int64_t(length)) < 0)
    png_error(png, pxfplugin::streamError(s->stream, "cannot be written"));
}

void flushBytes(png_structp) {}

void release(State* s) {
  if (s->png) {
    if (s->writing)
      png_destroy_write_struct(&s->png, &s->info);
    else
      png_destroy_read_struct(&s->png, &s->info, nullptr);
  }
  std::free(s->row);
  std::free(s->whole);
  std::free(s->rows);
  delete s;
}

int recognise(const uint8_t* bytes, size_t count) { return count >= 8 && png_sig_cmp(bytes, 0, 8) == 0; }

// Reads the header and sets the transforms; false after a libpng error or
// a size that is refused.
bool readHeader(State* s, PxfImageData* image, char* error, size_t size) {
  if (setjmp(png_jmpbuf(s->png))) return fail(error, size, "%s", s->message), false;
  png_set_read_fn(s->png, s, readBytes);
  png_read_info(s->png, s->info);
  png_uint_32 w = 0, h = 0;
  int depth = 0, type = 0, interlace = 0;
  png_get_IHDR(s->png, s->info, &w, &h, &depth, &type, &interlace, nullptr, nullptr);
  // Deflate holds at most 1032 bytes in one; a 1-bit picture 8 pixels a byte.
  if (!pxfplugin::sizeAllowed(w, h, s->stream, 8 * 1032, error, size)) return false;
  if (type == PNG_COLOR_TYPE_PALETTE) png_set_palette_to_rgb(s->png);
  if (type == PNG_COLOR_TYPE_GRAY && depth < 8) png_set_expand_gray_1_2_4_to_8(s->png);
  if (png_get_valid(s->png, s->info, PNG_INFO_tRNS)) png_set_tRNS_to_alpha(s->png);
  if (depth == 16) png_set_swap(s->png);  // channel buffers hold native 16-bit samples
  s->passes = png_set_interlace_handling(s->png);
  png_read_update_info(s->png, s->info);
  s->width = int32_t(w);
  s->height = int32_t(h);
  s->channels = png_get_channels(s->png, s->info);
  s->bytes = png_get_bit_depth(s->png, s->info) == 16 ? 2 : 1;
  s->colors = s->channels >= 3 ? 3 : 1;
  s->matte = s->channels == 2 || s->channels == 4;
  pxfplugin::describePicture(image, s->width, s->height, PXF_TOP_DOWN, s->colors, s->matte, s->bytes * 8);
  image->storedBits = depth;
  image->compression = interlace == PNG_INTERLACE_ADAM7 ? "deflate, interlaced" : "deflate";
  png_uint_32 xppm = 0, yppm = 0;
  int unit = 0;
  if (png_get_pHYs(s->png, s->info, &xppm, &yppm, &unit) && xppm > 0 && yppm > 0) {
    if (unit == PNG_RESOLUTION_METER) image->dpi = float(double(xppm) * 0.0254);
    image->pixelAspect = float(double(yppm) / double(xppm));
  }
  return true;
}

void* openRead(PxfStream* in, PxfImageData* image, int32_t* frames, char* error, size_t size) {
  auto* s = new State;
  s->stream = in;
  s->png = png_create_read_struct(PNG_LIBPNG_VER_STRING, s, onError, onWarning);
  s->info = s->png ? png_create_info_struct(s->png) : nullptr;
  if (!s->info) fail(error, size, "libpng could not start");
  if (!s->info || !readHeader(s, image, error, size)) {
    release(s);
    return nullptr;
  }
  *frames = 1;
  return s;
}

// The row buffer, and for an interlaced picture the whole of it (its passes
// come whole): made at the first row, not when the header is read.
bool startPixels(State* s) {
  if (setjmp(png_jmpbuf(s->png))) return false;
  size_t rowBytes = png_get_rowbytes(s->png, s->info);
  if (s->passes == 1) {
    s->row = static_cast<uint8_t*>(std::malloc(rowBytes));
    if (!s->row) png_error(s->png, "out of memory");
    return true;
  }
  // Both blocks belong to the state, so that a longjmp out of libpng
  // leaves nothing behind.
  s->whole = static_cast<uint8_t*>(std::malloc(rowBytes * size_t(s->height)));
  s->rows = static_cast<png_bytep*>(std::malloc(sizeof(png_bytep) * size_t(s->height)));
  if (!s->whole || !s->rows) png_error(s->png, "out of memory");
  for (int32_t y = 0; y < s->height; ++y) s->rows[y] = s->whole + rowBytes * size_t(y);
  png_read_image(s->png, s->rows);
  return true;
}

bool readNext(State* s) {
  if (setjmp(png_jmpbuf(s->png))) return false;
  png_read_row(s->png, s->row, nullptr);
  return true;
}

int readRow(void* state, int32_t row, void* const* channels, int64_t stride, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  if (!s->row && !s->whole && !startPixels(s)) return fail(error, size, "%s", s->message);
  int32_t stored = s->height - 1 - row;  // the file keeps the top row first
  const uint8_t* pixels;
  if (s->whole) {
    if (stored < 0 || stored >= s->height) return fail(error, size, "no row %d", row);
    pixels = s->whole + png_get_rowbytes(s->png, s->info) * size_t(stored);
  } else {
    if (stored != s->next) return fail(error, size, "rows are read from the top down only");
    if (!readNext(s)) return fail(error, size, "%s", s->message);
    s->next++;
    pixels = s->row;
  }
  pxfplugin::deinterleave(pixels, s->channels, s->bytes, channels, stride, 0, s->channels, s->width);
  return 0;
}

bool writeHeader(State* s, float dpi, int level) {
  if (setjmp(png_jmpbuf(s->png))) return false;
  png_set_write_fn(s->png, s, writeBytes, flushBytes);
  int type = s->colors == 3 ? (s->matte ? PNG_COLOR_TYPE_RGBA : PNG_COLOR_TYPE_RGB)
                            : (s->matte ? PNG_COLOR_TYPE_GRAY_ALPHA : PNG_COLOR_TYPE_GRAY);
  png_set_IHDR(s->png, s->info, png_uint_32(s->width), png_uint_32(s->height), s->bytes * 8, type, PNG_INTERLACE_NONE,
               PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  if (dpi >= 1.0f) {
    auto ppm = png_uint_32(double(dpi) / 0.0254 + 0.5);
    png_set_pHYs(s->png, s->info, ppm, ppm, PNG_RESOLUTION_METER);
  }
  png_set_compression_level(s->png, level);
  png_write_info(s->png, s->info);
  if (s->bytes == 2) png_set_swap(s->png);
  return true;
}

void* openWrite(PxfStream* out, const PxfImageData* image, PxfCapSetting* const* settings, const PxfLut*, char* error,
                size_t size) {
  auto* s = new State;
  s->stream = out;
  s->writing = true;
  s->width = image->width();
  s->height = image->height();
  s->colors = image->colorChannels >= 3 ? 3 : 1;
  s->matte = image->matteChannels > 0;
  s->channels = s->colors + (s->matte ? 1 : 0);
  s->bytes = image->colorBits > 8 ? 2 : 1;
  if (image->colorChannels == 0 || s->width < 1 || s->height < 1) {
    fail(error, size, "PNG pictures need colour channels and a size");
    release(s);
    return nullptr;
  }
  s->row = static_cast<uint8_t*>(std::malloc(size_t(s->width) * size_t(s->channels) * size_t(s->bytes)));
  s->png = png_create_write_struct(PNG_LIBPNG_VER_STRING, s, onError, onWarning);
  s->info = s->png ? png_create_info_struct(s->png) : nullptr;
  float dpi = pxfplugin::setting(settings, pxfplugin::kDpiCode, 0.0f);
  int level = int(pxfplugin::setting(settings, pxfplugin::kCompressionCode, 2.0f));
  if (!s->row || !s->info || !writeHeader(s, dpi, level)) {
    fail(error, size, "%s", s->message[0] ? s->message : "libpng could not start");
    release(s);
    return nullptr;
  }
  return s;
}

bool writeNext(State* s) {
  if (setjmp(png_jmpbuf(s->png))) return false;
  png_write_row(s->png, s->row);
  return true;
}

int writeRow(void* state, int32_t row, const void* const* channels, int64_t stride, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  if (s->height - 1 - row != s->next) return fail(error, size, "rows are written from the top down only");
  pxfplugin::interleave(channels, stride, 0, s->channels, s->bytes, s->row, s->width, s->channels);
  if (!writeNext(s)) return fail(error, size, "%s", s->message);
  s->next++;
  return 0;
}

bool writeEnd(State* s) {
  if (setjmp(png_jmpbuf(s->png))) return false;
  png_write_end(s->png, s->info);
  return true;
}

int closeFile(void* state, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  int rc = 0;
  if (s->writing) {
    if (s->next != s->height)
      rc = fail(error, size, "only %d of %d rows were written", s->next, s->height);
    else if (!writeEnd(s))
      rc = fail(error, size, "%s", s->message);
  }
  release(s);
  return rc;
}

const PxfCapability kCapabilities[] = {
    pxfplugin::dpiCapability(),
    {pxfplugin::kCompressionCode, "Compression", 1, 2, 0.0f, 9.0f, 2.0f,
     "zlib's level, 0 (none) to 9 (smallest); 2, the default, keeps pace with a pipeline and stays small"},
};

}  // namespace

PXF_IMAGE_PLUGIN("png", "png", "PNG", "Portable Network Graphics, 8 and 16 bits, with alpha",
                 (PxfPluginOps{PXF_PLUGIN_VERSION,
                               sizeof(PxfPluginOps),
                               2u,
                               (1u << 7) | (1u << 15),
                               1u,
                               0u,
                               0u,
                               0,
                               true,
                               true,
                               kCapabilities,
                               2,
                               recognise,
                               openRead,
                               nullptr,
                               readRow,
                               openWrite,
                               nullptr,
                               writeRow,
                               closeFile,
                               0}));
