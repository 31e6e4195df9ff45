#include "kelpimage/photoshop/tpsdwarning.h"

#include <cstdio>

namespace zkPhotoshop {

namespace {

struct Entry {
  uint32_t code;
  const char* text;
};

// Doubled blanks stand as they are: these are the texts users see.
const Entry kTexts[] = {
    {0, ""},
    {1, "Kelp does not support Bitmap color mode which is present in the file %s"},
    {2, "Kelp does not support Grayscale color mode which is present in the file %s"},
    {4, "Kelp does not support Indexed color mode which is present in the file %s"},
    {8, "Kelp does not support CMYK color mode which is present in the file %s"},
    {16, "Kelp does not support MultiChannel color mode which is present in the file %s"},
    {32, "Kelp does not support Duotone color mode which is present in the file %s"},
    {64, "Kelp does not support Lab color mode which is present in the file %s"},
    {128, "Image Resources are not supported for the file %s"},
    {256, "Blend mode for the layer %s is not supported in the file %s"},
    {512, "Clipping is not supported for the layer %s in the file  %s"},
    {1024, "Layer Blending Ranges are not supported for the layer %s in the file %s"},
    {2048, "Kelp does not support Layer Effects which is present in the layer %s in  the file %s"},
    {4096, "Transparency Shapes Layer is not supported for the layer %s in  the file %s"},
    {8192, "Layer mask as global mask is not supported for the layer %s in the file %s"},
    {16384, "Vector mask as global mask is not supported for the layer %s in the file %s"},
    {32768, "Kelp does not support Adjustment layer which is present in the layer %s in the file %s"},
    {65536, "Kelp does not support Object-based Effects which may be present in the layer %s in the file %s"},
    {131072, "Kelp does not support Patterns which may be present in the layer %s in the file %s"},
    {262144, "Kelp does not support Annotation which may be present in the layer %s in the file %s"},
    {524288, "Blend Clipping Elements are not supported for the layer %s in the file %s"},
    {1048576, "Blend Interior Effects is not supported for the layer %s in the file %s"},
    {2097152, "Knockout Options is not supported for the layer %s in the file %s"},
    {4194304, "Layer set %s in the file %s is empty"},
    {8388608, "Unable to allocate memory for the PSD file %s"},
};

// Fills the text's %s places in order with `args`; the rest of the text is
// copied as it stands, so names with % in them do no harm.
Tstring fillIn(const Tstring& format, std::initializer_list<const Tstring*> args) {
  std::string out;
  auto next = args.begin();
  const std::string& f = format.str();
  for (size_t i = 0; i < f.size(); ++i) {
    if (f[i] == '%' && i + 1 < f.size() && f[i + 1] == 's' && next != args.end()) {
      out += (*next++)->str();
      ++i;
    } else {
      out += f[i];
    }
  }
  return Tstring(out);
}

}  // namespace

TpsdFileWarning::TpsdFileWarning() {
  for (const Entry& e : kTexts) fFormats[e.code] = Tstring(e.text);
}

void TpsdFileWarning::addWarning(uint32_t code, const Tstring& fileBaseName, const Tstring& layerName) {
  std::lock_guard<std::mutex> hold(fLock);
  Tstring pattern = fFormats[code];  // an unknown code gets an empty entry
  Tstring text = layerName.isEmpty() ? fillIn(pattern, {&fileBaseName}) : fillIn(pattern, {&layerName, &fileBaseName});
  fMessages.addLast(text);
  fCodes.push_back(code);
}

TstringArray TpsdFileWarning::messages() const {
  std::lock_guard<std::mutex> hold(fLock);
  TstringArray copy;
  copy.copy(fMessages);
  return copy;
}

std::vector<uint32_t> TpsdFileWarning::codes() const {
  std::lock_guard<std::mutex> hold(fLock);
  return fCodes;
}

int TpsdFileWarning::count() const {
  std::lock_guard<std::mutex> hold(fLock);
  return int(fCodes.size());
}

void TpsdFileWarning::clear() {
  std::lock_guard<std::mutex> hold(fLock);
  fMessages.reset();
  fCodes.clear();
}

Tstring TpsdFileWarning::format(uint32_t code) const {
  std::lock_guard<std::mutex> hold(fLock);
  auto it = fFormats.find(code);
  return it == fFormats.end() ? Tstring() : it->second;
}

TpsdFileWarning& theWarnings() {
  static TpsdFileWarning store;
  return store;
}

}  // namespace zkPhotoshop
