// The quick blur: a picture resampled down and up again through the zoom.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <mutex>
#include <vector>

#include "kelpimage/il/ilzoom.h"

namespace {
struct RasterSource {
  const uint8_t* next;
  int32_t width;
};

int rasterLine(void* arg, uint8_t** color, float** depth) {
  auto* s = static_cast<RasterSource*>(arg);
  if (color) *color = const_cast<uint8_t*>(s->next);
  if (depth) *depth = nullptr;
  s->next += size_t(s->width) * 4;
  return 0;
}

// The two records of the blur, made on first use; they stay for the process.
struct BlurPair {
  std::mutex lock;
  ILzoom* reducer = nullptr;
  ILzoom* expander = nullptr;
};
}  // namespace

static int unguardedQblur(void* out, const void* in, int32_t w, int32_t h, float blur) {
  size_t bytes = size_t(w) * size_t(h) * 4;
  if (blur <= 0.0f) {
    if (out != in) std::memmove(out, in, bytes);
    return 0;
  }
  static BlurPair& pair = *new BlurPair;
  std::lock_guard<std::mutex> guard(pair.lock);
  if (!pair.reducer) pair.reducer = ILnewzoom("gauss");
  if (!pair.expander) pair.expander = ILnewzoom("gauss");
  if (!pair.reducer || !pair.expander) return flerrno;
  ILsetzoomblur(pair.expander, blur, blur);

  // Reading runs behind writing; a blur in place reads from a copy.
  std::vector<uint8_t> copy;
  if (out == in) copy.assign(static_cast<const uint8_t*>(in), static_cast<const uint8_t*>(in) + bytes);
  RasterSource source{copy.empty() ? static_cast<const uint8_t*>(in) : copy.data(), w};
  float a = float(w) * blur * 0.01f, b = float(h) * blur * 0.01f;
  if (a < 1.5f && b < 1.5f) {
    ILbindzoom(pair.expander, &source, rasterLine, 0, w, h, w, h);
  } else {
    a = std::clamp(a, 1.0f, 4096.0f);
    b = std::clamp(b, 1.0f, 4096.0f);
    int32_t rw = int32_t(std::max(4.0f, float(w) / a)), rh = int32_t(std::max(4.0f, float(h) / b));
    ILbindzoom(pair.reducer, &source, rasterLine, 0, rw, rh, w, h);
    ILbindzoom(pair.expander, pair.reducer, ILgetzoom, 0, w, h, rw, rh);
  }
  auto* dst = static_cast<uint8_t*>(out);
  for (int32_t y = 0; y < h; ++y) ILreadzoom(pair.expander, dst + size_t(y) * size_t(w) * 4, nullptr);
  return 0;
}

// The entry points: no exception leaves the library; running out of memory
// is FL_ENOMEM, anything else unexpected FL_EFIT.
int ILqblur(void* out, const void* in, int32_t w, int32_t h, float blur) {
  return ILguard([&] { return unguardedQblur(out, in, w, h, blur); });
}
