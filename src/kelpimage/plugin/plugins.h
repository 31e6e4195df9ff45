// The plug-in formats as the rest of the library and its hosts see them:
// loading, the table of plug-in files, and the conversions out of IFF that
// keep multi-frame outputs open. Conversions run through the format gateway
// (kelpimage/image/formatgateway.h), which this subsystem serves.
#pragma once

#include <cstdint>

#include "kelpimage/kelpexport.h"

// Loads one plug-in file and enters it in the table; the library handle, or
// null (with a message on the error stream).
KELP_API void* loadImagePlugin(const char* path);
// The key of the plug-in file of this base name, or null.
KELP_API const char* keyFromPluginTable(const char* pluginFileName);
// 1 when the format keeps several frames in one file.
KELP_API int formatIsMultiframe(const char* key);

// 0 when `key` names a format that can be written (checked before work starts).
KELP_API int ifftoanyInit(const char* output, const char* key);
// anytoiff through the plug-ins, into an IFF file of the given compression
// (0 none, 1 RLE, 2 QRL, 3 QR4) rather than a stored temporary one: for a
// host that keeps the IFF file. 0 or -1, with a report.
KELP_API int anytoiffCompressed(const char* input, const char* output, const char* key, int frame, uint32_t compression);
// Closes every multi-frame output left open by ifftoany; returns 0.
KELP_API int ifftoanyClose();
// Gives up one output that ifftoany keeps open, for a caller whose later
// frames failed: nothing of it is written, and the target stays as it was.
KELP_API void ifftoanyAbandon(const char* output);

// Options of the writing plug-ins, by the name of a capability the format
// offers ("Quality", "Compression"...), handed to every later ifftoany of
// that format. 0, or -1 with a message when the format or the capability is
// unknown or cannot be set. Options are process-wide: a host sets them
// before it converts.
KELP_API int ifftoanySetOption(const char* key, const char* capability, float value);
// Forgets the options of every format.
KELP_API void ifftoanyClearOptions();
