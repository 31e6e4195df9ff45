// The one sink for reports of the class layer.
#pragma once

#include <cstdio>

#include "kelpimage/base/tstring.h"
#include "kelpimage/kelpexport.h"

class KELP_API TerrorHandler {
 public:
  virtual ~TerrorHandler() = default;
  virtual void reportError(const Tstring& message) = 0;
};

// Null until the host installs a handler; reports are dropped while it is null.
KELP_API extern TerrorHandler* theErrorHandler;

// A debug stream: formatted entries, each closed by endEntry.
class KELP_API TdebugOutput {
 public:
  explicit TdebugOutput(std::FILE* file = stderr) : fFile(file) {}
  virtual ~TdebugOutput() = default;
  virtual void printf(const char* format, ...) __attribute__((format(printf, 2, 3)));
  virtual void endEntry();
  // The process's debug stream, on standard error.
  static TdebugOutput sCerr;

 private:
  std::FILE* fFile;
};
