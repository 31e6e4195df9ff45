#include "kelpimage/il/iltilebatch.h"

#include "kelpimage/base/tparallel.h"

bool ILtilebatch::overlapsGeneration(int kind, const uint16_t r[4]) const {
  size_t first = fGenerations.empty() ? 0 : fGenerations.back();
  for (size_t i = first; i < fTiles.size(); ++i) {
    const Tile& t = fTiles[i];
    if (t.kind == kind && r[0] <= t.r[2] && t.r[0] <= r[2] && r[1] <= t.r[3] && t.r[1] <= r[3]) return true;
  }
  return false;
}

void ILtilebatch::hold(int kind, const uint16_t r[4], const uint8_t* payload, uint32_t size) {
  if (fTiles.empty() || overlapsGeneration(kind, r)) fGenerations.push_back(fTiles.size());
  fTiles.push_back({kind, {r[0], r[1], r[2], r[3]}, fBytes.size(), size});
  fBytes.insert(fBytes.end(), payload, payload + size);
}

int ILtilebatch::decode(const Decode& decode) {
  std::vector<int> codes(fTiles.size(), 0);
  for (size_t g = 0; g < fGenerations.size(); ++g) {
    size_t first = fGenerations[g], end = g + 1 < fGenerations.size() ? fGenerations[g + 1] : fTiles.size();
    TparallelFor(end - first, fThreads, [&](size_t i) {
      const Tile& t = fTiles[first + i];
      codes[first + i] = decode(t, fBytes.data() + t.at);
    });
  }
  fTiles.clear();
  fGenerations.clear();
  fBytes.clear();
  for (int code : codes)
    if (code) return code;
  return 0;
}
