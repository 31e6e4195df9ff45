// Samples from one kind to another, and colour from one association to the
// other: what readers and writers do between a file's samples and a
// caller's buffer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "kelpimage/io/tsampletype.h"

namespace kelpio {

float halfToFloat(uint16_t half);
// Rounded to the nearest half, ties to even; past the largest half, infinity.
uint16_t floatToHalf(float value);

// `count` samples of `fromType` at `from` into `toType` at `to`: integers
// scale between their ranges, rounded; floats go to integers clamped to 0
// to 1 and rounded; integers to floats as 0 to 1. `from` and `to` may be
// the same buffer only when the types are the same size.
void convertSamples(const void* from, TsampleType fromType, void* to, TsampleType toType, size_t count);

// `pixels` interleaved pixels of `channels` samples, alpha the last, from
// straight colour to premultiplied or back, in place, rounded. Colour under
// an alpha of 0 becomes 0 going back.
void premultiply(void* row, TsampleType type, int channels, size_t pixels);
void unpremultiply(void* row, TsampleType type, int channels, size_t pixels);

// `pixels` pixels of four 8-bit samples with the first and third swapped:
// blue, green, red, alpha to red, green, blue, alpha, and back.
void swapRedBlue(const uint8_t* from, uint8_t* to, size_t pixels);

// The wider of two kinds: the one the other fits into without loss.
TsampleType widerType(TsampleType a, TsampleType b);

// `pixels` interleaved pixels of `channels` samples (alpha the last when
// `alpha`) from one kind and association to another. The association
// changes in the wider of the two kinds, so that nothing is lost before it
// must be. `scratch` is a buffer the call may grow; `from` and `to` do not
// overlap.
void convertPixels(const void* from, TsampleType fromType, Tassociation fromAssociation, void* to, TsampleType toType,
                   Tassociation toAssociation, int channels, bool alpha, size_t pixels, std::vector<uint8_t>& scratch);

}  // namespace kelpio
