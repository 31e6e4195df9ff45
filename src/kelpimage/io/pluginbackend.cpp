// Every other format, through its plug-in, reading and writing the
// library's streams. A plug-in's rows are counted from the bottom and its
// channels lie where their pointers say, a pixel stride apart: so rows of
// one sample size go straight into interleaved buffers. A plug-in that
// takes its rows from the bottom gets the picture whole at the end; a GIF
// is written from the colour cube's indexes, its error spread as the
// conversion to GIF spreads it.
#include <cctype>
#include <cstring>
#include <memory>
#include <vector>

#include "kelpimage/base/tcolourcube.h"
#include "kelpimage/io/backend.h"
#include "kelpimage/io/samples.h"
#include "kelpimage/plugin/pxf.h"
#include "kelpimage/plugin/pxfinternal.h"
#include "kelpimage/plugin/pxfstreams.h"

namespace kelpio {
namespace {

PxfFormat* formatOf(const TformatInfo& info) { return PXF_find(info.key.c_str()); }

std::string lastError(const char* fallback) {
  const char* why = PXF_last_error();
  return why && *why ? why : fallback;
}

class PluginReader : public ReaderBackend {
 public:
  explicit PluginReader(const TformatInfo& format) : fFormat(formatOf(format)) {}
  ~PluginReader() override {
    if (fHandle) PXF_close(fHandle);
  }

  bool open(TinputStream& in, const TreadOptions& options, TimageInfo& spec, std::string& why) override {
    if (!fFormat) return why = "its plug-in is not loaded", false;
    fStream = pxfReading(in);
    PxfImageData wanted;
    wanted.lenient = options.lenient ? 1 : 0;
    wanted.wantsFloats = 1;
    fHandle = pxfOpen(fFormat, &fStream, false, &wanted, nullptr, nullptr);
    if (!fHandle) return why = lastError("cannot be read"), false;
    return describe(spec, why);
  }

  bool seekFrame(int frame, TimageInfo& spec, std::string& why) override {
    if (PXF_set_frame(fHandle, frame) != frame) return why = lastError("has no such frame"), false;
    fHeld.clear();
    fNext = 0;
    return describe(spec, why);
  }

  bool readRows(int32_t y0, int32_t count, uint8_t* pixels, size_t rowBytes, float* depth, size_t depthStride,
                std::string& why) override {
    for (int32_t i = 0; i < count; ++i) {
      float* z =
          depth ? reinterpret_cast<float*>(reinterpret_cast<uint8_t*>(depth) + size_t(i) * depthStride) : nullptr;
      if (!readRow(y0 + i, pixels + size_t(i) * rowBytes, z, why)) return false;
    }
    return true;
  }

 private:
  bool describe(TimageInfo& spec, std::string& why) {
    const PxfImageData& im = *fHandle->image;
    spec = TimageInfo();
    spec.width = im.width();
    spec.height = im.height();
    spec.colorChannels = im.colorChannels >= 3 ? 3 : 1;
    spec.alpha = im.matteChannels > 0;
    spec.depth = im.depthChannels > 0 && im.depthKind == PXF_FLOAT && im.depthBits == 32;
    if (im.colorChannels < 1) return why = "the picture has no colour channels", false;
    fSampleBytes = PXF_sample_bytes(im.colorBits);
    bool floats = im.colorKind == PXF_FLOAT && im.colorBits == 32;
    fType = floats ? TsampleType::kFloat : fSampleBytes == 2 ? TsampleType::kUint16 : TsampleType::kUint8;
    if ((!floats && im.colorBits != 8 && im.colorBits != 16) ||
        (spec.alpha && (im.matteBits != im.colorBits || im.matteKind != im.colorKind)))
      return why = "the plug-in hands over samples of a kind this reader does not take", false;
    // Floats of a file of halves are handed over as halves: exactly.
    spec.sampleType = floats && im.storedKind == PXF_STORED_HALF ? TsampleType::kHalf : fType;
    spec.bits = im.storedBits > 0 ? im.storedBits : im.colorBits;
    spec.association =
        spec.alpha && im.association == PXF_PREMULTIPLIED ? Tassociation::kPremultiplied : Tassociation::kStraight;
    spec.x = im.originX;
    spec.y = im.originY;
    spec.fullWidth = im.fullWidth;
    spec.fullHeight = im.fullHeight;
    spec.pixelAspect = im.pixelAspect > 0.0f ? im.pixelAspect : 1.0;
    spec.dpi = im.dpi;
    spec.tileWidth = im.tileWidth;
    spec.tileHeight = im.tileHeight;
    spec.compression = im.compression ? im.compression : "";
    spec.frames = fHandle->frameCount > 0 ? fHandle->frameCount : 1;
    fSpec = spec;
    fFromTop = im.orientation != PXF_BOTTOM_UP;
    fHeld.clear();
    fNext = 0;
    return true;
  }

