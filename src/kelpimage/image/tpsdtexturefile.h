// Photoshop documents as texture sources: the whole document, a layer set,
// a layer or an alpha channel as interleaved pixels or a pixel map, and
// layered documents written from pictures. Opened documents are kept in a
// cache until their file changes on disk.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

#include "kelpimage/base/tarray.h"
#include "kelpimage/base/tfile.h"
#include "kelpimage/base/tpixelmap.h"
#include "kelpimage/base/tstring.h"
#include "kelpimage/kelpexport.h"
#include "kelpimage/photoshop/tpsdfile.h"

// Documents opened through TpsdTextureFile::open, by full name, each with
// the modification time its file had. Guarded by a lock: the map is safe
// from any thread, a document in it is used by one thread at a time. The
// cache shares its documents: one dropped from it (its file changed, or the
// cache cleared) stays whole for those who hold it, and goes with the last.
class KELP_API TpsdFileCache {
 public:
  // 0 and the document when it is kept and its file has not changed since;
  // -1 otherwise (a changed file's document is dropped from the cache). The
  // pointer is the cache's: share() keeps the document alive for a holder.
  int getFile(const Tstring& name, zkPhotoshop::TphotoshopFile*& file);
  // The document as getFile finds it, held; null when getFile gives -1.
  std::shared_ptr<zkPhotoshop::TphotoshopFile> share(const Tstring& name);
  // The cache takes the document; -1 (and the document stays the
  // caller's) when the name is kept already.
  int addFile(const Tstring& name, zkPhotoshop::TphotoshopFile* file);
  // Drops every kept document.
  void clear();
  static TpsdFileCache& theCache();
  ~TpsdFileCache();

 private:
  struct TfileCacheEntry {
    std::shared_ptr<zkPhotoshop::TphotoshopFile> fFile;
    Ttime fModificationTime;
  };
  std::map<Tstring, TfileCacheEntry> fEntries;
  std::mutex fLock;
};

// The one warning a caller asks about by value: 0, an empty layer set.
enum TpsdTextureFileWarning { kPsdEmptyLayerSet = 0 };

class KELP_API TpsdTextureFile {
 public:
  TpsdTextureFile() = default;
  TpsdTextureFile(const TpsdTextureFile&) = delete;
  TpsdTextureFile& operator=(const TpsdTextureFile&) = delete;
  ~TpsdTextureFile();

  // True for a Photoshop document of version 1: "8BPS" and a big-endian 1.
  static bool isFilePsd(const Tstring& name);

  // 0, or -1. open shares documents through the cache; openWithoutCache and
  // create keep theirs to this object.
  int open(const TfilePath& path, bool editMode);
  int openWithoutCache(const TfilePath& path, bool editMode);
  int create(const TfilePath& path, unsigned short width, unsigned short height);
  int create(const TfilePath& path);
  // Saves a new or changed document that is not in edit mode; -1 when that
  // fails, with the reason in lastError().
  int close();
  const Tstring& lastError() const { return fLastError; }
  int saveAs(const TfilePath& path);
  void setResolutionX(unsigned short x) { fResolutionX = x; }
  void setResolutionY(unsigned short y) { fResolutionY = y; }
  unsigned short resolutionX() const { return fResolutionX; }
  unsigned short resolutionY() const { return fResolutionY; }
  zkPhotoshop::TphotoshopFile* document() const { return fPsd; }

  // The document: 0, or -1 (also with no document).
  int readAllLayersInformation();
  int readAllChannelData();
  int layerNames(TstringArray& names);
  int layerSetNames(TstringArray& names);
  int alphaList(TstringArray& names);
  int deleteLayer(const Tstring& name);
  int deleteChannel(const Tstring& setName);  // a layer set
  int createChannel(const Tstring& setName);  // a layer set
  int createLayer(const Tstring& name);
  int addNewLayerToSet(const Tstring& setName, const Tstring& layerName);
  int setLayerOpacity(const Tstring& name, unsigned int opacity);
  int setBlendModeToLayer(const Tstring& name, uint32_t key);

  // The process-wide warnings.
  int allPsdFileWarnings(TstringArray& messages);
  bool isWarningSet(int value);
  int clearAllPsdWarnings();

  // Pixels in a new array the caller frees with delete[]: interleaved red,
  // green, blue, transparency of `bytes` bytes a sample in host order, the
  // top row first. 0, or -1.
  int readPixels(uint8_t*& pixels, int& channels, int& width, int& height, int& bytes);
  int readPixels(const Tstring& setName, uint8_t*& pixels, int& channels, int& width, int& height, int& bytes);
  int readLayerPixels(const Tstring& name, uint8_t*& pixels, int& channels, int& width, int& height, int& bytes);
  // The whole document for an empty name, else the set, at 8 or 16 bits.
  int readPixels8(const Tstring& name, uint8_t*& pixels, int& channels, int& width, int& height);
  int readPixels16(const Tstring& name, uint16_t*& pixels, int& channels, int& width, int& height);
  int readPixels8Layer(const Tstring& name, uint8_t*& pixels, int& channels, int& width, int& height);
  int readPixels16Layer(const Tstring& name, uint16_t*& pixels, int& channels, int& width, int& height);
  int readAlphaChannel(int index, uint8_t*& pixels, int& width, int& height, int& bytes);
  int readAlphaChannel8(int index, uint8_t*& pixels, int& width, int& height);
  int readAlphaChannel16(int index, uint16_t*& pixels, int& width, int& height);
  // As pixel maps (blue, green, red, alpha; the bottom row first).
  int readPixelMap(const Tstring& setName, TpixelMap& map);
  int readPixelMap(TpixelMap& map);
  int readAlphaChannelPixMap(int index, TpixelMap& map);

  // Pictures into the document: a layer, the background, the flattened image.
  int saveReferenceImage(const Tstring& layerName, TpixelMap& map, bool insert, int index);
  int saveBackgroundImage(TpixelMap& map, const char* name);
  int setCompositeImage(TpixelMap& map);
  // An alpha channel of the document's size, its rows the bottom first.
  int addAlphaToComposite(const Tstring& name, const uint8_t* pixels);
  // Red, green, blue, alpha groups turned to blue, green, red, alpha (for
  // `bytes` of 2, the first and third samples of each group swapped) into a
  // new array that replaces `pixels`; the old one is freed. Other byte
  // counts leave the pixels as they are.
  static void rgbaSwitch(uint8_t*& pixels, size_t byteCount, int bytes);
  // Writes interleaved pixels (the top row first) as a picture of the
  // format `format` ("kelp" for IFF, at `bytes` bytes a sample).
  int writePixels(const TfilePath& path, uint8_t* pixels, int width, int height, const char* format, int bytes,
                  uint32_t compression = 0);

 private:
  int interleave(zkPhotoshop::TrgbaData* image, uint8_t fill, uint8_t*& pixels, int& channels, int& width, int& height,
                 int& bytes);
  int imageInto(TpixelMap& map, int which, const Tstring& name, bool insert, int index);

  zkPhotoshop::TphotoshopFile* fPsd = nullptr;  // the document read, held by fHeld
  std::shared_ptr<zkPhotoshop::TphotoshopFile> fHeld;
  unsigned short fResolutionX = 256;
  unsigned short fResolutionY = 256;
  bool fUseCache = false;
  bool fCreated = false;
  Tstring fLastError;  // why the last close failed
};
