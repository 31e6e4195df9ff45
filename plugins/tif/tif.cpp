// The TIFF plug-in, on libtiff: 8, 16 and 32-bit float samples, alpha (its
// association as the ExtraSamples tag says), pages as frames, resolution;
// striped files of grey or RGB samples are read row by row at their own
// depth, and every other kind (tiles, palettes, YCbCr, separate planes,
// fewer bits) through libtiff's RGBA reader at 8 bits, premultiplied, when
// the first row is asked for. Writing: 8 or 16-bit integers or 32-bit
// floats, LZW, Deflate or none, one page a frame, alpha tagged as what it
// is. Bytes go through the framework's stream.
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <vector>

#include <tiffio.h>

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

// libtiff's client functions on the framework's stream.
PxfStream* streamOf(thandle_t h) { return static_cast<PxfStream*>(h); }
tmsize_t readProc(thandle_t h, void* data, tmsize_t size) {
  PxfStream* s = streamOf(h);
  tmsize_t done = 0;
  while (done < size) {
    int64_t n = s->read(s->user, static_cast<uint8_t*>(data) + done, int64_t(size - done));
    if (n < 0) return -1;
    if (n == 0) break;
    done += tmsize_t(n);
  }
  return done;
}
tmsize_t writeProc(thandle_t h, void* data, tmsize_t size) {
  PxfStream* s = streamOf(h);
  if (s->write(s->user, data, int64_t(size)) < 0) {
    std::snprintf(tMessage, sizeof tMessage, "%s", pxfplugin::streamError(s, "cannot be written"));
    return -1;
  }
  return size;
}
toff_t seekProc(thandle_t h, toff_t offset, int whence) {
  PxfStream* s = streamOf(h);
  int64_t to = int64_t(offset);
  if (whence == SEEK_CUR) {
    to += s->tell(s->user);
  } else if (whence == SEEK_END) {
    int64_t end = s->size(s->user);
    if (end < 0) return toff_t(-1);
    to += end;
  }
  return to >= 0 && s->seek(s->user, to) == 0 ? toff_t(to) : toff_t(-1);
}
int closeProc(thandle_t) { return 0; }
toff_t sizeProc(thandle_t h) {
  int64_t n = streamOf(h)->size(streamOf(h)->user);
  return n < 0 ? 0 : toff_t(n);
}
int mapProc(thandle_t, void**, toff_t*) { return 0; }
void unmapProc(thandle_t, void*, toff_t) {}

TIFF* openTiff(PxfStream* stream, const char* mode) {
  return TIFFClientOpen(stream->name ? stream->name : "TIFF", mode, stream, readProc, writeProc, seekProc, closeProc,
                        sizeProc, mapProc, unmapProc);
}

struct State {
  TIFF* tif = nullptr;
  bool writing = false;
  int32_t width = 0, height = 0;
  uint16_t samples = 0, bits = 8, format = SAMPLEFORMAT_UINT;
  int colors = 3;
  bool matte = false;
  bool rgba = false;  // read whole through libtiff's RGBA reader, at the first row
  std::vector<uint32_t> raster;
  std::vector<uint8_t> row;
  int32_t next = 0;
  int compression = COMPRESSION_ADOBE_DEFLATE;
  // Reading a file of strips: the strip decoded whole (through libdeflate,
  // where libtiff has it, which decodes only whole strips), and its number.
  std::vector<uint8_t> strip;
  int64_t stripNumber = -1;
  uint32_t rowsPerStrip = 0;
};

// Row `stored` of a file of strips, from its strip decoded whole; null after a failure.
const uint8_t* stripRow(State* s, int32_t stored) {
  const tmsize_t line = TIFFScanlineSize(s->tif);
  if (s->rowsPerStrip == 0) {
    uint32_t rows = 0;
    TIFFGetFieldDefaulted(s->tif, TIFFTAG_ROWSPERSTRIP, &rows);
    s->rowsPerStrip = std::clamp<uint32_t>(rows, 1, uint32_t(s->height));
    s->strip.assign(size_t(line) * s->rowsPerStrip, 0);
  }
  const int64_t number = stored / int64_t(s->rowsPerStrip);
  if (number != s->stripNumber) {
    const uint32_t first = uint32_t(number) * s->rowsPerStrip;
    const tmsize_t want = line * tmsize_t(std::min<uint32_t>(s->rowsPerStrip, uint32_t(s->height) - first));
    if (TIFFReadEncodedStrip(s->tif, uint32_t(number), s->strip.data(), want) < want) return nullptr;
    s->stripNumber = number;
  }
  return s->strip.data() + size_t(stored - number * int64_t(s->rowsPerStrip)) * size_t(line);
}

