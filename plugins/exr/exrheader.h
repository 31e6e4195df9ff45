// An OpenEXR file's headers checked before OpenEXR reads them. OpenEXR
// allocates what a size in the header says before it reads the bytes: a
// damaged or hostile header must be refused first.
#pragma once

#include <cstddef>

#include "kelpimage/plugin/pxf.h"

namespace exrplugin {

// Walks every attribute of the stream's headers as OpenEXR reads them: the
// sizes of the types of a fixed size, a channel list's and a preview's
// content against their declared sizes, and every size against the bytes
// the file holds. False, with the reason, for a header that does not hold
// together; true (the stream back at its start) otherwise, and for a stream
// of unknown length, which OpenEXR's own checks guard alone.
bool headersFit(PxfStream* in, char* error, size_t size);

}  // namespace exrplugin
