// The IFF plug-in, on the library's own IL functions: it opens the IFF
// files that the front door does not read directly (2 bytes a channel,
// lines from the top down, grey pictures), so that every IFF file opens.
#include <cstring>
#include <vector>

#include "kelpimage/il/il.h"
#include "plugin_util.h"

using pxfplugin::fail;

namespace {

struct State {
  ILimage* image = nullptr;
  bool writing = false;
  int32_t width = 0, height = 0, bytes = 1;
  int colors = 3;
  bool matte = false, depth = false;
  int32_t next = 0;
  std::vector<uint8_t> line;
  std::vector<float> zline;
};

int recognise(const uint8_t* b, size_t n) {
  return n >= 12 && std::memcmp(b, "FOR4", 4) == 0 && std::memcmp(b + 8, "CIMG", 4) == 0;
}

// The IL library opens files by name: the stream's own, or a copy in memory.
void* openRead(PxfStream* in, PxfImageData* image, int32_t* frames, char* error, size_t size) {
  const char* name = in->path(in->user);
  if (!name) return fail(error, size, "%s", pxfplugin::streamError(in, "the stream cannot be read")), nullptr;
  ILimage* im = ILopen(name, "r");
  if (!im || !ILgetheader(im)) {
    fail(error, size, "%s", FLstrerror(flerrno));
    if (im) ILclose(im);
    return nullptr;
  }
  if (im->bytes == 4) {
    fail(error, size, "images of float channels are not read here");
    ILclose(im);
    return nullptr;
  }
  auto* s = new State;
  s->image = im;
  s->width = int32_t(im->width);
  s->height = int32_t(im->height);
  s->bytes = im->bytes == 2 ? 2 : 1;
  if (s->bytes == 2) ILsetbpp(im, 2);
  ILctrl(im, ILC_TOPDOWN, 0);
  s->colors = (im->type & ILT_COLOR) ? 3 : 1;
  s->matte = im->type & ILT_ALPHA;
  s->depth = im->type & ILT_DEPTH;
  s->line.resize(size_t(s->width) * 4 * size_t(s->bytes));
  s->zline.resize(size_t(s->width));
  pxfplugin::describePicture(image, s->width, s->height, PXF_BOTTOM_UP, s->colors, s->matte, s->bytes * 8);
  image->depthChannels = s->depth ? 1 : 0;
  image->depthKind = PXF_FLOAT;
  image->depthBits = 32;
  image->dpi = im->dpi;
  *frames = 1;
  return s;
}

int readRow(void* state, int32_t row, void* const* channels, int64_t stride, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  if (row != s->next) return fail(error, size, "rows are read from the bottom up only");
  if (int rc = ILreadline(s->image, s->line.data(), s->depth ? s->zline.data() : nullptr))
    return fail(error, size, "%s", FLstrerror(rc));
  s->next++;
  // Memory order blue, green, red, alpha; channels red, green, blue (or grey), matte.
  int from[4] = {2, 1, 0, 3};
  if (s->colors == 1) from[0] = 1;
  for (int c = 0; c < s->colors; ++c)
    pxfplugin::deinterleave(s->line.data() + size_t(from[c]) * size_t(s->bytes), 4, s->bytes, channels, stride, c, 1,
                            s->width);
  if (s->matte)
    pxfplugin::deinterleave(s->line.data() + 3 * size_t(s->bytes), 4, s->bytes, channels, stride, s->colors, 1,
                            s->width);
  if (s->depth)
    pxfplugin::deinterleave(reinterpret_cast<const uint8_t*>(s->zline.data()), 1, 4, channels, stride,
                            s->colors + (s->matte ? 1 : 0), 1, s->width);
  return 0;
}

void* openWrite(PxfStream* out, const PxfImageData* image, PxfCapSetting* const*, const PxfLut*, char* error,
                size_t size) {
  const char* name = out->path(out->user);
  if (!name) return fail(error, size, "%s", pxfplugin::streamError(out, "the stream cannot be written")), nullptr;
  ILimage* im = ILopen(name, "w");
  if (!im) {
    fail(error, size, "%s", FLstrerror(flerrno));
    return nullptr;
  }
  auto* s = new State;
  s->image = im;
  s->writing = true;
  s->width = image->width();
  s->height = image->height();
  s->bytes = image->colorBits > 8 ? 2 : 1;
  s->colors = image->colorChannels >= 3 ? 3 : 1;
  s->matte = image->matteChannels > 0;
  int rc = ILsetsize(im, s->width, s->height);
  if (!rc) rc = ILsettype(im, int32_t(ILT_COLOR | (s->matte ? ILT_ALPHA : 0)));
  if (!rc) rc = ILsetbpp(im, s->bytes);
  if (rc) {
    fail(error, size, "%s", FLstrerror(rc));
    ILclose(im);
    delete s;
    return nullptr;
  }
  s->line.assign(size_t(s->width) * 4 * size_t(s->bytes), 0xFF);
  return s;
}

int writeRow(void* state, int32_t row, const void* const* channels, int64_t stride, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  if (row != s->next) return fail(error, size, "rows are written from the bottom up only");
  int to[4] = {2, 1, 0, 3};
  uint8_t* line = s->line.data();
  for (int c = 0; c < s->colors; ++c)
    pxfplugin::interleave(channels, stride, c, 1, s->bytes, line + size_t(to[c]) * size_t(s->bytes), s->width, 4);
  if (s->colors == 1)
    for (int m : {0, 2})
      pxfplugin::interleave(channels, stride, 0, 1, s->bytes, line + size_t(m) * size_t(s->bytes), s->width, 4);
  if (s->matte)
    pxfplugin::interleave(channels, stride, s->colors, 1, s->bytes, line + 3 * size_t(s->bytes), s->width, 4);
  if (int rc = ILwriteline(s->image, s->line.data(), nullptr)) return fail(error, size, "%s", FLstrerror(rc));
  s->next++;
  return 0;
}

int closeFile(void* state, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  int rc = ILclose(s->image);
  bool short_ = s->writing && s->next != s->height;
  delete s;
  if (rc) return fail(error, size, "%s", FLstrerror(rc));
  if (short_) return fail(error, size, "not every row was written");
  return 0;
}

}  // namespace

PXF_IMAGE_PLUGIN("kelp", "iff", "IFF", "The application's own tiled format, through the IL library",
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
                               nullptr,
                               0,
                               recognise,
                               openRead,
                               nullptr,
                               readRow,
                               openWrite,
                               nullptr,
                               writeRow,
                               closeFile,
                               0}));
