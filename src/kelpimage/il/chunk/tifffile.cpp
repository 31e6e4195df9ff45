#include "kelpimage/il/chunk/tifffile.h"

int TiffFile::beginPut(const TiffTag& tag, uint32_t) { return fFile ? FLbgnput(fFile, tag.value()) : -1; }

int TiffFile::put(const void* data, size_t size) { return fFile ? FLput(fFile, data, size) : -1; }

int TiffFile::endPut() { return fFile ? FLendput(fFile) : -1; }
