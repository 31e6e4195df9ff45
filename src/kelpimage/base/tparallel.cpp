#include "kelpimage/base/tparallel.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <exception>
#include <list>
#include <mutex>
#include <thread>
#include <vector>

unsigned TthreadsFor(unsigned threads, size_t count) {
  if (threads == 0) threads = std::max(1u, std::thread::hardware_concurrency());
  return unsigned(std::clamp<size_t>(std::min<size_t>(threads, count), 1, 256));
}

namespace {

// One loop in progress: its pieces go to whichever thread asks next.
struct Loop {
  Loop(size_t pieces, const std::function<void(size_t)>& work, unsigned others)
      : count(pieces), body(work), helpers(others) {}

  size_t count;
  const std::function<void(size_t)>& body;
  unsigned helpers;  // threads of the pool it may take besides the caller's
  std::atomic<size_t> next{0};
  std::atomic<bool> stop{false};
  std::mutex errorLock;
  std::exception_ptr first;
  unsigned joined = 0, active = 0;  // helpers that came, and that are still at it: the pool's lock

  void run() {
    for (size_t i; !stop && (i = next++) < count;) {
      try {
        body(i);
      } catch (...) {
        std::lock_guard<std::mutex> hold(errorLock);
        if (!first) first = std::current_exception();
        stop = true;
      }
    }
  }
};

// The threads every loop of the process shares, started as loops first ask
// for them and kept until the process ends. A loop's caller works on it too
// and never waits for a piece nobody has started, so that a loop inside a
// loop, whose helpers may all be busy, still finishes: on its caller alone.
class Pool {
 public:
  static Pool& shared() {
    // Never destroyed: a thread still in a loop at exit must not find it gone.
    static Pool* pool = new Pool;
    return *pool;
  }

  void offer(Loop& loop) {
    std::lock_guard<std::mutex> hold(fLock);
    while (fThreads.size() < loop.helpers) fThreads.emplace_back([this] { serve(); });
    fLoops.push_back(&loop);
    fWork.notify_all();
    fDone.notify_all();
  }

  // No helper comes to `loop` after this; returns once those that came are
  // done, working on other loops meanwhile: a loop inside one of its pieces
  // may be waiting for just this thread.
  void withdraw(Loop& loop) {
    std::unique_lock<std::mutex> hold(fLock);
    fLoops.remove(&loop);
    while (loop.active != 0) {
      if (fLoops.empty()) {
        fDone.wait(hold);
        continue;
      }
      help(hold);
    }
  }

 private:
  // Takes the oldest loop that wants a helper and works on it; under the lock.
  void help(std::unique_lock<std::mutex>& hold) {
    Loop* loop = fLoops.front();
    if (++loop->joined >= loop->helpers) fLoops.pop_front();
    ++loop->active;
    hold.unlock();
    loop->run();
    hold.lock();
    if (--loop->active == 0) fDone.notify_all();
  }

  void serve() {
    std::unique_lock<std::mutex> hold(fLock);
    for (;;) {
      fWork.wait(hold, [&] { return !fLoops.empty(); });
      help(hold);
    }
  }

  std::mutex fLock;
  std::condition_variable fWork, fDone;
  std::list<Loop*> fLoops;  // loops that take more helpers, the oldest first
  std::vector<std::thread> fThreads;
};

}  // namespace

void TparallelFor(size_t count, unsigned threads, const std::function<void(size_t)>& body) {
  if (count == 0) return;
  Loop loop(count, body, TthreadsFor(threads, count) - 1);
  if (loop.helpers > 0) Pool::shared().offer(loop);
  loop.run();
  if (loop.helpers > 0) Pool::shared().withdraw(loop);
  if (loop.first) std::rethrow_exception(loop.first);
}
