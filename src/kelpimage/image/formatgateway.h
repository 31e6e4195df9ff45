// The seam between the file classes and every format other than IFF and
// SGI: six operations. Without a provider the file classes still serve IFF
// and SGI; any other file identifies to no key and does not open.
#pragma once

#include "kelpimage/kelpexport.h"

// What a provider of other formats supplies; a null entry answers as if
// there were no provider.
struct TformatProvider {
  int (*loadAllPlugins)();
  const char* (*fileType)(const char* name);
  int (*anyToIff)(const char* input, const char* output, const char* key, int frame);
  int (*resolution)(const char* input, unsigned& width, unsigned& height);
  int (*iffToAny)(const char* input, const char* output, const char* key);
  // Completes `output` if a format of several frames keeps it open.
  int (*finishOutput)(const char* output);
};

// Installs a provider in place of the library's own plug-in framework (null
// goes back to it); returns the one it replaces.
KELP_API const TformatProvider* setFormatProvider(const TformatProvider* provider);


// 0 when plug-ins are ready, non-zero otherwise.
KELP_API int loadAllPXFPlugins();
// A format key; "__none_" when nothing claims the file; null when no answer could be had.
KELP_API const char* pxfFileType(const char* name);
// 0 when `output` now holds the picture as IFF, -1 otherwise.
KELP_API int anytoiff(const char* input, const char* output, const char* key, int frame);
KELP_API int getResolution(const char* input, unsigned& width, unsigned& height);
// 0 when `output` now holds the IFF picture in the format of `key`, -1 otherwise.
// An output of a format of several frames stays open for the next frame
// until ifftoanyFinish (or ifftoanyClose, for all of them).
KELP_API int ifftoany(const char* input, const char* output, const char* key);
// Completes one output that ifftoany keeps open: 0, or -1 when it could not
// be completed (it is then removed); 0 when it is not open.
KELP_API int ifftoanyFinish(const char* output);
