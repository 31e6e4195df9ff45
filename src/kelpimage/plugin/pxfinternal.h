// The framework's own side of the format gateway, and helpers of the
// conversions.
#pragma once

#include <string>
#include <vector>

#include "kelpimage/base/tatomicfile.h"

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

// What the gateway's operations do when the plug-in framework serves them.
int pxfLoadAllPlugins();
const char* pxfFileTypeOf(const char* path);
int pxfAnyToIff(const char* input, const char* output, const char* key, int frame);
int pxfGetResolution(const char* input, unsigned& width, unsigned& height);
int pxfIffToAny(const char* input, const char* output, const char* key);
int ifftogif(const char* input, const char* output);

int pxfFinishOutput(const char* output);

// An output of ifftoany: written under a temporary name beside its target
// that keeps the target's extension (or straight into a device or a FIFO),
// open between the frames of a format of several frames.
struct ConversionOutput {
  PxfFormat* format = nullptr;
  PxfHandle* handle = nullptr;
  int frame = 0;
  TatomicFile file;
};
// The record of a target, made on first use.
ConversionOutput& conversionOutput(const std::string& target);
// Ends an open output: complete, it takes the target's place; otherwise the
// temporary file goes and the target stays as it was. 0 or -1.
int finishOutput(const std::string& target, ConversionOutput& out);
// Opens the output of `target` with `info` (whose name it fills with the
// partial file), or, when it is open already, moves it on to its next frame
// with `info.image`. False after giving the output up.
struct PxfFileInfo;
bool openOutputFrame(const std::string& target, ConversionOutput& out, PxfFileInfo& info);
// Gives an output up: the temporary file goes.
void abandonOutput(ConversionOutput& out);

// `text`, then ": " and the reason the plug-in gave for the last failure.
std::string withReason(std::string text);

// The string an image plug-in exports under `name` (a variable holding a
// pointer to the text), or null.
const char* pluginString(void* library, const char* name);

// A message of the conversions: to the host's error handler, or to the
// error stream when it has none.
void reportConversionError(const std::string& text);

// The capability settings of an output of `format`: the host's options and
// the picture's resolution `dpi`, null-terminated; each from
// PXF_cap_setting_alloc, the caller deletes them.
struct PxfCapSetting;
std::vector<PxfCapSetting*> outputSettings(const PxfFormat* format, float dpi);
