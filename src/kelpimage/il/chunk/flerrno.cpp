// The per-thread error word of the chunk and image functions, and the
// system error behind FL_ESYS.
#include <cerrno>

#include "kelpimage/il/chunk/flio.h"

int& FLerrnoRef() {
  thread_local int code = 0;
  return code;
}

int FLerror() { return flerrno; }

int FLfail(int code) {
  flerrno = code;
  return code;
}

namespace {
thread_local int tSysErrno = 0;
}

int FLsysfail() {
  tSysErrno = errno;
  return FL_ESYS;
}

int FLsyserrno() { return tSysErrno; }

int FLoserror() {
  int e = errno;
  errno = 0;
  return e;
}
