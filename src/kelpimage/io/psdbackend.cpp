// Photoshop documents through the library's document classes. Reading: the
// flattened image in RGB whatever the colour mode (frame 0), each ordinary
// layer at the size of its rectangle (frames 1 on, in file order), or what
// the options name (a layer, a set's composite, an alpha channel); colour
// straight. Writing: the first frame becomes a background layer and the
// flattened image, each further frame a layer above it.
#include <cstring>
#include <memory>
#include <vector>

#include "kelpimage/io/backend.h"
#include "kelpimage/photoshop/tpsdfile.h"

namespace kelpio {
namespace {

using namespace zkPhotoshop;

// The ordinary layers of a document, in file order.
std::vector<TpsdLayer*> ordinaryLayers(TpsdFile& doc) {
  std::vector<TpsdLayer*> layers;
  for (const auto& layer : doc.fLayers)
    if (layer->fSectionType == sectionLayer) layers.push_back(layer.get());
  return layers;
}

class PsdReader : public ReaderBackend {
 public:
  bool open(TinputStream& in, const TreadOptions& options, TimageInfo& spec, std::string& why) override {
    const std::string& path = in.path();
    if (path.empty()) return why = in.error(), false;
    fOptions = options;
    fDoc.open(TfilePath(path.c_str()), false);
    if (fDoc.fPath.fullName().isEmpty()) return why = reason("not a Photoshop document this library reads"), false;
    if (!fDoc.readAllLayerRecordInformation() && !fDoc.lastReason().isEmpty()) return why = reason(""), false;
    bool part = !options.layer.empty() || !options.set.empty() || options.alpha >= 0;
    fFrames = part ? 1 : 1 + int(ordinaryLayers(fDoc).size());
    return seekFrame(0, spec, why);
  }

  bool seekFrame(int frame, TimageInfo& spec, std::string& why) override {
    fPixels = nullptr;
    fOwned.reset();
    fGrey = -1;
    if (!choose(frame, why)) return false;
    spec = TimageInfo();
    spec.width = fWidth;
    spec.height = fHeight;
    spec.colorChannels = fGrey >= 0 ? 1 : 3;
    spec.alpha = fGrey < 0 && fPixels->hasChannel(channelTransparency);
    spec.sampleType = fDoc.fDataFormat == dataFormat16 ? TsampleType::kUint16 : TsampleType::kUint8;
    spec.bits = fDoc.fDepth;
    spec.frames = fFrames;
    spec.compression = "Photoshop";
    static const char* const kModes[] = {"bitmap", "grey", "indexed",      "RGB",     "CMYK",
                                         "?",      "?",    "multichannel", "duotone", "Lab"};
    spec.details = {{"colour", std::string(fDoc.fColorMode < 10 ? kModes[fDoc.fColorMode] : "?") + ", " +
                                   std::to_string(fDoc.fChannelCount) + " channels" +
                                   (fDoc.fMergedTransparency ? " (with transparency)" : "")},
                    {"layers", std::to_string(fDoc.fLayers.size())}};
    if (spec.width < 1 || spec.height < 1) return why = "the part asked for is empty", false;
    fSpec = spec;
    return true;
  }

  bool anyOrder() const override { return true; }

  bool readRows(int32_t y0, int32_t count, uint8_t* pixels, size_t rowBytes, float*, size_t, std::string&) override {
    const int channels = fSpec.channels();
    const size_t bytes = TsampleBytes(fSpec.sampleType), width = size_t(fSpec.width);
    const uint8_t* planes[4] = {};
    const PHOTOSHOP_CHANNEL ids[4] = {channelRed, channelGreen, channelBlue, channelTransparency};
    for (int c = 0; c < 4; ++c) {
      PHOTOSHOP_CHANNEL id = fGrey >= 0 ? fGrey : ids[c];
      // A layer of a grey document has red alone: green and blue are it.
      if (fGrey < 0 && c < 3 && !fPixels->hasChannel(id)) id = channelRed;
      planes[c] = fPixels->hasChannel(id) ? fPixels->getChannelPixPtr(id) : nullptr;
    }
    int order[4] = {0, 1, 2, 3};
    if (channels == 2) order[1] = 3;
    for (int32_t i = 0; i < count; ++i) {
      uint8_t* out = pixels + size_t(i) * rowBytes;
      size_t first = size_t(y0 + i) * width;
      for (size_t x = 0; x < width; ++x)
        for (int c = 0; c < channels; ++c) {
          const uint8_t* plane = planes[order[c]];
          std::memcpy(out + (x * size_t(channels) + size_t(c)) * bytes, plane + (first + x) * bytes, bytes);
        }
    }
    return true;
  }

