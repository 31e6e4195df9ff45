// Conversion into IFF: a picture any plug-in reads becomes a temporary IFF
// file at 8 bits a channel, with its depth and matte (a Photoshop document
// its flattened image, through the library's reader, at the document's
// depth), and `getResolution` tells a picture's size without converting it.
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kelpimage/convert/conversion.h"
#include "kelpimage/convert/conversions.h"
#include "kelpimage/il/il.h"
#include "kelpimage/photoshop/psdinterface.h"
#include "kelpimage/photoshop/tpsdinterleave.h"
#include "kelpimage/plugin/plugins.h"
#include "kelpimage/plugin/pxf.h"
#include "kelpimage/plugin/pxfinternal.h"

namespace {

// The input left open so that the next frame of a multi-frame file is read
// without opening it again, and what the file was when it was opened: a
// file replaced since is opened anew.
PxfHandle* gCurrentInput = nullptr;
struct stat gCurrentStat {};

bool sameFile(const char* input) {
  struct stat st;
  return ::stat(input, &st) == 0 && st.st_ino == gCurrentStat.st_ino && st.st_dev == gCurrentStat.st_dev &&
         st.st_size == gCurrentStat.st_size && st.st_mtim.tv_sec == gCurrentStat.st_mtim.tv_sec &&
         st.st_mtim.tv_nsec == gCurrentStat.st_mtim.tv_nsec;
}

bool statInput(const char* input) {
  struct stat st;
  if (input && ::stat(input, &st) == 0) return true;
  std::string why = std::strerror(errno);
  kelpconvert::report(std::string(input ? input : "(no name)") + ": " + why);
  return false;
}

// A sample of a channel buffer by its width.
uint32_t sampleAt(const void* buffer, int32_t x, int32_t bits) {
  switch (PXF_sample_bytes(bits)) {
    case 1: return static_cast<const uint8_t*>(buffer)[x];
    case 2: return static_cast<const uint16_t*>(buffer)[x];
    default: return static_cast<const uint32_t*>(buffer)[x];
  }
}

float floatAt(const void* buffer, int32_t x) {
  float f;
  std::memcpy(&f, static_cast<const uint8_t*>(buffer) + size_t(x) * 4, 4);
  return f;
}

uint8_t toByte(const void* buffer, int32_t x, int32_t bits, int32_t shiftBits) {
  if (bits == 32) return uint8_t(std::clamp(floatAt(buffer, x), 0.0f, 1.0f) * 255.0f);
  uint32_t v = sampleAt(buffer, x, bits);
  if (bits > 8) return uint8_t(v >> (bits - 8));
  if (bits < 8) return uint8_t(v << (unsigned(8 - shiftBits) % 32u));
  return uint8_t(v);
}

// One row of the plug-in's channels into 4 bytes a pixel, blue, green, red,
// alpha. False when the picture has no colour channels.
bool fillLine(const PxfImageData& im, void* const* ch, uint8_t* line, int32_t width, bool fast) {
  int colors = im.colorChannels;
  if (fast) {
    int step = im.colorBits / 8, matteStep = im.matteBits / 8;
    for (int32_t x = 0; x < width; ++x) {
      uint8_t* p = line + size_t(x) * 4;
      auto high = [&](int c, int bytes) {
        return static_cast<const uint8_t*>(ch[c])[size_t(x) * size_t(bytes) + size_t(bytes) - 1];
      };
      if (colors == 1)
        p[2] = p[1] = p[0] = high(0, step);
      else if (colors == 2)
        p[2] = high(0, step), p[1] = high(1, step);
      else if (colors == 3)
        p[2] = high(0, step), p[1] = high(1, step), p[0] = high(2, step);
      if (im.matteChannels > 0) p[3] = high(colors, matteStep);
    }
    return true;
  }
  if (colors < 1 || colors > 3) return false;
  for (int32_t x = 0; x < width; ++x) {
    uint8_t r = toByte(ch[0], x, im.colorBits, im.colorBits);
    uint8_t g = colors >= 2 ? toByte(ch[1], x, im.colorBits, im.colorBits) : r;
    uint8_t b = colors == 3 ? toByte(ch[2], x, im.colorBits, im.colorBits) : colors == 2 ? 0 : r;
    // A narrow matte is shifted by the colour bits: so the conversion stands.
    uint8_t a = im.matteChannels > 0 ? toByte(ch[colors], x, im.matteBits, im.colorBits) : 0;
    uint8_t* p = line + size_t(x) * 4;
    p[0] = b, p[1] = g, p[2] = r, p[3] = a;
  }
  return true;
}

// The depth channel into IFF depth: a negative reciprocal, 0 for none.
void fillDepth(const PxfImageData& im, const void* channel, float* out, int32_t width) {
  for (int32_t x = 0; x < width; ++x) {
    if (im.depthKind == PXF_FLOAT) {
      out[x] = floatAt(channel, x);
    } else if (im.depthKind == PXF_DOUBLE) {
      double d;
      std::memcpy(&d, static_cast<const uint8_t*>(channel) + size_t(x) * 8, 8);
      out[x] = float(d);
    } else if (im.depthKind == PXF_INTEGER) {
      uint32_t v = sampleAt(channel, x, im.depthBits);
      if (v == 0 || im.depthBits > 32) {
        out[x] = 0.0f;
        continue;
      }
      uint32_t max = im.depthBits >= 32 ? 0xFFFFFFFFu : (1u << im.depthBits) - 1u;
      float f = float(max) - float(v) + 1.0f;
      out[x] = f == 0.0f ? 0.0f : std::clamp(-1.0f / f, -1.0f, 0.0f);
    }
  }
}

// Opens an input for reading, of format `key` or of whatever format
// recognises it; null after a message.
PxfHandle* openInput(const char* input, const char* key) {
  PxfFileInfo info;
  PXF_info_init(&info);
  if (key) {
    if (!PXF_find(key)) {
      kelpconvert::report(std::string(input) + ": no plug-in reads the format \"" + key + "\"");
      return nullptr;
    }
    info.key = key;
  } else {
    uint8_t flag = 0;
    info.key = PXF_get_file_type(input, 0, &flag);
    if (!info.key) {
      kelpconvert::report(std::string(input) + ": not a picture of a format any plug-in reads");
      return nullptr;
    }
  }
  info.name = info.name2 = input;
  info.one = 1;
  info.comment = "Image converted using anytoiff";
  PxfHandle* handle = PXF_open(&info, "r");
  if (!handle) kelpconvert::report(withReason(std::string(input) + ": cannot be read as " + info.key));
  return handle;
}

void closeCurrent() {
  if (gCurrentInput) PXF_close(gCurrentInput);
  gCurrentInput = nullptr;
}

int convert(PxfHandle* handle, const char* output, uint32_t compression) {
  PxfImageData* image = handle->image;
  if (!image) {
    kelpconvert::report(std::string(handle->name) + ": the picture is empty");
    return -1;
  }
  const PxfImageData& im = *image;
  if (!im.dataKind || std::strcmp(im.dataKind, "rgb") != 0) {
    kelpconvert::report(std::string(handle->name) + ": not a colour picture");
    return -1;
  }
  if (im.colorBits > 32) {
    kelpconvert::report(std::string(handle->name) + ": more than 32 bits a sample");
    return -1;
  }
  int32_t width = im.width(), height = im.height();
  if (width < 1 || height < 1 || width > 32768 || height > 32768 ||
      uint64_t(width) * uint64_t(height) > ILmaxpixels(0)) {
    kelpconvert::report(std::string(handle->name) + ": a picture of " + std::to_string(width) + " x " +
                        std::to_string(height));
    return -1;
  }
  ILimage* out = ILopen(output, "w");
  if (!out) {
    kelpconvert::report(std::string(output) + ": " + FLstrerror(flerrno));
    return -1;
  }
  ILsetsize(out, width, height);
  ILsetcompress(out, compression);
  ILctrl(out, ILC_TOPDOWN, 0);
  if (im.aspectWidth != 0 && im.aspectRatio != float(im.aspectWidth) / float(im.aspectHeight)) {
    int n = int(float(im.aspectHeight) * im.aspectRatio);
    if (n != im.aspectWidth) ILsetratio(out, im.aspectWidth, n);
  }
  if (im.dpi >= 1.0f) out->dpi = im.dpi;
  bool depth = im.depthChannels > 0;
  ILsettype(out, int32_t(ILT_COLOR | (im.matteChannels > 0 ? ILT_ALPHA : 0) | (depth ? ILT_DEPTH : 0)));
  bool fast = im.colorBits % 8 == 0 && (im.matteChannels == 0 || im.matteBits % 8 == 0) && im.colorKind != PXF_FLOAT;

  PxfChannels* channels = PXF_chan_alloc(image, width, handle->format->key, nullptr);
  if (!channels) {
    kelpconvert::report("out of memory");
    ILclose(out);
    return -1;
  }
  // Rows go out as they come: from the bottom, or, for a file that stores
  // its top row first, from the top, which the line writer takes as well.
  bool fromTop = im.orientation != PXF_BOTTOM_UP;
  if (fromTop) ILctrl(out, ILC_TOPDOWN, 1);
  std::vector<uint8_t> pixels(size_t(width) * 4);
  std::vector<float> zs(depth ? size_t(width) : 0);
  int depthChannel = im.colorChannels + im.matteChannels;
  int rc = 0;
  for (int32_t i = 0; i < height && rc == 0; ++i) {
    int32_t row = fromTop ? height - 1 - i : i;
    if (PXF_scan_read(handle, row, channels) != 0) {
      kelpconvert::report(withReason(std::string(handle->name) + ": row " + std::to_string(row) + " cannot be read"));
      rc = -1;
      break;
    }
    if (!fillLine(im, channels->buffers, pixels.data(), width, fast)) {
      kelpconvert::report(std::string(handle->name) + ": the picture has no colour channels");
      rc = -1;
      break;
    }
    if (depth) fillDepth(im, channels->buffers[depthChannel], zs.data(), width);
    if (ILwriteline(out, pixels.data(), depth ? zs.data() : nullptr) != 0) rc = -1;
  }
  PXF_chan_free(channels);
  int closed = ILclose(out);
  if (rc == 0 && closed != 0) {
    kelpconvert::report(std::string(output) + ": cannot be written: " + FLstrerror(closed));
    rc = -1;
  }
  return rc;
}

}  // namespace

