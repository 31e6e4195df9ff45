// Plug-ins made for the tests: "capture" writes what the conversions hand
// it, and reads back files of its own form, so that every sample width and
// kind, depth and matte can be checked byte by byte; and broken plug-ins
// the loader must refuse. Which one is built is chosen by a definition.
#include <cstdio>
#include <cstring>
#include <vector>

#include "kelpimage/plugin/pxf.h"
#include "plugin_util.h"

#if defined(TEST_PLUGIN_CAPTURE)
namespace {
// The file: the image record as it stands, then each row as it comes: the
// row number and every channel's samples.
struct State {
  FILE* file = nullptr;
  PxfImageData image;
  bool writing = false;
  std::vector<std::vector<uint8_t>> rows;  // reading: row r's channel bytes, all channels
};

size_t rowBytes(const PxfImageData& im) {
  auto bytes = [](int32_t bits) { return size_t(PXF_sample_bytes(bits)); };
  size_t w = size_t(im.width());
  return w * (size_t(im.colorChannels) * bytes(im.colorBits) + size_t(im.matteChannels) * bytes(im.matteBits) +
              size_t(im.depthChannels) * bytes(im.depthBits) + size_t(im.indexChannels) * bytes(im.indexBits));
}

size_t channelBytes(const PxfImageData& im, int c) {
  int32_t bits = c < im.colorChannels                                         ? im.colorBits
                 : c < im.colorChannels + im.matteChannels                    ? im.matteBits
                 : c < im.colorChannels + im.matteChannels + im.depthChannels ? im.depthBits
                                                                              : im.indexBits;
  return size_t(im.width()) * size_t(PXF_sample_bytes(bits));
}

int channels(const PxfImageData& im) {
  return im.colorChannels + im.matteChannels + im.depthChannels + im.indexChannels;
}

int recognise(const uint8_t* b, size_t n) { return n >= 8 && std::memcmp(b, "CAPTURE1", 8) == 0; }

void* openRead(PxfStream* in, PxfImageData* image, int32_t* frames, char* error, size_t size) {
  FILE* f = pxfplugin::streamFile(in, "rb");
  char magic[8];
  auto* s = new State;
  if (!f || std::fread(magic, 1, 8, f) != 8 || std::fread(&s->image, sizeof s->image, 1, f) != 1) {
    std::snprintf(error, size, "not a capture file");
    if (f) std::fclose(f);
    delete s;
    return nullptr;
  }
  s->image.dataKind = "rgb";
  s->image.aspectName = nullptr;
  size_t bytes = rowBytes(s->image);
  for (int32_t r = 0; r < s->image.height(); ++r) {
    std::vector<uint8_t> row(bytes);
    if (std::fread(row.data(), 1, bytes, f) != bytes) break;
    s->rows.push_back(row);
  }
  std::fclose(f);
  *image = s->image;
  *frames = 1;
  return s;
}

int readRow(void* state, int32_t row, void* const* out, int64_t, char*, size_t) {
  auto* s = static_cast<State*>(state);
  if (row < 0 || size_t(row) >= s->rows.size()) return -1;
  const uint8_t* p = s->rows[size_t(row)].data();
  for (int c = 0; c < channels(s->image); ++c) {
    std::memcpy(out[c], p, channelBytes(s->image, c));
    p += channelBytes(s->image, c);
  }
  return 0;
}

void* openWrite(PxfStream* out, const PxfImageData* image, PxfCapSetting* const* settings, const PxfLut*, char*,
                size_t) {
  auto* s = new State;
  s->writing = true;
  s->image = *image;
  s->file = pxfplugin::streamFile(out, "wb");
  if (!s->file) {
    delete s;
    return nullptr;
  }
  std::fwrite("CAPTURE1", 1, 8, s->file);
  std::fwrite(&s->image, sizeof s->image, 1, s->file);
  // The settings follow as code and value pairs, ended by code 0.
  for (; settings && *settings; ++settings) {
    std::fwrite(&(*settings)->code, 2, 1, s->file);
    std::fwrite(&(*settings)->value, 4, 1, s->file);
  }
  int16_t end = 0;
  std::fwrite(&end, 2, 1, s->file);
  return s;
}

int writeRow(void* state, int32_t row, const void* const* in, int64_t, char*, size_t) {
  auto* s = static_cast<State*>(state);
  std::fwrite(&row, 4, 1, s->file);
  for (int c = 0; c < channels(s->image); ++c) std::fwrite(in[c], 1, channelBytes(s->image, c), s->file);
  return 0;
}

int closeFile(void* state, char*, size_t) {
  auto* s = static_cast<State*>(state);
  int rc = s->file && std::fclose(s->file) != 0 ? -1 : 0;
  delete s;
  return rc;
}

const PxfCapability kCapabilities[] = {{7, "Something Else", 1, 2}, {1, "DPI Resolution", 1, 2}};
}  // namespace

PXF_IMAGE_PLUGIN("capture", "capture", "Capture", "What the conversions hand a plug-in, as it comes",
                 (PxfPluginOps{PXF_PLUGIN_VERSION,
                               sizeof(PxfPluginOps),
                               1u,
                               (1u << 7) | (1u << 15),
                               1u,
                               1u,
                               0xC0000000u,
                               0,
                               true,
                               true,
                               kCapabilities,
                               2,
                               recognise,
                               openRead,
                               nullptr,
                               readRow,
                               openWrite,
                               nullptr,
                               writeRow,
                               closeFile,
                               0}));

