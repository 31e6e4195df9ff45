// The zoom line engine: identity, nearest-neighbour and filtered paths.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

#include "kelpimage/il/ilzoom.h"

namespace {
constexpr float kInv16384 = 0.00006103515625f;

// Turns a source line into a result line by the mode; a null source gives zeros.
void convertLine(const ILzoom* z, const uint8_t* src, uint8_t* dst) {
  size_t values = size_t(z->resultW) * 4;
  if (!src) {
    std::memset(dst, 0, size_t(z->colorBytes));
    return;
  }
  switch (z->mode) {
    case 1: {  // 16 to 8 bits: the high byte of each channel
      for (size_t i = 0; i < values; ++i) {
        uint16_t v;
        std::memcpy(&v, src + 2 * i, 2);
        dst[i] = uint8_t(v >> 8);
      }
      break;
    }
    case 2: {  // 8 to 16 bits, from the end so that the buffers may be one
      for (size_t i = values; i-- > 0;) {
        uint16_t v = uint16_t(src[i] * 257);
        std::memcpy(dst + 2 * i, &v, 2);
      }
      break;
    }
    default:
      if (src != dst) std::memmove(dst, src, size_t(z->colorBytes));
  }
}

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
void filterAcross(const ILzoom* z, const uint8_t* line, int32_t* out) {
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

void filterDepthAcross(const ILzoom* z, const float* line, float* out) {
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

int fetch(ILzoom* z, bool color, bool depth, uint8_t*& line, float*& zline) {
  line = nullptr;
  zline = nullptr;
  int rc = z->callback(z->arg, color ? &line : nullptr, depth ? &zline : nullptr);
  if (rc) flerrno = rc;
  return rc;
}

int readIdentity(ILzoom* z, void* color, float* depth) {
  uint8_t* line;
  float* zline;
  if (fetch(z, color, depth, line, zline) == 0) {
    if (color) convertLine(z, line, static_cast<uint8_t*>(color));
    if (depth) {
      if (zline)
        std::memcpy(depth, zline, size_t(z->depthBytes));
      else
        std::memset(depth, 0, size_t(z->depthBytes));
    }
  }
  z->row++;
  return 0;
}

int nextTarget(const ILzoom* z) { return int(std::trunc((z->row + 1 + double(z->offsetY)) / z->resultH * z->sourceH)); }

int readNearest(ILzoom* z, void* color, float* depth) {
  int t = z->target, next = nextTarget(z);
  if (z->lastLine != t) {
    uint8_t* line = nullptr;
    float* zline = nullptr;
    while (z->lastLine < t) {
      if (int rc = fetch(z, color, depth, line, zline)) return rc;
      z->lastLine++;
    }
    if (color) {
      size_t px = (z->mode & 1) ? 8 : 4;
      std::vector<uint8_t> sampled;
      uint8_t* dst = z->colorLine.data();
      if (z->mode == 1 || z->mode == 2) {
        sampled.resize(size_t(z->resultW) * px);
        dst = sampled.data();
      }
      if (line) {
        for (int i = 0; i < z->resultW; ++i)
          std::memcpy(dst + size_t(i) * px, line + size_t(z->xmap[size_t(i)]) * px, px);
        if (dst != z->colorLine.data()) convertLine(z, dst, z->colorLine.data());
      } else {
        std::memset(z->colorLine.data(), 0, size_t(z->colorBytes));
      }
    }
    if (depth) {
      for (int i = 0; i < z->resultW; ++i) z->depthLine[size_t(i)] = zline ? zline[z->xmap[size_t(i)]] : 0.0f;
    }
  }
  if (color && color != z->colorLine.data()) std::memcpy(color, z->colorLine.data(), size_t(z->colorBytes));
  if (depth && depth != z->depthLine.data()) std::memcpy(depth, z->depthLine.data(), size_t(z->depthBytes));
  z->target = next;
  z->row++;
  return 0;
}

void packColor(const ILzoom* z, uint8_t* out) {
  bool wide = z->mode & 2;
  bool noclip = z->activeX->noclip && z->activeY->noclip;
  for (int i = 0; i < z->resultW; ++i) {
    const int64_t* a = &z->accColor[size_t(i) * 4];
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

int readFiltered(ILzoom* z, void* color, float* depth) {
  if (z->row >= z->resultH) return ILfail(IL_EDONE);
  const ILtaps& taps = z->yTaps[size_t(z->row)];
  int support = z->ySupport;
  size_t ring = z->ringColor.size();
  while (z->taken <= taps.first + taps.count - 1) {
    z->taken++;
    // The oldest line's slot takes the new line, which is the newest.
    size_t newest = z->ringHead;
    z->ringHead = (z->ringHead + 1) % ring;
    uint8_t* line;
    float* zline;
    if (int rc = fetch(z, color, depth, line, zline)) return rc;
    if (color) {
      std::vector<int32_t>& slot = z->ringColor[newest];
      if (line)
        filterAcross(z, line, slot.data());
      else
        std::fill(slot.begin(), slot.end(), 0);
    }
    if (depth) {
      std::vector<float>& slot = z->ringDepth[newest];
      if (zline)
        filterDepthAcross(z, zline, slot.data());
      else
        std::fill(slot.begin(), slot.end(), 0.0f);
    }
  }
  // Tap j's line, counted from the oldest in the ring.
  auto ringIndex = [&](int j) {
    int k = support - z->taken + taps.first + j;
    return (z->ringHead + size_t(std::clamp(k, 0, support - 1))) % ring;
  };
  if (color) {
    int64_t start = (z->mode & 2) ? 8192 : 2097152;
    std::fill(z->accColor.begin(), z->accColor.end(), start);
    size_t values = size_t(z->resultW) * 4;
    for (int j = 0; j < taps.count; ++j) {
      int64_t weight = taps.count == 1 ? 16384 : taps.weights[size_t(j)];
      const int32_t* line = z->ringColor[ringIndex(j)].data();
      for (size_t k = 0; k < values; ++k) z->accColor[k] += int64_t(line[k]) * weight;
    }
    packColor(z, static_cast<uint8_t*>(color));
  }
  if (depth) {
    if (taps.count == 1) {
      std::memcpy(depth, z->ringDepth[ringIndex(0)].data(), size_t(z->depthBytes));
    } else {
      std::fill(z->accDepth.begin(), z->accDepth.end(), 0.0f);
      for (int j = 0; j < taps.count; ++j) {
        float weight = float(taps.weights[size_t(j)]);
        const float* line = z->ringDepth[ringIndex(j)].data();
        for (int i = 0; i < z->resultW; ++i) z->accDepth[size_t(i)] += weight * line[i];
      }
      for (int i = 0; i < z->resultW; ++i) depth[i] = z->accDepth[size_t(i)] * kInv16384;
    }
  }
  z->row++;
  return 0;
}
}  // namespace

static int unguardedReadzoom(ILzoom* z, void* color, float* depth) {
  if (!z || !z->callback) return ILfail(IL_ENOSOURCE);
  if (z->identity) return readIdentity(z, color, depth);
  if (!z->activeY) return readNearest(z, color, depth);
  return readFiltered(z, color, depth);
}

static int unguardedGetzoom(void* record, uint8_t** color, float** depth) {
  auto* z = static_cast<ILzoom*>(record);
  if (!z || !z->callback) return ILfail(IL_ENOSOURCE);
  if (z->identity && (z->mode == 0 || z->mode == 3)) {
    z->row++;
    return z->callback(z->arg, color, depth);
  }
  if (!z->identity && !z->activeY && z->lastLine == z->target) {
    int next = nextTarget(z);
    z->row++;
    z->target = next;
  } else if (ILreadzoom(z, color ? z->colorLine.data() : nullptr, depth ? z->depthLine.data() : nullptr) != 0) {
    return flerrno;
  }
  if (color) *color = z->colorLine.data();
  if (depth) *depth = z->depthLine.data();
  return 0;
}

int ILzoomswapped(const ILzoom* z) { return z && !z->identity && z->activeY && (z->mode & 2) ? 1 : 0; }

void ILswappairs16(void* line, int32_t pixels) {
  auto* p = static_cast<uint16_t*>(line);
  for (int32_t i = 0; i < pixels; ++i, p += 4) {
    std::swap(p[0], p[1]);
    std::swap(p[2], p[3]);
  }
}

// The entry points: no exception leaves the library; running out of memory
// is FL_ENOMEM, anything else unexpected FL_EFIT.
int ILreadzoom(ILzoom* z, void* color, float* depth) {
  return ILguard([&] { return unguardedReadzoom(z, color, depth); });
}

int ILgetzoom(void* record, uint8_t** color, float** depth) {
  return ILguard([&] { return unguardedGetzoom(record, color, depth); });
}
