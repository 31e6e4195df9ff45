// Writing pixels: tiles of any size in any order, or lines cut into tiles
// band by band.
#include <algorithm>
#include <cstring>

#include "kelpimage/il/ilinternal.h"

namespace {
bool topdown(const ILimage* im) { return im->ictl & ILC_TOPDOWN; }

void putRect(uint8_t* p, const int32_t r[4]) {
  for (int i = 0; i < 4; ++i) kelp::putBE16(p + 2 * i, uint16_t(r[i]));
}

// Writes the `waterline` lines of the band as one row of tiles.
int flushBand(ILimage* im) {
  uint32_t y1, y2, offsetRows;
  if (!topdown(im)) {
    y1 = im->startline;
    y2 = im->startline + im->waterline - 1;
    offsetRows = 0;
    im->line = im->color;
    im->zline = im->zbuffer;
  } else {
    y2 = im->height - im->startline - 1;
    y1 = y2 - im->waterline + 1;
    offsetRows = im->theight - im->waterline;
    im->line = im->color ? im->color + size_t(im->theight - 1) * im->lwidth : nullptr;
    im->zline = im->zbuffer ? im->zbuffer + size_t(im->theight - 1) * im->width : nullptr;
  }
  int rc = 0;
  for (uint32_t x = 0; x < im->width && rc == 0; x += im->twidth) {
    uint32_t x2 = std::min(x + im->twidth - 1, im->width - 1);
    int32_t rect[4] = {int32_t(x), int32_t(y1), int32_t(x2), int32_t(y2)};
    uint8_t* color = im->color ? im->color + size_t(offsetRows) * im->lwidth + size_t(x) * im->pwidth : nullptr;
    float* z = im->zbuffer ? im->zbuffer + size_t(offsetRows) * im->width + x : nullptr;
    rc = ILwritetile(im, color, z, rect, int32_t(im->width));
  }
  im->startline += im->waterline;
  im->waterline = 0;
  return rc ? flerrno : FLflush(im);
}
}  // namespace

static int unguardedWritetile(ILimage* im, void* color, float* z, const int32_t rect[4], int32_t stride) {
  if (!(im->ictl & ILC_BITMAP)) {
    if (im->ictl & ILC_DONE) return ILfail(IL_EDONE);
    ILinitio(im);
    if (ILputheader(im) != 0) return flerrno;
    if (FLbgnwgroup(im, FL_FOR4, IL_TBMP) != 0) return flerrno;
    im->ictl |= ILC_BITMAP;
  }
  for (int i = 0; i < 4; ++i)
    if (rect[i] < 0 || rect[i] > 65535) return ILfail(IL_ERANGE);
  if (rect[0] > rect[2] || rect[1] > rect[3]) return ILfail(IL_ERANGE);
  uint32_t w = uint32_t(rect[2] - rect[0] + 1), h = uint32_t(rect[3] - rect[1] + 1);
  if (stride < int32_t(w)) stride = int32_t(w);

  if (color && im->bitmask) {
    uint64_t n = uint64_t(im->pwidth) * w * h;
    if (n + 8 > UINT32_MAX) return ILfail(IL_ERANGE);
    auto* chunk = static_cast<uint8_t*>(FLbgnwbchunk(im, IL_RGBA, uint32_t(n + 8)));
    if (!chunk) return flerrno;
    ILcodecfn pack = nullptr;
    ILfindcompressor(im->compress, nullptr, &pack, nullptr);
    if (!pack) return ILfail(IL_ENOCODEC);
    putRect(chunk, rect);
    ILpackinfo info{w, h, im->bytes, im->bitmask, 0, im->channels, uint32_t(stride), 0, uint32_t(n), im->lookups};
    int written = pack(chunk + 8, color, &info);
    if (FLendwbchunk(im, uint32_t(written) + 8) != 0) return flerrno;
  }
  if (z && (im->type & ILT_DEPTH)) {
    uint64_t n = uint64_t(w) * h * 4;
    if (n + 8 > UINT32_MAX) return ILfail(IL_ERANGE);
    auto* chunk = static_cast<uint8_t*>(FLbgnwbchunk(im, IL_ZBUF, uint32_t(n + 8)));
    if (!chunk) return flerrno;
    putRect(chunk, rect);
    ILpackinfo info{w, h, 4, 1, 0, 1, uint32_t(stride), 0, uint32_t(n), nullptr};
    int written = im->compress == 0 ? ILpack(chunk + 8, z, &info) : ILpackrle(chunk + 8, z, &info);
    return FLendwbchunk(im, uint32_t(written) + 8);
  }
  return 0;
}

