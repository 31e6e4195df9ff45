// The channels of one layer, canvas or flattened image, keyed by channel id,
// and the small value that hands them to callers.
#pragma once

#include <map>
#include <memory>

#include "kelpimage/base/tarray.h"
#include "kelpimage/kelpexport.h"
#include "kelpimage/photoshop/tchannel.h"

namespace zkPhotoshop {

class KELP_API TpixelData16 {
 public:
  explicit TpixelData16(TdataFormat format) : fFormat(format) {}
  // Red, green and blue of this size, white.
  TpixelData16(TdataFormat format, uint32_t width, uint32_t height, bool unused);
  TpixelData16(const TpixelData16& source);
  // Takes the source's channels: both then hold the same ones, and the
  // source keeps them alive (they are shared).
  TpixelData16& operator=(const TpixelData16& source);
  ~TpixelData16() = default;

  void allocChannels(uint32_t width, uint32_t height, bool unused);
  // Replaces a channel already under `id`.
  Tchannel* addChannel(PHOTOSHOP_CHANNEL id, uint32_t width, uint32_t height, uint16_t fill);
  void initialize(uint16_t colourFill, uint16_t unused);
  void initializeTransparency(uint16_t unused, uint16_t fill);

  Tchannel* channel(PHOTOSHOP_CHANNEL id) const;
  bool hasChannel(PHOTOSHOP_CHANNEL id) const { return channel(id) != nullptr; }
  void channelListArray(Tint16Array& ids) const;
  int channelCount() const;

  uint32_t width(PHOTOSHOP_CHANNEL id) const;
  uint32_t height(PHOTOSHOP_CHANNEL id) const;
  uint32_t size(PHOTOSHOP_CHANNEL id) const;
  void setChannelRawPixels(PHOTOSHOP_CHANNEL id, const uint8_t* pixels);
  void setCompressionMethod(PHOTOSHOP_CHANNEL id, int32_t method);
  int32_t compressionMethod(PHOTOSHOP_CHANNEL id) const;
  bool compressChannel(PHOTOSHOP_CHANNEL id, bool separateRowLengths);
  void setChannelCompressedPixels(PHOTOSHOP_CHANNEL id, std::vector<uint8_t> bytes, uint32_t length);
  const uint8_t* channelCompressedPixels(PHOTOSHOP_CHANNEL id) const;
  void setChannelDataLength(PHOTOSHOP_CHANNEL id, uint32_t length);
  uint32_t channelDataLength(PHOTOSHOP_CHANNEL id) const;
  void setCompositeLengthInfo(PHOTOSHOP_CHANNEL id, std::vector<uint8_t> table);
  const uint8_t* compositeLenInfo(PHOTOSHOP_CHANNEL id) const;

  void setChannelValue(PHOTOSHOP_CHANNEL id, uint32_t index, uint32_t value);
  void setRed(uint32_t i, uint32_t v) { setChannelValue(channelRed, i, v); }
  void setGreen(uint32_t i, uint32_t v) { setChannelValue(channelGreen, i, v); }
  void setBlue(uint32_t i, uint32_t v) { setChannelValue(channelBlue, i, v); }
  void setTrans(uint32_t i, uint32_t v) { setChannelValue(channelTransparency, i, v); }
  uint8_t* getChannelPixPtr(PHOTOSHOP_CHANNEL id);
  uint8_t* getRedPixelPtr() { return getChannelPixPtr(channelRed); }
  uint8_t* getGreenPixelPtr() { return getChannelPixPtr(channelGreen); }
  uint8_t* getBluePixelPtr() { return getChannelPixPtr(channelBlue); }
  uint8_t* getTransparencyPixelPtr() { return getChannelPixPtr(channelTransparency); }

  TdataFormat format() const { return fFormat; }
  bool is8bit() const { return fFormat == dataFormat8; }
  bool is16bit() const { return fFormat == dataFormat16; }
  uint32_t getColorDepth() const { return is8bit() ? 8 : is16bit() ? 16 : 0; }
  uint32_t bytesPerChannel() const { return bytesOf(fFormat); }
  uint32_t skipSize() const { return bytesOf(fFormat); }
  uint32_t getMaxColor() const { return is8bit() ? 255 : is16bit() ? 65535 : 0; }
  uint32_t getMidValue() const { return is8bit() ? 128 : is16bit() ? 32768 : 1u << 31; }

  bool copyChannel(PHOTOSHOP_CHANNEL id, const TpixelData16& source);
  bool copyChannel(PHOTOSHOP_CHANNEL id, uint32_t dstIndex, uint32_t count, const TpixelData16& source,
                   uint32_t srcIndex);
  // Rows rect.top to rect.bottom of every channel from `source`, whose
  // pixel (point.x, point.y) lands at (rect.left, rect.top).
  bool copyRect(const TlRect& rect, const TlPoint& point, const TpixelData16& source, uint32_t width, uint32_t height);
  // Scales colour and transparency by opacity / 255; 255 leaves them.
  void applyOpacity(uint8_t opacity);
  // Bitwise AND of `pixelCount` samples.
  void memAND(uint8_t* dst, const uint8_t* src, uint32_t pixelCount) const;

  std::map<PHOTOSHOP_CHANNEL, std::shared_ptr<Tchannel>> fChannels;

 private:
  TdataFormat fFormat;
};

// A picture handed out: its size, its channels (owned) and how many
// channels it stands for.
class KELP_API TrgbaData {
 public:
  // With `copy` the pixels are copied and the caller keeps its own;
  // otherwise this value takes them.
  TrgbaData(uint32_t width, uint32_t height, TpixelData16* pixels, uint16_t numChannels, bool copy);
  TrgbaData(const TrgbaData&) = delete;
  TrgbaData& operator=(const TrgbaData&) = delete;
  ~TrgbaData();

  uint32_t width() const { return fWidth; }
  uint32_t height() const { return fHeight; }
  TpixelData16* pixels16() const { return fPixels; }
  uint16_t numChannels() const { return uint16_t(fNumChannels); }

 private:
  uint32_t fWidth;
  uint32_t fHeight;
  TpixelData16* fPixels;
  uint32_t fNumChannels;
};

}  // namespace zkPhotoshop
