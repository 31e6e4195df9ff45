#include "kelpimage/io/tresize.h"

#include <vector>

#include "kelpimage/io/resample.h"
#include "kelpimage/io/samples.h"

bool TresizePixels(const void* pixels, const TimageInfo& spec, ptrdiff_t rowStride, void* out, int32_t width,
                   int32_t height, const TresizeOptions& options, std::string& why) {
  if (spec.width < 1 || spec.height < 1 || width < 1 || height < 1 || width > 65535 || height > 65535)
    return why = "sizes are from 1 to 65535", false;
  const size_t inRow = rowStride ? size_t(rowStride) : spec.rowBytes(spec.sampleType);
  const int channels = spec.channels();
  const Tassociation association = spec.alpha ? spec.association : Tassociation::kStraight;
  std::vector<uint8_t> scratch;
  kelpio::Resampler zoom;
  const TsampleType work = spec.sampleType == TsampleType::kUint8 ? TsampleType::kUint8 : TsampleType::kUint16;
  auto rows = [&](int32_t y, uint8_t* row, std::string&) {
    kelpio::convertPixels(static_cast<const uint8_t*>(pixels) + size_t(y) * inRow, spec.sampleType, association, row,
                          work, Tassociation::kPremultiplied, channels, spec.alpha, size_t(spec.width), scratch);
    return true;
  };
  if (!zoom.start(spec, rows, width, height, options.filter, options.blurX, options.blurY, why)) return false;
  TimageInfo result = spec;
  result.width = width;
  result.height = height;
  std::vector<uint8_t> row(result.rowBytes(work));
  const size_t outRow = result.rowBytes(spec.sampleType);
  for (int32_t y = 0; y < height; ++y) {
    if (!zoom.next(row.data(), why)) return false;
    kelpio::convertPixels(row.data(), work, Tassociation::kPremultiplied,
                          static_cast<uint8_t*>(out) + size_t(y) * outRow, spec.sampleType, association, channels,
                          spec.alpha, size_t(width), scratch);
  }
  return true;
}
