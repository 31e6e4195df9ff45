// The video codecs a written movie can use, by handler code (internal to
// the movie layer).
#pragma once

#include <cstdint>

#include "kelpimage/movie/ffmpegapi.h"

namespace kelpmovie {

// The encoder of a handler code (compared ignoring case), or null when the
// code is unknown or this FFmpeg build has no such encoder.
const AVCodec* encoderFor(uint32_t handler);
// The pixel format frames go to the encoder in: a format of 24 bits of
// colour or more, or with `palette` the 8-bit palette format. NONE when the
// encoder takes no such format.
AVPixelFormat encoderInput(const AVCodec* codec, bool palette);

}  // namespace kelpmovie
