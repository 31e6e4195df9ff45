// The object face of the IFF image library: one open image, with forwards
// to the IL functions and a few pieces of logic of its own. Copies share the
// open image; the last copy to go closes it, and a copy that closes it
// explicitly closes it for all. Moves hand the open image over.
#pragma once

#include <memory>

#include "kelpimage/base/tpixelmap.h"
#include "kelpimage/il/chunk/tifffile.h"
#include "kelpimage/il/il.h"
#include "kelpimage/kelpexport.h"

class KELP_API TiffImageFile : public TiffFile {
 public:
  // Compressor numbers of the image header.
  enum TfileCompression { kNone = 0, kRLE = 1, kQRL = 2, kQR4 = 3 };

  TiffImageFile() = default;
  TiffImageFile(const char* name, const char* mode);
  TiffImageFile(const TiffImageFile&) = default;
  TiffImageFile(TiffImageFile&& other) noexcept;
  TiffImageFile& operator=(const TiffImageFile& other);
  TiffImageFile& operator=(TiffImageFile&& other) noexcept;
  ~TiffImageFile() override;

  bool open(const char* name, const char* mode);
  bool reopen(const char* name, const char* mode);
  // 0, or the code of the first thing that went wrong while writing (the
  // file is then incomplete); -1 when nothing was open.
  int close();
  bool isActive() const { return fImage != nullptr && !closedElsewhere(); }
  ILimage* image() const { return fImage; }

  // Forwards; the caller makes sure the image is open.
  int setZoom(unsigned short w, unsigned short h, float blurX, float blurY, float offsetX, float offsetY);
  void getSize(unsigned short& w, unsigned short& h) const;
  void getNewSize(unsigned short& w, unsigned short& h) const;
  void getOrigin(unsigned short& x, unsigned short& y) const;
  void getRatio(unsigned short& num, unsigned short& den) const;
  unsigned int type() const { return unsigned(ILgettype(fImage)); }
  unsigned char bytesPerPixel() const { return static_cast<unsigned char>(ILgetbpp(fImage)); }
  int pages() { return ILgetpages(fImage); }
  int getField(TiffTag tag, const void** value) const { return int(ILgetfield(fImage, tag.value(), value)); }
  int setField(TiffTag tag, unsigned int size, const void* value) {
    return ILsetfield(fImage, tag.value(), size, value);
  }
  int copyFields(const TiffImageFile& other) { return ILcopyfields(fImage, other.fImage); }
  int setSize(unsigned short w, unsigned short h) { return ILsetsize(fImage, w, h); }
  int setOrigin(int x, int y) { return ILsetorigin(fImage, x, y); }
  int setType(int type) { return ILsettype(fImage, type); }
  int setRatio(int num, int den) { return ILsetratio(fImage, num, den); }
  int setBytesPerPixel(int bytes) { return ILsetbpp(fImage, bytes); }
  int setPages(int pages) { return ILsetpages(fImage, uint16_t(pages)); }
  int setPageSize(int w, int h) { return ILsetpagesize(fImage, w, h); }
  int getLine(const void** line, const float** zline);
  // Lines of a zoomed 16-bit read come with their channels in memory order.
  int readLine(void* color, float* z);
  int writeLine(const void* color, const float* z) { return ILwriteline(fImage, color, z); }
  void* beginLine(float** zline) { return ILbgnline(fImage, zline); }
  int endLine() { return ILendline(fImage); }
  int writeTile(const void* color, const float* z, const int* bounds, int stride);
  int endTile() { return ILendtile(fImage); }
  int modifyControlFlags(int flags, int on) { return int(ILctrl(fImage, uint32_t(flags), on)); }
  int queryControlFlags(int mask) const { return int(fImage->ictl & uint32_t(mask)); }

  // Guarded: a closed object answers 0 or -1.
  unsigned short width() const;
  unsigned short height() const;
  TfileCompression compression();
  int setCompression(TfileCompression compression);
  int load(void* pixels, float* z);
  int loadBitmap(void* pixels, float* z);
  int save(void* pixels, float* z, int stride);

  // Writes the tile count into a header already written, in place.
  void rewriteHeaderPageCount(int pages);
  // Reads a float image into 8-bit pixels (channels not turned); always 0.
  int loadFloatToByte(void* pixels, float* z);
  // A grey picture of the depth channel: nearest white, farthest 55. A read
  // that fails leaves the map as it was and its code in flerrno (0 after a
  // whole picture).
  void readZBuffer(TpixelMap& map, int width, int height);

