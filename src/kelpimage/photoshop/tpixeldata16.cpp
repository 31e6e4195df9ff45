#include "kelpimage/photoshop/tpixeldata16.h"

#include <bit>
#include <cmath>
#include <cstring>
#include <vector>

namespace zkPhotoshop {

TpixelData16::TpixelData16(TdataFormat format, uint32_t width, uint32_t height, bool unused) : fFormat(format) {
  allocChannels(width, height, unused);
  initialize(uint16_t(getMaxColor()), 0);
}

TpixelData16::TpixelData16(const TpixelData16& source) : fFormat(source.fFormat) {
  for (const auto& [id, ch] : source.fChannels) {
    if (!ch || hasChannel(id)) continue;
    Tchannel* made = addChannel(id, ch->fWidth, ch->fHeight, 0);
    if (id == channelTransparency) made->fill(0);
  }
  for (auto& [id, ch] : fChannels)
    if (ch && source.hasChannel(id)) ch->cloneFrom(*source.channel(id));
}

TpixelData16& TpixelData16::operator=(const TpixelData16& source) {
  if (this != &source) {
    fFormat = source.fFormat;
    fChannels = source.fChannels;
  }
  return *this;
}

void TpixelData16::allocChannels(uint32_t width, uint32_t height, bool) {
  for (PHOTOSHOP_CHANNEL id : {channelRed, channelGreen, channelBlue}) addChannel(id, width, height, 0);
}

Tchannel* TpixelData16::addChannel(PHOTOSHOP_CHANNEL id, uint32_t width, uint32_t height, uint16_t fill) {
  auto ch = std::make_shared<Tchannel>(width, height, fFormat);
  ch->fill(fill);
  fChannels[id] = ch;
  return ch.get();
}

void TpixelData16::initialize(uint16_t colourFill, uint16_t) {
  for (PHOTOSHOP_CHANNEL id : {channelRed, channelGreen, channelBlue}) {
    auto& ch = fChannels[id];  // an absent colour channel leaves an empty entry
    if (ch) ch->fill(colourFill);
  }
}

void TpixelData16::initializeTransparency(uint16_t, uint16_t fill) {
  if (Tchannel* ch = channel(channelTransparency)) ch->fill(fill);
}

Tchannel* TpixelData16::channel(PHOTOSHOP_CHANNEL id) const {
  auto it = fChannels.find(id);
  return it == fChannels.end() ? nullptr : it->second.get();
}

void TpixelData16::channelListArray(Tint16Array& ids) const {
  ids.changeLogicalSizeTo(0);
  for (const auto& entry : fChannels) ids.addLast(int16_t(entry.first));
}

int TpixelData16::channelCount() const {
  int n = 0;
  for (const auto& entry : fChannels) n += entry.second != nullptr;
  return n;
}

uint32_t TpixelData16::width(PHOTOSHOP_CHANNEL id) const {
  Tchannel* ch = channel(id);
  return ch ? ch->fWidth : 0;
}
uint32_t TpixelData16::height(PHOTOSHOP_CHANNEL id) const {
  Tchannel* ch = channel(id);
  return ch ? ch->fHeight : 0;
}
uint32_t TpixelData16::size(PHOTOSHOP_CHANNEL id) const {
  Tchannel* ch = channel(id);
  return ch ? ch->fPixelCount : 0;
}

void TpixelData16::setChannelRawPixels(PHOTOSHOP_CHANNEL id, const uint8_t* pixels) {
  if (Tchannel* ch = channel(id)) ch->assignRaw(pixels);
}
void TpixelData16::setCompressionMethod(PHOTOSHOP_CHANNEL id, int32_t method) {
  if (Tchannel* ch = channel(id)) ch->fCompression = method;
}
int32_t TpixelData16::compressionMethod(PHOTOSHOP_CHANNEL id) const {
  Tchannel* ch = channel(id);
  return ch ? ch->fCompression : compressionUnset;
}
bool TpixelData16::compressChannel(PHOTOSHOP_CHANNEL id, bool separateRowLengths) {
  Tchannel* ch = channel(id);
  return ch && ch->compress(separateRowLengths);
}
void TpixelData16::setChannelCompressedPixels(PHOTOSHOP_CHANNEL id, std::vector<uint8_t> bytes, uint32_t length) {
  if (Tchannel* ch = channel(id)) ch->setCompressed(std::move(bytes), length);
}
const uint8_t* TpixelData16::channelCompressedPixels(PHOTOSHOP_CHANNEL id) const {
  Tchannel* ch = channel(id);
  return ch && ch->hasCompressed() ? ch->fCompressed.data() : nullptr;
}
void TpixelData16::setChannelDataLength(PHOTOSHOP_CHANNEL id, uint32_t length) {
  if (Tchannel* ch = channel(id)) ch->fDataLength = length;
}
uint32_t TpixelData16::channelDataLength(PHOTOSHOP_CHANNEL id) const {
  Tchannel* ch = channel(id);
  return ch ? ch->fDataLength : 0;
}
void TpixelData16::setCompositeLengthInfo(PHOTOSHOP_CHANNEL id, std::vector<uint8_t> table) {
  if (Tchannel* ch = channel(id)) ch->fRowLengths = std::move(table);
}
const uint8_t* TpixelData16::compositeLenInfo(PHOTOSHOP_CHANNEL id) const {
  Tchannel* ch = channel(id);
  return ch && !ch->fRowLengths.empty() ? ch->fRowLengths.data() : nullptr;
}

void TpixelData16::setChannelValue(PHOTOSHOP_CHANNEL id, uint32_t index, uint32_t value) {
  if (Tchannel* ch = channel(id)) ch->setValue(index, value);
}

uint8_t* TpixelData16::getChannelPixPtr(PHOTOSHOP_CHANNEL id) {
  Tchannel* ch = channel(id);
  return ch ? ch->rawPointer() : nullptr;
}

bool TpixelData16::copyChannel(PHOTOSHOP_CHANNEL id, const TpixelData16& source) {
  Tchannel* mine = channel(id);
  Tchannel* theirs = source.channel(id);
  if (mine && theirs) mine->cloneFrom(*theirs);
  return true;
}

bool TpixelData16::copyChannel(PHOTOSHOP_CHANNEL id, uint32_t dstIndex, uint32_t count, const TpixelData16& source,
                               uint32_t srcIndex) {
  Tchannel* mine = channel(id);
  Tchannel* theirs = source.channel(id);
  if (!mine || !theirs) return false;
  mine->copySpan(dstIndex, count, srcIndex, *theirs);
  return true;
}

bool TpixelData16::copyRect(const TlRect& rect, const TlPoint& point, const TpixelData16& source, uint32_t width,
                            uint32_t height) {
  for (const auto& [id, ch] : source.fChannels) {
    if (!ch || hasChannel(id)) continue;
    Tchannel* made = addChannel(id, width, height, 0);
    if (id == channelTransparency) made->fill(0);
  }
  if (rect.right <= rect.left) return true;
  uint32_t count = uint32_t(int64_t(rect.right) - rect.left);
  for (auto& [id, ch] : fChannels) {
    Tchannel* theirs = source.channel(id);
    if (!ch || !theirs) continue;
    for (int64_t r = rect.top; r < rect.bottom; ++r) {
      int64_t dst = r * ch->fWidth + rect.left;
      int64_t src = (r + point.y - rect.top) * int64_t(theirs->fWidth) + point.x;
      if (dst < 0 || src < 0 || dst > UINT32_MAX || src > UINT32_MAX) continue;
      ch->copySpan(uint32_t(dst), count, uint32_t(src), *theirs);
    }
  }
  return true;
}

// Every sample times k in extended precision, truncated; as a table of
// every sample value, which gives the same results.
void TpixelData16::applyOpacity(uint8_t opacity) {
  if (opacity == 255) return;
  const float k = float(opacity) * std::bit_cast<float>(0x3B808081u);
  const long double scale = k;
  std::vector<uint16_t> table(is8bit() ? 256 : 65536);
  for (size_t v = 0; v < table.size(); ++v) table[v] = uint16_t(std::trunc(v * scale));
  for (PHOTOSHOP_CHANNEL id : {channelRed, channelGreen, channelBlue, channelTransparency}) {
    Tchannel* ch = channel(id);
    if (!ch) continue;
    uint8_t* p = ch->rawPointer();
    if (is8bit()) {
      for (uint32_t i = 0; i < ch->fPixelCount; ++i) p[i] = uint8_t(table[p[i]]);
    } else {
      for (uint32_t i = 0; i < ch->fPixelCount; ++i) {
        uint16_t v;
        std::memcpy(&v, p + 2 * size_t(i), 2);
        v = table[v];
        std::memcpy(p + 2 * size_t(i), &v, 2);
      }
    }
  }
}

void TpixelData16::memAND(uint8_t* dst, const uint8_t* src, uint32_t pixelCount) const {
  size_t n = size_t(pixelCount) * bytesPerChannel();
  for (size_t i = 0; i < n; ++i) dst[i] &= src[i];
}

TrgbaData::TrgbaData(uint32_t width, uint32_t height, TpixelData16* pixels, uint16_t numChannels, bool copy)
    : fWidth(width),
      fHeight(height),
      fPixels(copy && pixels ? new TpixelData16(*pixels) : pixels),
      fNumChannels(numChannels) {}

TrgbaData::~TrgbaData() { delete fPixels; }

}  // namespace zkPhotoshop
