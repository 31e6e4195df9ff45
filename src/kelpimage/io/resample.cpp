#include "kelpimage/io/resample.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include "kelpimage/il/il.h"
#include "kelpimage/io/bands.h"

namespace kelpio {
namespace {

// `pixels` pixels of `channels` samples into four (colour, colour, colour,
// alpha), as the zoom takes them; and back.
template <typename T>
void widenAs(const uint8_t* in, uint8_t* out, int channels, size_t pixels) {
  const T* from = reinterpret_cast<const T*>(in);
  T* to = reinterpret_cast<T*>(out);
  const T opaque = T(~T(0));
  switch (channels) {
    case 4: std::memcpy(to, from, pixels * 4 * sizeof(T)); break;
    case 3:
      for (size_t x = 0; x < pixels; ++x, from += 3, to += 4)
        to[0] = from[0], to[1] = from[1], to[2] = from[2], to[3] = opaque;
      break;
    case 2:
      for (size_t x = 0; x < pixels; ++x, from += 2, to += 4) to[0] = to[1] = to[2] = from[0], to[3] = from[1];
      break;
    default:
      for (size_t x = 0; x < pixels; ++x, ++from, to += 4) to[0] = to[1] = to[2] = from[0], to[3] = opaque;
  }
}

template <typename T>
void narrowAs(const uint8_t* in, uint8_t* out, int channels, size_t pixels) {
  const T* from = reinterpret_cast<const T*>(in);
  T* to = reinterpret_cast<T*>(out);
  switch (channels) {
    case 4: std::memcpy(to, from, pixels * 4 * sizeof(T)); break;
    case 3:
      for (size_t x = 0; x < pixels; ++x, from += 4, to += 3) to[0] = from[0], to[1] = from[1], to[2] = from[2];
      break;
    case 2:
      for (size_t x = 0; x < pixels; ++x, from += 4, to += 2) to[0] = from[0], to[1] = from[3];
      break;
    default:
      for (size_t x = 0; x < pixels; ++x, from += 4) *to++ = from[0];
  }
}

void widen(const uint8_t* in, uint8_t* out, int channels, size_t bytes, size_t pixels) {
  if (bytes == 2)
    widenAs<uint16_t>(in, out, channels, pixels);
  else
    widenAs<uint8_t>(in, out, channels, pixels);
}

void narrow(const uint8_t* in, uint8_t* out, int channels, size_t bytes, size_t pixels) {
  if (bytes == 2)
    narrowAs<uint16_t>(in, out, channels, pixels);
  else
    narrowAs<uint8_t>(in, out, channels, pixels);
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
                      float blurY, int threads, std::string& why) {
  TsampleType type = reader.spec().sampleType == TsampleType::kUint8 ? TsampleType::kUint8 : TsampleType::kUint16;
  if (threads == 1) {
    auto rows = [&reader, type](int32_t y, uint8_t* row, std::string& failed) {
      if (reader.readRows(y, y + 1, row, type, 0, Tassociation::kPremultiplied)) return true;
      failed = reader.error();
      return false;
    };
    return start(reader.spec(), rows, width, height, filter, blurX, blurY, why);
  }
  const size_t rowBytes = reader.spec().rowBytes(type);
  const int32_t band = int32_t(std::max<size_t>(1, (size_t(1) << 20) / std::max<size_t>(rowBytes, 1)));
  // The source is decoded a band ahead, on its own thread, while the zoom works.
  auto error = std::make_shared<std::string>();
  auto prefetch = std::make_shared<RowPrefetch>(
      reader.spec().height, band, rowBytes, [&reader, type, rowBytes, error](int32_t y0, int32_t y1, uint8_t* into) {
        if (reader.readRows(y0, y1, into, type, ptrdiff_t(rowBytes), Tassociation::kPremultiplied)) return true;
        *error = reader.error();
        return false;
      });
  fPrefetch = prefetch;
  auto rows = [prefetch, error, rowBytes](int32_t y, uint8_t* row, std::string& failed) {
    const uint8_t* from = prefetch->row(y);
    if (!from) return failed = *error, false;
    std::memcpy(row, from, rowBytes);
    return true;
  };
  return start(reader.spec(), rows, width, height, filter, blurX, blurY, why, threads);
}

bool Resampler::start(const TimageInfo& source, Rows rows, int32_t width, int32_t height, const std::string& filter,
                      float blurX, float blurY, std::string& why, int threads) {
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
  ILsetzoomthreads(fZoom, uint32_t(std::max(threads, 0)));
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
