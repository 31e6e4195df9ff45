// Reading OpenEXR files: the first part with colour, its channels and
// windows told to the framework, its lines decoded a band at a time.
#include "exr.h"
#include "exrheader.h"

namespace exrplugin {
namespace {

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

}  // namespace

void* openRead(PxfStream* in, PxfImageData* image, int32_t* frames, char* error, size_t size) {
  auto r = std::make_unique<Reader>();
  if (guarded(error, size, [&] { return openReader(in, *r, image, error, size); }) != 0) return nullptr;
  *frames = 1;
  auto* s = new State;
  s->reader = std::move(r);
  return s;
}

namespace {

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

}  // namespace

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

}  // namespace exrplugin
