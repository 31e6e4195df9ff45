#include "image/base/terrorhandler.h"

#include <iostream>

TerrorHandler* theErrorHandler = nullptr;

std::ostream& TdebugOutput::sCerr = std::cerr;

void KelpReport(const Tstring& message) {
  if (theErrorHandler) theErrorHandler->reportError(message);
}