  // One row from the plug-in, counted from the top, into the caller's
  // interleaved colour and alpha (and depth).
  bool fetch(int32_t y, uint8_t* row, float* depth, std::string& why) {
    const int channels = fSpec.channels();
    const int all = channels + (fHandle->image->depthChannels > 0 ? 1 : 0);
    std::vector<void*> pointers(static_cast<size_t>(all));
    int64_t stride = 0;
    if (all == channels) {
      // Straight into the caller's row: channels a sample apart, pixels a pixel.
      for (int c = 0; c < channels; ++c) pointers[size_t(c)] = row + size_t(c) * fSampleBytes;
      stride = int64_t(channels) * fSampleBytes;
    } else {
      fPlanes.resize(size_t(all));
      for (int c = 0; c < all; ++c) {
        fPlanes[size_t(c)].resize(size_t(fSpec.width) * (c < channels ? size_t(fSampleBytes) : 4));
        pointers[size_t(c)] = fPlanes[size_t(c)].data();
      }
    }
    const char* said = nullptr;
    if (fHandle->format->ops->readRow(fHandle->state, fSpec.height - 1 - y, pointers.data(), stride, errorText,
                                      sizeof errorText) != 0)
      return why = errorText[0] ? errorText : "a row cannot be read", false;
    if (errorText[0]) said = errorText;  // stepped over, in a lenient read
    if (all != channels) {
      for (int c = 0; c < channels; ++c)
        for (size_t x = 0; x < size_t(fSpec.width); ++x)
          std::memcpy(row + (x * size_t(channels) + size_t(c)) * fSampleBytes,
                      fPlanes[size_t(c)].data() + x * size_t(fSampleBytes), size_t(fSampleBytes));
      if (depth) std::memcpy(depth, fPlanes[size_t(channels)].data(), size_t(fSpec.width) * sizeof(float));
    }
    if (fSpec.sampleType == TsampleType::kHalf)  // in place: two bytes of four
      convertSamples(row, TsampleType::kFloat, row, TsampleType::kHalf, size_t(fSpec.width) * size_t(channels));
    if (said && why.empty()) why = said;
    errorText[0] = '\0';
    return true;
  }

  bool readRow(int32_t y, uint8_t* row, float* depth, std::string& why) {
    size_t fileRow = size_t(fSpec.width) * size_t(fSpec.channels()) * size_t(fSampleBytes);
    if (fFromTop) {
      if (y != fNext) return why = "rows are read from the top down", false;
      fNext++;
      if (fileRow == fSpec.rowBytes(fSpec.sampleType)) return fetch(y, row, depth, why);
      fRow.resize(fileRow);
      if (!fetch(y, fRow.data(), depth, why)) return false;
      std::memcpy(row, fRow.data(), fSpec.rowBytes(fSpec.sampleType));
      return true;
    }
    // A plug-in that gives its rows from the bottom: the picture whole, at the first row.
    if (fHeld.empty()) {
      fHeld.resize(fileRow * size_t(fSpec.height));
      if (fSpec.depth) fHeldDepth.resize(size_t(fSpec.width) * size_t(fSpec.height));
      for (int32_t from = fSpec.height - 1; from >= 0; --from)
        if (!fetch(from, fHeld.data() + size_t(from) * fileRow,
                   fSpec.depth ? fHeldDepth.data() + size_t(from) * size_t(fSpec.width) : nullptr, why))
          return fHeld.clear(), false;
    }
    std::memcpy(row, fHeld.data() + size_t(y) * fileRow, fSpec.rowBytes(fSpec.sampleType));
    if (depth && fSpec.depth)
      std::memcpy(depth, fHeldDepth.data() + size_t(y) * size_t(fSpec.width), size_t(fSpec.width) * sizeof(float));
    return true;
  }

