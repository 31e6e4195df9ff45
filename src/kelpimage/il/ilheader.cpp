// The image header's attribute calls: setting what a written header will
// hold, getting what a read one holds, and writing it; the fields through
// the header. Reading the header is ilheaderread.cpp's.
#include <pwd.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>

#include "kelpimage/il/chunk/flio.h"
#include "kelpimage/il/ilinternal.h"

namespace {
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

bool ready(ILimage* image) { return ILgetheader(image) != nullptr; }
}  // namespace

int ILputheader(ILimage* image) {
  image->headerpos = FLtell(image);
  if (headerFixed(image)) return 0;

  uint8_t v[4];
  kelp::putBE32(v, image->version);
  if (FLputchunk(image, IL_FVER, 4, v)) return flerrno;

  auto* b = static_cast<uint8_t*>(FLbgnwbchunk(image, IL_TBHD, kILheaderBytes));
  if (!b) return flerrno;
  if (!(image->ictl & ILC_PAGED)) ILchooselayout(image);
  encodeHeader(image, b);
  if (image->dpi >= 1.0f && image->dpi != 72.0f) {
    char text[64];
    int n = std::snprintf(text, sizeof text, "%f", double(image->dpi));
    ILsetfield(image, IL_DPI, uint32_t(n), text);
  }
  if (FLendwbchunk(image, kILheaderBytes)) return flerrno;
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

int ILsetlookups(ILimage* image, uint8_t** lookups) {
  image->lookups = lookups;
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
int ILsetsize(ILimage* image, int32_t width, int32_t height) {
  return ILguard([&] { return unguardedSetsize(image, width, height); });
}

int ILsetbpp(ILimage* image, int32_t bytes) {
  return ILguard([&] { return unguardedSetbpp(image, bytes); });
}

uint32_t ILgetfield(ILimage* image, uint32_t tag, const void** value) {
  static const char kEmpty[4] = "";
  ILfield* field = ILgetheader(image) ? ILfindfield(image, tag) : nullptr;
  if (value) *value = field ? static_cast<const void*>(field->value) : kEmpty;
  return field ? field->length : 0;
}

int ILcopyfields(ILimage* to, ILimage* from) {
  if (to->ictl & ILC_HEADER) return ILfail(IL_EFIXED);
  if (!ILgetheader(from)) return flerrno;
  for (FLnode* n = from->fields.head; n; n = n->next) {
    auto* field = reinterpret_cast<ILfield*>(n);
    if (field->node.type & 0x10) ILstorefield(to, field->node.type, field->length, field->value);
  }
  return 0;
}
