#include "kelpimage/io/resample.h"

#include <cstring>

#include "kelpimage/il/il.h"

namespace kelpio {
namespace {

// `pixels` pixels of `channels` samples of `bytes` each into four (colour,
// colour, colour, alpha), as the zoom takes them; and back.
void widen(const uint8_t* in, uint8_t* out, int channels, size_t bytes, size_t pixels) {
  const bool grey = channels < 3, alpha = channels == 2 || channels == 4;
  for (size_t x = 0; x < pixels; ++x, in += size_t(channels) * bytes, out += 4 * bytes) {
    for (int c = 0; c < 3; ++c) std::memcpy(out + size_t(c) * bytes, in + size_t(grey ? 0 : c) * bytes, bytes);
    if (alpha) std::memcpy(out + 3 * bytes, in + size_t(channels - 1) * bytes, bytes);
    else std::memset(out + 3 * bytes, 0xFF, bytes);
  }
}

void narrow(const uint8_t* in, uint8_t* out, int channels, size_t bytes, size_t pixels) {
  const bool grey = channels < 3, alpha = channels == 2 || channels == 4;
  for (size_t x = 0; x < pixels; ++x, in += 4 * bytes, out += size_t(channels) * bytes) {
    std::memcpy(out, in, (grey ? 1 : 3) * bytes);
    if (alpha) std::memcpy(out + size_t(channels - 1) * bytes, in + 3 * bytes, bytes);
  }
}

}  // namespace

Resampler::~Resampler() {
  if (fZoom) ILdelzoom(fZoom);
}

int Resampler::feed(void* arg, uint8_t** color, float** depth) {
  auto* self = static_cast<Resampler*>(arg);
  if (depth) *depth = nullptr;
  std::string why;
  if (self->fSourceRow >= self->fSpec.height || !self->fRows(self->fSourceRow, self->fSource.data(), why)) {
    self->fError = why.empty() ? "the rows ran out" : why;
    return FL_EFIT;
  }
  ++self->fSourceRow;
  widen(self->fSource.data(), self->fWide.data(), self->fSpec.channels(), TsampleBytes(self->fType),
        size_t(self->fSpec.width));
  if (color) *color = self->fWide.data();
  return 0;
}

bool Resampler::start(TimageReader& reader, int32_t width, int32_t height, const std::string& filter, float blurX,
                      float blurY, std::string& why) {
  TsampleType type = reader.spec().sampleType == TsampleType::kUint8 ? TsampleType::kUint8 : TsampleType::kUint16;
  auto rows = [&reader, type](int32_t y, uint8_t* row, std::string& failed) {
    if (reader.readRows(y, y + 1, row, type, 0, Tassociation::kPremultiplied)) return true;
    failed = reader.error();
    return false;
  };
  return start(reader.spec(), rows, width, height, filter, blurX, blurY, why);
}

bool Resampler::start(const TimageSpec& source, Rows rows, int32_t width, int32_t height, const std::string& filter,
                      float blurX, float blurY, std::string& why) {
  fSpec = source;
  fRows = std::move(rows);
  fType = source.sampleType == TsampleType::kUint8 ? TsampleType::kUint8 : TsampleType::kUint16;
  const size_t bytes = TsampleBytes(fType);
  fWidth = width;
  fSourceRow = 0;
  fSource.assign(source.rowBytes(fType), 0);
  fWide.assign(size_t(source.width) * 4 * bytes, 0);
  fResult.assign(size_t(width) * 4 * bytes, 0);
  flerrno = 0;
  fZoom = ILnewzoom(filter.empty() ? nullptr : filter.c_str());
  std::string broken = ILfiltererror();
  if (!broken.empty()) return why = broken, false;
  if (!filter.empty() && flerrno == IL_ENOFILTER) return why = "there is no zoom filter \"" + filter + "\"", false;
  if (!fZoom) return why = FLstrerror(flerrno), false;
  ILsetzoomblur(fZoom, blurX, blurY);
  int mode = bytes == 2 ? 3 : 0;
  if (ILbindzoom(fZoom, this, feed, mode, width, height, source.width, source.height) > 1)
    return why = FLstrerror(flerrno), false;
  return true;
}

bool Resampler::next(uint8_t* row, std::string& why) {
  if (int rc = ILreadzoom(fZoom, fResult.data(), nullptr)) return why = fError.empty() ? FLstrerror(rc) : fError, false;
  if (ILzoomswapped(fZoom)) ILswappairs16(fResult.data(), fWidth);
  narrow(fResult.data(), row, fSpec.channels(), TsampleBytes(fType), size_t(fWidth));
  return true;
}

}  // namespace kelpio