int recognise(const uint8_t* b, size_t n) {
  return n >= 4 && ((std::memcmp(b, "II*\0", 4) == 0) || (std::memcmp(b, "MM\0*", 4) == 0) ||
                    (std::memcmp(b, "II+\0", 4) == 0) || (std::memcmp(b, "MM\0+", 4) == 0));
}

const char* compressionName(uint16_t c) {
  switch (c) {
    case COMPRESSION_NONE: return "none";
    case COMPRESSION_LZW: return "LZW";
    case COMPRESSION_ADOBE_DEFLATE:
    case COMPRESSION_DEFLATE: return "Deflate";
    case COMPRESSION_PACKBITS: return "PackBits";
    case COMPRESSION_JPEG: return "JPEG";
    default: return "other";
  }
}

// Describes the current page; false when it cannot be read. Nothing the
// size of the picture is made here.
bool describe(State* s, PxfImageData* image, PxfStream* stream, char* error, size_t size) {
  // A page of its own: nothing decoded of another stays.
  s->strip.clear();
  s->stripNumber = -1;
  s->rowsPerStrip = 0;
  s->raster.clear();
  uint32_t w = 0, h = 0;
  uint16_t photometric = 0, planar = PLANARCONFIG_CONTIG, extra = 0, orientation = ORIENTATION_TOPLEFT;
  uint16_t compression = COMPRESSION_NONE;
  uint16_t* extraKinds = nullptr;
  TIFFGetField(s->tif, TIFFTAG_IMAGEWIDTH, &w);
  TIFFGetField(s->tif, TIFFTAG_IMAGELENGTH, &h);
  TIFFGetFieldDefaulted(s->tif, TIFFTAG_SAMPLESPERPIXEL, &s->samples);
  TIFFGetFieldDefaulted(s->tif, TIFFTAG_BITSPERSAMPLE, &s->bits);
  TIFFGetFieldDefaulted(s->tif, TIFFTAG_SAMPLEFORMAT, &s->format);
  TIFFGetFieldDefaulted(s->tif, TIFFTAG_PLANARCONFIG, &planar);
  TIFFGetFieldDefaulted(s->tif, TIFFTAG_ORIENTATION, &orientation);
  TIFFGetFieldDefaulted(s->tif, TIFFTAG_EXTRASAMPLES, &extra, &extraKinds);
  TIFFGetFieldDefaulted(s->tif, TIFFTAG_COMPRESSION, &compression);
  if (!TIFFGetField(s->tif, TIFFTAG_PHOTOMETRIC, &photometric)) photometric = PHOTOMETRIC_MINISBLACK;
  if (!pxfplugin::sizeAllowed(w, h, stream, uint64_t(1) << 20, error, size)) return false;
  s->width = int32_t(w);
  s->height = int32_t(h);
  bool grey = photometric == PHOTOMETRIC_MINISBLACK;
  bool direct = !TIFFIsTiled(s->tif) && planar == PLANARCONFIG_CONTIG && orientation == ORIENTATION_TOPLEFT &&
                (grey || photometric == PHOTOMETRIC_RGB) &&
                ((s->format == SAMPLEFORMAT_UINT && (s->bits == 8 || s->bits == 16)) ||
                 (s->format == SAMPLEFORMAT_IEEEFP && s->bits == 32)) &&
                s->samples >= (grey ? 1 : 3) && s->samples <= (grey ? 2 : 4);
  s->rgba = !direct;
  int32_t storedBits = s->bits;
  bool storedFloat = s->format == SAMPLEFORMAT_IEEEFP;
  int32_t association = PXF_STRAIGHT;
  if (direct) {
    s->colors = grey ? 1 : 3;
    s->matte = s->samples > s->colors;
    if (s->matte && extra > 0 && extraKinds && extraKinds[0] == EXTRASAMPLE_ASSOCALPHA) association = PXF_PREMULTIPLIED;
  } else {
    char why[1024] = {};
    if (!TIFFRGBAImageOK(s->tif, why)) return fail(error, size, "%s", why), false;
    s->colors = 3;
    s->matte = true;
    s->bits = 8;
    s->format = SAMPLEFORMAT_UINT;
    association = PXF_PREMULTIPLIED;  // what libtiff's RGBA reader gives
  }
  *image = PxfImageData{};
  pxfplugin::describePicture(image, s->width, s->height, s->rgba ? PXF_BOTTOM_UP : PXF_TOP_DOWN, s->colors, s->matte,
                             s->bits);
  image->colorKind = image->matteKind = s->format == SAMPLEFORMAT_IEEEFP ? PXF_FLOAT : PXF_INTEGER;
  image->storedBits = storedBits;
  image->storedKind = storedFloat ? PXF_STORED_FLOAT : PXF_STORED_INTEGER;
  image->association = association;
  image->compression = compressionName(compression);
  if (TIFFIsTiled(s->tif)) {
    uint32_t tw = 0, th = 0;
    TIFFGetField(s->tif, TIFFTAG_TILEWIDTH, &tw);
    TIFFGetField(s->tif, TIFFTAG_TILELENGTH, &th);
    image->tileWidth = int32_t(tw), image->tileHeight = int32_t(th);
  }
  float xres = 0, yres = 0;
  uint16_t unit = RESUNIT_INCH;
  if (TIFFGetField(s->tif, TIFFTAG_XRESOLUTION, &xres) && xres > 0) {
    TIFFGetFieldDefaulted(s->tif, TIFFTAG_RESOLUTIONUNIT, &unit);
    image->dpi = unit == RESUNIT_CENTIMETER ? xres * 2.54f : unit == RESUNIT_INCH ? xres : 0.0f;
    if (TIFFGetField(s->tif, TIFFTAG_YRESOLUTION, &yres) && yres > 0) image->pixelAspect = yres / xres;
  }
  s->row.clear();
  s->raster.clear();
  s->next = 0;
  return true;
}

