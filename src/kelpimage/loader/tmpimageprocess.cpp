#include "kelpimage/loader/tmpimageprocess.h"

#include <mutex>

#include "kelpimage/base/terrorhandler.h"
#include "kelpimage/image/timagefile.h"

std::atomic<TmpImageProcess*> TmpImageProcess::fsImageProcess{nullptr};

namespace {
// Guards making and destroying the instance.
std::mutex& instanceGate() {
  static std::mutex gate;
  return gate;
}

void dropAnswer(TimageLoadAnswer& a) {
  if (a.hasPixelMap()) delete a.pixelMap();
}
}  // namespace

TmpImageProcess::TmpImageProcess() {
  fThread = TmtThreadPool::getPool().launchThread(sImageThread, this);
  // Without a thread the instance still exists, and requests wait.
  if (fThread) fThread->setShutdown(shutdownImageThread, this);
}

TmpImageProcess::~TmpImageProcess() {
  if (fThread) {
    fThread->shutdown();
    delete fThread;
  }
  fRequests.clear([](TimageLoadRequest&) {});
  fAnswers.clear(dropAnswer);
}

TmpImageProcess& TmpImageProcess::imageProcess() {
  if (TmpImageProcess* p = fsImageProcess.load()) return *p;
  std::lock_guard<std::mutex> hold(instanceGate());
  if (!fsImageProcess.load()) fsImageProcess.store(new TmpImageProcess);
  return *fsImageProcess.load();
}

bool TmpImageProcess::isImageProcess() { return fsImageProcess.load() != nullptr; }

void TmpImageProcess::flushRequestQueue() {
  std::lock_guard<std::mutex> hold(instanceGate());
  TmpImageProcess* p = fsImageProcess.load();
  if (!p) return;
  p->fRequests.clear([](TimageLoadRequest&) {});
  p->fAnswers.clear(dropAnswer);
}

void TmpImageProcess::shutdownImageThread(void* process) {
  auto* p = static_cast<TmpImageProcess*>(process);
  p->fRequests.clear([](TimageLoadRequest&) {});
  p->fRequests.push(TimageLoadRequest(Tstring(), TportRect()));
}

void TmpImageProcess::shutdownImageProcess() {
  std::lock_guard<std::mutex> hold(instanceGate());
  TmpImageProcess* p = fsImageProcess.load();
  if (!p) return;
  // The destructor asks the thread to stop and waits for it.
  delete p;
  fsImageProcess.store(nullptr);
}

void TmpImageProcess::sImageThread(void* process) {
  auto* p = static_cast<TmpImageProcess*>(process);
  TimageFile file;  // reused from request to request
  for (;;) {
    TimageLoadRequest r = p->request();
    if (r.name().isEmpty()) break;
    auto* map = new TpixelMap;
    if (file.identifyAndOpen(r.name(), false, 0) != 0) {
      TerrorHandler::send(Tstring("Image file read failed: ") + r.name());
    } else {
      if (file.readPixelMap(*map) == 0 && r.height() > 0 && r.width() > 0) map->zoom(r);
      file.close();
    }
    // Every request is answered, so that a caller waiting is never left so.
    p->answer(TimageLoadAnswer(r.name(), map));
    if (r.callback()) r.callback()(r.callbackData());
  }
}
