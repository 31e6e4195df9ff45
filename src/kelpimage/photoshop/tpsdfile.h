// A layered Photoshop document of 8 or 16 bits a channel, read piecemeal:
// each operation opens the file afresh, reads what it needs and remembers
// how far it got.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "kelpimage/base/tarray.h"
#include "kelpimage/base/tfile.h"
#include "kelpimage/base/tstring.h"
#include "kelpimage/kelpexport.h"
#include "kelpimage/photoshop/tpixeldata16.h"
#include "kelpimage/photoshop/tpsdlayer.h"
#include "kelpimage/photoshop/tpsdwarning.h"

namespace zkPhotoshop {

class TpsdStream;
class TpsdOut;
struct TpsdLayerSection;
struct Buffer;

class KELP_API TphotoshopFile {
 public:
  virtual ~TphotoshopFile() = default;
  virtual int open(const TfilePath& path, bool editMode);
  virtual int create(const TfilePath& path, unsigned short& width, unsigned short& height);
  virtual int close() { return 0; }
  // 8 or 16; throws "Invalid color depth" for anything else.
  void setColorDepth(int depth);
  int colorDepth() const { return fDataFormat == dataFormat16 ? 16 : 8; }
  bool saveNeeded() const { return fSaveNeeded; }
  bool isFileEditMode() const { return fEditMode; }
  void setIsFileEditMode(bool editMode) { fEditMode = editMode; }
  const TfilePath& filePath() const { return fPath; }
  void setSize(uint32_t width, uint32_t height) { fImageWidth = width, fImageHeight = height; }
  uint32_t imageWidth() const { return fImageWidth; }
  uint32_t imageHeight() const { return fImageHeight; }

  TfilePath fPath;
  uint32_t fImageWidth = 0;
  uint32_t fImageHeight = 0;
  TdataFormat fDataFormat = dataFormat8;
  bool fSaveNeeded = false;
  bool fEditMode = false;
};

struct TpsdResource {
  uint32_t signature = 0;
  uint16_t id = 0;
  std::string name;
  uint32_t size = 0;          // rounded up to even
  std::vector<uint8_t> data;  // empty for the resources rebuilt on writing
  uint32_t value = 0;         // the id seed of resource 1044
};

// Resource ids read for what they mean.
constexpr uint16_t kResourceAlphaNames = 1006;
constexpr uint16_t kResourceIdSeed = 1044;
constexpr uint16_t kResourceAlphaIds = 1053;

class KELP_API TpsdFile : public TphotoshopFile {
 public:
  TpsdFile();
  ~TpsdFile() override;
  TpsdFile(const TpsdFile&) = delete;
  TpsdFile& operator=(const TpsdFile&) = delete;

  // Reads the header; the path is kept only when the header is taken.
  // Returns 0 in every case: a refused document fails at its next read.
  int open(const TfilePath& path, bool editMode) override;

  // The start of the file. Each throws TpsdDamaged on a short file.
  bool readPsdHeader(TpsdStream& stream);
  void readColorModeData(TpsdStream& stream);
  void readImageResources(TpsdStream& stream);
  // Names of the alpha channels; 1 when there are any.
  int readAlphaList(TstringArray& names);

  // The layer and mask section.
  bool readAllLayerRecordInformation();
  void readAllLayerInfo(TpsdStream& stream);
  void readGlobalMaskInfo(TpsdStream& stream);
  void readAdditionalGlobalInfo(TpsdStream& stream);
  bool seekToEndOfChannelData(TpsdStream& stream);
  // Names of ordinary layers, or of the outermost sets, in file order:
  // 0, or -1 when the document cannot be read.
  int getAllLayerNames(TstringArray& names);
  int readLayerSetNames(TstringArray& names);
  int getLayerFromName(const Tstring& name, TpsdLayer*& layer) const;
  TpsdLayer* getLayerObjFromName(const Tstring& name) const;
  static bool isLayerGrouped(const TpsdLayer& layer) { return layer.fClipping != 0; }
  static bool isNextLayerGrouped(const TpsdLayerPtrArray& layers, TpsdLayerPtrArray::const_iterator it);
  static void freePtrArray(TpsdLayerPtrArray& layers) { layers.clear(); }
  void recomputeLayerSize();

