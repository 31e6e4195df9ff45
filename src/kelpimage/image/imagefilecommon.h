// Pieces shared by the two front-door file classes.
#pragma once

#include <exception>
#include <functional>
#include <new>
#include <string>

#include "kelpimage/base/tarray.h"
#include "kelpimage/base/tpixelmap.h"
#include "kelpimage/base/tstring.h"
#include "kelpimage/il/il.h"
#include "kelpimage/image/tiffimagefile.h"
#include "kelpimage/image/timage.h"
#include "kelpimage/sgi/sgi.h"

namespace imagefile {

// Tells the host's error handler, if there is one, that an operation failed
// for `why`.
void reportUnexpected(const char* why) noexcept;

// Runs a public operation of the file classes so that no exception leaves
// the library: memory that cannot be had (TmemoryException among it), or
// anything unexpected, is a report and -1.
template <class Body>
int guarded(Body body) noexcept {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    reportUnexpected("Out of memory");
  } catch (const std::exception& e) {
    reportUnexpected(e.what());
  } catch (...) {
    reportUnexpected("Unexpected failure");
  }
  return -1;
}

// Removes a temporary file of an open that fails, on every way out, unless
// the open is kept.
struct TemporaryGuard {
  std::string& name;
  bool keep = false;
  ~TemporaryGuard();
};

// "TMP/kelpPIDADDRESS.iff" for the object at `self`, entered among the
// process's temporary files until removeTemporary takes it away.
std::string temporaryName(const void* self);
void removeTemporary(const std::string& name);

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

using Reporter = std::function<void(int id, const char* first, const char* second)>;

// Closes an SGI picture: 0, or -1 after report 637 (a row, the header or a
// table did not reach the file).
int closeSgi(IMAGE*& sgi, const char* name, const Reporter& report);

// The end of a front-door close, once the IL image is closed with result
// `written` (0 when there was none). An incomplete file is never converted,
// and its temporary copy goes (report 637). Otherwise a picture written for
// a format other than IFF is converted by `convert` (false when that fails:
// the temporary file then stays), and the temporary file is removed. Clears
// both names; 0 or -1.
int finishClose(int written, std::string& tempName, std::string& formatKey, bool iffKey, const char* name,
                const std::function<bool()>& convert, const Reporter& report);

// Gives `image` a raster of w by h; false (and no raster) for sizes a
// Timage cannot hold or memory that cannot be had.
bool sizeImage(Timage& image, int w, int h);

}  // namespace imagefile
