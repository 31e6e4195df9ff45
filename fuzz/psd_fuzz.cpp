// Reads any bytes as a Photoshop document: header, resources, alpha names,
// every layer record, each layer's pixels one by one and all at once, the
// flattened image, the alpha channels and every layer set's composite; and
// the document saved as read, then read again.
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "kelpimage/photoshop/tpsdfile.h"
#include "kelpimage/photoshop/tpsdwarning.h"

using namespace zkPhotoshop;

namespace {

void touchAll(TpixelData16* pixels) {
  if (!pixels) return;
  for (auto& [id, ch] : pixels->fChannels)
    if (ch) ch->rawPointer();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static std::string name = "/dev/shm/kelp_psd_fuzz_" + std::to_string(getpid()) + ".psd";
  FILE* f = std::fopen(name.c_str(), "wb");
  if (!f) return 0;
  std::fwrite(data, 1, size, f);
  std::fclose(f);
  theWarnings().clear();
  {
    TpsdFile doc;
    doc.open(TfilePath(name.c_str()), false);
    TstringArray names;
    doc.readAlphaList(names);
    doc.getAllLayerNames(names);
    doc.readLayerSetNames(names);
    for (const auto& layer : doc.fLayers) touchAll(doc.layerPixels(*layer));
    TrgbaData* image = nullptr;
    if (!doc.fLayers.empty() && doc.getLayerImage(doc.fLayers.back()->fName, image)) delete image;
    if (doc.getCompositeImage(image)) touchAll(image->pixels16());
    for (int a = 0; a < 3; ++a)
      if (doc.getAlphaChannelMap(image, a)) {
        touchAll(image->pixels16());
        delete image;
      }
  }
  {
    TpsdFile doc;  // every layer set composited, nested ones too
    doc.setThreads(1);
    doc.open(TfilePath(name.c_str()), false);
    doc.readAllLayerRecordInformation();
    std::vector<Tstring> heads;
    for (const auto& layer : doc.fLayers)
      if (layer->isSetHead()) heads.push_back(layer->fName);
    for (const Tstring& head : heads) {
      TrgbaData* image = nullptr;
      if (doc.getCompositeImageOfLayerSet(head, image)) touchAll(image->pixels16());
    }
  }
  {
    TpsdFile doc;  // every layer's channels in one pass
    doc.open(TfilePath(name.c_str()), false);
    if (doc.readAllChannelInformation())
      for (const auto& layer : doc.fLayers) touchAll(layer->fPixels.get());
  }
  {
    // Saved as it was read, and the saved document read again.
    static std::string saved = "/dev/shm/kelp_psd_fuzz_saved_" + std::to_string(getpid()) + ".psd";
    TpsdFile doc;
    doc.setThreads(1);
    doc.open(TfilePath(name.c_str()), true);
    if (doc.readAllLayerRecordInformation() && doc.savePsdFile(TfilePath(saved.c_str()))) {
      TpsdFile again;
      again.open(TfilePath(saved.c_str()), false);
      if (again.readAllChannelInformation())
        for (const auto& layer : again.fLayers) touchAll(layer->fPixels.get());
    }
  }
  return 0;
}
