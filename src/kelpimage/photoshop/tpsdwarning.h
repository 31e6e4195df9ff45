// What a document held that cannot be honoured: one store for the process,
// read and cleared by the caller after an operation.
#pragma once

#include <map>
#include <mutex>
#include <vector>

#include "kelpimage/base/tarray.h"
#include "kelpimage/base/tstring.h"
#include "kelpimage/kelpexport.h"

namespace zkPhotoshop {

// Used singly; never combined.
enum TpsdWarningMsg : uint32_t {
  warnNone = 0,
  warnBitmapMode = 1,
  warnGrayscaleMode = 2,
  warnIndexedMode = 4,
  warnCmykMode = 8,
  warnMultichannelMode = 16,
  warnDuotoneMode = 32,
  warnLabMode = 64,
  warnImageResources = 128,
  warnBlendMode = 256,
  warnClipping = 512,
  warnBlendingRanges = 1024,
  warnLayerEffects = 2048,
  warnTransparencyShapes = 4096,
  warnLayerMaskAsGlobal = 8192,
  warnVectorMaskAsGlobal = 16384,
  warnAdjustmentLayer = 32768,
  warnObjectEffects = 65536,
  warnPatterns = 131072,
  warnAnnotation = 262144,
  warnBlendClipping = 524288,
  warnBlendInterior = 1048576,
  warnKnockout = 2097152,
  warnEmptyLayerSet = 4194304,
  warnNoMemory = 8388608,
};

class KELP_API TpsdFileWarning {
 public:
  TpsdFileWarning();
  // Formats the code's text with the layer's name (when not empty) and the
  // file's base name, and keeps it with its code.
  void addWarning(uint32_t code, const Tstring& fileBaseName, const Tstring& layerName);
  // Copies of what is kept, in the order raised.
  TstringArray messages() const;
  std::vector<uint32_t> codes() const;
  int count() const;
  void clear();
  // The text of a code, with its %s places; empty for an unknown code.
  Tstring format(uint32_t code) const;

 private:
  std::map<uint32_t, Tstring> fFormats;
  TstringArray fMessages;
  std::vector<uint32_t> fCodes;
  mutable std::mutex fLock;
};

// The one store, made at first use.
KELP_API TpsdFileWarning& theWarnings();

}  // namespace zkPhotoshop
