#include "kelpimage/photoshop/tpsdinterleave.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "kelpimage/photoshop/channelwork.h"
#include "kelpimage/photoshop/tchannel.h"
#include "kelpimage/photoshop/tpsdfile.h"

namespace zkPhotoshop {

int interleaveImage(TrgbaData* image, uint8_t fill, uint8_t*& pixels, int& channels, int& width, int& height,
                    int& bytes) {
  pixels = nullptr;
  if (!image || !image->pixels16()) return -1;
  TpixelData16* data = image->pixels16();
  width = int(image->width());
  height = int(image->height());
  bytes = int(data->bytesPerChannel());
  channels = image->numChannels();
  size_t count = size_t(width) * size_t(height);
  pixels = new uint8_t[count * size_t(bytes) * 4];
  std::memset(pixels, fill, count * size_t(bytes) * 4);
  const PHOTOSHOP_CHANNEL ids[4] = {channelRed, channelGreen, channelBlue, channelTransparency};
  std::vector<Tchannel*> used;
  for (int c = 0; c < std::min(channels, 4); ++c)
    if (Tchannel* ch = data->channel(ids[c])) used.push_back(ch);
  expandInParallel(used);
  for (int c = 0; c < std::min(channels, 4); ++c) {
    Tchannel* ch = data->channel(ids[c]);
    const uint8_t* samples = ch ? ch->rawPointer() : nullptr;
    if (!samples || ch->fPixelCount < count) continue;
    if (bytes == 1) {
      for (size_t i = 0; i < count; ++i) pixels[i * 4 + size_t(c)] = samples[i];
    } else {
      for (size_t i = 0; i < count; ++i) std::memcpy(pixels + (i * 4 + size_t(c)) * 2, samples + i * 2, 2);
    }
  }
  return 0;
}

}  // namespace zkPhotoshop
