#include "kelpimage/image/timagediskio.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "kelpimage/base/terrorhandler.h"
#include "kelpimage/base/tfile.h"
#include "kelpimage/convert/conversions.h"
#include "kelpimage/image/imagefilecommon.h"
#include "kelpimage/plugin/plugins.h"

namespace {
TstringArray& pluginNames() {
  static TstringArray names(8);
  return names;
}
}  // namespace

void TimageDiskIO::report(int id, const Tstring& more) const {
  TerrorHandler::send(Tstring(TstringIdNumber(id)).catenate(more));
}

void TimageDiskIO::reportFormatted(int id, const char* arg1, const char* arg2) const {
  Tstring message;
  message.format(Tstring(TstringIdNumber(id)), arg1, arg2 ? arg2 : "");
  TerrorHandler::send(message);
}

Tstring TimageDiskIO::getImageType(const Tstring& name) const {
  const char* key = pxfFileType(name.asChar());
  if (!key || std::strcmp(key, "__none_") == 0) return Tstring();
  return Tstring(key);
}

int TimageDiskIO::identifyAndOpen(const Tstring& name, bool flag) {
  return imagefile::guarded([&]() -> int {
    // An open picture is never dropped (and its handle lost) for another.
    if (isActive() || fSgi) {
      report(618);
      return -1;
    }
    Tstring key = getImageType(name);
    if (key.isEmpty()) return -1;
    fName = name;
    bool isIff = false;
    if (key == "kelp") {
      if (!TiffImageFile::open(name.asChar(), "r")) {
        report(619, name);
        return -1;
      }
      if (width() == 0 || height() == 0) return -1;  // the image stays open
      isIff = imagefile::directIff(fImage, false);
      TiffImageFile::close();
    } else if (key == "sgi") {
      if (IMAGE* sgi = iopen(name.asChar(), "r")) {
        fSgi = sgi;
        beginOpen();
        fAlpha = sgi->zsize == 4;
        return 0;
      }
    }
    return open(name, isIff, flag);
  });
}

int TimageDiskIO::open(const Tstring& name, bool isIff, bool) {
  return imagefile::guarded([&]() -> int {
    if (name.isEmpty() || isActive() || fSgi) {
      report(618);
      return -1;
    }
    fName = name;
    if (isIff) {
      if (TiffImageFile::open(name.asChar(), "r")) {
        fAlpha = (type() & 2) == 2;
        return 0;
      }
      report(619, name);
      return -1;
    }
    fTempName = imagefile::temporaryName(this);
    std::string path = fTempName;
    imagefile::TemporaryGuard temporary{fTempName};
    if (anytoiff(name.asChar(), path.c_str(), nullptr, 0) != 0) {
      Tstring key = getImageType(name);
      if (key == "kelp" || key == "qvi") {
        path = name.str();
        fTempName.clear();
      } else {
        report(624);
        return -1;
      }
    }
    if (TiffImageFile::open(path.c_str(), "r")) {
      fAlpha = (type() & 2) == 2;
      temporary.keep = true;
      return 0;
    }
    report(619, Tstring(path));
    if (path != name.str()) imagefile::removeTemporary(path);
    return -1;
  });
}

int TimageDiskIO::create(const Tstring& name, unsigned short w, unsigned short h, TfileCompression compression,
                         const char* formatKey) {
  return imagefile::guarded([&]() -> int {
    fName = name;
    if (isActive() || fSgi) return -1;
    fFormatKey = formatKey ? formatKey : "";
    std::string path = name.str();
    fTempName.clear();
    if (!fFormatKey.empty()) {
      fTempName = imagefile::temporaryName(this);
      path = fTempName;
    }
    if (!TiffImageFile::open(path.c_str(), "w")) {
      report(620, Tstring(path));
      return -1;
    }
    imagefile::startPicture(*this, w, h, compression);
    fSpare = false;
    return 0;
  });
}

TimageDiskIO::TimageDiskIO(TimageDiskIO&& other) noexcept { swapState(other); }

TimageDiskIO& TimageDiskIO::operator=(const TimageDiskIO& other) {
  TimageDiskIO copy(other);
  swapState(copy);  // what this held goes with the copy
  return *this;
}

TimageDiskIO& TimageDiskIO::operator=(TimageDiskIO&& other) noexcept {
  TimageDiskIO taken(std::move(other));
  swapState(taken);
  return *this;
}

void TimageDiskIO::swapState(TimageDiskIO& other) noexcept {
  swapBase(other);
  std::swap(fAlpha, other.fAlpha);
  std::swap(fSpare, other.fSpare);
  std::swap(fName, other.fName);
  std::swap(fTempName, other.fTempName);
  std::swap(fFormatKey, other.fFormatKey);
  std::swap(fSgi, other.fSgi);
}

