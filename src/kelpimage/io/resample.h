// A picture's rows at another size, through the IL zoom filters: a reader's
// frame resampled a row at a time, colour premultiplied so that alpha
// weighs it, at 8 or 16 bits.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "kelpimage/io/timagereader.h"

struct ILzoom;

namespace kelpio {

class Resampler {
 public:
  Resampler() = default;
  ~Resampler();
  Resampler(const Resampler&) = delete;
  Resampler& operator=(const Resampler&) = delete;

  // Binds the current frame of `reader`; false, with the reason, when the
  // filter is unknown or the sizes cannot be zoomed.
  bool start(TimageReader& reader, int32_t width, int32_t height, const std::string& filter, float blurX, float blurY,
             std::string& why);
  // 16 bits for pictures wider than 8, else 8.
  TsampleType type() const { return fType; }
  // The next row from the top: the reader's channels, interleaved, premultiplied.
  bool next(uint8_t* row, std::string& why);

 private:
  static int feed(void* self, uint8_t** color, float** depth);

  TimageReader* fReader = nullptr;
  ILzoom* fZoom = nullptr;
  TsampleType fType = TsampleType::kUint8;
  int32_t fWidth = 0, fSourceRow = 0;
  std::vector<uint8_t> fSource, fWide, fResult;
  std::string fError;
};

}  // namespace kelpio
