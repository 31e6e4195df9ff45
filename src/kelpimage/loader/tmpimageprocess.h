// Loading images on a thread of their own. A caller posts a request (a file
// and a wanted size); the one image thread of the process reads the file
// through a TimageFile, resizes it if asked, and posts an answer with the
// name and a new TpixelMap, which the caller takes when it likes, or is told
// of through the request's callback (run on the image thread).
//
// The host calls shutdownImageProcess before it unloads the library.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>

#include "kelpimage/base/tgeometry.h"
#include "kelpimage/base/tpixelmap.h"
#include "kelpimage/base/tstring.h"
#include "kelpimage/base/tthread.h"
#include "kelpimage/kelpexport.h"

// A file to load at the size of the rectangle (a side of 0: the file's own
// size). An empty name stops the image thread.
class KELP_API TimageLoadRequest : public TportRect {
 public:
  using Callback = void (*)(int32_t);
  TimageLoadRequest() = default;
  TimageLoadRequest(const Tstring& name, const TportRect& size) : TportRect(size), fName(name) {}
  const Tstring& name() const { return fName; }
  void setCallback(Callback callback, int32_t data) {
    fCallback = callback;
    fCallbackData = data;
  }
  Callback callback() const { return fCallback; }
  int32_t callbackData() const { return fCallbackData; }

 private:
  Tstring fName;
  Callback fCallback = nullptr;
  int32_t fCallbackData = 0;
};

// A loaded file: its name and its picture, empty when the file could not be
// read. The receiver owns the pixel map.
class KELP_API TimageLoadAnswer {
 public:
  TimageLoadAnswer() = default;
  TimageLoadAnswer(const Tstring& name, TpixelMap* map) : fName(name), fPixelMap(map) {}
  const Tstring& name() const { return fName; }
  // The picture; a new empty one when the answer has none.
  TpixelMap* pixelMap() {
    if (!fPixelMap) fPixelMap = new TpixelMap;
    return fPixelMap;
  }
  bool hasPixelMap() const { return fPixelMap != nullptr; }

 private:
  Tstring fName;
  TpixelMap* fPixelMap = nullptr;
};

// A first-in-first-out queue that any thread may push to and pop from.
template <class T>
class TimageQueue {
 public:
  void push(const T& item) {
    TmtLock hold = fLock.acquireWrite();
    fItems.push_back(item);
    fCount.store(uint32_t(fItems.size()));
    if (fWaiters != 0) fNotEmpty.signal();
  }
  // The oldest entry, waiting for one.
  T pop() {
    TmtLock hold = fLock.acquireWrite();
    ++fWaiters;
    while (fItems.empty()) fNotEmpty.wait(hold);
    --fWaiters;
    T item = fItems.front();
    fItems.pop_front();
    fCount.store(uint32_t(fItems.size()));
    return item;
  }
  // The oldest entry, if there is one, without waiting.
  bool tryPop(T& item) {
    TmtLock hold = fLock.acquireWrite();
    if (fItems.empty()) return false;
    item = fItems.front();
    fItems.pop_front();
    fCount.store(uint32_t(fItems.size()));
    return true;
  }
  // Removes every entry, handing each to `drop`.
  template <class Drop>
  void clear(Drop drop) {
    TmtLock hold = fLock.acquireWrite();
    for (T& item : fItems) drop(item);
    fItems.clear();
    fCount.store(0);
  }
  uint32_t count() const { return fCount.load(); }

 private:
  std::deque<T> fItems;
  std::atomic<uint32_t> fCount{0};
  TmtCriticalSection fLock;
  TmtConditionVar fNotEmpty;
  uint32_t fWaiters = 0;
};

class KELP_API TmpImageProcess {
 public:
  // The instance, made with its thread on first use; safe when several
  // threads ask first at once.
  static TmpImageProcess& imageProcess();
  static bool isImageProcess();
  // Drops every waiting request and answer (their pixel maps too); nothing
  // when there is no instance.
  static void flushRequestQueue();
  // Stops the thread after the file it is reading, drops what waits, and
  // destroys the instance. Twice is harmless.
  static void shutdownImageProcess();

  void request(const Tstring& name, const TportRect& size) { request(TimageLoadRequest(name, size)); }
  void request(const TimageLoadRequest& r) { fRequests.push(r); }
  // The image thread's side: the oldest request, waiting for one.
  TimageLoadRequest request() { return fRequests.pop(); }
  // The oldest answer, waiting for one.
  TimageLoadAnswer answer() { return fAnswers.pop(); }
  // The oldest answer if there is one, without waiting.
  bool tryAnswer(TimageLoadAnswer& a) { return fAnswers.tryPop(a); }
  void answer(const TimageLoadAnswer& a) { fAnswers.push(a); }
  // Answers waiting.
  uint32_t answers() const { return fAnswers.count(); }

  TmpImageProcess(const TmpImageProcess&) = delete;
  TmpImageProcess& operator=(const TmpImageProcess&) = delete;

 private:
  TmpImageProcess();
  ~TmpImageProcess();
  static void sImageThread(void* process);
  static void shutdownImageThread(void* process);

  TmtThread* fThread = nullptr;
  TimageQueue<TimageLoadRequest> fRequests;
  TimageQueue<TimageLoadAnswer> fAnswers;

  static std::atomic<TmpImageProcess*> fsImageProcess;
};
