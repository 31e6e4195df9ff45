// The Radiance plug-in, on stb: RGBE pictures, read as 32-bit floats (the
// conversion into IFF clamps what lies above 1.0), written from floats
// (8- and 16-bit samples scaled to 0 to 1) as run-length RGBE.
#include "stb_glue.h"

using pxfplugin::fail;

namespace {

int recognise(const uint8_t* b, size_t n) {
  return (n >= 10 && std::memcmp(b, "#?RADIANCE", 10) == 0) || (n >= 6 && std::memcmp(b, "#?RGBE", 6) == 0);
}

// A run of 127 equal samples takes two bytes, four samples a pixel.
void* openRead(PxfStream* in, PxfImageData* image, int32_t* frames, char* error, size_t size) {
  pxfplugin::StbState* s = pxfplugin::stbOpen(in, true, 64, error, size);
  if (!s) return nullptr;
  pxfplugin::describePicture(image, s->picture.width, s->picture.height, PXF_TOP_DOWN, s->picture.channels >= 3 ? 3 : 1,
                             false, 32);
  image->colorKind = PXF_FLOAT;
  image->storedKind = PXF_STORED_FLOAT;
  image->compression = "run-length RGBE";
  *frames = 1;
  return s;
}

void* openWrite(PxfStream* out, const PxfImageData* image, PxfCapSetting* const*, const PxfLut*, char* error,
                size_t size) {
  return pxfplugin::stbStartWriting(out, image, 3, 4, "Radiance", error, size);
}

int writeRow(void* state, int32_t row, const void* const* channels, int64_t stride, char* error, size_t size) {
  auto* s = static_cast<pxfplugin::StbState*>(state);
  auto& c = s->canvas;
  if (row < 0 || row >= c.height) return fail(error, size, "no row %d", row);
  auto* line = reinterpret_cast<float*>(c.line(row));
  float scale = s->bits > 8 ? 1.0f / 65535.0f : 1.0f / 255.0f;
  for (int k = 0; k < 3; ++k) {
    const void* from = channels[s->colors == 3 ? k : 0];
    for (int32_t x = 0; x < c.width; ++x) {
      if (s->floats) {
        line[size_t(x) * 3 + size_t(k)] = pxfplugin::sampleOf<float>(from, stride, x);
        continue;
      }
      float v = s->bits > 8 ? float(pxfplugin::sampleOf<uint16_t>(from, stride, x))
                            : float(pxfplugin::sampleOf<uint8_t>(from, stride, x));
      line[size_t(x) * 3 + size_t(k)] = v * scale;
    }
  }
  c.rows++;
  return 0;
}

int closeFile(void* state, char* error, size_t size) {
  auto encode = [](const pxfplugin::StbCanvas& c, pxfplugin::StbSink* sink) {
    return stbi_write_hdr_to_func(pxfplugin::StbSink::write, sink, c.width, c.height, 3,
                                  reinterpret_cast<const float*>(c.pixels.data()));
  };
  return pxfplugin::stbClose(state, encode, error, size);
}

}  // namespace

PXF_IMAGE_PLUGIN("hdr", "hdr;pic;rgbe", "Radiance", "Radiance RGBE, high dynamic range",
                 (PxfPluginOps{PXF_PLUGIN_VERSION,
                               sizeof(PxfPluginOps),
                               3u,
                               (1u << 7) | (1u << 15) | (1u << 31),
                               0u,
                               0u,
                               0u,
                               0,
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
                               PXF_HOLDS_FLOAT}));
