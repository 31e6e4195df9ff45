// Writing a document: what was read goes out as the bytes it was, and what
// the editing calls made is packed anew. The file is written with no name
// and put in place when whole.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "kelpimage/base/tatomicfile.h"
#include "kelpimage/photoshop/psdguard.h"
#include "kelpimage/photoshop/psdstream.h"
#include "kelpimage/photoshop/tpsdfile.h"

namespace zkPhotoshop {

namespace {}  // namespace

// Bytes in memory, for the parts whose lengths go before them.
struct Buffer {
  std::vector<uint8_t> b;
  void u8(uint32_t v) { b.push_back(uint8_t(v)); }
  void u16(uint32_t v) { u8(v >> 8), u8(v); }
  void u32(uint32_t v) { u16(v >> 16), u16(v); }
  void raw(const void* p, size_t n) {
    b.insert(b.end(), static_cast<const uint8_t*>(p), static_cast<const uint8_t*>(p) + n);
  }
  void zeros(size_t n) { b.insert(b.end(), n, 0); }
};

namespace {

void putRect(Buffer& o, const TlRect& r) {
  o.u32(uint32_t(r.top)), o.u32(uint32_t(r.left)), o.u32(uint32_t(r.bottom)), o.u32(uint32_t(r.right));
}

void put32(std::vector<uint8_t>& d, size_t at, uint32_t v) {
  if (d.size() < at + 4) d.resize(at + 4);
  d[at] = uint8_t(v >> 24), d[at + 1] = uint8_t(v >> 16), d[at + 2] = uint8_t(v >> 8), d[at + 3] = uint8_t(v);
}

// A channel as it goes out: its compression word and its bytes.
struct Payload {
  uint16_t compression = 0;
  const uint8_t* data = nullptr;
  size_t size = 0;
};

std::vector<Payload> payloadsOf(TpsdLayer& layer) {
  std::vector<Payload> out;
  for (TpsdChannelInfo& info : layer.fChannels) {
    Payload p;
    Tchannel* ch = layer.fPixels ? layer.fPixels->channel(info.id) : nullptr;
    if (ch && ch->hasCompressed()) {
      p.compression = uint16_t(ch->fCompression);
      p.data = ch->fCompressed.data();
      p.size = std::min<size_t>(ch->fDataLength, ch->fCompressed.size());
    } else {
      p.compression = uint16_t(info.compression);
      p.data = info.data.data();
      p.size = info.data.size();
    }
    info.length = uint32_t(2 + p.size);
    out.push_back(p);
  }
  return out;
}

std::string nameBytes(const TpsdLayer& l) {
  std::string name = l.fState == 0 ? l.fPascalName : l.fName.str();
  if (name.size() > 255) name.resize(255);
  return name;
}

// Everything of a record behind its extra data length.
Buffer extraOf(const TpsdLayer& l) {
  Buffer e;
  e.u32(l.fMaskSize);
  if (l.fMaskSize && l.fMaskData.size() == l.fMaskSize) {
    e.raw(l.fMaskData.data(), l.fMaskData.size());
  } else if (l.fMaskSize) {
    size_t start = e.b.size();
    putRect(e, l.fMaskRect);
    e.u8(l.fMaskDefault), e.u8(l.fMaskFlags);
    if (l.fMaskSize != 20) {
      e.u8(l.fRealFlags), e.u8(l.fRealDefault);
      putRect(e, l.fRealRect);
    }
    size_t written = e.b.size() - start;
    if (written < l.fMaskSize) e.zeros(l.fMaskSize - written);
    e.b.resize(start + l.fMaskSize);
  }
  e.u32(l.fRangesSize);
  size_t start = e.b.size();
  if (l.fRangesSize >= 8) {
    e.u32(l.fGraySource), e.u32(l.fGrayDest);
    for (const auto& [source, dest] : l.fRanges) e.u32(source), e.u32(dest);
  }
  e.b.resize(start + l.fRangesSize);  // the declared length, whatever the pairs
  std::string name = nameBytes(l);
  e.u8(uint32_t(name.size()));
  e.raw(name.data(), name.size());
  e.zeros((4 - (name.size() + 1) % 4) % 4);
  for (const TpsdBlock& b : l.fBlocks) {
    std::vector<uint8_t> data = b.data;
    if (b.key == fourCC("lsct") && b.length >= 4) {
      put32(data, 0, l.fSectionType);
      if (b.length >= 12) put32(data, 4, l.fSectionSignature), put32(data, 8, l.fSectionBlendKey);
    } else if (b.key == fourCC("lyid") && b.length >= 4) {
      put32(data, 0, l.fLayerId);
    }
    data.resize(b.length);
    e.u32(b.signature), e.u32(b.key), e.u32(b.length);
    e.raw(data.data(), data.size());
    e.zeros(b.pad);
  }
  return e;
}

}  // namespace

uint32_t TpsdFile::layerSize(const TpsdLayer& layer) const {
  if (layer.fState == 2) return 0;
  return uint32_t(layer.fExtraSize + layer.fChannelCount * 6u + 34 + layer.channelBytes());
}

// Everything of an opened document is taken into memory before its file
// is written over: every layer's channels, the flattened image and the
// alpha channels.
bool TpsdFile::gatherForSaving() {
  if (fCreated || fPath.fullName().isEmpty() || fCompositeAdded) return true;
  if (!readAllChannelInformation()) return false;
  if (!fCompositePixels) {
    TrgbaData* flat = nullptr;
    if (!readFlattenedImage(flat)) return false;
    delete flat;
  }
  for (int a = 0; a + 3 < fChannelCount; ++a) {
    Tchannel* ch = fCompositePixels->channel(a + 3);
    if (ch && ch->hasCompressed()) continue;
    TrgbaData* alpha = nullptr;
    if (!readAlpha(alpha, a)) return false;
    delete alpha;
  }
  return true;
}

bool TpsdFile::savePsdFile(const TfilePath& path) {
  return guarded([&] { return save(path); }, false);
}

// The layer and mask section as it goes out: the live layers' records,
// channel bytes and extra data, and the lengths in front of them.
struct TpsdLayerSection {
  std::vector<TpsdLayer*> live;
  std::vector<Buffer> extras, records;
  std::vector<std::vector<Payload>> payloads;
  uint64_t info = 0, infoLength = 0, blocks = 0, sectionLength = 0;
  uint32_t lr16Pad = 0;
};

// Layers as they will go out: channel lengths and extra data sizes from the
// bytes themselves.
void TpsdFile::collectLayers(TpsdLayerSection& s) {
  s.live.clear(), s.extras.clear(), s.payloads.clear();
  for (const auto& layer : fLayers) {
    if (layer->fState == 2) continue;
    s.live.push_back(layer.get());
    s.payloads.push_back(payloadsOf(*layer));
    s.extras.push_back(extraOf(*layer));
    layer->fExtraSize = uint32_t(s.extras.back().b.size());
  }
}

void TpsdFile::planLayerSection(TpsdLayerSection& s) {
  collectLayers(s);
  if (fEditMode) recomputeLayerSize();
  if (fEditMode || fLayers.empty()) {
    fCompositeAdded = fBackgroundAdded = true;
    if (fLayers.empty()) fLayerMaskSize = 8;
  }
  if (!fEditMode && !fLayers.empty()) {
    fLayerInfoSize += 2;
    fLayerMaskSize += 2;
  }
  size_t before = fLayers.size();
  addBackGroundLayerInfo(nullptr, nullptr);
  if (fLayers.size() != before) collectLayers(s);  // the background layer was added
  // The layer info: count, records, channel bytes.
  s.info = s.live.empty() ? 0 : 2;
  for (size_t i = 0; i < s.live.size(); ++i) {
    TpsdLayer& l = *s.live[i];
    Buffer r;
    putRect(r, l.fRect);
    r.u16(uint32_t(l.fChannels.size()));
    for (const TpsdChannelInfo& c : l.fChannels) r.u16(uint16_t(c.id)), r.u32(c.length);
    r.u32(l.fSignature ? l.fSignature : fourCC("8BIM")), r.u32(l.fBlendKey);
    r.u8(l.fOpacity), r.u8(l.fClipping), r.u8(l.fFlags), r.u8(l.fFiller);
    r.u32(uint32_t(s.extras[i].b.size()));
    r.raw(s.extras[i].b.data(), s.extras[i].b.size());
    s.info += r.b.size();
    for (const Payload& p : s.payloads[i]) s.info += 2 + p.size;
    s.records.push_back(std::move(r));
  }
  // The lengths the document keeps, unless its content needs more: then
  // the content's own, so that the file is always whole.
  s.infoLength = std::max<uint64_t>(fLayerInfoSize, s.info);
  if (fDepth != 16 && s.infoLength % 2) ++s.infoLength;
  s.lr16Pad = fLr16Pad ? fLr16Pad : 4 - uint32_t(s.infoLength % 4);
  for (const TpsdBlock& b : fGlobalBlocks) {
    uint32_t pad = b.pad || fDepth != 16 || !b.length ? b.pad : 4 - b.length % 4;
    s.blocks += 12 + b.length + pad;
  }
  uint64_t section = fDepth == 16 ? 4 + 4 + fGlobalMask.size() + 12 + s.infoLength + s.lr16Pad
                                  : 4 + s.infoLength + 4 + fGlobalMask.size();
  section += s.blocks + fSectionTail.size();
  s.sectionLength = std::max<uint64_t>(uint64_t(std::max(fLayerMaskSize, 0)), section);
  if (s.infoLength > UINT32_MAX || s.sectionLength > UINT32_MAX) damaged("the layers are too large for the format");
  fLayerInfoSize = uint32_t(s.infoLength);
  fLayerMaskSize = int32_t(s.sectionLength);
}

void TpsdFile::writeLayerSection(TpsdOut& o, const TpsdLayerSection& s) {
  o.u32(uint32_t(s.sectionLength));
  uint64_t written = 0;
  auto writeInfo = [&] {
    if (s.live.empty()) return;
    // A negative count says the flattened image's first extra channel is its transparency.
    o.u16(fMergedTransparency ? uint32_t(uint16_t(-int32_t(s.live.size()))) : uint32_t(s.live.size()));
    for (const Buffer& r : s.records) o.bytes(r.b.data(), r.b.size());
    for (const auto& list : s.payloads)
      for (const Payload& p : list) o.u16(p.compression), o.bytes(p.data, p.size);
    o.zeros(s.infoLength - s.info);
  };
  if (fDepth == 16) {
    o.u32(0);
    o.u32(uint32_t(fGlobalMask.size()));
    o.bytes(fGlobalMask, fGlobalMask.size());
    o.u32(fourCC("8BIM")), o.u32(fourCC("Lr16")), o.u32(uint32_t(s.infoLength));
    writeInfo();
    o.zeros(s.lr16Pad);
    written = 4 + 4 + fGlobalMask.size() + 12 + s.infoLength + s.lr16Pad;
  } else {
    o.u32(uint32_t(s.infoLength));
    writeInfo();
    o.u32(uint32_t(fGlobalMask.size()));
    o.bytes(fGlobalMask, fGlobalMask.size());
    written = 4 + s.infoLength + 4 + fGlobalMask.size();
  }
  for (const TpsdBlock& b : fGlobalBlocks) {
    uint32_t pad = b.pad || fDepth != 16 || !b.length ? b.pad : 4 - b.length % 4;
    o.u32(b.signature), o.u32(b.key), o.u32(b.length);
    o.bytes(b.data, b.length);
    o.zeros(pad);
  }
  o.bytes(fSectionTail, fSectionTail.size());
  written += s.blocks + fSectionTail.size();
  o.zeros(s.sectionLength - written);
}

bool TpsdFile::save(const TfilePath& path) {
  if (!fSaveNeeded && !fEditMode) return true;
  if (!gatherForSaving()) return false;
  Tstring target = fEditMode ? path.fullName() : fPath.fullName();
  TpsdLayerSection section;
  planLayerSection(section);
  // Written where no part of it shows, put in place when whole.
  TatomicFile file(target.str());
  std::FILE* f = file.isOpen() ? fdopen(::dup(file.fd()), "wb") : nullptr;
  if (!f) {
    fail(file.isOpen() ? Tstring("cannot be written: ") + Tstring(std::strerror(errno)) : Tstring(file.reason()));
    return false;
  }
  TpsdOut o(f);
  writeHeader(o, fImageHeight, fImageWidth, fChannelCount);
  writeColorModeData(o);
  writeResources(o);
  writeLayerSection(o, section);
  o.u16(fImageCompression);
  if (fImageCompression)
    writeRLEImageData(o, fChannelCount);
  else
    writeRawImageData(o, fChannelCount);
  bool ok = o.ok() && std::fflush(f) == 0;
  ok = std::fclose(f) == 0 && ok;
  if (!ok) {
    fail(Tstring("cannot be written: ") + Tstring(std::strerror(errno ? errno : EIO)));
    return false;  // the file goes with `file`; the target is as it was
  }
  if (!file.commit()) {
    fail(Tstring(file.reason()));
    return false;
  }
  // Deleted layers are gone once written.
  fLayers.erase(std::remove_if(fLayers.begin(), fLayers.end(), [](const auto& l) { return l->fState == 2; }),
                fLayers.end());
  fLayerCount = uint16_t(fLayers.size());
  return true;
}

void TpsdFile::writeHeader(TpsdOut& o, uint32_t height, uint32_t width, uint16_t channels) {
  o.u32(fourCC("8BPS")), o.u16(1);
  o.bytes(fHeaderReserved, 6);
  o.u16(channels), o.u32(height), o.u32(width), o.u16(fDepth), o.u16(fColorMode);
}

void TpsdFile::writeColorModeData(TpsdOut& o) {
  o.u32(uint32_t(std::max(fColorModeSize, 0)));
  if (fColorModeSize > 0) o.bytes(fColorModeData, size_t(fColorModeSize));
}

void TpsdFile::writeImageResourceString(Buffer& o, const std::string& text) {
  o.u8(uint32_t(text.size()));
  if (text.empty()) {
    o.u8(0);
    return;
  }
  o.raw(text.data(), text.size());
  if ((text.size() + 1) % 2) o.u8(0);
}

// Carried in their order, but for the id seed, the alpha names and ids,
// which are made from the document as it is now.
void TpsdFile::writeResources(TpsdOut& o) {
  Buffer all;
  for (TpsdResource& r : fResources) {
    Buffer data;
    if (r.id == kResourceIdSeed) {
      r.value = getLayerIdForNewLayer();
      data.u32(r.value);
    } else if (r.id == kResourceAlphaNames) {
      for (int i = 0; i < fAlphaNames.length(); ++i) {
        std::string name = fAlphaNames[i].str().substr(0, 255);
        data.u8(uint32_t(name.size()));
        data.raw(name.data(), name.size());
      }
    } else if (r.id == kResourceAlphaIds) {
      for (int i = 0; i < fAlphaIds.length(); ++i) data.u32(fAlphaIds[i]);
    } else {
      data.raw(r.data.data(), std::min<size_t>(r.data.size(), r.size));
      data.zeros(r.size - std::min<size_t>(r.data.size(), r.size));
    }
    // A resource's length counts its data; an odd one is padded to even.
    uint32_t size = uint32_t(data.b.size());
    if (r.id == kResourceIdSeed || r.id == kResourceAlphaNames || r.id == kResourceAlphaIds) r.size = size;
    all.u32(r.signature), all.u16(r.id);
    writeImageResourceString(all, r.name);
    all.u32(size);
    all.raw(data.b.data(), data.b.size());
    if (size % 2) all.u8(0);
  }
  fResourcesSize = uint32_t(all.b.size());
  o.u32(fResourcesSize);
  o.bytes(all.b, all.b.size());
}

Tchannel* TpsdFile::packedComposite(int id, int32_t method) {
  TpixelData16* pixels = getCompositePixData(fDataFormat);
  Tchannel* ch = pixels->channel(id);
  if (!ch) ch = pixels->addChannel(id, fImageWidth, fImageHeight, 0);
  if (!ch->hasCompressed()) ch->fCompression = method;
  ch->compress(true);
  return ch;
}

void TpsdFile::writeRLEImageData(TpsdOut& o, int channels) {
  std::vector<Tchannel*> packed;
  for (int id = 0; id < channels; ++id) packed.push_back(packedComposite(id, compressionRLE));
  for (Tchannel* ch : packed) o.bytes(ch->fRowLengths, size_t(fImageHeight) * 2);
  for (Tchannel* ch : packed) o.bytes(ch->fCompressed, ch->fDataLength);
}

void TpsdFile::writeRawImageData(TpsdOut& o, int channels) {
  for (int id = 0; id < channels; ++id) {
    Tchannel* ch = packedComposite(id, compressionRaw);
    o.bytes(ch->fCompressed, ch->fDataLength);
  }
}

}  // namespace zkPhotoshop
