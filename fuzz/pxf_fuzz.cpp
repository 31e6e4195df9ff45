// Each format plug-in's reader on arbitrary bytes, straight through the
// framework: the first byte picks the plug-in (so formats without a
// signature get their share), the rest is the file. Every row of up to
// three frames is read.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "kelpimage/il/il.h"
#include "kelpimage/convert/conversions.h"
#include "kelpimage/plugin/plugins.h"
#include "kelpimage/plugin/pxf.h"

namespace {
std::vector<const char*> gKeys;  // the plug-ins that read
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setenv("PXF_PLUG_IN_PATH", KELP_PLUGIN_OUTPUT_DIR, 0);
  loadAllPXFPlugins();
  for (int i = 0; const PxfFormat* f = PXF_format(i); ++i)
    if (f->ops->canRead) gKeys.push_back(f->key);
  // The plug-ins check sizes against the library's pixel limit; a small one
  // keeps each run quick.
  ILmaxpixels(1u << 20);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static std::string name = "/dev/shm/kelp_pxf_fuzz_" + std::to_string(getpid());
  if (size < 2 || gKeys.empty()) return 0;
  FILE* f = std::fopen(name.c_str(), "wb");
  if (!f) return 0;
  std::fwrite(data + 1, 1, size - 1, f);
  std::fclose(f);
  PxfFileInfo info;
  PXF_info_init(&info);
  info.key = gKeys[data[0] % gKeys.size()];
  info.name = info.name2 = name.c_str();
  PxfHandle* in = PXF_open(&info, "r");
  if (!in) return 0;
  if (in->image && in->image->width() > 0 && in->image->height() > 0) {
    PxfChannels* channels = PXF_chan_alloc(in->image, in->image->width(), info.key, nullptr);
    bool frames = in->format->flags & PXF_MULTIFRAME;
    for (int32_t frame = 0; channels && frame < (frames ? 3 : 1) && frame < in->frameCount; ++frame) {
      if (frames && PXF_set_frame(in, frame) != frame) break;
      // Rows in the order the file stores them.
      int32_t h = in->image->height();
      bool top = in->image->orientation != PXF_BOTTOM_UP;
      for (int32_t i = 0; i < h; ++i)
        if (PXF_scan_read(in, top ? h - 1 - i : i, channels) != 0) break;
    }
    PXF_chan_free(channels);
  }
  PXF_close(in);
  return 0;
}
