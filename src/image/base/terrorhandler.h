// The one sink for reports of the class layer.
#pragma once

#include <iosfwd>

#include "image/base/tstring.h"
#include "support/kelpexport.h"

class KELP_API TerrorHandler {
 public:
  virtual ~TerrorHandler() = default;
  virtual void reportError(const Tstring& message) = 0;
};

// Null until the host installs a handler; reports are dropped while it is null.
KELP_API extern TerrorHandler* theErrorHandler;

// Reports to theErrorHandler when there is one.
KELP_API void KelpReport(const Tstring& message);

struct KELP_API TdebugOutput {
  static std::ostream& sCerr;
};
