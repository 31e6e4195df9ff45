#include "kelpimage/image/imagebuffer.h"

#include <cstring>
#include <new>

#include "kelpimage/image/timagefile.h"

namespace {
unsigned short nextPowerOfTwo(unsigned short v) {
  unsigned p = 1;
  while (p < v) p <<= 1;
  return static_cast<unsigned short>(p);
}
}  // namespace

unsigned char* readImageFromFile(const char* name, unsigned short& width, unsigned short& height, bool powerOfTwo) {
  TimageFile file;
  if (file.identifyAndOpen(Tstring(name), false, 0) != 0) return nullptr;
  TpixelMap map;
  if (file.readPixelMap(map) != 0) return nullptr;
  map.rgbaSwitch();
  width = static_cast<unsigned short>(map.width());
  height = static_cast<unsigned short>(map.height());
  if (powerOfTwo) {
    width = nextPowerOfTwo(width);
    height = nextPowerOfTwo(height);
    if ((width != map.width() || height != map.height()) && !map.zoom(TportRect(0, 0, int16_t(width), int16_t(height))))
      return nullptr;
  }
  size_t bytes = size_t(width) * height * 4;
  auto* out = new (std::nothrow) unsigned char[bytes ? bytes : 4];
  if (out && bytes) std::memcpy(out, map.pixels(), bytes);
  return out;
}

void writeImageToFile(unsigned char* pixels, unsigned short width, unsigned short height, const char* name,
                      const char* format) {
  TimageFile file;
  if (file.create(Tstring(name), width, height, TiffImageFile::kNone, format) != 0) return;
  TpixelMap map;
  map.setPixelPtr(reinterpret_cast<Tpixel32*>(pixels), TportRect(0, 0, int16_t(width), int16_t(height)));
  map.rgbaSwitch();
  file.writePixelMap(map);
  file.close();
}
