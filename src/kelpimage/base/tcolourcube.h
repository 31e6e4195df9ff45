// The fixed palette of 6 x 6 x 6 colours that 8-bit pictures and movies of
// the library use: entry i is red (i mod 6), green ((i / 6) mod 6) and blue
// (i / 36), each times 51 and kept to 8 bits, so entries 216 to 255 wrap.
#pragma once

#include <cstdint>

class TcolourCube {
 public:
  // Entry i's red, green and blue.
  static void entry(int i, uint8_t rgb[3]);
  // The nearest entry of the cube to a colour.
  static int nearest(uint8_t red, uint8_t green, uint8_t blue) {
    return (((blue + 25) / 51) * 6 + (green + 25) / 51) * 6 + (red + 25) / 51;
  }
  // A pixel's entry, and the error left to spread (colour less the entry's),
  // from blue, green, red bytes.
  static int quantise(const uint8_t* bgr, int8_t error[3]);
  // Adds a spread error to a byte: above 256 is 255, below 0 is 0, anything
  // else its low byte, so that exactly 256 stores 0 (as the conversion to
  // GIF always has).
  static void addError(uint8_t& byte, int8_t error) {
    int sum = int(byte) + int(error);
    byte = sum > 256 ? 255 : sum < 0 ? 0 : uint8_t(sum);
  }
};
