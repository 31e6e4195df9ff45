// kimg psd editing: a new document, or a document read whole, changed by
// the options in a fixed order and saved to -o OUT (under a temporary name,
// renamed when whole).
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "files.h"
#include "kelpimage/io/timagereader.h"
#include "kelpimage/photoshop/tpsdfile.h"
#include "kelpimage/photoshop/tpsdwarning.h"
#include "psd.h"
#include "util.h"

namespace kimg {

using namespace zkPhotoshop;

namespace {

bool split(const std::string& text, std::string& name, std::string& value) {
  size_t at = text.rfind('=');
  if (at == std::string::npos || at == 0) return false;
  name = text.substr(0, at);
  value = text.substr(at + 1);
  return true;
}

// A picture of any format the library reads, as the channels of a layer
// of `format` (8 or 16 bits): red, green, blue and transparency, the top
// row first.
std::unique_ptr<TrgbaData> pictureOf(const std::string& name, TdataFormat format, std::string& why) {
  Input input(name);
  TimageReader reader;
  if (!input.error().empty() || !reader.open(input.path())) {
    why = input.error().empty() ? reader.error() : input.error();
    return nullptr;
  }
  const TimageInfo& spec = reader.spec();
  const bool wide = format == dataFormat16;
  const TsampleType type = wide ? TsampleType::kUint16 : TsampleType::kUint8;
  std::vector<uint8_t> rows(spec.rowBytes(type) * size_t(spec.height));
  if (!reader.readImage(rows.data(), type)) {
    why = reader.error();
    return nullptr;
  }
  uint32_t w = uint32_t(spec.width), h = uint32_t(spec.height);
  auto pixels = std::make_unique<TpixelData16>(format, w, h, false);
  pixels->addChannel(channelTransparency, w, h, uint16_t(pixels->getMaxColor()));
  const size_t channels = size_t(spec.channels());
  auto sample = [&](size_t i) -> uint16_t {
    return wide ? reinterpret_cast<const uint16_t*>(rows.data())[i] : rows[i];
  };
  for (uint32_t i = 0; i < w * h; ++i) {
    size_t at = i * channels;
    bool grey = spec.colorChannels == 1;
    pixels->setRed(i, sample(at));
    pixels->setGreen(i, sample(grey ? at : at + 1));
    pixels->setBlue(i, sample(grey ? at : at + 2));
    if (spec.alpha) pixels->setTrans(i, sample(at + channels - 1));
  }
  return std::make_unique<TrgbaData>(w, h, pixels.release(), 4, false);
}

uint32_t keyOf(std::string key) {
  key.resize(4, ' ');
  return uint32_t(uint8_t(key[0])) << 24 | uint32_t(uint8_t(key[1])) << 16 | uint32_t(uint8_t(key[2])) << 8 |
         uint8_t(key[3]);
}

int applyEdits(TpsdFile& doc, const PsdOptions& o, const std::string& file) {
  std::string name, value, why;
  for (const std::string& set : o.addSets) doc.addNewLayerSet(Tstring(set.c_str()));
  for (const std::string& add : o.addToSets) {
    if (!split(add, name, value)) return usage("--add-to-set takes SET=LAYER: " + add);
    if (!doc.addNewLayerToGivenSet(Tstring(name.c_str()), Tstring(value.c_str())))
      return fail(file, "has no layer set \"" + name + "\"");
  }
  for (const std::string& add : o.addLayers) {
    if (!split(add, name, value)) return usage("--add-layer takes NAME=PICTURE: " + add);
    auto picture = pictureOf(value, doc.fDataFormat, why);
    if (!picture) return fail(value, why);
    if (!doc.addImageToTheGivenLayer(Tstring(name.c_str()), picture.get(), false, 0))
      return fail(file, doc.lastReason().str());
  }
  for (const std::string& add : o.addAlphas) {
    if (!split(add, name, value)) return usage("--add-alpha takes NAME=PICTURE: " + add);
    auto picture = pictureOf(value, doc.fDataFormat, why);
    if (!picture) return fail(value, why);
    if (picture->width() != doc.fImageWidth || picture->height() != doc.fImageHeight)
      return fail(value, "is not of the document's size");
    // The alpha channel is the picture's red channel (grey pictures have it in all three).
    if (!doc.addAlphaChannelToComposite(Tstring(name.c_str()), picture->pixels16()->getRedPixelPtr()))
      return fail(file, "has no room for another alpha channel");
  }
  for (const std::string& blend : o.blends) {
    if (!split(blend, name, value) || value.empty() || value.size() > 4)
      return usage("--blend takes NAME=KEY, a key of up to four characters: " + blend);
    if (!doc.getLayerObjFromName(Tstring(name.c_str()))) return fail(file, "has no layer \"" + name + "\"");
    doc.setBlendKey(Tstring(name.c_str()), keyOf(value));
  }
  for (const std::string& opacity : o.opacities) {
    char* end = nullptr;
    long n = split(opacity, name, value) ? std::strtol(value.c_str(), &end, 10) : -1;
    if (!end || *end || n < 0 || n > 255) return usage("--opacity takes NAME=N, N from 0 to 255: " + opacity);
    if (!doc.setOpacity(Tstring(name.c_str()), uint32_t(n))) return fail(file, "has no layer \"" + name + "\"");
  }
  for (const std::string& layer : o.deleteLayers)
    if (!doc.deleteLayer(Tstring(layer.c_str()))) return fail(file, "has no ordinary layer \"" + layer + "\"");
  for (const std::string& set : o.deleteSets) {
    if (!doc.getLayerObjFromName(Tstring(set.c_str()))) return fail(file, "has no layer set \"" + set + "\"");
    doc.deleteLayerSet(Tstring(set.c_str()));
  }
  return 0;
}

}  // namespace

bool psdEditing(const PsdOptions& o) {
  return !o.addLayers.empty() || !o.addSets.empty() || !o.addToSets.empty() || !o.deleteLayers.empty() ||
         !o.deleteSets.empty() || !o.blends.empty() || !o.opacities.empty() || !o.addAlphas.empty() ||
         !o.newSize.empty() || (!o.out.empty() && o.set.empty());
}

int psdEdit(const PsdOptions& o) {
  if (o.out.empty()) return usage("editing a document needs -o OUT (OUT may be the document itself)");
  TpsdFile doc;
  std::string name = o.newSize.empty() ? o.file : o.out;
  if (!o.newSize.empty()) {
    unsigned short w = 0, h = 0;
    if (o.newSize.size() != 2 || o.newSize[0] < 1 || o.newSize[1] < 1 || o.newSize[0] > 30000 || o.newSize[1] > 30000)
      return usage("--new takes a width and a height, each from 1 to 30000");
    w = uint16_t(o.newSize[0]), h = uint16_t(o.newSize[1]);
    doc.fDepth = uint16_t(o.depth);
    doc.create(TfilePath(o.out.c_str()), w, h);
    doc.addWhiteBackground();
  } else {
    if (int status = psdOpen(o.file, doc)) return status;
    doc.open(TfilePath(o.file.c_str()), true);  // edit mode: saved to -o
    if (!doc.readAllLayerRecordInformation() && !doc.lastReason().isEmpty())
      return fail(o.file, doc.lastReason().str());
  }
  theWarnings().clear();
  if (int status = applyEdits(doc, o, name)) return status;
  if (!o.newSize.empty() && !doc.flattenLayers()) return fail(o.out, doc.lastReason().str());
  if (!doc.savePsdFile(TfilePath(o.out.c_str()))) return fail(o.out, doc.lastReason().str());
  return 0;
}

}  // namespace kimg
