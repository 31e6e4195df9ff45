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
      if (ok)
        read_ = b + 1;
      else
        failed = true;
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

struct RowPrefetch::State {
  std::mutex lock;
  std::condition_variable changed;
  int32_t read = 0, used = 0;  // bands filled, and bands given back
  bool failed = false, stop = false;
  std::thread reader;
};

RowPrefetch::RowPrefetch(int32_t height, int32_t band, size_t rowBytes, Fill read)
    : fState(std::make_unique<State>()), fHeight(height), fBand(std::max(band, 1)), fRowBytes(rowBytes) {
  fSlots[0].resize(rowBytes * size_t(fBand));
  fSlots[1].resize(rowBytes * size_t(fBand));
  const int32_t bands = (height + fBand - 1) / fBand;
  fState->reader = std::thread([this, bands, read = std::move(read)] {
    State& s = *fState;
    for (int32_t b = 0; b < bands; ++b) {
      {
        std::unique_lock<std::mutex> hold(s.lock);
        s.changed.wait(hold, [&] { return s.stop || b - s.used < 2; });
        if (s.stop) return;
      }
      bool ok = read(b * fBand, std::min(fHeight, (b + 1) * fBand), fSlots[b % 2].data());
      std::lock_guard<std::mutex> hold(s.lock);
      if (ok)
        s.read = b + 1;
      else
        s.failed = true;
      s.changed.notify_all();
      if (!ok) return;
    }
  });
}

RowPrefetch::~RowPrefetch() {
  {
    std::lock_guard<std::mutex> hold(fState->lock);
    fState->stop = true;
    fState->changed.notify_all();
  }
  fState->reader.join();
}

const uint8_t* RowPrefetch::row(int32_t y) {
  State& s = *fState;
  const int32_t b = y / fBand;
  std::unique_lock<std::mutex> hold(s.lock);
  if (b > s.used) {  // the band before is done with: its slot may be filled again
    s.used = b;
    s.changed.notify_all();
  }
  s.changed.wait(hold, [&] { return s.failed || s.read > b; });
  if (s.read <= b) return nullptr;
  return fSlots[b % 2].data() + size_t(y - b * fBand) * fRowBytes;
}

}  // namespace kelpio