#elif defined(TEST_PLUGIN_GREY)
// "GREY", a width and a height of a byte each, then a grey byte a pixel from
// the bottom row up: the smallest format the file classes can convert through.
namespace {
struct Grey {
  std::vector<uint8_t> bytes;  // reading: the file
  PxfStream* out = nullptr;    // writing
  int32_t width = 0, height = 0, next = 0;
  int colours = 1;
  std::vector<uint8_t> written;
};

int recognise(const uint8_t* b, size_t n) { return n >= 6 && std::memcmp(b, "GREY", 4) == 0; }

void* openRead(PxfStream* in, PxfImageData* image, int32_t* frames, char* error, size_t size) {
  auto* s = new Grey;
  if (!pxfplugin::readWhole(in, s->bytes, error, size) || s->bytes.size() < 6 || s->bytes[4] == 0 || s->bytes[5] == 0) {
    if (!*error) std::snprintf(error, size, "not a grey file");
    delete s;
    return nullptr;
  }
  s->width = s->bytes[4];
  s->height = s->bytes[5];
  pxfplugin::describePicture(image, s->width, s->height, PXF_TOP_DOWN, 1, false, 8);
  *frames = 1;
  return s;
}

int readRow(void* state, int32_t row, void* const* out, int64_t stride, char* error, size_t size) {
  auto* s = static_cast<Grey*>(state);
  size_t at = 6 + size_t(row) * size_t(s->width);
  if (row < 0 || row >= s->height || at + size_t(s->width) > s->bytes.size())
    return pxfplugin::fail(error, size, "the file ends early");
  pxfplugin::deinterleave(s->bytes.data() + at, 1, 1, out, stride, 0, 1, s->width);
  return 0;
}

void* openWrite(PxfStream* out, const PxfImageData* image, PxfCapSetting* const*, const PxfLut*, char* error,
                size_t size) {
  if (image->width() > 255 || image->height() > 255 || image->colorChannels < 1) {
    pxfplugin::fail(error, size, "grey files are at most 255 x 255");
    return nullptr;
  }
  auto* s = new Grey;
  s->out = out;
  s->width = image->width();
  s->height = image->height();
  s->colours = image->colorChannels;
  s->written = {'G', 'R', 'E', 'Y', uint8_t(s->width), uint8_t(s->height)};
  s->written.resize(6 + size_t(s->width) * size_t(s->height));
  return s;
}

int writeRow(void* state, int32_t row, const void* const* in, int64_t stride, char*, size_t) {
  auto* s = static_cast<Grey*>(state);
  uint8_t* to = s->written.data() + 6 + size_t(row) * size_t(s->width);
  // The green channel of colour, or the one channel of grey.
  const void* channel = s->colours >= 3 ? in[1] : in[0];
  for (int32_t x = 0; x < s->width; ++x) to[x] = pxfplugin::sampleOf<uint8_t>(channel, stride, x);
  s->next++;
  return 0;
}

int closeFile(void* state, char* error, size_t size) {
  auto* s = static_cast<Grey*>(state);
  int rc = 0;
  if (s->out && s->out->write(s->out->user, s->written.data(), int64_t(s->written.size())) < 0)
    rc = pxfplugin::fail(error, size, "cannot be written");
  delete s;
  return rc;
}
}  // namespace

PXF_IMAGE_PLUGIN("grey", "grey", "Grey", "A byte a pixel, for the file classes' tests",
                 (PxfPluginOps{PXF_PLUGIN_VERSION,
                               sizeof(PxfPluginOps),
                               2u,
                               1u << 7,
                               0u,
                               0u,
                               0u,
                               0,
                               true,
                               true,
                               nullptr,
                               0,
                               recognise,
                               openRead,
                               nullptr,
                               readRow,
                               openWrite,
                               nullptr,
                               writeRow,
                               closeFile,
                               0}));

#elif defined(TEST_PLUGIN_WRONG_PROGRAM)
PXF_PLUGIN_EXPORT const char* const type = "image";
PXF_PLUGIN_EXPORT const char* const program = "Elsewhere";
PXF_PLUGIN_EXPORT const char* const imageKey = "wrong";

#elif defined(TEST_PLUGIN_NO_KEY)
PXF_PLUGIN_EXPORT const char* const type = "image";
PXF_PLUGIN_EXPORT const char* const program = "Thornfell";

#elif defined(TEST_PLUGIN_OLD_VERSION)
PXF_IMAGE_PLUGIN("old", "old", "Old", "Built for another interface", (PxfPluginOps{1,       sizeof(PxfPluginOps),
                                                                                   0u,      0u,
                                                                                   0u,      0u,
                                                                                   0u,      0,
                                                                                   true,    true,
                                                                                   nullptr, 0,
                                                                                   nullptr, nullptr,
                                                                                   nullptr, nullptr,
                                                                                   nullptr, nullptr,
                                                                                   nullptr, nullptr,
                                                                                   0}));
#endif