  // Pixels.
  TpixelData16* getCompositePixData(TdataFormat format);
  bool readImageData(TpsdStream& stream, int compression);
  bool readRawImageData(TpsdStream& stream);
  bool readRLEImageData(TpsdStream& stream);
  // The flattened image as a new value (the caller owns it).
  bool readFlattenedImage(TrgbaData*& out);
  // The flattened image, kept by the document.
  bool getCompositeImage(TrgbaData*& out);
  // The flattened image as a picture, whatever the colour mode: red, green
  // and blue (grey and duotone copied to all three, indexed through the
  // palette, CMYK and Lab converted to sRGB, multichannel as its first
  // channels), with the transparency channel when the document has one
  // (fMergedTransparency, or a channel past the colour ones that no alpha
  // name claims), colour then straight: the white the file flattens it over
  // is taken out. A new value the caller owns.
  bool readPicture(TrgbaData*& out);
  bool readAlpha(TrgbaData*& out, int index);
  // Alpha channel `index` (channel id index + 3), as a new value.
  bool getAlphaChannelMap(TrgbaData*& out, int index);
  bool readAlphaChannelData(TpsdStream& stream, int compression, int index);
  bool readRawAlphaChannelData(TpsdStream& stream, int index);
  bool readRLEAlphaChannelData(TpsdStream& stream, int index);
  void readChannelDataForLayer(TpsdStream& stream, TpsdLayer& layer);
  // Every layer's channel bytes.
  bool readAllChannelInformation();
  // A layer at its place on a white canvas of the document's size, with its
  // opacity applied (a new value). True with a null image when the file
  // cannot be opened.
  bool getLayerImage(const Tstring& name, TrgbaData*& out);
  // One layer's own pixels, read when needed and expanded: the channels of
  // its rectangle. Null, with lastError(), when they cannot be had, and
  // null for a layer without pixels (a set's head or end).
  TpixelData16* layerPixels(TpsdLayer& layer);

  // Gives back a layer's expanded samples (its file bytes stay, and
  // layerPixels expands them again); the document reuses the memory for
  // the next layer it expands.
  void releaseLayerPixels(TpsdLayer& layer);
  // Expands the channels of every layer read so far, on all cores; false,
  // with lastError, when one of them is damaged.
  bool expandLayerChannels();

  // Layer sets. The image of a set, composited from its layers (nested
  // sets included), kept by the document: true when one came out.
  bool getCompositeImageOfLayerSet(const Tstring& name, TrgbaData*& out);
  // The same, made afresh; the caller owns the result.
  bool readLayerSetImage(const Tstring& name, TrgbaData*& out);
  // Every layer of the document blended as a set's are, onto a transparent
  // canvas of the document's size: what the flattened image of a document
  // whose layers this library honours should hold. A new value the caller
  // owns, with transparency.
  bool readDocumentImage(TrgbaData*& out);
  // The flattened image of a document whose every layer this library made:
  // the composite of its layers, in red, green and blue.
  bool flattenLayers();
  // A new document's background, as Photoshop makes one: an opaque white
  // layer of the whole document.
  bool addWhiteBackground();
  // Blends ordinary layers (bottom first) onto `canvas`, which is made
  // transparent when null.
  void blendLayersInSet(const std::vector<TpsdLayer*>& layers, uint32_t width, uint32_t height, TdataFormat format,
                        std::unique_ptr<TpixelData16>& canvas);
  // The clipping group above layers[base], drawn onto `scratch`.
  void clipLayersInSet(const std::vector<TpsdLayer*>& layers, size_t base, TpixelData16& scratch, uint32_t width,
                       uint32_t height, TdataFormat format);
  void blendClippingInSet(int index, TpixelData16& destination, const TpixelData16& source);
  // A set head's mask, on its set's image.
  void applySetMask(uint32_t width, uint32_t height, TdataFormat format, TpsdLayer& layer, TpixelData16& canvas);
  // The indexes in fLayers of the set's head (the first of that name from
  // the top) and of its end; false when there is no such set.
  KELP_LOCAL bool findLayerSet(const Tstring& name, int& head, int& end) const;
  // Whether the set named `name` shows anything: its head is not hidden and
  // it holds an ordinary layer that is not hidden, inside nested sets that
  // are not hidden.
  bool isLayerSetVisible(const Tstring& name) const;
  // From the layer at `index` of fLayers down, `level` sets deep, inside
  // sets shown as `visible`: whether a shown ordinary layer comes before
  // the walk leaves the outermost set.
  bool checkForLayerVisibility(int index, int level, bool visible) const;
  // The layer at `index`: a shown ordinary layer, or a head of a set that
  // shows something.
  bool checkForLayerVisibility(int index) const;