  // Pixels of a line of 4 bytes each, blue, green, red, alpha; x up to the
  // image width (exclusive).
  void setPixelRGBA(void* line, unsigned short x, unsigned char r, unsigned char g, unsigned char b,
                    unsigned char a) const;
  void getPixelRGBA(void* line, unsigned short x, unsigned char& r, unsigned char& g, unsigned char& b,
                    unsigned char* a) const;
  void pixelRGBAswap(void* line) const;

  // The record's fields, for code that drives the line loop by hand.
  int version() const { return int(fImage->version); }
  void setVersion(int v) { fImage->version = uint32_t(v); }
  unsigned int ictl() const { return fImage->ictl; }
  void setIctl(unsigned int v) { fImage->ictl = v; }
  int twidth() const { return int(fImage->twidth); }
  void setTwidth(int v) { fImage->twidth = uint32_t(v); }
  int theight() const { return int(fImage->theight); }
  void setTheight(int v) { fImage->theight = uint32_t(v); }
  float dpi() const { return fImage->dpi; }
  void setDpi(float v) { fImage->dpi = v; }
  unsigned int bitmask() const { return fImage->bitmask; }
  void setBitmask(unsigned int v) { fImage->bitmask = v; }
  int channels() const { return int(fImage->channels); }
  void setChannels(int v) { fImage->channels = uint32_t(v); }
  int pwidth() const { return int(fImage->pwidth); }
  void setPwidth(int v) { fImage->pwidth = uint32_t(v); }
  int lwidth() const { return int(fImage->lwidth); }
  void setLwidth(int v) { fImage->lwidth = uint32_t(v); }
  char* line() const { return reinterpret_cast<char*>(fImage->line); }
  void setLine(char* v) { fImage->line = reinterpret_cast<uint8_t*>(v); }
  float* zline() const { return fImage->zline; }
  void setZline(float* v) { fImage->zline = v; }
  int waterline() const { return int(fImage->waterline); }
  void setWaterline(int v) { fImage->waterline = uint32_t(v); }
  int startline() const { return int(fImage->startline); }
  void setStartline(int v) { fImage->startline = uint32_t(v); }
  int pbound() const { return int(fImage->pbound); }
  void setPbound(int v) { fImage->pbound = uint32_t(v); }
  int pheight() const { return int(fImage->pheight); }
  void setPheight(int v) { fImage->pheight = uint32_t(v); }
  void* color() const { return fImage->color; }
  void setColor(void* v) { fImage->color = static_cast<uint8_t*>(v); }
  float* zbuffer() const { return fImage->zbuffer; }
  void setZbuffer(float* v) { fImage->zbuffer = v; }
  int samples() const { return int(fImage->samples); }
  void setSamples(int v) { fImage->samples = uint32_t(v); }
  int zsamples() const { return int(fImage->zsamples); }
  void setZsamples(int v) { fImage->zsamples = uint32_t(v); }
  const unsigned char** lookups() const { return const_cast<const unsigned char**>(fImage->lookups); }
  void setLookups(const unsigned char** v) { fImage->lookups = const_cast<uint8_t**>(v); }

 protected:
  // What the copies of one open share: whether one of them has closed it.
  struct TopenState {
    bool closed = false;
  };
  // A new open: copies made from now on share it.
  void beginOpen() { fOpen = std::make_shared<TopenState>(); }
  // The open ends for every copy.
  void endOpen() {
    if (fOpen) fOpen->closed = true;
    fOpen.reset();
  }
  bool closedElsewhere() const { return fOpen && fOpen->closed; }
  // Lets go of an image that another copy has closed.
  void forgetImage() {
    fImage = nullptr;
    fFile = nullptr;
    fOpen.reset();
  }
  // No other copy holds this open.
  bool lastHolder() const { return fOpen.use_count() <= 1; }
  // Exchanges everything this class holds with `other`.
  void swapBase(TiffImageFile& other) noexcept;

  ILimage* fImage = nullptr;
  std::shared_ptr<TopenState> fOpen;

 private:
  void initInheritance() {
    if (fImage) fFile = fImage;
  }
};

// The conversion filters for files outside the format.
KELP_API const char* TiffImageFileInFilter(const char* text);
KELP_API const char* TiffImageFileOutFilter(const char* text);
