// TimageFile's pictures in memory: reads into pixel maps, images and depth
// arrays, and writes out of pixel maps, over the open file's rows.
#include <algorithm>

#include "kelpimage/image/imagefilecommon.h"
#include "kelpimage/image/timagefile.h"

int TimageFile::readSGI(void* dest, int width, int y0, int y1) {
  return imagefile::readSGIRows(fSgi, static_cast<uint8_t*>(dest), width, y0, y1, true);
}

int TimageFile::readSGI(Tpixel32* dest, int y0, int y1) {
  if (!fSgi) return -1;
  return imagefile::readSGIRows(fSgi, reinterpret_cast<uint8_t*>(dest), fSgi->xsize, y0, y1, false);
}

int TimageFile::readPixelMap(TpixelMap& map) {
  return imagefile::guarded([&]() -> int {
    if (fSgi) {
      map.setChannels(4);
      map.setSize(fSgi->xsize, fSgi->ysize);
      // A pixel map holds 32767 pixels a side: a larger picture does not fit.
      int rc = (map.width() == fSgi->xsize && map.height() == fSgi->ysize) ? readSGI(map.pixels(), 0, fSgi->ysize) : -1;
      if (rc) reportFormatted(636, fName.asChar());
      return rc;
    }
    if (fMapped && fMappedView) {
      map.setPixelPtr(static_cast<Tpixel32*>(fMappedView),
                      TportRect(0, 0, int16_t(fMappedWidth), int16_t(fMappedHeight)));
      return 0;
    }
    if (!fImage) return -1;
    if (!(ILgettype(fImage) & 1)) {
      reportFormatted(628, fName.asChar());
      return -1;
    }
    bool floats = bytesPerPixel() == 4;
    if (!floats && ILsetbpp(fImage, 1) != 0) {
      reportFormatted(629, fName.asChar());
      return -1;
    }
    TportRect fileRect = size();
    if (static_cast<const TportRect&>(map) == TportRect()) {
      map.setSize(fileRect.width(), fileRect.height());
    } else if (static_cast<const TportRect&>(map) != fileRect) {
      setZoom(uint16_t(map.width()), uint16_t(map.height()), 0, 0, 0.5f, 0.5f);
    }
    if (!map.pixels()) return -1;
    int rc = floats ? loadFloatToByte(map.pixels(), nullptr) : load(map.pixels(), nullptr);
    if (rc) {
      reportFormatted(630, fName.asChar(), FLstrerror(FLerror()));
      return -1;
    }
    if (fImage->ictl & ILC_TOPDOWN) map.verticalFlip();
    return 0;
  });
}

int TimageFile::readPixelMap(TpixelMap& map, unsigned short start, unsigned short count) {
  return imagefile::guarded([&]() -> int {
    if (fMapped && fMappedView) {
      map.setPixelPtr(static_cast<Tpixel32*>(fMappedView),
                      TportRect(0, 0, int16_t(fMappedWidth), int16_t(fMappedHeight)));
      return 0;
    }
    Tpixel32* dest = map.pixelPointer(0, start);
    if (!dest) return -1;
    if (fSgi) {
      if (map.width() < fSgi->xsize) return -1;  // rows go out at the file's width
      int end = std::min(int(start) + int(count), map.height());
      return readSGI(dest, start, end);
    }
    if (!fImage) return -1;
    return readLine(dest, nullptr) == 0 ? 0 : -1;
  });
}

int TimageFile::readImage(Timage& image) {
  return imagefile::guarded([&]() -> int {
    return imagefile::readWholeImage(*this, fSgi, image,
                                     [&](int id, const char* more) { reportFormatted(id, fName.asChar(), more); });
  });
}

int TimageFile::readImage(Timage& image, unsigned short start, unsigned short count) {
  return imagefile::guarded([&]() -> int {
    if (fSgi) {
      if (count == 0) return 0;
      int end = std::min(int(start) + int(count), image.height());
      return readSGI(image.pixels(0, start), image.width(), start, end);
    }
    if (count == 0 || !fImage) return -1;
    for (unsigned short i = 0; i < count && start + i < image.height(); ++i)
      if (int rc = readLine(image.pixels(0, uint16_t(start + i)), nullptr)) return rc;
    return 0;
  });
}

int TimageFile::readDepthMap(TfloatArray& depth) {
  return imagefile::guarded([&]() -> int {
    if (fMapped || fSgi || !fImage) return -1;
    unsigned short w, h;
    getSize(w, h);
    depth.changeLogicalSizeTo(int(h) * int(w));
    if (load(nullptr, static_cast<float*>(depth.data())) != 0) {
      reportFormatted(630, fName.asChar(), FLstrerror(FLerror()));
      return -1;
    }
    return 0;
  });
}

int TimageFile::writePixelMap(const TpixelMap& map) {
  return imagefile::guarded([&]() -> int {
    setSize(uint16_t(map.width()), uint16_t(map.height()));
    for (int y = 0; y < map.height(); ++y)
      if (writeLine(map.pixelPointer(Tpoint(0, y)), nullptr) != 0) return -1;
    return 0;
  });
}

int TimageFile::writePixelMap(int, int, const TpixelMap& map, int lines) {
  return imagefile::guarded([&]() -> int {
    for (int y = 0; y < lines && y < map.height(); ++y)
      if (writeLine(map.pixelPointer(Tpoint(0, y)), nullptr) != 0) return -1;
    return 0;
  });
}

int TimageFile::writePixelMap(int x, int y, const TpixelMap& map) { return writePixelMap(x, y, map, map.height()); }

int TimageFile::writePixelMapRegion(int left, int right, int top, int bottom, const TpixelMap& map) {
  return imagefile::guarded([&]() -> int {
    const Tpixel32* start = map.pixelPointer(left, bottom);
    if (!start) return -1;
    int bounds[4] = {left, bottom, right, top};
    return writeTile(start, nullptr, bounds, map.width()) == 0 ? 0 : -1;
  });
}