 private:
  std::string reason(const char* fallback) { return fDoc.lastReason().isEmpty() ? fallback : fDoc.lastReason().str(); }

  // Points fPixels at what frame `frame` (or the options) names.
  bool choose(int frame, std::string& why) {
    TrgbaData* image = nullptr;
    if (!fOptions.layer.empty() || frame > 0) {
      TpsdLayer* layer = frame > 0 ? ordinaryLayers(fDoc)[size_t(frame - 1)] : findLayer(fOptions.layer);
      if (!layer) return why = "has no layer \"" + fOptions.layer + "\"", false;
      if (layer->isEmpty()) return why = "layer \"" + layer->fName.str() + "\" is empty", false;
      fPixels = fDoc.layerPixels(*layer);
      if (!fPixels) return why = reason(("layer \"" + layer->fName.str() + "\" has no pixels").c_str()), false;
      fWidth = layer->width();
      fHeight = layer->height();
      return true;
    }
    if (!fOptions.set.empty()) {
      if (!fDoc.getCompositeImageOfLayerSet(Tstring(fOptions.set.c_str()), image)) return why = reason(""), false;
    } else if (fOptions.alpha >= 0) {
      if (!fDoc.getAlphaChannelMap(image, fOptions.alpha)) return why = reason(""), false;
      fOwned.reset(image);
      fGrey = fOptions.alpha + 3;
    } else {
      if (!fDoc.readPicture(image)) return why = reason(""), false;
      fOwned.reset(image);
    }
    fPixels = image->pixels16();
    fWidth = int32_t(image->width());
    fHeight = int32_t(image->height());
    return true;
  }

  TpsdLayer* findLayer(const std::string& name) {
    if (name.size() > 1 && name[0] == '#') {
      char* end = nullptr;
      long n = std::strtol(name.c_str() + 1, &end, 10);
      std::vector<TpsdLayer*> layers = ordinaryLayers(fDoc);
      if (*end == '\0' && n >= 0) return size_t(n) < layers.size() ? layers[size_t(n)] : nullptr;
    }
    return fDoc.getLayerObjFromName(Tstring(name.c_str()));
  }

  TpsdFile fDoc;
  TreadOptions fOptions;
  TimageInfo fSpec;
  int fFrames = 1;
  TpixelData16* fPixels = nullptr;
  std::unique_ptr<TrgbaData> fOwned;
  PHOTOSHOP_CHANNEL fGrey = -1;  // the one channel of an alpha channel's picture
  int32_t fWidth = 0, fHeight = 0;
};

class PsdWriter : public WriterBackend {
 public:
  bool open(ToutputStream& out, const TimageInfo& spec, const TwriteOptions&, std::string& why) override {
    fPath = out.path();
    if (fPath.empty()) return why = out.error(), false;
    return nextFrame(spec, why);
  }

