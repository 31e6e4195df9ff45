// The plug-in framework's own helpers, for the library's code above it.
#pragma once

#include <string>

// Opens a plug-in's reader or writer on a stream the caller keeps alive:
// what PXF_open does for a file, for any stream. Null, with PXF_last_error,
// when the plug-in refuses.
struct PxfCapSetting;
struct PxfFormat;
struct PxfHandle;
struct PxfImageData;
struct PxfLut;
struct PxfStream;
PxfHandle* pxfOpen(PxfFormat* format, PxfStream* stream, bool writing, const PxfImageData* image,
                   PxfCapSetting* const* settings, const PxfLut* lut);
// Notes a plug-in file that was not taken, for PXF_load_problems.
void pxfLoadProblem(const std::string& path, const std::string& why);

// The directory scan and its callback for PXF_init.
int collectPluginFiles();
bool nextPluginFile(void** handle, char** path);

// The string an image plug-in exports under `name` (a variable holding a
// pointer to the text), or null.
const char* pluginString(void* library, const char* name);

// `text`, then ": " and the reason the plug-in gave for the last failure.
std::string withReason(std::string text);
