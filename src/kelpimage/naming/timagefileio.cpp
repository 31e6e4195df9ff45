#include "kelpimage/naming/timagefileio.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "kelpimage/convert/conversions.h"
#include "kelpimage/naming/tbatchglobals.h"
#include "kelpimage/naming/tprojectmgr.h"
#include "kelpimage/plugin/plugins.h"

namespace {

struct TypeInfo {
  const char* key;  // empty: the file stays IFF
  const char* extension;
  bool alpha, depth, deep;
};

// By TimageType value.
constexpr TypeInfo kTypes[] = {
    {"gif", "gif", true, false, false},    {"si", "pic", true, false, false},     {"rla", "rla", true, true, false},
    {"tif", "tif", true, false, false},    {"tif", "tif", true, false, true},     {"sgi", "sgi", true, false, false},
    {"qlx", "qlx", false, false, false},   {"", "iff", true, true, false},        {"jpg", "jpg", true, false, false},
    {"eps", "eps", false, false, false},   {"", "iff", true, true, true},         {"cin", "cin", true, false, false},
    {"yuv", "yuv", true, false, false},    {"", "iff", false, false, false},      {"", "iff", false, false, false},
    {"", "iff", false, false, false},      {"", "iff", false, false, false},      {"", "iff", false, false, false},
    {"", "iff", false, false, false},      {"tga", "tga", false, false, false},   {"bmp", "bmp", false, false, false},
    {"sgimv", "mv", false, false, false},  {"qt", "qt", false, false, false},     {"avi", "avi", false, false, false},
    {"", "iff", false, false, false},      {"", "iff", false, false, false},      {"", "iff", false, false, false},
    {"", "iff", false, false, false},      {"", "iff", false, false, false},      {"", "iff", false, false, false},
    {"pntg", "pntg", false, false, false}, {"psd", "psd", false, false, false},   {"png", "png", false, false, false},
    {"pict", "pict", false, false, false}, {"qtif", "qtif", false, false, false}, {"dds", "dds", false, false, false},
};
constexpr TypeInfo kOther = {"", "iff", false, false, false};

const TypeInfo& info(TimageType type) {
  int t = int(type);
  return t >= 0 && t < int(sizeof kTypes / sizeof kTypes[0]) ? kTypes[t] : kOther;
}

TimageFN withSuffix(const TimageFN& name, const char* suffix) {
  return TimageFN(name.nameTemplate(), Tstring(name.name().str() + suffix), name.frame());
}

// Writes one chunk of raw bytes; 0, or -1.
int putChunk(TimageFile& file, const char (&tag)[5], const void* data, size_t size) {
  if (file.beginPut(TiffTag(tag), uint32_t(size)) != 0) return -1;
  int rc = file.put(data, size) < 0 ? -1 : 0;
  return file.endPut() != 0 ? -1 : rc;
}

int putPair(TimageFile& file, const char (&tag)[5], float a, float b) {
  float pair[2] = {a, b};
  return putChunk(file, tag, pair, sizeof pair);
}

std::string joinPath(const Tstring& dir, const Tstring& name) {
  const std::string& d = dir.str();
  return d.empty() ? name.str() : d + (d.back() == '/' ? "" : "/") + name.str();
}

}  // namespace

TimageFN::~TimageFN() = default;

TimageFileIO::~TimageFileIO() = default;

Tstring TimageFileIO::formatExtension(TimageType type) { return Tstring(info(type).extension); }
Tstring TimageFileIO::formatPluginName(TimageType type) { return Tstring(info(type).key); }
bool TimageFileIO::imageWithDepth(TimageType type) { return info(type).depth; }
bool TimageFileIO::imageWithAlpha(TimageType type) { return info(type).alpha; }
bool TimageFileIO::isImageFormat16Bit(TimageType type) { return info(type).deep; }

Tstring TimageFileIO::makeName(const TimageFN& fn, TimageType type) const {
  const std::string& base = fn.name().str();
  if (base.empty()) return Tstring();
  std::string ext = formatExt(type).str();
  char frame[16], padded[16];
  std::snprintf(frame, sizeof frame, "%u", fn.frame());
  std::snprintf(padded, sizeof padded, "%04u", fn.frame());
  switch (fn.nameTemplate()) {
    case 0: return Tstring(base);
    case 1: return Tstring(base + "." + frame);
    case 2: return Tstring(base + "." + ext + "." + frame);
    case 3: return Tstring(base + "." + frame + "." + ext);
    case 4: return Tstring(base + "." + padded);
    case 5: return Tstring(base + "." + ext + "." + padded);
    case 6: return Tstring(base + "." + padded + "." + ext);
    default: return Tstring();
  }
}

Tstring TimageFileIO::makeQpeekName(const TimageFN& fn, TimageType type) {
  const std::string& base = fn.name().str();
  if (base.empty()) return Tstring();
  std::string ext = formatExtension(type).str();
  switch (fn.nameTemplate()) {
    case 0:
    case 1: return Tstring(base);
    case 2: return Tstring(base + "." + ext);
    case 3: return Tstring(base + ".@." + ext);
    case 4: return Tstring(base + ".####");
    case 5: return Tstring(base + "." + ext + ".####");
    case 6: return Tstring(base + ".####." + ext);
    default: return Tstring();
  }
}