void* openRead(PxfStream* in, PxfImageData* image, int32_t* frames, char* error, size_t size) {
  tMessage[0] = '\0';
  auto* s = new State;
  s->tif = openTiff(in, "r");
  if (!s->tif) {
    fail(error, size, "%s", lastMessage("not a readable TIFF file"));
    delete s;
    return nullptr;
  }
  if (!describe(s, image, in, error, size)) {
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
  return describe(s, image, nullptr, error, size) ? 0 : -1;
}

int readRow(void* state, int32_t row, void* const* channels, int64_t stride, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  tMessage[0] = '\0';
  if (s->rgba) {
    if (s->raster.empty()) {
      s->raster.assign(size_t(s->width) * size_t(s->height), 0);
      if (!TIFFReadRGBAImageOriented(s->tif, uint32_t(s->width), uint32_t(s->height), s->raster.data(),
                                     ORIENTATION_BOTLEFT, 0))
        return fail(error, size, "%s", lastMessage("the picture cannot be read"));
    }
    if (row < 0 || row >= s->height) return fail(error, size, "no row %d", row);
    // The raster holds rows from the bottom: ABGR words, red in the low byte.
    const uint32_t* p = s->raster.data() + size_t(row) * size_t(s->width);
    for (int32_t x = 0; x < s->width; ++x)
      for (int c = 0; c < 4; ++c) *pxfplugin::sampleAt<uint8_t>(channels[c], stride, x) = uint8_t(p[x] >> (8 * c));
    return 0;
  }
  int32_t stored = s->height - 1 - row;
  if (stored != s->next) return fail(error, size, "rows are read from the top down only");
  const uint8_t* line = nullptr;
  if (!TIFFIsTiled(s->tif)) {
    line = stripRow(s, stored);
  } else {
    if (s->row.empty()) s->row.resize(size_t(TIFFScanlineSize(s->tif)));
    if (TIFFReadScanline(s->tif, s->row.data(), uint32_t(stored), 0) >= 0) line = s->row.data();
  }
  if (!line) return fail(error, size, "%s", lastMessage("a row cannot be read"));
  s->next++;
  int bytes = s->bits / 8;
  int used = s->colors + (s->matte ? 1 : 0);
  pxfplugin::deinterleave(line, s->samples, bytes, channels, stride, 0, used, s->width);
  return 0;
}

bool startPage(State* s, const PxfImageData* image, float dpi) {
  s->width = image->width();
  s->height = image->height();
  s->colors = image->colorChannels >= 3 ? 3 : 1;
  s->matte = image->matteChannels > 0;
  bool floats = image->colorKind == PXF_FLOAT && image->colorBits == 32;
  s->bits = floats ? 32 : image->colorBits > 8 ? 16 : 8;
  s->samples = uint16_t(s->colors + (s->matte ? 1 : 0));
  TIFFSetField(s->tif, TIFFTAG_IMAGEWIDTH, uint32_t(s->width));
  TIFFSetField(s->tif, TIFFTAG_IMAGELENGTH, uint32_t(s->height));
  TIFFSetField(s->tif, TIFFTAG_SAMPLESPERPIXEL, s->samples);
  TIFFSetField(s->tif, TIFFTAG_BITSPERSAMPLE, s->bits);
  TIFFSetField(s->tif, TIFFTAG_SAMPLEFORMAT, floats ? SAMPLEFORMAT_IEEEFP : SAMPLEFORMAT_UINT);
  TIFFSetField(s->tif, TIFFTAG_PHOTOMETRIC, s->colors == 3 ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK);
  TIFFSetField(s->tif, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
  TIFFSetField(s->tif, TIFFTAG_ORIENTATION, ORIENTATION_TOPLEFT);
  TIFFSetField(s->tif, TIFFTAG_COMPRESSION, uint16_t(s->compression));
  if (s->compression != COMPRESSION_NONE)
    TIFFSetField(s->tif, TIFFTAG_PREDICTOR, floats ? PREDICTOR_FLOATINGPOINT : PREDICTOR_HORIZONTAL);
  if (s->matte) {
    // The tag says what the colour is: premultiplied, or straight.
    uint16_t kind = image->association == PXF_PREMULTIPLIED ? EXTRASAMPLE_ASSOCALPHA : EXTRASAMPLE_UNASSALPHA;
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

void* openWrite(PxfStream* out, const PxfImageData* image, PxfCapSetting* const* settings, const PxfLut*, char* error,
                size_t size) {
  tMessage[0] = '\0';
  if (image->colorChannels == 0) {
    fail(error, size, "TIFF pictures here need colour channels");
    return nullptr;
  }
  auto* s = new State;
  s->writing = true;
  int kind = int(pxfplugin::setting(settings, pxfplugin::kCompressionCode, 2.0f));
  s->compression = kind == 0 ? COMPRESSION_NONE : kind == 1 ? COMPRESSION_LZW : COMPRESSION_ADOBE_DEFLATE;
  // libtiff reads back what it wrote when a file has several pages: it
  // writes the stream's file by name (the file itself, or one in memory).
  const char* name = out->path(out->user);
  s->tif = name ? TIFFOpen(name, "w") : nullptr;
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

int writeRow(void* state, int32_t row, const void* const* channels, int64_t stride, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  int32_t stored = s->height - 1 - row;
  if (stored != s->next) return fail(error, size, "rows are written from the top down only");
  pxfplugin::interleave(channels, stride, 0, s->samples, s->bits / 8, s->row.data(), s->width, s->samples);
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
    if (s->next != s->height)
      rc = fail(error, size, "only %d of %d rows were written", s->next, s->height);
    else if (!TIFFFlush(s->tif))
      rc = fail(error, size, "%s", lastMessage("the file cannot be written"));
  }
  TIFFClose(s->tif);
  delete s;
  return rc;
}

const PxfCapability kCapabilities[] = {
    pxfplugin::dpiCapability(),
    {pxfplugin::kCompressionCode, "Compression", 1, 2, 0.0f, 2.0f, 2.0f, "0 none, 1 LZW, 2 Deflate"},
};

}  // namespace

PXF_IMAGE_PLUGIN("tif", "tif;tiff", "TIFF", "Tagged image files: 8, 16 and 32-bit float samples, pages as frames",
                 (PxfPluginOps{PXF_PLUGIN_VERSION,
                               sizeof(PxfPluginOps),
                               2u,
                               (1u << 7) | (1u << 15) | (1u << 31),
                               1u,
                               0u,
                               0u,
                               uint8_t(PXF_MULTIFRAME | PXF_TILES | PXF_ANY_ASSOCIATION),
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
