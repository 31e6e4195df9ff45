// The user's settings store: named binary values in a file under the
// user's configuration directory ($XDG_CONFIG_HOME or ~/.config, then
// "kelpimage/settings").
#pragma once

#include <cstddef>

#include "kelpimage/base/tstring.h"
#include "kelpimage/kelpexport.h"

class KELP_API TKelpRegNT {
 public:
  TKelpRegNT();
  explicit TKelpRegNT(const Tstring& file) : fFile(file) {}
  // Stores `size` bytes under `name`; false if the file cannot be written.
  bool addBinarySetting(const char* name, const void* bytes, size_t size);
  // The size of the value under `name` (0 if none); with `bytes` given,
  // copies up to `size` bytes of it there.
  size_t getBinarySetting(const char* name, void* bytes, size_t size) const;
  const Tstring& file() const { return fFile; }

 private:
  Tstring fFile;
};
