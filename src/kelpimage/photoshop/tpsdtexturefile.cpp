#include "kelpimage/photoshop/tpsdtexturefile.h"

#include <cstdio>
#include <cstring>

#include "kelpimage/image/base/tfile.h"

bool TpsdTextureFile::isFilePsd(const Tstring& name) {
  TfilePath path(name);
  std::FILE* f = std::fopen(path.fullName().asChar(), "rb");
  if (!f) return false;
  unsigned char signature[4], version[2];
  bool ok = std::fread(signature, 1, 4, f) == 4 && std::fread(version, 1, 2, f) == 2;
  std::fclose(f);
  return ok && std::memcmp(signature, "8BPS", 4) == 0 && version[0] == 0 && version[1] == 1;
}
