// The document object and the start of the file: header, colour mode data
// and image resources.
#include "kelpimage/photoshop/tpsdfile.h"

#include "kelpimage/photoshop/psdguard.h"
#include "kelpimage/photoshop/psdstream.h"
#include "kelpimage/photoshop/tpsdwarning.h"

namespace zkPhotoshop {

namespace {

// Documents of this format are at most this many pixels a side.
constexpr uint32_t kMaxSide = 30000;

uint32_t colourModeWarning(uint16_t mode) {
  switch (mode) {
    case 0: return warnBitmapMode;
    case 1: return warnGrayscaleMode;
    case 2: return warnIndexedMode;
    case 4: return warnCmykMode;
    case 7: return warnMultichannelMode;
    case 8: return warnDuotoneMode;
    case 9: return warnLabMode;
    default: return warnNone;
  }
}

// A Pascal string inside a block that ends at `end`; false when none fits.
bool readPascal(TpsdStream& s, int64_t end, Tstring& text) {
  if (end - s.tell() < 1) return false;
  uint8_t n = s.u8();
  if (end - s.tell() < n) return false;
  std::string bytes(n, '\0');
  s.read(bytes.data(), n);
  text = Tstring(bytes);
  return true;
}

}  // namespace

int TphotoshopFile::open(const TfilePath& path, bool) {
  fPath = path;
  return 0;
}

int TphotoshopFile::create(const TfilePath& path, unsigned short& width, unsigned short& height) {
  fPath = path;
  fImageWidth = width;
  fImageHeight = height;
  return 0;
}

void TphotoshopFile::setColorDepth(int depth) {
  if (depth == 8)
    fDataFormat = dataFormat8;
  else if (depth == 16)
    fDataFormat = dataFormat16;
  else
    throw "Invalid color depth";
}

TpsdFile::TpsdFile() = default;
TpsdFile::~TpsdFile() = default;

void TpsdFile::fail(const Tstring& reason) {
  fErrorName = fPath.fullName().isEmpty() ? Tstring("the document") : fPath.fullName();
  fLastError = reason;
}

Tstring TpsdFile::lastError() const {
  return fLastError.isEmpty() ? Tstring() : fErrorName + Tstring(": ") + fLastError;
}

void TpsdFile::addWarningMessage(const Tstring& layerName, uint32_t code) {
  if (layerName == fSetEndName) return;
  fWarnings.addWarning(code, fPath.baseName(), layerName);
  theWarnings().addWarning(code, fPath.baseName(), layerName);
}

int TpsdFile::open(const TfilePath& path, bool editMode) {
  fSaveNeeded = editMode;
  fEditMode = editMode;
  fPath = TfilePath();
  fLastError = Tstring();
  fWarnings.clear();
  TpsdStream stream;
  fErrorName = path.fullName();
  if (!stream.open(path.fullName())) {
    fLastError = Tstring("cannot be opened");
    return 0;
  }
  bool taken = false;
  try {
    taken = readPsdHeader(stream);
  } catch (const TpsdDamaged& d) {
    fLastError = Tstring(d.reason);
  } catch (...) {}
  if (taken)
    fPath = path;
  else if (fLastError.isEmpty())
    fLastError = Tstring("not a Photoshop document of 8 or 16 bits a channel");
  return 0;
}

bool TpsdFile::openAndReadStart(TpsdStream& stream) {
  if (!stream.open(fPath.fullName())) {
    fail(fPath.fullName().isEmpty() ? Tstring("no document is open") : Tstring("cannot be opened"));
    return false;
  }
  if (!readPsdHeader(stream)) {
    if (fLastError.isEmpty()) fail("not a Photoshop document of 8 or 16 bits a channel");
    return false;
  }
  readColorModeData(stream);
  readImageResources(stream);
  return true;
}

bool TpsdFile::readPsdHeader(TpsdStream& s) {
  if (s.u32() != fourCC("8BPS") || s.u16() != 1) return false;
  s.read(fHeaderReserved, 6);
  fChannelCount = s.u16();
  fImageHeight = s.u32();
  fImageWidth = s.u32();
  uint16_t depth = s.u16();
  try {
    setColorDepth(depth);
  } catch (...) {
    return false;
  }
  fDepth = depth;
  fColorMode = s.u16();
  if (fChannelCount < 1 || fChannelCount > 56)
    damaged("the header gives " + std::to_string(fChannelCount) + " channels");
  if (fImageWidth > kMaxSide || fImageHeight > kMaxSide)
    damaged("the header gives a size past " + std::to_string(kMaxSide) + " pixels a side");
  // The flattened image alone, packed as tightly as run-length rows go,
  // takes a 64th of its samples: a smaller file cannot hold the document.
  uint64_t samples = uint64_t(fImageWidth) * fImageHeight * bytesOf(fDataFormat);
  if (samples / 64 > uint64_t(s.size()))
    damaged("the file is too small for a " + std::to_string(fImageWidth) + " x " + std::to_string(fImageHeight) +
            " document");
  if (uint32_t code = colourModeWarning(fColorMode)) addWarningMessage(Tstring(), code);
  return true;
}

void TpsdFile::readColorModeData(TpsdStream& s) {
  fColorModeSize = s.i32();
  if (fColorModeSize < 0) damaged("the colour mode data has a negative length");
  if (fColorModeSize > 0) fColorModeData = s.bytes(uint32_t(fColorModeSize), 1, "colour mode data");
}

void TpsdFile::readImageResources(TpsdStream& s) {
  if (fAfterResources > 0) {
    s.seek(fAfterResources);
    return;
  }
  fResourcesSize = s.u32();
  s.require(fResourcesSize, "the image resources");
  int64_t end = s.tell() + fResourcesSize;
  if (fResourcesSize > 0) {
    fResources.clear();
    fAlphaNames.reset();
    fAlphaIds.changeLogicalSizeTo(0);
    while (end - s.tell() >= 4) {
      uint32_t signature = s.u32();
      if (signature != fourCC("8BIM") && signature != fourCC("MeSa")) break;
      TpsdResource r;
      r.signature = signature;
      r.id = s.u16();
      uint8_t nameLength = s.u8();
      r.name.resize(nameLength);
      s.read(r.name.data(), nameLength);
      if (nameLength == 0 || (nameLength + 1) % 2) s.skip(1);  // the name fills whole words
      uint32_t size = s.u32();
      r.size = size + (size & 1);
      if (r.size > uint64_t(end - s.tell()))
        damaged("image resource " + std::to_string(r.id) + " runs past its section");
      int64_t dataEnd = s.tell() + r.size;
      readResourceData(s, r, dataEnd);
      s.seek(dataEnd);
      fResources.push_back(std::move(r));
    }
  }
  // The section ends where its length says, whatever its last bytes hold.
  s.seek(end);
  fAfterResources = int32_t(end);
}

void TpsdFile::readResourceData(TpsdStream& s, TpsdResource& r, int64_t end) {
  switch (r.id) {
    case kResourceIdSeed:
      if (end - s.tell() >= 4) r.value = s.u32();
      break;
    case kResourceAlphaNames: {
      Tstring name;
      for (int i = 3; i < fChannelCount && readPascal(s, end, name); ++i) fAlphaNames.addLast(name);
      break;
    }
    case kResourceAlphaIds:
      for (int i = 0; i < fAlphaNames.length() && end - s.tell() >= 4; ++i) fAlphaIds.addLast(s.u32());
      break;
    default: r.data = s.bytes(r.size, 0, "an image resource"); break;
  }
}

int TpsdFile::readAlphaList(TstringArray& names) {
  return guarded(
      [&] {
        TpsdStream s;
        if (!openAndReadStart(s)) return 0;
        for (int i = 0; i < fAlphaNames.length(); ++i) names.addLast(fAlphaNames[i]);
        return names.length() > 0 ? 1 : 0;
      },
      0);
}

}  // namespace zkPhotoshop