  // Writing. Saves the document: in edit mode to `path`, else to the file
  // it was made for; nothing when nothing needs saving. The file is
  // written under a temporary name and renamed into place when whole, so a
  // failed save (false, with lastError) leaves the target as it was.
  bool savePsdFile(const TfilePath& path);
  // A record's bytes as the section lengths count them; 0 for a deleted layer.
  uint32_t layerSize(const TpsdLayer& layer) const;
  // Resource 1026 (two bytes a layer) grows by one layer.
  void updateImageResources();

  // Editing.
  uint32_t getLayerIdForNewLayer() const;
  int getValidIndexOfNewChannel() const { return fAlphaNames.length() + 3; }
  void initRecord(TpsdLayer& layer, const Tstring& name, int channels, TrgbaData* image, uint32_t layerId);
  void initSetRecord(TpsdLayer& layer, const Tstring& name, int channels, bool isEnd, TrgbaData* image,
                     uint32_t layerId);
  void fillLayerCompression(TpsdLayer& layer);
  void addCompositeImage(TrgbaData* image);
  void addCompositeImageInfo(TrgbaData* image);
  bool addBackGroundLayerInfo(TrgbaData* image, const char* name);
  TpsdLayer* addBGLayer(TrgbaData* image, const char* name);
  TpsdLayer* addNewLayerToList();
  bool addNormalLayer(const Tstring& name, TrgbaData* image);
  bool insertNewLayer(const Tstring& name, TrgbaData* image, int index);
  void addEmptyLayer(const Tstring& name);
  void addNewLayerSet(const Tstring& name);
  bool addNewLayerToGivenSet(const Tstring& setName, const Tstring& layerName);
  bool addImageToTheGivenLayer(const Tstring& name, TrgbaData* image, bool insertFlag, int index);
  bool deleteLayer(const Tstring& name);
  bool deleteLayerSet(const Tstring& name);
  bool setBlendKey(const Tstring& name, uint32_t key);
  bool setOpacity(const Tstring& name, uint32_t opacity);
  bool addAlphaChannelToComposite(const Tstring& name, const uint8_t* pixels);
  // The flattened image's transparency, before any alpha channel: its
  // colour, straight until now, is matted with white as documents keep it.
  bool setCompositeTransparency(const uint8_t* alpha);
  // A new document of this size and depth (8 or 16), to be saved at `path`.
  int create(const TfilePath& path, unsigned short& width, unsigned short& height) override;

  // Threads that expansion and compositing use; 0, the default, for one a core.
  void setThreads(unsigned threads) { fThreads = threads; }
  unsigned threads() const;

  // Raises a warning unless the layer is the set-end layer.
  void addWarningMessage(const Tstring& layerName, uint32_t code);
  // Why the last operation that failed did so, after the file's name;
  // empty after success. lastReason() is the same without the name.
  Tstring lastError() const;
  const Tstring& lastReason() const { return fLastError; }
  // What this document raised since it was opened, each warning as the
  // process-wide store (theWarnings()) also has it: a host reading two
  // documents on two threads asks each for its own.
  const TpsdFileWarning& warnings() const { return fWarnings; }

  int32_t fLayerMaskSize = 0;
  uint32_t fLayerInfoSize = 0;
  Tstring fSetEndName;
  std::vector<TpsdBlock> fGlobalBlocks;
  uint32_t fGlobalMaskSize = 0;
  std::vector<uint8_t> fGlobalMask;
  TstringArray fAlphaNames;
  TuInt32Array fAlphaIds;
  std::vector<TpsdResource> fResources;
  uint16_t fLayerCount = 0;
  // The file's layer count was negative: the flattened image's first alpha
  // channel is its transparency (documents with no background layer).
  bool fMergedTransparency = false;
  bool fCompositeAdded = false;
  bool fBackgroundAdded = false;
  int32_t fColorModeSize = 0;
  std::vector<uint8_t> fColorModeData;
  uint32_t fResourcesSize = 0;
  int32_t fChannelDataOffset = 0;
  int32_t fAfterResources = 0;
  int32_t fAfterGlobalMask = 0;
  int32_t fAfterGlobalInfo = 0;
  uint16_t fChannelCount = 3;
  uint8_t fHeaderReserved[6] = {0, 0, 0, 0, 0, 0};
  uint16_t fDepth = 8;
  uint16_t fColorMode = 3;
  uint16_t fImageCompression = 1;
  std::map<Tstring, std::unique_ptr<TrgbaData>> fSetImages;
  TpsdLayerPtrArray fLayers;
  std::unique_ptr<TrgbaData> fComposite;
  std::unique_ptr<TpixelData16> fCompositePixels;
  TpsdFileWarning fWarnings;

