// The door to Photoshop documents. For now it tells them by their bytes.
#pragma once

#include "kelpimage/image/base/tstring.h"
#include "kelpimage/kelpexport.h"

class KELP_API TpsdTextureFile {
 public:
  // True for a Photoshop document of version 1: "8BPS" and a big-endian 1.
  static bool isFilePsd(const Tstring& name);
};
