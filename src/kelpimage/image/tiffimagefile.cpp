#include "kelpimage/image/tiffimagefile.h"

#include <cmath>
#include <cstring>
#include <utility>
#include <vector>

TiffImageFile::TiffImageFile(const char* name, const char* mode) { open(name, mode); }

TiffImageFile::TiffImageFile(TiffImageFile&& other) noexcept { swapBase(other); }

TiffImageFile& TiffImageFile::operator=(const TiffImageFile& other) {
  TiffImageFile copy(other);
  swapBase(copy);  // what this held goes with the copy
  return *this;
}

TiffImageFile& TiffImageFile::operator=(TiffImageFile&& other) noexcept {
  TiffImageFile taken(std::move(other));
  swapBase(taken);
  return *this;
}

void TiffImageFile::swapBase(TiffImageFile& other) noexcept {
  std::swap(fFile, other.fFile);
  std::swap(fImage, other.fImage);
  std::swap(fOpen, other.fOpen);
}

TiffImageFile::~TiffImageFile() {
  if (fImage && lastHolder() && !closedElsewhere()) ILclose(fImage);
  fImage = nullptr;
  fFile = nullptr;
}

bool TiffImageFile::open(const char* name, const char* mode) {
  fImage = ILopen(name, mode);
  if (fImage) {
    beginOpen();
    initInheritance();
    ILgetheader(fImage);
  }
  return fImage != nullptr;
}

bool TiffImageFile::reopen(const char* name, const char* mode) {
  bool wasOpen = isActive();
  fImage = ILreopen(name, mode, wasOpen ? fImage : nullptr);
  if (fImage) {
    if (!wasOpen) beginOpen();
    initInheritance();
  } else {
    endOpen();
  }
  return fImage != nullptr;
}

int TiffImageFile::close() {
  int rc = isActive() ? ILclose(fImage) : -1;
  endOpen();
  fImage = nullptr;
  fFile = nullptr;
  return rc;
}

int TiffImageFile::setZoom(unsigned short w, unsigned short h, float bx, float by, float ox, float oy) {
  return ILsetzoom(fImage, "auto", w, h, bx, by, ox, oy);
}

void TiffImageFile::getSize(unsigned short& w, unsigned short& h) const {
  int32_t x = 0, y = 0;
  ILgetsize(fImage, &x, &y);
  w = uint16_t(x);
  h = uint16_t(y);
}

void TiffImageFile::getNewSize(unsigned short& w, unsigned short& h) const {
  if (fImage && fImage->zoom) {
    int32_t x = 0, y = 0;
    ILzoomsize(fImage->zoom, &x, &y);
    w = uint16_t(x);
    h = uint16_t(y);
  } else {
    getSize(w, h);
  }
}

void TiffImageFile::getOrigin(unsigned short& x, unsigned short& y) const {
  int32_t a = 0, b = 0;
  ILgetorigin(fImage, &a, &b);
  x = uint16_t(a);
  y = uint16_t(b);
}

void TiffImageFile::getRatio(unsigned short& num, unsigned short& den) const {
  int32_t a = 0, b = 0;
  ILgetratio(fImage, &a, &b);
  num = uint16_t(a);
  den = uint16_t(b);
}

int TiffImageFile::getLine(const void** line, const float** zline) {
  return ILgetline(fImage, reinterpret_cast<uint8_t**>(const_cast<void**>(line)), const_cast<float**>(zline));
}

int TiffImageFile::writeTile(const void* color, const float* z, const int* bounds, int stride) {
  return ILwritetile(fImage, const_cast<void*>(color), const_cast<float*>(z), bounds, stride);
}

unsigned short TiffImageFile::width() const {
  if (!fImage) return 0;
  unsigned short w, h;
  getSize(w, h);
  return w;
}

unsigned short TiffImageFile::height() const {
  if (!fImage) return 0;
  unsigned short w, h;
  getSize(w, h);
  return h;
}

TiffImageFile::TfileCompression TiffImageFile::compression() {
  if (!fImage) return kNone;
  int c = ILgetcompress(fImage);
  return (c >= 1 && c <= 3) ? TfileCompression(c) : kNone;
}

int TiffImageFile::setCompression(TfileCompression c) {
  if (!fImage) return -1;
  if (c < kNone || c > kQR4) return 0;
  return ILsetcompress(fImage, uint32_t(c));
}

int TiffImageFile::readLine(void* color, float* z) {
  int rc = ILreadline(fImage, color, z);
  if (rc == 0 && color && ILzoomswapped(fImage->zoom)) {
    int32_t w = 0;
    ILgetsize(fImage, &w, nullptr);
    ILswappairs16(color, w);
  }
  return rc;
}

int TiffImageFile::load(void* pixels, float* z) {
  if (!fImage) return -1;
  int rc = ILload(fImage, pixels, z);
  if (rc == 0 && pixels && ILzoomswapped(fImage->zoom)) {
    int32_t w = 0, h = 0;
    ILgetsize(fImage, &w, &h);
    ILswappairs16(pixels, w * h);
  }
  return rc;
}

