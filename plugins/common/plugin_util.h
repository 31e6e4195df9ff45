// Small pieces the format plug-ins share: reasons, settings, channel rows
// with their pixel stride, the framework's streams as stdio files, and the
// size checks every reader makes before it allocates.
#pragma once

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "kelpimage/base/tlimits.h"
#include "kelpimage/plugin/pxf.h"

namespace pxfplugin {

// Writes a reason into a plug-in's error buffer; gives -1, the failure.
inline int fail(char* error, size_t size, const char* format, ...) __attribute__((format(printf, 3, 4)));
inline int fail(char* error, size_t size, const char* format, ...) {
  if (!error || size == 0) return -1;
  va_list args;
  va_start(args, format);
  std::vsnprintf(error, size, format, args);
  va_end(args);
  return -1;
}

// The value of a capability setting, or `fallback`.
inline float setting(PxfCapSetting* const* settings, int16_t code, float fallback) {
  for (; settings && *settings; ++settings)
    if ((*settings)->code == code) return (*settings)->value;
  return fallback;
}

// Channel rows: sample x of channel c lies at channels[c] + x * stride
// (stride 0: the sample's own size). These copy one row between them and
// interleaved pixels of `count` channels, `pixelBytes` apart. When the
// channels are those very interleaved pixels, one copy does it.
template <typename T>
void interleaveSamples(const void* const* channels, int64_t stride, int first, int count, uint8_t* pixels,
                       int32_t width, size_t pixelBytes) {
  size_t step = stride ? size_t(stride) : sizeof(T);
  auto* base = static_cast<const uint8_t*>(channels[first]);
  bool packed = step == pixelBytes && size_t(count) * sizeof(T) == pixelBytes;
  for (int c = 1; packed && c < count; ++c)
    packed = static_cast<const uint8_t*>(channels[first + c]) == base + size_t(c) * sizeof(T);
  if (packed) {
    if (base != pixels) std::memmove(pixels, base, size_t(width) * pixelBytes);
    return;
  }
  for (int c = 0; c < count; ++c) {
    auto* from = static_cast<const uint8_t*>(channels[first + c]);
    uint8_t* to = pixels + size_t(c) * sizeof(T);
    for (int32_t x = 0; x < width; ++x) std::memcpy(to + size_t(x) * pixelBytes, from + size_t(x) * step, sizeof(T));
  }
}

template <typename T>
void deinterleaveSamples(const uint8_t* pixels, size_t pixelBytes, void* const* channels, int64_t stride, int first,
                         int count, int32_t width) {
  size_t step = stride ? size_t(stride) : sizeof(T);
  auto* base = static_cast<uint8_t*>(channels[first]);
  bool packed = step == pixelBytes && size_t(count) * sizeof(T) == pixelBytes;
  for (int c = 1; packed && c < count; ++c)
    packed = static_cast<uint8_t*>(channels[first + c]) == base + size_t(c) * sizeof(T);
  if (packed) {
    if (base != pixels) std::memmove(base, pixels, size_t(width) * pixelBytes);
    return;
  }
  for (int c = 0; c < count; ++c) {
    auto* to = static_cast<uint8_t*>(channels[first + c]);
    const uint8_t* from = pixels + size_t(c) * sizeof(T);
    for (int32_t x = 0; x < width; ++x) std::memcpy(to + size_t(x) * step, from + size_t(x) * pixelBytes, sizeof(T));
  }
}

// `stride` is the channels' pixel stride; `pixelSamples` how many samples
// of `bytes` an interleaved pixel holds.
inline void interleave(const void* const* channels, int64_t stride, int first, int count, int bytes, uint8_t* pixels,
                       int32_t width, int pixelSamples) {
  size_t pixelBytes = size_t(pixelSamples) * size_t(bytes);
  if (bytes == 1)
    interleaveSamples<uint8_t>(channels, stride, first, count, pixels, width, pixelBytes);
  else if (bytes == 2)
    interleaveSamples<uint16_t>(channels, stride, first, count, pixels, width, pixelBytes);
  else
    interleaveSamples<uint32_t>(channels, stride, first, count, pixels, width, pixelBytes);
}

inline void deinterleave(const uint8_t* pixels, int pixelSamples, int bytes, void* const* channels, int64_t stride,
                         int first, int count, int32_t width) {
  size_t pixelBytes = size_t(pixelSamples) * size_t(bytes);
  if (bytes == 1)
    deinterleaveSamples<uint8_t>(pixels, pixelBytes, channels, stride, first, count, width);
  else if (bytes == 2)
    deinterleaveSamples<uint16_t>(pixels, pixelBytes, channels, stride, first, count, width);
  else
    deinterleaveSamples<uint32_t>(pixels, pixelBytes, channels, stride, first, count, width);
}

// Where sample x of a channel lies.
template <typename T>
T* sampleAt(void* channel, int64_t stride, int32_t x) {
  return reinterpret_cast<T*>(static_cast<uint8_t*>(channel) + size_t(x) * (stride ? size_t(stride) : sizeof(T)));
}
template <typename T>
T sampleOf(const void* channel, int64_t stride, int32_t x) {
  T v;
  std::memcpy(&v, static_cast<const uint8_t*>(channel) + size_t(x) * (stride ? size_t(stride) : sizeof(T)), sizeof(T));
  return v;
}

// The parts of an image record every picture read has: its windows and
// aspect, the order of its rows, the "rgb" kind, and colour and matte
// channels of the given count and bits.
inline void describePicture(PxfImageData* image, int32_t width, int32_t height, int32_t orientation, int colors,
                            bool matte, int32_t bits) {
  image->windowRight = image->window2[1] = width - 1;
  image->windowTop = image->window2[3] = height - 1;
  image->aspectWidth = width;
  image->aspectHeight = height;
  image->aspectRatio = float(width) / float(height);
  image->orientation = orientation;
  image->dataKind = "rgb";
  image->colorChannels = colors;
  image->colorBits = bits;
  image->matteChannels = matte ? 1 : 0;
  image->matteBits = bits;
  image->storedBits = bits;
}

// Whether a picture of this size may be read: within the library's pixel
// limit, and no larger than the stream's bytes could hold at `pixelsPerByte`
// pixels a byte, the format's best compression. False with the reason.
inline bool sizeAllowed(uint64_t width, uint64_t height, PxfStream* in, uint64_t pixelsPerByte, char* error,
                        size_t size) {
  if (width < 1 || height < 1)
    return fail(error, size, "a picture of %llu x %llu pixels has no pixels", (unsigned long long)width,
                (unsigned long long)height),
           false;
  if (!TpixelLimit::allows(width, height))
    return fail(error, size, "%s", TpixelLimit::refusal(width, height).c_str()), false;
  int64_t bytes = in && in->size ? in->size(in->user) : -1;
  if (!TplausibleSize(width, height, bytes, pixelsPerByte))
    return fail(error, size, "a file of %lld bytes cannot hold a picture of %llu x %llu pixels: it is damaged",
                (long long)bytes, (unsigned long long)width, (unsigned long long)height),
           false;
  return true;
}

// The framework's stream as a stdio file, for libraries that read or write
// through one (mode "rb" or "wb"). The stream stays the caller's; closing
// the file does not end it.
inline FILE* streamFile(PxfStream* stream, const char* mode) {
  cookie_io_functions_t io{};
  io.read = [](void* user, char* data, size_t size) -> ssize_t {
    auto* s = static_cast<PxfStream*>(user);
    int64_t n = s->read(s->user, data, int64_t(size));
    if (n < 0) errno = EIO;
    return ssize_t(n);
  };
  io.write = [](void* user, const char* data, size_t size) -> ssize_t {
    auto* s = static_cast<PxfStream*>(user);
    if (s->write(s->user, data, int64_t(size)) < 0) {
      if (errno == 0) errno = EIO;
      return 0;  // stdio takes a short write as an error
    }
    return ssize_t(size);
  };
  io.seek = [](void* user, off64_t* offset, int whence) -> int {
    auto* s = static_cast<PxfStream*>(user);
    int64_t to = *offset;
    if (whence == SEEK_CUR)
      to += s->tell(s->user);
    else if (whence == SEEK_END) {
      int64_t end = s->size(s->user);
      if (end < 0) return -1;
      to += end;
    }
    if (s->seek(s->user, to) != 0) return -1;
    *offset = to;
    return 0;
  };
  return fopencookie(stream, mode, io);
}

// The stream's reason for its last failure, or `fallback`.
inline const char* streamError(PxfStream* stream, const char* fallback) {
  const char* why = stream && stream->error ? stream->error(stream->user) : nullptr;
  return why && *why ? why : fallback;
}

// The whole rest of a stream in memory; false with the reason.
inline bool readWhole(PxfStream* in, std::vector<uint8_t>& bytes, char* error, size_t size) {
  bytes.clear();
  int64_t known = in->size(in->user);
  if (known > 0) bytes.reserve(size_t(known));
  uint8_t buffer[1 << 16];
  for (;;) {
    int64_t n = in->read(in->user, buffer, sizeof buffer);
    if (n < 0) return fail(error, size, "%s", streamError(in, "the file cannot be read")), false;
    if (n == 0) return true;
    bytes.insert(bytes.end(), buffer, buffer + n);
  }
}

// Closes a stdio file a plug-in wrote through: -1 with the reason when any
// of it did not reach the stream. `file` is null afterwards.
inline int closeWritten(FILE*& file, char* error, size_t size) {
  int rc = 0;
  if (std::fflush(file) != 0 || std::ferror(file)) rc = fail(error, size, "%s", std::strerror(errno ? errno : EIO));
  if (std::fclose(file) != 0 && rc == 0) rc = fail(error, size, "%s", std::strerror(errno ? errno : EIO));
  file = nullptr;
  return rc;
}

// Closes a stdio file a plug-in wrote `rows` rows of a picture of `height`
// to: -1 with the reason when rows are missing or any byte did not arrive.
inline int finishWritten(FILE*& file, int32_t rows, int32_t height, char* error, size_t size) {
  int rc = rows == height ? 0 : fail(error, size, "only %d of %d rows were written", rows, height);
  if (closeWritten(file, rc == 0 ? error : nullptr, size) != 0) rc = -1;
  return rc;
}

constexpr int16_t kDpiCode = 1;
constexpr int16_t kQualityCode = 2;
constexpr int16_t kCompressionCode = 3;

// The capability every writer with a resolution offers.
constexpr PxfCapability dpiCapability() {
  return PxfCapability{kDpiCode, "DPI Resolution", 1, 2, 0.0f, 100000.0f, 0.0f, "dots an inch, 0 for none"};
}

}  // namespace pxfplugin
