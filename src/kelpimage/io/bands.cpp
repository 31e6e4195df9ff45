#include "kelpimage/io/bands.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace kelpio {

bool runBands(int32_t height, int32_t band, bool pipelined, const BandStep& read, const BandStep& write) {
  const int32_t bands = (height + band - 1) / band;
  auto rows = [&](int32_t b, int32_t& y0, int32_t& y1) {
    y0 = b * band;
    y1 = std::min(height, y0 + band);
  };
  int32_t y0 = 0, y1 = 0;
  if (!pipelined || bands < 2) {
    for (int32_t b = 0; b < bands; ++b) {
      rows(b, y0, y1);
      if (!read(y0, y1, 0) || !write(y0, y1, 0)) return false;
    }
    return true;
  }
  std::mutex lock;
  std::condition_variable changed;
  int32_t read_ = 0, written = 0;  // bands done on each side
  bool failed = false;
  std::thread reader([&] {
    for (int32_t b = 0; b < bands; ++b) {
      {
        std::unique_lock<std::mutex> hold(lock);
        changed.wait(hold, [&] { return failed || b - written < 2; });  // a slot is free
        if (failed) return;
      }
      int32_t r0, r1;
      rows(b, r0, r1);
      bool ok = read(r0, r1, b % 2);
      std::lock_guard<std::mutex> hold(lock);
      if (ok) read_ = b + 1;
      else failed = true;
      changed.notify_all();
      if (!ok) return;
    }
  });
  bool ok = true;
  for (int32_t b = 0; b < bands && ok; ++b) {
    {
      std::unique_lock<std::mutex> hold(lock);
      changed.wait(hold, [&] { return failed || read_ > b; });
      if (read_ <= b) {
        ok = false;
        break;
      }
    }
    rows(b, y0, y1);
    ok = write(y0, y1, b % 2);
    std::lock_guard<std::mutex> hold(lock);
    written = b + 1;
    if (!ok) failed = true;
    changed.notify_all();
  }
  reader.join();
  return ok && !failed;
}

}  // namespace kelpio
