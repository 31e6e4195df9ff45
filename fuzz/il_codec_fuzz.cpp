// Unpacks arbitrary payloads with every decoder and tile shape.
#include <cstring>
#include <vector>

#include "kelpimage/il/il.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 6) return 0;
  ILpackinfo info{};
  info.width = 1u + data[0] % 96;
  info.height = 1u + data[1] % 64;
  const uint32_t byteChoices[] = {1, 2, 4};
  info.bytes = byteChoices[data[2] % 3];
  info.bitmask = data[3] & 15;
  const uint32_t channelChoices[] = {1, 2, 3, 4};
  info.channels = channelChoices[(data[3] >> 4) & 3];
  info.reduce = (data[3] >> 6) & 1;
  info.noalpha = data[3] >> 7;
  info.linewidth = info.width + data[4] % 8;
  int decoder = data[5] % 4;
  const uint8_t* payload = data + 6;
  info.size = uint32_t(size - 6);
  std::vector<uint8_t> copy(payload, payload + info.size);
  std::vector<uint8_t> dest(size_t(info.linewidth) * info.height * info.channels * 4);
  ILcodecfn unpack = nullptr;
  ILfindcompressor(uint32_t(decoder), nullptr, nullptr, &unpack);
  unpack(dest.data(), copy.data(), &info);
  return 0;
}
