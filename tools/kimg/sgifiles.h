// kimg's SGI side: header info, and writing SGI files from IFF lines or a pixel map.
#pragma once

#include <string>

#include "kelpimage/il/il.h"
#include "kelpimage/image/base/tpixelmap.h"

namespace kimg {

bool isSgi(const std::string& file);
int infoSgi(const std::string& file, bool stats);
// Every line of an open IFF image (zoomed if a zoom is attached), 1 or 2 bytes a sample.
int writeSgiFromIff(ILimage* in, const std::string& out, bool runLength);
int writeSgiFromMap(const TpixelMap& map, bool alpha, const std::string& out, bool runLength);

}  // namespace kimg
