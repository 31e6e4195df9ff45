// The conversions through IFF that the file classes of the front door stand
// on: any picture the library reads into a temporary IFF file, and an IFF
// file out into any format it writes. They keep their sample rules (8 bits a
// channel into IFF, a colour's bytes as they are) and their messages, and
// run on the format catalogue: IFF through the IL functions, Photoshop
// documents and GIF through the library's readers and writers, every other
// format through its plug-in.
#pragma once

#include <cstdint>

#include "kelpimage/kelpexport.h"

// 0 when `output` now holds the picture as IFF, -1 otherwise (with a report).
KELP_API int anytoiff(const char* input, const char* output, const char* key, int frame);
// anytoiff into an IFF file of the given compression (0 none, 1 RLE, 2 QRL,
// 3 QR4) rather than a stored temporary one: for a host that keeps the file.
KELP_API int anytoiffCompressed(const char* input, const char* output, const char* key, int frame,
                                uint32_t compression);
// The size of a picture of a plug-in format, without converting it: 0, or -1.
KELP_API int getResolution(const char* input, unsigned& width, unsigned& height);

// 0 when `output` now holds the IFF picture in the format of `key`, -1
// otherwise. An output of a format of several frames stays open for the
// next frame until ifftoanyFinish (or ifftoanyClose, for all of them).
KELP_API int ifftoany(const char* input, const char* output, const char* key);
// 0 when `key` names a format that can be written (checked before work starts).
KELP_API int ifftoanyInit(const char* output, const char* key);
// Completes one output that ifftoany keeps open: 0, or -1 when it could not
// be completed (it is then removed); 0 when it is not open.
KELP_API int ifftoanyFinish(const char* output);
// Closes every multi-frame output left open by ifftoany; returns 0.
KELP_API int ifftoanyClose();
// Gives up one output that ifftoany keeps open, for a caller whose later
// frames failed: nothing of it is written, and the target stays as it was.
KELP_API void ifftoanyAbandon(const char* output);

// Options of the writing plug-ins, by the name of a capability the format
// offers ("Quality", "Compression"...), handed to every later ifftoany of
// that format. 0, or -1 with a report when the format or the capability is
// unknown or the value out of its range. Options are process-wide: a host
// sets them before it converts.
KELP_API int ifftoanySetOption(const char* key, const char* capability, float value);
// Forgets the options of every format.
KELP_API void ifftoanyClearOptions();
