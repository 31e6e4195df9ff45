// The front door on arbitrary bytes: identify, open and read into a pixel
// map (at the file's size or another), an image and a depth array. Bytes of
// PNG, JPEG, TIFF and GIF go through their plug-ins and the conversion into
// IFF, frames included.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "kelpimage/base/terrorhandler.h"
#include "kelpimage/il/il.h"
#include "kelpimage/image/timagefile.h"

namespace {
// What the conversions say of damaged files is not this target's output.
struct Quiet : TerrorHandler {
  void reportError(const Tstring&) override {}
} gQuiet;
}  // namespace

// The plug-ins of this build read every other format.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setenv("PXF_PLUG_IN_PATH", KELP_PLUGIN_OUTPUT_DIR, 0);
  theErrorHandler = &gQuiet;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static std::string name = "/dev/shm/kelp_front_fuzz_" + std::to_string(getpid());
  if (size < 1) return 0;
  FILE* f = std::fopen(name.c_str(), "wb");
  if (!f) return 0;
  std::fwrite(data, 1, size, f);
  std::fclose(f);
  uint8_t mode = data[size - 1];
  TimageFile::setErrorReportingEnabled(false);
  // The library refuses headers beyond its pixel limit; a small one keeps
  // each run quick.
  ILmaxpixels(1u << 20);
  TimageFile file;
  if (file.identifyAndOpen(Tstring(name.c_str()), false, (mode >> 5) % 3) != 0) return 0;
  if (mode & 1) {
    TpixelMap map(1 + (mode >> 2) % 40, 1 + (mode >> 4) % 30);  // another size: zoomed
    file.readPixelMap(map);
  } else if (mode & 2) {
    Timage image;
    file.readImage(image);
  } else {
    TpixelMap map;
    file.readPixelMap(map);
    TfloatArray z;
    file.readDepthMap(z);
  }
  return 0;
}