bool TimageFileIO::outputDir(TfilePath& image, TfilePath& mask, TfilePath& depth) {
  Tstring dir = TprojectMgrBase::current().directoryOf(TfileObjectTypeName::kTR_Image, TfileObjectTypeName::kRT_Images);
  if (dir.isEmpty()) return false;
  image = TfilePath(dir);
  mask = TfilePath(Tstring(joinPath(dir, Tstring("mask"))));
  depth = TfilePath(Tstring(joinPath(dir, Tstring("depth"))));
  return true;
}

bool TimageFileIO::makeDir(const TfilePath& path) {
  struct stat st;
  if (::stat(path.fullName().asChar(), &st) == 0) return S_ISDIR(st.st_mode);
  Tdirectory dir;
  dir.setPath(path.dirName());
  return dir.makeAndSet(path.baseName());
}

void TimageFileIO::abandon() {
  // A file of a failed create is not a frame: it goes.
  for (TimageFile* file : {&fImageFile, &fMaskFile, &fDepthFile}) {
    if (!file->isOpen()) continue;
    std::string name = file->filename().str();
    file->close();
    ::unlink(name.c_str());
  }
  fMaskOpen = fDepthOpen = false;
}

bool TimageFileIO::openSideFile(TimageFile& file, const TfilePath& dir, const TimageFN& name, unsigned short w,
                                unsigned short h, TiffImageFile::TfileCompression compression, int type) {
  std::string path = joinPath(dir.fullName(), makeName(name, kIffImage));
  if (file.create(Tstring(path), w, h, compression, nullptr) != 0) {
    abandon();
    return false;
  }
  file.setType(type);
  return true;
}

bool TimageFileIO::create(TimageFN name, unsigned short w, unsigned short h, TimageType type, TdataType data) {
  // The side files of an earlier frame are closed: this frame has its own.
  fMaskOpen = fDepthOpen = false;
  fImageName = name;
  fMaskName = withSuffix(name, "_mask");
  fDepthName = withSuffix(name, "_depth");
  if (!outputDir(fImageDir, fMaskDir, fDepthDir)) return false;
  fImageType = type;
  fFormatHasAlpha = imageWithAlpha(type);
  fFormatHasDepth = imageWithDepth(type);
  bool maskFile = (data & kAlphaData) && !fFormatHasAlpha;
  bool depthFile = (data & kDepthData) && !fFormatHasDepth;
  std::string path = joinPath(fImageDir.fullName(), makeName(fImageName, type));
  Tstring key = formatPluginName(type);
  // What could fail is tried before any file is made: the format's plug-in
  // and the side folders.
  if (!key.isEmpty() && ifftoanyInit(path.c_str(), key.asChar()) != 0) return false;
  if ((maskFile && !makeDir(fMaskDir)) || (depthFile && !makeDir(fDepthDir))) return false;

  if (fImageFile.create(Tstring(path), w, h, TiffImageFile::kRLE, key.isEmpty() ? nullptr : key.asChar()) != 0) {
    abandon();
    return false;
  }
  fImageFile.setType(int(((data & kColorData) ? 1u : 0u) | ((data & kAlphaData) && fFormatHasAlpha ? 2u : 0u) |
                         ((data & kDepthData) && fFormatHasDepth ? 4u : 0u)));
  if (maskFile && !openSideFile(fMaskFile, fMaskDir, fMaskName, w, h, TiffImageFile::kRLE, 2)) return false;
  fMaskOpen = maskFile;
  if (depthFile && !openSideFile(fDepthFile, fDepthDir, fDepthName, w, h, TiffImageFile::kNone, 4)) return false;
  fDepthOpen = depthFile;
  return true;
}

bool TimageFileIO::writeImage(void* pixels, float* depth) {
  fImageFile.save(pixels, depth, 0);
  if (fMaskOpen) fMaskFile.save(pixels, nullptr, 0);
  if (fDepthOpen) fDepthFile.save(nullptr, depth, 0);
  return true;
}

bool TimageFileIO::writeClippingPlanes(float nearPlane, float farPlane) {
  fNear = nearPlane;
  fFar = farPlane;
  fClipPending = true;
  return true;
}

bool TimageFileIO::writeEyeWidthHeight(float width, float height) {
  fEyeWidth = width;
  fEyeHeight = height;
  fEyePending = true;
  return true;
}

bool TimageFileIO::close() {
  bool ok = true;
  auto both = [&](auto put) {
    if (put(fImageFile) != 0) ok = false;
    if (fDepthOpen && put(fDepthFile) != 0) ok = false;
  };
  if (fClipPending) {
    fClipPending = false;
    both([&](TimageFile& f) { return putPair(f, "CLPZ", fNear, fFar); });
  }
  if (fEyePending) {
    fEyePending = false;
    both([&](TimageFile& f) { return putPair(f, "ESXY", fEyeWidth, fEyeHeight); });
  }
  std::string history = TbatchGlobals::getCommandLine().str();
  std::string version = std::string("Kelp cut ") + gCutIdentifier;
  both([&](TimageFile& f) { return putChunk(f, "HIST", history.data(), history.size()); });
  both([&](TimageFile& f) { return putChunk(f, "VERS", version.data(), version.size()); });
  if (fImageFile.close() != 0) ok = false;
  if (fMaskOpen && fMaskFile.close() != 0) ok = false;
  if (fDepthOpen && fDepthFile.close() != 0) ok = false;
  return ok;
}
