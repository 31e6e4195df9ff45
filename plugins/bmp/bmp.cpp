// The BMP plug-in: read on stb (1, 4, 8, 16, 24 and 32 bits, and bit
// fields; not run-length); written here, as stb writes 24 bits only: 24-bit
// pictures with a plain header, 32-bit ones (with alpha) with a version 4
// header whose masks place the alpha. Rows go out from the bottom, as they
// come.
#include <cmath>
#include "kelpimage/byteorder.h"

#include "stb_glue.h"

using pxfplugin::fail;

namespace {

struct State {
  pxfplugin::StbPicture picture;
  PxfStream* out = nullptr;
  bool writing = false;
  int32_t width = 0, height = 0;
  int colors = 0;
  bool matte = false;
  int32_t next = 0;
  std::vector<uint8_t> line;
};

int recognise(const uint8_t* b, size_t n) {
  if (n < 18 || b[0] != 'B' || b[1] != 'M') return 0;
  uint32_t header = kelp::getLE32(b + 14);
  return header == 12 || header == 40 || header == 52 || header == 56 || header == 64 || header == 108 || header == 124;
}

// What the file's header says stb cannot decode, or empty.
std::string unsupported(const std::vector<uint8_t>& b) {
  if (b.size() < 34 || kelp::getLE32(b.data() + 14) < 40) return {};
  uint32_t compression = kelp::getLE32(b.data() + 30);
  if (compression == 1 || compression == 2) return "run-length compressed BMP files are not read";
  if (compression == 4 || compression == 5) return "BMP files holding JPEG or PNG data are not read";
  return {};
}

// The horizontal resolution of a file's header, in dots an inch; 0 for none.
float headerDpi(const std::vector<uint8_t>& b) {
  if (b.size() < 46 || kelp::getLE32(b.data() + 14) < 40) return 0.0f;
  int32_t perMetre = int32_t(kelp::getLE32(b.data() + 38));
  return perMetre > 0 ? float(double(perMetre) * 0.0254) : 0.0f;
}

// Without run-length data, a byte holds at most 8 pixels (1 bit each).
void* openRead(PxfStream* in, PxfImageData* image, int32_t* frames, char* error, size_t size) {
  auto s = std::make_unique<State>();
  bool read = pxfplugin::stbHeader(in, false, 8, s->picture, error, size);
  // The file's bytes are there either way: a kind stb refuses says so.
  std::string why = unsupported(s->picture.file);
  if (!why.empty()) fail(error, size, "%s", why.c_str());
  if (!read || !why.empty()) return nullptr;
  int n = s->picture.channels;
  pxfplugin::describePicture(image, s->picture.width, s->picture.height, PXF_TOP_DOWN, n >= 3 ? 3 : 1, n == 2 || n == 4,
                             8);
  image->compression = "none";
  float dpi = headerDpi(s->picture.file);
  // 72 dots an inch is what a file says when it says nothing.
  if (dpi >= 1.0f && std::abs(dpi - 72.0f) > 0.05f) image->dpi = dpi;
  *frames = 1;
  return s.release();
}

int readRow(void* state, int32_t row, void* const* channels, int64_t stride, char* error, size_t size) {
  return pxfplugin::stbRow(static_cast<State*>(state)->picture, row, channels, stride, error, size);
}

// The file and information headers: 14 bytes, then 40 (24 bits) or 108
// (32 bits, with the channel masks).
std::vector<uint8_t> headers(int32_t width, int32_t height, bool alpha, float dpi) {
  uint32_t info = alpha ? 108 : 40;
  uint32_t rowBytes = (uint32_t(width) * (alpha ? 4u : 3u) + 3u) & ~3u;
  uint64_t pixels = uint64_t(rowBytes) * uint32_t(height);
  std::vector<uint8_t> h(14 + info, 0);
  h[0] = 'B', h[1] = 'M';
  uint64_t total = 14 + info + pixels;
  kelp::putLE32(h.data() + 2, total > 0xFFFFFFFFu ? 0u : uint32_t(total));
  kelp::putLE32(h.data() + 10, 14 + info);
  uint8_t* i = h.data() + 14;
  kelp::putLE32(i, info);
  kelp::putLE32(i + 4, uint32_t(width));
  kelp::putLE32(i + 8, uint32_t(height));  // positive: rows from the bottom
  i[12] = 1;                               // planes
  i[14] = alpha ? 32 : 24;
  kelp::putLE32(i + 16, alpha ? 3u : 0u);  // BI_BITFIELDS or BI_RGB
  kelp::putLE32(i + 20, pixels > 0xFFFFFFFFu ? 0u : uint32_t(pixels));
  uint32_t perMetre = dpi >= 1.0f ? uint32_t(double(dpi) / 0.0254 + 0.5) : 2835u;  // 72 dots an inch
  kelp::putLE32(i + 24, perMetre);
  kelp::putLE32(i + 28, perMetre);
  if (alpha) {
    kelp::putLE32(i + 40, 0x00FF0000u);  // red
    kelp::putLE32(i + 44, 0x0000FF00u);  // green
    kelp::putLE32(i + 48, 0x000000FFu);  // blue
    kelp::putLE32(i + 52, 0xFF000000u);  // alpha
    kelp::putLE32(i + 56, 0x73524742u);  // "sRGB"
  }
  return h;
}

void* openWrite(PxfStream* out, const PxfImageData* image, PxfCapSetting* const* settings, const PxfLut*, char* error,
                size_t size) {
  if (image->colorChannels == 0 || image->width() < 1 || image->height() < 1) {
    fail(error, size, "BMP pictures need colour channels and a size");
    return nullptr;
  }
  auto s = std::make_unique<State>();
  s->writing = true;
  s->out = out;
  s->width = image->width();
  s->height = image->height();
  s->colors = image->colorChannels >= 3 ? 3 : 1;
  s->matte = image->matteChannels > 0;
  s->line.assign((size_t(s->width) * (s->matte ? 4 : 3) + 3) & ~size_t(3), 0);
  std::vector<uint8_t> h =
      headers(s->width, s->height, s->matte, pxfplugin::setting(settings, pxfplugin::kDpiCode, 0.0f));
  if (out->write(out->user, h.data(), int64_t(h.size())) < 0) {
    fail(error, size, "%s", pxfplugin::streamError(out, "cannot be written"));
    return nullptr;
  }
  return s.release();
}

int writeRow(void* state, int32_t row, const void* const* channels, int64_t stride, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  if (row != s->next) return fail(error, size, "rows are written from the bottom up only");
  int step = s->matte ? 4 : 3;
  auto sample = [&](int c, int32_t x) { return pxfplugin::sampleOf<uint8_t>(channels[c], stride, x); };
  for (int32_t x = 0; x < s->width; ++x) {
    uint8_t* p = s->line.data() + size_t(x) * size_t(step);
    uint8_t r = sample(0, x), g = s->colors == 3 ? sample(1, x) : r, b = s->colors == 3 ? sample(2, x) : r;
    p[0] = b, p[1] = g, p[2] = r;
    if (s->matte) p[3] = sample(s->colors, x);
  }
  if (s->out->write(s->out->user, s->line.data(), int64_t(s->line.size())) < 0)
    return fail(error, size, "%s", pxfplugin::streamError(s->out, "cannot be written"));
  s->next++;
  return 0;
}

int closeFile(void* state, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  int rc = 0;
  if (s->writing && s->next != s->height) rc = fail(error, size, "only %d of %d rows were written", s->next, s->height);
  delete s;
  return rc;
}

const PxfCapability kCapabilities[] = {pxfplugin::dpiCapability()};

}  // namespace

PXF_IMAGE_PLUGIN("bmp", "bmp;dib", "BMP", "Windows bitmap, 1 to 32 bits read; 24 bits, or 32 with alpha, written",
                 (PxfPluginOps{PXF_PLUGIN_VERSION,
                               sizeof(PxfPluginOps),
                               1u,
                               1u << 7,
                               1u,
                               0u,
                               0u,
                               0,
                               true,
                               true,
                               kCapabilities,
                               1,
                               recognise,
                               openRead,
                               nullptr,
                               readRow,
                               openWrite,
                               nullptr,
                               writeRow,
                               closeFile,
                               0}));
