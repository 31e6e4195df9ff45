// The kinds of samples a picture holds and a caller asks for, and how its
// colour stands to its alpha.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kelpimage/kelpexport.h"

// 8 and 16-bit integers (0 to the largest value stands for 0 to 1), IEEE
// halves and floats (1 is full, and values past it are kept).
enum class TsampleType : uint8_t { kUint8 = 0, kUint16 = 1, kHalf = 2, kFloat = 3 };

// Colour beside alpha: straight (as painted), or premultiplied by alpha
// (as renderers write it). Pictures without alpha say kStraight.
enum class Tassociation : uint8_t { kStraight = 0, kPremultiplied = 1 };

KELP_API size_t TsampleBytes(TsampleType type);
// "uint8", "uint16", "half", "float".
KELP_API const char* TsampleName(TsampleType type);
KELP_API bool TsampleIsFloat(TsampleType type);
// A bit for each type, for sets of them.
constexpr unsigned TsampleBit(TsampleType type) { return 1u << unsigned(type); }