 protected:
  void setChannels(uint16_t channels) { fChannelCount = channels; }
  uint16_t channels() const { return fChannelCount; }

 private:
  // Opens the file and reads header, colour mode data and resources.
  // False (with lastError) when the file cannot be opened or is refused.
  KELP_LOCAL bool openAndReadStart(TpsdStream& stream);
  // Header to global blocks; false when the document has no layer section.
  KELP_LOCAL bool walkLayers(TpsdStream& stream);
  KELP_LOCAL void readLayerSection(TpsdStream& stream, int64_t sectionEnd);
  KELP_LOCAL void readGlobalBlocks(TpsdStream& stream, int64_t end);
  KELP_LOCAL void readLayersAt(TpsdStream& stream, int64_t infoEnd);
  KELP_LOCAL void readResourceData(TpsdStream& stream, TpsdResource& resource, int64_t end);
  KELP_LOCAL void lendSpareBuffers(TpixelData16* pixels);
  // Every channel of the flattened image, colour and alpha alike, expanded;
  // null (with lastError) when they cannot be read. Throws TpsdDamaged.
  KELP_LOCAL std::unique_ptr<TpixelData16> readAllImagePlanes();
  bool save(const TfilePath& path);
  KELP_LOCAL void collectLayers(TpsdLayerSection& section);
  KELP_LOCAL void planLayerSection(TpsdLayerSection& section);
  KELP_LOCAL void writeLayerSection(TpsdOut& o, const TpsdLayerSection& section);
  KELP_LOCAL void ensureRead();
  KELP_LOCAL bool gatherForSaving();
  void writeHeader(TpsdOut& out, uint32_t height, uint32_t width, uint16_t channels);
  void writeColorModeData(TpsdOut& out);
  void writeResources(TpsdOut& out);
  void writeImageResourceString(Buffer& out, const std::string& text);
  void writeRLEImageData(TpsdOut& out, int channels);
  void writeRawImageData(TpsdOut& out, int channels);
  // Channel `id` of the flattened image, packed by `method` unless it is
  // packed already.
  KELP_LOCAL Tchannel* packedComposite(int id, int32_t method);
  TpsdResource* resource(uint16_t id);
  KELP_LOCAL void resizeResource(TpsdResource& r, int64_t change);
  // Reads a layer's channels when not read yet, and expands them.
  KELP_LOCAL bool loadLayer(TpsdLayer& layer);
  // Blends fLayers[first] up to fLayers[last - 1], nested sets included,
  // onto `current` (made when null).
  KELP_LOCAL bool compositeLayers(int first, int last, std::unique_ptr<TpixelData16>& current);
  KELP_LOCAL void seekToImageData(TpsdStream& stream);
  // Runs `op` with every failure of a read turned into `failed`, the reason
  // kept and memory failures warned of.
  template <class Op, class R>
  R guarded(Op&& op, R failed);
  void fail(const Tstring& reason);
  KELP_LOCAL bool readRawPlane(TpsdStream& stream, PHOTOSHOP_CHANNEL id, uint64_t plane);

  unsigned fThreads = 0;
  bool fCreated = false;                     // made by create, not read from a file
  uint32_t fLr16Pad = 0;                     // zero bytes behind the "Lr16" block as read
  std::vector<uint8_t> fSectionTail;         // bytes behind the global blocks, as read
  std::vector<TsampleBuffer> fSpareSamples;  // given back by released layers
  Tstring fLastError;                        // the reason alone
  Tstring fErrorName;                        // the file it concerns
  int64_t fLayerSectionEnd = 0;              // behind the layer and mask section, once read
};

}  // namespace zkPhotoshop
