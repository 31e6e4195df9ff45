// The OpenEXR plug-in, on OpenEXR 3: scan-line and tiled files with half,
// float or unsigned integer channels R, G, B or Y, A and Z; of a file of
// several parts, the first that holds colour. Colour and alpha reach the
// framework as 16-bit integers (the 0 to 1 range, clamped), so that a
// picture stored from 8 bits comes back to the same 8 bits; Z, a camera
// distance, becomes IFF depth -1/Z as floats, and goes back the same way.
// OpenEXR reports errors by exceptions: every entry point catches them.
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
    if (Imf::globalThreadCount() == 0) Imf::setGlobalThreadCount(int(std::max(1u, std::thread::hardware_concurrency())));
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

uint16_t toSample(float v) {
  if (!(v > 0.0f)) return 0;  // NaN too
  if (v >= 1.0f) return 65535;
  return uint16_t(std::lrintf(v * 65535.0f));
}

struct Reader {
  std::unique_ptr<Imf::MultiPartInputFile> file;
  std::unique_ptr<Imf::InputPart> part;
  Imath::Box2i window;
  int32_t width = 0, height = 0;
  bool present[kSlots] = {};
  bool grey = false;
  bool uintSamples[kSlots] = {};
  int32_t band = 0;
  int32_t bandFirst = 0, bandCount = 0;  // the lines held, counted from the top
  std::vector<float> samples[kSlots];    // FLOAT slices
  std::vector<uint32_t> integers[kSlots];  // UINT slices
};

// The file a picture is written to, through stdio, keeping the first
// failure: OpenEXR finishes a file in its destructor, which swallows them.
class FileStream : public Imf::OStream {
 public:
  explicit FileStream(const char* name) : Imf::OStream(name), file_(std::fopen(name, "wb")) {
    if (!file_) throw std::runtime_error(std::strerror(errno));
  }
  ~FileStream() override {
    if (file_) std::fclose(file_);
  }
  void write(const char c[], int n) override {
    if (std::fwrite(c, 1, size_t(n), file_) != size_t(n)) fail();
  }
  uint64_t tellp() override { return uint64_t(::ftello(file_)); }
  void seekp(uint64_t pos) override {
    if (::fseeko(file_, off_t(pos), SEEK_SET) != 0) fail();
  }
  // Closes the file; the reason of the first failure, or empty.
  std::string finish() {
    if (file_ && pxfplugin::closeWritten(file_, nullptr, 0) != 0 && reason_.empty()) reason_ = std::strerror(errno);
    return reason_;
  }

 private:
  void fail() {
    if (reason_.empty()) reason_ = std::strerror(errno);
    throw std::runtime_error(reason_);
  }
  FILE* file_;
  std::string reason_;
};

