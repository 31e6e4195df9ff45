// The run-length packets of SGI rows, in units of one byte or two
// (big-endian): a count with the top bit for a literal stretch, or a count
// and the value it repeats; a count of 0 ends the row.
#pragma once

#include <cstddef>
#include <cstdint>

// Expands an encoded row of `srcBytes` bytes into `count` samples; what the
// packets leave short is zero-filled, a packet that overruns is dropped with
// all that follows. The source is read no further than it goes.
void rleExpand(const uint8_t* src, size_t srcBytes, unsigned unit, uint16_t* dst, int count);

// Encodes `count` samples into units of `unit` bytes; the number of units.
// `dst` holds at least count + count / 126 + 2 units.
size_t rleCompact(const uint16_t* src, int count, unsigned unit, uint8_t* dst);
