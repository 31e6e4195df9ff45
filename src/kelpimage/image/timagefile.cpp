#include "kelpimage/image/timagefile.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <strings.h>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <thread>

#include "kelpimage/base/terrorhandler.h"
#include "kelpimage/base/tfile.h"
#include "kelpimage/convert/conversions.h"
#include "kelpimage/image/imagefilecommon.h"
#include "kelpimage/image/tpsdtexturefile.h"
#include "kelpimage/plugin/plugins.h"

TmtCriticalSection TimageFile::fsCS;
TstringArray TimageFile::kPluginStringArray(8);

namespace {
std::atomic<bool> gReporting{true};
std::atomic<int> gPluginState{0};

bool isKey(const std::string& key, const char* what) { return strcasecmp(key.c_str(), what) == 0; }
bool isIffKey(const std::string& key) { return isKey(key, "kelp") || isKey(key, "qvi") || isKey(key, "psdLayered"); }
}  // namespace

void loadPxfPlugins() {
  int expected = 0;
  if (gPluginState.compare_exchange_strong(expected, 1)) {
    // Without plug-ins, files of other formats just do not open.
    loadAllPXFPlugins();
    gPluginState.store(2);
  }
  while (gPluginState.load() != 2) std::this_thread::yield();
}

void TimageFile::setErrorReportingEnabled(bool on) { gReporting.store(on); }
bool TimageFile::errorReportingEnabled() { return gReporting.load(); }

void TimageFile::report(int id, const Tstring& more) const {
  if (!gReporting.load()) return;
  Tstring message{TstringIdNumber(id)};
  TerrorHandler::send(message.catenate(more));
}

void TimageFile::reportFormatted(int id, const char* arg1, const char* arg2) const {
  if (!gReporting.load()) return;
  Tstring message;
  message.format(Tstring(TstringIdNumber(id)), arg1, arg2 ? arg2 : "");
  TerrorHandler::send(message);
}

TimageFile::TimageFile(TimageFile&& other) noexcept { swapState(other); }

TimageFile& TimageFile::operator=(const TimageFile& other) {
  TimageFile copy(other);
  swapState(copy);  // what this held goes with the copy
  return *this;
}

TimageFile& TimageFile::operator=(TimageFile&& other) noexcept {
  TimageFile taken(std::move(other));
  swapState(taken);
  return *this;
}

void TimageFile::swapState(TimageFile& other) noexcept {
  swapBase(other);
  std::swap(fAlpha, other.fAlpha);
  std::swap(fSpare, other.fSpare);
  std::swap(fMapped, other.fMapped);
  std::swap(fName, other.fName);
  std::swap(fTempName, other.fTempName);
  std::swap(fFormatKey, other.fFormatKey);
  std::swap(fMappedView, other.fMappedView);
  std::swap(fSgi, other.fSgi);
  std::swap(fMappedWidth, other.fMappedWidth);
  std::swap(fMappedHeight, other.fMappedHeight);
}

void TimageFile::forget() {
  fSgi = nullptr;
  fMappedView = nullptr;
  fTempName.clear();
  fFormatKey.clear();
  forgetImage();
}

TimageFile::~TimageFile() {
  if (!lastHolder() || closedElsewhere()) return;  // another copy holds it, or it is closed
  if (fMappedView) munmap(fMappedView, size_t(fMappedWidth) * fMappedHeight * 4);
  fMappedView = nullptr;
  if (isActive() || fSgi) close();
}

