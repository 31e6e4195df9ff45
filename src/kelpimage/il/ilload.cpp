// Reading a whole image at once: its tiles straight into the caller's
// raster. With several threads the tiles are read a batch at a time, the
// next batch read while the last is decoded.
#include <array>
#include <cstring>
#include <set>

#include "kelpimage/base/tparallel.h"
#include "kelpimage/il/ilcodec.h"
#include "kelpimage/il/iltile.h"
#include "kelpimage/il/iltilebatch.h"

namespace {
constexpr size_t kHeldBytes = size_t(2) << 20;  // payloads read ahead at a time
// Rasters from this size on are larger than the caches: run length tiles
// are stored into them past the caches.
constexpr uint64_t kStreamingBytes = uint64_t(16) << 20;

bool streams(const ILimage* im, uint32_t pixelBytes) {
  return uint64_t(im->width) * im->height * pixelBytes >= kStreamingBytes;
}

// Decodes one tile of `kind` (0 colour, 1 depth) into its place in the raster; 0 or a code.
int decodeTile(ILimage* im, ILcodecfn unpack, void* color, float* z, int kind, const uint8_t* payload, uint32_t size,
               const uint16_t r[4]) {
  ILpackinfo info{};
  info.width = uint32_t(r[2] - r[0] + 1);
  info.height = uint32_t(r[3] - r[1] + 1);
  info.linewidth = im->width;
  info.size = size;
  void* src = const_cast<uint8_t*>(payload);
  size_t at = size_t(r[1]) * im->width + r[0];
  if (kind == 0) {
    info.bytes = im->bytes;
    info.bitmask = im->bitmask;
    info.channels = im->channels;
    info.reduce = (im->ictl & ILC_DEEP) ? 0 : 1;
    info.lookups = im->lookups;
    void* dest = static_cast<uint8_t*>(color) + at * im->pwidth;
    if (unpack == ILunpackrle) return ilcodec::unpackRle(dest, src, &info, streams(im, im->pwidth)) ? 0 : flerrno;
    return unpack(dest, src, &info) ? 0 : flerrno;
  }
  info.bytes = 4;
  info.bitmask = 1;
  info.channels = 1;
  return ilcodec::unpackRle(z + at, src, &info, streams(im, 4)) ? 0 : flerrno;
}

// The tiles of an image's tile group in file order. Every pixel must come
// from a tile: the rectangles met so far, per kind, and the area they cover,
// so that a repeated tile cannot stand in for a missing one. Codes come back
// as results, not in flerrno, since the reading may be on another thread.
class TileGroup {
 public:
  TileGroup(ILimage* im, bool color, bool depth)
      : fImage(im), fColor(color), fDepth(depth), fLeft((color ? im->pages : 0) + (depth ? im->pages : 0)) {}

  bool done() const { return fLeft == 0 && !fOpen; }

  // The next tile wanted: 0 with its kind, rectangle and payload, which
  // stays valid until the next call, or a code.
  int next(int& kind, uint16_t r[4], const uint8_t*& payload, uint32_t& size) {
    if (int rc = endChunk()) return rc;
    while (fLeft > 0) {
      uint32_t tag = 0;
      // The group ending before every tile arrived leaves pixels unread.
      if (FLbgnget(fImage, &tag, &size) != 0) return flerrno ? flerrno : IL_EDONE;
      if ((tag == IL_RGBA && fColor) || (tag == IL_ZBUF && fDepth)) {
        kind = tag == IL_RGBA ? 0 : 1;
        if (size < 8 || !ILreadrect(fImage, r)) return FL_EFIT;
        if (!fSeen.insert({uint16_t(kind), r[0], r[1], r[2], r[3]}).second) return FL_EFIT;
        fCovered[kind] += uint64_t(r[2] - r[0] + 1) * uint64_t(r[3] - r[1] + 1);
        size -= 8;
        payload = FLbgnread(fImage, size);
        if (!payload) return FL_EFIT;
        fImage->group->gdone += size;
        --fLeft;
        fOpen = true;
        return 0;
      }
      if (FLendget(fImage) != 0) return flerrno;
    }
    return IL_EDONE;
  }

  // Leaves the last tile's chunk; 0 or a code.
  int endChunk() {
    if (!fOpen) return 0;
    fOpen = false;
    return FLendget(fImage) != 0 ? flerrno : 0;
  }

  bool whole() const {
    uint64_t area = uint64_t(fImage->width) * fImage->height;
    return (!fColor || fCovered[0] == area) && (!fDepth || fCovered[1] == area);
  }

