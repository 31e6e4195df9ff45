// The OpenEXR plug-in, on OpenEXR 3: scan-line and tiled files with half,
// float or unsigned integer channels R, G, B or Y, A and Z; of a file of
// several parts, the first that holds colour. Colour and alpha reach the
// framework as 32-bit floats, whole (above 1 and below 0 too), for a caller
// that takes floats, and otherwise as 16-bit integers (the 0 to 1 range,
// clamped), so that a picture stored from 8 bits comes back to the same 8
// bits; Z, a camera distance, becomes IFF depth -1/Z as floats, and goes
// back the same way. The data window's place in the display window and the
// pixels' aspect are told. Bytes go through the framework's stream. This
// file holds the helpers both directions share and the plug-in's record;
// exrread.cpp and exrwrite.cpp the two directions.
#include "exr.h"

#include <thread>

namespace exrplugin {

int32_t bandLines(const Imf::Header& header, int32_t width, int32_t height) {
  int32_t lines = 128;  // ZIP blocks of 16 lines, PIZ of 32, and the rest
  switch (header.compression()) {
    case Imf::NO_COMPRESSION:
    case Imf::RLE_COMPRESSION:
    case Imf::ZIPS_COMPRESSION: lines = 64; break;
    default: break;
  }
  lines = std::min(lines, std::max(32, (1 << 22) / std::max(width, 1)));
  return std::min(lines, height);
}

void startThreads() {
  static std::once_flag once;
  std::call_once(once, [] {
    if (Imf::globalThreadCount() == 0)
      Imf::setGlobalThreadCount(int(std::max(1u, std::thread::hardware_concurrency())));
  });
}

Imf::Slice slice(Imf::PixelType type, void* first, Imath::V2i origin, int32_t width, int32_t lines) {
  return Imf::Slice::Make(type, first, origin, int64_t(width), int64_t(lines), size_t(4), size_t(width) * 4);
}

const Imath::half* byteHalves() {
  static const auto table = [] {
    std::array<Imath::half, 256> t;
    for (int v = 0; v < 256; ++v) {
      Imath::half h(float(v) / 255.0f);
      if (int(double(float(h)) * 255.0) != v) h.setBits(uint16_t(h.bits() + 1));
      t[size_t(v)] = h;
    }
    return t;
  }();
  return table.data();
}

uint16_t toSample(float v) {
  if (!(v > 0.0f)) return 0;  // NaN too
  if (v >= 1.0f) return 65535;
  return uint16_t(std::lrintf(v * 65535.0f));
}

}  // namespace exrplugin

namespace {

using namespace exrplugin;

int recognise(const uint8_t* bytes, size_t count) {
  return count >= 4 && bytes[0] == 0x76 && bytes[1] == 0x2f && bytes[2] == 0x31 && bytes[3] == 0x01;
}

int closeFile(void* state, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  int rc = guarded(error, size, [&] {
    int result = 0;
    if (s->writer && s->writer->written != s->writer->height)
      result = fail(error, size, "only %d of %d rows were written", s->writer->written, s->writer->height);
    if (s->writer) {
      // The output file is written to the end as it is destroyed.
      s->writer->file.reset();
      const std::string& why = s->writer->stream->reason();
      if (!why.empty() && result == 0) result = fail(error, size, "%s", why.c_str());
    }
    return result;
  });
  delete s;
  return rc;
}

const PxfCapability kCapabilities[] = {
    pxfplugin::dpiCapability(),
    {pxfplugin::kCompressionCode, "Compression", 1, 2, 0.0f, 4.0f, 3.0f, "0 none, 1 RLE, 2 ZIPS, 3 ZIP, 4 PIZ"},
    {kFloatCode, "Float Samples", 1, 2, 0.0f, 1.0f, 0.0f, "1 for 32-bit floats, 0 for halves"},
};

}  // namespace

PXF_IMAGE_PLUGIN("exr", "exr", "OpenEXR", "OpenEXR, half, float and integer channels, with alpha and Z depth",
                 (PxfPluginOps{PXF_PLUGIN_VERSION,
                               sizeof(PxfPluginOps),
                               3u,
                               (1u << 7) | (1u << 15) | (1u << 31),
                               1u,
                               1u,
                               0x80000000u,
                               uint8_t(PXF_FLOAT_DEPTH | PXF_TILES | PXF_PREMULTIPLIED_ALPHA),
                               true,
                               true,
                               kCapabilities,
                               3,
                               recognise,
                               openRead,
                               nullptr,
                               readRow,
                               openWrite,
                               nullptr,
                               writeRow,
                               closeFile,
                               PXF_HOLDS_HALF | PXF_HOLDS_FLOAT}));
