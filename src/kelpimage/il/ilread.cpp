// Reading pixels a line at a time: the line server that assembles bands of
// tiles.
#include <algorithm>
#include <cstring>

#include "kelpimage/il/iltile.h"

namespace {
constexpr uint64_t kMaxBand = uint64_t(1) << 31;  // a band buffer larger than this is refused

bool topdown(const ILimage* im) { return im->ictl & ILC_TOPDOWN; }
bool canSeek(const ILimage* im) { return !(im->flags & (FL_PIPE | FL_NOSEEK | FL_STREAMED)); }

void freeTiles(ILimage* im) {
  for (FLnode* n = im->tilelist.head; n;) {
    FLnode* next = n->next;
    FLfree(n);
    n = next;
  }
  FLinitlist(&im->tilelist);
}

ILtile* newTile(ILimage* im, uint32_t flags, const uint16_t r[4], size_t payload) {
  auto* t = static_cast<ILtile*>(FLmalloc(offsetof(ILtile, data) + std::max<size_t>(payload, 8), im->mkey));
  if (!t) return nullptr;
  FLinitnode(&t->node, nullptr, flags);
  t->position = 0;
  t->size = 0;
  t->x1 = r[0], t->y1 = r[1], t->x2 = r[2], t->y2 = r[3];
  return t;
}

// Makes the band buffers hold `h` lines.
bool makeRoom(ILimage* im, uint32_t h) {
  if (h > im->pheight) {
    if (uint64_t(im->lwidth) * h > kMaxBand || uint64_t(im->width) * 4 * h > kMaxBand) return false;
    auto grow = [&](void* old, size_t bytes) {
      return im->pbound == 0 ? FLgrow(old, bytes, im->mkey) : FLrgrow(old, bytes, im->mkey);
    };
    uint8_t* color = nullptr;
    float* zbuf = nullptr;
    if (im->bitmask) {
      color = static_cast<uint8_t*>(grow(im->color, size_t(im->lwidth) * h));
      if (!color) return false;
    } else {
      FLfree(im->color);
    }
    im->color = color;
    if (im->type & ILT_DEPTH) {
      zbuf = static_cast<float*>(grow(im->zbuffer, size_t(im->width) * 4 * h));
      if (!zbuf) return false;
    } else {
      FLfree(im->zbuffer);
    }
    im->zbuffer = zbuf;
    if (topdown(im) && im->pbound) {
      // The band lies against the end of the buffers: move it there again.
      uint32_t shift = h - im->pheight, keep = im->pbound, from = im->pheight - keep;
      if (im->color)
        std::memmove(im->color + size_t(from + shift) * im->lwidth, im->color + size_t(from) * im->lwidth,
                     size_t(keep) * im->lwidth);
      if (im->zbuffer)
        std::memmove(im->zbuffer + size_t(from + shift) * im->width, im->zbuffer + size_t(from) * im->width,
                     size_t(keep) * im->width * 4);
    }
    im->pheight = h;
  }
  im->pbound = std::max(im->pbound, h);
  im->theight = std::min(im->theight, h);
  return true;
}

// Decodes one tile's payload into the band buffers; 0 or a code.
int decodeIntoBand(ILimage* im, bool depth, const uint8_t* payload, uint32_t size, const uint16_t r[4]) {
  uint32_t w = uint32_t(r[2] - r[0] + 1), h = uint32_t(r[3] - r[1] + 1);
  if (!makeRoom(im, h)) return ILfail(FL_ENOMEM);
  uint32_t rows = topdown(im) ? im->pheight - h : 0;
  ILpackinfo info{};
  info.width = w;
  info.height = h;
  info.linewidth = im->width;
  info.size = size;
  void* src = const_cast<uint8_t*>(payload);
  if (!depth) {
    if (!im->color) return 0;
    ILcodecfn unpack = nullptr;
    ILfindcompressor(im->compress, nullptr, nullptr, &unpack);
    if (!unpack) return ILfail(IL_ENOCODEC);
    uint8_t* dest = im->color + size_t(r[0]) * im->pwidth + size_t(rows) * im->lwidth;
    info.bytes = im->bytes;
    info.bitmask = im->bitmask;
    info.channels = im->channels;
    info.reduce = (im->ictl & ILC_DEEP) ? 0 : 1;
    info.lookups = im->lookups;
    if (!unpack(dest, src, &info)) return flerrno;
    if (!(im->ictl & ILC_RAWCHANNELS))
      ILfill(dest, int32_t(w), int32_t(h), (im->ictl & ILC_DEEP) ? int32_t(im->bytes) : 1, int32_t(im->width),
             im->type);
    im->samples += w;
  } else {
    if (!im->zbuffer) return 0;
    float* dest = im->zbuffer + r[0] + size_t(rows) * im->width;
    info.bytes = 4;
    info.bitmask = 1;
    info.channels = 1;
    if (!ILunpackrle(dest, src, &info)) return flerrno;
    im->zsamples += w;
  }
  return 0;
}

// Takes care of the tiles met earlier that this band needs.
void scanTiles(ILimage* im) {
  uint32_t height = im->height, start = im->startline;
  for (FLnode* n = im->tilelist.head; n;) {
    FLnode* next = n->next;
    auto* t = reinterpret_cast<ILtile*>(n);
    bool behind = topdown(im) ? t->y1 >= height - start : t->y2 < start;
    if (behind) {
      FLdelnode(n);
      FLfree(n);
      n = next;
      continue;
    }
    bool due = topdown(im) ? t->y2 >= height - start - 1 : t->y1 <= start;
    if (!due) {
      n = next;
      continue;
    }
    bool depth = n->type & ILTILE_DEPTH;
    if (n->type & ILTILE_DECODED) {
      (depth ? im->zsamples : im->samples) += t->size;
      uint32_t covers = topdown(im) ? height - t->y1 - start : t->y2 + 1u - start;
      im->theight = std::min(im->theight, covers);
      im->pbound = std::max(im->pbound, covers);
      n = next;
      continue;
    }
    const uint8_t* payload = nullptr;
    if (n->type & ILTILE_INNODE) {
      payload = t->data;
    } else if (FLseek(im, t->position, 0) == 0) {
      payload = FLbgnread(im, t->size);
    }
    uint16_t r[4] = {t->x1, t->y1, t->x2, t->y2};
    if (!payload || decodeIntoBand(im, depth, payload, t->size, r) != 0) return;
    if (n->type & ILTILE_INNODE) {
      ILtile* small = newTile(im, n->type & ~ILTILE_INNODE, r, 0);
      if (!small) return;
      FLdelnode(n);
      FLfree(n);
      t = small;
      FLheadnode(&im->tilelist, &t->node);
    }
    t->node.type |= ILTILE_DECODED;
    t->size = uint32_t(r[2] - r[0] + 1);
    n = next;
  }
}

// Outcome of taking in one chunk of the tile group.
enum class Take { kOk, kDamaged, kFailed };

Take takeTile(ILimage* im, uint32_t tag, uint32_t size, int& code) {
  bool depth = tag == IL_ZBUF;
  uint16_t r[4];
  if (size < 8 || !ILreadrect(im, r)) return Take::kDamaged;
  size -= 8;
  bool belongs = topdown(im) ? r[3] == im->height - im->startline - 1 : r[1] == im->startline;
  ILtile* t;
  if (belongs) {
    t = newTile(im, ILTILE_DECODED | (depth ? ILTILE_DEPTH : 0u), r, 0);
    const uint8_t* payload = t ? FLbgnread(im, size) : nullptr;
    if (!payload) {
      FLfree(t);
      return Take::kDamaged;
    }
    im->group->gdone += size;
    if (decodeIntoBand(im, depth, payload, size, r) != 0) {
      FLfree(t);
      return Take::kDamaged;
    }
    t->size = uint32_t(r[2] - r[0] + 1);
  } else if (canSeek(im)) {
    t = newTile(im, depth ? ILTILE_DEPTH : 0u, r, 0);
    if (!t) return Take::kDamaged;
    t->position = im->group->gpos;
    t->size = size;
  } else {
    // A stream cannot come back for it: keep a copy of the payload.
    t = newTile(im, ILTILE_INNODE | (depth ? ILTILE_DEPTH : 0u), r, size);
    if (!t || FLget(im, t->data, size) != size) {
      FLfree(t);
      return Take::kDamaged;
    }
    t->size = size;
  }
  FLtailnode(&im->tilelist, &t->node);
  if (int rc = FLendget(im)) {
    code = rc;
    return Take::kFailed;
  }
  return Take::kOk;
}

// Serves the next line; see ILgetline.
int serveLine(ILimage* im, uint8_t** line, float** zline) {
  auto out = [&](uint8_t* l, float* z) {
    if (line) *line = l;
    if (zline) *zline = z;
  };
  auto failWith = [&](int code) {
    out(nullptr, nullptr);
    return ILfail(code);
  };
  if (!(im->ictl & ILC_LINES)) {
    if (im->ictl & ILC_DONE) return failWith(IL_EDONE);
    if (!ILgetheader(im)) return failWith(flerrno);
    if (int rc = ILenterbitmap(im)) return failWith(rc);
    ILinitio(im);
    im->ictl |= ILC_BITMAP | ILC_LINES;
    im->waterline = im->startline = 0;
    im->pbound = im->pheight = im->theight = 0;
    im->line = nullptr;
    im->zline = nullptr;
    FLfree(im->color);
    FLfree(im->zbuffer);
    im->color = nullptr;
    im->zbuffer = nullptr;
    freeTiles(im);
  }
  bool wantColor = line != nullptr, wantDepth = zline != nullptr;
  if (im->waterline == 0) {
    // Lines of taller tiles that the last band did not use come first.
    uint32_t used = std::min(im->theight, im->pbound);
    uint32_t left = im->pbound - used;
    if (left && used) {
      if (topdown(im)) {
        if (im->color)
          std::memmove(im->color + size_t(im->pheight - left) * im->lwidth,
                       im->color + size_t(im->pheight - im->pbound) * im->lwidth, size_t(left) * im->lwidth);
        if (im->zbuffer)
          std::memmove(im->zbuffer + size_t(im->pheight - left) * im->width,
                       im->zbuffer + size_t(im->pheight - im->pbound) * im->width, size_t(left) * im->width * 4);
      } else {
        if (im->color) std::memmove(im->color, im->color + size_t(used) * im->lwidth, size_t(left) * im->lwidth);
        if (im->zbuffer)
          std::memmove(im->zbuffer, im->zbuffer + size_t(used) * im->width, size_t(left) * im->width * 4);
      }
    }
    im->pbound = left;
    im->samples = (wantColor && !(im->type & ILT_BLACK)) ? 0 : im->width;
    im->zsamples = (wantDepth && (im->type & ILT_DEPTH)) ? 0 : im->width;
    im->theight = 0xFFFF;
    uint64_t noted = im->group->gpos;
    scanTiles(im);
    FLseek(im, noted, 0);
    while (im->samples < im->width || im->zsamples < im->width) {
      uint32_t tag = 0, size = 0;
      int rc = FLbgnget(im, &tag, &size);
      if (rc) return failWith((rc > 0 && rc != FL_GROUP) ? rc : IL_EDONE);
      bool wanted = (tag == IL_RGBA && wantColor) || (tag == IL_ZBUF && wantDepth);
      if (!wanted) {
        if (int e = FLendget(im)) return failWith(e);
        continue;
      }
      int code = 0;
      Take taken = takeTile(im, tag, size, code);
      if (taken == Take::kFailed) return failWith(code);
      if (taken == Take::kDamaged) {
        // A damaged tile shows as missing lines, not as a failure; the next
        // call goes on with the next chunk.
        FLendget(im);
        out(nullptr, nullptr);
        flerrno = 0;
        return 0;
      }
    }
    im->waterline = im->theight;
    im->line = im->color;
    im->zline = im->zbuffer;
    if (topdown(im) && im->pheight) {
      if (im->line) im->line += size_t(im->pheight - 1) * im->lwidth;
      if (im->zline) im->zline += size_t(im->pheight - 1) * im->width;
    }
  }
  out(im->line, im->zline);
  if (--im->waterline != 0) {
    long step = topdown(im) ? -1 : 1;
    if (im->line) im->line += step * long(im->lwidth);
    if (im->zline) im->zline += step * long(im->width);
    return 0;
  }
  im->startline += im->theight;
  if (im->startline >= im->height) {
    im->ictl &= ~(ILC_BITMAP | ILC_LINES);
    im->ictl |= ILC_DONE;
    im->line = nullptr;
    im->zline = nullptr;
    FLendrgroup(im);
  }
  return 0;
}

bool validSize(const ILimage* im) {
  return im->width >= 1 && im->width <= 65535 && im->height >= 1 && im->height <= 65535;
}
}  // namespace

