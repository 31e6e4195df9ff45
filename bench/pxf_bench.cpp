// The cost of the road through a temporary IFF file: a 4096 x 4096 RGBA
// picture decoded by its plug-in alone (every row through the framework),
// against the same picture converted into a temporary IFF file and against
// the whole front-door read into a pixel map, for PNG, JPEG and TIFF.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "kelpimage/convert/conversions.h"
#include "kelpimage/image/timagefile.h"
#include "kelpimage/plugin/plugins.h"
#include "kelpimage/plugin/pxf.h"

namespace {
constexpr int kSide = 4096;

// The pictures, written once through the library itself.
const std::string& picture(const std::string& key) {
  static std::string dir = [] {
    setenv("PXF_PLUG_IN_PATH", KELP_PLUGIN_OUTPUT_DIR, 0);
    char pattern[] = "/tmp/kelp-bench-XXXXXX";
    return std::string(mkdtemp(pattern));
  }();
  static std::vector<std::pair<std::string, std::string>> made;
  for (const auto& [k, name] : made)
    if (k == key) return name;
  TpixelMap map(kSide, kSide);
  for (int y = 0; y < kSide; ++y)
    for (int x = 0; x < kSide; ++x)
      map.pixelPointer(x, y)->fValue =
          0xFF000000u | uint32_t((x ^ y) & 255) << 16 | uint32_t(x * 7 & 255) << 8 | uint32_t((x + y) / 32 & 255);
  std::string name = dir + "/big." + key;
  TimageFile out;
  out.create(name.c_str(), kSide, kSide, TiffImageFile::kRLE, key.c_str());
  out.setType(1);
  out.writePixelMap(map);
  out.close();
  made.emplace_back(key, name);
  return made.back().second;
}

const char* keyOf(int64_t index) {
  static const char* const keys[] = {"png", "jpg", "tif"};
  return keys[index];
}

void BM_PluginDecode(benchmark::State& state) {
  const std::string& name = picture(keyOf(state.range(0)));
  loadAllPXFPlugins();
  for (auto _ : state) {
    PxfFileInfo info;
    PXF_info_init(&info);
    info.key = keyOf(state.range(0));
    info.name = info.name2 = name.c_str();
    PxfHandle* h = PXF_open(&info, "r");
    PxfChannels* ch = PXF_chan_alloc(h->image, kSide, info.key, nullptr);
    for (int row = kSide - 1; row >= 0; --row) PXF_scan_read(h, row, ch);
    PXF_chan_free(ch);
    PXF_close(h);
  }
  state.SetLabel(keyOf(state.range(0)));
}

void BM_IntoTemporaryIff(benchmark::State& state) {
  const std::string& name = picture(keyOf(state.range(0)));
  std::string out = name + ".iff";
  for (auto _ : state) anytoiff(name.c_str(), out.c_str(), nullptr, 0);
  unlink(out.c_str());
  state.SetLabel(keyOf(state.range(0)));
}

void BM_FrontDoorRead(benchmark::State& state) {
  const std::string& name = picture(keyOf(state.range(0)));
  for (auto _ : state) {
    TimageFile in;
    in.identifyAndOpen(name.c_str());
    TpixelMap map;
    in.readPixelMap(map);
    in.close();
  }
  state.SetLabel(keyOf(state.range(0)));
}
}  // namespace

BENCHMARK(BM_PluginDecode)->DenseRange(0, 2)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_IntoTemporaryIff)->DenseRange(0, 2)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_FrontDoorRead)->DenseRange(0, 2)->Unit(benchmark::kMillisecond)->Iterations(3);
