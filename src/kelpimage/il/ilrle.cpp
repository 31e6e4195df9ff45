// Run length form: planes of bytes, the most significant byte of every
// present channel first, each plane one long series of packets over the
// whole tile. A control byte c gives n = (c & 127) + 1; with bit 0x80 one
// value byte follows for n copies, otherwise n literal bytes.
#include <algorithm>
#include <bit>
#include <climits>

#include "kelpimage/il/ilcodec.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

using namespace ilcodec;

namespace {

// Memory offset of byte `place` (0 the least significant) in an element.
inline uint32_t byteOffset(uint32_t place, uint32_t size) {
  if constexpr (std::endian::native == std::endian::little)
    return place;
  else
    return size - 1 - place;
}

// The encoder of one plane. It keeps the budget of the whole call and
// reports running out with false.
class PlaneEncoder {
 public:
  PlaneEncoder(uint8_t*& out, int64_t& budget) : fOut(out), fBudget(budget) {}

  bool encode(const uint8_t* plane, size_t n) {
    if (n == 0) return true;
    fCount = 0;
    fMark = 0;
    fInRun = false;
    uint8_t prev = uint8_t(plane[0] ^ 1);
    for (size_t i = 0; i < n; ++i) {
      uint8_t c = plane[i];
      // Two fast paths that do what the steps below would do byte by byte:
      // a stretch of bytes each unlike the one before joins the literal at
      // once, and a run takes its like bytes at once.
      if (!fInRun && fCount < 128 && c != prev) {
        size_t end = i + 1, limit = std::min(n, i + (128 - fCount));
        while (end < limit && plane[end] != plane[end - 1]) ++end;
        std::memcpy(fBuf + fCount, plane + i, end - i);
        fCount += uint32_t(end - i);
        fMark = fCount - 1;
        prev = plane[end - 1];
        i = end - 1;
        continue;
      }
      if (fInRun && c == prev && fCount < 128) {
        size_t end = i + 1, limit = std::min(n, i + (128 - fCount));
        while (end < limit && plane[end] == c) ++end;
        fCount += uint32_t(end - i);
        i = end - 1;
        continue;
      }
      if (fInRun) {
        if (c == prev && fCount < 128) {
          ++fCount;
        } else {
          if (!run(prev)) return false;
          fInRun = false;
          fBuf[0] = c;
          fCount = 1;
          fMark = 0;
        }
      } else if (fCount >= 128) {
        if (!literal(128)) return false;
        fBuf[0] = c;
        fMark = 0;
        fCount = 1;
      } else if (c == prev) {
        if (fMark == 0) {
          fInRun = true;
          fBuf[fCount++] = c;
        } else if (fCount - fMark < 2) {
          fBuf[fCount++] = c;
        } else {
          // The last three are alike: what stands before them goes as a literal.
          if (!literal(fMark)) return false;
          fMark = 0;
          fInRun = true;
          fCount = 3;
        }
      } else {
        fMark = fCount;
        fBuf[fCount++] = c;
      }
      prev = c;
    }
    return fInRun ? run(prev) : literal(fCount);
  }

 private:
  bool run(uint8_t value) {
    fBudget -= 2;
    if (fBudget < 1) return false;
    *fOut++ = uint8_t(0x80 | (fCount - 1));
    *fOut++ = value;
    return true;
  }
  bool literal(uint32_t n) {
    if (n == 0) return true;
    fBudget -= int64_t(n) + 1;
    if (fBudget < 1) return false;
    *fOut++ = uint8_t(n - 1);
    std::memcpy(fOut, fBuf, n);
    fOut += n;
    return true;
  }

