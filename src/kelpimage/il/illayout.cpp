// Tile layout of a written image.
#include "kelpimage/il/ilinternal.h"

namespace {
void countPages(ILimage* image) {
  uint32_t across = (image->width - 1) / image->twidth + 1;
  uint32_t down = (image->height - 1) / image->theight + 1;
  image->pages = uint16_t(across * down);  // the header holds 16 bits
}
}  // namespace

void ILchooselayout(ILimage* image) {
  uint32_t w = image->width, h = image->height;
  if (w <= 4096 && h <= 4096) {
    image->twidth = 64;
    image->theight = 64;
  } else if (w <= 4096) {
    image->twidth = 512;
    image->theight = 128;
  } else if (w <= 8192) {
    image->twidth = 256;
    image->theight = 64;
  } else if (w <= 16384) {
    image->twidth = 1024;
    image->theight = 32;
  } else {
    image->twidth = 2048;
    image->theight = 32;
  }
  countPages(image);
}

int ILsetpagesize(ILimage* image, int32_t width, int32_t height) {
  if (width > 32768 || height > 32768) return ILfail(IL_ERANGE);
  if (image->ictl & ILC_HEADER) return ILfail(IL_EFIXED);
  uint32_t tw = width < 17 ? 16 : uint32_t(width);
  uint32_t th = height < 17 ? 16 : uint32_t(height);
  image->twidth = tw < image->width ? tw : image->width;
  image->theight = th < image->height ? th : image->height;
  countPages(image);
  image->ictl |= ILC_PAGED;
  return 0;
}

int ILsetpages(ILimage* image, uint16_t pages) {
  if (image->ictl & ILC_HEADER) return ILfail(IL_EFIXED);
  image->pages = pages;
  image->ictl |= ILC_PAGED;
  return 0;
}