Tstring TimageFile::getImageType(const Tstring& name, bool describeNonImages) const {
  Tstring result;
  if (name.isEmpty()) return result;
  int fd = ::open(name.asChar(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return result;
  uint8_t b[12];
  ssize_t got = ::read(fd, b, sizeof b);
  ::close(fd);
  bool final = false;
  if (got == 12) {
    if (b[0] == 0x01 && b[1] == 0xDA) {
      result = "sgi";
      final = true;
    } else if (std::memcmp(b, "FOR4", 4) == 0) {
      bool scene = std::memcmp(b + 8, "Kelp", 4) == 0 || std::memcmp(b + 8, "MPLE", 4) == 0 ||
                   std::memcmp(b + 8, "KELP", 4) == 0 || std::memcmp(b + 8, "CACH", 4) == 0;
      if (scene) {
        if (describeNonImages) result = Tstring(TstringIdNumber(635));
      } else {
        result = "kelp";
      }
      final = true;
    } else if (std::memcmp(b, "II*\0", 4) == 0 || std::memcmp(b, "MM\0*", 4) == 0) {
      result = "tif";
      loadPxfPlugins();
      final = true;
    } else if (b[0] == 0xFF && b[1] == 0xD8 && b[2] == 0xFF && b[3] == 0xE0 && b[6] == 'J' && b[7] == 'F') {
      result = "jpg";
      loadPxfPlugins();
      final = true;
    } else if (std::memcmp(b, "//Kelp ASCII", 12) == 0) {
      if (describeNonImages) result = Tstring(TstringIdNumber(634));
      final = true;
    } else if (TpsdTextureFile::isFilePsd(name)) {
      result = "psd";  // a plug-in may still claim it
    }
  }
  if (final) return result;
  loadPxfPlugins();
  const char* key;
  {
    TmtLock lock = fsCS.acquire();
    key = pxfFileType(name.asChar());
  }
  if (!key)
    report(625);
  else if (std::strcmp(key, "__none_") != 0)
    result = key;
  return result;
}

int TimageFile::identifyAndOpen(const Tstring& name, bool flag, int frame) {
  return imagefile::guarded([&]() -> int {
    // An open picture is never dropped (and its handle lost) for another.
    if (isActive() || fSgi) {
      report(618);
      return -1;
    }
    Tstring key = getImageType(name, false);
    if (key.isEmpty()) return -1;
    fName = name;
    bool isIff = false;
    if (key == "kelp") {
      TmtLock lock = fsCS.acquire();
      if (!TiffImageFile::open(name.asChar(), "r")) {
        lock.release();
        report(619, name);
        return -1;
      }
      unsigned short w = width(), h = height();
      if (w == 0 || h == 0 || w >= 8193 || h >= 8193) {
        // This one is said whatever the reporting switch, and the image stays open.
        TerrorHandler::send(Tstring(TstringIdNumber(621)).catenate(name));
        return -1;
      }
      isIff = imagefile::directIff(fImage, true);
      TiffImageFile::close();
    } else if (key == "sgi") {
      if (IMAGE* sgi = iopen(name.asChar(), "r")) {
        fSgi = sgi;
        fAlpha = sgi->zsize == 4;
        beginOpen();
        return 0;
      }
    }
    return open(name, isIff, flag, frame);
  });
}

int TimageFile::open(const Tstring& name, bool isIff, bool, int frame) {
  return imagefile::guarded([&]() -> int {
    if (name.isEmpty()) {
      report(618);
      return -1;
    }
    fName = name;
    if (isActive() || fSgi) {
      report(618);
      return -1;
    }
    if (isIff) {
      TmtLock lock = fsCS.acquire();
      if (TiffImageFile::open(name.asChar(), "r")) {
        fAlpha = (type() & 2) == 2;
        return 0;
      }
      lock.release();
      report(619, name);
      return -1;
    }
    fTempName = imagefile::temporaryName(this);
    loadPxfPlugins();
    imagefile::TemporaryGuard temporary{fTempName};
    std::string path = fTempName;
    Tstring key = getImageType(name, false);
    if (!key.isEmpty()) {
      TmtLock lock = fsCS.acquire();
      bool converted = false;
      if (key == "kelp" || key == "qvi") {
        if (!TiffImageFile::open(name.asChar(), "r")) {
          lock.release();
          report(619, name);
          return -1;
        }
        bool direct = imagefile::directIff(fImage, true);
        TiffImageFile::close();
        if (direct) {
          path = name.str();
          fTempName.clear();
          converted = true;
        }
      }
      if (!converted && anytoiff(name.asChar(), path.c_str(), nullptr, frame) != 0) {
        lock.release();
        report(624);
        return -1;
      }
    }
    if (fMapped) {
      temporary.keep = openMapped(path) == 0;
      return temporary.keep ? 0 : -1;
    }
    TmtLock lock = fsCS.acquire();
    if (TiffImageFile::open(path.c_str(), "r")) {
      fAlpha = (type() & 2) == 2;
      temporary.keep = true;
      return 0;
    }
    lock.release();
    report(619, Tstring(path));
    if (path != name.str()) imagefile::removeTemporary(path);
    return -1;
  });
}

int TimageFile::openMapped(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) {
    report(619, Tstring(path));
    return -1;  // a temporary file goes with the open's guard; the caller's own file stays
  }
  size_t bytes = size_t(fMappedWidth) * fMappedHeight * 4;
  void* view = bytes ? mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0) : MAP_FAILED;
  ::close(fd);
  if (view == MAP_FAILED) {
    if (gReporting.load()) TerrorHandler::send("Failed to open memory mapped region.");
    return -1;
  }
  fMappedView = view;
  beginOpen();
  return 0;
}

