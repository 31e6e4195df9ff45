// Reading a picture of any format the library knows, from a file, a block
// of memory or a caller's stream: its description, then rows, regions or
// the whole of it into the caller's buffer, at the caller's sample type and
// association, top row first, with strides. Each reader keeps its own
// error; one reader is used by one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "kelpimage/base/tstream.h"
#include "kelpimage/io/tformatcatalogue.h"
#include "kelpimage/io/timageinfo.h"
#include "kelpimage/kelpexport.h"

namespace kelpio {
class ReaderBackend;
}

struct KELP_API TreadOptions {
  // The format, when the caller knows it; empty: told by the bytes.
  std::string key;
  // Step over damage a decoder can step over (a file cut short), saying so
  // in warnings(), instead of failing.
  bool lenient = false;
  // Of a Photoshop document: this layer's pixels at the size of its
  // rectangle (by name, or "#N" for the N-th ordinary layer), this layer
  // set's composite, or this alpha channel (from 0), instead of the
  // flattened image.
  std::string layer, set;
  int alpha = -1;
  // Threads a reader may convert rows on, to the caller's sample type and
  // association: 0 one a core, 1 the caller's alone. The pixels are the
  // same at any count.
  int threads = 0;
};

class KELP_API TimageReader {
 public:
  TimageReader();
  ~TimageReader();
  TimageReader(TimageReader&& other) noexcept;
  TimageReader& operator=(TimageReader&& other) noexcept;
  TimageReader(const TimageReader&) = delete;
  TimageReader& operator=(const TimageReader&) = delete;

  // False, with the reason in error(), when the picture cannot be read.
  bool open(const std::string& path, const TreadOptions& options = {});
  // A stream: kept by the reader. One that cannot seek is read once, into memory.
  bool open(std::unique_ptr<TinputStream> stream, const TreadOptions& options = {});
  // Bytes the caller keeps alive while the reader reads them.
  bool openMemory(const void* data, size_t size, const std::string& name = "memory", const TreadOptions& options = {});
  void close();
  bool isOpen() const { return fBackend != nullptr; }

  // What the current frame is.
  const TimageInfo& spec() const { return fSpec; }
  const TformatInfo& format() const { return fFormat; }
  const std::string& name() const { return fName; }
  int frame() const { return fFrame; }
  bool seekFrame(int frame);

  // Rows y0 up to y1 (from the top) into `pixels`: colour then alpha
  // interleaved, samples of `type`, rows `rowStride` bytes apart (0: one
  // after the other), colour in the given association. With `depth`, the
  // depth of a picture that has it, rows `depthStride` bytes apart.
  bool readRows(int32_t y0, int32_t y1, void* pixels, TsampleType type, ptrdiff_t rowStride = 0,
                Tassociation association = Tassociation::kStraight, float* depth = nullptr, ptrdiff_t depthStride = 0);
  // A rectangle, x0 to x1 and y0 to y1, each end left out: a tile.
  bool readRegion(int32_t x0, int32_t y0, int32_t x1, int32_t y1, void* pixels, TsampleType type,
                  ptrdiff_t rowStride = 0, Tassociation association = Tassociation::kStraight, float* depth = nullptr,
                  ptrdiff_t depthStride = 0);
  bool readImage(void* pixels, TsampleType type, ptrdiff_t rowStride = 0,
                 Tassociation association = Tassociation::kStraight, float* depth = nullptr);

  // "NAME: reason" of the last failure, empty after a success.
  const std::string& error() const { return fError; }
  // What a lenient read stepped over, empty when nothing.
  const std::string& warnings() const { return fWarnings; }

 private:
  bool start(const TreadOptions& options);
  bool restart();
  bool fail(const std::string& why);
  bool skipTo(int32_t y);

  std::unique_ptr<TinputStream> fOwned;
  TinputStream* fStream = nullptr;
  std::unique_ptr<kelpio::ReaderBackend> fBackend;
  TreadOptions fOptions;
  TformatInfo fFormat;
  TimageInfo fSpec;
  std::string fName, fError, fWarnings;
  int fFrame = 0;
  int32_t fNext = 0;  // the row a backend that reads in order gives next
};
