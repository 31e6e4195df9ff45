// The compressor table, the stored form and the buffer turning.
#include "kelpimage/il/ilcodec.h"

#include <algorithm>
#include <array>
#include <bit>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <mutex>

using namespace ilcodec;

#define L(i) uint8_t(i)
#define R16(i)                                                                                               \
  L(i), L(i + 1), L(i + 2), L(i + 3), L(i + 4), L(i + 5), L(i + 6), L(i + 7), L(i + 8), L(i + 9), L(i + 10), \
      L(i + 11), L(i + 12), L(i + 13), L(i + 14), L(i + 15)
const uint8_t ildeflut[256] = {R16(0),   R16(16),  R16(32),  R16(48),  R16(64),  R16(80),  R16(96),  R16(112),
                               R16(128), R16(144), R16(160), R16(176), R16(192), R16(208), R16(224), R16(240)};
#undef R16
#undef L

namespace ilcodec {

Tile::Tile(const ILpackinfo* info, bool unpacking) {
  w = info->width;
  h = info->height;
  bytes = info->bytes;
  esize = (unpacking && info->reduce) ? 1 : info->bytes;
  channels = info->channels ? info->channels : 1;
  stride = info->linewidth ? info->linewidth : info->width;
  bitmask = info->bitmask;
  lookups = info->lookups;
  count = 0;
  for (int n = 0; n < 4; ++n)
    if ((bitmask >> n) & 1) {
      // A channel that the memory pixel has no room for is left out.
      if (channels == 4 || uint32_t(n) < channels) present[count++] = n;
    }
}

uint8_t* scratch(size_t bytes) {
  thread_local std::vector<uint8_t> space;
  if (space.size() < bytes) space.resize(bytes);
  return space.data();
}

}  // namespace ilcodec

// ---------------------------------------------------------------------------
// Stored form: every present channel of every pixel, alpha, blue, green, red,
// each element big-endian.

int ILpack(void* dest, void* src, ILpackinfo* info) {
  Tile t(info, false);
  auto* out = static_cast<uint8_t*>(dest);
  auto* base = static_cast<uint8_t*>(src);
  for (uint32_t y = 0; y < t.h; ++y)
    for (uint32_t x = 0; x < t.w; ++x)
      for (int i = 0; i < t.count; ++i) {
        int n = t.present[i];
        const uint8_t* e = t.element(base, x, y, n);
        if (t.bytes == 1) {
          const uint8_t* lut = t.table(n);
          *out++ = lut ? lut[*e] : *e;
        } else if (t.bytes == 2) {
          uint16_t v;
          std::memcpy(&v, e, 2);
          kelp::putBE16(out, v);
          out += 2;
        } else {
          uint32_t v;
          std::memcpy(&v, e, 4);
          kelp::putBE32(out, v);
          out += 4;
        }
      }
  return int(out - static_cast<uint8_t*>(dest));
}

namespace {
using Words4 = uint32_t __attribute__((vector_size(16)));

// The common stored tile, four 1-byte channels: each pixel's alpha, blue,
// green, red turned to blue, green, red, alpha, four pixels at a time where
// a pixel read as a little-endian word is simply rotated.
void turnStored(const Tile& t, const uint8_t* in, uint8_t* base) {
  for (uint32_t y = 0; y < t.h; ++y, in += size_t(t.w) * 4) {
    uint8_t* row = base + size_t(y) * t.stride * 4;
    uint32_t x = 0;
    if constexpr (std::endian::native == std::endian::little) {
      for (; x + 4 <= t.w; x += 4) {
        Words4 v;
        std::memcpy(&v, in + size_t(x) * 4, 16);
        v = (v >> 8) | (v << 24);
        std::memcpy(row + size_t(x) * 4, &v, 16);
      }
    }
    for (; x < t.w; ++x) {
      const uint8_t* p = in + size_t(x) * 4;
      uint8_t* o = row + size_t(x) * 4;
      o[0] = p[1], o[1] = p[2], o[2] = p[3], o[3] = p[0];
    }
  }
}
}  // namespace

