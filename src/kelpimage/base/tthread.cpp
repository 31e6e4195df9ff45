#include "kelpimage/base/tthread.h"

#include <new>

TmtLock::TmtLock(TmtCriticalSection* section) : fSection(section) {
  if (fSection) fSection->lock();
}

TmtLock& TmtLock::operator=(TmtLock&& other) noexcept {
  if (this != &other) {
    release();
    fSection = other.fSection;
    other.fSection = nullptr;
  }
  return *this;
}

void TmtLock::release() {
  if (fSection) fSection->release();
  fSection = nullptr;
}

void TmtConditionVar::wait(TmtLock& lock) {
  if (!lock.fSection) return;
  fCond.wait(lock.fSection->fMutex);
}

TmtThread::TmtThread(Function fn, void* arg) : fThread(fn, arg) {}

// A thread object that its own thread deletes lets the thread run on.
TmtThread::~TmtThread() {
  if (!join() && fThread.joinable()) fThread.detach();
}

void TmtThread::shutdown() {
  if (fShutdown) fShutdown(fShutdownArg);
  join();
}

bool TmtThread::join() {
  if (!fThread.joinable()) return true;
  if (fThread.get_id() == std::this_thread::get_id()) return false;
  fThread.join();
  return true;
}

TmtThreadPool& TmtThreadPool::getPool() {
  static TmtThreadPool pool;
  return pool;
}

TmtThread* TmtThreadPool::launchThread(TmtThread::Function fn, void* arg) {
  try {
    return new TmtThread(fn, arg);
  } catch (...) {
    return nullptr;
  }
}