struct Writer {
  std::unique_ptr<FileStream> stream;
  std::unique_ptr<Imf::OutputFile> file;
  int32_t width = 0, height = 0;
  int colors = 0;
  bool matte = false, depth = false;
  int32_t bits = 8;
  bool decreasing = false;
  int32_t band = 0;
  int32_t bandLow = 0;   // the first line (from the top) the band's buffer stands for
  int32_t pending = 0;   // lines in the band not yet written
  int32_t written = 0;   // lines handed to OpenEXR
  int32_t rows = 0;      // rows received
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
  if (r.grey) {
    r.present[kRed] = true;
    r.uintSamples[kRed] = ch.findChannel("Y")->type == Imf::UINT;
  }
  pxfplugin::describePicture(image, r.width, r.height, PXF_TOP_DOWN, r.grey ? 1 : 3, r.present[kAlpha], 16);
  if (r.present[kDepth]) {
    image->depthChannels = 1;
    image->depthKind = PXF_FLOAT;
    image->depthBits = 32;
  }
  float pixelAspect = h.pixelAspectRatio();
  if (pixelAspect > 0.0f && pixelAspect != 1.0f) image->aspectRatio = image->aspectRatio * pixelAspect;
  if (Imf::hasXDensity(h) && Imf::xDensity(h) > 0.0f) image->dpi = Imf::xDensity(h);
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

// Opens `name`'s first part with colour; 0, or -1 with the reason.
int openReader(const char* name, Reader& r, PxfImageData* image, char* error, size_t size) {
  startThreads();
  r.file = std::make_unique<Imf::MultiPartInputFile>(name);
  int part = colourPart(*r.file);
  if (part < 0) return fail(error, size, "no part of the file has R, G, B or Y channels");
  const Imf::Header& h = r.file->header(part);
  std::string why;
  if (!sampledFully(h, why)) return fail(error, size, "%s", why.c_str());
  r.window = h.dataWindow();
  int64_t w = int64_t(r.window.max.x) - r.window.min.x + 1, ht = int64_t(r.window.max.y) - r.window.min.y + 1;
  if (w < 1 || ht < 1 || w > kMaxWidth || ht > kMaxWidth || !pxfplugin::wholeAllowed(uint64_t(w), uint64_t(ht)))
    return fail(error, size, "data window of %lld x %lld pixels is out of range", (long long)w, (long long)ht);
  r.width = int32_t(w);
  r.height = int32_t(ht);
  r.part = std::make_unique<Imf::InputPart>(*r.file, part);
  r.band = bandLines(h, r.width, r.height);
  describe(r, image, h);
  return 0;
}

void* openRead(const char* name, PxfImageData* image, int32_t* frames, char* error, size_t size) {
  auto r = std::make_unique<Reader>();
  if (guarded(error, size, [&] { return openReader(name, *r, image, error, size); }) != 0) return nullptr;
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

int readRow(void* state, int32_t row, void* const* channels, char* error, size_t size) {
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
    auto* to = static_cast<uint16_t*>(channels[out++]);
    if (!r.present[slot]) {  // a colour channel the file lacks reads as 0
      std::fill(to, to + r.width, uint16_t(0));
      return;
    }
    if (r.uintSamples[slot]) {
      const uint32_t* from = r.integers[slot].data() + at;
      for (int32_t x = 0; x < r.width; ++x) to[x] = uint16_t(from[x] >> 16);
    } else {
      const float* from = r.samples[slot].data() + at;
      for (int32_t x = 0; x < r.width; ++x) to[x] = toSample(from[x]);
    }
  };
  colour(kRed);
  if (!r.grey) {
    colour(kGreen);
    colour(kBlue);
  }
  if (r.present[kAlpha]) colour(kAlpha);
  if (r.present[kDepth]) {
    auto* to = static_cast<float*>(channels[out]);
    for (int32_t x = 0; x < r.width; ++x) {
      double z = r.uintSamples[kDepth] ? double(r.integers[kDepth][at + size_t(x)]) : r.samples[kDepth][at + size_t(x)];
      // A distance of 0, below it or infinite is no depth at all.
      to[x] = (std::isfinite(z) && z > 0.0) ? float(-1.0 / z) : 0.0f;
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

// The header of a file for `w`'s picture.
Imf::Header headerFor(const Writer& w, const PxfImageData* image, Imf::Compression compression, float dpi) {
  // The conversion out of IFF gives an aspect ratio of exactly 1 for square
  // pixels, and the picture's shape times the pixels' otherwise.
  float pixelAspect = 1.0f;
  if (image->aspectRatio > 0.0f && image->aspectRatio != 1.0f && image->aspectWidth > 0 && image->aspectHeight > 0)
    pixelAspect = image->aspectRatio * float(image->aspectHeight) / float(image->aspectWidth);
  Imf::Header header(w.width, w.height, pixelAspect);
  header.compression() = compression;
  header.lineOrder() = w.decreasing ? Imf::DECREASING_Y : Imf::INCREASING_Y;
  const char* colours[3] = {"R", "G", "B"};
  for (int c = 0; c < w.colors; ++c) header.channels().insert(w.colors == 3 ? colours[c] : "Y", Imf::Channel(w.type));
  if (w.matte) header.channels().insert("A", Imf::Channel(w.type));
  if (w.depth) header.channels().insert("Z", Imf::Channel(Imf::FLOAT));
  if (dpi >= 1.0f) Imf::addXDensity(header, dpi);
  return header;
}

void* openWrite(const char* name, const PxfImageData* image, PxfCapSetting* const* settings, const PxfLut*,
                char* error, size_t size) {
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
  w->decreasing = image->orientation == PXF_BOTTOM_UP;
  w->type = pxfplugin::setting(settings, kFloatCode, 0.0f) != 0.0f ? Imf::FLOAT : Imf::HALF;
  int rc = guarded(error, size, [&] {
    startThreads();
    Imf::Header header = headerFor(*w, image, compression, pxfplugin::setting(settings, pxfplugin::kDpiCode, image->dpi));
    w->band = bandLines(header, w->width, w->height);
    for (int s = 0; s < kSlots; ++s) {
      if (w->type == Imf::HALF && s != kDepth) w->halves[s].resize(size_t(w->width) * size_t(w->band));
      else w->samples[s].resize(size_t(w->width) * size_t(w->band));
    }
    w->stream = std::make_unique<FileStream>(name);
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

int writeRow(void* state, int32_t row, const void* const* channels, char* error, size_t size) {
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
      return w.bits > 8 ? float(static_cast<const uint16_t*>(from)[x]) * scale
                        : float(static_cast<const uint8_t*>(from)[x]) * scale;
    };
    if (w.type == Imf::HALF && w.bits <= 8 && slot != kAlpha) {
      const Imath::half* halves = byteHalves();
      Imath::half* to = w.halves[slot].data() + at;
      for (int32_t x = 0; x < w.width; ++x) to[x] = halves[static_cast<const uint8_t*>(from)[x]];
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
    auto* from = static_cast<const float*>(channels[in]);
    float* to = w.samples[kDepth].data() + at;
    for (int32_t x = 0; x < w.width; ++x) to[x] = from[x] == 0.0f ? std::numeric_limits<float>::infinity() : -1.0f / from[x];
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
      std::string why = s->writer->stream->finish();
      if (!why.empty() && result == 0) result = fail(error, size, "%s", why.c_str());
    }
    return result;
  });
  delete s;
  return rc;
}

const PxfCapability kCapabilities[] = {
    {pxfplugin::kDpiCode, "DPI Resolution", 1, 2},
    {pxfplugin::kCompressionCode, "Compression", 1, 2},
    {kFloatCode, "Float Samples", 1, 2},
};

}  // namespace

PXF_IMAGE_PLUGIN("exr", "exr", "OpenEXR",
                 "OpenEXR, half, float and integer channels, with alpha and Z depth",
                 (PxfPluginOps{PXF_PLUGIN_VERSION, sizeof(PxfPluginOps), 3u, (1u << 7) | (1u << 15), 1u, 1u,
                               0x80000000u, PXF_FLOAT_DEPTH, true, true, kCapabilities, 3, recognise, openRead, nullptr,
                               readRow, openWrite, nullptr, writeRow, closeFile}));
