// A picture's rows at another size, through the IL zoom filters, a row at
// a time, at 8 or 16 bits; colour premultiplied, so that alpha weighs it.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kelpimage/io/timagereader.h"

struct ILzoom;

namespace kelpio {

class RowPrefetch;

class Resampler {
 public:
  Resampler() = default;
  ~Resampler();
  Resampler(const Resampler&) = delete;
  Resampler& operator=(const Resampler&) = delete;

  // Source rows of `source` (its size and channels) in type() one after
  // the other from the top, premultiplied: false, with why, at a failure.
  using Rows = std::function<bool(int32_t y, uint8_t* row, std::string& why)>;

  // Binds a source; false, with the reason, when the filter is unknown or
  // the sizes cannot be zoomed.
  bool start(const TimageInfo& source, Rows rows, int32_t width, int32_t height, const std::string& filter, float blurX,
             float blurY, std::string& why, int threads = 1);
  // The current frame of `reader`; with `threads` other than 1, decoded a
  // band ahead on a thread of its own, and zoomed on that many threads (0:
  // one a core).
  bool start(TimageReader& reader, int32_t width, int32_t height, const std::string& filter, float blurX, float blurY,
             int threads, std::string& why);
  // 16 bits for pictures wider than 8, else 8.
  TsampleType type() const { return fType; }
  // The next row from the top: the source's channels, interleaved, premultiplied.
  bool next(uint8_t* row, std::string& why);

 private:
  static int feed(void* self, uint8_t** color, float** depth);

  TimageInfo fSpec;
  Rows fRows;
  std::shared_ptr<RowPrefetch> fPrefetch;  // a reader's rows, decoded ahead
  ILzoom* fZoom = nullptr;
  TsampleType fType = TsampleType::kUint8;
  int32_t fWidth = 0, fSourceRow = 0;
  std::vector<uint8_t> fSource, fWide, fResult;
  std::string fError;
};

}  // namespace kelpio
