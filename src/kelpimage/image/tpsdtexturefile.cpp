#include "kelpimage/image/tpsdtexturefile.h"

#include <cstring>
#include <memory>
#include <vector>

#include "kelpimage/image/tiffimagefile.h"
#include "kelpimage/image/timagefile.h"
#include "kelpimage/photoshop/psdinterface.h"
#include "kelpimage/photoshop/tpsdinterleave.h"
#include "kelpimage/photoshop/tpsdwarning.h"

using namespace zkPhotoshop;

namespace {

Ttime modificationTime(const Tstring& name) {
  TfileStream stream;
  stream.setFullName(name);
  return stream.modificationTime();
}

// Eight bits of a sample of `bytes` bytes in host order: its high byte.
uint8_t high(const uint8_t* sample, int bytes) {
  if (bytes == 1) return sample[0];
  uint16_t v;
  std::memcpy(&v, sample, 2);
  return uint8_t(v >> 8);
}

}  // namespace

TpsdFileCache& TpsdFileCache::theCache() {
  static TpsdFileCache cache;
  return cache;
}

TpsdFileCache::~TpsdFileCache() { clear(); }

int TpsdFileCache::getFile(const Tstring& name, TphotoshopFile*& file) {
  std::shared_ptr<TphotoshopFile> held = share(name);
  if (!held) return -1;
  file = held.get();
  return 0;
}

std::shared_ptr<TphotoshopFile> TpsdFileCache::share(const Tstring& name) {
  std::lock_guard<std::mutex> hold(fLock);
  auto it = fEntries.find(name);
  if (it == fEntries.end()) return nullptr;
  if (modificationTime(name) == it->second.fModificationTime) return it->second.fFile;
  fEntries.erase(it);  // the file changed on disk: read anew; holders keep theirs
  return nullptr;
}

int TpsdFileCache::addFile(const Tstring& name, TphotoshopFile* file) {
  std::lock_guard<std::mutex> hold(fLock);
  if (fEntries.count(name)) return -1;
  fEntries[name] = TfileCacheEntry{std::shared_ptr<TphotoshopFile>(file), modificationTime(name)};
  return 0;
}

void TpsdFileCache::clear() {
  std::lock_guard<std::mutex> hold(fLock);
  fEntries.clear();
}

bool TpsdTextureFile::isFilePsd(const Tstring& name) { return zkPhotoshop::isFilePsd(TfilePath(name)); }

TpsdTextureFile::~TpsdTextureFile() {
  if (!fUseCache && fPsd) closePsdFile(fPsd);
}

int TpsdTextureFile::open(const TfilePath& path, bool editMode) {
  fCreated = false;
  fUseCache = true;
  const Tstring& name = path.fullName();
  fHeld = TpsdFileCache::theCache().share(name);
  if (!fHeld) {
    TphotoshopFile* made = nullptr;
    if (openPsdFile(path, made, editMode) != statusOk || made->filePath().fullName().isEmpty()) {
      delete made;
      fPsd = nullptr;
      return -1;
    }
    if (TpsdFileCache::theCache().addFile(name, made) != 0) delete made;  // another thread kept it meanwhile
    fHeld = TpsdFileCache::theCache().share(name);
    if (!fHeld) {
      fPsd = nullptr;
      return -1;
    }
  }
  fPsd = fHeld.get();
  fPsd->setIsFileEditMode(editMode);
  fResolutionX = uint16_t(fPsd->imageWidth());
  fResolutionY = uint16_t(fPsd->imageHeight());
  return 0;
}

int TpsdTextureFile::openWithoutCache(const TfilePath& path, bool editMode) {
  fCreated = false;
  fUseCache = false;
  TphotoshopFile* made = nullptr;
  if (openPsdFile(path, made, editMode) != statusOk || made->filePath().fullName().isEmpty()) {
    delete made;
    fHeld.reset();
    fPsd = nullptr;
    return -1;
  }
  fHeld.reset(made);
  fPsd = made;
  return 0;
}

int TpsdTextureFile::create(const TfilePath& path, unsigned short width, unsigned short height) {
  fResolutionX = width;
  fResolutionY = height;
  return create(path);
}

