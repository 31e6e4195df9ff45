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
        ILfilteracross(z, line, slot.data());
      else
        std::fill(slot.begin(), slot.end(), 0);
    }
    if (depth) {
      std::vector<float>& slot = z->ringDepth[newest];
      if (zline)
        ILfilterdepthacross(z, zline, slot.data());
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
    ILpackzoomcolor(z, z->accColor.data(), static_cast<uint8_t*>(color));
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
  if (z->threads != 1) return ILreadzoombatch(z, color, depth);
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
