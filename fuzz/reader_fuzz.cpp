// The library's readers on arbitrary bytes in memory, one target a family of
// formats (the definition KELP_FUZZ_KEYS lists its keys): the first byte
// picks the format, so that formats without a signature get their share, the
// rest is the file. Up to three frames are read whole, at the file's own
// samples and converted to another kind and association, with depth.
#include <cstdlib>
#include <string>
#include <vector>

#include "kelpimage/base/tlimits.h"
#include "kelpimage/io/timagereader.h"

namespace {
std::vector<std::string> gKeys;
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setenv("PXF_PLUG_IN_PATH", KELP_PLUGIN_OUTPUT_DIR, 0);
  // Sizes are checked against the pixel limit; a small one keeps each run quick.
  TpixelLimit::set(1u << 20);
  std::string all = KELP_FUZZ_KEYS;
  for (size_t at = 0; at < all.size();) {
    size_t comma = all.find(',', at);
    if (comma == std::string::npos) comma = all.size();
    gKeys.push_back(all.substr(at, comma - at));
    at = comma + 1;
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  TreadOptions options;
  options.key = gKeys[data[0] % gKeys.size()];
  options.lenient = data[0] & 0x80;
  TimageReader reader;
  if (!reader.openMemory(data + 1, size - 1, "fuzz", options)) return 0;
  for (int frame = 0; frame < reader.spec().frames && frame < 3; ++frame) {
    if (frame > 0 && !reader.seekFrame(frame)) break;
    const TimageInfo& spec = reader.spec();
    std::vector<uint8_t> pixels(spec.rowBytes(TsampleType::kFloat) * size_t(spec.height));
    std::vector<float> depth(spec.depth ? size_t(spec.width) * size_t(spec.height) : 0);
    if (!reader.readImage(pixels.data(), spec.sampleType, 0, spec.association, depth.empty() ? nullptr : depth.data()))
      break;
    // Again from the top, converted: the reader reads the file anew.
    Tassociation other =
        spec.association == Tassociation::kStraight ? Tassociation::kPremultiplied : Tassociation::kStraight;
    if (!reader.readImage(pixels.data(), TsampleType::kFloat, 0, other)) break;
  }
  return 0;
}