int TpsdTextureFile::create(const TfilePath& path) {
  fCreated = true;
  fUseCache = false;
  fPsd = nullptr;
  fHeld.reset();
  unsigned short w = fResolutionX, h = fResolutionY;
  int rc = createPsdFile(path, fPsd, w, h) == statusOk ? 0 : -1;
  fHeld.reset(fPsd);
  return rc;
}

int TpsdTextureFile::close() {
  if (!fPsd) return 0;
  bool ok = closePsdFile(fPsd);
  auto* doc = dynamic_cast<zkPhotoshop::TpsdFile*>(fPsd);
  fLastError = !ok && doc ? doc->lastError() : Tstring();
  // A cached document stays alive for the cache and its other holders.
  fPsd = nullptr;
  fHeld.reset();
  return ok ? 0 : -1;
}

int TpsdTextureFile::saveAs(const TfilePath& path) { return fPsd && saveDocument(fPsd, path) == statusOk ? 0 : -1; }

namespace {
int result(statusCode s) { return s == statusOk ? 0 : -1; }
}  // namespace

int TpsdTextureFile::readAllLayersInformation() { return fPsd ? result(readLayerRecords(fPsd)) : -1; }
int TpsdTextureFile::readAllChannelData() {
  if (!fPsd) return -1;
  readChannelData(fPsd);
  return 0;
}
int TpsdTextureFile::layerNames(TstringArray& names) { return fPsd ? result(getLayerNames(fPsd, names)) : -1; }
int TpsdTextureFile::layerSetNames(TstringArray& names) { return fPsd ? result(getLayerSetNames(fPsd, names)) : -1; }
int TpsdTextureFile::alphaList(TstringArray& names) { return fPsd ? result(getAlphaNames(fPsd, names)) : -1; }
int TpsdTextureFile::deleteLayer(const Tstring& name) {
  return fPsd ? result(zkPhotoshop::deleteLayer(fPsd, name)) : -1;
}
int TpsdTextureFile::deleteChannel(const Tstring& name) { return fPsd ? result(deleteLayerSet(fPsd, name)) : -1; }
int TpsdTextureFile::createChannel(const Tstring& name) {
  return fPsd ? result(createLayerSet(fPsd, name, nullptr)) : -1;
}
int TpsdTextureFile::createLayer(const Tstring& name) { return result(zkPhotoshop::createLayer(fPsd, name, nullptr)); }
int TpsdTextureFile::addNewLayerToSet(const Tstring& setName, const Tstring& layerName) {
  return fPsd ? result(createLayerInLayerSet(fPsd, setName, layerName)) : -1;
}
int TpsdTextureFile::setLayerOpacity(const Tstring& name, unsigned int opacity) {
  return fPsd ? result(zkPhotoshop::setLayerOpacity(fPsd, name, opacity)) : -1;
}
int TpsdTextureFile::setBlendModeToLayer(const Tstring& name, uint32_t key) {
  if (!fPsd) return -1;
  setLayerBlendKey(fPsd, name, key);
  return 0;
}

int TpsdTextureFile::allPsdFileWarnings(TstringArray& messages) {
  TstringArray all = theWarnings().messages();
  for (int i = 0; i < all.length(); ++i) messages.addLast(all[i]);
  return 0;
}

bool TpsdTextureFile::isWarningSet(int value) {
  uint32_t code = value == kPsdEmptyLayerSet ? uint32_t(warnEmptyLayerSet) : 0u;
  for (uint32_t c : theWarnings().codes())
    if (c == code) return true;
  return false;
}

int TpsdTextureFile::clearAllPsdWarnings() {
  theWarnings().clear();
  return 0;
}

int TpsdTextureFile::interleave(TrgbaData* image, uint8_t fill, uint8_t*& pixels, int& channels, int& width,
                                int& height, int& bytes) {
  return interleaveImage(image, fill, pixels, channels, width, height, bytes);
}

int TpsdTextureFile::readPixels(uint8_t*& pixels, int& channels, int& width, int& height, int& bytes) {
  TrgbaData* image = nullptr;
  pixels = nullptr;
  if (!fPsd || compositeImage(fPsd, image) != statusOk) return -1;
  int rc = interleave(image, 255, pixels, channels, width, height, bytes);
  channels = 4;  // the document keeps the image
  return rc;
}

