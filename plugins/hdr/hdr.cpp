// The Radiance plug-in, on stb: RGBE pictures, read as 32-bit floats (the
// conversion into IFF clamps what lies above 1.0), written from floats
// (8- and 16-bit samples scaled to 0 to 1) as run-length RGBE.
#include "stb_glue.h"

using pxfplugin::fail;

namespace {

struct State {
  pxfplugin::StbPicture picture;
  pxfplugin::StbCanvas canvas;
  std::string name;
  bool writing = false;
  int32_t bits = 8;
  int colors = 3;
};

int recognise(const uint8_t* b, size_t n) {
  return (n >= 10 && std::memcmp(b, "#?RADIANCE", 10) == 0) || (n >= 6 && std::memcmp(b, "#?RGBE", 6) == 0);
}

void* openRead(const char* name, PxfImageData* image, int32_t* frames, char* error, size_t size) {
  auto* s = new State;
  auto any = [](int, int, int) { return std::string(); };
  if (!pxfplugin::stbDecode(name, true, s->picture, any, error, size)) {
    delete s;
    return nullptr;
  }
  pxfplugin::describePicture(image, s->picture.width, s->picture.height, PXF_TOP_DOWN, s->picture.channels >= 3 ? 3 : 1,
                             false, 32);
  image->colorKind = PXF_FLOAT;
  *frames = 1;
  return s;
}

int readRow(void* state, int32_t row, void* const* channels, char* error, size_t size) {
  return pxfplugin::stbRow(static_cast<State*>(state)->picture, row, channels, error, size);
}

void* openWrite(const char* name, const PxfImageData* image, PxfCapSetting* const*, const PxfLut*, char* error,
                size_t size) {
  if (image->colorChannels == 0) {
    fail(error, size, "Radiance pictures need colour channels");
    return nullptr;
  }
  auto* s = new State;
  s->writing = true;
  s->name = name;
  s->bits = image->colorBits;
  s->colors = image->colorChannels >= 3 ? 3 : 1;
  if (!s->canvas.start(image->width(), image->height(), 3, 4)) {
    fail(error, size, "picture of %d x %d pixels is beyond the pixel limit", image->width(), image->height());
    delete s;
    return nullptr;
  }
  return s;
}

int writeRow(void* state, int32_t row, const void* const* channels, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  auto& c = s->canvas;
  if (row < 0 || row >= c.height) return fail(error, size, "no row %d", row);
  auto* line = reinterpret_cast<float*>(c.line(row));
  float scale = s->bits > 8 ? 1.0f / 65535.0f : 1.0f / 255.0f;
  for (int k = 0; k < 3; ++k) {
    const void* from = channels[s->colors == 3 ? k : 0];
    for (int32_t x = 0; x < c.width; ++x) {
      float v = s->bits > 8 ? float(static_cast<const uint16_t*>(from)[x]) : float(static_cast<const uint8_t*>(from)[x]);
      line[size_t(x) * 3 + size_t(k)] = v * scale;
    }
  }
  c.rows++;
  return 0;
}

int closeFile(void* state, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  int rc = 0;
  if (s->writing) {
    const auto& c = s->canvas;
    rc = pxfplugin::stbWrite(s->name.c_str(), c, [&](pxfplugin::StbSink* sink) {
      return stbi_write_hdr_to_func(pxfplugin::StbSink::write, sink, c.width, c.height, 3,
                                    reinterpret_cast<const float*>(c.pixels.data()));
    }, error, size);
  }
  delete s;
  return rc;
}

}  // namespace

PXF_IMAGE_PLUGIN("hdr", "hdr;pic;rgbe", "Radiance", "Radiance RGBE, high dynamic range",
                 (PxfPluginOps{PXF_PLUGIN_VERSION, sizeof(PxfPluginOps), 3u, (1u << 7) | (1u << 15), 0u, 0u, 0u, 0,
                               true, true, nullptr, 0, recognise, openRead, nullptr, readRow, openWrite, nullptr,
                               writeRow, closeFile}));