// The input kept open between frames is one for the process: conversions
// into IFF take turns.
static std::mutex& inputLock() {
  static std::mutex lock;
  return lock;
}

// A Photoshop document's flattened image into an IFF file of `compression`,
// at the document's depth: its channels 0, 1, 2 and transparency as they lie
// (over opaque white where it has fewer), the bottom line first. A document
// that cannot be read is a failure here, not at the caller's later open of
// an empty output.
static int psdToIff(const char* input, const char* output, uint32_t compression) {
  using namespace zkPhotoshop;
  TphotoshopFile* file = nullptr;
  if (openPsdFile(TfilePath(input), file, false) != statusOk || file->filePath().fullName().isEmpty()) {
    delete file;
    kelpconvert::report(std::string(input) + ": not a Photoshop document this library reads");
    return -1;
  }
  std::unique_ptr<TphotoshopFile> owned(file);
  TrgbaData* image = nullptr;
  uint8_t* pixels = nullptr;
  int channels = 0, width = 0, height = 0, bytes = 1;
  if (compositeImage(file, image) != statusOk ||
      interleaveImage(image, 255, pixels, channels, width, height, bytes) != 0) {
    auto* doc = dynamic_cast<TpsdFile*>(file);
    kelpconvert::report(doc && !doc->lastError().isEmpty() ? doc->lastError().str()
                                                           : std::string(input) + ": cannot be read");
    return -1;
  }
  std::unique_ptr<uint8_t[]> held(pixels);
  ILimage* out = ILopen(output, "w");
  if (!out) {
    kelpconvert::report(std::string(output) + ": " + FLstrerror(flerrno));
    return -1;
  }
  int rc = ILsetsize(out, width, height);
  if (!rc) rc = ILsettype(out, int32_t(IL_RGBA));
  if (!rc) rc = ILsetbpp(out, bytes);
  if (!rc) rc = ILsetcompress(out, compression);
  // Lines are blue, green, red, alpha, the bottom line first.
  const size_t b = size_t(bytes);
  std::vector<uint8_t> line(size_t(width) * 4 * b);
  for (int y = height - 1; y >= 0 && !rc; --y) {
    const uint8_t* src = pixels + size_t(y) * size_t(width) * 4 * b;
    for (size_t x = 0; x < size_t(width); ++x)
      for (size_t c = 0; c < 4; ++c) std::memcpy(&line[(x * 4 + c) * b], src + (x * 4 + (c == 3 ? 3 : 2 - c)) * b, b);
    rc = ILwriteline(out, line.data(), nullptr);
  }
  int closed = ILclose(out);
  if (rc || closed) {
    kelpconvert::report(std::string(output) + ": cannot be written: " + FLstrerror(rc ? rc : closed));
    return -1;
  }
  return 0;
}

