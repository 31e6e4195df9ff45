#include "kelpimage/base/tparallel.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

unsigned TthreadsFor(unsigned threads, size_t count) {
  if (threads == 0) threads = std::max(1u, std::thread::hardware_concurrency());
  return unsigned(std::clamp<size_t>(std::min<size_t>(threads, count), 1, 256));
}

void TparallelFor(size_t count, unsigned threads, const std::function<void(size_t)>& body) {
  if (count == 0) return;
  std::atomic<size_t> next{0};
  std::atomic<bool> stop{false};
  std::exception_ptr first;
  std::mutex lock;
  auto run = [&] {
    for (size_t i; !stop && (i = next++) < count;) {
      try {
        body(i);
      } catch (...) {
        std::lock_guard<std::mutex> hold(lock);
        if (!first) first = std::current_exception();
        stop = true;
      }
    }
  };
  std::vector<std::thread> pool;
  for (unsigned t = 1; t < TthreadsFor(threads, count); ++t) pool.emplace_back(run);
  run();
  for (std::thread& t : pool) t.join();
  if (first) std::rethrow_exception(first);
}
