// The GIF plug-in, on giflib: palette pictures and their frames, read as
// RGBA at 8 bits (a frame is drawn on a transparent canvas of the screen's
// size); written from an index channel and a look-up table, as the cube of
// the IFF-to-GIF conversion gives them, one image a frame.
#include <cstdlib>
#include <cstring>
#include <vector>

#include <gif_lib.h>

#include "kelpimage/plugin/pxf.h"
#include "plugin_util.h"

using pxfplugin::fail;

namespace {

struct State {
  GifFileType* gif = nullptr;
  bool writing = false;
  int32_t width = 0, height = 0;
  std::vector<uint8_t> canvas;  // RGBA rows from the top
  std::vector<GifPixelType> line;
  int32_t next = 0;
  int frames = 0;
};

int recognise(const uint8_t* b, size_t n) {
  return n >= 6 && (std::memcmp(b, "GIF87a", 6) == 0 || std::memcmp(b, "GIF89a", 6) == 0);
}

// Draws frame `f` on a transparent canvas.
bool drawFrame(State* s, int f, char* error, size_t size) {
  const SavedImage& frame = s->gif->SavedImages[f];
  const GifImageDesc& d = frame.ImageDesc;
  const ColorMapObject* map = d.ColorMap ? d.ColorMap : s->gif->SColorMap;
  if (!map || !frame.RasterBits) return fail(error, size, "frame %d has no colours", f), false;
  GraphicsControlBlock gcb{};
  gcb.TransparentColor = NO_TRANSPARENT_COLOR;
  DGifSavedExtensionToGCB(s->gif, f, &gcb);
  s->canvas.assign(size_t(s->width) * size_t(s->height) * 4, 0);
  // Interlaced frames keep their rows in four passes.
  std::vector<int> order;
  if (d.Interlace) {
    for (int start : {0, 4, 2, 1})
      for (int y = start; y < d.Height; y += start == 0 ? 8 : start == 4 ? 8 : start == 2 ? 4 : 2) order.push_back(y);
  } else {
    for (int y = 0; y < d.Height; ++y) order.push_back(y);
  }
  for (size_t stored = 0; stored < order.size(); ++stored) {
    int y = d.Top + order[stored];
    if (y < 0 || y >= s->height) continue;
    for (int x = 0; x < d.Width; ++x) {
      int cx = d.Left + x;
      if (cx < 0 || cx >= s->width) continue;
      int index = frame.RasterBits[stored * size_t(d.Width) + size_t(x)];
      if (index == gcb.TransparentColor || index >= map->ColorCount) continue;
      uint8_t* p = &s->canvas[(size_t(y) * size_t(s->width) + size_t(cx)) * 4];
      p[0] = map->Colors[index].Red, p[1] = map->Colors[index].Green, p[2] = map->Colors[index].Blue, p[3] = 255;
    }
  }
  return true;
}

void describe(const State* s, PxfImageData* image) {
  *image = PxfImageData{};
  pxfplugin::describePicture(image, s->width, s->height, PXF_TOP_DOWN, 3, true, 8);
}

void* openRead(const char* name, PxfImageData* image, int32_t* frames, char* error, size_t size) {
  int code = 0;
  GifFileType* gif = DGifOpenFileName(name, &code);
  if (!gif) {
    fail(error, size, "%s", GifErrorString(code));
    return nullptr;
  }
  if (gif->SWidth < 1 || gif->SHeight < 1 || !pxfplugin::wholeAllowed(uint64_t(gif->SWidth), uint64_t(gif->SHeight))) {
    fail(error, size, "a screen of %d x %d pixels is out of range", gif->SWidth, gif->SHeight);
    DGifCloseFile(gif, &code);
    return nullptr;
  }
  if (DGifSlurp(gif) != GIF_OK || gif->ImageCount < 1) {
    fail(error, size, "%s", gif->Error ? GifErrorString(gif->Error) : "the file holds no picture");
    DGifCloseFile(gif, &code);
    return nullptr;
  }
  auto* s = new State;
  s->gif = gif;
  s->width = gif->SWidth;
  s->height = gif->SHeight;
  if (!drawFrame(s, 0, error, size)) {
    DGifCloseFile(gif, &code);
    delete s;
    return nullptr;
  }
  describe(s, image);
  *frames = gif->ImageCount;
  return s;
}

int setFrame(void* state, int32_t frame, PxfImageData* image, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  if (frame < 0 || frame >= s->gif->ImageCount) return fail(error, size, "no frame %d", frame);
  if (!drawFrame(s, frame, error, size)) return -1;
  describe(s, image);
  return 0;
}

int readRow(void* state, int32_t row, void* const* channels, char*, size_t) {
  auto* s = static_cast<State*>(state);
  const uint8_t* p = &s->canvas[size_t(s->height - 1 - row) * size_t(s->width) * 4];
  pxfplugin::deinterleave(p, 4, 1, channels, 0, 4, s->width);
  return 0;
}

// Starts an image of the file for the next frame.
bool startImage(State* s) {
  s->next = 0;
  return EGifPutImageDesc(s->gif, 0, 0, s->width, s->height, false, nullptr) == GIF_OK;
}

void* openWrite(const char* name, const PxfImageData* image, PxfCapSetting* const*, const PxfLut* lut, char* error,
                size_t size) {
  if (image->indexChannels < 1 || !lut || lut->count < 1) {
    fail(error, size, "GIF pictures are written from an index channel and a look-up table");
    return nullptr;
  }
  int code = 0;
  GifFileType* gif = EGifOpenFileName(name, false, &code);
  if (!gif) {
    fail(error, size, "%s", GifErrorString(code));
    return nullptr;
  }
  int colors = lut->count > 256 ? 256 : lut->count;
  int bits = 1;
  while ((1 << bits) < colors) ++bits;
  ColorMapObject* map = GifMakeMapObject(1 << bits, nullptr);
  for (int i = 0; map && i < colors; ++i) {
    // Values come widened as signed bytes: their low bytes are the colour.
    map->Colors[i].Red = GifByteType(lut->entries[i].value[0]);
    map->Colors[i].Green = GifByteType(lut->entries[i].value[1]);
    map->Colors[i].Blue = GifByteType(lut->entries[i].value[2]);
  }
  auto* s = new State;
  s->gif = gif;
  s->writing = true;
  s->width = image->width();
  s->height = image->height();
  s->line.resize(size_t(s->width));
  EGifSetGifVersion(gif, true);
  bool ok = map && EGifPutScreenDesc(gif, s->width, s->height, bits, 0, map) == GIF_OK && startImage(s);
  GifFreeMapObject(map);
  if (!ok) {
    fail(error, size, "%s", GifErrorString(gif->Error));
    EGifCloseFile(gif, &code);
    delete s;
    return nullptr;
  }
  s->frames = 1;
  return s;
}

int nextFrame(void* state, const PxfImageData* image, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  if (s->next != s->height) return fail(error, size, "the frame before is not whole");
  if (image->width() != s->width || image->height() != s->height) return fail(error, size, "frames differ in size");
  if (!startImage(s)) return fail(error, size, "%s", GifErrorString(s->gif->Error));
  s->frames++;
  return 0;
}

int writeRow(void* state, int32_t row, const void* const* channels, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  if (s->height - 1 - row != s->next) return fail(error, size, "rows are written from the top down only");
  std::memcpy(s->line.data(), channels[0], size_t(s->width));
  if (EGifPutLine(s->gif, s->line.data(), s->width) != GIF_OK) return fail(error, size, "%s", GifErrorString(s->gif->Error));
  s->next++;
  return 0;
}

int closeFile(void* state, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  int code = 0, rc = 0;
  if (s->writing && s->next != s->height) rc = fail(error, size, "only %d of %d rows were written", s->next, s->height);
  int closed = s->writing ? EGifCloseFile(s->gif, &code) : DGifCloseFile(s->gif, &code);
  if (s->writing && closed != GIF_OK && rc == 0) rc = fail(error, size, "%s", GifErrorString(code));
  delete s;
  return rc;
}

}  // namespace

PXF_IMAGE_PLUGIN("gif", "gif", "GIF", "Palette pictures and their frames",
                 (PxfPluginOps{PXF_PLUGIN_VERSION, sizeof(PxfPluginOps), 2u, 1u << 7, 0u, 0u, 0u, PXF_MULTIFRAME, true,
                               true, nullptr, 0, recognise, openRead, setFrame, readRow, openWrite, nextFrame,
                               writeRow, closeFile}));
