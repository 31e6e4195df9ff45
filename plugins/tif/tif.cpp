// The TIFF plug-in, on libtiff: 8, 16 and 32-bit float samples, alpha,
// pages as frames, resolution; striped files of grey or RGB samples are
// read row by row at their own depth, and every other kind (tiles, palettes,
// YCbCr, separate planes, fewer bits) through libtiff's RGBA reader at 8
// bits. Writing: 8 or 16 bits, LZW, Deflate or none, one page a frame.
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <vector>

#include <tiffio.h>

#include "kelpimage/plugin/pxf.h"
#include "plugin_util.h"

using pxfplugin::fail;

namespace {

// libtiff's handlers are process-wide; each thread keeps its own last message.
thread_local char tMessage[512];

void onError(const char* module, const char* format, va_list args) {
  char text[400];
  std::vsnprintf(text, sizeof text, format, args);
  std::snprintf(tMessage, sizeof tMessage, "%s%s%s", module ? module : "", module ? ": " : "", text);
}

void onWarning(const char*, const char*, va_list) {}

struct Handlers {
  Handlers() {
    TIFFSetErrorHandler(onError);
    TIFFSetWarningHandler(onWarning);
  }
} gHandlers;

const char* lastMessage(const char* fallback) { return tMessage[0] ? tMessage : fallback; }

struct State {
  TIFF* tif = nullptr;
  bool writing = false;
  int32_t width = 0, height = 0;
  uint16_t samples = 0, bits = 8, format = SAMPLEFORMAT_UINT;
  int colors = 3;
  bool matte = false;
  bool rgba = false;  // read whole through libtiff's RGBA reader
  std::vector<uint32_t> raster;
  std::vector<uint8_t> row;
  int32_t next = 0;
  int compression = COMPRESSION_LZW;
};

int recognise(const uint8_t* b, size_t n) {
  return n >= 4 && ((std::memcmp(b, "II*\0", 4) == 0) || (std::memcmp(b, "MM\0*", 4) == 0) ||
                    (std::memcmp(b, "II+\0", 4) == 0) || (std::memcmp(b, "MM\0+", 4) == 0));
}

// Describes the current page; false when it cannot be read.
bool describe(State* s, PxfImageData* image, char* error, size_t size) {
  uint32_t w = 0, h = 0;
  uint16_t photometric = 0, planar = PLANARCONFIG_CONTIG, extra = 0, orientation = ORIENTATION_TOPLEFT;
  uint16_t* extraKinds = nullptr;
  TIFFGetField(s->tif, TIFFTAG_IMAGEWIDTH, &w);
  TIFFGetField(s->tif, TIFFTAG_IMAGELENGTH, &h);
  TIFFGetFieldDefaulted(s->tif, TIFFTAG_SAMPLESPERPIXEL, &s->samples);
  TIFFGetFieldDefaulted(s->tif, TIFFTAG_BITSPERSAMPLE, &s->bits);
  TIFFGetFieldDefaulted(s->tif, TIFFTAG_SAMPLEFORMAT, &s->format);
  TIFFGetFieldDefaulted(s->tif, TIFFTAG_PLANARCONFIG, &planar);
  TIFFGetFieldDefaulted(s->tif, TIFFTAG_ORIENTATION, &orientation);
  TIFFGetFieldDefaulted(s->tif, TIFFTAG_EXTRASAMPLES, &extra, &extraKinds);
  if (!TIFFGetField(s->tif, TIFFTAG_PHOTOMETRIC, &photometric)) photometric = PHOTOMETRIC_MINISBLACK;
  if (w == 0 || h == 0 || w > 65535 || h > 65535) {
    fail(error, size, "picture of %u x %u pixels is out of range", w, h);
    return false;
  }
  s->width = int32_t(w);
  s->height = int32_t(h);
  bool grey = photometric == PHOTOMETRIC_MINISBLACK;
  bool direct = !TIFFIsTiled(s->tif) && planar == PLANARCONFIG_CONTIG && orientation == ORIENTATION_TOPLEFT &&
                (grey || photometric == PHOTOMETRIC_RGB) &&
                ((s->format == SAMPLEFORMAT_UINT && (s->bits == 8 || s->bits == 16)) ||
                 (s->format == SAMPLEFORMAT_IEEEFP && s->bits == 32)) &&
                s->samples >= (grey ? 1 : 3) && s->samples <= (grey ? 2 : 4);
  s->rgba = !direct;
  if (direct) {
    s->colors = grey ? 1 : 3;
    s->matte = s->samples > s->colors;
    s->row.resize(size_t(TIFFScanlineSize(s->tif)));
  } else {
    char why[1024] = {};
    if (!pxfplugin::wholeAllowed(w, h)) {
      fail(error, size, "picture of %u x %u pixels is beyond the pixel limit", w, h);
      return false;
    }
    if (!TIFFRGBAImageOK(s->tif, why)) {
      fail(error, size, "%s", why);
      return false;
    }
    s->colors = 3;
    s->matte = true;
    s->bits = 8;
    s->format = SAMPLEFORMAT_UINT;
    s->raster.assign(size_t(w) * h, 0);
    if (!TIFFReadRGBAImageOriented(s->tif, w, h, s->raster.data(), ORIENTATION_BOTLEFT, 0)) {
      fail(error, size, "%s", lastMessage("the picture cannot be read"));
      return false;
    }
  }
  *image = PxfImageData{};
  pxfplugin::describePicture(image, s->width, s->height, s->rgba ? PXF_BOTTOM_UP : PXF_TOP_DOWN, s->colors, s->matte,
                             s->bits);
  image->colorKind = image->matteKind = s->format == SAMPLEFORMAT_IEEEFP ? PXF_FLOAT : PXF_INTEGER;
  float xres = 0;
  uint16_t unit = RESUNIT_INCH;
  if (TIFFGetField(s->tif, TIFFTAG_XRESOLUTION, &xres) && xres > 0) {
    TIFFGetFieldDefaulted(s->tif, TIFFTAG_RESOLUTIONUNIT, &unit);
    image->dpi = unit == RESUNIT_CENTIMETER ? xres * 2.54f : unit == RESUNIT_INCH ? xres : 0.0f;
  }
  s->next = 0;
  return true;
}

void* openRead(const char* name, PxfImageData* image, int32_t* frames, char* error, size_t size) {
  tMessage[0] = '\0';
  auto* s = new State;
  s->tif = TIFFOpen(name, "r");
  if (!s->tif) {
    fail(error, size, "%s", lastMessage("not a readable TIFF file"));
    delete s;
    return nullptr;
  }
  if (!describe(s, image, error, size)) {
    TIFFClose(s->tif);
    delete s;
    return nullptr;
  }
  *frames = int32_t(TIFFNumberOfDirectories(s->tif));
  return s;
}

int setFrame(void* state, int32_t frame, PxfImageData* image, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  tMessage[0] = '\0';
  if (!TIFFSetDirectory(s->tif, tdir_t(frame))) return fail(error, size, "%s", lastMessage("no such page"));
  return describe(s, image, error, size) ? 0 : -1;
}

int readRow(void* state, int32_t row, void* const* channels, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  if (s->rgba) {
    // The raster holds rows from the bottom: ABGR words, red in the low byte.
    const uint32_t* p = s->raster.data() + size_t(row) * size_t(s->width);
    for (int32_t x = 0; x < s->width; ++x)
      for (int c = 0; c < 4; ++c) static_cast<uint8_t*>(channels[c])[x] = uint8_t(p[x] >> (8 * c));
    return 0;
  }
  int32_t stored = s->height - 1 - row;
  if (stored != s->next) return fail(error, size, "rows are read from the top down only");
  tMessage[0] = '\0';
  if (TIFFReadScanline(s->tif, s->row.data(), uint32_t(stored), 0) < 0)
    return fail(error, size, "%s", lastMessage("a row cannot be read"));
  s->next++;
  int bytes = s->bits / 8;
  int used = s->colors + (s->matte ? 1 : 0);
  pxfplugin::deinterleave(s->row.data(), s->samples, bytes, channels, 0, used, s->width);
  return 0;
}

bool startPage(State* s, const PxfImageData* image, float dpi) {
  s->width = image->width();
  s->height = image->height();
  s->colors = image->colorChannels >= 3 ? 3 : 1;
  s->matte = image->matteChannels > 0;
  s->bits = image->colorBits > 8 ? 16 : 8;
  s->samples = uint16_t(s->colors + (s->matte ? 1 : 0));
  TIFFSetField(s->tif, TIFFTAG_IMAGEWIDTH, uint32_t(s->width));
  TIFFSetField(s->tif, TIFFTAG_IMAGELENGTH, uint32_t(s->height));
  TIFFSetField(s->tif, TIFFTAG_SAMPLESPERPIXEL, s->samples);
  TIFFSetField(s->tif, TIFFTAG_BITSPERSAMPLE, s->bits);
  TIFFSetField(s->tif, TIFFTAG_SAMPLEFORMAT, SAMPLEFORMAT_UINT);
  TIFFSetField(s->tif, TIFFTAG_PHOTOMETRIC, s->colors == 3 ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK);
  TIFFSetField(s->tif, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
  TIFFSetField(s->tif, TIFFTAG_ORIENTATION, ORIENTATION_TOPLEFT);
  TIFFSetField(s->tif, TIFFTAG_COMPRESSION, uint16_t(s->compression));
  if (s->compression != COMPRESSION_NONE) TIFFSetField(s->tif, TIFFTAG_PREDICTOR, PREDICTOR_HORIZONTAL);
  if (s->matte) {
    uint16_t kind = EXTRASAMPLE_ASSOCALPHA;
    TIFFSetField(s->tif, TIFFTAG_EXTRASAMPLES, uint16_t(1), &kind);
  }
  if (dpi >= 1.0f) {
    TIFFSetField(s->tif, TIFFTAG_XRESOLUTION, dpi);
    TIFFSetField(s->tif, TIFFTAG_YRESOLUTION, dpi);
    TIFFSetField(s->tif, TIFFTAG_RESOLUTIONUNIT, RESUNIT_INCH);
  }
  TIFFSetField(s->tif, TIFFTAG_ROWSPERSTRIP, TIFFDefaultStripSize(s->tif, 0));
  s->row.assign(size_t(s->width) * s->samples * (s->bits / 8), 0);
  s->next = 0;
  return s->width > 0 && s->height > 0;
}

void* openWrite(const char* name, const PxfImageData* image, PxfCapSetting* const* settings, const PxfLut*,
                char* error, size_t size) {
  tMessage[0] = '\0';
  if (image->colorChannels == 0) {
    fail(error, size, "TIFF pictures here need colour channels");
    return nullptr;
  }
  auto* s = new State;
  s->writing = true;
  int kind = int(pxfplugin::setting(settings, pxfplugin::kCompressionCode, 2.0f));
  s->compression = kind == 0 ? COMPRESSION_NONE : kind == 1 ? COMPRESSION_LZW : COMPRESSION_ADOBE_DEFLATE;
  s->tif = TIFFOpen(name, "w");
  if (!s->tif || !startPage(s, image, pxfplugin::setting(settings, pxfplugin::kDpiCode, 0.0f))) {
    fail(error, size, "%s", lastMessage("cannot create the TIFF file"));
    if (s->tif) TIFFClose(s->tif);
    delete s;
    return nullptr;
  }
  return s;
}

int nextFrame(void* state, const PxfImageData* image, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  tMessage[0] = '\0';
  if (s->next != s->height) return fail(error, size, "the page before is not whole");
  if (!TIFFWriteDirectory(s->tif)) return fail(error, size, "%s", lastMessage("the page cannot be written"));
  return startPage(s, image, 0.0f) ? 0 : fail(error, size, "the page has no size");
}

int writeRow(void* state, int32_t row, const void* const* channels, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  int32_t stored = s->height - 1 - row;
  if (stored != s->next) return fail(error, size, "rows are written from the top down only");
  pxfplugin::interleave(channels, 0, s->samples, s->bits / 8, s->row.data(), s->width, s->samples);
  tMessage[0] = '\0';
  if (TIFFWriteScanline(s->tif, s->row.data(), uint32_t(stored), 0) < 0)
    return fail(error, size, "%s", lastMessage("a row cannot be written"));
  s->next++;
  return 0;
}

int closeFile(void* state, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  int rc = 0;
  tMessage[0] = '\0';
  if (s->writing) {
    if (s->next != s->height) rc = fail(error, size, "only %d of %d rows were written", s->next, s->height);
    else if (!TIFFFlush(s->tif)) rc = fail(error, size, "%s", lastMessage("the file cannot be written"));
  }
  TIFFClose(s->tif);
  delete s;
  return rc;
}

const PxfCapability kCapabilities[] = {
    {pxfplugin::kDpiCode, "DPI Resolution", 1, 2},
    {pxfplugin::kCompressionCode, "Compression", 1, 2},
};

}  // namespace

PXF_IMAGE_PLUGIN("tif", "tif;tiff", "TIFF", "Tagged image files: 8, 16 and 32-bit float samples, pages as frames",
                 (PxfPluginOps{PXF_PLUGIN_VERSION, sizeof(PxfPluginOps), 2u, (1u << 7) | (1u << 15), 1u, 0u, 0u,
                               PXF_MULTIFRAME, true, true, kCapabilities, 2, recognise, openRead, setFrame, readRow,
                               openWrite, nextFrame, writeRow, closeFile}));
