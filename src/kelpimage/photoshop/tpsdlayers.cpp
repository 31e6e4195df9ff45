// The layer and mask section: layer records, the global mask and the global
// blocks, with the layers of 16-bit documents inside the block "Lr16".
#include <cstdlib>

#include "kelpimage/photoshop/psdguard.h"
#include "kelpimage/photoshop/psdstream.h"
#include "kelpimage/photoshop/tpsdfile.h"

namespace zkPhotoshop {

bool TpsdFile::walkLayers(TpsdStream& s) {
  if (!openAndReadStart(s)) return false;
  fLayerMaskSize = s.i32();
  if (fLayerMaskSize <= 0) return false;
  s.require(uint32_t(fLayerMaskSize), "the layer and mask section");
  int64_t sectionEnd = s.tell() + fLayerMaskSize;
  if (fAfterGlobalInfo == 0) readLayerSection(s, sectionEnd);
  fLayerSectionEnd = sectionEnd;
  if (fChannelDataOffset) s.seek(fChannelDataOffset);
  return true;
}

// Where the declared lengths put things is where they are: the global mask
// starts where the layer info's length ends, pad bytes and all.
void TpsdFile::readLayerSection(TpsdStream& s, int64_t sectionEnd) {
  fLayerInfoSize = s.u32();
  if (fLayerInfoSize > uint64_t(sectionEnd - s.tell())) damaged("the layer info runs past its section");
  int64_t infoEnd = s.tell() + fLayerInfoSize;
  if (fLayerInfoSize != 0) readLayersAt(s, infoEnd);
  s.seek(infoEnd);
  if (sectionEnd - s.tell() >= 4) {
    fGlobalMaskSize = s.u32();
    if (fGlobalMaskSize > uint64_t(sectionEnd - s.tell())) damaged("the global mask runs past its section");
    fGlobalMask = s.bytes(fGlobalMaskSize, 0, "the global mask");
  }
  fAfterGlobalMask = int32_t(s.tell());
  readGlobalBlocks(s, sectionEnd);
  fAfterGlobalInfo = int32_t(s.tell());
  recomputeLayerSize();
}

void TpsdFile::readLayersAt(TpsdStream& s, int64_t infoEnd) {
  if (infoEnd - s.tell() < 2) damaged("the layer info has no layer count");
  int16_t count = s.i16();
  // A negative count says the flattened image's first alpha channel is its
  // transparency.
  fMergedTransparency = count < 0;
  fLayerCount = uint16_t(std::abs(int(count)));
  readAllLayerInfo(s);
  uint64_t data = 0;
  for (const auto& layer : fLayers) data += layer->channelBytes();
  if (fChannelDataOffset > infoEnd || data > uint64_t(infoEnd - fChannelDataOffset))
    damaged("the layers' channel data runs past the layer info");
}

void TpsdFile::readAllLayerInfo(TpsdStream& s) {
  if (fLayers.size() == fLayerCount && fChannelDataOffset) {
    s.seek(fChannelDataOffset);
    return;
  }
  fLayers.clear();
  fLayers.reserve(fLayerCount);
  uint32_t running = 0;
  std::vector<uint32_t> warnings;
  for (uint16_t i = 0; i < fLayerCount; ++i) {
    warnings.clear();
    auto layer = std::make_unique<TpsdLayer>();
    layer->readLayerRecord(s, running, warnings);
    if (fSetEndName.isEmpty() && layer->isSetEnd()) fSetEndName = layer->fName;
    if (layer->fSectionType == sectionLayer)
      for (uint32_t code : warnings) addWarningMessage(layer->fName, code);
    fLayers.push_back(std::move(layer));
  }
  fChannelDataOffset = int32_t(s.tell());
}

void TpsdFile::readGlobalMaskInfo(TpsdStream& s) {
  if (fAfterGlobalMask) {
    s.seek(fAfterGlobalMask);
    return;
  }
  fGlobalMaskSize = s.u32();
  fGlobalMask = s.bytes(fGlobalMaskSize, 0, "the global mask");
  fAfterGlobalMask = int32_t(s.tell());
}

void TpsdFile::readAdditionalGlobalInfo(TpsdStream& s) {
  if (fAfterGlobalInfo) {
    s.seek(fChannelDataOffset ? fChannelDataOffset : fAfterGlobalInfo);
    return;
  }
  readGlobalBlocks(s, fLayerSectionEnd ? fLayerSectionEnd : s.size());
  fAfterGlobalInfo = int32_t(s.tell());
  recomputeLayerSize();
}

void TpsdFile::readGlobalBlocks(TpsdStream& s, int64_t end) {
  fGlobalBlocks.clear();
  while (end - s.tell() >= 12) {
    uint32_t signature = s.u32();
    if (!isBlockSignature(signature)) {
      s.seek(s.tell() - 4);
      break;
    }
    uint32_t key = s.u32();
    uint32_t length = s.u32();
    if (length > uint64_t(end - s.tell())) damaged("global block " + keyText(key).str() + " runs past its section");
    int64_t dataEnd = s.tell() + length;
    if (key == fourCC("Lr16")) {
      fLayerInfoSize = length;
      readLayersAt(s, dataEnd);
      s.seek(dataEnd);
      fLr16Pad = skipBlockPad(s, end);
    } else {
      TpsdBlock block;
      block.signature = signature;
      block.key = key;
      block.length = length;
      block.data = s.bytes(length, 0, "a global block");
      block.pad = skipBlockPad(s, end);
      fGlobalBlocks.push_back(std::move(block));
    }
  }
  // Whatever the section holds behind its blocks goes back out with them.
  fSectionTail = s.bytes(uint64_t(std::max<int64_t>(end - s.tell(), 0)), 0, "the layer section's end");
}

bool TpsdFile::seekToEndOfChannelData(TpsdStream& s) {
  if (fChannelDataOffset == 0) return false;
  int64_t at = fChannelDataOffset;
  for (const auto& layer : fLayers) at += int64_t(layer->channelBytes());
  if (fDepth == 16) at += 4 - fLayerInfoSize % 4;
  s.seek(at);
  return true;
}

void TpsdFile::recomputeLayerSize() {
  if (fLayers.empty() || !fEditMode) return;
  uint64_t info = 2;
  for (const auto& layer : fLayers) {
    if (layer->fState == 2) continue;
    info += layer->fExtraSize + layer->fChannelCount * 6u + 34 + layer->channelBytes();
  }
  fLayerInfoSize = uint32_t(info);
  uint64_t running = fDepth == 16 ? 0 : 4;
  for (const TpsdBlock& b : fGlobalBlocks) {
    running += 12;
    if (b.length) running += b.length + (fDepth == 16 ? 4 - b.length % 4 : 0);
  }
  fLayerMaskSize = int32_t(running + fLayerInfoSize + (fDepth == 16 ? 20 : 4));
}

bool TpsdFile::readAllLayerRecordInformation() {
  return guarded(
      [&] {
        TpsdStream s;
        return walkLayers(s);
      },
      false);
}

int TpsdFile::getAllLayerNames(TstringArray& names) {
  return guarded(
      [&] {
        TpsdStream s;
        if (!walkLayers(s)) return s.isOpen() && fLastError.isEmpty() ? 0 : -1;
        for (const auto& layer : fLayers)
          if (layer->fSectionType == sectionLayer) names.addLast(layer->fName);
        return 0;
      },
      -1);
}

int TpsdFile::readLayerSetNames(TstringArray& names) {
  return guarded(
      [&] {
        TpsdStream s;
        if (!walkLayers(s)) return s.isOpen() && fLastError.isEmpty() ? 0 : -1;
        // From the top down, the heads met at nesting depth 0 are the outermost.
        std::vector<Tstring> found;
        int depth = 0;
        for (auto it = fLayers.rbegin(); it != fLayers.rend(); ++it) {
          if ((*it)->isSetHead()) {
            if (depth == 0) found.push_back((*it)->fName);
            ++depth;
          } else if ((*it)->isSetEnd()) {
            --depth;
          }
        }
        for (auto it = found.rbegin(); it != found.rend(); ++it) names.addLast(*it);
        return 0;
      },
      -1);
}

int TpsdFile::getLayerFromName(const Tstring& name, TpsdLayer*& layer) const {
  layer = getLayerObjFromName(name);
  return layer ? 0 : -1;
}

TpsdLayer* TpsdFile::getLayerObjFromName(const Tstring& name) const {
  for (const auto& layer : fLayers)
    if (layer->isNamed(name)) return layer.get();
  return nullptr;
}

bool TpsdFile::isNextLayerGrouped(const TpsdLayerPtrArray& layers, TpsdLayerPtrArray::const_iterator it) {
  if (it == layers.end() || std::next(it) == layers.end()) return false;
  return (*std::next(it))->fClipping != 0;
}

}  // namespace zkPhotoshop
