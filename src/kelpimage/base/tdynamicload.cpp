#include "kelpimage/base/tdynamicload.h"

#include <dlfcn.h>

// kMovieLibraryName is defined beside the movie layer that binds it.

TdynamicLoad::TdynamicLoad(const Tstring& name, int mode) {
  fHandle = ::dlopen(name.asChar(),
                     ((mode & kNow) ? RTLD_NOW : RTLD_LAZY) | ((mode & kKeep) ? RTLD_NODELETE : 0) | RTLD_LOCAL);
  if (!fHandle) {
    const char* why = ::dlerror();
    fError = why ? why : "cannot load library";
  }
}

TdynamicLoad::~TdynamicLoad() {
  if (fHandle) ::dlclose(fHandle);
}

void* TdynamicLoad::symbol(const char* name) const { return fHandle && name ? ::dlsym(fHandle, name) : nullptr; }