int TpsdTextureFile::readPixels(const Tstring& setName, uint8_t*& pixels, int& channels, int& width, int& height,
                                int& bytes) {
  TrgbaData* image = nullptr;
  pixels = nullptr;
  if (!fPsd || compositeLayerSetImage(fPsd, setName, image) != statusOk) return -1;
  return interleave(image, 0, pixels, channels, width, height, bytes);
}

int TpsdTextureFile::readLayerPixels(const Tstring& name, uint8_t*& pixels, int& channels, int& width, int& height,
                                     int& bytes) {
  TrgbaData* image = nullptr;
  pixels = nullptr;
  if (!fPsd || readLayerImage(fPsd, name, image) != statusOk) return -1;
  std::unique_ptr<TrgbaData> owned(image);
  return interleave(image, 255, pixels, channels, width, height, bytes);
}

namespace {

int to8(uint8_t*& pixels, int width, int height, int bytes) {
  if (bytes == 1) return 0;
  size_t n = size_t(width) * size_t(height) * 4;
  auto* out = new uint8_t[n];
  for (size_t i = 0; i < n; ++i) out[i] = high(pixels + 2 * i, 2);
  delete[] pixels;
  pixels = out;
  return 0;
}

uint16_t* to16(uint8_t* pixels, int width, int height, int bytes) {
  size_t n = size_t(width) * size_t(height) * 4;
  auto* out = new uint16_t[n];
  if (bytes == 2)
    std::memcpy(out, pixels, n * 2);
  else
    for (size_t i = 0; i < n; ++i) out[i] = uint16_t(pixels[i] << 8);
  delete[] pixels;
  return out;
}

}  // namespace

int TpsdTextureFile::readPixels8(const Tstring& name, uint8_t*& pixels, int& channels, int& width, int& height) {
  int bytes = 1;
  int rc = name.isEmpty() ? readPixels(pixels, channels, width, height, bytes)
                          : readPixels(name, pixels, channels, width, height, bytes);
  return rc == 0 ? to8(pixels, width, height, bytes) : -1;
}

int TpsdTextureFile::readPixels16(const Tstring& name, uint16_t*& pixels, int& channels, int& width, int& height) {
  int bytes = 1;
  uint8_t* raw = nullptr;
  pixels = nullptr;
  int rc = name.isEmpty() ? readPixels(raw, channels, width, height, bytes)
                          : readPixels(name, raw, channels, width, height, bytes);
  if (rc != 0) return -1;
  pixels = to16(raw, width, height, bytes);
  channels = 4;
  return 0;
}

int TpsdTextureFile::readPixels8Layer(const Tstring& name, uint8_t*& pixels, int& channels, int& width, int& height) {
  int bytes = 1;
  if (name.isEmpty() || readLayerPixels(name, pixels, channels, width, height, bytes) != 0) return -1;
  channels = 4;
  return to8(pixels, width, height, bytes);
}

int TpsdTextureFile::readPixels16Layer(const Tstring& name, uint16_t*& pixels, int& channels, int& width, int& height) {
  int bytes = 1;
  uint8_t* raw = nullptr;
  pixels = nullptr;
  if (name.isEmpty() || readLayerPixels(name, raw, channels, width, height, bytes) != 0) return -1;
  pixels = to16(raw, width, height, bytes);
  channels = 4;
  return 0;
}

int TpsdTextureFile::readAlphaChannel(int index, uint8_t*& pixels, int& width, int& height, int& bytes) {
  TrgbaData* image = nullptr;
  pixels = nullptr;
  if (!fPsd || readAlphaImage(fPsd, image, index) != statusOk) return -1;
  std::unique_ptr<TrgbaData> owned(image);
  Tchannel* ch = image->pixels16()->channel(index + 3);
  const uint8_t* samples = ch ? ch->rawPointer() : nullptr;
  if (!samples) return -1;
  width = int(image->width());
  height = int(image->height());
  bytes = int(ch->bytesPerSample());
  pixels = new uint8_t[ch->rawBytes()];
  std::memcpy(pixels, samples, ch->rawBytes());
  return 0;
}

