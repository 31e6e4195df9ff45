// The plug-in formats as the rest of the library and its hosts see them:
// loading, the table of plug-in files, and what a plug-in says a file is.
// The conversions through IFF are in kelpimage/convert/conversions.h.
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

// 0 when plug-ins are ready, non-zero otherwise. Each call scans the
// plug-in folders again; a plug-in is loaded the first time it is found.
KELP_API int loadAllPXFPlugins();
// The key of the plug-in format that claims the file; "__none_" when none
// does; null when the file cannot be looked at.
KELP_API const char* pxfFileType(const char* name);
