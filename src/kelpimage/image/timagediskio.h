// The lighter twin of TimageFile for code that works with Timage: the same
// road through a temporary IFF file for other formats, no lock, no quiet
// mode, no size limit. For one thread.
#pragma once

#include <string>

#include "kelpimage/base/tstring.h"
#include "kelpimage/image/tiffimagefile.h"
#include "kelpimage/image/timage.h"
#include "kelpimage/kelpexport.h"
#include "kelpimage/sgi/sgi.h"

class KELP_API TimageDiskIO : public TiffImageFile {
 public:
  // Copies share the open picture and its temporary file; the last copy to
  // go closes it. Moves hand it over.
  TimageDiskIO() = default;
  TimageDiskIO(const TimageDiskIO&) = default;
  TimageDiskIO(TimageDiskIO&& other) noexcept;
  TimageDiskIO& operator=(const TimageDiskIO& other);
  TimageDiskIO& operator=(TimageDiskIO&& other) noexcept;
  ~TimageDiskIO() override;

  int open(const Tstring& name, bool isIff, bool unused = false);
  Tstring getImageType(const Tstring& name) const;
  int identifyAndOpen(const Tstring& name, bool flag = false);
  int create(const Tstring& name, unsigned short w, unsigned short h, TfileCompression compression,
             const char* formatKey);
  // 0, or -1 when a written file could not be completed, with a report.
  int close();

  bool isOpen() const { return isActive(); }
  const Tstring& filename() const { return fName; }
  int format() const { return 0; }
  bool alpha() const { return fAlpha; }
  void setAlpha(bool alpha) { fAlpha = alpha; }
  int getDimensions(unsigned short& w, unsigned short& h, unsigned char& depth) const;
  TportRect size() const;
  void flush() {}

  int readImage(Timage& image);
  int readImage(Timage& image, unsigned short start, unsigned short count);
  int readSGI(void* dest, int width, int y0, int y1);
  int writeImage(const Timage& image);
  int writeImage(int x, int y, const Timage& image, int lines);
  int writeImage(int x, int y, const Timage& image);
  int writeImageRegion(int left, int right, int top, int bottom, const Timage& image);

  static const TstringArray& availableFormats();

 private:
  void report(int id, const Tstring& more = Tstring()) const;
  void reportFormatted(int id, const char* arg1, const char* arg2 = nullptr) const;
  void swapState(TimageDiskIO& other) noexcept;

  bool fAlpha = false;
  bool fSpare = false;
  Tstring fName;
  std::string fTempName;
  std::string fFormatKey;
  IMAGE* fSgi = nullptr;
};
