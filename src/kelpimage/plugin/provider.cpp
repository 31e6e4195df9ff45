// The plug-in framework serves the format gateway from the moment the
// library is loaded, so that every file class sees plug-in formats with no
// call from the host.
#include "kelpimage/image/formatprovider.h"
#include "kelpimage/plugin/pxfinternal.h"

namespace {
const TformatProvider kPxfProvider = {pxfLoadAllPlugins, pxfFileTypeOf, pxfAnyToIff, pxfGetResolution, pxfIffToAny,
                                        pxfFinishOutput};

struct Register {
  Register() { setBuiltInFormatProvider(&kPxfProvider); }
} gRegister;
}  // namespace