int ILunpack(void* dest, void* src, ILpackinfo* info) {
  Tile t(info, true);
  if (info->size != t.storedSize() || (t.bytes != 1 && t.bytes != 2 && t.bytes != 4)) return fail();
  const auto* in = static_cast<const uint8_t*>(src);
  auto* base = static_cast<uint8_t*>(dest);
  bool reduce = info->reduce != 0;
  if (t.bytes == 1 && t.esize == 1 && t.channels == 4 && t.count == 4 && !t.table(0) && !t.table(1) && !t.table(2) &&
      !t.table(3)) {
    turnStored(t, in, base);
    return int(std::min<uint64_t>(t.pixels() * 4, INT32_MAX));
  }
  for (uint32_t y = 0; y < t.h; ++y)
    for (uint32_t x = 0; x < t.w; ++x)
      for (int i = 0; i < t.count; ++i) {
        int n = t.present[i];
        uint8_t* e = t.element(base, x, y, n);
        if (t.bytes == 1 || reduce) {
          const uint8_t* lut = t.table(n);
          *e = lut ? lut[in[0]] : in[0];
        } else if (t.bytes == 2) {
          uint16_t v = kelp::getBE16(in);
          std::memcpy(e, &v, 2);
        } else {
          uint32_t v = kelp::getBE32(in);
          std::memcpy(e, &v, 4);
        }
        in += t.bytes;
      }
  uint64_t produced = t.pixels() * uint32_t(t.count) * t.esize;
  return produced > INT32_MAX ? INT32_MAX : int(produced ? produced : 1);
}

// ---------------------------------------------------------------------------
// Turning four-channel pixels between memory order (blue, green, red, alpha)
// and working order (alpha, blue, green, red).

namespace {
template <class E>
void turnPixels(void* buffer, const ILpackinfo* info, bool toWorking) {
  uint32_t stride = info->linewidth ? info->linewidth : info->width;
  auto* base = static_cast<E*>(buffer);
  for (uint32_t y = 0; y < info->height; ++y) {
    E* p = base + uint64_t(y) * stride * 4;
    for (uint32_t x = 0; x < info->width; ++x, p += 4) {
      E a = p[0], b = p[1], c = p[2], d = p[3];
      if (toWorking) {
        p[0] = d, p[1] = a, p[2] = b, p[3] = c;
      } else {
        p[0] = b, p[1] = c, p[2] = d, p[3] = a;
      }
    }
  }
}
}  // namespace

void ConvertABGRtoBGRA(void* buffer, ILpackinfo* info) {
  if (info->channels != 4) return;
  uint32_t e = info->reduce ? 1 : info->bytes;
  if (e == 2)
    turnPixels<uint16_t>(buffer, info, false);
  else if (e == 4)
    turnPixels<uint32_t>(buffer, info, false);
  else
    turnPixels<uint8_t>(buffer, info, false);
}

void ConvertBGRAtoABGR(void* buffer, ILpackinfo* info) {
  if (info->channels != 4) return;
  uint32_t e = info->reduce ? 1 : info->bytes;
  if (e == 2)
    turnPixels<uint16_t>(buffer, info, true);
  else
    turnPixels<uint8_t>(buffer, info, true);
}

// ---------------------------------------------------------------------------
// The compressor table.

namespace {
struct Entry {
  char* name = nullptr;
  ILcodecfn pack = nullptr;
  ILcodecfn unpack = nullptr;
};

struct Table {
  Entry entries[65];
  Table() {
    const char* names[] = {"None", "RLE", "QRL", "QR4"};
    ILcodecfn packs[] = {ILpack, ILpackrle, ILpackqrl, ILpackqr4};
    ILcodecfn unpacks[] = {ILunpack, ILunpackrle, ILunpackqrl, ILunpackqr4};
    for (int i = 0; i < 4; ++i) entries[i] = {strdup(names[i]), packs[i], unpacks[i]};
  }
  ~Table() {
    for (Entry& e : entries) std::free(e.name);
  }
};

Table& table() {
  static Table t;
  return t;
}
}  // namespace

void ILaddcompressor(uint32_t number, const char* name, ILcodecfn pack, ILcodecfn unpack) {
  if (number < 32 || number > 63) return;
  Entry& e = table().entries[number];
  std::free(e.name);
  e.name = name ? strdup(name) : nullptr;
  e.pack = pack;
  e.unpack = unpack;
}

void ILfindcompressor(uint32_t number, char* name, ILcodecfn* pack, ILcodecfn* unpack) {
  number &= 0xFFFF;
  const Entry& e = table().entries[number > 63 ? 64 : number];
  if (name) {
    name[0] = 0;
    if (e.name) {
      std::strncpy(name, e.name, IL_COMPNAMELEN - 1);
      name[IL_COMPNAMELEN - 1] = 0;
    }
  }
  if (pack) *pack = e.pack;
  if (unpack) *unpack = e.unpack;
}
