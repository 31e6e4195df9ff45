// A pair of images and a tile list as a typed value of the host's data
// system. The value does not own its images.
#pragma once

#include "kelpimage/image/host/tdata.h"
#include "kelpimage/image/timage.h"
#include "kelpimage/image/ttilelist.h"
#include "kelpimage/kelpexport.h"

class KELP_API TdataImage : public TdataLetter, public KPtrBase {
 public:
  static constexpr int kApiType = 636;

  TdataImage() = default;
  TdataImage(Timage* image, Timage* depthMap) : fImage(image), fDepthMap(depthMap) {}
  TdataImage(const TdataImage& other);
  ~TdataImage() override = default;

  Timage* image() { return fImage; }
  const Timage* image() const { return fImage; }
  Timage* depthMap() { return fDepthMap; }
  const Timage* depthMap() const { return fDepthMap; }
  void setDepthMap(Timage* depthMap) { fDepthMap = depthMap; }
  TtileList& tileList() { return fTiles; }
  const TtileList& tileList() const { return fTiles; }

  // Sources of another type, null and self are ignored.
  TdataImage& operator=(const TdataImage& other);
  TdataImage& operator=(const Tdata& other);
  TdataImage& operator=(const TdataLetter& other);

  void debug(TdebugOutput& out, unsigned depth) const override;
  static void debugMe(const TdataImage& image, unsigned depth);
  TdataLetter* copy() const override;
  Tmetaclass* typeof() const override;
  void* cast(Tmetaclass* m) override;
  static TdataImage* construct(Tmetaclass* m);

  // Equal when both image pointers are; the tile lists play no part.
  bool operator==(const Tdata& other) const override;
  bool operator==(const TdataLetter& other) const override;
  bool operator!=(const Tdata& other) const override;
  bool operator!=(const TdataLetter& other) const override;
  virtual bool operator==(const TdataImage& other) const;
  virtual bool operator!=(const TdataImage& other) const;

  // Never part of a scene file: every form refuses.
  int readASCII(const char*) override { return -1; }
  int readBinary(const void*, size_t) override { return -1; }
  int writeASCII(Tstring&) const override { return -1; }
  int writeBinary(std::vector<uint8_t>&) const override { return -1; }

  KFn apiType() const override { return KFn(kApiType); }
  const char* apiTypeString() const override { return "kImageData"; }

 private:
  // The letter of `other` when it is a TdataImage (or derives from one).
  static const TdataImage* sameType(const TdataLetter* other);
  static const TdataImage* sameType(const Tdata& other);

  TtileList fTiles{8};
  Timage* fImage = nullptr;
  Timage* fDepthMap = nullptr;
};

KELP_API extern Tmetaclass TdataImageTmeta;
