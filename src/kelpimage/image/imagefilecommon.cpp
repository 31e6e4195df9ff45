#include "kelpimage/image/imagefilecommon.h"

#include <unistd.h>

#include <cstdio>
#include <vector>

#include "kelpimage/base/tarray.h"
#include "kelpimage/base/terrorhandler.h"
#include "kelpimage/base/tfile.h"
#include "kelpimage/base/ttemporaryfiles.h"
#include "kelpimage/il/il.h"

namespace imagefile {

void reportUnexpected(const char* why) noexcept {
  try {
    TerrorHandler::send(Tstring("Image file: ") + why);
  } catch (...) {
    // Nothing more can be said.
  }
}

std::string temporaryName(const void* self) {
  char name[512];
  std::snprintf(name, sizeof name, "%s/kelp%d%p.iff", theTempDirectory.getFullName().asChar(), int(getpid()), self);
  TtemporaryFiles::add(name);
  return name;
}

void removeTemporary(const std::string& name) {
  ::unlink(name.c_str());
  TtemporaryFiles::forget(name.c_str());
}

int readSGIRows(IMAGE* image, uint8_t* dest, int width, int y0, int y1, bool greyAlpha) {
  if (!image) return -1;
  int channels = image->zsize;
  if (channels != 1 && channels != 3 && channels != 4) return 0;
  int xsize = image->xsize;
  std::vector<std::vector<uint16_t>> rows(size_t(channels), std::vector<uint16_t>(size_t(xsize) + 1));
  bool wide = (image->type & 0xFF) == 2;
  auto byte = [&](int z, int x) {
    return uint8_t(wide ? rows[size_t(z)][size_t(x)] >> 8 : rows[size_t(z)][size_t(x)]);
  };
  for (int y = y0; y < y1; ++y) {
    for (int z = 0; z < channels; ++z)
      if (getrow(image, rows[size_t(z)].data(), unsigned(y), unsigned(z)) < xsize) return -1;
    for (int x = 0; x < width; ++x, dest += 4) {
      if (x >= xsize) {
        dest[0] = dest[1] = dest[2] = dest[3] = 0;
        continue;
      }
      if (channels == 1) {
        uint8_t g = byte(0, x);
        dest[0] = dest[1] = dest[2] = g;
        dest[3] = greyAlpha ? g : 255;
      } else {
        dest[0] = byte(2, x);
        dest[1] = byte(1, x);
        dest[2] = byte(0, x);
        dest[3] = channels == 4 ? byte(3, x) : 255;
      }
    }
  }
  return 0;
}

bool sizeImage(Timage& image, int w, int h) {
  if (w < 1 || h < 1 || w > 32767 || h > 32767) return false;
  try {
    image.setSize(uint16_t(w), uint16_t(h));
  } catch (const TmemoryException&) {
    return false;
  }
  return image.pixels() != nullptr;
}

int readWholeImage(TiffImageFile& file, IMAGE* sgi, Timage& image,
                   const std::function<void(int id, const char* detail)>& report) {
  if (sgi) {
    if (!sizeImage(image, sgi->xsize, sgi->ysize)) return -1;
    int rc = readSGIRows(sgi, static_cast<uint8_t*>(image.pixels()), image.width(), 0, sgi->ysize, true);
    if (rc) report(636, nullptr);
    return rc;
  }
  ILimage* il = file.image();
  if (!il) return -1;
  if (!(ILgettype(il) & 1)) {
    report(628, nullptr);
    return -1;
  }
  if (ILsetbpp(il, 1) != 0) {
    report(629, nullptr);
    return -1;
  }
  image.setPixelFormat(kRGBA8);
  unsigned short w = 0, h = 0;
  file.getSize(w, h);
  if (!sizeImage(image, w, h) || file.load(image.pixels(), nullptr) != 0) {
    report(630, FLstrerror(FLerror()));
    return -1;
  }
  return 0;
}

void startPicture(TiffImageFile& file, unsigned short w, unsigned short h,
                  TiffImageFile::TfileCompression compression) {
  file.setType(3);
  file.setBytesPerPixel(1);
  file.setCompression(compression);
  file.setSize(w, h);
}

bool directIff(ILimage* image, bool floats) {
  int bytes = ILgetbpp(image);
  return ILgettype(image) != 0 && (bytes == 1 || (floats && bytes == 4)) && !(image->ictl & ILC_TOPDOWN);
}

TemporaryGuard::~TemporaryGuard() {
  if (keep || name.empty()) return;
  removeTemporary(name);
  name.clear();
}

int closeSgi(IMAGE*& sgi, const char* name, const Reporter& report) {
  int rc = iclose(sgi);
  sgi = nullptr;
  if (rc != 0) report(637, name, "a row, the header or a table did not reach the file");
  return rc == 0 ? 0 : -1;
}

int finishClose(int written, std::string& tempName, std::string& formatKey, bool iffKey, const char* name,
                const std::function<bool()>& convert, const Reporter& report) {
  bool foreign = !formatKey.empty() && !iffKey;
  if (written != 0) {
    formatKey.clear();
    report(637, name, FLstrerror(written));
    if (!tempName.empty()) removeTemporary(tempName);
    tempName.clear();
    return -1;
  }
  bool converted = !foreign || convert();
  formatKey.clear();
  if (!converted) {
    tempName.clear();  // the temporary file stays on disk
    return -1;
  }
  if (!tempName.empty()) removeTemporary(tempName);
  tempName.clear();
  return 0;
}

}  // namespace imagefile
