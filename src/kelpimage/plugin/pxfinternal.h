// The framework's own side of the format gateway, and helpers of the
// conversions.
#pragma once

#include <string>

// The directory scan and its callback for PXF_init.
int collectPluginFiles();
bool nextPluginFile(void** handle, char** path);

// What the gateway's operations do when the plug-in framework serves them.
int pxfLoadAllPlugins();
const char* pxfFileTypeOf(const char* path);
int pxfAnyToIff(const char* input, const char* output, const char* key, int frame);
int pxfGetResolution(const char* input, unsigned& width, unsigned& height);
int pxfIffToAny(const char* input, const char* output, const char* key);
int ifftogif(const char* input, const char* output);

// A message of the conversions: to the host's error handler, or to the
// error stream when it has none.
void reportConversionError(const std::string& text);
