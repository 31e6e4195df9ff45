// IFF to GIF: the picture reduced to a fixed cube of 6 x 6 x 6 colours with
// error diffusion, written through the GIF plug-in as an index channel and
// a look-up table.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kelpimage/base/tcolourcube.h"
#include "kelpimage/image/tiffimagefile.h"
#include "kelpimage/plugin/pxf.h"
#include "kelpimage/plugin/pxfinternal.h"

namespace {

void fail(const std::string& text) { reportConversionError(text); }

}  // namespace

// One pixel's index in the cube, and the error to spread, from blue, green, red.
int ifftogifQuantise(const uint8_t* bgr, int8_t error[3]) { return TcolourCube::quantise(bgr, error); }

int ifftogif(const char* input, const char* output) {
  TiffImageFile in(input, "r");
  if (!in.isActive()) {
    fail(std::string(input) + ": " + FLstrerror(flerrno));
    return -1;
  }
  unsigned short width = 0, height = 0;
  in.getSize(width, height);
  if (in.bytesPerPixel() != 1) {
    fail(std::string(input) + ": GIF pictures are made of 1 byte a channel, not " + std::to_string(in.bytesPerPixel()));
    return -1;
  }
  unsigned type = in.type();
  if (!(type & ILT_COLOR)) {
    fail(std::string(input) + ": not a colour picture");
    return -1;
  }
  if (type & ILT_DEPTH) fail(std::string(output) + ": GIF holds no depth: it is left out");
  if (type & ILT_ALPHA) fail(std::string(output) + ": GIF holds no alpha: it is left out");
  std::vector<uint8_t> bitmap(size_t(width) * height * 4);
  if (in.load(bitmap.data(), nullptr) != 0) {
    fail(std::string(input) + ": " + FLstrerror(flerrno));
    return -1;
  }
  PxfFormat* format = PXF_find("gif");
  if (!format) {
    pxfLoadAllPlugins();  // the first conversion of a process
    format = PXF_find("gif");
  }
  if (!format) {
    fail(std::string(output) + ": no plug-in writes GIF");
    return -1;
  }
  PxfLut* lut = PXF_lut_alloc(256);
  if (!lut) {
    fail("out of memory");
    return -1;
  }
  // Each byte widened as a signed byte: 153 becomes 0xFF99, 255 0xFFFF.
  for (int i = 0; i < 256; ++i) {
    uint8_t rgb[3];
    TcolourCube::entry(i, rgb);
    for (int c = 0; c < 3; ++c) lut->entries[i].value[c] = uint16_t(int16_t(int8_t(rgb[c])));
  }

  PxfImageData image;
  image.aspectName = "cjpAspect";
  image.aspectWidth = image.aspectHeight = 1;
  image.aspectRatio = float(width) / float(height);
  image.windowRight = image.window2[1] = width - 1;
  image.windowTop = image.window2[3] = height - 1;
  image.orientation = PXF_TOP_DOWN;
  image.dataKind = FMT_def_image_data();
  image.colorChannels = 0;
  image.matteChannels = 0;
  image.depthChannels = 0;
  image.depthKind = PXF_FLOAT;
  image.depthBits = 32;
  image.indexChannels = 1;
  image.indexBits = 8;
  PxfChannels* channels = PXF_chan_alloc(&image, width, "gif", nullptr);
  if (!channels) {
    fail("out of memory");
    PXF_lut_free(lut);
    return -1;
  }
  // A GIF holds several frames: the output stays open for the next one.
  ConversionOutput& record = conversionOutput(output);
  PxfFileInfo info;
  PXF_info_init(&info);
  info.key = "gif";
  info.lut = lut;
  info.image = &image;
  PxfHandle* handle = openOutputFrame(output, record, info) ? record.handle : nullptr;
  int rc = handle ? 0 : -1;
  for (int y = height - 1; y >= 0 && rc == 0; --y) {
    auto* index = static_cast<uint8_t*>(channels->buffers[0]);
    for (int x = 0; x < width; ++x) {
      uint8_t* p = &bitmap[(size_t(y) * width + size_t(x)) * 4];
      int8_t e[3];
      index[x] = uint8_t(ifftogifQuantise(p, e));
      int8_t big[3], small[3];
      for (int c = 0; c < 3; ++c) big[c] = int8_t(double(e[c]) * 0.375), small[c] = int8_t(double(e[c]) * 0.25);
      bool right = x + 1 < width, below = y > 0;
      for (int c = 0; c < 3; ++c) {
        if (right) TcolourCube::addError(p[4 + c], big[c]);
        if (below) TcolourCube::addError(bitmap[(size_t(y - 1) * width + size_t(x)) * 4 + size_t(c)], big[c]);
        if (right && below)
          TcolourCube::addError(bitmap[(size_t(y - 1) * width + size_t(x) + 1) * 4 + size_t(c)], small[c]);
      }
    }
    int written = PXF_scan_write(handle, y, channels);
    if (written == PXF_ENOSCAN) fail(std::string(output) + ": the gif plug-in cannot write by lines");
    else if (written != 0) fail(withReason(std::string(output) + ": cannot be written"));
    rc = written == 0 ? 0 : -1;
  }
  PXF_chan_free(channels);
  PXF_lut_free(lut);
  if (!handle) fail(withReason(std::string(output) + ": cannot be written"));
  if (rc != 0) abandonOutput(record);
  return rc;
}
