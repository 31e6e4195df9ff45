// The OpenEXR plug-in, on OpenEXR 3: scan-line and tiled files with half,
// float or unsigned integer channels R, G, B or Y, A and Z; of a file of
// several parts, the first that holds colour. Colour and alpha reach the
// framework as 32-bit floats, whole (above 1 and below 0 too), for a caller
// that takes floats, and otherwise as 16-bit integers (the 0 to 1 range,
// clamped), so that a picture stored from 8 bits comes back to the same 8
// bits; Z, a camera
// distance, becomes IFF depth -1/Z as floats, and goes back the same way.
// The data window's place in the display window and the pixels' aspect are
// told. Bytes go through the framework's stream. OpenEXR reports errors by
// exceptions: every entry point catches them.
#include <ImfChannelList.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfIO.h>
#include <ImfInputPart.h>
#include <ImfMultiPartInputFile.h>
#include <ImfOutputFile.h>
#include <ImfPartType.h>
#include <ImfStandardAttributes.h>
#include <ImfThreading.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <exception>
#include <limits>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "exrheader.h"
#include "kelpimage/plugin/pxf.h"
#include "plugin_util.h"

using pxfplugin::fail;

namespace {

constexpr int16_t kFloatCode = 4;  // 1: write 32-bit float samples; 0: half
constexpr int32_t kMaxWidth = 65535;

// The channels the framework sees, in its order.
enum Slot { kRed, kGreen, kBlue, kAlpha, kDepth, kSlots };

// Lines decoded or encoded at once: enough blocks for OpenEXR's threads,
// and no more than about 4M samples a channel for wide pictures.
int32_t bandLines(const Imf::Header& header, int32_t width, int32_t height) {
  int32_t lines = 128;  // ZIP blocks of 16 lines, PIZ of 32, and the rest
  switch (header.compression()) {
    case Imf::NO_COMPRESSION:
    case Imf::RLE_COMPRESSION:
    case Imf::ZIPS_COMPRESSION: lines = 64; break;
    default: break;
  }
  lines = std::min(lines, std::max(32, (1 << 22) / std::max(width, 1)));
  return std::min(lines, height);
}

// Runs `work`, turning what OpenEXR throws into a reason: 0, or -1.
template <typename Work>
int guarded(char* error, size_t size, Work work) {
  try {
    return work();
  } catch (const std::exception& e) {
    return fail(error, size, "%s", e.what());
  } catch (...) {
    return fail(error, size, "OpenEXR failed");
  }
}

// OpenEXR decodes and encodes blocks on a pool of threads when it has one.
void startThreads() {
  static std::once_flag once;
  std::call_once(once, [] {
    if (Imf::globalThreadCount() == 0)
      Imf::setGlobalThreadCount(int(std::max(1u, std::thread::hardware_concurrency())));
  });
}

// A slice of `lines` lines of `width` samples of 4 bytes, whose first
// sample stands for the pixel at `origin`.
Imf::Slice slice(Imf::PixelType type, void* first, Imath::V2i origin, int32_t width, int32_t lines) {
  return Imf::Slice::Make(type, first, origin, int64_t(width), int64_t(lines), size_t(4), size_t(width) * 4);
}

// The half of each 8-bit colour value v: the nearest to v / 255, or the next
// above it where the nearest falls short, so that readers which truncate
// colour (as the conversion into IFF does, and ImageMagick) come back to v
// as well as those that round. Alpha keeps the nearest half: ImageMagick
// reads it through its complement, where a nudge up would cost a level.
const Imath::half* byteHalves() {
  static const auto table = [] {
    std::array<Imath::half, 256> t;
    for (int v = 0; v < 256; ++v) {
      Imath::half h(float(v) / 255.0f);
      if (int(double(float(h)) * 255.0) != v) h.setBits(uint16_t(h.bits() + 1));
      t[size_t(v)] = h;
    }
    return t;
  }();
  return table.data();
}

// The framework's stream as OpenEXR's input.
class InStream : public Imf::IStream {
 public:
  explicit InStream(PxfStream* stream) : Imf::IStream(stream->name ? stream->name : "OpenEXR"), stream_(stream) {}
  bool read(char c[], int n) override {
    while (n > 0) {
      int64_t got = stream_->read(stream_->user, c, n);
      if (got < 0) throw std::runtime_error(pxfplugin::streamError(stream_, "the file cannot be read"));
      if (got == 0) throw std::runtime_error("the file ends early");
      c += got;
      n -= int(got);
    }
    return true;
  }
  uint64_t tellg() override { return uint64_t(stream_->tell(stream_->user)); }
  void seekg(uint64_t pos) override {
    if (stream_->seek(stream_->user, int64_t(pos)) != 0)
      throw std::runtime_error("the file cannot be read out of order");
  }

