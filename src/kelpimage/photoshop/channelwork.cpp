#include "kelpimage/photoshop/channelwork.h"

#include <algorithm>
#include <atomic>
#include <new>
#include <thread>
#include <vector>

#include "kelpimage/base/tparallel.h"

namespace zkPhotoshop {

unsigned threadsFor(unsigned threads) {
  if (threads == 0) threads = std::thread::hardware_concurrency();
  return std::clamp(threads, 1u, 8u);
}

namespace {

// Runs `work` on each channel on `threadCount` threads, the largest first.
template <class Work>
void eachInParallel(const std::vector<Tchannel*>& channels, unsigned threadCount, Work work) {
  std::vector<Tchannel*> jobs(channels);
  std::sort(jobs.begin(), jobs.end(),
            [](const Tchannel* a, const Tchannel* b) { return a->rawBytes() > b->rawBytes(); });
  std::atomic<bool> failed{false};
  // Every channel is tried; a memory failure in any is one bad_alloc at the end.
  TparallelFor(jobs.size(), threadsFor(threadCount), [&](size_t i) {
    try {
      work(*jobs[i]);
    } catch (...) {
      failed = true;
    }
  });
  if (failed) throw std::bad_alloc();
}

}  // namespace

void compressInParallel(const std::vector<Tchannel*>& channels, unsigned threads) {
  eachInParallel(channels, threads, [](Tchannel& ch) { ch.compress(false); });
}

void expandInParallel(const std::vector<Tchannel*>& channels, unsigned threads) {
  eachInParallel(channels, threads, [](Tchannel& ch) { ch.rawPointer(); });
}

}  // namespace zkPhotoshop
