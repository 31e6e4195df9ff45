#include "kelpimage/photoshop/tchannel.h"

#include "kelpimage/photoshop/channelwork.h"

#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>
#include <thread>

namespace zkPhotoshop {

namespace {

// The texts of the two plain throws, as callers catch and show them.
const char* const kBadFormat = "Invalid format specification for pix format";
const char* const kFormatMismatch = "Channel format mismatch in copy";

uint16_t load16(const uint8_t* p) {
  uint16_t v;
  std::memcpy(&v, p, 2);
  return v;
}
void store16(uint8_t* p, uint16_t v) { std::memcpy(p, &v, 2); }

// Big-endian file samples to host order and back: the same swap.
void swap16(uint8_t* p, size_t samples) {
  for (size_t i = 0; i < samples; ++i) std::swap(p[2 * i], p[2 * i + 1]);
}

void fillSamples(TsampleBuffer& raw, TdataFormat format, uint16_t value) {
  if (format == dataFormat8) {
    std::fill(raw.begin(), raw.end(), uint8_t(value));
    return;
  }
  uint8_t pair[2];
  store16(pair, value);
  for (size_t i = 0; i + 1 < raw.size(); i += 2) {
    raw[i] = pair[0];
    raw[i + 1] = pair[1];
  }
}

// Runs inflate over the whole stream into exactly `size` bytes.
bool inflateAll(const uint8_t* in, size_t inLength, uint8_t* out, size_t size) {
  z_stream z{};
  if (inflateInit(&z) != Z_OK) return false;
  z.next_in = const_cast<uint8_t*>(in);
  z.avail_in = uInt(inLength);
  z.next_out = out;
  z.avail_out = uInt(size);
  int rc = inflate(&z, Z_SYNC_FLUSH);
  bool whole = z.avail_out == 0;
  bool ended = inflateEnd(&z) == Z_OK;
  return (rc == Z_OK || rc == Z_STREAM_END) && whole && ended;
}

}  // namespace

void Tchannel::ensureRaw() {
  if (fFormat != dataFormat8 && fFormat != dataFormat16) throw kBadFormat;
  if (!fRaw.empty()) return;
  fRaw.resize(rawBytes());
  fillSamples(fRaw, fFormat, fFillValue);
}

void Tchannel::fill(uint16_t value) {
  fFillValue = value;
  if (!fRaw.empty()) fillSamples(fRaw, fFormat, value);
}

uint32_t Tchannel::value(uint32_t index) {
  ensureRaw();
  if (index >= fPixelCount) return 0;
  return fFormat == dataFormat8 ? fRaw[index] : load16(&fRaw[2 * size_t(index)]);
}

void Tchannel::setValue(uint32_t index, uint32_t v) {
  ensureRaw();
  if (index >= fPixelCount) return;
  if (fFormat == dataFormat8)
    fRaw[index] = uint8_t(v);
  else
    store16(&fRaw[2 * size_t(index)], uint16_t(v));
}

void Tchannel::assignRaw(const uint8_t* source) {
  ensureRaw();
  if (!fRaw.empty()) std::memcpy(fRaw.data(), source, fRaw.size());
}

void Tchannel::copyPixels(Tchannel& source) {
  if (source.fFormat != fFormat) throw kFormatMismatch;
  if (source.fPixelCount != fPixelCount) return;
  if (source.hasRaw()) {
    fRaw = source.fRaw;
  } else {
    // A source whose samples were never touched stands for its fill value.
    fFillValue = source.fFillValue;
    fRaw.clear();
    ensureRaw();
  }
}

void Tchannel::copySpan(uint32_t dstIndex, uint32_t count, uint32_t srcIndex, Tchannel& source) {
  if (source.fFormat != fFormat) throw kFormatMismatch;
  if (srcIndex > source.fPixelCount) return;
  ensureRaw();
  source.ensureRaw();
  // A span that would run past either channel is not copied.
  if (uint64_t(srcIndex) + count > source.fPixelCount || uint64_t(dstIndex) + count > fPixelCount) return;
  size_t b = bytesPerSample();
  std::memcpy(&fRaw[dstIndex * b], &source.fRaw[srcIndex * b], count * b);
}

void Tchannel::cloneFrom(const Tchannel& source) {
  fFormat = source.fFormat;
  fWidth = source.fWidth;
  fHeight = source.fHeight;
  fDataLength = source.fDataLength;
  fCompression = source.fCompression;
  fReserved = source.fReserved;
  fPixelCount = fWidth * fHeight;
  if (!source.fRowLengths.empty()) fRowLengths = source.fRowLengths;
  if (source.hasCompressed()) {
    fCompressed = source.fCompressed;
    fRaw.clear();
    fExpanded = false;
    return;
  }
  copyPixels(const_cast<Tchannel&>(source));
}

void Tchannel::setCompressed(std::vector<uint8_t> bytes, uint32_t length) {
  fCompressed = std::move(bytes);
  fDataLength = uint32_t(std::min<size_t>(length, fCompressed.size()));
  fExpanded = false;
  fExpandFailed = false;
}

bool Tchannel::plausible() const {
  uint64_t raw = rawBytes();
  uint64_t rowBytes = uint64_t(fWidth) * bytesPerSample();
  switch (fCompression) {
    case compressionRaw: return fDataLength >= raw;
    case compressionRLE: {
      // Every row needs two bytes for each 128 it expands to.
      uint64_t table = fRowLengths.empty() ? uint64_t(fHeight) * 2 : 0;
      uint64_t perRow = 2 * ((rowBytes + 127) / 128);
      return fDataLength >= table && fDataLength - table >= fHeight * perRow;
    }
    case compressionZip:
    case compressionZipPredict: return raw <= uint64_t(fDataLength) * 1032 + 1024;
    default: return false;
  }
}

void Tchannel::releaseRaw() {
  if (!hasCompressed()) return;
  TsampleBuffer().swap(fRaw);
  fExpanded = false;
}

TsampleBuffer Tchannel::takeRaw() {
  TsampleBuffer out;
  if (!hasCompressed()) return out;
  out.swap(fRaw);
  fExpanded = false;
  return out;
}

void Tchannel::lendBuffer(TsampleBuffer& buffer) {
  if (!fRaw.empty()) return;
  buffer.clear();
  fRaw.swap(buffer);
}

uint8_t* Tchannel::rawPointer() {
  if (!fExpanded && hasCompressed()) {
    // Expansion writes every sample, so they are not filled first.
    if (fFormat != dataFormat8 && fFormat != dataFormat16) throw kBadFormat;
    if (fRaw.empty()) fRaw.resize(rawBytes());
    fExpandFailed = !expand();
    fExpanded = true;
  }
  ensureRaw();
  return fRaw.data();
}

bool Tchannel::expand() {
  if (fFormat != dataFormat8 && fFormat != dataFormat16) throw kBadFormat;
  if (!hasCompressed()) return false;
  if (fRaw.empty()) return fPixelCount == 0;
  bool ok = false;
  switch (fCompression) {
    case compressionRaw: ok = expandRaw(); break;
    case compressionRLE: ok = expandRLE(); break;
    case compressionZip: ok = expandZip(false); break;
    case compressionZipPredict: ok = expandZip(true); break;
    default: break;
  }
  if (!ok) fillSamples(fRaw, fFormat, fFillValue);
  return ok;
}

bool Tchannel::expandRaw() {
  if (fDataLength < fRaw.size()) return false;
  std::memcpy(fRaw.data(), fCompressed.data(), fRaw.size());
  if (fFormat == dataFormat16) swap16(fRaw.data(), fPixelCount);
  return true;
}

// Rows are PackBits over the bytes of the row as the file has them, for
// 16-bit samples too (big-endian pairs), then put in host order.
bool Tchannel::expandRLE() {
  const uint8_t* table = fRowLengths.empty() ? fCompressed.data() : fRowLengths.data();
  size_t tableBytes = size_t(fHeight) * 2;
  size_t available = fRowLengths.empty() ? fDataLength : fRowLengths.size();
  if (tableBytes > available) return false;
  size_t offset = fRowLengths.empty() ? tableBytes : 0;
  size_t rowBytes = size_t(fWidth) * bytesPerSample();
  for (uint32_t y = 0; y < fHeight; ++y) {
    size_t length = size_t(table[2 * y]) << 8 | table[2 * y + 1];
    if (offset + length > fDataLength) return false;
    if (!unpackRow8(&fRaw[y * rowBytes], &fCompressed[offset], length, rowBytes)) return false;
    offset += length;
  }
  if (fFormat == dataFormat16) swap16(fRaw.data(), fPixelCount);
  return true;
}

// Deflated rows; with prediction each sample was stored as its difference
// from the one before it on the row.
bool Tchannel::expandZip(bool predict) {
  if (!inflateAll(fCompressed.data(), fDataLength, fRaw.data(), fRaw.size())) return false;
  if (fFormat == dataFormat16) swap16(fRaw.data(), fPixelCount);
  if (!predict) return true;
  for (uint32_t y = 0; y < fHeight; ++y) {
    if (fFormat == dataFormat8) {
      uint8_t* row = &fRaw[size_t(y) * fWidth];
      for (uint32_t x = 1; x < fWidth; ++x) row[x] = uint8_t(row[x] + row[x - 1]);
    } else {
      uint8_t* row = &fRaw[size_t(y) * fWidth * 2];
      for (uint32_t x = 1; x < fWidth; ++x)
        store16(row + 2 * x, uint16_t(load16(row + 2 * x) + load16(row + 2 * x - 2)));
    }
  }
  return true;
}

bool Tchannel::compress(bool separateRowLengths) {
  if (hasCompressed()) return true;
  ensureRaw();
  switch (fCompression) {
    case compressionRaw: {
      std::vector<uint8_t> bytes(fRaw.begin(), fRaw.end());
      if (fFormat == dataFormat16) swap16(bytes.data(), fPixelCount);
      uint32_t length = uint32_t(bytes.size());
      setCompressed(std::move(bytes), length);
      return true;
    }
    case compressionRLE: return compressRLE(separateRowLengths);
    case compressionZip: return compressZip(false);
    case compressionZipPredict: return compressZip(true);
    default: return true;
  }
}

bool Tchannel::compressRLE(bool separate) {
  if (fRaw.empty() && fPixelCount) return false;
  size_t rowBytes = size_t(fWidth) * bytesPerSample();
  // The encoder grows a row by a fifth at the most (a single byte between
  // runs of two: 5 bytes become 6).
  size_t worst = rowBytes + rowBytes / 4 + 2;
  if (worst > 0xFFFF) return false;  // a row length must fit its 16 bits
  TsampleBuffer row(rowBytes);
  std::vector<uint8_t> table(size_t(fHeight) * 2);
  TsampleBuffer packed(size_t(fHeight) * worst + (separate ? 0 : table.size()));
  size_t at = separate ? 0 : table.size();
  for (uint32_t y = 0; y < fHeight; ++y) {
    std::memcpy(row.data(), &fRaw[y * rowBytes], rowBytes);
    if (fFormat == dataFormat16) swap16(row.data(), fWidth);
    size_t n = packRow(&packed[at], row.data(), rowBytes);
    table[2 * y] = uint8_t(n >> 8);
    table[2 * y + 1] = uint8_t(n);
    at += n;
  }
  if (separate)
    fRowLengths = std::move(table);
  else
    std::copy(table.begin(), table.end(), packed.begin());
  setCompressed(std::vector<uint8_t>(packed.begin(), packed.begin() + long(at)), uint32_t(at));
  return true;
}

bool Tchannel::compressZip(bool predict) {
  if (fRaw.empty() && fPixelCount) return false;
  TsampleBuffer samples(fRaw.begin(), fRaw.end());
  if (predict) {
    // Differences from the right end back, so each uses its original neighbour.
    for (uint32_t y = 0; y < fHeight; ++y) {
      if (fFormat == dataFormat8) {
        uint8_t* r = &samples[size_t(y) * fWidth];
        for (uint32_t x = fWidth; x-- > 1;) r[x] = uint8_t(r[x] - r[x - 1]);
      } else {
        uint8_t* r = &samples[size_t(y) * fWidth * 2];
        for (uint32_t x = fWidth; x-- > 1;) store16(r + 2 * x, uint16_t(load16(r + 2 * x) - load16(r + 2 * x - 2)));
      }
    }
  }
  if (fFormat == dataFormat16) swap16(samples.data(), fPixelCount);
  // The fastest level: prediction has made the rows small numbers already,
  // and deflate's higher levels cost many times the time for a few percent.
  z_stream z{};
  if (deflateInit2(&z, Z_BEST_SPEED, Z_DEFLATED, 15, 8, Z_DEFAULT_STRATEGY) != Z_OK) return false;
  TsampleBuffer out(deflateBound(&z, uLong(samples.size())));
  z.next_in = samples.data();
  z.avail_in = uInt(samples.size());
  z.next_out = out.data();
  z.avail_out = uInt(out.size());
  int rc = deflate(&z, Z_FINISH);
  uLong size = z.total_out;
  deflateEnd(&z);
  if (rc != Z_STREAM_END) return false;
  setCompressed(std::vector<uint8_t>(out.begin(), out.begin() + long(size)), uint32_t(size));
  return true;
}

}  // namespace zkPhotoshop
