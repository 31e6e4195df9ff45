// The one sink for reports of the class layer.
#pragma once

#include <cstdio>

#include "kelpimage/base/tstring.h"
#include "kelpimage/kelpexport.h"

class KELP_API TerrorHandler {
 public:
  virtual ~TerrorHandler() = default;
  virtual void reportError(const Tstring& message) = 0;
  // Where the library sends a report: to the calling thread's catcher when
  // one is in force, else to theErrorHandler; with neither, the report is
  // kept as the thread's last (lastReport) and nothing is printed.
  static void send(const Tstring& message);
  // The last report the calling thread sent with no one to hear it.
  static const std::string& lastReport();
};

// Null until the host installs a handler; while it is null, reports stay
// with their thread (TerrorHandler::lastReport).
KELP_API extern TerrorHandler* theErrorHandler;

// While it lives, the reports of the thread that made it come to it and
// not to the host's handler: code that turns reports into its own errors.
class KELP_API TreportCatcher {
 public:
  TreportCatcher();
  ~TreportCatcher();
  TreportCatcher(const TreportCatcher&) = delete;
  TreportCatcher& operator=(const TreportCatcher&) = delete;
  // The first report caught (its line ends taken off), or `fallback`.
  std::string first(const char* fallback) const;
  void take(const Tstring& message);

 private:
  TreportCatcher* fOuter;
  std::string fFirst;
};

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
