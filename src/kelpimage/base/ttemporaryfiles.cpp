#include "kelpimage/base/ttemporaryfiles.h"

#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace {

// A fixed table of slots, so that the signal handler walks memory that is
// never reallocated. A process holds few named temporary files at once;
// past the table's size a file simply goes unlisted.
constexpr int kSlots = 1024;
std::atomic<char*> gSlots[kSlots];
// forget() reads other threads' entries to compare them: one forget at a
// time, so that none frees an entry another is still comparing.
std::mutex gForgetting;
// Set by the handler: the process is ending, and no thread makes another file.
std::atomic<bool> gEnding{false};

void onSignal(int signal) {
  gEnding = true;
  TtemporaryFiles::removeAllNow();
  // Other threads run on until the process ends: one that entered a file
  // just before may be making it now. It has made it by the second pass.
  timespec settle{0, 20'000'000};
  ::nanosleep(&settle, nullptr);
  TtemporaryFiles::removeAllNow();
  ::signal(signal, SIG_DFL);
  ::raise(signal);
}

}  // namespace

void TtemporaryFiles::add(const char* path) {
  if (!path || !*path) return;
  // A file entered now could outlive the handler's passes: this thread waits
  // for the end instead of making it.
  while (gEnding) ::pause();
  char* copy = ::strdup(path);
  if (!copy) return;
  for (auto& slot : gSlots) {
    char* empty = nullptr;
    if (slot.compare_exchange_strong(empty, copy)) return;
  }
  std::free(copy);
}

void TtemporaryFiles::forget(const char* path) {
  if (!path) return;
  char* found = nullptr;
  {
    std::lock_guard<std::mutex> hold(gForgetting);
    for (auto& slot : gSlots) {
      char* entry = slot.load();
      if (entry && std::strcmp(entry, path) == 0 && slot.compare_exchange_strong(entry, nullptr)) {
        found = entry;
        break;
      }
    }
  }
  std::free(found);
}

void TtemporaryFiles::removeAllNow() {
  for (auto& slot : gSlots)
    if (const char* entry = slot.load()) ::unlink(entry);
}

void TtemporaryFiles::removeOnSignals() {
  struct sigaction action {};
  action.sa_handler = onSignal;
  sigemptyset(&action.sa_mask);
  for (int signal : {SIGINT, SIGTERM}) ::sigaction(signal, &action, nullptr);
}