int TpsdTextureFile::readAlphaChannel8(int index, uint8_t*& pixels, int& width, int& height) {
  int bytes = 1;
  if (readAlphaChannel(index, pixels, width, height, bytes) != 0) return -1;
  if (bytes == 2) {
    size_t n = size_t(width) * size_t(height);
    auto* out = new uint8_t[n];
    for (size_t i = 0; i < n; ++i) out[i] = high(pixels + 2 * i, 2);
    delete[] pixels;
    pixels = out;
  }
  return 0;
}

int TpsdTextureFile::readAlphaChannel16(int index, uint16_t*& pixels, int& width, int& height) {
  int bytes = 1;
  uint8_t* raw = nullptr;
  pixels = nullptr;
  if (readAlphaChannel(index, raw, width, height, bytes) != 0) return -1;
  size_t n = size_t(width) * size_t(height);
  pixels = new uint16_t[n];
  if (bytes == 2)
    std::memcpy(pixels, raw, n * 2);
  else
    for (size_t i = 0; i < n; ++i) pixels[i] = uint16_t(raw[i] << 8);
  delete[] raw;
  return 0;
}

int TpsdTextureFile::readPixelMap(const Tstring& setName, TpixelMap& map) {
  uint8_t* pixels = nullptr;
  int channels = 0, width = 0, height = 0;
  if (readPixels8(setName, pixels, channels, width, height) != 0) return -1;
  std::unique_ptr<uint8_t[]> owned(pixels);
  map.setSize(width, height);
  bool full = setName.isEmpty();  // the document form: alpha from the fill where there is none
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) {
      const uint8_t* p = pixels + (size_t(y) * size_t(width) + size_t(x)) * 4;
      Tpixel32* q = map.pixelPointer(x, height - 1 - y);  // the map keeps the bottom row first
      q->fChannels.fRed = p[0];
      q->fChannels.fGreen = p[1];
      q->fChannels.fBlue = p[2];
      q->fChannels.fAlpha = channels == 4 || full ? p[3] : 0;
    }
  map.setChannels(full && channels == 3 ? 4 : channels);
  return 0;
}

int TpsdTextureFile::readPixelMap(TpixelMap& map) { return readPixelMap(Tstring(), map); }

int TpsdTextureFile::readAlphaChannelPixMap(int index, TpixelMap& map) {
  uint8_t* pixels = nullptr;
  int width = 0, height = 0;
  if (readAlphaChannel8(index, pixels, width, height) != 0) return -1;
  std::unique_ptr<uint8_t[]> owned(pixels);
  if (map.width() != width || map.height() != height) map.setSize(width, height);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x)
      map.pixelPointer(x, height - 1 - y)->fChannels.fAlpha = pixels[size_t(y) * size_t(width) + size_t(x)];
  map.setChannels(4);
  return 0;
}

// A pixel map (the bottom row first) as the channels of the document's
// format, the top row first; 16-bit documents get samples times 257.
int TpsdTextureFile::imageInto(TpixelMap& map, int which, const Tstring& name, bool insert, int index) {
  if (!fPsd) return -1;
  std::unique_ptr<TrgbaData> image;
  if (map.width() > 0 && map.height() > 0) {
    uint32_t w = uint32_t(map.width()), h = uint32_t(map.height());
    TdataFormat format = fPsd->fDataFormat;
    uint32_t scale = format == dataFormat16 ? 257 : 1;
    auto* data = new TpixelData16(format, w, h, false);
    data->addChannel(channelTransparency, w, h, 0);
    for (uint32_t y = 0; y < h; ++y)
      for (uint32_t x = 0; x < w; ++x) {
        const Tpixel32* p = map.pixelPointer(int(x), int(h - 1 - y));
        uint32_t i = y * w + x;
        data->setRed(i, p->fChannels.fRed * scale);
        data->setGreen(i, p->fChannels.fGreen * scale);
        data->setBlue(i, p->fChannels.fBlue * scale);
        data->setTrans(i, p->fChannels.fAlpha * scale);
      }
    image = std::make_unique<TrgbaData>(w, h, data, 4, false);
  }
  statusCode s = which == 0   ? writeLayerImage(fPsd, name, image.get(), insert, index)
                 : which == 1 ? addBackgroundImage(fPsd, image.get(), name.isEmpty() ? nullptr : name.asChar())
                              : addCompositeImageData(fPsd, image.get());
  return result(s);
}

