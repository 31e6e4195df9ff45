// kimg formats: every format the library knows, with what each does.
#include <cstdio>
#include <string>

#include "commands.h"
#include "kelpimage/io/tformatcatalogue.h"

namespace kimg {
namespace {

std::string joined(const std::vector<std::string>& parts, const char* between) {
  std::string text;
  for (const std::string& p : parts) text += (text.empty() ? "" : between) + p;
  return text;
}

std::string samplesOf(unsigned types) {
  std::vector<std::string> names;
  for (TsampleType t : {TsampleType::kUint8, TsampleType::kUint16, TsampleType::kHalf, TsampleType::kFloat})
    if (types & TsampleBit(t)) names.push_back(TsampleName(t));
  return joined(names, ",");
}

}  // namespace

int formats() {
  std::printf("%-6s %-20s %-5s %-6s %-22s %s\n", "key", "extensions", "does", "frames", "samples", "name: description");
  int plugins = 0;
  for (const TformatInfo& f : TformatCatalogue::formats()) {
    std::string does = std::string(f.canRead ? "r" : "") + (f.canWrite ? "w" : "");
    std::string held = samplesOf(f.readTypes);
    if (f.alpha)
      held += f.anyAssociation                                ? "+alpha"
              : f.association == Tassociation::kPremultiplied ? "+alpha(premult)"
                                                              : "+alpha";
    if (f.depth) held += "+depth";
    std::printf("%-6s %-20s %-5s %-6s %-22s %s: %s%s\n", f.key.c_str(), joined(f.extensions, ";").c_str(), does.c_str(),
                f.frames ? "yes" : "no", held.c_str(), f.name.c_str(), f.description.c_str(),
                f.builtIn ? "" : ("  (" + f.path + ")").c_str());
    std::vector<std::string> options;
    for (const TformatOption& o : f.options) {
      char range[64];
      std::snprintf(range, sizeof range, " %g-%g", o.minimum, o.maximum);
      options.push_back(o.name + range);
    }
    if (!options.empty()) std::printf("%-6s options (--option NAME=VALUE): %s\n", "", joined(options, ", ").c_str());
    plugins += f.builtIn ? 0 : 1;
  }
  if (plugins == 0)
    std::printf("no plug-ins found: PXF_PLUG_IN_PATH, KELP_LOCATION/bin/plug-ins/image or the installed folder\n");
  return 0;
}

}  // namespace kimg
