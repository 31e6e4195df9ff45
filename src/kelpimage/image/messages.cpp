// The numbered messages of the image file classes. Texts used with
// `catenate` end so that a name can follow; texts used with `format` carry
// their "%s".
#include <iterator>

#include "kelpimage/base/tstringtable.h"

namespace {
const TstringMessage kMessages[] = {
    {618, "Image file: no name given, or an image is already open"},
    {619, "Cannot open image file for reading: "},
    {620, "Cannot create image file: "},
    {621, "Image dimensions must be from 1 to 8192 pixels: "},
    {622, "Cannot convert the written image to its output format: "},
    {624, "Conversion of the image file to IFF failed"},
    {625, "The format of the image file could not be identified"},
    {628, "Image file %s has no RGB data"},
    {629, "Image file %s cannot be read at one byte per channel"},
    {630, "Cannot read the pixels of image file %s: %s"},
    {631, "KELP_LOCATION is not set: image plug-ins cannot be found"},
    {632, "Image plug-in directory is missing: "},
    {634, "Kelp ASCII scene file"},
    {635, "Kelp binary scene file"},
    {636, "Cannot read SGI image file %s"},
    {637, "Image file %s is incomplete: %s"},
};

struct Register {
  Register() { TstringAddMessages(kMessages, std::size(kMessages)); }
} gRegister;
}  // namespace