  bool writeRows(int32_t y0, int32_t count, const uint8_t* pixels, size_t rowBytes, const float*, size_t,
                 std::string&) override {
    Frame& f = fFrames.back();
    const int channels = f.spec.channels();
    const size_t bytes = TsampleBytes(f.spec.sampleType), width = size_t(f.spec.width);
    uint8_t* planes[4] = {f.pixels->getRedPixelPtr(), f.pixels->getGreenPixelPtr(), f.pixels->getBluePixelPtr(),
                          f.spec.alpha ? f.pixels->getTransparencyPixelPtr() : nullptr};
    for (int32_t i = 0; i < count; ++i) {
      const uint8_t* in = pixels + size_t(i) * rowBytes;
      size_t first = size_t(y0 + i) * width;
      for (size_t x = 0; x < width; ++x)
        for (int p = 0; p < (f.spec.alpha ? 4 : 3); ++p) {
          // Grey goes to all three colour channels.
          int c = p == 3 ? channels - 1 : f.spec.colorChannels == 3 ? p : 0;
          std::memcpy(planes[p] + (first + x) * bytes, in + (x * size_t(channels) + size_t(c)) * bytes, bytes);
        }
    }
    return true;
  }

  bool nextFrame(const TimageInfo& spec, std::string&) override {
    Frame f;
    f.spec = spec;
    TdataFormat format = spec.sampleType == TsampleType::kUint16 ? dataFormat16 : dataFormat8;
    f.pixels = new TpixelData16(format, uint32_t(spec.width), uint32_t(spec.height), false);
    if (spec.alpha) f.pixels->addChannel(channelTransparency, uint32_t(spec.width), uint32_t(spec.height), 0);
    f.image =
        std::make_unique<TrgbaData>(uint32_t(spec.width), uint32_t(spec.height), f.pixels, spec.alpha ? 4 : 3, false);
    fFrames.push_back(std::move(f));
    return true;
  }

  bool close(std::string& why) override {
    const TimageInfo& first = fFrames.front().spec;
    TpsdFile doc;
    doc.fDepth = first.sampleType == TsampleType::kUint16 ? 16 : 8;
    unsigned short w = uint16_t(first.width), h = uint16_t(first.height);
    doc.create(TfilePath(fPath.c_str()), w, h);
    bool ok = doc.addBackGroundLayerInfo(fFrames.front().image.get(), "Background");
    for (size_t i = 1; ok && i < fFrames.size(); ++i)
      ok = doc.addNormalLayer(Tstring(("Layer " + std::to_string(i)).c_str()), fFrames[i].image.get());
    // The flattened image is the first frame, or with layers above it their composite.
    TrgbaData* flat = fFrames.front().image.get();
    if (ok && fFrames.size() > 1) {
      ok = doc.flattenLayers();
    } else if (ok) {
      for (PHOTOSHOP_CHANNEL c : {channelRed, channelGreen, channelBlue})
        doc.fCompositePixels->copyChannel(c, *flat->pixels16());
      if (flat->pixels16()->getTransparencyPixelPtr())
        ok = doc.setCompositeTransparency(flat->pixels16()->getTransparencyPixelPtr());
    }
    if (ok) ok = doc.savePsdFile(TfilePath(fPath.c_str()));
    if (!ok) why = doc.lastReason().isEmpty() ? "the document cannot be written" : doc.lastReason().str();
    return ok;
  }

 private:
  struct Frame {
    TimageInfo spec;
    TpixelData16* pixels = nullptr;  // owned by `image`
    std::unique_ptr<TrgbaData> image;
  };
  std::string fPath;
  std::vector<Frame> fFrames;
};

}  // namespace

bool copyDocument(const std::string& input, const std::string& output, std::string& why) {
  TpsdFile doc;
  doc.open(TfilePath(input.c_str()), true);  // edit mode: saved elsewhere whole
  if (doc.fPath.fullName().isEmpty() || (!doc.readAllLayerRecordInformation() && !doc.lastReason().isEmpty())) {
    why = input + ": " +
          (doc.lastReason().isEmpty() ? "not a Photoshop document this library reads" : doc.lastReason().str());
    return false;
  }
  if (!doc.savePsdFile(TfilePath(output.c_str()))) {
    why = output + ": " + (doc.lastReason().isEmpty() ? "the document cannot be written" : doc.lastReason().str());
    return false;
  }
  return true;
}

std::unique_ptr<ReaderBackend> psdReader() { return std::make_unique<PsdReader>(); }
std::unique_ptr<WriterBackend> psdWriter() { return std::make_unique<PsdWriter>(); }

}  // namespace kelpio
