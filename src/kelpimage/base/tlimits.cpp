#include "kelpimage/base/tlimits.h"

#include <atomic>
#include <cstdlib>
#include <limits>

namespace {

uint64_t fromEnvironment() {
  const char* text = std::getenv("KELP_MAX_PIXELS");
  if (!text || !*text) return TpixelLimit::kDefault;
  char* end = nullptr;
  unsigned long long value = std::strtoull(text, &end, 10);
  return end && *end == '\0' && value > 0 ? uint64_t(value) : TpixelLimit::kDefault;
}

std::atomic<uint64_t>& limit() {
  static std::atomic<uint64_t> value{fromEnvironment()};
  return value;
}

}  // namespace

uint64_t TpixelLimit::get() { return limit().load(std::memory_order_relaxed); }

void TpixelLimit::set(uint64_t pixels) { limit().store(pixels ? pixels : kDefault, std::memory_order_relaxed); }

bool TpixelLimit::allows(uint64_t width, uint64_t height) {
  uint64_t pixels = 0;
  return width >= 1 && height >= 1 && TcheckedProduct(width, height, 1, 1, pixels) && pixels <= get();
}

std::string TpixelLimit::refusal(uint64_t width, uint64_t height) {
  return "a picture of " + std::to_string(width) + " x " + std::to_string(height) + " pixels is past the limit of " +
         std::to_string(get()) + " pixels (KELP_MAX_PIXELS, or kimg --limit, raises it)";
}

bool TplausibleSize(uint64_t width, uint64_t height, int64_t bytes, uint64_t pixelsPerByte) {
  if (bytes < 0) return true;
  uint64_t pixels = 0, most = 0;
  if (!TcheckedProduct(width, height, 1, 1, pixels)) return false;
  if (!TcheckedProduct(uint64_t(bytes) + 1, pixelsPerByte, 1, 1, most)) return true;
  return pixels <= most;
}

bool TcheckedProduct(uint64_t a, uint64_t b, uint64_t c, uint64_t d, uint64_t& out) {
  uint64_t r = 0;
  if (__builtin_mul_overflow(a, b, &r) || __builtin_mul_overflow(r, c, &r) || __builtin_mul_overflow(r, d, &r))
    return false;
  out = r;
  return true;
}

bool TcheckedSize(uint64_t a, uint64_t b, uint64_t c, uint64_t d, size_t& out) {
  uint64_t r = 0;
  if (!TcheckedProduct(a, b, c, d, r) || r > std::numeric_limits<size_t>::max()) return false;
  out = size_t(r);
  return true;
}
