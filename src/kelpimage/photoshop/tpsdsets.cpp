// Layer sets become pictures: the layers between a set's end and its head
// are blended bottom to top, with masks, opacity, clipping groups and
// nested sets, on canvases of the document's size.
#include <algorithm>

#include "kelpimage/photoshop/psdguard.h"
#include "kelpimage/photoshop/psdstream.h"
#include "kelpimage/photoshop/tpsdblender.h"
#include "kelpimage/photoshop/tpsdfile.h"

namespace zkPhotoshop {

namespace {

void blendOntoCanvas(const TpsdLayer& layer, TpixelData16& source, TpixelData16& canvas, uint32_t width,
                     uint32_t height, unsigned threads) {
  TlRect c = layer.clamped(layer.fRect, width, height);
  TpsdBlender(threads).blend(source, canvas, layer.fBlendKey, c.top, c.left, c.bottom, c.right);
}

// The scratch canvas of one layer: its pixels at their place, opaque where
// it has no transparency of its own, its mask applied.
void drawLayer(TpsdLayer& layer, TpixelData16& scratch, uint32_t width, uint32_t height, TdataFormat format) {
  layer.copyToCanvas(width, height, scratch);
  layer.makeOpaqueWithoutTransparency(width, height, scratch);
  layer.applyMask(width, height, format, scratch);
}

}  // namespace

void TpsdFile::blendLayersInSet(const std::vector<TpsdLayer*>& layers, uint32_t width, uint32_t height,
                                TdataFormat format, std::unique_ptr<TpixelData16>& canvas) {
  if (width == 0 || height == 0) return;
  if (!canvas) {
    canvas = std::make_unique<TpixelData16>(format, width, height, true);
    canvas->addChannel(channelTransparency, width, height, 0);
  }
  TpixelData16 scratch(format, width, height, true);
  for (size_t i = 0; i < layers.size(); ++i) {
    TpsdLayer& layer = *layers[i];
    if (layer.fClipping || layer.isEmpty() || layer.isHidden()) continue;
    scratch.initialize(0, 0);
    drawLayer(layer, scratch, width, height, format);
    if (i + 1 < layers.size() && layers[i + 1]->fClipping) clipLayersInSet(layers, i, scratch, width, height, format);
    scratch.applyOpacity(layer.fOpacity);
    blendOntoCanvas(layer, scratch, *canvas, width, height, fThreads);
  }
}

// The clipped layers' colours land on the base; the base's transparency,
// as it was before its mask, is what stays.
void TpsdFile::clipLayersInSet(const std::vector<TpsdLayer*>& layers, size_t base, TpixelData16& scratch,
                               uint32_t width, uint32_t height, TdataFormat format) {
  TpixelData16 work(format, width, height, true);
  TpixelData16 baseImage(format, width, height, true);
  baseImage.initialize(uint16_t(baseImage.getMaxColor()), 0);
  layers[base]->copyToCanvas(width, height, baseImage);
  layers[base]->makeOpaqueWithoutTransparency(width, height, baseImage);
  for (size_t i = base + 1; i < layers.size() && layers[i]->fClipping; ++i) {
    TpsdLayer& clipped = *layers[i];
    if (clipped.isHidden()) continue;
    work.initialize(uint16_t(work.getMaxColor()), 0);
    drawLayer(clipped, work, width, height, format);
    blendOntoCanvas(clipped, work, scratch, width, height, fThreads);
    blendClippingInSet(int(i), scratch, baseImage);
  }
}

void TpsdFile::blendClippingInSet(int, TpixelData16& destination, const TpixelData16& source) {
  destination.copyChannel(channelTransparency, source);
}

void TpsdFile::applySetMask(uint32_t width, uint32_t height, TdataFormat format, TpsdLayer& layer,
                            TpixelData16& canvas) {
  layer.applyMask(width, height, format, canvas);
}

bool TpsdFile::checkForLayerVisibility(int index, int level, bool visible) const {
  std::vector<bool> shown(size_t(std::max(level, 1)), visible);
  for (int i = index - 1; i >= 0 && !shown.empty(); --i) {
    const TpsdLayer& l = *fLayers[size_t(i)];
    if (l.isSetHead())
      shown.push_back(shown.back() && !l.isHidden());
    else if (l.isSetEnd())
      shown.pop_back();
    else if (shown.back() && !l.isHidden())
      return true;
  }
  return false;
}

bool TpsdFile::checkForLayerVisibility(int index) const {
  if (index < 0 || size_t(index) >= fLayers.size()) return false;
  const TpsdLayer& l = *fLayers[size_t(index)];
  if (l.isSetHead()) return checkForLayerVisibility(index, 1, !l.isHidden());
  return l.fSectionType == sectionLayer && !l.isHidden();
}

bool TpsdFile::isLayerSetVisible(const Tstring& name) const {
  if (fLayers.size() != fLayerCount) return false;
  for (int i = int(fLayers.size()) - 1; i >= 0; --i) {
    const TpsdLayer& l = *fLayers[size_t(i)];
    if (!l.isNamed(name)) continue;
    return !l.isHidden() && checkForLayerVisibility(i, 1, true);
  }
  return false;
}

bool TpsdFile::findLayerSet(const Tstring& name, int& head, int& end) const {
  // The head, from the top; its end is where the nesting returns to 0.
  head = end = -1;
  for (int i = int(fLayers.size()) - 1; i >= 0 && head < 0; --i)
    if (fLayers[size_t(i)]->isSetHead() && fLayers[size_t(i)]->isNamed(name)) head = i;
  for (int i = head, depth = 0; i >= 0 && end < 0; --i) {
    if (fLayers[size_t(i)]->isSetHead()) ++depth;
    if (fLayers[size_t(i)]->isSetEnd() && --depth == 0) end = i;
  }
  return head >= 0 && end >= 0;
}

bool TpsdFile::compositeLayers(int first, int last, std::unique_ptr<TpixelData16>& current) {
  const uint32_t w = fImageWidth, h = fImageHeight;
  std::vector<TpsdLayer*> pending;
  std::vector<std::unique_ptr<TpixelData16>> stack;
  for (int i = first; i < last; ++i) {
    TpsdLayer& layer = *fLayers[size_t(i)];
    if (layer.fState == 2) continue;  // deleted
    if (!loadLayer(layer)) return false;
    if (layer.isSetEnd()) {
      if (!pending.empty()) blendLayersInSet(pending, w, h, fDataFormat, current);
      pending.clear();
      stack.push_back(std::move(current));
    } else if (layer.isSetHead()) {
      std::unique_ptr<TpixelData16> top;
      if (!stack.empty()) {
        top = std::move(stack.back());
        stack.pop_back();
      }
      if (layer.isHidden()) {
        // What was composited inside a hidden set is dropped.
        pending.clear();
        current = std::move(top);
        continue;
      }
      if (!pending.empty()) blendLayersInSet(pending, w, h, fDataFormat, current);
      pending.clear();
      if (current) {
        applySetMask(w, h, fDataFormat, layer, *current);
        current->applyOpacity(layer.fOpacity);
      }
      if (top) {
        if (current) TpsdBlender(fThreads).blend(*current, *top, layer.fBlendKey, 0, 0, int32_t(h), int32_t(w));
        current = std::move(top);
      }
    } else {
      pending.push_back(&layer);
    }
  }
  if (!pending.empty()) blendLayersInSet(pending, w, h, fDataFormat, current);
  return true;
}

bool TpsdFile::readDocumentImage(TrgbaData*& out) {
  out = nullptr;
  return guarded(
      [&] {
        TpsdStream s;
        if (!fCreated && !walkLayers(s) && !fLastError.isEmpty()) return false;
        std::unique_ptr<TpixelData16> current;
        if (!compositeLayers(0, int(fLayers.size()), current)) return false;
        if (!current) {
          current = std::make_unique<TpixelData16>(fDataFormat, fImageWidth, fImageHeight, true);
          current->initialize(0, 0);
          current->addChannel(channelTransparency, fImageWidth, fImageHeight, 0);
        }
        out = new TrgbaData(fImageWidth, fImageHeight, current.release(), 4, false);
        return true;
      },
      false);
}

bool TpsdFile::flattenLayers() {
  TrgbaData* made = nullptr;
  if (!readDocumentImage(made)) return false;
  std::unique_ptr<TrgbaData> image(made);
  addBackGroundLayerInfo(nullptr, nullptr);
  if (!fCompositePixels) return fail("has no flattened image to fill"), false;
  for (PHOTOSHOP_CHANNEL c : {channelRed, channelGreen, channelBlue})
    fCompositePixels->copyChannel(c, *image->pixels16());
  return true;
}

bool TpsdFile::addWhiteBackground() {
  auto pixels = std::make_unique<TpixelData16>(fDataFormat, fImageWidth, fImageHeight, false);
  pixels->addChannel(channelTransparency, fImageWidth, fImageHeight, uint16_t(pixels->getMaxColor()));
  TrgbaData background(fImageWidth, fImageHeight, pixels.release(), 4, false);
  return addBackGroundLayerInfo(&background, "Background");
}

bool TpsdFile::readLayerSetImage(const Tstring& name, TrgbaData*& out) {
  out = nullptr;
  TpsdStream s;
  if (!walkLayers(s)) {
    if (fLastError.isEmpty()) fail("has no layers");
    return false;
  }
  int head = -1, end = -1;
  if (!findLayerSet(name, head, end)) {
    addWarningMessage(name, warnEmptyLayerSet);
    fail(Tstring("has no layer set \"") + name + Tstring("\""));
    return false;
  }
  if (head - end - 1 == 0 || !isLayerSetVisible(name)) addWarningMessage(name, warnEmptyLayerSet);
  std::unique_ptr<TpixelData16> current;
  if (!compositeLayers(end + 1, head, current)) return false;
  const uint32_t w = fImageWidth, h = fImageHeight;
  TpsdLayer& own = *fLayers[size_t(head)];
  if (!loadLayer(own)) return false;
  if (current) {
    applySetMask(w, h, fDataFormat, own, *current);
    current->applyOpacity(own.fOpacity);
  }
  if (!current) {
    fail(Tstring("layer set \"") + name + Tstring("\" has no image"));
    return false;
  }
  out = new TrgbaData(w, h, current.release(), 4, false);
  return true;
}

bool TpsdFile::getCompositeImageOfLayerSet(const Tstring& name, TrgbaData*& out) {
  out = nullptr;
  auto kept = fSetImages.find(name);
  if (kept != fSetImages.end()) {
    out = kept->second.get();
    return true;
  }
  return guarded(
      [&] {
        TrgbaData* made = nullptr;
        if (!readLayerSetImage(name, made)) return false;
        fSetImages[name].reset(made);
        out = made;
        return true;
      },
      false);
}

}  // namespace zkPhotoshop
