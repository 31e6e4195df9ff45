// The Targa plug-in, on stb: 8-bit pictures, raw and run-length, true
// colour, grey and colour-mapped, stored from the top or the bottom; written
// run-length encoded, grey or colour, with alpha.
#include "stb_glue.h"

using pxfplugin::fail;

namespace {

bool oneOf(int v, std::initializer_list<int> values) {
  for (int x : values)
    if (v == x) return true;
  return false;
}

// Targa has no signature: the header's fields must all make sense, and the
// format is tried after those that have one.
int recognise(const uint8_t* b, size_t n) {
  if (n < 18) return 0;
  int mapType = b[1], type = b[2], entryBits = b[7], bits = b[16];
  int width = b[12] | b[13] << 8, height = b[14] | b[15] << 8;
  if (width < 1 || height < 1 || mapType > 1 || !oneOf(type, {1, 2, 3, 9, 10, 11})) return 0;
  bool mapped = type == 1 || type == 9;
  if (mapped) return mapType == 1 && oneOf(entryBits, {15, 16, 24, 32}) && oneOf(bits, {8, 16});
  if (type == 3 || type == 11) return oneOf(bits, {8, 16});
  return oneOf(bits, {15, 16, 24, 32});
}

// A run-length packet of two bytes stands for at most 128 pixels.
void* openRead(PxfStream* in, PxfImageData* image, int32_t* frames, char* error, size_t size) {
  pxfplugin::StbState* s = pxfplugin::stbOpen(in, false, 64, error, size);
  if (!s) return nullptr;
  int n = s->picture.channels;
  pxfplugin::describePicture(image, s->picture.width, s->picture.height, PXF_TOP_DOWN, n >= 3 ? 3 : 1, n == 2 || n == 4,
                             8);
  *frames = 1;
  return s;
}

void* openWrite(PxfStream* out, const PxfImageData* image, PxfCapSetting* const*, const PxfLut*, char* error,
                size_t size) {
  int n = (image->colorChannels >= 3 ? 3 : 1) + (image->matteChannels > 0 ? 1 : 0);
  return pxfplugin::stbStartWriting(out, image, n, 1, "Targa", error, size);
}

int writeRow(void* state, int32_t row, const void* const* channels, int64_t stride, char* error, size_t size) {
  auto& c = static_cast<pxfplugin::StbState*>(state)->canvas;
  if (row < 0 || row >= c.height) return fail(error, size, "no row %d", row);
  pxfplugin::interleave(channels, stride, 0, c.channels, 1, c.line(row), c.width, c.channels);
  c.rows++;
  return 0;
}

int closeFile(void* state, char* error, size_t size) {
  // stbi_write_tga_with_rle starts as 1: run-length, as wanted.
  auto encode = [](const pxfplugin::StbCanvas& c, pxfplugin::StbSink* sink) {
    return stbi_write_tga_to_func(pxfplugin::StbSink::write, sink, c.width, c.height, c.channels, c.pixels.data());
  };
  return pxfplugin::stbClose(state, encode, error, size);
}

}  // namespace

PXF_IMAGE_PLUGIN("tga", "tga;icb;vda;vst", "Targa", "Truevision Targa, 8 bits, raw, run-length and colour-mapped",
                 (PxfPluginOps{PXF_PLUGIN_VERSION,
                               sizeof(PxfPluginOps),
                               3u,
                               1u << 7,
                               1u,
                               0u,
                               0u,
                               PXF_WEAK_SIGNATURE,
                               true,
                               true,
                               nullptr,
                               0,
                               recognise,
                               openRead,
                               nullptr,
                               pxfplugin::stbReadRow,
                               openWrite,
                               nullptr,
                               writeRow,
                               closeFile,
                               0}));
