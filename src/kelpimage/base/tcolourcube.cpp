#include "kelpimage/base/tcolourcube.h"

void TcolourCube::entry(int i, uint8_t rgb[3]) {
  rgb[0] = uint8_t(i % 6 * 51);
  rgb[1] = uint8_t(i / 6 % 6 * 51);
  rgb[2] = uint8_t(i / 36 * 51);
}

int TcolourCube::quantise(const uint8_t* bgr, int8_t error[3]) {
  int q2 = (bgr[2] + 25) / 51, q1 = (bgr[1] + 25) / 51, q0 = (bgr[0] + 25) / 51;
  error[2] = int8_t(bgr[2] - q2 * 51);
  error[1] = int8_t(bgr[1] - q1 * 51);
  error[0] = int8_t(bgr[0] - q0 * 51);
  return (q0 * 6 + q1) * 6 + q2;
}
