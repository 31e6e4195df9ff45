#include "kelpimage/base/terrorhandler.h"

#include <cstdarg>

TerrorHandler* theErrorHandler = nullptr;

namespace {
thread_local TreportCatcher* tCatcher = nullptr;
thread_local std::string tLastReport;
}  // namespace

void TerrorHandler::send(const Tstring& message) {
  if (tCatcher)
    tCatcher->take(message);
  else if (TerrorHandler* handler = theErrorHandler)
    handler->reportError(message);
  else
    tLastReport = message.str();
}

const std::string& TerrorHandler::lastReport() { return tLastReport; }

TreportCatcher::TreportCatcher() : fOuter(tCatcher) { tCatcher = this; }

TreportCatcher::~TreportCatcher() { tCatcher = fOuter; }

void TreportCatcher::take(const Tstring& message) {
  if (!fFirst.empty()) return;
  fFirst = message.str();
  while (!fFirst.empty() && (fFirst.back() == '\n' || fFirst.back() == ' ')) fFirst.pop_back();
}

std::string TreportCatcher::first(const char* fallback) const { return fFirst.empty() ? fallback : fFirst; }

TdebugOutput TdebugOutput::sCerr;

void TdebugOutput::printf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::vfprintf(fFile, format, args);
  va_end(args);
}

void TdebugOutput::endEntry() { std::fputc('\n', fFile); }
