// One call to read or write a whole picture as a plain buffer of 4 bytes a
// pixel, through the front door (any format TimageFile reads or writes).
#pragma once

#include "kelpimage/kelpexport.h"

// The picture in a buffer from new[] (the caller deletes it), red and blue
// switched from the library's order; null if it cannot be read. With
// `powerOfTwo` it is resampled to the next powers of two first.
KELP_API unsigned char* readImageFromFile(const char* name, unsigned short& width, unsigned short& height,
                                          bool powerOfTwo);
// Writes the buffer (red and blue switched, in place) as `format`; quietly
// does nothing when the file cannot be made.
KELP_API void writeImageToFile(unsigned char* pixels, unsigned short width, unsigned short height, const char* name,
                               const char* format);
