// The framework's streams over the library's own: what the plug-ins read
// from and write to when the library's readers and writers call them.
#pragma once

#include "kelpimage/base/tstream.h"
#include "kelpimage/plugin/pxf.h"

PxfStream pxfReading(TinputStream& in);
PxfStream pxfWriting(ToutputStream& out);
