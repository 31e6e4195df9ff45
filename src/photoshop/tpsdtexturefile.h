// The door to Photoshop documents. For now it tells them by their bytes.
#pragma once

#include "image/base/tstring.h"
#include "support/kelpexport.h"

class KELP_API TpsdTextureFile {
 public:
  // True for a Photoshop document of version 1: "8BPS" and a big-endian 1.
  static bool isFilePsd(const Tstring& name);
};