bool ILreadrect(ILimage* im, uint16_t r[4]) {
  uint8_t b[8];
  if (FLget(im, b, 8) != 8) return false;
  for (int i = 0; i < 4; ++i) r[i] = kelp::getBE16(b + 2 * i);
  return r[0] <= r[2] && r[1] <= r[3] && r[2] < im->width && r[3] < im->height;
}

int ILenterbitmap(ILimage* im) {
  if (!validSize(im)) return ILfail(IL_ERANGE);
  uint32_t tag = 0, form = 0;
  int rc;
  while ((rc = FLbgnget(im, &tag, nullptr)) == 0)
    if (int e = FLendget(im)) return e;
  if (rc != FL_GROUP) return ILfail(IL_ENOBITMAP);
  if (int e = FLbgnrgroup(im, nullptr, &form)) return e;
  if (form != IL_TBMP) return ILfail(IL_ENOBITMAP);
  return 0;
}

int ILserveline(void* image, uint8_t** line, float** zline) {
  return serveLine(static_cast<ILimage*>(image), line, zline);
}

static int unguardedGetline(ILimage* im, uint8_t** line, float** zline) {
  if (im->zoom) return ILgetzoom(im->zoom, line, zline);
  return serveLine(im, line, zline);
}

static int unguardedReadline(ILimage* im, void* color, float* z) {
  if (im->zoom) return ILreadzoom(im->zoom, color, z);
  uint8_t* l = nullptr;
  float* zl = nullptr;
  int rc = serveLine(im, color ? &l : nullptr, z ? &zl : nullptr);
  if (rc) return rc;
  // A line that no tile of the file covered (missing or damaged tiles) is
  // an error here: the caller's buffer would otherwise hold a made-up line.
  if ((color && !l && im->bitmask != 0) || (z && !zl && (im->type & ILT_DEPTH))) return ILfail(FL_EFIT);
  if (color) {
    auto* out = static_cast<uint8_t*>(color);
    if (im->ictl & ILC_WIDEN) {
      if (l) {
        for (uint32_t i = 0; i < im->lwidth; ++i) out[2 * i] = out[2 * i + 1] = l[i];
      } else {
        std::memset(out, 0, size_t(im->lwidth) * 2);
      }
    } else if (l) {
      std::memcpy(out, l, im->lwidth);
    } else {
      std::memset(out, 0, im->lwidth);
    }
  }
  if (z) {
    if (zl)
      std::memcpy(z, zl, size_t(im->width) * 4);
    else
      std::memset(z, 0, size_t(im->width) * 4);
  }
  return 0;
}

// The entry points: no exception leaves the library; running out of memory
// is FL_ENOMEM, anything else unexpected FL_EFIT.
int ILgetline(ILimage* im, uint8_t** line, float** zline) {
  return ILguard([&] { return unguardedGetline(im, line, zline); });
}

int ILreadline(ILimage* im, void* color, float* z) {
  return ILguard([&] { return unguardedReadline(im, color, z); });
}
