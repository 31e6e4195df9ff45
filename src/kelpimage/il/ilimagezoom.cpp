// An image read through a zoom: the zoom bound to the image's line server
// at the size asked for, and bound again when the channel size changes.
#include "kelpimage/il/ilinternal.h"
#include "kelpimage/il/ilzoom.h"

static int unguardedSetzoom(ILimage* im, const char* filter, int32_t width, int32_t height, float blurX, float blurY,
                            float offsetX, float offsetY) {
  if (!(im->ictl & ILC_READ)) return ILfail(FL_ENOTREAD);
  if (!ILgetheader(im)) return flerrno;
  if (!im->zoom && !filter && uint32_t(width) == im->width && uint32_t(height) == im->height && blurX == 0.0f &&
      blurY == 0.0f && offsetX == 0.5f && offsetY == 0.5f)
    return 0;
  flerrno = 0;
  if (!im->zoom || (filter && im->zoom->name != filter)) {
    ILdelzoom(im->zoom);
    im->zoom = ILnewzoom(filter);
  }
  uint32_t kept = im->ictl;
  im->ictl &= ~ILC_RAWCHANNELS;
  int mode = (im->ictl & ILC_DEEP) ? 3 : (im->ictl & ILC_WIDEN) ? 2 : 0;
  ILsetzoomblur(im->zoom, blurX, blurY);
  ILsetzoomoffset(im->zoom, offsetX, offsetY);
  int rc = ILbindzoom(im->zoom, im, ILserveline, mode, width, height, int32_t(im->width), int32_t(im->height));
  if (rc != 0) {
    ILdelzoom(im->zoom);
    im->zoom = nullptr;
    im->ictl = kept;
  }
  return flerrno;
}

void ILrebindzoom(ILimage* im) {
  if (!im->zoom) return;
  ILzoom* z = im->zoom;
  int mode = (im->ictl & ILC_DEEP) ? 3 : (im->ictl & ILC_WIDEN) ? 2 : 0;
  z->bound = false;
  ILbindzoom(z, im, ILserveline, mode, z->resultW, z->resultH, int32_t(im->width), int32_t(im->height));
}

// The entry point: no exception leaves the library; running out of memory
// is FL_ENOMEM, anything else unexpected FL_EFIT.
int ILsetzoom(ILimage* im, const char* filter, int32_t width, int32_t height, float blurX, float blurY, float offsetX,
              float offsetY) {
  return ILguard([&] { return unguardedSetzoom(im, filter, width, height, blurX, blurY, offsetX, offsetY); });
}
