// The SGI plug-in, on the library's own SGI functions, so that SGI files
// the front door declines still open, and SGI can be written by key.
#include <cstring>
#include <vector>

#include "kelpimage/sgi/sgi.h"
#include "plugin_util.h"

using pxfplugin::fail;

namespace {

struct State {
  IMAGE* image = nullptr;
  bool writing = false;
  int32_t width = 0, height = 0;
  int bytes = 1;
  unsigned channels = 0;
  std::vector<uint16_t> row;
};

int recognise(const uint8_t* b, size_t n) {
  return n >= 2 && ((b[0] == 0x01 && b[1] == 0xDA) || (b[0] == 0xDA && b[1] == 0x01));
}

// The SGI library opens files by name: the stream's own, or a copy in memory.
void* openRead(PxfStream* in, PxfImageData* image, int32_t* frames, char* error, size_t size) {
  const char* name = in->path(in->user);
  IMAGE* im = name ? iopen(name, "r") : nullptr;
  if (!im) {
    fail(error, size, "not a readable SGI file");
    return nullptr;
  }
  auto* s = new State;
  s->image = im;
  s->width = im->xsize;
  s->height = im->ysize;
  s->bytes = (im->type & 0xFF) == 2 ? 2 : 1;
  s->channels = im->zsize;
  s->row.resize(size_t(s->width) + 1);
  pxfplugin::describePicture(image, s->width, s->height, PXF_BOTTOM_UP, s->channels <= 2 ? 1 : 3,
                             s->channels == 2 || s->channels >= 4, s->bytes * 8);
  *frames = 1;
  return s;
}

void store(const std::vector<uint16_t>& row, void* channel, int64_t stride, int bytes, int32_t width) {
  for (int32_t x = 0; x < width; ++x) {
    if (bytes == 2)
      *pxfplugin::sampleAt<uint16_t>(channel, stride, x) = row[size_t(x)];
    else
      *pxfplugin::sampleAt<uint8_t>(channel, stride, x) = uint8_t(row[size_t(x)]);
  }
}

int readRow(void* state, int32_t row, void* const* channels, int64_t stride, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  unsigned used = s->channels >= 4 ? 4 : s->channels;
  for (unsigned z = 0; z < used; ++z) {
    if (getrow(s->image, s->row.data(), unsigned(row), z) != s->width)
      return fail(error, size, "row %d cannot be read", row);
    store(s->row, channels[z], stride, s->bytes, s->width);
  }
  return 0;
}

void* openWrite(PxfStream* out, const PxfImageData* image, PxfCapSetting* const* settings, const PxfLut*, char* error,
                size_t size) {
  const char* name = out->path(out->user);
  if (!name) return fail(error, size, "%s", pxfplugin::streamError(out, "the stream cannot be written")), nullptr;
  auto* s = new State;
  s->writing = true;
  s->width = image->width();
  s->height = image->height();
  s->bytes = image->colorBits > 8 ? 2 : 1;
  s->channels = unsigned((image->colorChannels >= 3 ? 3 : 1) + (image->matteChannels > 0 ? 1 : 0));
  bool verbatim = pxfplugin::setting(settings, pxfplugin::kCompressionCode, 1.0f) == 0.0f;
  s->image = iopen(name, "w", (verbatim ? SGI_VERBATIM : SGI_RLE) | unsigned(s->bytes), 3, unsigned(s->width),
                   unsigned(s->height), s->channels);
  if (!s->image) {
    fail(error, size, "cannot create the SGI file");
    delete s;
    return nullptr;
  }
  s->row.resize(size_t(s->width));
  return s;
}

int writeRow(void* state, int32_t row, const void* const* channels, int64_t stride, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  for (unsigned z = 0; z < s->channels; ++z) {
    for (int32_t x = 0; x < s->width; ++x)
      s->row[size_t(x)] = s->bytes == 2 ? pxfplugin::sampleOf<uint16_t>(channels[z], stride, x)
                                        : pxfplugin::sampleOf<uint8_t>(channels[z], stride, x);
    if (putrow(s->image, s->row.data(), unsigned(row), z) != s->width)
      return fail(error, size, "row %d cannot be written", row);
  }
  return 0;
}

int closeFile(void* state, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  int rc = iclose(s->image);
  delete s;
  return rc == 0 ? 0 : fail(error, size, "the SGI file is incomplete");
}

const PxfCapability kCapabilities[] = {
    {pxfplugin::kCompressionCode, "Compression", 1, 2, 0.0f, 1.0f, 1.0f, "0 verbatim, 1 run-length"}};

}  // namespace

PXF_IMAGE_PLUGIN("sgi", "sgi;rgb;rgba;bw", "SGI", "Silicon Graphics rgb files, verbatim or run-length, 8 and 16 bits",
                 (PxfPluginOps{PXF_PLUGIN_VERSION,
                               sizeof(PxfPluginOps),
                               1u,
                               (1u << 7) | (1u << 15),
                               1u,
                               0u,
                               0u,
                               PXF_PREMULTIPLIED_ALPHA,
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
