// A raster of any pixel format, in memory without row padding.
#pragma once

#include <cstdint>

#include "kelpimage/base/tgeometry.h"
#include "kelpimage/kelpexport.h"

// Pixel formats by channel layout.
enum TpixelFormat : int32_t {
  kRGBA8 = 0,      // four 8-bit channels: the form files are read into
  kABGR8 = 1,      // four 8-bit channels, the other order
  kRGB8 = 2,       // three 8-bit channels
  kRGBA16 = 3,     // four 16-bit channels
  kRGB16 = 4,      // three 16-bit channels
  kRGBAFloat = 5,  // four floats
  kRGBFloat = 6,   // three floats
  kRGBA8Packed = 7,
  kDepthGL = 8,   // float depth as OpenGL reads it back, 0 to 1
  kDepthIFF = 9,  // float depth in the reciprocal form of IFF files
};

class KELP_API Timage : public TportRect {
 public:
  Timage() = default;
  // An image of this size and format, allocated; throws TmemoryException
  // when either size is 0 or memory runs out.
  Timage(unsigned short w, unsigned short h, TpixelFormat format);
  // Copies share the raster: destroying both frees it twice. `set` copies deeply.
  Timage(const Timage& other);
  Timage& operator=(const Timage& other);
  ~Timage() override;

  void set(const Timage& other);
  // With both sizes non-zero a new raster; otherwise the raster is freed.
  void setSize(unsigned short w, unsigned short h);
  void setSize(const TportRect& rect);
  const TportRect& size() const { return *this; }
  int width() const { return int16_t(fMaxX - fMinX); }
  int height() const { return int16_t(fMaxY - fMinY); }

  // Adopts a raster from malloc, freeing the current one.
  void setPixels(void* pixels);
  TpixelFormat pixelFormat() const { return fFormat; }
  unsigned short pixelSize() const { return fPixelSize; }
  const void* pixels() const { return fPixels; }
  void* pixels() { return fPixels; }
  const void* pixels(unsigned short x, unsigned short y) const;
  void* pixels(unsigned short x, unsigned short y);
  void setPixelFormat(TpixelFormat format);

  // Turns an OpenGL depth read-back (format 8) into the IFF reciprocal
  // form, in place: true for format 9 at once, false for other formats.
  bool glToIffDepthBuffer(bool orthographic, float nearClip, float farClip, double depthNear, double depthFar);

 private:
  void allocate();
  void reset();

  void* fPixels = nullptr;
  TpixelFormat fFormat = kRGBA8;
  unsigned short fPixelSize = 4;
};
