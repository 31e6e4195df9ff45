#include "kelpimage/base/terrorhandler.h"

#include <cstdarg>

TerrorHandler* theErrorHandler = nullptr;

TdebugOutput TdebugOutput::sCerr;

void TdebugOutput::printf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::vfprintf(fFile, format, args);
  va_end(args);
}

void TdebugOutput::endEntry() { std::fputc('\n', fFile); }
