#include "kelpimage/photoshop/tchannel.h"

#include "kelpimage/photoshop/channelwork.h"

#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <thread>
#include <cstring>
#include <new>

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

namespace {

// How many bytes from `i` on each differ from the byte behind them (the
// last byte of the row counts as differing), eight at a time.
size_t singles(const uint8_t* src, size_t i, size_t count) {
  size_t j = i;
  while (j + 9 <= count) {
    uint64_t a, b;
    std::memcpy(&a, src + j, 8);
    std::memcpy(&b, src + j + 1, 8);
    uint64_t x = a ^ b;
    if ((x - 0x0101010101010101ull) & ~x & 0x8080808080808080ull) break;  // an equal pair among them
    j += 8;
  }
  while (j + 1 < count && src[j] != src[j + 1]) ++j;
  return j + 1 == count ? j + 1 - i : j - i;
}

}  // namespace

// PackBits with four states, so that a run of two inside literal bytes is
// folded back into the literal when that costs nothing.
size_t packRow(uint8_t* dst, const uint8_t* src, size_t count) {
  enum { BASE, LITERAL, RUN, LITERAL_RUN } state = BASE;
  uint8_t* out = dst;
  uint8_t* literalCount = nullptr;  // control byte of the current literal
  uint8_t* lastControl = nullptr;   // control byte of the last run
  auto emitRun = [&](size_t n, uint8_t b) {
    while (n > 128) {
      lastControl = out;
      *out++ = 129;
      *out++ = b;
      n -= 128;
    }
    lastControl = out;
    *out++ = uint8_t(1 - int(n));
    *out++ = b;
  };
  auto startLiteral = [&](uint8_t b) {
    literalCount = out;
    *out++ = 0;
    *out++ = b;
    state = LITERAL;
  };
  size_t i = 0;
  while (i < count) {
    if (state == LITERAL) {
      // A stretch of bytes that each differ from the next joins the open
      // literal at once, as the byte-by-byte steps would add them.
      size_t k = singles(src, i, count);
      size_t m = std::min<size_t>(k, 127 - *literalCount);
      if (m) {
        std::memcpy(out, src + i, m);
        out += m;
        i += m;
        *literalCount = uint8_t(*literalCount + m);
        if (*literalCount == 127) state = BASE;
        continue;
      }
    }
    uint8_t b = src[i];
    size_t n = 1;
    while (i + n < count && src[i + n] == b) ++n;
    i += n;
    for (bool again = true; again;) {
      again = false;
      switch (state) {
        case BASE:
        case RUN:
          if (n >= 2) {
            state = RUN;
            emitRun(n, b);
          } else {
            startLiteral(b);
          }
          break;
        case LITERAL:
          if (n >= 2) {
            state = LITERAL_RUN;
            emitRun(n, b);
          } else {
            if (++*literalCount == 127) state = BASE;
            *out++ = b;
          }
          break;
        case LITERAL_RUN:
          // A run of two folds back into the literal only when it follows
          // the literal directly: a run of 130 is 128 and then 2, and
          // folding that 2 would move bytes across the 128.
          if (n == 1 && *lastControl == 0xFF && *literalCount < 126 &&
              lastControl == literalCount + *literalCount + 2) {
            *literalCount = uint8_t(*literalCount + 2);
            state = *literalCount == 127 ? BASE : LITERAL;
            *lastControl = lastControl[1];
          } else {
            state = RUN;
          }
          again = true;
          break;
      }
    }
  }
  return size_t(out - dst);
}

// Runs and literals are stored 32 or 128 bytes at a time where the row
// has room: a fixed-size store is far cheaper than a call, and what it
// writes past the run is written over by what follows.
bool unpackRow8(uint8_t* dst, const uint8_t* src, size_t srcLength, size_t dstLength) {
  constexpr size_t kWide = 32;
  size_t in = 0, out = 0;
  while (in < srcLength) {
    int c = int8_t(src[in++]);
    if (c >= 0) {
      size_t n = size_t(c) + 1;
      if (in + n > srcLength || out + n > dstLength) return false;
      if (n <= kWide && in + kWide <= srcLength && out + kWide <= dstLength)
        std::memcpy(dst + out, src + in, kWide);
      else if (in + 128 <= srcLength && out + 128 <= dstLength)
        std::memcpy(dst + out, src + in, 128);  // a literal is at most 128 bytes
      else
        std::memcpy(dst + out, src + in, n);
      in += n;
      out += n;
    } else if (c > -128) {
      size_t n = size_t(1 - c);
      if (in >= srcLength || out + n > dstLength) return false;
      uint8_t v = src[in++];
      if (out + 128 <= dstLength)
        std::memset(dst + out, v, 128);  // a run is at most 128 bytes
      else
        std::memset(dst + out, v, n);
      out += n;
    }
  }
  return out == dstLength;
}

Tchannel::Tchannel(uint32_t width, uint32_t height, TdataFormat format)
    : fPixelCount(width * height), fWidth(width), fHeight(height), fFormat(format) {}

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

unsigned threadsFor(unsigned threads) {
  if (threads == 0) threads = std::thread::hardware_concurrency();
  return std::clamp(threads, 1u, 8u);
}

namespace {

// Runs `work` on each channel on `threadCount` threads, the largest first.
template <class Work>
void eachInParallel(const std::vector<Tchannel*>& channels, unsigned threadCount, Work work) {
  std::vector<Tchannel*> jobs(channels);
  std::sort(jobs.begin(), jobs.end(), [](const Tchannel* a, const Tchannel* b) { return a->rawBytes() > b->rawBytes(); });
  std::atomic<size_t> next{0};
  std::atomic<bool> failed{false};
  auto run = [&] {
    for (size_t i; (i = next++) < jobs.size();) {
      try {
        work(*jobs[i]);
      } catch (...) {
        failed = true;
      }
    }
  };
  size_t threads = std::min<size_t>(threadsFor(threadCount), jobs.size());
  std::vector<std::thread> pool;
  for (size_t t = 1; t < threads; ++t) pool.emplace_back(run);
  run();
  for (std::thread& t : pool) t.join();
  if (failed) throw std::bad_alloc();
}

}  // namespace

void compressInParallel(const std::vector<Tchannel*>& channels, unsigned threads) {
  eachInParallel(channels, threads, [](Tchannel& ch) { ch.compress(false); });
}

void expandInParallel(const std::vector<Tchannel*>& channels, unsigned threads) {
  eachInParallel(channels, threads, [](Tchannel& ch) { ch.rawPointer(); });
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