 private:
  PxfStream* stream_;
};

// The framework's stream as OpenEXR's output, keeping the first failure:
// OpenEXR finishes a file in its destructor, which swallows them.
class OutStream : public Imf::OStream {
 public:
  explicit OutStream(PxfStream* stream) : Imf::OStream(stream->name ? stream->name : "OpenEXR"), stream_(stream) {}
  void write(const char c[], int n) override {
    if (stream_->write(stream_->user, c, n) < 0) fail();
  }
  uint64_t tellp() override { return uint64_t(stream_->tell(stream_->user)); }
  void seekp(uint64_t pos) override {
    if (stream_->seek(stream_->user, int64_t(pos)) != 0) fail();
  }
  // The reason of the first failure, or empty.
  const std::string& reason() const { return reason_; }

 private:
  void fail() {
    if (reason_.empty()) reason_ = pxfplugin::streamError(stream_, "cannot be written");
    throw std::runtime_error(reason_);
  }
  PxfStream* stream_;
  std::string reason_;
};

// A float of 0 to 1 as a 16-bit sample, rounded; what lies outside clamped.
uint16_t toSample(float v) {
  if (!(v > 0.0f)) return 0;  // NaN too
  if (v >= 1.0f) return 65535;
  return uint16_t(std::lrintf(v * 65535.0f));
}

struct Reader {
  std::unique_ptr<InStream> stream;
  std::unique_ptr<Imf::MultiPartInputFile> file;
  std::unique_ptr<Imf::InputPart> part;
  Imath::Box2i window;
  int32_t width = 0, height = 0;
  bool present[kSlots] = {};
  bool floats = false;  // colour goes out as floats, else as 16-bit integers
  bool grey = false;
  bool uintSamples[kSlots] = {};
  int32_t band = 0;
  int32_t bandFirst = 0, bandCount = 0;    // the lines held, counted from the top
  std::vector<float> samples[kSlots];      // FLOAT slices
  std::vector<uint32_t> integers[kSlots];  // UINT slices
};

struct Writer {
  std::unique_ptr<OutStream> stream;
  std::unique_ptr<Imf::OutputFile> file;
  int32_t width = 0, height = 0;
  int colors = 0;
  bool matte = false, depth = false;
  int32_t bits = 8;
  bool floats = false;  // the samples handed in are floats
  bool decreasing = false;
  int32_t band = 0;
  int32_t bandLow = 0;              // the first line (from the top) the band's buffer stands for
  int32_t pending = 0;              // lines in the band not yet written
  int32_t written = 0;              // lines handed to OpenEXR
  int32_t rows = 0;                 // rows received
  Imf::PixelType type = Imf::HALF;  // of colour and alpha; depth is always float
  std::vector<float> samples[kSlots];
  std::vector<Imath::half> halves[kSlots];
};

struct State {
  std::unique_ptr<Reader> reader;
  std::unique_ptr<Writer> writer;
};

int recognise(const uint8_t* bytes, size_t count) {
  return count >= 4 && bytes[0] == 0x76 && bytes[1] == 0x2f && bytes[2] == 0x31 && bytes[3] == 0x01;
}

// The index of the first part with colour channels that the scan-line
// interface reads; -1 when there is none.
int colourPart(const Imf::MultiPartInputFile& file) {
  for (int i = 0; i < file.parts(); ++i) {
    const Imf::Header& h = file.header(i);
    if (h.hasType() && Imf::isDeepData(h.type())) continue;
    const Imf::ChannelList& ch = h.channels();
    if (ch.findChannel("R") || ch.findChannel("G") || ch.findChannel("B") || ch.findChannel("Y")) return i;
  }
  return -1;
}

const char* const kNames[kSlots] = {"R", "G", "B", "A", "Z"};

void describe(Reader& r, PxfImageData* image, const Imf::Header& h) {
  const Imf::ChannelList& ch = h.channels();
  for (int s = 0; s < kSlots; ++s) {
    const Imf::Channel* c = ch.findChannel(kNames[s]);
    r.present[s] = c != nullptr;
    r.uintSamples[s] = c && c->type == Imf::UINT;
  }
  r.grey = !r.present[kRed] && !r.present[kGreen] && !r.present[kBlue];
  const Imf::Channel* first = ch.findChannel(r.grey ? "Y" : r.present[kRed] ? "R" : r.present[kGreen] ? "G" : "B");
  if (r.grey) {
    r.present[kRed] = true;
    r.uintSamples[kRed] = first->type == Imf::UINT;
  }
  r.floats = image->wantsFloats != 0;
  pxfplugin::describePicture(image, r.width, r.height, PXF_TOP_DOWN, r.grey ? 1 : 3, r.present[kAlpha],
                             r.floats ? 32 : 16);
  if (r.floats) image->colorKind = image->matteKind = PXF_FLOAT;
  image->storedKind = first->type == Imf::HALF    ? PXF_STORED_HALF
                      : first->type == Imf::FLOAT ? PXF_STORED_FLOAT
                                                  : PXF_STORED_INTEGER;
  image->storedBits = first->type == Imf::HALF ? 16 : 32;
  image->association = PXF_PREMULTIPLIED;  // OpenEXR's colour is premultiplied by definition
  if (r.present[kDepth]) {
    image->depthChannels = 1;
    image->depthKind = PXF_FLOAT;
    image->depthBits = 32;
  }
  const Imath::Box2i& display = h.displayWindow();
  image->originX = r.window.min.x - display.min.x;
  image->originY = r.window.min.y - display.min.y;
  image->fullWidth = display.max.x - display.min.x + 1;
  image->fullHeight = display.max.y - display.min.y + 1;
  float pixelAspect = h.pixelAspectRatio();
  if (pixelAspect > 0.0f && std::isfinite(pixelAspect)) {
    image->pixelAspect = pixelAspect;
    if (pixelAspect != 1.0f) image->aspectRatio = image->aspectRatio * pixelAspect;
  }
  if (Imf::hasXDensity(h) && Imf::xDensity(h) > 0.0f) image->dpi = Imf::xDensity(h);
  static const char* const kCompressions[] = {"none",  "RLE", "ZIPS", "ZIP",  "PIZ",
                                              "PXR24", "B44", "B44A", "DWAA", "DWAB"};
  int c = int(h.compression());
  image->compression = c >= 0 && c < 10 ? kCompressions[c] : "other";
  if (h.hasTileDescription()) {
    image->tileWidth = int32_t(h.tileDescription().xSize);
    image->tileHeight = int32_t(h.tileDescription().ySize);
  }
}

// Checks the channels the picture is made of: full resolution only.
bool sampledFully(const Imf::Header& h, std::string& why) {
  for (Imf::ChannelList::ConstIterator c = h.channels().begin(); c != h.channels().end(); ++c) {
    std::string name = c.name();
    bool used = name == "R" || name == "G" || name == "B" || name == "Y" || name == "A" || name == "Z";
    if (used && (c.channel().xSampling != 1 || c.channel().ySampling != 1)) {
      why = "channel " + name + " is subsampled, which this reader does not take";
      return false;
    }
  }
  return true;
}

// Opens the stream's first part with colour; 0, or -1 with the reason.
int openReader(PxfStream* in, Reader& r, PxfImageData* image, char* error, size_t size) {
  startThreads();
  if (!exrplugin::headersFit(in, error, size)) return -1;
  r.stream = std::make_unique<InStream>(in);
  r.file = std::make_unique<Imf::MultiPartInputFile>(*r.stream);
  int part = colourPart(*r.file);
  if (part < 0) return fail(error, size, "no part of the file has R, G, B or Y channels");
  const Imf::Header& h = r.file->header(part);
  std::string why;
  if (!sampledFully(h, why)) return fail(error, size, "%s", why.c_str());
  r.window = h.dataWindow();
  int64_t w = int64_t(r.window.max.x) - r.window.min.x + 1, ht = int64_t(r.window.max.y) - r.window.min.y + 1;
  if (w < 1 || ht < 1 || w > kMaxWidth || ht > kMaxWidth)
    return fail(error, size, "a data window of %lld x %lld pixels is out of range", (long long)w, (long long)ht);
  // Deflate holds at most 1032 bytes in one, and a pixel takes 2 at the least.
  if (!pxfplugin::sizeAllowed(uint64_t(w), uint64_t(ht), in, 1032, error, size)) return -1;
  r.width = int32_t(w);
  r.height = int32_t(ht);
  r.part = std::make_unique<Imf::InputPart>(*r.file, part);
  r.band = bandLines(h, r.width, r.height);
  describe(r, image, h);
  return 0;
}

void* openRead(PxfStream* in, PxfImageData* image, int32_t* frames, char* error, size_t size) {
  auto r = std::make_unique<Reader>();
  if (guarded(error, size, [&] { return openReader(in, *r, image, error, size); }) != 0) return nullptr;
  *frames = 1;
  auto* s = new State;
  s->reader = std::move(r);
  return s;
}

// Decodes the band of lines starting at `first` (from the top).
void loadBand(Reader& r, int32_t first) {
  int32_t count = std::min(r.band, r.height - first);
  Imf::FrameBuffer fb;
  Imath::V2i origin(r.window.min.x, r.window.min.y + first);
  size_t lineSamples = size_t(r.width);
  for (int s = 0; s < kSlots; ++s) {
    if (!r.present[s]) continue;
    const char* channel = (s == kRed && r.grey) ? "Y" : kNames[s];
    if (r.uintSamples[s]) {
      r.integers[s].resize(lineSamples * size_t(r.band));
      fb.insert(channel, slice(Imf::UINT, r.integers[s].data(), origin, r.width, count));
    } else {
      r.samples[s].resize(lineSamples * size_t(r.band));
      fb.insert(channel, slice(Imf::FLOAT, r.samples[s].data(), origin, r.width, count));
    }
  }
  r.part->setFrameBuffer(fb);
  r.part->readPixels(r.window.min.y + first, r.window.min.y + first + count - 1);
  r.bandFirst = first;
  r.bandCount = count;
}

int readRow(void* state, int32_t row, void* const* channels, int64_t stride, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  if (!s->reader) return fail(error, size, "the file is open for writing");
  Reader& r = *s->reader;
  int32_t line = r.height - 1 - row;  // from the top
  if (line < 0 || line >= r.height) return fail(error, size, "no row %d", row);
  if (line < r.bandFirst || line >= r.bandFirst + r.bandCount) {
    int rc = guarded(error, size, [&] {
      loadBand(r, line - line % r.band);
      return 0;
    });
    if (rc != 0) return rc;
  }
  size_t at = size_t(line - r.bandFirst) * size_t(r.width);
  int out = 0;
  auto colour = [&](int slot) {
    void* to = channels[out++];
    for (int32_t x = 0; x < r.width; ++x) {
      // A colour channel the file lacks reads as 0.
      float v = !r.present[slot]      ? 0.0f
                : r.uintSamples[slot] ? float(double(r.integers[slot][at + size_t(x)]) / 4294967295.0)
                                      : r.samples[slot][at + size_t(x)];
      if (r.floats)
        std::memcpy(pxfplugin::sampleAt<float>(to, stride, x), &v, 4);
      else
        *pxfplugin::sampleAt<uint16_t>(to, stride, x) = toSample(v);
    }
  };
  colour(kRed);
  if (!r.grey) {
    colour(kGreen);
    colour(kBlue);
  }
  if (r.present[kAlpha]) colour(kAlpha);
  if (r.present[kDepth]) {
    for (int32_t x = 0; x < r.width; ++x) {
      double z = r.uintSamples[kDepth] ? double(r.integers[kDepth][at + size_t(x)]) : r.samples[kDepth][at + size_t(x)];
      // A distance of 0, below it or infinite is no depth at all.
      float v = (std::isfinite(z) && z > 0.0) ? float(-1.0 / z) : 0.0f;
      std::memcpy(pxfplugin::sampleAt<float>(channels[out], stride, x), &v, 4);
    }
  }
  return 0;
}

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

int closeFile(void* state, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  int rc = guarded(error, size, [&] {
    int result = 0;
    if (s->writer && s->writer->written != s->writer->height)
      result = fail(error, size, "only %d of %d rows were written", s->writer->written, s->writer->height);
    if (s->writer) {
      // The output file is written to the end as it is destroyed.
      s->writer->file.reset();
      const std::string& why = s->writer->stream->reason();
      if (!why.empty() && result == 0) result = fail(error, size, "%s", why.c_str());
    }
    return result;
  });
  delete s;
  return rc;
}

const PxfCapability kCapabilities[] = {
    pxfplugin::dpiCapability(),
    {pxfplugin::kCompressionCode, "Compression", 1, 2, 0.0f, 4.0f, 3.0f, "0 none, 1 RLE, 2 ZIPS, 3 ZIP, 4 PIZ"},
    {kFloatCode, "Float Samples", 1, 2, 0.0f, 1.0f, 0.0f, "1 for 32-bit floats, 0 for halves"},
};

}  // namespace

PXF_IMAGE_PLUGIN("exr", "exr", "OpenEXR", "OpenEXR, half, float and integer channels, with alpha and Z depth",
                 (PxfPluginOps{PXF_PLUGIN_VERSION,
                               sizeof(PxfPluginOps),
                               3u,
                               (1u << 7) | (1u << 15) | (1u << 31),
                               1u,
                               1u,
                               0x80000000u,
                               uint8_t(PXF_FLOAT_DEPTH | PXF_TILES | PXF_PREMULTIPLIED_ALPHA),
                               true,
                               true,
                               kCapabilities,
                               3,
                               recognise,
                               openRead,
                               nullptr,
                               readRow,
                               openWrite,
                               nullptr,
                               writeRow,
                               closeFile,
                               PXF_HOLDS_HALF | PXF_HOLDS_FLOAT}));
