// Writing OpenEXR files: the header from the picture and the settings,
// lines gathered into bands and handed to OpenEXR.
#include "exr.h"

namespace exrplugin {
namespace {

Imf::Compression compressionOf(float value, bool& known) {
  known = true;
  switch (int(value)) {
    case 0: return Imf::NO_COMPRESSION;
    case 1: return Imf::RLE_COMPRESSION;
    case 2: return Imf::ZIPS_COMPRESSION;
    case 3: return Imf::ZIP_COMPRESSION;
    case 4: return Imf::PIZ_COMPRESSION;
    default: known = false; return Imf::ZIP_COMPRESSION;
  }
}

// The header of a file for `w`'s picture: its data window at its place in
// the display window.
Imf::Header headerFor(const Writer& w, const PxfImageData* image, Imf::Compression compression, float dpi) {
  float pixelAspect = image->pixelAspect > 0.0f && std::isfinite(image->pixelAspect) ? image->pixelAspect : 1.0f;
  int32_t fullWidth = image->fullWidth > 0 ? image->fullWidth : w.width;
  int32_t fullHeight = image->fullHeight > 0 ? image->fullHeight : w.height;
  Imath::Box2i display(Imath::V2i(0, 0), Imath::V2i(fullWidth - 1, fullHeight - 1));
  Imath::Box2i data(Imath::V2i(image->originX, image->originY),
                    Imath::V2i(image->originX + w.width - 1, image->originY + w.height - 1));
  Imf::Header header(display, data, pixelAspect);
  header.compression() = compression;
  header.lineOrder() = w.decreasing ? Imf::DECREASING_Y : Imf::INCREASING_Y;
  const char* colours[3] = {"R", "G", "B"};
  for (int c = 0; c < w.colors; ++c) header.channels().insert(w.colors == 3 ? colours[c] : "Y", Imf::Channel(w.type));
  if (w.matte) header.channels().insert("A", Imf::Channel(w.type));
  if (w.depth) header.channels().insert("Z", Imf::Channel(Imf::FLOAT));
  if (dpi >= 1.0f) Imf::addXDensity(header, dpi);
  return header;
}

}  // namespace

void* openWrite(PxfStream* out, const PxfImageData* image, PxfCapSetting* const* settings, const PxfLut*, char* error,
                size_t size) {
  if (image->colorChannels == 0 || image->width() < 1 || image->height() < 1 || image->width() > kMaxWidth) {
    fail(error, size, "OpenEXR pictures need colour channels and a size");
    return nullptr;
  }
  float compressionValue = pxfplugin::setting(settings, pxfplugin::kCompressionCode, 3.0f);
  bool known = false;
  Imf::Compression compression = compressionOf(compressionValue, known);
  if (!known || compressionValue != std::floor(compressionValue)) {
    fail(error, size, "compression %g is none of 0 (none), 1 (RLE), 2 (ZIPS), 3 (ZIP) and 4 (PIZ)",
         double(compressionValue));
    return nullptr;
  }
  auto w = std::make_unique<Writer>();
  w->width = image->width();
  w->height = image->height();
  w->colors = image->colorChannels >= 3 ? 3 : 1;
  w->matte = image->matteChannels > 0;
  w->depth = image->depthChannels > 0;
  w->bits = image->colorBits;
  w->floats = image->colorKind == PXF_FLOAT && image->colorBits == 32;
  w->decreasing = image->orientation == PXF_BOTTOM_UP;
  // Half unless asked for floats, or the picture came from floats.
  bool floatSamples =
      pxfplugin::setting(settings, kFloatCode, image->storedKind == PXF_STORED_FLOAT ? 1.0f : 0.0f) != 0.0f;
  w->type = floatSamples ? Imf::FLOAT : Imf::HALF;
  int rc = guarded(error, size, [&] {
    startThreads();
    Imf::Header header =
        headerFor(*w, image, compression, pxfplugin::setting(settings, pxfplugin::kDpiCode, image->dpi));
    w->band = bandLines(header, w->width, w->height);
    for (int s = 0; s < kSlots; ++s) {
      if (w->type == Imf::HALF && s != kDepth)
        w->halves[s].resize(size_t(w->width) * size_t(w->band));
      else
        w->samples[s].resize(size_t(w->width) * size_t(w->band));
    }
    w->stream = std::make_unique<OutStream>(out);
    w->file = std::make_unique<Imf::OutputFile>(*w->stream, header);
    return 0;
  });
  if (rc != 0) return nullptr;
  auto* s = new State;
  s->writer = std::move(w);
  return s;
}

namespace {

// Hands the band's pending lines to OpenEXR.
void flushBand(Writer& w) {
  if (w.pending == 0) return;
  Imf::FrameBuffer fb;
  Imath::V2i origin(0, w.bandLow);
  auto colour = [&](const char* name, int slot) {
    if (w.type == Imf::HALF)
      fb.insert(name, Imf::Slice::Make(Imf::HALF, w.halves[slot].data(), origin, int64_t(w.width), int64_t(w.band),
                                       size_t(2), size_t(w.width) * 2));
    else
      fb.insert(name, slice(Imf::FLOAT, w.samples[slot].data(), origin, w.width, w.band));
  };
  const char* colourNames[3] = {"R", "G", "B"};
  for (int c = 0; c < w.colors; ++c) colour(w.colors == 3 ? colourNames[c] : "Y", c);
  if (w.matte) colour("A", kAlpha);
  if (w.depth) fb.insert("Z", slice(Imf::FLOAT, w.samples[kDepth].data(), origin, w.width, w.band));
  w.file->setFrameBuffer(fb);
  w.file->writePixels(w.pending);
  w.written += w.pending;
  w.pending = 0;
}

}  // namespace

int writeRow(void* state, int32_t row, const void* const* channels, int64_t stride, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  if (!s->writer) return fail(error, size, "the file is open for reading");
  Writer& w = *s->writer;
  int32_t line = w.height - 1 - row;  // from the top
  int32_t expected = w.decreasing ? w.height - 1 - w.rows : w.rows;
  if (line != expected) return fail(error, size, "row %d comes out of order", row);
  if (w.pending == 0) w.bandLow = w.decreasing ? std::max(0, line - w.band + 1) : line;
  size_t at = size_t(line - w.bandLow) * size_t(w.width);
  float scale = w.bits > 8 ? 1.0f / 65535.0f : 1.0f / 255.0f;
  auto colour = [&](int slot, const void* from) {
    auto value = [&](int32_t x) {
      if (w.floats) return pxfplugin::sampleOf<float>(from, stride, x);
      return w.bits > 8 ? float(pxfplugin::sampleOf<uint16_t>(from, stride, x)) * scale
                        : float(pxfplugin::sampleOf<uint8_t>(from, stride, x)) * scale;
    };
    if (w.type == Imf::HALF && !w.floats && w.bits <= 8 && slot != kAlpha) {
      const Imath::half* halves = byteHalves();
      Imath::half* to = w.halves[slot].data() + at;
      for (int32_t x = 0; x < w.width; ++x) to[x] = halves[pxfplugin::sampleOf<uint8_t>(from, stride, x)];
    } else if (w.type == Imf::HALF) {
      Imath::half* to = w.halves[slot].data() + at;
      for (int32_t x = 0; x < w.width; ++x) to[x] = Imath::half(value(x));
    } else {
      float* to = w.samples[slot].data() + at;
      for (int32_t x = 0; x < w.width; ++x) to[x] = value(x);
    }
  };
  int in = 0;
  for (int c = 0; c < w.colors; ++c) colour(c, channels[in++]);
  if (w.matte) colour(kAlpha, channels[in++]);
  if (w.depth) {
    float* to = w.samples[kDepth].data() + at;
    for (int32_t x = 0; x < w.width; ++x) {
      float z = pxfplugin::sampleOf<float>(channels[in], stride, x);
      to[x] = z == 0.0f ? std::numeric_limits<float>::infinity() : -1.0f / z;
    }
  }
  w.rows++;
  w.pending++;
  bool bandFull = w.decreasing ? line == w.bandLow : line == w.bandLow + w.band - 1;
  if (!bandFull && w.rows != w.height) return 0;
  return guarded(error, size, [&] {
    flushBand(w);
    return 0;
  });
}

}  // namespace exrplugin
