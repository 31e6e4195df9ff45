// The front door: one object opens any picture on disk, tells it by its
// bytes, and hands it back as a TpixelMap, a Timage or a depth array; it
// writes IFF, or any plug-in format through a temporary IFF file. IFF files
// are read by the IL library, SGI files by the SGI library; everything else
// goes through a temporary IFF file in the temporary directory.
#pragma once

#include <string>

#include "kelpimage/base/tarray.h"
#include "kelpimage/base/tstring.h"
#include "kelpimage/base/tthread.h"
#include "kelpimage/image/tiffimagefile.h"
#include "kelpimage/image/timage.h"
#include "kelpimage/kelpexport.h"
#include "kelpimage/sgi/sgi.h"

class KELP_API TimageFile : public TiffImageFile {
 public:
  enum TfileFormat { kUnknownFormat = 0 };

  // Copies share the open picture, SGI or IFF, and its temporary file; the
  // last copy to go closes it. Moves hand it over.
  TimageFile() = default;
  TimageFile(const TimageFile&) = default;
  TimageFile(TimageFile&& other) noexcept;
  TimageFile& operator=(const TimageFile& other);
  TimageFile& operator=(TimageFile&& other) noexcept;
  ~TimageFile() override;

  int open(const Tstring& name, bool isIff, bool unused = false, int frame = 0);
  int identifyAndOpen(const Tstring& name, bool flag = false, int frame = 0);
  int create(const Tstring& name, unsigned short w, unsigned short h, TfileCompression compression,
             const char* formatKey);
  // 0, or -1 when a written file could not be completed (a write failed or
  // the conversion to its format did), with a report.
  int close();

  // "kelp", "sgi", "tif", "jpg", "psd" or a plug-in's key; empty when unknown.
  Tstring getImageType(const Tstring& name, bool describeNonImages = false) const;
  int getResolutionInAdvance(const Tstring& name, unsigned int& w, unsigned int& h);

  bool isOpen() const { return isActive(); }
  const Tstring& filename() const { return fName; }
  TfileFormat format() const { return kUnknownFormat; }
  bool hasDepthMap() const;
  bool hasRGB() const;
  bool alpha() const { return fAlpha; }
  void setAlpha(bool alpha) { fAlpha = alpha; }
  int getDimensions(unsigned short& w, unsigned short& h, unsigned char& depth) const;
  TportRect size() const;
  void flush() {}
  IMAGE* sgiImage() const { return fSgi; }

  int readImage(Timage& image);
  int readImage(Timage& image, unsigned short start, unsigned short count);
  int readPixelMap(TpixelMap& map);
  int readPixelMap(TpixelMap& map, unsigned short start, unsigned short count);
  int readDepthMap(TfloatArray& depth);
  int readSGI(void* dest, int width, int y0, int y1);
  int readSGI(Tpixel32* dest, int y0, int y1);

  int writePixelMap(const TpixelMap& map);
  int writePixelMap(int x, int y, const TpixelMap& map, int lines);
  int writePixelMap(int x, int y, const TpixelMap& map);
  int writePixelMapRegion(int left, int right, int top, int bottom, const TpixelMap& map);

  static TmtCriticalSection& imageLock() { return fsCS; }
  static void setErrorReportingEnabled(bool on);
  static bool errorReportingEnabled();
  static const TstringArray& availableFormats();
  // The name of a shared region for this process.
  static void getClientAddressSpace(char* name);

  static TmtCriticalSection fsCS;
  static TstringArray kPluginStringArray;

 protected:
  // The memory-mapped case: pixels of a region w by h come from a view of
  // the file instead of an IL image.
  void setMapped(bool mapped, unsigned short w, unsigned short h) {
    fMapped = mapped;
    fMappedWidth = w;
    fMappedHeight = h;
  }

 private:
  void report(int id, const Tstring& more = Tstring()) const;
  void reportFormatted(int id, const char* arg1, const char* arg2 = nullptr) const;
  int openMapped(const std::string& path);
  void swapState(TimageFile& other) noexcept;
  // Lets go of an open that another copy has closed.
  void forget();

  bool fAlpha = false;
  bool fSpare = false;
  bool fMapped = false;
  Tstring fName;
  std::string fTempName;   // empty when working on the caller's file directly
  std::string fFormatKey;  // empty for none
  void* fMappedView = nullptr;
  IMAGE* fSgi = nullptr;
  uint16_t fMappedWidth = 0, fMappedHeight = 0;
};

// Loads the plug-ins once per process; safe against concurrent callers.
KELP_API void loadPxfPlugins();
