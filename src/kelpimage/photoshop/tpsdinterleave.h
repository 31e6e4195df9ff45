// A document image's channels side by side in each pixel: how the texture
// class and the conversion into IFF hand a document's pixels on.
#pragma once

#include <cstdint>

namespace zkPhotoshop {

class TrgbaData;

// Channels 0, 1, 2 and -1 of `image` side by side in each pixel, over a
// fill of `fill` in every byte, in a new array the caller frees with
// delete[], at the image's bytes a sample. -1 when the image has no pixels.
int interleaveImage(TrgbaData* image, uint8_t fill, uint8_t*& pixels, int& channels, int& width, int& height,
                    int& bytes);

}  // namespace zkPhotoshop
