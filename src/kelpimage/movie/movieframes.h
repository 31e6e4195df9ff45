// Decoding a video track's frames (internal to the movie layer): the step
// behind mvReadFrames, used apart by Tmovie so that a frame is decoded
// before its pixel map is sized.
#pragma once

#include <cstdint>

#include "kelpimage/movie/aviwrapper.h"

namespace kelpmovie {

// The frame `frame` of the track, decoded; null, with the reason said, if
// it cannot be. Valid until the track's next read.
const AVFrame* decodeFrame(Track& track, int64_t frame);
// The movie's frame size, checked: false, with the reason said, when it is
// too large for a pixel map.
bool movieSize(Track& track, int& width, int& height);
// A decoded frame into width x height 4-byte pixels, bottom row first.
bool copyFrame(Track& track, const AVFrame* frame, uint8_t* out, int width, int height);

}  // namespace kelpmovie