  PxfFormat* fFormat;
  PxfStream fStream{};
  PxfHandle* fHandle = nullptr;
  TimageInfo fSpec;
  TsampleType fType = TsampleType::kUint8;
  int fSampleBytes = 1;
  bool fFromTop = true;
  int32_t fNext = 0;
  std::vector<uint8_t> fRow, fHeld;
  std::vector<float> fHeldDepth;
  std::vector<std::vector<uint8_t>> fPlanes;
  char errorText[512] = {};
};

class PluginWriter : public WriterBackend {
 public:
  explicit PluginWriter(const TformatInfo& info) : fInfo(info), fFormat(formatOf(info)) {}
  ~PluginWriter() override {
    if (fHandle) PXF_close(fHandle);
    for (PxfCapSetting* s : fSettings) delete[] s;
    if (fLut) PXF_lut_free(fLut);
  }

  bool open(ToutputStream& out, const TimageInfo& spec, const TwriteOptions& options, std::string& why) override {
    if (!fFormat) return why = "its plug-in is not loaded", false;
    fStream = pxfWriting(out);
    // A format of several kinds of file (PPM, PGM, PAM) writes the one its name asks for.
    const std::string& name = out.name();
    size_t dot = name.rfind('.'), slash = name.rfind('/');
    if (dot != std::string::npos && (slash == std::string::npos || dot > slash)) {
      fVariant = name.substr(dot + 1);
      for (char& c : fVariant) c = char(std::tolower(static_cast<unsigned char>(c)));
    }
    for (const auto& [name, value] : options.values)
      for (int32_t i = 0; i < fFormat->ops->capabilityCount; ++i) {
        const PxfCapability& c = fFormat->ops->capabilities[i];
        if (!c.name || strcasecmp(c.name, name.c_str()) != 0) continue;
        PxfCapSetting* s = PXF_cap_setting_alloc(1);
        s->code = c.code;
        s->value = float(value);
        fSettings.push_back(s);
      }
    if (spec.dpi >= 1.0 && !options.get("DPI Resolution", 0)) {
      PxfCapSetting* s = PXF_cap_setting_alloc(1);
      s->code = 1;
      s->value = float(spec.dpi);
      fSettings.push_back(s);
    }
    fSettings.push_back(nullptr);
    if (fInfo.writesIndexes) {
      fLut = PXF_lut_alloc(256);
      for (int i = 0; i < 256; ++i) {
        uint8_t rgb[3];
        TcolourCube::entry(i, rgb);
        // Widened as signed bytes, as the conversion to GIF hands them.
        for (int c = 0; c < 3; ++c) fLut->entries[i].value[c] = uint16_t(int16_t(int8_t(rgb[c])));
      }
    }
    PxfImageData image = recordFor(spec);
    fHandle = pxfOpen(fFormat, &fStream, true, &image, fSettings.data(), fLut);
    if (!fHandle) return why = lastError("cannot be written"), false;
    return start(spec);
  }

  bool writeRows(int32_t y0, int32_t count, const uint8_t* pixels, size_t rowBytes, const float* depth,
                 size_t depthStride, std::string& why) override {
    for (int32_t i = 0; i < count; ++i) {
      const uint8_t* row = pixels + size_t(i) * rowBytes;
      const float* z =
          depth ? reinterpret_cast<const float*>(reinterpret_cast<const uint8_t*>(depth) + size_t(i) * depthStride)
                : nullptr;
      if (fInfo.writesIndexes) {
        if (!quantise(y0 + i, row, why)) return false;
      } else if (fFromTop) {
        if (!send(y0 + i, row, z, why)) return false;
      } else {
        std::memcpy(fHeld.data() + size_t(y0 + i) * fRowBytes, row, fRowBytes);
        if (z) std::memcpy(fHeldDepth.data() + size_t(y0 + i) * size_t(fSpec.width), z, size_t(fSpec.width) * 4);
      }
    }
    return true;
  }

  bool nextFrame(const TimageInfo& spec, std::string& why) override {
    if (!flush(why)) return false;
    *fHandle->image = recordFor(spec);
    const int32_t next = fHandle->frame + 1;
    if (!fHandle->format->ops->nextFrame || PXF_set_frame(fHandle, next) != next)
      return why = lastError("a frame cannot be added"), false;
    return start(spec);
  }

