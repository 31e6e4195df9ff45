// The GIF plug-in, on giflib: palette pictures and their frames, read as
// RGB at 8 bits, with alpha where a frame leaves the screen clear (each
// frame is drawn on a transparent canvas of the screen's size); written from an index channel and a look-up table, as
// the cube of the IFF-to-GIF conversion gives them, one image a frame. Opening walks the file's records without
// decoding, to count the frames; a frame's lines are decoded as its rows are asked for (an interlaced frame whole).
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include <gif_lib.h>

#include "plugin_util.h"

using pxfplugin::fail;

namespace {

// LZW codes stand for at most 4096 pixels each, of 12 bits at the most.
constexpr uint64_t kPixelsPerByte = 4096;

struct Frame {
  GifImageDesc desc{};
  int transparent = NO_TRANSPARENT_COLOR;
  std::vector<GifColorType> colours;  // the frame's own map, or the screen's
};

struct State {
  PxfStream* stream = nullptr;
  std::vector<uint8_t> bytes;  // reading: the file, read once
  size_t at = 0;               // where giflib reads next
  GifFileType* gif = nullptr;  // reading: the pass decoding `frame`; writing: the file
  bool writing = false;
  int32_t width = 0, height = 0;
  std::vector<Frame> frames;
  int frame = 0;                          // the frame rows come from
  int decodedUpTo = -1;                   // the frame whose description the decoder stands at
  int32_t next = 0;                       // the next canvas row (from the top)
  int32_t frameLine = 0;                  // lines of the frame decoded
  std::vector<GifPixelType> line, whole;  // one frame line; an interlaced frame's lines
  std::vector<uint8_t> canvasRow;         // RGBA
  int frameCount = 0;
  ~State();
};

// Whatever giflib holds goes with the state, on every way out.
State::~State() {
  int code = 0;
  if (gif && writing)
    EGifCloseFile(gif, &code);
  else if (gif)
    DGifCloseFile(gif, &code);
}

int recognise(const uint8_t* b, size_t n) {
  return n >= 6 && (std::memcmp(b, "GIF87a", 6) == 0 || std::memcmp(b, "GIF89a", 6) == 0);
}

int readBytes(GifFileType* gif, GifByteType* data, int size) {
  auto* s = static_cast<State*>(gif->UserData);
  size_t n = std::min(size_t(size), s->bytes.size() - s->at);
  if (n > 0) std::memcpy(data, s->bytes.data() + s->at, n);
  s->at += n;
  return int(n);
}

int writeBytes(GifFileType* gif, const GifByteType* data, int size) {
  auto* s = static_cast<State*>(gif->UserData);
  return s->stream->write(s->stream->user, data, size) < 0 ? 0 : size;
}

void closeDecoder(State* s) {
  int code = 0;
  if (s->gif) DGifCloseFile(s->gif, &code);
  s->gif = nullptr;
}

// Opens a decoder at the file's start; false with giflib's reason.
bool startDecoder(State* s, char* error, size_t size) {
  closeDecoder(s);
  s->at = 0;
  int code = 0;
  s->gif = DGifOpen(s, readBytes, &code);
  if (!s->gif) return fail(error, size, "%s", GifErrorString(code)), false;
  s->decodedUpTo = -1;
  return true;
}

// Walks the records to the next image description: extensions are read,
// a graphics control block noted. False at the file's end or damage.
bool nextImage(State* s, Frame& frame, char* error, size_t size) {
  GifRecordType type;
  frame.transparent = NO_TRANSPARENT_COLOR;
  for (;;) {
    if (DGifGetRecordType(s->gif, &type) != GIF_OK)
      return fail(error, size, "%s", GifErrorString(s->gif->Error)), false;
    if (type == TERMINATE_RECORD_TYPE) return fail(error, size, "the file ends before its next frame"), false;
    if (type == EXTENSION_RECORD_TYPE) {
      int code = 0;
      GifByteType* block = nullptr;
      if (DGifGetExtension(s->gif, &code, &block) != GIF_OK) return fail(error, size, "a damaged extension"), false;
      while (block) {
        if (code == GRAPHICS_EXT_FUNC_CODE && block[0] >= 4) {
          GraphicsControlBlock gcb{};
          DGifExtensionToGCB(block[0], block + 1, &gcb);
          frame.transparent = gcb.TransparentColor;
        }
        if (DGifGetExtensionNext(s->gif, &block) != GIF_OK) return fail(error, size, "a damaged extension"), false;
      }
      continue;
    }
    if (type != IMAGE_DESC_RECORD_TYPE) continue;
    if (DGifGetImageDesc(s->gif) != GIF_OK) return fail(error, size, "%s", GifErrorString(s->gif->Error)), false;
    frame.desc = s->gif->Image;
    const ColorMapObject* map = s->gif->Image.ColorMap ? s->gif->Image.ColorMap : s->gif->SColorMap;
    if (!map) return fail(error, size, "a frame has no colours"), false;
    frame.colours.assign(map->Colors, map->Colors + map->ColorCount);
    // The description's own map goes with the next one; the copy stays.
    return true;
  }
}

// Steps over the pixels of the image the decoder stands at.
bool skipPixels(State* s, char* error, size_t size) {
  int code = 0;
  GifByteType* block = nullptr;
  if (DGifGetCode(s->gif, &code, &block) != GIF_OK)
    return fail(error, size, "%s", GifErrorString(s->gif->Error)), false;
  while (block)
    if (DGifGetCodeNext(s->gif, &block) != GIF_OK) return fail(error, size, "%s", GifErrorString(s->gif->Error)), false;
  return true;
}

// Whether frame `f` leaves any of the screen clear: a transparent colour,
// or a rectangle short of the screen.
bool seeThrough(const State* s, const Frame& f) {
  return f.transparent != NO_TRANSPARENT_COLOR || f.desc.Left > 0 || f.desc.Top > 0 ||
         int64_t(f.desc.Left) + f.desc.Width < s->width || int64_t(f.desc.Top) + f.desc.Height < s->height;
}

void describe(const State* s, int frame, PxfImageData* image) {
  *image = PxfImageData{};
  pxfplugin::describePicture(image, s->width, s->height, PXF_TOP_DOWN, 3, seeThrough(s, s->frames[size_t(frame)]), 8);
  image->compression = "LZW";
}

void* openRead(PxfStream* in, PxfImageData* image, int32_t* frames, char* error, size_t size) {
  auto s = std::make_unique<State>();
  s->stream = in;
  if (!pxfplugin::readWhole(in, s->bytes, error, size) || !startDecoder(s.get(), error, size)) return nullptr;
  s->width = s->gif->SWidth;
  s->height = s->gif->SHeight;
  if (!pxfplugin::sizeAllowed(uint64_t(s->width), uint64_t(s->height), nullptr, 0, error, size)) return nullptr;
  for (;;) {
    Frame f;
    char scratch[8];
    if (!nextImage(s.get(), f, scratch, sizeof scratch)) break;
    uint64_t w = uint64_t(f.desc.Width), h = uint64_t(f.desc.Height);
    if (!TplausibleSize(w, h, int64_t(s->bytes.size()), kPixelsPerByte) ||
        !skipPixels(s.get(), scratch, sizeof scratch))
      break;
    s->frames.push_back(std::move(f));
  }
  if (s->frames.empty()) {
    fail(error, size, "the file holds no picture that can be read");
    closeDecoder(s.get());
    return nullptr;
  }
  closeDecoder(s.get());
  describe(s.get(), 0, image);
  *frames = int32_t(s->frames.size());
  return s.release();
}

// Puts the decoder at frame `f`'s pixels.
bool seekFrame(State* s, int f, char* error, size_t size) {
  if (!s->gif || s->decodedUpTo >= f)
    if (!startDecoder(s, error, size)) return false;
  Frame scratch;
  while (s->decodedUpTo < f) {
    if (s->decodedUpTo >= 0 && !skipPixels(s, error, size)) return false;
    if (!nextImage(s, scratch, error, size)) return false;
    s->decodedUpTo++;
  }
  s->frame = f;
  s->next = 0;
  s->frameLine = 0;
  s->whole.clear();
  return true;
}

int setFrame(void* state, int32_t frame, PxfImageData* image, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  if (frame < 0 || frame >= int32_t(s->frames.size())) return fail(error, size, "no frame %d", frame);
  s->frame = frame;
  s->next = 0;
  closeDecoder(s);  // the next row starts the decoder afresh, at this frame
  describe(s, frame, image);
  return 0;
}

// Frame `f`'s line `line` (from its top), its indexes; null after damage.
const GifPixelType* frameLine(State* s, const Frame& f, int line, char* error, size_t size) {
  if (f.desc.Interlace) {
    if (s->whole.empty()) {
      // Interlaced lines come in four passes: the frame is decoded whole.
      s->whole.resize(size_t(f.desc.Width) * size_t(f.desc.Height));
      static const int start[] = {0, 4, 2, 1}, step[] = {8, 8, 4, 2};
      for (int pass = 0; pass < 4; ++pass)
        for (int y = start[pass]; y < f.desc.Height; y += step[pass])
          if (DGifGetLine(s->gif, &s->whole[size_t(y) * size_t(f.desc.Width)], f.desc.Width) != GIF_OK)
            return fail(error, size, "%s", GifErrorString(s->gif->Error)), nullptr;
    }
    return &s->whole[size_t(line) * size_t(f.desc.Width)];
  }
  s->line.resize(size_t(f.desc.Width));
  while (s->frameLine <= line) {
    if (DGifGetLine(s->gif, s->line.data(), f.desc.Width) != GIF_OK)
      return fail(error, size, "%s", GifErrorString(s->gif->Error)), nullptr;
    s->frameLine++;
  }
  return s->line.data();
}

int readRow(void* state, int32_t row, void* const* channels, int64_t stride, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  int32_t y = s->height - 1 - row;  // from the top
  if (y != s->next) return fail(error, size, "rows are read from the top down only");
  if (y == 0 && !seekFrame(s, s->frame, error, size)) return -1;
  const Frame& f = s->frames[size_t(s->frame)];
  s->canvasRow.assign(size_t(s->width) * 4, 0);
  int line = y - f.desc.Top;
  if (line >= 0 && line < f.desc.Height) {
    const GifPixelType* indexes = frameLine(s, f, line, error, size);
    if (!indexes) return -1;
    for (int x = 0; x < f.desc.Width; ++x) {
      int cx = f.desc.Left + x, index = indexes[x];
      if (cx < 0 || cx >= s->width || index == f.transparent || index >= int(f.colours.size())) continue;
      uint8_t* p = &s->canvasRow[size_t(cx) * 4];
      p[0] = f.colours[size_t(index)].Red, p[1] = f.colours[size_t(index)].Green, p[2] = f.colours[size_t(index)].Blue;
      p[3] = 255;
    }
  }
  s->next++;
  pxfplugin::deinterleave(s->canvasRow.data(), 4, 1, channels, stride, 0, seeThrough(s, f) ? 4 : 3, s->width);
  return 0;
}

// Starts an image of the file for the next frame.
bool startImage(State* s) {
  s->next = 0;
  return EGifPutImageDesc(s->gif, 0, 0, s->width, s->height, false, nullptr) == GIF_OK;
}

void* openWrite(PxfStream* out, const PxfImageData* image, PxfCapSetting* const*, const PxfLut* lut, char* error,
                size_t size) {
  if (image->indexChannels < 1 || !lut || lut->count < 1) {
    fail(error, size, "GIF pictures are written from an index channel and a look-up table");
    return nullptr;
  }
  auto s = std::make_unique<State>();
  s->stream = out;
  s->writing = true;
  s->width = image->width();
  s->height = image->height();
  int code = 0;
  s->gif = EGifOpen(s.get(), writeBytes, &code);
  if (!s->gif) {
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
  s->line.resize(size_t(s->width));
  EGifSetGifVersion(s->gif, true);
  bool ok = map && EGifPutScreenDesc(s->gif, s->width, s->height, bits, 0, map) == GIF_OK && startImage(s.get());
  GifFreeMapObject(map);
  if (!ok) {
    fail(error, size, "%s", GifErrorString(s->gif->Error));
    return nullptr;  // the state closes the file
  }
  s->frameCount = 1;
  return s.release();
}

int nextFrame(void* state, const PxfImageData* image, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  if (s->next != s->height) return fail(error, size, "the frame before is not whole");
  if (image->width() != s->width || image->height() != s->height) return fail(error, size, "frames differ in size");
  if (!startImage(s)) return fail(error, size, "%s", GifErrorString(s->gif->Error));
  s->frameCount++;
  return 0;
}

int writeRow(void* state, int32_t row, const void* const* channels, int64_t stride, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  if (s->height - 1 - row != s->next) return fail(error, size, "rows are written from the top down only");
  for (int32_t x = 0; x < s->width; ++x) s->line[size_t(x)] = pxfplugin::sampleOf<uint8_t>(channels[0], stride, x);
  if (EGifPutLine(s->gif, s->line.data(), s->width) != GIF_OK)
    return fail(error, size, "%s", pxfplugin::streamError(s->stream, GifErrorString(s->gif->Error)));
  s->next++;
  return 0;
}

int closeFile(void* state, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  int code = 0, rc = 0;
  if (s->writing) {
    if (s->next != s->height) rc = fail(error, size, "only %d of %d rows were written", s->next, s->height);
    GifFileType* gif = std::exchange(s->gif, nullptr);
    if (EGifCloseFile(gif, &code) != GIF_OK && rc == 0)
      rc = fail(error, size, "%s", pxfplugin::streamError(s->stream, GifErrorString(code)));
  } else {
    closeDecoder(s);
  }
  delete s;
  return rc;
}

}  // namespace

PXF_IMAGE_PLUGIN("gif", "gif", "GIF", "Palette pictures and their frames",
                 (PxfPluginOps{PXF_PLUGIN_VERSION,
                               sizeof(PxfPluginOps),
                               2u,
                               1u << 7,
                               0u,
                               0u,
                               0u,
                               uint8_t(PXF_MULTIFRAME | PXF_WRITES_INDEXES),
                               true,
                               true,
                               nullptr,
                               0,
                               recognise,
                               openRead,
                               setFrame,
                               readRow,
                               openWrite,
                               nextFrame,
                               writeRow,
                               closeFile,
                               0}));