int TpsdTextureFile::saveReferenceImage(const Tstring& layerName, TpixelMap& map, bool insert, int index) {
  return imageInto(map, 0, layerName, insert, index);
}
int TpsdTextureFile::saveBackgroundImage(TpixelMap& map, const char* name) {
  return imageInto(map, 1, Tstring(name ? name : ""), false, 0);
}
int TpsdTextureFile::setCompositeImage(TpixelMap& map) { return imageInto(map, 2, Tstring(), false, 0); }

int TpsdTextureFile::addAlphaToComposite(const Tstring& name, const uint8_t* pixels) {
  if (!fPsd || !pixels) return -1;
  size_t w = fPsd->imageWidth(), h = fPsd->imageHeight();
  size_t row = w * (fPsd->fDataFormat == dataFormat16 ? 2 : 1);
  std::vector<uint8_t> topFirst(row * h);
  for (size_t y = 0; y < h; ++y) std::memcpy(&topFirst[y * row], pixels + (h - 1 - y) * row, row);
  return result(addAlphaImage(fPsd, name, topFirst.data()));
}

void TpsdTextureFile::rgbaSwitch(uint8_t*& pixels, size_t byteCount, int bytes) {
  if (!pixels || (bytes != 1 && bytes != 2)) return;
  auto* out = new uint8_t[byteCount];
  std::memcpy(out, pixels, byteCount);
  size_t group = size_t(bytes) * 4;
  for (size_t i = 0; i + group <= byteCount; i += group)
    for (size_t k = 0; k < size_t(bytes); ++k) std::swap(out[i + k], out[i + 2 * size_t(bytes) + k]);
  delete[] pixels;
  pixels = out;
}

int TpsdTextureFile::writePixels(const TfilePath& path, uint8_t* pixels, int width, int height, const char* format,
                                 int bytes, uint32_t compression) {
  if ((width == 0 && height == 0) || !pixels || width <= 0 || height <= 0 || width > 65535 || height > 65535) return -1;
  if (format && std::strcmp(format, "kelp") == 0) {
    // IFF lines are blue, green, red, alpha, the bottom line first.
    TiffImageFile out;
    if (!out.open(path.fullName().asChar(), "w")) return -1;
    out.setSize(uint16_t(width), uint16_t(height));
    out.setType(IL_RGBA);
    out.setBytesPerPixel(bytes);
    out.setCompression(TiffImageFile::TfileCompression(compression));
    std::vector<uint8_t> line(size_t(width) * 4 * size_t(bytes));
    int rc = 0;
    for (int y = height - 1; y >= 0 && rc == 0; --y) {
      const uint8_t* src = pixels + size_t(y) * size_t(width) * 4 * size_t(bytes);
      if (bytes == 1) {
        for (size_t x = 0; x < size_t(width); ++x) {
          line[x * 4] = src[x * 4 + 2];  // blue, green, red from red, green, blue
          line[x * 4 + 1] = src[x * 4 + 1];
          line[x * 4 + 2] = src[x * 4];
          line[x * 4 + 3] = src[x * 4 + 3];
        }
      } else {
        for (size_t x = 0; x < size_t(width); ++x)
          for (int c = 0; c < 4; ++c) {
            int from = c == 3 ? 3 : 2 - c;
            std::memcpy(&line[(x * 4 + size_t(c)) * 2], src + (x * 4 + size_t(from)) * 2, 2);
          }
      }
      rc = out.writeLine(line.data(), nullptr);
    }
    int closed = out.close();
    return rc == 0 && closed == 0 ? 0 : -1;
  }
  TimageFile file;
  if (file.create(path.fullName(), uint16_t(width), uint16_t(height), TimageFile::TfileCompression(compression),
                  format) != 0)
    return -1;
  TpixelMap map(width, height);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) {
      const uint8_t* p = pixels + (size_t(y) * size_t(width) + size_t(x)) * 4 * size_t(bytes);
      Tpixel32* q = map.pixelPointer(x, height - 1 - y);
      q->fChannels.fRed = high(p, bytes);
      q->fChannels.fGreen = high(p + bytes, bytes);
      q->fChannels.fBlue = high(p + 2 * bytes, bytes);
      q->fChannels.fAlpha = high(p + 3 * bytes, bytes);
    }
  int rc = file.writePixelMap(map);
  return file.close() == 0 && rc == 0 ? 0 : -1;
}
