#include "kelpimage/image/tdataimage.h"

#include <new>

namespace {
TdataLetter* createImageData(Tmetaclass* m) {
  auto* value = new (std::nothrow) TdataImage;
  if (!value) return nullptr;
  return static_cast<TdataLetter*>(static_cast<TdataImage*>(value->cast(m)));
}
}  // namespace

// Registered while the library loads: the host type number with its
// parents, and the metaclass "imageData" tagged "IMAG".
Tmetaclass TdataImageTmeta("imageData", sizeof(TdataImage), createImageData, 0x494D4147, false, &TdataLetterTmeta,
                           nullptr, nullptr, nullptr);
namespace {
struct Registration {
  Registration() : letter(&TdataImageTmeta) { KObjBase::add(TdataImage::kApiType, {1, 567}); }
  TmetaLetter letter;
} gRegistration;
}  // namespace

TdataImage::TdataImage(const TdataImage& other)
    : TdataLetter(other), KPtrBase(other), fImage(other.fImage), fDepthMap(other.fDepthMap) {
  if (this != &other) fTiles.copy(other.fTiles);
}

const TdataImage* TdataImage::sameType(const TdataLetter* other) {
  if (!other || !other->typeof()->istype(&TdataImageTmeta)) return nullptr;
  return static_cast<const TdataImage*>(other);
}

const TdataImage* TdataImage::sameType(const Tdata& other) {
  // A direct value would count only for the plain data metaclasses, which this is not.
  if (other.isDirect()) return nullptr;
  return sameType(other.privateDataStar());
}

TdataImage& TdataImage::operator=(const TdataImage& other) {
  if (this != &other) {
    fImage = other.fImage;
    fDepthMap = other.fDepthMap;
    fTiles.copy(other.fTiles);
  }
  return *this;
}

TdataImage& TdataImage::operator=(const Tdata& other) {
  if (const TdataImage* source = sameType(other)) *this = *source;
  return *this;
}

TdataImage& TdataImage::operator=(const TdataLetter& other) {
  if (const TdataImage* source = sameType(&other)) *this = *source;
  return *this;
}

void TdataImage::debug(TdebugOutput& out, unsigned depth) const {
  out.printf("TdataImage %#lx", static_cast<unsigned long>(reinterpret_cast<uintptr_t>(this)));
  if (depth == 0) TdataLetter::debug(out, depth);
  out.endEntry();
}

void TdataImage::debugMe(const TdataImage& image, unsigned depth) { image.debug(TdebugOutput::sCerr, depth); }

TdataLetter* TdataImage::copy() const { return new (std::nothrow) TdataImage(*this); }

Tmetaclass* TdataImage::typeof() const { return &TdataImageTmeta; }

void* TdataImage::cast(Tmetaclass* m) { return m == &TdataImageTmeta ? this : TdataLetter::cast(m); }

TdataImage* TdataImage::construct(Tmetaclass* m) {
  if (!m || !m->istype(&TdataImageTmeta)) return nullptr;
  return static_cast<TdataImage*>(Tmetaclass::construct(m, &TdataImageTmeta));
}

bool TdataImage::operator==(const TdataImage& other) const {
  return fImage == other.fImage && fDepthMap == other.fDepthMap;
}
bool TdataImage::operator!=(const TdataImage& other) const { return !(*this == other); }

bool TdataImage::operator==(const Tdata& other) const {
  const TdataImage* o = sameType(other);
  return o && *this == *o;
}
bool TdataImage::operator!=(const Tdata& other) const {
  const TdataImage* o = sameType(other);
  return o && *this != *o;
}
bool TdataImage::operator==(const TdataLetter& other) const {
  const TdataImage* o = sameType(&other);
  return o && *this == *o;
}
bool TdataImage::operator!=(const TdataLetter& other) const {
  const TdataImage* o = sameType(&other);
  return o && *this != *o;
}
