// Changing a document in memory: new documents, layers, layer sets and
// alpha channels, images into layers, deletions, blend keys and opacity.
// Each call keeps the section lengths current by exact byte counts.
#include <algorithm>
#include <cstring>

#include "kelpimage/photoshop/channelwork.h"
#include "kelpimage/photoshop/psdguard.h"
#include "kelpimage/photoshop/psdstream.h"
#include "kelpimage/photoshop/tpsdfile.h"

namespace zkPhotoshop {

namespace {

constexpr uint32_t kNoRange = 65535;  // a blending range that lets everything through

int32_t change(const TpsdFile& doc, const TpsdLayer& layer) { return int32_t(doc.layerSize(layer)); }

}  // namespace

// Edits of an opened document act on its layers and resources as read:
// they are read first if they were not.
void TpsdFile::ensureRead() {
  if (!fCreated && !fPath.fullName().isEmpty() && fAfterGlobalInfo == 0 && !fCompositeAdded)
    readAllLayerRecordInformation();
}

int TpsdFile::create(const TfilePath& path, unsigned short& width, unsigned short& height) {
  TphotoshopFile::create(path, width, height);
  fCreated = true;  // whatever is at the path now is not read, only replaced
  setColorDepth(fDepth);
  fSaveNeeded = true;
  fEditMode = false;
  fChannelCount = 3;
  fColorMode = 3;
  fImageCompression = 1;
  return 0;
}

uint32_t TpsdFile::getLayerIdForNewLayer() const {
  uint32_t largest = 0;
  for (const auto& layer : fLayers) largest = std::max(largest, layer->fLayerId);
  return largest + 1;
}

TpsdResource* TpsdFile::resource(uint16_t id) {
  for (TpsdResource& r : fResources)
    if (r.id == id) return &r;
  return nullptr;
}

// A resource's data grows or shrinks by `change` bytes, all zero.
void TpsdFile::resizeResource(TpsdResource& r, int64_t change) {
  int64_t size = std::max<int64_t>(int64_t(r.size) + change, 0);
  fResourcesSize = uint32_t(int64_t(fResourcesSize) + size - r.size);
  r.size = uint32_t(size);
  r.data.assign(r.size, 0);
}

void TpsdFile::updateImageResources() {
  for (TpsdResource& r : fResources)
    if (r.id == 1026 && r.size) {
      r.data.resize(r.size + 2, 0);
      r.size += 2;
      fResourcesSize += 2;
      return;
    }
}

// Packs the layer's channels, on all cores, by the methods of its record;
// the expanded samples are given back (they come back on demand).
void TpsdFile::fillLayerCompression(TpsdLayer& layer) {
  if (!layer.fPixels) return;
  std::vector<Tchannel*> pack;
  for (TpsdChannelInfo& info : layer.fChannels) {
    Tchannel* ch = layer.fPixels->channel(info.id);
    if (ch && !ch->hasCompressed()) {
      ch->fCompression = int32_t(info.compression);
      pack.push_back(ch);
    }
  }
  compressInParallel(pack, fThreads);
  for (TpsdChannelInfo& info : layer.fChannels) {
    Tchannel* ch = layer.fPixels->channel(info.id);
    info.length = ch ? ch->fDataLength + 2 : 2;
    if (!ch) continue;
    info.compression = uint32_t(ch->fCompression);
    ch->releaseRaw();
  }
}

void TpsdFile::initRecord(TpsdLayer& layer, const Tstring& name, int channels, TrgbaData* image, uint32_t layerId) {
  layer.fBlocks.clear();
  TpsdBlock id;
  id.signature = fourCC("8BIM");
  id.key = fourCC("lyid");
  id.length = 4;
  layer.fBlocks.push_back(id);
  layer.fLayerId = layerId;
  layer.fExtraSize = 16;
  layer.fRect = TlRect{};
  if (image) {
    layer.fRect.bottom = int32_t(image->height());
    layer.fRect.right = int32_t(image->width());
  }
  uint32_t compression = fDepth == 16 ? compressionZipPredict : compressionRLE;
  layer.fChannels.clear();
  for (int c = channels == 4 ? -1 : 0; c < 3; ++c) {
    TpsdChannelInfo info;
    info.id = int16_t(c);
    info.length = 2;
    info.compression = compression;
    layer.fChannels.push_back(info);
  }
  layer.fChannelCount = uint16_t(layer.fChannels.size());
  if (image) fillLayerCompression(layer);
  layer.fSignature = fourCC("8BIM");
  layer.fBlendKey = fourCC("norm");
  layer.fOpacity = 255;
  layer.fClipping = 0;
  layer.fFiller = 0;
  layer.fFlags = name == "Background" ? 41 : 40;
  layer.fMaskSize = 0;
  layer.fMaskRect = TlRect{};
  layer.fMaskFlags = 0;
  layer.fMaskData.clear();
  layer.fRangesSize = 40;
  layer.fGraySource = layer.fGrayDest = kNoRange;
  layer.fRanges.assign(4, {kNoRange, kNoRange});
  layer.fName = name;
  layer.fPascalName = name.str().substr(0, 255);
  layer.fSectionType = sectionLayer;
  uint32_t nameBytes = uint32_t(std::min(name.length(), 255)) + 1;
  layer.fExtraSize += (nameBytes + 3) / 4 * 4 + layer.fMaskSize + layer.fRangesSize + 8;
}

void TpsdFile::initSetRecord(TpsdLayer& layer, const Tstring& name, int channels, bool isEnd, TrgbaData* image,
                             uint32_t layerId) {
  initRecord(layer, name, channels, image, layerId);
  TpsdBlock section;
  section.signature = fourCC("8BIM");
  section.key = fourCC("lsct");
  section.length = isEnd ? 4 : 12;
  layer.fBlocks.push_back(section);
  layer.fSectionType = isEnd ? sectionSetEnd : sectionOpenSet;
  if (!isEnd) {
    layer.fSectionSignature = fourCC("8BIM");
    layer.fSectionBlendKey = fourCC("pass");
  }
  layer.fExtraSize += 12 + section.length;
}

void TpsdFile::addCompositeImage(TrgbaData* image) {
  if (fCompositePixels) return;
  if (image && image->pixels16()) {
    fCompositePixels = std::make_unique<TpixelData16>(*image->pixels16());
  } else {
    fCompositePixels = std::make_unique<TpixelData16>(fDataFormat, fImageWidth, fImageHeight, false);
    fCompositePixels->initialize(0, 0);
  }
}

void TpsdFile::addCompositeImageInfo(TrgbaData*) {
  fLayerInfoSize = 0;
  fLayerCount = 0;
  addCompositeImage(nullptr);
}

bool TpsdFile::addBackGroundLayerInfo(TrgbaData* image, const char* name) {
  ensureRead();
  if (!fCompositeAdded && !fEditMode) {
    fLayerMaskSize = 8;
    fLayerInfoSize = 0;
    fLayerCount = 0;
    fCompositeAdded = true;
  }
  addCompositeImage(nullptr);
  if (!fBackgroundAdded && !fEditMode) {
    addBGLayer(image, name);
    fBackgroundAdded = true;
  }
  return true;
}

TpsdLayer* TpsdFile::addNewLayerToList() {
  ensureRead();
  updateImageResources();
  fLayers.push_back(std::make_unique<TpsdLayer>());
  ++fLayerCount;
  fLayers.back()->fState = 1;
  return fLayers.back().get();
}

namespace {

// A layer's pixels from a picture: a layer always has transparency, opaque
// for a picture without.
std::unique_ptr<TpixelData16> opaqueCopy(TrgbaData& image) {
  auto pixels = std::make_unique<TpixelData16>(*image.pixels16());
  if (!pixels->channel(channelTransparency))
    pixels->addChannel(channelTransparency, image.width(), image.height(), uint16_t(pixels->getMaxColor()));
  return pixels;
}

}  // namespace

TpsdLayer* TpsdFile::addBGLayer(TrgbaData* image, const char* name) {
  uint32_t id = getLayerIdForNewLayer();
  TpsdLayer* layer = addNewLayerToList();
  if (image && image->pixels16()) layer->fPixels = opaqueCopy(*image);
  initRecord(*layer, Tstring(name ? name : "Background"), image ? 4 : 3, image, id);
  fLayerInfoSize += uint32_t(change(*this, *layer));
  fLayerMaskSize += change(*this, *layer);
  return layer;
}

bool TpsdFile::insertNewLayer(const Tstring& name, TrgbaData* image, int index) {
  return guarded(
      [&] {
        addBackGroundLayerInfo(nullptr, nullptr);
        uint32_t id = getLayerIdForNewLayer();
        TpsdLayer* layer = addNewLayerToList();
        if (image && image->pixels16()) layer->fPixels = opaqueCopy(*image);
        initRecord(*layer, name, 4, image, id);
        fLayerInfoSize += uint32_t(change(*this, *layer));
        fLayerMaskSize += change(*this, *layer);
        if (index >= 0 && size_t(index) < fLayers.size() - 1) {
          std::unique_ptr<TpsdLayer> moved = std::move(fLayers.back());
          fLayers.pop_back();
          fLayers.insert(fLayers.begin() + index, std::move(moved));
        }
        return true;
      },
      false);
}

bool TpsdFile::addNormalLayer(const Tstring& name, TrgbaData* image) { return insertNewLayer(name, image, -1); }

void TpsdFile::addEmptyLayer(const Tstring& name) {
  uint32_t id = getLayerIdForNewLayer();
  TpsdLayer* layer = addNewLayerToList();
  initSetRecord(*layer, name, 4, name == fSetEndName, nullptr, id);
  fLayerInfoSize += uint32_t(change(*this, *layer));
  fLayerMaskSize += change(*this, *layer);
}

void TpsdFile::addNewLayerSet(const Tstring& name) {
  addBackGroundLayerInfo(nullptr, nullptr);
  if (fSetEndName.isEmpty()) fSetEndName = Tstring("</Layer set>");
  addEmptyLayer(fSetEndName);
  addEmptyLayer(name);
}

bool TpsdFile::addNewLayerToGivenSet(const Tstring& setName, const Tstring& layerName) {
  ensureRead();
  auto found = std::find_if(fLayers.begin(), fLayers.end(), [&](const auto& l) { return l->isNamed(setName); });
  if (found == fLayers.end()) return false;
  size_t at = size_t(found - fLayers.begin());
  updateImageResources();
  auto layer = std::make_unique<TpsdLayer>();
  initRecord(*layer, layerName, 4, nullptr, getLayerIdForNewLayer());
  layer->fState = 1;
  fLayerInfoSize += uint32_t(change(*this, *layer));
  fLayerMaskSize += change(*this, *layer);
  fLayers.insert(fLayers.begin() + long(at), std::move(layer));
  ++fLayerCount;
  return true;
}

bool TpsdFile::addImageToTheGivenLayer(const Tstring& name, TrgbaData* image, bool insertFlag, int index) {
  ensureRead();
  TpsdLayer* layer = getLayerObjFromName(name);
  if (!layer || layer->fState == 2)
    return insertFlag ? insertNewLayer(name, image, index) : addNormalLayer(name, image);
  return guarded(
      [&] {
        int32_t before = change(*this, *layer);
        if (image && image->pixels16()) layer->fPixels = std::make_unique<TpixelData16>(*image->pixels16());
        if (image) {
          layer->fRect.right = layer->fRect.left + int32_t(image->width());
          layer->fRect.bottom = layer->fRect.top + int32_t(image->height());
        }
        fillLayerCompression(*layer);
        int32_t after = change(*this, *layer);
        fLayerInfoSize = uint32_t(int64_t(fLayerInfoSize) + after - before);
        fLayerMaskSize += after - before;
        return true;
      },
      false);
}

bool TpsdFile::deleteLayer(const Tstring& name) {
  ensureRead();
  TpsdLayer* layer = fLayers.empty() ? nullptr : getLayerObjFromName(name);
  if (!layer || layer->isSetHead()) return false;
  layer->fState = 2;
  if (TpsdResource* groups = resource(1026)) resizeResource(*groups, -2);
  return true;
}

bool TpsdFile::deleteLayerSet(const Tstring& name) {
  ensureRead();
  if (fLayers.empty()) return false;
  int head = -1, end = -1;
  int counted = 0;
  TpsdResource* seed = resource(kResourceIdSeed);
  if (findLayerSet(name, head, end))
    for (int i = end; i <= head; ++i) {
      TpsdLayer& l = *fLayers[size_t(i)];
      if (l.fState == 2) continue;
      fLayerInfoSize -= uint32_t(change(*this, l));
      fLayerMaskSize -= change(*this, l);
      l.fState = 2;
      ++counted;
      if (seed) --seed->value;
    }
  if (TpsdResource* groups = resource(1026)) resizeResource(*groups, -2 * int64_t(counted));
  return true;
}

bool TpsdFile::setBlendKey(const Tstring& name, uint32_t key) {
  ensureRead();
  if (fLayers.empty()) return false;
  TpsdLayer* layer = getLayerObjFromName(name);
  if (!layer) return true;
  layer->fBlendKey = key;
  if (layer->isSetHead())
    for (TpsdBlock& b : layer->fBlocks)
      if (b.key == fourCC("lsct")) {
        b.length = 12;
        layer->fSectionType = sectionOpenSet;
        layer->fSectionSignature = fourCC("8BIM");
        layer->fSectionBlendKey = key;
      }
  return true;
}

bool TpsdFile::setOpacity(const Tstring& name, uint32_t opacity) {
  ensureRead();
  TpsdLayer* layer = getLayerObjFromName(name);
  if (!layer) return false;
  layer->fOpacity = uint8_t(opacity);
  return true;
}

bool TpsdFile::setCompositeTransparency(const uint8_t* alpha) {
  if (!fCompositePixels || fMergedTransparency || fAlphaNames.length() > 0 || fChannelCount != 3) return false;
  const bool wide = fDataFormat == dataFormat16;
  const uint32_t top = wide ? 65535 : 255;
  const size_t count = size_t(fImageWidth) * fImageHeight;
  auto load = [wide](const uint8_t* p, size_t i) -> uint32_t {
    if (!wide) return p[i];
    uint16_t v;
    std::memcpy(&v, p + 2 * i, 2);
    return v;
  };
  for (PHOTOSHOP_CHANNEL c : {channelRed, channelGreen, channelBlue}) {
    uint8_t* colour = fCompositePixels->getChannelPixPtr(c);
    for (size_t i = 0; i < count; ++i) {
      uint64_t a = load(alpha, i);
      auto v = uint32_t((uint64_t(load(colour, i)) * a + uint64_t(top) * (top - a) + top / 2) / top);
      if (wide) {
        auto s16 = uint16_t(v);
        std::memcpy(colour + 2 * i, &s16, 2);
      } else {
        colour[i] = uint8_t(v);
      }
    }
  }
  int32_t method = fCompositePixels->compressionMethod(0);
  fCompositePixels->addChannel(3, fImageWidth, fImageHeight, 0);
  fCompositePixels->setCompressionMethod(3, method);
  fCompositePixels->setChannelRawPixels(3, alpha);
  ++fChannelCount;
  fMergedTransparency = true;
  return true;
}

bool TpsdFile::addAlphaChannelToComposite(const Tstring& name, const uint8_t* pixels) {
  ensureRead();
  if (!fCompositePixels) {
    fCompositePixels = std::make_unique<TpixelData16>(fDataFormat, fImageWidth, fImageHeight, false);
    fCompositeAdded = fBackgroundAdded = true;
    fCompositePixels->initialize(uint16_t(fCompositePixels->getMaxColor()), 0);
    for (auto& [id, ch] : fCompositePixels->fChannels)
      if (ch && ch->fCompression == compressionUnset) ch->fCompression = compressionRLE;
  }
  int id = getValidIndexOfNewChannel();
  if (id > 55) return false;
  int32_t method = fCompositePixels->fChannels.empty() ? compressionRLE : fCompositePixels->compressionMethod(0);
  fCompositePixels->addChannel(id, fImageWidth, fImageHeight, 0);
  fCompositePixels->setCompressionMethod(id, method);
  if (pixels) fCompositePixels->setChannelRawPixels(id, pixels);
  fAlphaNames.addLast(name);
  fAlphaIds.addLast(fAlphaIds.length() ? fAlphaIds[fAlphaIds.length() - 1] + 1 : 2);
  ++fChannelCount;
  for (uint16_t rid : {kResourceAlphaNames, kResourceAlphaIds})
    if (!resource(rid)) {
      TpsdResource r;
      r.signature = fourCC("8BIM");
      r.id = rid;
      fResources.push_back(r);
      fResourcesSize += 12;
    }
  // The sizes are those the writer makes of the names and ids.
  uint32_t names = 0;
  for (int i = 0; i < fAlphaNames.length(); ++i) names += uint32_t(std::min(fAlphaNames[i].length(), 255)) + 1;
  TpsdResource* namesEntry = resource(kResourceAlphaNames);
  fResourcesSize += (names + (names & 1)) - (namesEntry->size + (namesEntry->size & 1));
  namesEntry->size = names;
  TpsdResource* ids = resource(kResourceAlphaIds);
  ids->size += 4;
  fResourcesSize += 4;
  return true;
}

}  // namespace zkPhotoshop
