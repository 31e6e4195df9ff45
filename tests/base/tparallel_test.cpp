// The library's one parallel loop: every piece once, nested and concurrent
// loops, the caller's thread count, and an exception brought home.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include "kelpimage/base/tparallel.h"

TEST(TparallelFor, EveryPieceOnceNestedAndConcurrent) {
  std::vector<std::atomic<int>> seen(300);
  auto loop = [&] {
    TparallelFor(30, 3, [&](size_t i) {
      TparallelFor(10, 2, [&](size_t j) { seen[i * 10 + j]++; });  // nested
    });
  };
  std::thread other(loop);  // two loops at once
  loop();
  other.join();
  for (const auto& n : seen) EXPECT_EQ(n.load(), 2);
}

TEST(TparallelFor, TheCallersThreadCount) {
  std::set<std::thread::id> threads;
  std::mutex lock;
  TparallelFor(64, 1, [&](size_t) {
    std::lock_guard<std::mutex> hold(lock);
    threads.insert(std::this_thread::get_id());
  });
  EXPECT_EQ(threads.size(), 1u);
  EXPECT_EQ(*threads.begin(), std::this_thread::get_id());
  EXPECT_EQ(TthreadsFor(8, 3), 3u);
  EXPECT_GE(TthreadsFor(0, 100), 1u);
  TparallelFor(0, 4, [](size_t) { FAIL() << "no pieces, no calls"; });
}

TEST(TparallelFor, AnExceptionComesHomeOnce) {
  for (unsigned threads : {1u, 2u}) {
    std::atomic<int> ran{0};
    EXPECT_THROW(TparallelFor(1000, threads,
                              [&](size_t i) {
                                ++ran;
                                if (i == 5) throw std::runtime_error("piece 5");
                              }),
                 std::runtime_error);
    if (threads == 1) {
      EXPECT_EQ(ran.load(), 6);  // the pieces after it are not started
    }
  }
}

// The pool's threads come to a loop only as far as its caller asks, and a
// loop inside a piece finishes though every helper is busy with the outer one.
TEST(TparallelFor, AtMostTheThreadsAskedAndNoWaitForBusyHelpers) {
  TparallelFor(8, 4, [](size_t) {});  // the pool has more threads than the loops below ask for
  for (unsigned threads : {1u, 2u}) {
    std::set<std::thread::id> seen;
    std::mutex lock;
    TparallelFor(2000, threads, [&](size_t) {
      std::lock_guard<std::mutex> hold(lock);
      seen.insert(std::this_thread::get_id());
    });
    EXPECT_LE(seen.size(), threads);
  }
  std::atomic<int> inner{0};
  TparallelFor(2, 2, [&](size_t piece) {
    if (piece == 0) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    TparallelFor(100, 2, [&](size_t) { ++inner; });
  });
  EXPECT_EQ(inner.load(), 200);
}
