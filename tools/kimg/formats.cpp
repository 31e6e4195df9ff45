// kimg formats: IFF, SGI and every plug-in format found, with what each does.
#include <cstdio>
#include <string>

#include "commands.h"
#include "kelpimage/image/formatgateway.h"
#include "kelpimage/plugin/pxf.h"

namespace kimg {

int formats() {
  std::printf("%-6s %-20s %-5s %-6s %s\n", "key", "extensions", "does", "frames", "name: description");
  std::printf("%-6s %-20s %-5s %-6s %s\n", "iff", "iff", "rw", "images", "IFF: read and written by kimg itself");
  std::printf("%-6s %-20s %-5s %-6s %s\n", "sgi", "sgi;rgb;rgba;bw", "rw", "no", "SGI: read and written by kimg itself");
  std::printf("%-6s %-20s %-5s %-6s %s\n", "psd", "psd", "rw", "no",
              "Photoshop: read (the flattened image; kimg psd for layers and sets) and written (a background layer) "
              "by the library itself");
  loadAllPXFPlugins();
  int count = 0;
  for (int i = 0; const PxfFormat* f = PXF_format(i); ++i, ++count) {
    std::string does = std::string(f->ops->canRead ? "r" : "") + (f->ops->canWrite ? "w" : "");
    std::printf("%-6s %-20s %-5s %-6s %s: %s  (%s)\n", f->key, f->extensions, does.c_str(),
                (f->flags & PXF_MULTIFRAME) ? "yes" : "no", f->name, f->description, f->path);
    std::string settable;
    for (int32_t c = 0; c < f->ops->capabilityCount; ++c)
      if ((f->ops->capabilities[c].flags & 2) && f->ops->capabilities[c].name)
        settable += (settable.empty() ? "" : ", ") + std::string(f->ops->capabilities[c].name);
    if (!settable.empty()) std::printf("%-6s options (--option NAME=VALUE): %s\n", "", settable.c_str());
  }
  if (count == 0)
    std::printf("no plug-ins found: PXF_PLUG_IN_PATH, KELP_LOCATION/bin/plug-ins/image or the installed folder\n");
  return 0;
}

}  // namespace kimg