int TimageFile::create(const Tstring& name, unsigned short w, unsigned short h, TfileCompression compression,
                       const char* formatKey) {
  return imagefile::guarded([&]() -> int {
    fName = name;
    if (isActive() || fSgi) return -1;
    fFormatKey = formatKey ? formatKey : "";
    std::string path;
    if (!fFormatKey.empty() && !isIffKey(fFormatKey)) {
      fTempName = imagefile::temporaryName(this);
      path = fTempName;
    } else {
      path = name.str();
      fTempName.clear();
    }
    TmtLock lock = fsCS.acquire();
    if (!TiffImageFile::open(path.c_str(), "w")) {
      lock.release();
      report(620, Tstring(path));
      return -1;
    }
    imagefile::startPicture(*this, w, h, compression);
    fSpare = false;
    return 0;
  });
}

int TimageFile::close() {
  return imagefile::guarded([&]() -> int {
    if (closedElsewhere()) {
      forget();
      return -1;
    }
    auto reporter = [&](int id, const char* first, const char* second) { reportFormatted(id, first, second); };
    endOpen();
    if (fSgi) return imagefile::closeSgi(fSgi, fName.asChar(), reporter);
    TmtLock lock = fsCS.acquire();
    int written = fImage ? TiffImageFile::close() : 0;
    auto convert = [&] {
      loadPxfPlugins();
      // The picture is whole when close returns, also in a format of frames.
      return ifftoany(fTempName.c_str(), fName.asChar(), fFormatKey.c_str()) == 0 &&
             ifftoanyFinish(fName.asChar()) == 0;
    };
    return imagefile::finishClose(written, fTempName, fFormatKey, isIffKey(fFormatKey), fName.asChar(), convert,
                                  reporter);
  });
}

int TimageFile::getResolutionInAdvance(const Tstring& name, unsigned int& w, unsigned int& h) {
  if (name.isEmpty()) {
    report(619, name);
    return -1;
  }
  if (isActive() || fSgi) {
    report(618);
    return -1;
  }
  Tstring key = getImageType(name, false);
  if (key.isEmpty()) return -1;
  TmtLock lock = fsCS.acquire();
  if (key == "kelp" || key == "qvi") {
    if (!TiffImageFile::open(name.asChar(), "r")) {
      lock.release();
      report(619, name);
      return -1;
    }
    unsigned short sw, sh;
    getSize(sw, sh);
    w = sw;
    h = sh;
    TiffImageFile::close();
    return 0;
  }
  loadPxfPlugins();
  return getResolution(name.asChar(), w, h) == 0 ? 0 : -1;
}

bool TimageFile::hasDepthMap() const { return !fSgi && fImage && (ILgettype(fImage) & 4); }

bool TimageFile::hasRGB() const {
  if (fSgi) return fSgi->zsize >= 3;
  return fImage && (ILgettype(fImage) & 1);
}

int TimageFile::getDimensions(unsigned short& w, unsigned short& h, unsigned char& depth) const {
  getSize(w, h);
  depth = fAlpha ? 32 : 24;
  return 0;
}

TportRect TimageFile::size() const {
  unsigned short w = 0, h = 0;
  getSize(w, h);
  return TportRect(0, 0, int16_t(w), int16_t(h));
}

const TstringArray& TimageFile::availableFormats() {
  TmtLock lock = fsCS.acquire();
  if (kPluginStringArray.length() > 0) return kPluginStringArray;
  const char* root = KelpGetEnv("KELP_LOCATION");
  if (!root) {
    if (gReporting.load()) TerrorHandler::send(Tstring(TstringIdNumber(631)));
    return kPluginStringArray;
  }
  Tstring dir = Tstring(root) + "/bin/plug-ins/image/";
  if (!TfilePath(dir).isDirectory()) {
    if (gReporting.load()) TerrorHandler::send(Tstring(TstringIdNumber(632)) + dir);
    return kPluginStringArray;
  }
  for (TdirIterator it(dir); !it.isDone(); it.next()) {
    const Tstring& name = it.name();
    // Plug-ins are shared libraries.
    if (name[0] != '.' && name.extension() == "so") kPluginStringArray.addLast(name);
  }
  return kPluginStringArray;
}

void TimageFile::getClientAddressSpace(char* name) { std::sprintf(name, "%x", unsigned(getpid()) % 0xffffffu); }
