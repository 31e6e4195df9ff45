// Compositing an image over a 32-bit buffer with its alpha, optionally faded.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <mutex>
#include <vector>

#include "kelpimage/il/iltile.h"

namespace {
// Process-wide scratch of the compositor: one caller at a time.
struct Compositor {
  std::vector<uint32_t> tile;
  uint8_t fade[256] = {};
  float lastFade = 0.0f;
};
Compositor& compositor() {
  static Compositor c;
  return c;
}

void makeFadeTable(Compositor& c, float fade) {
  if (fade == c.lastFade) return;
  c.fade[0] = 0;
  for (int i = 1; i < 256; ++i) c.fade[i] = uint8_t(std::floor(i * (1.0 - double(fade)) + 0.5));
  c.lastFade = fade;
}

// Lays a tile of w by h pixels over the buffer at (x, y), clipped on all sides.
void composite(const uint32_t* src, int32_t w, int32_t h, uint32_t* dst, int32_t bw, int32_t bh, int32_t x, int32_t y,
               const uint8_t* fade) {
  for (int32_t ty = std::max(0, -y); ty < h && ty + y < bh; ++ty) {
    const uint32_t* s = src + size_t(ty) * size_t(w);
    uint32_t* d = dst + size_t(ty + y) * size_t(bw);
    for (int32_t tx = std::max(0, -x); tx < w && tx + x < bw; ++tx) {
      uint32_t sp = s[tx];
      uint32_t a = sp >> 24;
      if (fade) a = fade[a];
      if (a == 0) continue;
      if (fade ? a == 255 : a > 254) {
        d[tx + x] = sp;
        continue;
      }
      uint32_t k = 256 - a, dp = d[tx + x], out = 0;
      for (int shift = 0; shift < 24; shift += 8) {
        uint32_t v = (((dp >> shift) & 255) * k >> 8) + ((sp >> shift) & 255);
        out |= std::min<uint32_t>(v, 255) << shift;
      }
      out |= std::min<uint32_t>(k + (dp >> 24), 255) << 24;
      d[tx + x] = out;
    }
  }
}
}  // namespace

static int unguardedCload(ILimage* im, uint32_t* buffer, int32_t bw, int32_t bh, int32_t x, int32_t y, float scale,
                          float fade, int smooth) {
  if (im->ictl & ILC_DONE) return ILfail(IL_EDONE);
  if (!buffer || x >= bw || y >= bh) return 0;
  Compositor& c = compositor();
  const uint8_t* table = nullptr;
  if (fade != 0.0f) {
    makeFadeTable(c, fade);
    table = c.fade;
  }
  int32_t w = 0, h = 0;
  if (scale != 1.0f) {
    // Resampled: the whole image goes through a zoom into the tile buffer.
    if (ILgetsize(im, &w, &h) != 0) return flerrno;
    int32_t nw = std::clamp(int32_t(float(w) * scale), 1, 4096);
    int32_t nh = std::clamp(int32_t(float(h) * scale), 1, 4096);
    if (nw + x <= 0 || nh + y <= 0) return 0;
    if (c.tile.size() < size_t(nw) * size_t(nh)) c.tile.resize(size_t(nw) * size_t(nh));
    ILsetzoom(im, smooth ? nullptr : "dirac", nw, nh, 0.0f, 0.0f, 0.0f, 0.0f);
    if (ILload(im, c.tile.data(), nullptr) != 0) return flerrno;
    composite(c.tile.data(), nw, nh, buffer, bw, bh, x, y, table);
    return 0;
  }

  if (ILgetsize(im, &w, &h) != 0) return flerrno;
  if (w + x <= 0 || h + y <= 0) return 0;
  if (int rc = ILenterbitmap(im)) return rc;
  ILinitio(im);
  ILcodecfn unpack = nullptr;
  ILfindcompressor(im->compress, nullptr, nullptr, &unpack);
  if (!unpack) return ILfail(IL_ENOCODEC);
  im->ictl |= ILC_BITMAP | ILC_LINES;
  if (c.tile.size() < 0x10000) c.tile.resize(0x10000);

  for (int left = im->pages; left > 0;) {
    uint32_t tag = 0, size = 0;
    if (FLbgnget(im, &tag, &size) != 0) return ILfail(flerrno ? flerrno : IL_EDONE);
    if (tag != IL_RGBA) {
      FLendget(im);
      continue;
    }
    --left;
    uint16_t r[4];
    if (size < 8 || !ILreadrect(im, r)) return ILfail(FL_EFIT);
    size -= 8;
    int32_t x1 = r[0] + x, y1 = r[1] + y, x2 = r[2] + x, y2 = r[3] + y;
    if (x1 < bw && y1 < bh && x2 > 0 && y2 > 0) {
      uint32_t tw = uint32_t(r[2] - r[0] + 1), th = uint32_t(r[3] - r[1] + 1);
      if (c.tile.size() < size_t(tw) * th) c.tile.resize(size_t(tw) * th);
      const uint8_t* payload = FLbgnread(im, size);
      if (!payload) return ILfail(FL_EFIT);
      im->group->gdone += size;
      ILpackinfo info{tw, th, im->bytes, im->bitmask, 0, im->channels, tw, 1, size, im->lookups};
      if (!unpack(c.tile.data(), const_cast<uint8_t*>(payload), &info)) return flerrno;
      ILfill(c.tile.data(), int32_t(tw), int32_t(th), 1, int32_t(tw), im->type);
      composite(c.tile.data(), int32_t(tw), int32_t(th), buffer, bw, bh, x1, y1, table);
    }
    FLendget(im);
  }
  im->ictl &= ~ILC_BITMAP;
  im->ictl |= ILC_DONE;
  return 0;
}

// The entry points: no exception leaves the library; running out of memory
// is FL_ENOMEM, anything else unexpected FL_EFIT.
int ILcload(ILimage* im, uint32_t* buffer, int32_t bw, int32_t bh, int32_t x, int32_t y, float scale, float fade,
            int smooth) {
  return ILguard([&] { return unguardedCload(im, buffer, bw, bh, x, y, scale, fade, smooth); });
}
