// One channel of a layered document: the bytes as the file holds them and,
// made on demand, the expanded samples.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "kelpimage/kelpexport.h"

namespace zkPhotoshop {

enum TdataFormat : int32_t { dataFormat8 = 0, dataFormat16 = 1 };

// The values 0 to 3 are those of the compression word in the file.
enum TCompressionMethod : int32_t {
  compressionUnset = -1,
  compressionRaw = 0,
  compressionRLE = 1,
  compressionZip = 2,
  compressionZipPredict = 3,
};

// Channel ids; 3 and above are the alpha channels of the flattened image.
using PHOTOSHOP_CHANNEL = int32_t;
constexpr PHOTOSHOP_CHANNEL channelRed = 0;
constexpr PHOTOSHOP_CHANNEL channelGreen = 1;
constexpr PHOTOSHOP_CHANNEL channelBlue = 2;
constexpr PHOTOSHOP_CHANNEL channelTransparency = -1;
constexpr PHOTOSHOP_CHANNEL channelUserMask = -2;
constexpr PHOTOSHOP_CHANNEL channelRealUserMask = -3;

struct TlRect {
  int32_t top = 0, left = 0, bottom = 0, right = 0;
};
struct TlPoint {
  int32_t x = 0, y = 0;
};

// Bytes a sample of `format`: 1, 2, or 0 for a format that is neither.
inline uint32_t bytesOf(TdataFormat format) { return format == dataFormat8 ? 1 : format == dataFormat16 ? 2 : 0; }

// Bytes that are not zeroed when allocated: samples are always written
// (filled or expanded) before they are read.
template <class T>
struct TuninitAllocator : std::allocator<T> {
  template <class U>
  struct rebind {
    using other = TuninitAllocator<U>;
  };
  TuninitAllocator() = default;
  template <class U>
  TuninitAllocator(const TuninitAllocator<U>&) noexcept {}
  template <class U>
  void construct(U* p) noexcept {
    ::new (static_cast<void*>(p)) U;
  }
  template <class U, class... A>
  void construct(U* p, A&&... a) {
    ::new (static_cast<void*>(p)) U(std::forward<A>(a)...);
  }
};
using TsampleBuffer = std::vector<uint8_t, TuninitAllocator<uint8_t>>;

class KELP_API Tchannel {
 public:
  Tchannel(uint32_t width, uint32_t height, TdataFormat format);

  // Allocates the samples, at the fill value, if they do not exist yet.
  // Throws the channel's format error text (a plain char const *) for a
  // format that is neither 8 nor 16 bits.
  void ensureRaw();
  bool hasRaw() const { return !fRaw.empty(); }
  void fill(uint16_t value);
  // One sample; an index past the end reads 0 and writes nothing.
  uint32_t value(uint32_t index);
  void setValue(uint32_t index, uint32_t value);
  void assignRaw(const uint8_t* source);
  // Throws "Channel format mismatch in copy" when the formats differ.
  void copyPixels(Tchannel& source);
  void copySpan(uint32_t dstIndex, uint32_t count, uint32_t srcIndex, Tchannel& source);
  void cloneFrom(const Tchannel& source);

  // The file form from the samples (nothing when it exists already).
  // False when the samples cannot be packed.
  bool compress(bool separateRowLengths);
  // The samples from the file form. False, the samples at their fill, when
  // the bytes are damaged or of a method that cannot be read.
  bool expand();
  // The samples, expanded from the file form at the first call.
  uint8_t* rawPointer();

  // Whether fDataLength bytes of this method can hold the samples: checked
  // before the samples of file bytes are allocated. Methods that cannot be
  // read are not plausible.
  bool plausible() const;
  // Gives back the expanded samples of a channel that keeps its file
  // bytes; the next rawPointer expands them again. takeRaw hands the
  // buffer over for another channel to reuse (lendBuffer), which saves the
  // system the work of a fresh one.
  KELP_LOCAL void releaseRaw();
  KELP_LOCAL TsampleBuffer takeRaw();
  KELP_LOCAL void lendBuffer(TsampleBuffer& buffer);
  // True when the last expansion found the file bytes damaged.
  bool expandFailed() const { return fExpandFailed; }
  bool hasCompressed() const { return !fCompressed.empty(); }
  // Takes file bytes; `length` of them count (the buffer may be longer).
  void setCompressed(std::vector<uint8_t> bytes, uint32_t length);
  uint32_t bytesPerSample() const { return bytesOf(fFormat); }
  size_t rawBytes() const { return size_t(fPixelCount) * bytesPerSample(); }

  uint32_t fDataLength = 0;
  int32_t fCompression = compressionUnset;
  uint32_t fPixelCount = 0;
  uint32_t fWidth = 0;
  uint32_t fHeight = 0;
  TdataFormat fFormat = dataFormat8;
  uint8_t fReserved = 0;
  // Row lengths, big-endian u16, of channels of the flattened image; layer
  // channels keep theirs at the head of fCompressed. Empty when absent.
  std::vector<uint8_t> fRowLengths;
  std::vector<uint8_t> fCompressed;  // empty when absent
  uint16_t fFillValue = 0;
  TsampleBuffer fRaw;  // host-order samples, row after row; empty until made

 private:
  KELP_LOCAL bool expandRaw();
  KELP_LOCAL bool expandRLE();
  KELP_LOCAL bool expandZip(bool predict);
  KELP_LOCAL bool compressRLE(bool separate);
  KELP_LOCAL bool compressZip(bool predict);

  bool fExpanded = false;  // fRaw holds the expansion of fCompressed
  bool fExpandFailed = false;
};

// PackBits, as the document's run-length rows have it. `packRow` writes at
// most count + count / 64 + 2 bytes and returns how many it wrote.
KELP_API size_t packRow(uint8_t* dst, const uint8_t* src, size_t count);
// Expands one packed row into exactly dstLength bytes; false when the row is
// damaged (too short, or running past its end). Controls of -128 are skipped.
KELP_API bool unpackRow8(uint8_t* dst, const uint8_t* src, size_t srcLength, size_t dstLength);

}  // namespace zkPhotoshop
