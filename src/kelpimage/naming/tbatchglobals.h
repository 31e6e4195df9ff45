// What a render knows of the run it belongs to, stamped into its outputs:
// the batch command line (set by the host; empty by default) and the
// identifier of the build.
#pragma once

#include "kelpimage/base/tstring.h"
#include "kelpimage/kelpexport.h"

class KELP_API TbatchGlobals {
 public:
  static Tstring getCommandLine();
  static void setCommandLine(const Tstring& line);
};

// The build's identifier: the library's name and version.
KELP_API extern const char* const gCutIdentifier;