TimageDiskIO::~TimageDiskIO() {
  if (lastHolder() && !closedElsewhere() && (isActive() || fSgi)) close();
}

int TimageDiskIO::close() {
  return imagefile::guarded([&]() -> int {
    if (closedElsewhere()) {
      fSgi = nullptr;
      fTempName.clear();
      fFormatKey.clear();
      forgetImage();
      return -1;
    }
    auto reporter = [&](int id, const char* first, const char* second) { reportFormatted(id, first, second); };
    endOpen();
    if (fSgi) return imagefile::closeSgi(fSgi, fName.asChar(), reporter);
    int written = fImage ? TiffImageFile::close() : 0;
    auto convert = [&] {
      // The picture is whole when close returns, also in a format of frames.
      if (ifftoany(fTempName.c_str(), fName.asChar(), fFormatKey.c_str()) == 0 && ifftoanyFinish(fName.asChar()) == 0)
        return true;
      report(622);
      return false;
    };
    return imagefile::finishClose(written, fTempName, fFormatKey, fFormatKey == "kelp" || fFormatKey == "qvi",
                                  fName.asChar(), convert, reporter);
  });
}

int TimageDiskIO::getDimensions(unsigned short& w, unsigned short& h, unsigned char& depth) const {
  if (fSgi) {
    w = fSgi->xsize;
    h = fSgi->ysize;
    depth = static_cast<unsigned char>(fSgi->zsize * 8);
    return 0;
  }
  if (!fImage) return -1;
  getSize(w, h);
  depth = fAlpha ? 32 : 24;
  return 0;
}

TportRect TimageDiskIO::size() const {
  unsigned short w = 0, h = 0;
  if (fSgi) {
    w = fSgi->xsize;
    h = fSgi->ysize;
  } else if (fImage) {
    getSize(w, h);
  }
  return TportRect(0, 0, int16_t(w), int16_t(h));
}

int TimageDiskIO::readSGI(void* dest, int width, int y0, int y1) {
  return imagefile::readSGIRows(fSgi, static_cast<uint8_t*>(dest), width, y0, y1, true);
}

int TimageDiskIO::readImage(Timage& image) {
  return imagefile::guarded([&]() -> int {
    return imagefile::readWholeImage(*this, fSgi, image,
                                     [&](int id, const char* more) { reportFormatted(id, fName.asChar(), more); });
  });
}

int TimageDiskIO::readImage(Timage& image, unsigned short start, unsigned short count) {
  return imagefile::guarded([&]() -> int {
    if (fSgi) {
      int end = std::min(int(start) + int(count), image.height());
      return readSGI(image.pixels(0, start), image.width(), start, end);
    }
    if (!fImage || start >= image.height()) return -1;
    return readLine(image.pixels(0, start), nullptr) == 0 ? 0 : -1;
  });
}

int TimageDiskIO::writeImage(const Timage& image) {
  return imagefile::guarded([&]() -> int {
    setSize(uint16_t(image.width()), uint16_t(image.height()));
    return writeImage(0, 0, image, image.height());
  });
}

int TimageDiskIO::writeImage(int, int, const Timage& image, int lines) {
  return imagefile::guarded([&]() -> int {
    for (int y = 0; y < lines && y < image.height(); ++y) writeLine(image.pixels(0, uint16_t(y)), nullptr);
    return 0;
  });
}

int TimageDiskIO::writeImage(int x, int y, const Timage& image) { return writeImage(x, y, image, image.height()); }

int TimageDiskIO::writeImageRegion(int left, int right, int top, int bottom, const Timage& image) {
  return imagefile::guarded([&]() -> int {
    if (left < 0 || bottom < 0 || left >= image.width() || bottom >= image.height()) return -1;
    const auto* start = static_cast<const uint8_t*>(image.pixels()) +
                        (size_t(bottom) * size_t(image.width()) + size_t(left)) * image.pixelSize();
    int bounds[4] = {left, bottom, right, top};
    return writeTile(start, nullptr, bounds, image.width()) == 0 ? 0 : -1;
  });
}

const TstringArray& TimageDiskIO::availableFormats() {
  TstringArray& names = pluginNames();
  if (names.length() > 0) return names;
  const char* root = KelpGetEnv("KELP_LOCATION");
  if (!root) {
    TerrorHandler::send(Tstring(TstringIdNumber(631)));
    return names;
  }
  for (TdirIterator it(Tstring(root) + "/bin/plug-ins/image"); !it.isDone(); it.next())
    if (it.isFile()) names.addLast(it.name());
  return names;
}