  uint8_t*& fOut;
  int64_t& fBudget;
  uint8_t fBuf[130];
  uint32_t fCount = 0, fMark = 0;
  bool fInRun = false;
};

// Bytes a decoded plane may be written past its end: runs and literals are
// stored 16 bytes at a time, the excess overwritten by what comes next.
constexpr size_t kPlaneSlack = 128;

using Bytes16 = uint8_t __attribute__((vector_size(16)));

inline Bytes16 load16(const uint8_t* p) {
  Bytes16 v;
  std::memcpy(&v, p, 16);
  return v;
}
inline void store16(uint8_t* p, Bytes16 v) { std::memcpy(p, &v, 16); }

// A store past the caches where the machine has one: a raster larger than
// they are is written once, and reading its lines in for writing would
// double the memory traffic. endStreaming orders them before what follows.
inline void streamStore16(uint8_t* p, Bytes16 v) {
#if defined(__SSE2__)
  if ((reinterpret_cast<uintptr_t>(p) & 15) == 0) {
    _mm_stream_si128(reinterpret_cast<__m128i*>(p), reinterpret_cast<__m128i>(v));
    return;
  }
#endif
  store16(p, v);
}
inline void endStreaming() {
#if defined(__SSE2__)
  _mm_sfence();
#endif
}

// Decodes one plane of `n` bytes into `plane`, which has kPlaneSlack bytes to
// spare past it; false if a packet runs past the plane or the payload.
bool decodePlane(const uint8_t*& in, const uint8_t* end, uint8_t* plane, size_t n) {
  size_t done = 0;
  while (done < n) {
    if (in >= end) return false;
    uint8_t c = *in++;
    size_t count = size_t(c & 127) + 1;
    if (count > n - done) return false;
    uint8_t* out = plane + done;
    if (c & 0x80) {
      if (in >= end) return false;
      Bytes16 v = Bytes16{} + *in++;
      for (size_t k = 0; k < count; k += 16) store16(out + k, v);
    } else {
      size_t left = size_t(end - in);
      if (left < count) return false;
      if (left >= (count + 15) / 16 * 16) {
        for (size_t k = 0; k < count; k += 16) store16(out + k, load16(in + k));
      } else {
        std::memcpy(out, in, count);
      }
      in += count;
    }
    done += count;
  }
  return true;
}

// Writes plane bytes into byte `place` of working channel `n` of each pixel.
void scatter(const Tile& t, uint8_t* base, const uint8_t* plane, int n, uint32_t place, const uint8_t* lut) {
  uint32_t off = byteOffset(place, t.esize);
  size_t step = size_t(t.channels) * t.esize;
  for (uint32_t y = 0; y < t.h; ++y) {
    uint8_t* p = t.element(base, 0, y, n) + off;
    const uint8_t* s = plane + size_t(y) * t.w;
    if (lut) {
      for (uint32_t x = 0; x < t.w; ++x, p += step) *p = lut[s[x]];
    } else {
      for (uint32_t x = 0; x < t.w; ++x, p += step) *p = s[x];
    }
  }
}

// Writes `n` groups of four bytes, byte k of each group from `from[k]`, 16
// groups at a time.
void interleaveBytes(uint8_t* out, const uint8_t* const from[4], size_t n, bool streaming) {
  auto put = [streaming](uint8_t* p, Bytes16 v) { streaming ? streamStore16(p, v) : store16(p, v); };
  size_t x = 0;
  for (; x + 16 <= n; x += 16) {
    Bytes16 v0 = load16(from[0] + x), v1 = load16(from[1] + x), v2 = load16(from[2] + x), v3 = load16(from[3] + x);
    Bytes16 low01 = __builtin_shufflevector(v0, v1, 0, 16, 1, 17, 2, 18, 3, 19, 4, 20, 5, 21, 6, 22, 7, 23);
    Bytes16 high01 = __builtin_shufflevector(v0, v1, 8, 24, 9, 25, 10, 26, 11, 27, 12, 28, 13, 29, 14, 30, 15, 31);
    Bytes16 low23 = __builtin_shufflevector(v2, v3, 0, 16, 1, 17, 2, 18, 3, 19, 4, 20, 5, 21, 6, 22, 7, 23);
    Bytes16 high23 = __builtin_shufflevector(v2, v3, 8, 24, 9, 25, 10, 26, 11, 27, 12, 28, 13, 29, 14, 30, 15, 31);
    uint8_t* o = out + x * 4;
    put(o, __builtin_shufflevector(low01, low23, 0, 1, 16, 17, 2, 3, 18, 19, 4, 5, 20, 21, 6, 7, 22, 23));
    put(o + 16, __builtin_shufflevector(low01, low23, 8, 9, 24, 25, 10, 11, 26, 27, 12, 13, 28, 29, 14, 15, 30, 31));
    put(o + 32, __builtin_shufflevector(high01, high23, 0, 1, 16, 17, 2, 3, 18, 19, 4, 5, 20, 21, 6, 7, 22, 23));
    put(o + 48, __builtin_shufflevector(high01, high23, 8, 9, 24, 25, 10, 11, 26, 27, 12, 13, 28, 29, 14, 15, 30, 31));
  }
  for (; x < n; ++x)
    for (int k = 0; k < 4; ++k) out[x * 4 + size_t(k)] = from[k][x];
}

// The common shape, four 1-byte channels all present: bytes blue, green,
// red, alpha from the planes alpha, blue, green, red.
void interleave4(const Tile& t, uint8_t* base, const uint8_t* planes, bool streaming) {
  size_t area = t.pixels();
  for (uint32_t y = 0; y < t.h; ++y) {
    size_t o = size_t(y) * t.w;
    const uint8_t* const from[4] = {planes + area + o, planes + 2 * area + o, planes + 3 * area + o, planes + o};
    interleaveBytes(base + size_t(y) * t.stride * 4, from, t.w, streaming);
  }
}

// One 4-byte channel, as depth is: whole words from four planes, the most
// significant first.
void interleaveWords(const Tile& t, uint8_t* base, const uint8_t* planes, bool streaming) {
  size_t area = t.pixels();
  for (uint32_t y = 0; y < t.h; ++y) {
    uint8_t* row = t.element(base, 0, y, t.present[0]);
    size_t o = size_t(y) * t.w;
    if (t.channels == 1 && std::endian::native == std::endian::little) {
      const uint8_t* const from[4] = {planes + 3 * area + o, planes + 2 * area + o, planes + area + o, planes + o};
      interleaveBytes(row, from, t.w, streaming);
      continue;
    }
    for (uint32_t x = 0; x < t.w; ++x) {
      uint32_t v = uint32_t(planes[o + x]) << 24 | uint32_t(planes[area + o + x]) << 16 |
                   uint32_t(planes[2 * area + o + x]) << 8 | planes[3 * area + o + x];
      std::memcpy(row + size_t(x) * t.channels * 4, &v, 4);
    }
  }
}

}  // namespace

