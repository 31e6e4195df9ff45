// One layer record of a document: its rectangle, channels, blending,
// masks, name and additional blocks, and its pixels once read.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "kelpimage/base/tstring.h"
#include "kelpimage/kelpexport.h"
#include "kelpimage/photoshop/tpixeldata16.h"

namespace zkPhotoshop {

class TpsdStream;

struct TpsdChannelInfo {
  int16_t id = 0;
  uint32_t length = 0;  // with the 2-byte compression word
  uint32_t compression = 0;
  // The bytes of a channel the layer's pixels do not hold (an id the
  // library does not use, or a channel of an empty rectangle), kept for
  // writing back.
  std::vector<uint8_t> data;
};

// An additional block: "8BIM", its key and its data as read.
struct TpsdBlock {
  uint32_t signature = 0;
  uint32_t key = 0;
  uint32_t length = 0;
  std::vector<uint8_t> data;
  uint32_t pad = 0;  // zero bytes behind the data that the length does not count
};

// fSectionType values: what a record is in the layer set structure.
enum TpsdSectionType : uint32_t {
  sectionLayer = 0,
  sectionOpenSet = 1,
  sectionClosedSet = 2,
  sectionSetEnd = 3,
};

class KELP_API TpsdLayer {
 public:
  TpsdLayer();
  ~TpsdLayer();

  // Reads one record from the stream, adding its bytes to `runningSize`
  // and the codes of what cannot be honoured to `warnings`. Throws the text
  // "Invalid information read from file" for more than 56 channels.
  void readLayerRecord(TpsdStream& stream, uint32_t& runningSize, std::vector<uint32_t>& warnings);

  // The rectangle's size; 0 for a rectangle turned inside out, which holds
  // no pixels.
  int32_t width() const { return fRect.right > fRect.left ? fRect.right - fRect.left : 0; }
  int32_t height() const { return fRect.bottom > fRect.top ? fRect.bottom - fRect.top : 0; }
  bool isEmpty() const { return width() == 0 || height() == 0; }
  bool isHidden() const { return (fFlags & 2) != 0; }
  // Whether `name` names this layer: its full name (the Unicode block), or
  // the name its record holds (cut at 31 bytes by Photoshop, with "?" for
  // characters that name cannot hold).
  bool isNamed(const Tstring& name) const { return fName == name || fPascalName == name.str(); }
  bool isSetHead() const { return fSectionType == sectionOpenSet || fSectionType == sectionClosedSet; }
  bool isSetEnd() const { return fSectionType == sectionSetEnd; }
  bool hasChannel(int16_t id) const;
  uint64_t channelBytes() const;  // the channel data the record announces

  // Expands every channel read, on `threads` threads (0: one a core);
  // false when one of them is damaged.
  KELP_LOCAL bool expandChannels(unsigned threads = 0);
  // Gives back the expanded samples; the file bytes stay.
  KELP_LOCAL void releaseRaw();
  // This layer's pixels at its place on a canvas of width x height; what
  // lies outside falls away.
  void copyToCanvas(uint32_t width, uint32_t height, TpixelData16& canvas);
  // A layer without a transparency channel is opaque over its rectangle:
  // the canvas's transparency there is made full.
  KELP_LOCAL void makeOpaqueWithoutTransparency(uint32_t width, uint32_t height, TpixelData16& canvas) const;
  // Channel -2, the mask, at its place on a canvas of width x height.
  void copyMaskToCanvas(uint32_t width, uint32_t height, TpixelData16& canvas) const;
  // ANDs the canvas's transparency with the mask (its default colour
  // outside its rectangle), unless the mask is disabled or absent.
  KELP_LOCAL void applyMask(uint32_t width, uint32_t height, TdataFormat format, TpixelData16& canvas) const;
  // The rectangle clamped to a document of width x height.
  TlRect clamped(const TlRect& r, uint32_t width, uint32_t height) const;

  TlRect fRect;
  uint16_t fChannelCount = 0;
  std::vector<TpsdChannelInfo> fChannels;
  std::unique_ptr<TpixelData16> fPixels;  // null until read
  uint32_t fSignature = 0;
  uint32_t fBlendKey;
  uint8_t fClipping = 0;
  uint8_t fFlags = 0;
  uint8_t fFiller = 0;
  uint32_t fExtraSize = 0;
  uint32_t fMaskSize = 0;
  TlRect fMaskRect;
  uint8_t fMaskDefault = 0;
  uint8_t fMaskFlags = 0;
  TlRect fRealRect;
  uint8_t fRealFlags = 0;
  uint8_t fRealDefault = 0;
  std::vector<uint8_t> fMaskData;  // the mask data as read, for writing back
  uint32_t fRangesSize = 0;
  uint32_t fGraySource = 0;
  uint32_t fGrayDest = 0;
  std::vector<std::pair<uint32_t, uint32_t>> fRanges;
  std::vector<TpsdBlock> fBlocks;
  uint32_t fSectionType = sectionLayer;
  uint32_t fSectionSignature = 0;
  uint32_t fSectionBlendKey = 0;
  uint32_t fLayerId = 0;
  uint32_t fState = 0;  // 0 read from a file, 1 new, 2 deleted
  // The layer's name: the Unicode name ("luni" block) in UTF-8 where the
  // record has one, else the record's own; fPascalName keeps the record's
  // bytes for writing back.
  Tstring fName;
  std::string fPascalName;
  uint8_t fOpacity = 0;

 private:
  KELP_LOCAL void readMask(TpsdStream& stream, int64_t end);
  KELP_LOCAL void readRanges(TpsdStream& stream, int64_t end);
  KELP_LOCAL void readBlocks(TpsdStream& stream, int64_t end, std::vector<uint32_t>& warnings);
};

// Layers in file order, the bottom one first.
using TpsdLayerPtrArray = std::vector<std::unique_ptr<TpsdLayer>>;

// A key as its four characters ("norm", "mul ").
KELP_API Tstring keyText(uint32_t key);

}  // namespace zkPhotoshop