  bool close(std::string& why) override {
    bool ok = flush(why);
    int rc = PXF_close(fHandle);
    fHandle = nullptr;
    if (ok && rc != 0) why = lastError("cannot be written");
    return ok && rc == 0;
  }

 private:
  PxfImageData recordFor(const TimageInfo& spec) const {
    PxfImageData image;
    image.windowRight = image.window2[1] = spec.width - 1;
    image.windowTop = image.window2[3] = spec.height - 1;
    image.aspectWidth = spec.width;
    image.aspectHeight = spec.height;
    image.aspectRatio = float(spec.width) / float(spec.height) * float(spec.pixelAspect);
    image.pixelAspect = float(spec.pixelAspect);
    image.dataKind = FMT_def_image_data();
    bool floats = TsampleIsFloat(spec.sampleType);
    int bits = floats ? 32 : int(TsampleBytes(spec.sampleType)) * 8;
    image.colorChannels = fInfo.writesIndexes ? 0 : spec.colorChannels;
    image.colorKind = image.matteKind = floats ? PXF_FLOAT : PXF_INTEGER;
    image.colorBits = image.matteBits = bits;
    image.matteChannels = spec.alpha && !fInfo.writesIndexes ? 1 : 0;
    image.depthChannels = spec.depth ? 1 : 0;
    image.depthKind = PXF_FLOAT;
    image.depthBits = 32;
    image.indexChannels = fInfo.writesIndexes ? 1 : 0;
    image.indexBits = 8;
    image.orientation = (fFormat->orientations & 2u) ? PXF_TOP_DOWN : PXF_BOTTOM_UP;
    image.dpi = float(spec.dpi);
    image.storedKind = spec.sampleType == TsampleType::kHalf    ? PXF_STORED_HALF
                       : spec.sampleType == TsampleType::kFloat ? PXF_STORED_FLOAT
                                                                : PXF_STORED_INTEGER;
    image.association = spec.association == Tassociation::kPremultiplied ? PXF_PREMULTIPLIED : PXF_STRAIGHT;
    image.originX = spec.x;
    image.originY = spec.y;
    image.fullWidth = spec.fullWidth;
    image.fullHeight = spec.fullHeight;
    image.variant = fVariant.empty() ? nullptr : fVariant.c_str();
    return image;
  }

  bool start(const TimageInfo& spec) {
    fSpec = spec;
    // Halves go to the plug-in as floats.
    fSendType = spec.sampleType == TsampleType::kHalf ? TsampleType::kFloat : spec.sampleType;
    fRowBytes = spec.rowBytes(spec.sampleType);
    fFromTop = fFormat->orientations & 2u;
    if (!fFromTop && !fInfo.writesIndexes) {
      fHeld.assign(fRowBytes * size_t(spec.height), 0);
      fHeldDepth.assign(spec.depth ? size_t(spec.width) * size_t(spec.height) : 0, 0.0f);
    }
    fPending.clear();
    return true;
  }

  // One row from the top to the plug-in, which counts from the bottom.
  bool send(int32_t y, const uint8_t* row, const float* depth, std::string& why) {
    const int channels = fSpec.channels();
    const size_t width = size_t(fSpec.width);
    const uint8_t* samples = row;
    if (fSendType != fSpec.sampleType) {
      fConverted.resize(width * size_t(channels) * TsampleBytes(fSendType));
      convertSamples(row, fSpec.sampleType, fConverted.data(), fSendType, width * size_t(channels));
      samples = fConverted.data();
    }
    size_t sample = TsampleBytes(fSendType);
    std::vector<const void*> pointers;
    int64_t stride = int64_t(channels) * int64_t(sample);
    if (fSpec.depth) {
      // Channels of two sizes: each its own run of samples.
      fPlanes.resize(size_t(channels));
      for (int c = 0; c < channels; ++c) {
        fPlanes[size_t(c)].resize(width * sample);
        for (size_t x = 0; x < width; ++x)
          std::memcpy(fPlanes[size_t(c)].data() + x * sample, samples + (x * size_t(channels) + size_t(c)) * sample,
                      sample);
        pointers.push_back(fPlanes[size_t(c)].data());
      }
      fZeros.assign(width, 0.0f);
      pointers.push_back(depth ? depth : fZeros.data());
      stride = 0;
    } else {
      for (int c = 0; c < channels; ++c) pointers.push_back(samples + size_t(c) * sample);
    }
    char error[512] = {};
    if (fHandle->format->ops->writeRow(fHandle->state, fSpec.height - 1 - y, pointers.data(), stride, error,
                                       sizeof error) != 0)
      return why = error[0] ? error : "a row cannot be written", false;
    return true;
  }

