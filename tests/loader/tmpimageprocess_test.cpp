// Loading on the image thread: answers at the file's size and at a wanted
// one, the answer for a missing file, blocking and callbacks, stopping with
// requests waiting, and many threads posting, taking, flushing and shutting
// down at once.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "kelpimage/base/terrorhandler.h"
#include "kelpimage/il/il.h"
#include "kelpimage/loader/tmpimageprocess.h"
#include "testutil.h"

using namespace kelptest;

namespace {

void writePicture(const std::string& name, int w, int h) {
  ILimage* im = ILopen(name.c_str(), "w");
  ASSERT_NE(im, nullptr);
  ILsetsize(im, w, h);
  ILsettype(im, ILT_COLOR | ILT_ALPHA);
  std::vector<uint8_t> px(size_t(w) * size_t(h) * 4, 200);
  ASSERT_EQ(ILsave(im, px.data(), nullptr, 0), 0);
  ASSERT_EQ(ILclose(im), 0);
}

std::atomic<int> gCalls{0};
void countCall(int32_t data) { gCalls += data; }

}  // namespace

TEST(TmpImageProcess, AnswersSizesAndCallbacks) {
  Reports reports;
  TempDir dir;
  writePicture(dir.file("a.iff"), 32, 24);
  TmpImageProcess::flushRequestQueue();
  EXPECT_FALSE(TmpImageProcess::isImageProcess());  // flushing makes nothing

  TmpImageProcess& p = TmpImageProcess::imageProcess();
  EXPECT_TRUE(TmpImageProcess::isImageProcess());
  TimageLoadRequest own(Tstring(dir.file("a.iff")), TportRect());
  own.setCallback(countCall, 5);
  p.request(own);
  TimageLoadAnswer a = p.answer();  // waits for the thread
  EXPECT_EQ(a.name().str(), dir.file("a.iff"));
  EXPECT_EQ(a.pixelMap()->width(), 32);
  EXPECT_EQ(a.pixelMap()->height(), 24);
  delete a.pixelMap();

  p.request(Tstring(dir.file("a.iff")), TportRect(0, 0, 8, 6));
  p.request(Tstring(dir.file("missing.iff")), TportRect(0, 0, 8, 6));
  TimageLoadAnswer zoomed = p.answer(), missing = p.answer();
  EXPECT_EQ(zoomed.pixelMap()->width(), 8);
  EXPECT_EQ(zoomed.pixelMap()->height(), 6);
  EXPECT_EQ(missing.name().str(), dir.file("missing.iff"));
  EXPECT_EQ(missing.pixelMap()->width(), 0);
  delete zoomed.pixelMap();
  delete missing.pixelMap();
  EXPECT_NE(reports.text.find("Image file read failed: " + dir.file("missing.iff")), std::string::npos) << reports.text;
  EXPECT_EQ(gCalls.load(), 5);
  TmpImageProcess::shutdownImageProcess();
  TmpImageProcess::shutdownImageProcess();  // twice: nothing
  EXPECT_FALSE(TmpImageProcess::isImageProcess());
}

// An empty name stops the thread; what comes after stays unanswered until
// the shutdown drops it. A new instance works again.
TEST(TmpImageProcess, StoppingWithRequestsWaiting) {
  Reports reports;
  TempDir dir;
  writePicture(dir.file("big.iff"), 1024, 768);
  TmpImageProcess& p = TmpImageProcess::imageProcess();
  p.request(Tstring(), TportRect());
  p.request(Tstring(dir.file("big.iff")), TportRect());
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(p.answers(), 0u);
  TmpImageProcess::shutdownImageProcess();

  TmpImageProcess& q = TmpImageProcess::imageProcess();
  for (int i = 0; i < 40; ++i) q.request(Tstring(dir.file("big.iff")), TportRect(0, 0, 100, 100));
  TmpImageProcess::shutdownImageProcess();  // returns once the file being read is done
  EXPECT_FALSE(TmpImageProcess::isImageProcess());
  TmpImageProcess& r = TmpImageProcess::imageProcess();
  r.request(Tstring(dir.file("big.iff")), TportRect(0, 0, 10, 10));
  TimageLoadAnswer a = r.answer();
  EXPECT_EQ(a.pixelMap()->width(), 10);
  delete a.pixelMap();
  TmpImageProcess::shutdownImageProcess();
}

// Several threads post hundreds of requests for good, missing and damaged
// files while one takes answers and another flushes; the first use comes
// from two threads at once, and the shutdown comes while the thread loads.
TEST(TmpImageProcessConcurrency, PostTakeFlushAndShutDown) {
  Reports reports;
  TempDir dir;
  writePicture(dir.file("good.iff"), 64, 48);
  std::vector<uint8_t> bytes = readBytes(dir.file("good.iff"));
  writeBytes(dir.file("damaged.iff"), std::vector<uint8_t>(bytes.begin(), bytes.begin() + long(bytes.size() / 2)));
  const std::vector<std::string> names = {dir.file("good.iff"), dir.file("missing.iff"), dir.file("damaged.iff")};

  TmpImageProcess* first[2] = {};
  std::thread a([&] { first[0] = &TmpImageProcess::imageProcess(); });
  std::thread b([&] { first[1] = &TmpImageProcess::imageProcess(); });
  a.join();
  b.join();
  ASSERT_EQ(first[0], first[1]);
  TmpImageProcess& p = *first[0];

  std::atomic<bool> posting{true};
  std::atomic<int> taken{0}, goodTaken{0};
  std::mutex seenLock;
  std::set<std::string> seen;
  std::thread taker([&] {
    while (posting.load() || p.answers() > 0) {
      TimageLoadAnswer answer;
      if (!p.tryAnswer(answer)) {
        std::this_thread::yield();
        continue;
      }
      ++taken;
      if (answer.name().str() == names[0]) {
        ++goodTaken;
        EXPECT_EQ(answer.pixelMap()->width(), 16);
      }
      {
        std::lock_guard<std::mutex> hold(seenLock);
        seen.insert(answer.name().str());
      }
      if (answer.hasPixelMap()) delete answer.pixelMap();
    }
  });
  std::vector<std::thread> posters;
  for (int t = 0; t < 4; ++t)
    posters.emplace_back([&, t] {
      for (int i = 0; i < 150; ++i) p.request(Tstring(names[size_t(i + t) % 3]), TportRect(0, 0, 16, 12));
    });
  std::thread flusher([&] {
    for (int i = 0; i < 5; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
      TmpImageProcess::flushRequestQueue();
    }
  });
  for (auto& t : posters) t.join();
  flusher.join();
  // The flushes may have emptied the queue before anything loaded on a busy
  // machine: one more request, after them, is answered for certain.
  p.request(Tstring(names[0]), TportRect(0, 0, 16, 12));
  for (int i = 0; i < 1000 && taken.load() == 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  posting = false;
  taker.join();
  for (int i = 0; i < 50; ++i) p.request(Tstring(names[0]), TportRect());
  TmpImageProcess::shutdownImageProcess();  // while it loads, with requests and perhaps answers waiting
  EXPECT_FALSE(TmpImageProcess::isImageProcess());
  EXPECT_GT(taken.load(), 0);
  EXPECT_LE(taken.load(), 601);
  for (const std::string& name : seen) EXPECT_TRUE(name == names[0] || name == names[1] || name == names[2]) << name;
}
