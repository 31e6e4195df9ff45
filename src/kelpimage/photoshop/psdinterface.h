// The stable face of the document code: free functions on a
// TphotoshopFile that check it is a document and delegate. None of them
// lets an exception out.
#pragma once

#include "kelpimage/base/tarray.h"
#include "kelpimage/base/tfile.h"
#include "kelpimage/base/tstring.h"
#include "kelpimage/kelpexport.h"
#include "kelpimage/photoshop/tpsdfile.h"

namespace zkPhotoshop {

enum statusCode { statusOk = 0, statusFailed = 1 };

KELP_API bool isFilePsd(const TfilePath& path);
// A document read from `path` (its header only); statusFailed, with `file`
// unchanged, when the file is not a Photoshop document.
KELP_API statusCode openPsdFile(const TfilePath& path, TphotoshopFile*& file, bool editMode);
// A new document (made when `file` is null) of this size.
KELP_API statusCode createPsdFile(const TfilePath& path, TphotoshopFile*& file, unsigned short& width,
                                  unsigned short& height);
// Saves a document that is not in edit mode and needs it, then closes it;
// the object stays alive. False when `file` is not a document or the save
// failed.
KELP_API bool closePsdFile(TphotoshopFile*& file);

KELP_API statusCode getLayerSetNames(TphotoshopFile* file, TstringArray& names);
KELP_API statusCode getLayerNames(TphotoshopFile* file, TstringArray& names);
KELP_API statusCode createLayer(TphotoshopFile* file, const Tstring& name, TrgbaData* image);
KELP_API statusCode deleteLayer(TphotoshopFile* file, const Tstring& name);
KELP_API statusCode createLayerSet(TphotoshopFile* file, const Tstring& name, TrgbaData* image);
KELP_API statusCode deleteLayerSet(TphotoshopFile* file, const Tstring& name);
KELP_API statusCode createLayerInLayerSet(TphotoshopFile* file, const Tstring& setName, const Tstring& layerName);
KELP_API statusCode writeLayerImage(TphotoshopFile* file, const Tstring& name, TrgbaData* image, bool insert,
                                    int index);
KELP_API statusCode addBackgroundImage(TphotoshopFile* file, TrgbaData* image, const char* name);
KELP_API statusCode addCompositeImageData(TphotoshopFile* file, TrgbaData* image);
// Results owned by the caller (readLayerImage) or by the document (the others).
KELP_API statusCode readLayerImage(TphotoshopFile* file, const Tstring& name, TrgbaData*& image);
KELP_API statusCode compositeLayerSetImage(TphotoshopFile* file, const Tstring& setName, TrgbaData*& image);
KELP_API statusCode compositeImage(TphotoshopFile* file, TrgbaData*& image);
KELP_API statusCode setLayerOpacity(TphotoshopFile* file, const Tstring& name, unsigned int opacity);

// Used inside the library.
statusCode saveDocument(TphotoshopFile* file, const TfilePath& path);  // statusFailed when the save failed
statusCode readLayerRecords(TphotoshopFile* file);
statusCode readChannelData(TphotoshopFile* file);
statusCode addAlphaImage(TphotoshopFile* file, const Tstring& name, const uint8_t* pixels);
statusCode setLayerBlendKey(TphotoshopFile* file, const Tstring& name, uint32_t key);
statusCode readAlphaImage(TphotoshopFile* file, TrgbaData*& image, int index);
statusCode getAlphaNames(TphotoshopFile* file, TstringArray& names);

}  // namespace zkPhotoshop