  // Rows held for a plug-in that takes them from the bottom.
  bool flush(std::string& why) {
    if (fInfo.writesIndexes && !fPending.empty()) {
      bool ok = quantiseRow(fSpec.height - 1, fPending.data(), nullptr, why);
      fPending.clear();
      return ok;
    }
    if (fFromTop || fHeld.empty()) return true;
    for (int32_t y = fSpec.height - 1; y >= 0; --y)
      if (!send(y, fHeld.data() + size_t(y) * fRowBytes,
                fSpec.depth ? fHeldDepth.data() + size_t(y) * size_t(fSpec.width) : nullptr, why))
        return false;
    fHeld.clear();
    return true;
  }

  // A row of colour (8 bits) as blue, green, red, as the cube takes it.
  std::vector<uint8_t> bgrOf(const uint8_t* row) const {
    const int channels = fSpec.channels();
    std::vector<uint8_t> bgr(size_t(fSpec.width) * 4);
    for (size_t x = 0; x < size_t(fSpec.width); ++x) {
      const uint8_t* p = row + x * size_t(channels);
      uint8_t r = p[0], g = fSpec.colorChannels == 3 ? p[1] : r, b = fSpec.colorChannels == 3 ? p[2] : r;
      bgr[x * 4] = b, bgr[x * 4 + 1] = g, bgr[x * 4 + 2] = r;
    }
    return bgr;
  }

  // The cube's indexes with the error spread to the right and to the next
  // row, which must have come: each row waits for the one below it.
  bool quantise(int32_t y, const uint8_t* row, std::string& why) {
    std::vector<uint8_t> bgr = bgrOf(row);
    if (!fPending.empty()) {
      if (!quantiseRow(y - 1, fPending.data(), bgr.data(), why)) return false;
    }
    fPending = std::move(bgr);
    return true;
  }

  bool quantiseRow(int32_t y, uint8_t* row, uint8_t* below, std::string& why) {
    const int32_t width = fSpec.width;
    fIndexes.resize(size_t(width));
    for (int32_t x = 0; x < width; ++x) {
      uint8_t* p = row + size_t(x) * 4;
      int8_t e[3];
      fIndexes[size_t(x)] = uint8_t(TcolourCube::quantise(p, e));
      int8_t big[3], small[3];
      for (int c = 0; c < 3; ++c) big[c] = int8_t(double(e[c]) * 0.375), small[c] = int8_t(double(e[c]) * 0.25);
      bool right = x + 1 < width;
      for (int c = 0; c < 3; ++c) {
        if (right) TcolourCube::addError(p[4 + c], big[c]);
        if (below) TcolourCube::addError(below[size_t(x) * 4 + size_t(c)], big[c]);
        if (right && below) TcolourCube::addError(below[(size_t(x) + 1) * 4 + size_t(c)], small[c]);
      }
    }
    const void* pointers[1] = {fIndexes.data()};
    char error[512] = {};
    if (fHandle->format->ops->writeRow(fHandle->state, fSpec.height - 1 - y, pointers, 0, error, sizeof error) != 0)
      return why = error[0] ? error : "a row cannot be written", false;
    return true;
  }

  TformatInfo fInfo;
  PxfFormat* fFormat;
  PxfStream fStream{};
  PxfHandle* fHandle = nullptr;
  std::vector<PxfCapSetting*> fSettings;
  PxfLut* fLut = nullptr;
  std::string fVariant;
  TimageInfo fSpec;
  TsampleType fSendType = TsampleType::kUint8;
  size_t fRowBytes = 0;
  bool fFromTop = true;
  std::vector<uint8_t> fHeld, fConverted, fPending, fIndexes;
  std::vector<float> fHeldDepth, fZeros;
  std::vector<std::vector<uint8_t>> fPlanes;
};

}  // namespace

std::unique_ptr<ReaderBackend> pluginReader(const TformatInfo& format) {
  return std::make_unique<PluginReader>(format);
}
std::unique_ptr<WriterBackend> pluginWriter(const TformatInfo& format) {
  return std::make_unique<PluginWriter>(format);
}

}  // namespace kelpio