static int unguardedEndtile(ILimage* im) {
  if (!(im->ictl & ILC_BITMAP)) return 0;
  im->ictl &= ~(ILC_BITMAP | ILC_LINES);
  im->ictl |= ILC_DONE;
  return FLendwgroup(im);
}

uint8_t* ILbgnline(ILimage* im, float** zline) {
  if (!(im->ictl & ILC_LINES)) {
    if (ILputheader(im) != 0) {
      if (zline) *zline = nullptr;
      return nullptr;
    }
    if (!im->twidth || !im->theight) {
      // A caller who fixed only the tile count left no tile size for lines.
      uint16_t pages = im->pages;
      ILchooselayout(im);
      im->pages = pages;
    }
    im->ictl |= ILC_LINES;
    im->waterline = im->startline = 0;
    ILinitio(im);
    im->line = nullptr;
    im->zline = nullptr;
    if (im->lwidth) {
      im->color = static_cast<uint8_t*>(FLgrow(im->color, size_t(im->theight) * im->lwidth, im->mkey));
      im->line = im->color;
      if (im->line && topdown(im)) im->line += size_t(im->theight - 1) * im->lwidth;
    }
    if (im->type & ILT_DEPTH) {
      im->zbuffer = static_cast<float*>(FLgrow(im->zbuffer, size_t(im->theight) * im->width * 4, im->mkey));
      im->zline = im->zbuffer;
      if (im->zline && topdown(im)) im->zline += size_t(im->theight - 1) * im->width;
    }
  }
  if (zline) *zline = im->zline;
  return im->line;
}

static int unguardedEndline(ILimage* im) {
  if (!im->line && !im->zline) return 0;
  im->waterline++;
  if (im->startline + im->waterline == im->height) {
    if (flushBand(im) == 0) {
      im->ictl &= ~(ILC_BITMAP | ILC_LINES);
      im->ictl |= ILC_DONE;
      if (FLendwgroup(im) != 0) return flerrno;
    }
    im->line = nullptr;
    im->zline = nullptr;
    return 0;
  }
  if (im->waterline == im->theight) return flushBand(im);
  long step = topdown(im) ? -1 : 1;
  if (im->line) im->line += step * long(im->lwidth);
  if (im->zline) im->zline += step * long(im->width);
  return 0;
}

static int unguardedWriteline(ILimage* im, const void* color, const float* z) {
  float* zl = nullptr;
  uint8_t* l = ILbgnline(im, &zl);
  if (l) {
    if (color)
      std::memcpy(l, color, im->lwidth);
    else
      std::memset(l, 0, im->lwidth);
  }
  if (zl) {
    if (z)
      std::memcpy(zl, z, size_t(im->width) * 4);
    else
      std::memset(zl, 0, size_t(im->width) * 4);
  }
  return ILendline(im);
}

static int unguardedSave(ILimage* im, const void* color, const float* z, int32_t stride) {
  int32_t w = 0, h = 0;
  if (ILgetsize(im, &w, &h) != 0) return flerrno;
  if (stride < 1) stride = w;
  long colorStep = long(im->bytes) * stride * 4, depthStep = stride;
  auto* c = static_cast<const uint8_t*>(color);
  const float* d = z;
  if (topdown(im)) {
    if (c) c += colorStep * (h - 1);
    if (d) d += depthStep * (h - 1);
    colorStep = -colorStep;
    depthStep = -depthStep;
  }
  for (int32_t y = 0; y < h; ++y) {
    if (ILwriteline(im, c, d) != 0) return flerrno;
    if (c) c += colorStep;
    if (d) d += depthStep;
  }
  return 0;
}

// The entry points: no exception leaves the library; running out of memory
// is FL_ENOMEM, anything else unexpected FL_EFIT.
int ILwritetile(ILimage* im, void* color, float* z, const int32_t rect[4], int32_t stride) {
  return ILguard([&] { return unguardedWritetile(im, color, z, rect, stride); });
}

int ILendtile(ILimage* im) {
  return ILguard([&] { return unguardedEndtile(im); });
}

int ILendline(ILimage* im) {
  return ILguard([&] { return unguardedEndline(im); });
}

int ILwriteline(ILimage* im, const void* color, const float* z) {
  return ILguard([&] { return unguardedWriteline(im, color, z); });
}

int ILsave(ILimage* im, const void* color, const float* z, int32_t stride) {
  return ILguard([&] { return unguardedSave(im, color, z, stride); });
}
