// Reading an image's header: the chunks before it, its 32 bytes, the fields
// after it, read once, at the first call that needs them, and believed only
// for a size the file can hold.
#include <cstdlib>
#include <cstring>

#include "kelpimage/base/tlimits.h"
#include "kelpimage/il/chunk/flio.h"
#include "kelpimage/il/ilinternal.h"

namespace {

void decodeHeader(ILimage* image, const uint8_t* b) {
  image->width = kelp::getBE32(b);
  image->height = kelp::getBE32(b + 4);
  image->prnum = kelp::getBE16(b + 8);
  image->prden = kelp::getBE16(b + 10);
  image->type = kelp::getBE32(b + 12);
  image->bytes = uint16_t(kelp::getBE16(b + 16) + 1);
  image->pages = kelp::getBE16(b + 18);
  image->compress = kelp::getBE32(b + 20);
  image->orgx = int32_t(kelp::getBE32(b + 24));
  image->orgy = int32_t(kelp::getBE32(b + 28));
}

// Tile rectangles are 16-bit, and no codec stores fewer than one byte for
// 512 pixels. A header that asks for more pixels than the limit is not
// believed, nor a large one (beyond 2^26 pixels, the largest picture the
// front door reads) that the rest of a regular file cannot hold; smaller
// headers may stand alone, without pixels, as `kimg create` writes them.
constexpr uint64_t kPixelsPerByteAtMost = 512;
constexpr uint64_t kHeaderOnlyPixels = uint64_t(1) << 26;

bool sizeBelievable(const ILimage* image) {
  if (image->width < 1 || image->height < 1 || image->width > 65536 || image->height > 65536) return false;
  uint64_t pixels = uint64_t(image->width) * image->height;
  if (pixels > ILmaxpixels(0)) return false;
  if (pixels <= kHeaderOnlyPixels) return true;
  uint64_t left = image->io->stream->remaining(true);
  return left == UINT64_MAX || pixels / kPixelsPerByteAtMost <= left;
}

// Reads the file's header on the first call on a read handle.
bool readHeader(ILimage* image) {
  image->version = 0x10000;
  uint32_t last = 0;
  uint32_t tag = 0, size = 0;
  for (;;) {
    if (FLbgnget(image, &tag, &size) != 0) {
      if (flerrno == 0) flerrno = (last == IL_TBHD) ? IL_EBADHEADER : IL_ENOHEADER;
      return false;
    }
    last = tag;
    if (tag == IL_TBHD) break;
    if (tag == IL_FVER) {
      uint8_t v[4];
      if (FLget(image, v, 4) == 4) image->version = kelp::getBE32(v);
    }
    FLendget(image);
  }
  // A header chunk shorter than its fixed form is damaged; a longer one is
  // read for its first 32 bytes and the rest skipped.
  if (size < kILheaderBytes) {
    ILfail(FL_EFIT);
    return false;
  }
  uint8_t b[kILheaderBytes];
  if (FLget(image, b, kILheaderBytes) < kILheaderBytes) {
    ILfail(IL_EBADHEADER);
    return false;
  }
  decodeHeader(image, b);
  if (image->bytes != 1 && image->bytes != 2 && image->bytes != 4) {
    ILfail(FL_EFIT);  // no such channel size: the header is damaged
    return false;
  }
  if (!sizeBelievable(image)) {
    // The header's values stay in the handle for a reader to show.
    image->ictl |= ILC_REFUSED;
    ILfail(IL_ERANGE);
    return false;
  }
  image->ictl |= ILC_HEADER;
  if (FLendget(image) != 0) return false;
  if (ILreadfields(image) != 0) return false;

  char text[64] = {};
  if (const ILfield* dpi = ILfindfield(image, IL_DPI))
    std::memcpy(text, dpi->value, dpi->length < sizeof text - 1 ? dpi->length : sizeof text - 1);
  image->dpi = float(std::atof(text));
  return true;
}

}  // namespace

uint64_t ILmaxpixels(uint64_t pixels) {
  // The library's one pixel limit.
  if (pixels > 0) TpixelLimit::set(pixels);
  return TpixelLimit::get();
}

static ILheader* unguardedGetheader(ILimage* image) {
  if (!image) {
    ILfail(FL_EARG);
    return nullptr;
  }
  if (image->ictl & ILC_REFUSED) {
    ILfail(IL_ERANGE);
    return nullptr;
  }
  if ((image->ictl & ILC_READ) && !(image->ictl & ILC_HEADER) && !readHeader(image)) return nullptr;
  return image;
}

int ILgetsize(ILimage* image, int32_t* width, int32_t* height) {
  if (!ILgetheader(image)) return flerrno;
  if (image->zoom) {
    ILzoomsize(image->zoom, width, height);
    return 0;
  }
  if (width) *width = int32_t(image->width);
  if (height) *height = int32_t(image->height);
  return 0;
}

// The entry point: no exception leaves the library; running out of memory
// is FL_ENOMEM, anything else unexpected FL_EFIT.
ILheader* ILgetheader(ILimage* image) {
  return ILguardpointer([&] { return unguardedGetheader(image); });
}
