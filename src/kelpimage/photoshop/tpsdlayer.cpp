#include "kelpimage/photoshop/tpsdlayer.h"

#include <algorithm>
#include <cstring>

#include "kelpimage/photoshop/channelwork.h"
#include "kelpimage/photoshop/psdstream.h"
#include "kelpimage/photoshop/tpsdwarning.h"

namespace zkPhotoshop {

namespace {

constexpr uint32_t kMaxChannels = 56;

// The warning a block's key raises, or 0.
uint32_t warningOf(uint32_t key) {
  switch (key) {
    case fourCC("lfx2"): return warnObjectEffects;
    case fourCC("lrfx"): return warnLayerEffects;
    case fourCC("patt"): return warnPatterns;
    case fourCC("Anno"): return warnAnnotation;
    case fourCC("brit"):
    case fourCC("hue2"):
    case fourCC("lev1"):
    case fourCC("curv"):
    case fourCC("post"):
    case fourCC("nvrt"):
    case fourCC("blnc"):
    case fourCC("selc"):
    case fourCC("thrs"):
    case 0x00687565u:  // "hue" behind a zero byte
      return warnAdjustmentLayer;
    default: return 0;
  }
}

TlRect readRect(TpsdStream& s) {
  TlRect r;
  r.top = s.i32();
  r.left = s.i32();
  r.bottom = s.i32();
  r.right = s.i32();
  return r;
}

// Sides far past what any document holds would overflow the arithmetic on
// them. A rectangle turned inside out (Photoshop writes top 0, left 0,
// bottom -1, right 0 for fill layers) holds no pixels, and is kept as it
// was read.
void checkRect(const TlRect& r, const char* what) {
  constexpr int32_t kFar = 1 << 29;
  auto far = [](int32_t v) { return v < -kFar || v > kFar; };
  if (far(r.top) || far(r.left) || far(r.bottom) || far(r.right))
    damaged(std::string(what) + " rectangle is impossible");
}

uint32_t be32(const std::vector<uint8_t>& d, size_t at) {
  return uint32_t(d[at]) << 24 | uint32_t(d[at + 1]) << 16 | uint32_t(d[at + 2]) << 8 | d[at + 3];
}

void appendUtf8(std::string& out, uint32_t c) {
  if (c < 0x80) {
    out += char(c);
  } else if (c < 0x800) {
    out += char(0xC0 | c >> 6);
    out += char(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out += char(0xE0 | c >> 12);
    out += char(0x80 | (c >> 6 & 0x3F));
    out += char(0x80 | (c & 0x3F));
  } else {
    out += char(0xF0 | c >> 18);
    out += char(0x80 | (c >> 12 & 0x3F));
    out += char(0x80 | (c >> 6 & 0x3F));
    out += char(0x80 | (c & 0x3F));
  }
}

// A "luni" block: a count of UTF-16 units, big-endian, then the units.
std::string unicodeName(const std::vector<uint8_t>& d) {
  std::string out;
  if (d.size() < 4) return out;
  size_t units = std::min<size_t>(be32(d, 0), (d.size() - 4) / 2);
  for (size_t i = 0; i < units; ++i) {
    uint32_t c = uint32_t(d[4 + 2 * i]) << 8 | d[5 + 2 * i];
    if (c >= 0xD800 && c < 0xDC00 && i + 1 < units) {
      uint32_t low = uint32_t(d[6 + 2 * i]) << 8 | d[7 + 2 * i];
      if (low >= 0xDC00 && low < 0xE000) {
        c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
        ++i;
      }
    }
    if (c == 0 && i + 1 == units) break;  // some writers count a closing zero
    appendUtf8(out, c);
  }
  return out;
}

}  // namespace

Tstring keyText(uint32_t key) {
  char s[5] = {char(key >> 24), char(key >> 16), char(key >> 8), char(key), 0};
  for (int i = 0; i < 4; ++i)
    if (s[i] < 32 || s[i] > 126) s[i] = '?';
  return Tstring(s);
}

TpsdLayer::TpsdLayer() : fBlendKey(fourCC("norm")) {}
TpsdLayer::~TpsdLayer() = default;

bool TpsdLayer::hasChannel(int16_t id) const {
  return std::any_of(fChannels.begin(), fChannels.end(), [id](const TpsdChannelInfo& c) { return c.id == id; });
}

uint64_t TpsdLayer::channelBytes() const {
  uint64_t sum = 0;
  for (const TpsdChannelInfo& c : fChannels) sum += c.length;
  return sum;
}

void TpsdLayer::readLayerRecord(TpsdStream& s, uint32_t& runningSize, std::vector<uint32_t>& warnings) {
  int64_t start = s.tell();
  fRect = readRect(s);
  checkRect(fRect, "a layer");
  fChannelCount = s.u16();
  if (fChannelCount > kMaxChannels) throw "Invalid information read from file";
  fChannels.assign(fChannelCount, TpsdChannelInfo{});
  for (TpsdChannelInfo& c : fChannels) {
    c.id = s.i16();
    c.length = s.u32();
  }
  fSignature = s.u32();
  if (!isBlockSignature(fSignature))
    damaged("a layer record's signature is wrong at offset " + std::to_string(s.tell() - 4));
  fBlendKey = s.u32();
  fOpacity = s.u8();
  fClipping = s.u8();
  fFlags = s.u8();
  fFiller = s.u8();
  uint32_t extra = s.u32();
  s.require(extra, "a layer record's extra data");
  int64_t end = s.tell() + extra;
  readMask(s, end);
  readRanges(s, end);
  uint8_t nameLength = s.u8();
  if (s.tell() + nameLength > end) damaged("a layer name runs past its record");
  fPascalName.assign(nameLength, '\0');
  s.read(fPascalName.data(), nameLength);
  fName = Tstring(fPascalName);
  int64_t pad = (4 - (nameLength + 1) % 4) % 4;  // the name with its length byte fills whole words
  s.skip(std::min(pad, end - s.tell()));
  readBlocks(s, end, warnings);
  for (const TpsdBlock& b : fBlocks)
    if (b.key == fourCC("luni")) fName = Tstring(unicodeName(b.data));
  s.seek(end);
  fExtraSize = extra;
  runningSize += uint32_t(s.tell() - start);
}

// The mask data: a rectangle, default colour and flags; with 36 bytes also
// the real user mask. Its declared size is what the record holds.
void TpsdLayer::readMask(TpsdStream& s, int64_t end) {
  fMaskSize = s.u32();
  if (fMaskSize > uint64_t(end - s.tell())) damaged("a layer mask runs past its record");
  int64_t maskEnd = s.tell() + fMaskSize;
  fMaskData = s.bytes(fMaskSize, 0, "layer mask data");
  s.seek(maskEnd - fMaskSize);
  if (fMaskSize >= 18) {
    fMaskRect = readRect(s);
    checkRect(fMaskRect, "a layer mask");
    fMaskDefault = s.u8();
    fMaskFlags = s.u8();
  }
  if (fMaskSize >= 36) {
    fRealFlags = s.u8();
    fRealDefault = s.u8();
    fRealRect = readRect(s);
    checkRect(fRealRect, "a user mask");
  }
  s.seek(maskEnd);
}

void TpsdLayer::readRanges(TpsdStream& s, int64_t end) {
  fRangesSize = s.u32();
  if (fRangesSize > uint64_t(end - s.tell())) damaged("a layer's blending ranges run past its record");
  int64_t rangesEnd = s.tell() + fRangesSize;
  fRanges.clear();
  if (fRangesSize >= 8) {
    fGraySource = s.u32();
    fGrayDest = s.u32();
    for (uint32_t i = 1; i < fRangesSize / 8; ++i) {
      uint32_t source = s.u32();
      fRanges.emplace_back(source, s.u32());
    }
  }
  s.seek(rangesEnd);
}

// Blocks follow one another up to the record's end.
void TpsdLayer::readBlocks(TpsdStream& s, int64_t end, std::vector<uint32_t>& warnings) {
  fBlocks.clear();
  while (end - s.tell() >= 12) {
    uint32_t signature = s.u32();
    if (!isBlockSignature(signature)) {
      s.seek(s.tell() - 4);
      break;
    }
    TpsdBlock block;
    block.signature = signature;
    block.key = s.u32();
    block.length = s.u32();
    if (block.length > uint64_t(end - s.tell())) damaged("a layer block runs past its record");
    block.data = s.bytes(block.length, 0, "a layer block");
    if (block.key == fourCC("lsct") && block.length >= 4) {
      fSectionType = be32(block.data, 0);
      if (block.length >= 12) {
        fSectionSignature = be32(block.data, 4);
        fSectionBlendKey = be32(block.data, 8);
      }
    } else if (block.key == fourCC("lyid") && block.length >= 4) {
      fLayerId = be32(block.data, 0);
    }
    if (block.length != 0)
      if (uint32_t code = warningOf(block.key)) warnings.push_back(code);
    block.pad = skipBlockPad(s, end);
    fBlocks.push_back(std::move(block));
  }
}

bool TpsdLayer::expandChannels(unsigned threads) {
  if (!fPixels) return true;
  std::vector<Tchannel*> channels;
  for (auto& [id, ch] : fPixels->fChannels)
    if (ch) channels.push_back(ch.get());
  expandInParallel(channels, threads);
  return std::none_of(channels.begin(), channels.end(), [](const Tchannel* c) { return c->expandFailed(); });
}

void TpsdLayer::releaseRaw() {
  if (!fPixels) return;
  for (auto& [id, ch] : fPixels->fChannels)
    if (ch) ch->releaseRaw();
}

TlRect TpsdLayer::clamped(const TlRect& r, uint32_t width, uint32_t height) const {
  TlRect c;
  c.top = std::max(r.top, 0);
  c.left = std::max(r.left, 0);
  c.bottom = int32_t(std::min<int64_t>(r.bottom, height));
  c.right = int32_t(std::min<int64_t>(r.right, width));
  return c;
}

void TpsdLayer::copyToCanvas(uint32_t width, uint32_t height, TpixelData16& canvas) {
  if (isEmpty() || !fPixels) return;
  TlPoint point;
  point.x = fRect.left < 0 ? -fRect.left : 0;
  point.y = fRect.top < 0 ? -fRect.top : 0;
  canvas.copyRect(clamped(fRect, width, height), point, *fPixels, width, height);
}

void TpsdLayer::makeOpaqueWithoutTransparency(uint32_t width, uint32_t height, TpixelData16& canvas) const {
  if (hasChannel(channelTransparency)) return;
  Tchannel* alpha = canvas.channel(channelTransparency);
  if (!alpha) alpha = canvas.addChannel(channelTransparency, width, height, 0);
  TlRect c = clamped(fRect, width, height);
  uint8_t* raw = alpha->rawPointer();
  if (c.right <= c.left || alpha->fPixelCount < uint64_t(width) * height) return;
  size_t bytes = alpha->bytesPerSample();
  for (int32_t y = c.top; y < c.bottom; ++y)
    std::memset(raw + (size_t(y) * width + size_t(c.left)) * bytes, 0xFF, size_t(c.right - c.left) * bytes);
}

void TpsdLayer::copyMaskToCanvas(uint32_t width, uint32_t height, TpixelData16& canvas) const {
  Tchannel* mask = fPixels ? fPixels->channel(channelUserMask) : nullptr;
  const TlRect& m = fMaskRect;
  if (!mask || m.bottom <= m.top || m.right <= m.left) return;
  TlRect c = clamped(m, width, height);
  if (c.right <= c.left) return;
  uint32_t maskWidth = uint32_t(m.right - m.left);
  for (int32_t y = c.top; y < c.bottom; ++y)
    canvas.copyChannel(channelUserMask, uint32_t(y) * width + uint32_t(c.left), uint32_t(c.right - c.left), *fPixels,
                       uint32_t(y - m.top) * maskWidth + uint32_t(c.left - m.left));
}

void TpsdLayer::applyMask(uint32_t width, uint32_t height, TdataFormat format, TpixelData16& canvas) const {
  if ((fMaskFlags & 2) || !hasChannel(channelUserMask)) return;
  uint8_t* alpha = canvas.getTransparencyPixelPtr();
  if (!alpha) return;
  TpixelData16 mask(format);
  // The default colour is 0 or 255 in the file, at 16-bit scale on 16-bit canvases.
  uint16_t fill = uint16_t(format == dataFormat16 ? fMaskDefault * 257 : fMaskDefault);
  mask.addChannel(channelUserMask, width, height, fill);
  copyMaskToCanvas(width, height, mask);
  uint32_t n = std::min(canvas.size(channelTransparency), width * height);
  canvas.memAND(alpha, mask.getChannelPixPtr(channelUserMask), n);
}

}  // namespace zkPhotoshop
