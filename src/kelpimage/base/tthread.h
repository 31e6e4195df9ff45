// Locks, condition variables, threads and counters.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include "kelpimage/kelpexport.h"

class TmtCriticalSection;

// Holds a critical section until it leaves its scope or is released.
class KELP_API TmtLock {
 public:
  TmtLock() = default;
  explicit TmtLock(TmtCriticalSection* section);
  TmtLock(TmtLock&& other) noexcept : fSection(other.fSection) { other.fSection = nullptr; }
  TmtLock& operator=(TmtLock&& other) noexcept;
  TmtLock(const TmtLock&) = delete;
  TmtLock& operator=(const TmtLock&) = delete;
  ~TmtLock() { release(); }
  void release();
  bool holds() const { return fSection != nullptr; }

 private:
  friend class TmtConditionVar;
  TmtCriticalSection* fSection = nullptr;
};

// A lock that the thread holding it may take again.
class KELP_API TmtCriticalSection {
 public:
  TmtCriticalSection() = default;
  TmtCriticalSection(const TmtCriticalSection&) = delete;
  TmtCriticalSection& operator=(const TmtCriticalSection&) = delete;
  [[nodiscard]] TmtLock acquire() { return TmtLock(this); }
  [[nodiscard]] TmtLock acquireWrite() { return TmtLock(this); }
  void lock() { fMutex.lock(); }
  void release() { fMutex.unlock(); }

 private:
  friend class TmtConditionVar;
  std::recursive_mutex fMutex;
};

class KELP_API TmtConditionVar {
 public:
  // Releases the lock while waiting and holds it again on return.
  void wait(TmtLock& lock);
  void signal() { fCond.notify_one(); }
  void broadcast() { fCond.notify_all(); }

 private:
  std::condition_variable_any fCond;
};

// A running thread. Its shutdown hook, if set, asks the thread to stop.
class KELP_API TmtThread {
 public:
  using Function = void (*)(void*);
  TmtThread(Function fn, void* arg);
  ~TmtThread();
  TmtThread(const TmtThread&) = delete;
  TmtThread& operator=(const TmtThread&) = delete;

  void setShutdown(Function hook, void* arg) {
    fShutdown = hook;
    fShutdownArg = arg;
  }
  // Runs the shutdown hook, then waits for the thread.
  void shutdown();
  // Waits for the thread to end. A thread cannot wait for itself: that call
  // is refused and returns false.
  bool join();
  bool joinable() const { return fThread.joinable(); }

 private:
  std::thread fThread;
  Function fShutdown = nullptr;
  void* fShutdownArg = nullptr;
};

// The process-wide launcher of threads. The caller owns what it gets.
class KELP_API TmtThreadPool {
 public:
  static TmtThreadPool& getPool();
  TmtThread* launchThread(TmtThread::Function fn, void* arg);
};

class KELP_API TmtRefCounter {
 public:
  explicit TmtRefCounter(long start = 0) : fCount(start) {}
  long add() { return ++fCount; }
  long remove() { return --fCount; }
  long value() const { return fCount.load(); }

 private:
  std::atomic<long> fCount;
};