 private:
  ILimage* fImage;
  bool fColor, fDepth;
  int fLeft;
  bool fOpen = false;
  std::set<std::array<uint16_t, 5>> fSeen;
  uint64_t fCovered[2] = {0, 0};
};

// The tiles one by one, each decoded as it is read; 0 or a code.
int loadInTurn(ILimage* im, TileGroup& group, ILcodecfn unpack, void* color, float* z) {
  while (!group.done()) {
    int kind = 0;
    uint16_t r[4];
    const uint8_t* payload = nullptr;
    uint32_t size = 0;
    if (int rc = group.next(kind, r, payload, size)) return rc;
    if (int rc = decodeTile(im, unpack, color, z, kind, payload, size, r)) return rc;
    if (int rc = group.endChunk()) return rc;
  }
  return 0;
}

// A batch of tiles read ahead, and how the reading ended.
struct ReadAhead {
  explicit ReadAhead(const ILimage* im) : batch(im->threads, 2 * kHeldBytes, im->width, im->height) {}
  ILtilebatch batch;
  int code = 0;  // the reading's failure, after the tiles held
};

// Fills `ahead` with the next tiles, up to kHeldBytes of them.
void readAhead(TileGroup& group, ReadAhead& ahead) {
  while (!group.done() && ahead.batch.bytes() < kHeldBytes) {
    int kind = 0;
    uint16_t r[4];
    const uint8_t* payload = nullptr;
    uint32_t size = 0;
    if ((ahead.code = group.next(kind, r, payload, size)) != 0) return;
    ahead.batch.hold(kind, r, payload, size);
    if ((ahead.code = group.endChunk()) != 0) return;
  }
}

// Batches of tiles, the next read while the last is decoded; 0 or a code,
// the first in file order.
int loadAhead(ILimage* im, TileGroup& group, ILcodecfn unpack, void* color, float* z) {
  ReadAhead slots[2] = {ReadAhead(im), ReadAhead(im)};
  readAhead(group, slots[0]);
  for (int cur = 0;; cur ^= 1) {
    ReadAhead& now = slots[cur];
    ReadAhead& next = slots[cur ^ 1];
    bool more = now.code == 0 && !group.done();
    int decoded = 0;
    TparallelFor(more ? 2 : 1, 2, [&](size_t piece) {
      if (more && piece == 0) return readAhead(group, next);
      decoded = now.batch.decode([&](const ILtilebatch::Tile& t, const uint8_t* payload) {
        return decodeTile(im, unpack, color, z, t.kind, payload, t.size, t.r);
      });
    });
    if (decoded) return decoded;
    if (now.code) return now.code;
    if (!more) return 0;
  }
}
}  // namespace

static int unguardedLoadbm(ILimage* im, void* color, float* z) {
  if (!(im->ictl & ILC_BITMAP)) {
    if (im->ictl & ILC_DONE) return ILfail(IL_EDONE);
    if (!ILgetheader(im)) return flerrno;
    if (int rc = ILenterbitmap(im)) return rc;
    ILinitio(im);
    im->ictl |= ILC_BITMAP | ILC_LINES;
  }
  // Depth tiles exist only in images with depth; their absence is no loss.
  bool depth = z && (im->type & ILT_DEPTH);
  ILcodecfn unpack = nullptr;
  ILfindcompressor(im->compress, nullptr, nullptr, &unpack);
  if (color && !unpack) return ILfail(IL_ENOCODEC);
  TileGroup group(im, color != nullptr, depth);
  bool ahead = TthreadsFor(im->threads ? im->threads : 1, 2) > 1;
  if (int rc = ahead ? loadAhead(im, group, unpack, color, z) : loadInTurn(im, group, unpack, color, z))
    return ILfail(rc);
  if (!group.whole()) return ILfail(FL_EFIT);
  im->ictl &= ~ILC_BITMAP;
  im->ictl |= ILC_DONE;
  return 0;
}

static int unguardedLoad(ILimage* im, void* color, float* z) {
  int32_t w = 0, h = 0;
  if (ILgetsize(im, &w, &h) != 0) return flerrno;
  if (!im->zoom && !(im->ictl & (ILC_TOPDOWN | ILC_WIDEN))) {
    if (int rc = ILloadbm(im, color, z)) return rc;
    if (color && !(im->ictl & ILC_RAWCHANNELS)) {
      uint32_t mask = im->type | ((im->ictl & ILC_OWNALPHA) ? uint32_t(ILT_ALPHA) : 0u);
      ILfill(color, w, h, (im->ictl & ILC_DEEP) ? int32_t(im->bytes) : 1, w, mask);
    }
    if (z && !(im->type & ILT_DEPTH)) std::memset(z, 0, size_t(w) * size_t(h) * 4);
    return 0;
  }
  size_t step = size_t(w) * ((im->ictl & ILC_RAWCHANNELS) ? im->channels : 4);
  if (im->ictl & ILC_DEEP) step *= im->bytes;
  if (im->ictl & ILC_WIDEN) step *= 2;
  for (int32_t y = 0; y < h; ++y) {
    void* row = color ? static_cast<uint8_t*>(color) + step * size_t(y) : nullptr;
    float* zrow = z ? z + size_t(w) * size_t(y) : nullptr;
    if (int rc = ILreadline(im, row, zrow)) return rc;
  }
  return 0;
}

void ILsetthreads(ILimage* im, uint32_t threads) {
  if (im) im->threads = TthreadsFor(threads, UINT32_MAX);
}

// The entry points: no exception leaves the library; running out of memory
// is FL_ENOMEM, anything else unexpected FL_EFIT.
int ILloadbm(ILimage* im, void* color, float* z) {
  return ILguard([&] { return unguardedLoadbm(im, color, z); });
}

int ILload(ILimage* im, void* color, float* z) {
  return ILguard([&] { return unguardedLoad(im, color, z); });
}
