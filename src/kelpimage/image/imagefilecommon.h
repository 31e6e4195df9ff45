// Pieces shared by the two front-door file classes.
#pragma once

#include <functional>
#include <string>

#include "kelpimage/il/il.h"
#include "kelpimage/image/base/tpixelmap.h"
#include "kelpimage/image/base/tstring.h"
#include "kelpimage/image/tiffimagefile.h"
#include "kelpimage/image/timage.h"
#include "kelpimage/sgi/sgi.h"

namespace imagefile {

// "TMP/kelpPIDADDRESS.iff" for the object at `self`.
std::string temporaryName(const void* self);

// Fills rows y0 up to y1 of an open SGI image into pixels of blue, green,
// red, alpha. `width` pixels a row go out (those past the file's width are
// zero); grey goes to all four bytes when `greyAlpha`, else alpha is 255.
int readSGIRows(IMAGE* image, uint8_t* dest, int width, int y0, int y1, bool greyAlpha);

// Whether an open IFF image can be read directly: a type, 1 (or, when
// `floats`, 4) bytes a channel, and lines from the bottom up.
bool directIff(ILimage* image, bool floats);

// Reads a whole picture into `image` at 8 bits a channel, from the open SGI
// image or else the IL image of `file`; failures go to `report` with the
// message number and any detail.
int readWholeImage(TiffImageFile& file, IMAGE* sgi, Timage& image,
                   const std::function<void(int id, const char* detail)>& report);

// A new picture's header: colour and alpha at one byte a channel, of w by h.
void startPicture(TiffImageFile& file, unsigned short w, unsigned short h, TiffImageFile::TfileCompression compression);

// Gives `image` a raster of w by h; false (and no raster) for sizes a
// Timage cannot hold or memory that cannot be had.
bool sizeImage(Timage& image, int w, int h);

}  // namespace imagefile
