// Shared libraries opened at run time.
#pragma once

#include "kelpimage/base/tstring.h"
#include "kelpimage/kelpexport.h"

class KELP_API TdynamicLoad {
 public:
  // The library of the movie services, bound by name when movies are used.
  static const char* const kMovieLibraryName;

  // kKeep may be added to either: the library stays in the process after
  // the handle closes (for libraries that cannot be unloaded cleanly).
  enum Mode { kLazy = 0, kNow = 1, kKeep = 2 };
  TdynamicLoad(const Tstring& name, int mode = kLazy);
  ~TdynamicLoad();
  TdynamicLoad(const TdynamicLoad&) = delete;
  TdynamicLoad& operator=(const TdynamicLoad&) = delete;

  bool isLoaded() const { return fHandle != nullptr; }
  // The entry of that name, or null.
  void* symbol(const char* name) const;
  // Why the library could not be opened, empty if it was.
  const Tstring& error() const { return fError; }

 private:
  void* fHandle = nullptr;
  Tstring fError;
};