int ILpackrle(void* dest, void* src, ILpackinfo* info) {
  Tile t(info, false);
  size_t area = t.pixels();
  uint8_t* plane = scratch(area);
  auto* base = static_cast<uint8_t*>(src);
  auto* out = static_cast<uint8_t*>(dest);
  int64_t budget = int64_t(t.storedSize());
  PlaneEncoder encoder(out, budget);
  for (uint32_t place = t.bytes; place-- > 0;) {
    for (int i = 0; i < t.count; ++i) {
      int n = t.present[i];
      const uint8_t* lut = t.bytes == 1 ? t.table(n) : nullptr;
      uint32_t off = byteOffset(place, t.esize);
      size_t step = size_t(t.channels) * t.esize;
      for (uint32_t y = 0; y < t.h; ++y) {
        const uint8_t* p = t.element(base, 0, y, n) + off;
        uint8_t* d = plane + size_t(y) * t.w;
        for (uint32_t x = 0; x < t.w; ++x, p += step) d[x] = lut ? lut[*p] : *p;
      }
      if (!encoder.encode(plane, area)) return ILpack(dest, src, info);
    }
  }
  int total = int(out - static_cast<uint8_t*>(dest));
  // Small results are written stored: readers tell the forms apart by size.
  if (total < 128) return ILpack(dest, src, info);
  return total;
}

int ILunpackrle(void* dest, void* src, ILpackinfo* info) { return ilcodec::unpackRle(dest, src, info, false); }

int ilcodec::unpackRle(void* dest, void* src, ILpackinfo* info, bool streaming) {
  Tile t(info, true);
  if (info->size == t.storedSize()) return ILunpack(dest, src, info);
  if (t.bytes != 1 && t.bytes != 2 && t.bytes != 4) return fail();
  bool reduce = info->reduce != 0;
  // With `reduce` only the most significant plane of each channel is needed.
  int planes = reduce ? t.count : t.count * int(t.bytes);
  size_t area = t.pixels();
  uint8_t* scratchPlanes = scratch(area * size_t(planes) + kPlaneSlack);
  const auto* in = static_cast<const uint8_t*>(src);
  const uint8_t* end = in + info->size;
  for (int k = 0; k < planes; ++k)
    if (!decodePlane(in, end, scratchPlanes + area * size_t(k), area)) return fail();

  auto* base = static_cast<uint8_t*>(dest);
  bool lutsAllowed = t.bytes == 1 || reduce;
  bool anyLut = false;
  for (int i = 0; i < t.count && lutsAllowed; ++i) anyLut = anyLut || t.table(t.present[i]);
  if (t.esize == 1 && t.channels == 4 && t.count == 4 && !anyLut) {
    interleave4(t, base, scratchPlanes, streaming);
  } else if (t.esize == 4 && t.count == 1 && !reduce) {
    interleaveWords(t, base, scratchPlanes, streaming);
  } else {
    for (int k = 0; k < planes; ++k) {
      int n = t.present[k % t.count];
      uint32_t place = reduce ? 0 : t.bytes - 1 - uint32_t(k / t.count);
      scatter(t, base, scratchPlanes + area * size_t(k), n, place, lutsAllowed ? t.table(n) : nullptr);
    }
  }
  if (streaming) endStreaming();
  uint64_t produced = area * uint32_t(t.count) * t.esize;
  return produced > INT32_MAX ? INT32_MAX : int(produced ? produced : 1);
}