int TiffImageFile::loadBitmap(void* pixels, float* z) { return fImage ? ILloadbm(fImage, pixels, z) : -1; }

int TiffImageFile::save(void* pixels, float* z, int stride) { return fImage ? ILsave(fImage, pixels, z, stride) : -1; }

void TiffImageFile::rewriteHeaderPageCount(int pages) {
  // Only a file being written has a header to rewrite.
  if (!fImage || (fImage->ictl & ILC_READ)) return;
  FLflushBuffer(fImage);
  FLoserror();
  uint64_t kept = FLtell(fImage);
  fImage->ictl &= ~ILC_HEADER;
  modifyControlFlags(int(ILC_PAGED), 1);
  setPages(pages);
  // On a stream the seek fails and the header is left as it stands.
  if (FLseek(fImage, fImage->headerpos, 0) == 0) ILputheader(fImage);
  FLseek(fImage, kept, 0);
  fImage->ictl |= ILC_HEADER;
}

int TiffImageFile::loadFloatToByte(void* pixels, float*) {
  // Zoomed lines are no longer floats: a float image is read at its own size only.
  if (!fImage || fImage->zoom) return 0;
  int32_t w = 0;
  ILgetsize(fImage, &w, nullptr);
  ILctrl(fImage, ILC_DEEP, 1);
  ILctrl(fImage, ILC_RAWCHANNELS, 1);
  bool alpha = ILgettype(fImage) & 2;
  int samples = alpha ? 4 : 3;
  auto toByte = [](float v) {
    if (v < 0.0f) v = 0.0f;
    if (v > 1.0f) v = 1.0f;
    double scaled = std::floor(double(v) * 255.0);
    return std::isnan(scaled) ? uint8_t(0) : uint8_t(int(scaled));
  };
  auto* out = static_cast<uint8_t*>(pixels);
  uint8_t* line = nullptr;
  while (ILgetline(fImage, &line, nullptr) == 0 && line) {
    // With 4-byte channels and only those present, a line holds `samples` floats a pixel.
    if (fImage->bytes != 4 || fImage->channels != uint32_t(samples)) break;
    for (int32_t x = 0; x < w; ++x, out += 4) {
      float s[4];
      std::memcpy(s, line + size_t(x) * size_t(samples) * 4, size_t(samples) * 4);
      out[0] = toByte(s[0]);
      out[1] = toByte(s[1]);
      out[2] = toByte(s[2]);
      out[3] = alpha ? toByte(s[3]) : 255;
    }
  }
  return 0;
}

void TiffImageFile::readZBuffer(TpixelMap& map, int width, int height) {
  size_t n = size_t(std::max(0, width)) * size_t(std::max(0, height));
  std::vector<float> depth;
  try {
    depth.assign(n, 0.0f);
  } catch (...) {
    return;
  }
  // A read that fails leaves the map as it was and its code in flerrno;
  // flerrno is 0 after a whole picture.
  flerrno = 0;
  if (fImage && n && ILloadbm(fImage, nullptr, depth.data()) != 0) return;
  std::vector<Tpixel32> picture(n);
  float minimum = 3.4028235e38f, maximum = -3.4028235e38f;
  for (float v : depth) {
    if (v == 0.0f) continue;
    if (v < minimum)
      minimum = v;
    else if (v > maximum)
      maximum = v;
  }
  if (maximum == -3.4028235e38f) maximum = minimum;
  float range = maximum - minimum;
  if (range == 0.0f) range = 1.0f;
  float step = float(double(range) * 0.005);
  for (size_t i = 0; i < n; ++i) {
    float v = depth[i];
    uint8_t grey = v == 0.0f ? 0 : uint8_t(int(255.0 - double(v - minimum) / double(step)));
    picture[i].fValue = uint32_t(grey) * 0x01010101u;
  }
  if (n) map.setPixel(0, 0, int(n), picture.data(), false);
}

void TiffImageFile::setPixelRGBA(void* line, unsigned short x, unsigned char r, unsigned char g, unsigned char b,
                                 unsigned char a) const {
  // The width itself is one pixel past the line: refused.
  if (!line || x >= fImage->width) return;
  auto* p = static_cast<uint8_t*>(line) + size_t(x) * 4;
  p[0] = b, p[1] = g, p[2] = r, p[3] = a;
}

void TiffImageFile::getPixelRGBA(void* line, unsigned short x, unsigned char& r, unsigned char& g, unsigned char& b,
                                 unsigned char* a) const {
  if (!line || x >= fImage->width) return;
  const auto* p = static_cast<const uint8_t*>(line) + size_t(x) * 4;
  b = p[0], g = p[1], r = p[2];
  if (a) *a = p[3];
}

void TiffImageFile::pixelRGBAswap(void* line) const {
  auto* p = static_cast<uint8_t*>(line);
  for (uint32_t x = 0; x < fImage->width; ++x, p += 4) {
    std::swap(p[0], p[3]);
    std::swap(p[1], p[2]);
  }
}

const char* TiffImageFileInFilter(const char* text) { return ILinfilter(text); }
const char* TiffImageFileOutFilter(const char* text) { return ILoutfilter(text); }
