// The zoom's line arithmetic: a source line filtered across into fixed
// point, a depth line likewise, and summed result values packed into a
// line of 8 or 16-bit pixels. Shared by the line-at-a-time reader and the
// one that works on a batch of lines over several threads, so that both give
// the same bytes.
#include <cstring>

#include "kelpimage/il/ilzoom.h"

namespace {
constexpr float kInv16384 = 0.00006103515625f;

uint32_t word(const uint8_t* p) {
  uint32_t w;
  std::memcpy(&w, p, 4);
  return w;
}

// Channels of one source pixel in the order alpha, red, green, blue.
void channels(const ILzoom* z, const uint8_t* line, int x, int32_t out[4]) {
  if (z->mode & 1) {
    uint32_t w0 = word(line + size_t(x) * 8), w1 = word(line + size_t(x) * 8 + 4);
    out[0] = int32_t(w0 >> 16), out[1] = int32_t(w0 & 0xFFFF), out[2] = int32_t(w1 >> 16),
    out[3] = int32_t(w1 & 0xFFFF);
  } else {
    uint32_t w = word(line + size_t(x) * 4);
    out[0] = int32_t(w >> 24), out[1] = int32_t((w >> 16) & 255), out[2] = int32_t((w >> 8) & 255),
    out[3] = int32_t(w & 255);
  }
}

// The 8-bit path of filterAcross. A pixel is a native word, alpha in its top
// byte; its sums fit 32 bits while the weights' absolute sum stays within
// 2^22 (255 * 2^22 < 2^31), which holds for every filter but is checked all the same.
bool filterAcross8(const ILzoom* z, const uint8_t* line, int32_t* out) {
  for (int i = 0; i < z->resultW; ++i) {
    const ILtaps& t = z->xTaps[size_t(i)];
    if (t.absSum > (int64_t(1) << 22)) return false;
    int32_t* o = out + size_t(i) * 4;
    if (t.count == 1) {
      uint32_t w = word(line + size_t(t.first) * 4);
      o[0] = int32_t(w >> 24) << 8, o[1] = int32_t((w >> 16) & 255) << 8, o[2] = int32_t((w >> 8) & 255) << 8,
      o[3] = int32_t(w & 255) << 8;
      continue;
    }
    int32_t a0 = 32, a1 = 32, a2 = 32, a3 = 32;
    const uint8_t* p = line + size_t(t.first) * 4;
    const int32_t* weights = t.weights.data();
    for (int j = 0; j < t.count; ++j, p += 4) {
      const uint32_t w = word(p);
      const int32_t k = weights[j];
      a0 += int32_t(w >> 24) * k, a1 += int32_t((w >> 16) & 255) * k, a2 += int32_t((w >> 8) & 255) * k,
          a3 += int32_t(w & 255) * k;
    }
    o[0] = a0 / 64, o[1] = a1 / 64, o[2] = a2 / 64, o[3] = a3 / 64;
  }
  return true;
}

// Filters one source line across into 4 values a result pixel: 8.8 fixed
// point from an 8-bit source, plain 16-bit values from a 16-bit source.
}  // namespace

void ILfilteracross(const ILzoom* z, const uint8_t* line, int32_t* out) {
  bool deep = z->mode & 1;
  if (!deep && filterAcross8(z, line, out)) return;
  for (int i = 0; i < z->resultW; ++i) {
    const ILtaps& t = z->xTaps[size_t(i)];
    int32_t* o = out + size_t(i) * 4;
    int32_t ch[4];
    if (t.count == 1) {
      channels(z, line, t.first, ch);
      for (int c = 0; c < 4; ++c) o[c] = deep ? ch[c] : ch[c] << 8;
      continue;
    }
    int64_t acc[4];
    for (int64_t& a : acc) a = deep ? 8192 : 32;
    for (int j = 0; j < t.count; ++j) {
      channels(z, line, t.first + j, ch);
      for (int c = 0; c < 4; ++c) acc[c] += int64_t(ch[c]) * t.weights[size_t(j)];
    }
    for (int c = 0; c < 4; ++c) o[c] = int32_t(acc[c] / (deep ? 16384 : 64));
  }
}

void ILfilterdepthacross(const ILzoom* z, const float* line, float* out) {
  for (int i = 0; i < z->resultW; ++i) {
    const ILtaps& t = z->xTaps[size_t(i)];
    if (t.count == 1) {
      out[i] = line[t.first];
      continue;
    }
    float sum = 0.0f;
    for (int j = 0; j < t.count; ++j) sum += float(t.weights[size_t(j)]) * line[t.first + j];
    out[i] = sum * kInv16384;
  }
}

void ILpackzoomcolor(const ILzoom* z, const int64_t* sums, uint8_t* out) {
  bool wide = z->mode & 2;
  bool noclip = z->activeX->noclip && z->activeY->noclip;
  for (int i = 0; i < z->resultW; ++i) {
    const int64_t* a = sums + size_t(i) * 4;
    if (wide) {
      for (int c = 0; c < 4; ++c) {
        uint16_t v = a[c] < 0 ? 0 : a[c] > 0x3FFFC000 ? 0xFFFF : uint16_t(a[c] >> 14);
        std::memcpy(out + size_t(i) * 8 + size_t(c) * 2, &v, 2);
      }
    } else {
      uint32_t v[4];
      for (int c = 0; c < 4; ++c)
        v[c] = noclip ? uint32_t(a[c] >> 22) & 255 : a[c] < 0 ? 0 : a[c] > 0x3FFFC000 ? 255 : uint32_t(a[c] >> 22);
      uint32_t w = v[0] << 24 | v[1] << 16 | v[2] << 8 | v[3];
      std::memcpy(out + size_t(i) * 4, &w, 4);
    }
  }
}
