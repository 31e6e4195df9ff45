// The image header: reading and writing the header chunks, and the
// attribute calls around them.
#include <pwd.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>

#include "kelpimage/base/tlimits.h"
#include "kelpimage/il/chunk/flio.h"
#include "kelpimage/il/ilinternal.h"

namespace {
constexpr uint32_t kTbhdSize = 32;

bool headerFixed(const ILimage* image) { return image->ictl & ILC_HEADER; }

// "user on host", made once for the process.
const std::string& authorStamp() {
  static std::string stamp;
  static std::once_flag once;
  std::call_once(once, [] {
    std::string user;
    if (const passwd* pw = getpwuid(geteuid()); pw && pw->pw_name)
      user = pw->pw_name;
    else if (const char* env = std::getenv("USER"))
      user = env;
    char host[256] = {};
    bool hostOk = gethostname(host, sizeof host - 1) == 0 && host[0];
    stamp = (!user.empty() && hostOk) ? user + " on " + host : "Unknown";
  });
  return stamp;
}

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

void encodeHeader(const ILimage* image, uint8_t* b) {
  kelp::putBE32(b, image->width);
  kelp::putBE32(b + 4, image->height);
  kelp::putBE16(b + 8, image->prnum);
  kelp::putBE16(b + 10, image->prden);
  kelp::putBE32(b + 12, image->type);
  kelp::putBE16(b + 16, uint16_t(image->bytes - 1));
  kelp::putBE16(b + 18, image->pages);
  kelp::putBE32(b + 20, image->compress);
  kelp::putBE32(b + 24, uint32_t(image->orgx));
  kelp::putBE32(b + 28, uint32_t(image->orgy));
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
  uint64_t left = image->io->stream->remaining();
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
  if (size < kTbhdSize) {
    ILfail(FL_EFIT);
    return false;
  }
  uint8_t b[kTbhdSize];
  if (FLget(image, b, kTbhdSize) < kTbhdSize) {
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

  const void* dpi = nullptr;
  uint32_t len = ILgetfield(image, IL_DPI, &dpi);
  char text[64] = {};
  std::memcpy(text, dpi, len < sizeof text - 1 ? len : sizeof text - 1);
  image->dpi = float(std::atof(text));
  return true;
}

bool ready(ILimage* image) { return ILgetheader(image) != nullptr; }
}  // namespace

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

int ILputheader(ILimage* image) {
  image->headerpos = FLtell(image);
  if (headerFixed(image)) return 0;

  uint8_t v[4];
  kelp::putBE32(v, image->version);
  if (FLputchunk(image, IL_FVER, 4, v)) return flerrno;

  auto* b = static_cast<uint8_t*>(FLbgnwbchunk(image, IL_TBHD, kTbhdSize));
  if (!b) return flerrno;
  if (!(image->ictl & ILC_PAGED)) ILchooselayout(image);
  encodeHeader(image, b);
  if (image->dpi >= 1.0f && image->dpi != 72.0f) {
    char text[64];
    int n = std::snprintf(text, sizeof text, "%f", double(image->dpi));
    ILsetfield(image, IL_DPI, uint32_t(n), text);
  }
  if (FLendwbchunk(image, kTbhdSize)) return flerrno;
  if (ILwritefields(image)) return flerrno;

  const std::string& author = authorStamp();
  if (FLputchunk(image, IL_AUTH, uint32_t(author.size()), author.data())) return flerrno;

  time_t now = std::time(nullptr);
  char date[32] = {};
  if (!ctime_r(&now, date)) std::strcpy(date, "Thu Jan  1 00:00:00 1970\n");
  if (FLputchunk(image, IL_DATE, 24, date)) return flerrno;

  image->ictl |= ILC_HEADER;
  return FLflush(image);
}

static int unguardedSetsize(ILimage* image, int32_t width, int32_t height) {
  if (width < 1 || width > 32768 || height < 1 || height > 32768) return ILfail(IL_ERANGE);
  if (image->ictl & ILC_READ) {
    // On a read handle a new size means reading through a zoom.
    ILsetzoom(image, nullptr, width, height, 0.0f, 0.0f, 0.5f, 0.5f);
    return 0;
  }
  if (headerFixed(image)) return ILfail(IL_EFIXED);
  image->width = uint32_t(width);
  image->height = uint32_t(height);
  return 0;
}

int ILsetorigin(ILimage* image, int32_t x, int32_t y) {
  if (headerFixed(image)) return ILfail(IL_EFIXED);
  image->orgx = x;
  image->orgy = y;
  return 0;
}

int ILsettype(ILimage* image, int32_t type) {
  if (image->ictl & ILC_READ) return 0;
  if (headerFixed(image)) return ILfail(IL_EFIXED);
  // The black bit is never stored by this call; it removes the colour bit.
  image->type = (type & ILT_BLACK) ? uint32_t(type & 14) : uint32_t(type & 15);
  return 0;
}

int ILsetratio(ILimage* image, int32_t num, int32_t den) {
  if (headerFixed(image)) return ILfail(IL_EFIXED);
  if (num) image->prnum = uint16_t(num);
  if (den) image->prden = uint16_t(den);
  return 0;
}

static int unguardedSetbpp(ILimage* image, int32_t bytes) {
  if (image->ictl & ILC_READ) {
    if (bytes == 2) {
      if (!ILgetheader(image)) return flerrno;
      image->ictl |= (image->bytes == 1) ? ILC_WIDEN : ILC_DEEP;
    }
    ILrebindzoom(image);
    return 0;
  }
  if (headerFixed(image)) return ILfail(IL_EFIXED);
  if (bytes == 1 || bytes == 2) image->bytes = uint16_t(bytes);
  return 0;
}

int ILsetcompress(ILimage* image, uint32_t number) {
  if (headerFixed(image)) return ILfail(IL_EFIXED);
  image->compress = number;
  return 0;
}

uint64_t ILmaxpixels(uint64_t pixels) {
  // The library's one pixel limit.
  if (pixels > 0) TpixelLimit::set(pixels);
  return TpixelLimit::get();
}

int ILsetlookups(ILimage* image, uint8_t** lookups) {
  image->lookups = lookups;
  return 0;
}

int ILgetsize(ILimage* image, int32_t* width, int32_t* height) {
  if (!ready(image)) return flerrno;
  if (image->zoom) {
    ILzoomsize(image->zoom, width, height);
    return 0;
  }
  if (width) *width = int32_t(image->width);
  if (height) *height = int32_t(image->height);
  return 0;
}

int ILgetorigin(ILimage* image, int32_t* x, int32_t* y) {
  if (!ready(image)) return flerrno;
  if (x) *x = image->orgx;
  if (y) *y = image->orgy;
  return 0;
}

int ILgettype(ILimage* image) { return ready(image) ? int(image->type & 31) : -1; }

int ILgetratio(ILimage* image, int32_t* num, int32_t* den) {
  if (!ready(image)) return flerrno;
  if (num) *num = image->prnum;
  if (den) *den = image->prden;
  return 0;
}

int ILgetbpp(ILimage* image) {
  if (!ready(image)) return -1;
  return (image->ictl & ILC_WIDEN) ? 2 : image->bytes;
}

int ILgetcompress(ILimage* image) { return ready(image) ? int(image->compress) : -1; }

int ILgetpages(ILimage* image) { return ready(image) ? int(image->pages) : -1; }

const char* ILtypename(uint32_t type, char* buffer, size_t size) {
  const char* colour = (type & ILT_BLACK) ? "Black" : (type & ILT_COLOR) ? "RGB" : "BW";
  std::snprintf(buffer, size, "%s %s Alpha%s", colour, (type & ILT_ALPHA) ? "with" : "without",
                (type & ILT_DEPTH) ? ", ZBuffer" : "");
  return buffer;
}

// The entry points: no exception leaves the library; running out of memory
// is FL_ENOMEM, anything else unexpected FL_EFIT.
ILheader* ILgetheader(ILimage* image) {
  return ILguardpointer([&] { return unguardedGetheader(image); });
}

int ILsetsize(ILimage* image, int32_t width, int32_t height) {
  return ILguard([&] { return unguardedSetsize(image, width, height); });
}

int ILsetbpp(ILimage* image, int32_t bytes) {
  return ILguard([&] { return unguardedSetbpp(image, bytes); });
}
