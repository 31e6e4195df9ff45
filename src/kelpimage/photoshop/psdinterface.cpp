#include "kelpimage/photoshop/psdinterface.h"

#include <cstdio>
#include <cstring>

namespace zkPhotoshop {

namespace {

TpsdFile* documentOf(TphotoshopFile* file) { return dynamic_cast<TpsdFile*>(file); }

statusCode status(bool ok) { return ok ? statusOk : statusFailed; }

// Runs `op` on the document; statusFailed for anything that is not one and
// for anything the operation throws.
template <class Op>
statusCode onDocument(TphotoshopFile* file, Op op) {
  TpsdFile* doc = documentOf(file);
  if (!doc) return statusFailed;
  try {
    return op(*doc);
  } catch (...) {
    return statusFailed;
  }
}

}  // namespace

bool isFilePsd(const TfilePath& path) {
  std::FILE* f = std::fopen(path.fullName().asChar(), "rb");
  if (!f) return false;
  unsigned char head[6];
  bool ok = std::fread(head, 1, 6, f) == 6;
  std::fclose(f);
  return ok && std::memcmp(head, "8BPS", 4) == 0 && head[4] == 0 && head[5] == 1;
}

statusCode openPsdFile(const TfilePath& path, TphotoshopFile*& file, bool editMode) {
  if (!isFilePsd(path)) return statusFailed;
  try {
    auto* doc = new TpsdFile;
    file = doc;
    return doc->open(path, editMode) > 0 ? statusFailed : statusOk;
  } catch (...) {
    return statusFailed;
  }
}

statusCode createPsdFile(const TfilePath& path, TphotoshopFile*& file, unsigned short& width, unsigned short& height) {
  try {
    if (!file) file = new TpsdFile;
    return file->create(path, width, height) > 0 ? statusFailed : statusOk;
  } catch (...) {
    return statusFailed;
  }
}

bool closePsdFile(TphotoshopFile*& file) {
  TpsdFile* doc = documentOf(file);
  if (!doc) return false;
  bool saved = true;
  try {
    if (!doc->fEditMode) saved = doc->savePsdFile(TfilePath());
    doc->close();
  } catch (...) {
    saved = false;
  }
  return saved;
}

statusCode getLayerSetNames(TphotoshopFile* file, TstringArray& names) {
  return onDocument(file, [&](TpsdFile& d) { return status(d.readLayerSetNames(names) == 0 && names.length()); });
}
statusCode getLayerNames(TphotoshopFile* file, TstringArray& names) {
  return onDocument(file, [&](TpsdFile& d) { return status(d.getAllLayerNames(names) == 0 && names.length()); });
}
statusCode createLayer(TphotoshopFile* file, const Tstring& name, TrgbaData* image) {
  return onDocument(file, [&](TpsdFile& d) { return status(d.addNormalLayer(name, image)); });
}
statusCode deleteLayer(TphotoshopFile* file, const Tstring& name) {
  return onDocument(file, [&](TpsdFile& d) { return status(d.deleteLayer(name)); });
}
statusCode createLayerSet(TphotoshopFile* file, const Tstring& name, TrgbaData*) {
  return onDocument(file, [&](TpsdFile& d) {
    d.addNewLayerSet(name);
    return statusOk;
  });
}
statusCode deleteLayerSet(TphotoshopFile* file, const Tstring& name) {
  return onDocument(file, [&](TpsdFile& d) { return status(d.deleteLayerSet(name)); });
}
statusCode createLayerInLayerSet(TphotoshopFile* file, const Tstring& setName, const Tstring& layerName) {
  return onDocument(file, [&](TpsdFile& d) { return status(d.addNewLayerToGivenSet(setName, layerName)); });
}
statusCode writeLayerImage(TphotoshopFile* file, const Tstring& name, TrgbaData* image, bool insert, int index) {
  return onDocument(
      file, [&](TpsdFile& d) { return status(d.addImageToTheGivenLayer(Tstring(name), image, insert, index)); });
}
statusCode addBackgroundImage(TphotoshopFile* file, TrgbaData* image, const char* name) {
  return onDocument(file, [&](TpsdFile& d) { return status(d.addBackGroundLayerInfo(image, name)); });
}
statusCode addCompositeImageData(TphotoshopFile* file, TrgbaData* image) {
  return onDocument(file, [&](TpsdFile& d) {
    d.addCompositeImage(image);
    return statusOk;
  });
}
statusCode readLayerImage(TphotoshopFile* file, const Tstring& name, TrgbaData*& image) {
  image = nullptr;
  return onDocument(file, [&](TpsdFile& d) { return status(d.getLayerImage(name, image) && image); });
}
statusCode compositeLayerSetImage(TphotoshopFile* file, const Tstring& setName, TrgbaData*& image) {
  image = nullptr;
  return onDocument(file, [&](TpsdFile& d) { return status(d.getCompositeImageOfLayerSet(setName, image)); });
}
statusCode compositeImage(TphotoshopFile* file, TrgbaData*& image) {
  image = nullptr;
  return onDocument(file, [&](TpsdFile& d) { return status(d.getCompositeImage(image)); });
}
statusCode setLayerOpacity(TphotoshopFile* file, const Tstring& name, unsigned int opacity) {
  return onDocument(file, [&](TpsdFile& d) { return status(d.setOpacity(Tstring(name), opacity)); });
}

statusCode saveDocument(TphotoshopFile* file, const TfilePath& path) {
  return onDocument(file, [&](TpsdFile& d) { return status(d.savePsdFile(path)); });
}
statusCode readLayerRecords(TphotoshopFile* file) {
  return onDocument(file,
                    [&](TpsdFile& d) { return status(d.readAllLayerRecordInformation() || d.lastReason().isEmpty()); });
}
statusCode readChannelData(TphotoshopFile* file) {
  return onDocument(file, [&](TpsdFile& d) { return status(d.readAllChannelInformation()); });
}
statusCode addAlphaImage(TphotoshopFile* file, const Tstring& name, const uint8_t* pixels) {
  return onDocument(file, [&](TpsdFile& d) { return status(d.addAlphaChannelToComposite(Tstring(name), pixels)); });
}
statusCode setLayerBlendKey(TphotoshopFile* file, const Tstring& name, uint32_t key) {
  return onDocument(file, [&](TpsdFile& d) { return status(d.setBlendKey(name, key)); });
}
statusCode readAlphaImage(TphotoshopFile* file, TrgbaData*& image, int index) {
  image = nullptr;
  return onDocument(file, [&](TpsdFile& d) { return status(d.getAlphaChannelMap(image, index)); });
}
statusCode getAlphaNames(TphotoshopFile* file, TstringArray& names) {
  return onDocument(file, [&](TpsdFile& d) { return status(d.readAlphaList(names) && names.length()); });
}

}  // namespace zkPhotoshop
