// What the OpenEXR plug-in's files share: the framework's streams as
// OpenEXR's, the state of a file being read or written, and the helpers of
// both directions. OpenEXR reports errors by exceptions: every entry point
// runs its work through guarded().
#pragma once

#include <ImfChannelList.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfIO.h>
#include <ImfInputPart.h>
#include <ImfMultiPartInputFile.h>
#include <ImfOutputFile.h>
#include <ImfPartType.h>
#include <ImfStandardAttributes.h>
#include <ImfThreading.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <exception>
#include <limits>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "kelpimage/plugin/pxf.h"
#include "plugin_util.h"

namespace exrplugin {

using pxfplugin::fail;

constexpr int16_t kFloatCode = 4;  // 1: write 32-bit float samples; 0: half
constexpr int32_t kMaxWidth = 65535;

// The channels the framework sees, in its order.
enum Slot { kRed, kGreen, kBlue, kAlpha, kDepth, kSlots };

// Lines decoded or encoded at once: enough blocks for OpenEXR's threads,
// and no more than about 4M samples a channel for wide pictures.
int32_t bandLines(const Imf::Header& header, int32_t width, int32_t height);

// Runs `work`, turning what OpenEXR throws into a reason: 0, or -1.
template <typename Work>
int guarded(char* error, size_t size, Work work) {
  try {
    return work();
  } catch (const std::exception& e) {
    return fail(error, size, "%s", e.what());
  } catch (...) {
    return fail(error, size, "OpenEXR failed");
  }
}

// OpenEXR decodes and encodes blocks on a pool of threads when it has one.
void startThreads();

// A slice of `lines` lines of `width` samples of 4 bytes, whose first
// sample stands for the pixel at `origin`.
Imf::Slice slice(Imf::PixelType type, void* first, Imath::V2i origin, int32_t width, int32_t lines);

// The half of each 8-bit colour value v: the nearest to v / 255, or the next
// above it where the nearest falls short, so that readers which truncate
// colour (as the conversion into IFF does, and ImageMagick) come back to v
// as well as those that round. Alpha keeps the nearest half: ImageMagick
// reads it through its complement, where a nudge up would cost a level.
const Imath::half* byteHalves();

// The framework's stream as OpenEXR's input.
class InStream : public Imf::IStream {
 public:
  explicit InStream(PxfStream* stream) : Imf::IStream(stream->name ? stream->name : "OpenEXR"), stream_(stream) {}
  bool read(char c[], int n) override {
    while (n > 0) {
      int64_t got = stream_->read(stream_->user, c, n);
      if (got < 0) throw std::runtime_error(pxfplugin::streamError(stream_, "the file cannot be read"));
      if (got == 0) throw std::runtime_error("the file ends early");
      c += got;
      n -= int(got);
    }
    return true;
  }
  uint64_t tellg() override { return uint64_t(stream_->tell(stream_->user)); }
  void seekg(uint64_t pos) override {
    if (stream_->seek(stream_->user, int64_t(pos)) != 0)
      throw std::runtime_error("the file cannot be read out of order");
  }

 private:
  PxfStream* stream_;
};

// The framework's stream as OpenEXR's output, keeping the first failure:
// OpenEXR finishes a file in its destructor, which swallows them.
class OutStream : public Imf::OStream {
 public:
  explicit OutStream(PxfStream* stream) : Imf::OStream(stream->name ? stream->name : "OpenEXR"), stream_(stream) {}
  void write(const char c[], int n) override {
    if (stream_->write(stream_->user, c, n) < 0) fail();
  }
  uint64_t tellp() override { return uint64_t(stream_->tell(stream_->user)); }
  void seekp(uint64_t pos) override {
    if (stream_->seek(stream_->user, int64_t(pos)) != 0) fail();
  }
  // The reason of the first failure, or empty.
  const std::string& reason() const { return reason_; }

 private:
  void fail() {
    if (reason_.empty()) reason_ = pxfplugin::streamError(stream_, "cannot be written");
    throw std::runtime_error(reason_);
  }
  PxfStream* stream_;
  std::string reason_;
};

// A float of 0 to 1 as a 16-bit sample, rounded; what lies outside clamped.
uint16_t toSample(float v);

struct Reader {
  std::unique_ptr<InStream> stream;
  std::unique_ptr<Imf::MultiPartInputFile> file;
  std::unique_ptr<Imf::InputPart> part;
  Imath::Box2i window;
  int32_t width = 0, height = 0;
  bool present[kSlots] = {};
  bool floats = false;  // colour goes out as floats, else as 16-bit integers
  bool grey = false;
  bool uintSamples[kSlots] = {};
  int32_t band = 0;
  int32_t bandFirst = 0, bandCount = 0;    // the lines held, counted from the top
  std::vector<float> samples[kSlots];      // FLOAT slices
  std::vector<uint32_t> integers[kSlots];  // UINT slices
};

struct Writer {
  std::unique_ptr<OutStream> stream;
  std::unique_ptr<Imf::OutputFile> file;
  int32_t width = 0, height = 0;
  int colors = 0;
  bool matte = false, depth = false;
  int32_t bits = 8;
  bool floats = false;  // the samples handed in are floats
  bool decreasing = false;
  int32_t band = 0;
  int32_t bandLow = 0;              // the first line (from the top) the band's buffer stands for
  int32_t pending = 0;              // lines in the band not yet written
  int32_t written = 0;              // lines handed to OpenEXR
  int32_t rows = 0;                 // rows received
  Imf::PixelType type = Imf::HALF;  // of colour and alpha; depth is always float
  std::vector<float> samples[kSlots];
  std::vector<Imath::half> halves[kSlots];
};

struct State {
  std::unique_ptr<Reader> reader;
  std::unique_ptr<Writer> writer;
};

// The two directions, each in its own file.
void* openRead(PxfStream* in, PxfImageData* image, int32_t* frames, char* error, size_t size);
int readRow(void* state, int32_t row, void* const* channels, int64_t stride, char* error, size_t size);
void* openWrite(PxfStream* out, const PxfImageData* image, PxfCapSetting* const* settings, const PxfLut*, char* error,
                size_t size);
int writeRow(void* state, int32_t row, const void* const* channels, int64_t stride, char* error, size_t size);

}  // namespace exrplugin