static bool isPsd(const char* input) {
  uint8_t head[6] = {};
  std::FILE* f = input ? std::fopen(input, "rb") : nullptr;
  bool whole = f && std::fread(head, 1, sizeof head, f) == sizeof head;
  if (f) std::fclose(f);
  return whole && std::memcmp(head, "8BPS", 4) == 0 && head[4] == 0 && head[5] == 1;
}

static int anyToIff(const char* input, const char* output, const char* key, int frame, uint32_t compression) {
  if (isPsd(input)) return psdToIff(input, output, compression);
  std::lock_guard<std::mutex> hold(inputLock());
  if (gCurrentInput && (!input || std::strcmp(gCurrentInput->name, input) != 0 || !sameFile(input))) closeCurrent();
  if (!gCurrentInput) {
    if (!statInput(input)) return -1;
    ::stat(input, &gCurrentStat);
    gCurrentInput = openInput(input, key);
    if (!gCurrentInput) return -1;
  }
  bool multiframe = gCurrentInput->format->flags & PXF_MULTIFRAME;
  if (multiframe && PXF_set_frame(gCurrentInput, frame) != frame) {
    kelpconvert::report(withReason(std::string(input) + ": has no frame " + std::to_string(frame)));
    return -1;
  }
  int rc = convert(gCurrentInput, output, compression);
  // A multi-frame input stays open for the next frame; any other closes now,
  // and so does one that failed.
  if (!multiframe || rc != 0) closeCurrent();
  return rc;
}

int anytoiff(const char* input, const char* output, const char* key, int frame) {
  // The file is a temporary one, read once: stored, it costs least both ways.
  return anyToIff(input, output, key, frame, 0);
}

int anytoiffCompressed(const char* input, const char* output, const char* key, int frame, uint32_t compression) {
  if (compression > 3) {
    kelpconvert::report("no IFF compression " + std::to_string(compression));
    return -1;
  }
  return anyToIff(input, output, key, frame, compression);
}

int getResolution(const char* input, unsigned& width, unsigned& height) {
  if (!statInput(input)) return -1;
  PxfHandle* handle = openInput(input, nullptr);
  if (!handle) return -1;
  int rc = 0;
  if (!handle->image) {
    kelpconvert::report(std::string(input) + ": the picture is empty");
    rc = -1;
  } else {
    width = unsigned(handle->image->width());
    height = unsigned(handle->image->height());
  }
  PXF_close(handle);
  return rc;
}
