// A renderer's output side. TimageFN names one output frame by a template;
// TimageFileIO::create opens the picture of a frame and, beside it, a mask
// file and a depth file (IFF, in "mask" and "depth" below the image folder)
// when the chosen format cannot hold those channels; writeImage feeds all
// three; close stamps the render's facts into them as chunks ("CLPZ",
// "ESXY", "HIST", "VERS") and completes them.
#pragma once

#include <cstdint>

#include "kelpimage/base/tfile.h"
#include "kelpimage/base/tstring.h"
#include "kelpimage/image/timagefile.h"
#include "kelpimage/kelpexport.h"

// The output formats, named after their plug-in keys; the values without a
// key stay IFF.
enum TimageType : int {
  kGifImage = 0,
  kSiImage = 1,
  kRlaImage = 2,
  kTifImage = 3,
  kTif16Image = 4,
  kSgiImage = 5,
  kQlxImage = 6,
  kIffImage = 7,
  kJpgImage = 8,
  kEpsImage = 9,
  kIff16BitImage = 10,
  kCinImage = 11,
  kYuvImage = 12,
  kIff13Image = 13,
  kIff14Image = 14,
  kIff15Image = 15,
  kIff16Image = 16,
  kIff17Image = 17,
  kIff18Image = 18,
  kTgaImage = 19,
  kBmpImage = 20,
  kSgimvImage = 21,
  kQtImage = 22,
  kAviImage = 23,
  kIff24Image = 24,
  kIff25Image = 25,
  kIff26Image = 26,
  kIff27Image = 27,
  kIff28Image = 28,
  kIff29Image = 29,
  kPntgImage = 30,
  kPsdImage = 31,
  kPngImage = 32,
  kPictImage = 33,
  kQtifImage = 34,
  kDdsImage = 35
};

// The channels a frame has: a bit mask.
enum TdataType : unsigned { kColorData = 1, kAlphaData = 2, kDepthData = 4 };

// The name of one output frame: a template (0 to 6), a base name and a frame.
class KELP_API TimageFN {
 public:
  TimageFN() = default;
  TimageFN(int nameTemplate, const Tstring& name, uint32_t frame)
      : fTemplate(nameTemplate), fName(name), fFrame(frame) {}
  virtual ~TimageFN();
  TimageFN(const TimageFN&) = default;
  TimageFN& operator=(const TimageFN&) = default;

  int nameTemplate() const { return fTemplate; }
  const Tstring& name() const { return fName; }
  uint32_t frame() const { return fFrame; }
  void setNameTemplate(int t) { fTemplate = t; }
  void setName(const Tstring& name) { fName = name; }
  void setFrame(uint32_t frame) { fFrame = frame; }

 private:
  int fTemplate = 0;
  Tstring fName;
  uint32_t fFrame = 0;
};

class KELP_API TimageFileIO {
 public:
  TimageFileIO() = default;
  virtual ~TimageFileIO();
  TimageFileIO(const TimageFileIO&) = delete;
  TimageFileIO& operator=(const TimageFileIO&) = delete;

  // Opens the frame's files in the project's image folder. False, with no
  // file left open or made, when the folder, a side folder, the format (a
  // key no plug-in writes) or a file fails.
  bool create(TimageFN name, unsigned short w, unsigned short h, TimageType type, TdataType data);
  // Stamps and completes the files; false when any of the three could not
  // be completed.
  bool close();
  // A whole frame: pixels as TimageFile::save takes them, depth or null.
  bool writeImage(void* pixels, float* depth);
  bool writeClippingPlanes(float nearPlane, float farPlane);
  bool writeEyeWidthHeight(float width, float height);

  // This class writes whole images only.
  bool open(const Tstring&) { return false; }
  bool readImage() { return false; }
  bool readScanline() { return false; }
  bool writeScanline() { return false; }

  Tstring makeName(const TimageFN& name, TimageType type) const;
  // The viewer's form of the name, with "@" or "####" where the frame goes.
  static Tstring makeQpeekName(const TimageFN& name, TimageType type);
  static Tstring formatExtension(TimageType type);

  const TfilePath& imageDirectory() const { return fImageDir; }
  const TfilePath& maskDirectory() const { return fMaskDir; }
  const TfilePath& depthDirectory() const { return fDepthDir; }

 protected:
  Tstring formatExt(TimageType type) const { return formatExtension(type); }
  static Tstring formatPluginName(TimageType type);
  static bool imageWithDepth(TimageType type);
  static bool imageWithAlpha(TimageType type);
  static bool isImageFormat16Bit(TimageType type);
  bool outputDir(TfilePath& image, TfilePath& mask, TfilePath& depth);
  static bool makeDir(const TfilePath& path);

 private:
  // Closes the files opened by a create that failed, and removes them.
  void abandon();
  // Creates a side file, always IFF, in `dir` with channels `type`; false
  // after abandoning the create.
  bool openSideFile(TimageFile& file, const TfilePath& dir, const TimageFN& name, unsigned short w, unsigned short h,
                    TiffImageFile::TfileCompression compression, int type);

  TfilePath fImageDir, fMaskDir, fDepthDir;
  Tstring fNames[3];
  TimageFN fImageName, fMaskName, fDepthName;
  TimageType fImageType = kIffImage;
  TimageFile fImageFile, fMaskFile, fDepthFile;
  bool fFormatHasAlpha = true, fFormatHasDepth = true;
  bool fMaskOpen = false, fDepthOpen = false;
  bool fClipPending = false;
  float fNear = 0.0f, fFar = 0.0f;
  bool fEyePending = false;
  float fEyeWidth = 0.0f, fEyeHeight = 0.0f;
};
