#include "kelpimage/il/iltilebatch.h"

#include "kelpimage/base/tparallel.h"

namespace {
// The payload space of the last batch of this thread: a reader makes a batch
// a band, and fresh memory each time would cost more than the copy itself.
std::vector<uint8_t>& spareBytes() {
  thread_local std::vector<uint8_t> spare;
  return spare;
}
}  // namespace

ILtilebatch::ILtilebatch(unsigned threads) : fThreads(TthreadsFor(threads, 2)) {
  if (parallel()) fBytes.swap(spareBytes());
  fBytes.clear();
}

ILtilebatch::~ILtilebatch() {
  if (!parallel() || fBytes.capacity() <= spareBytes().capacity()) return;
  fBytes.clear();
  fBytes.swap(spareBytes());
}

bool ILtilebatch::overlapsGeneration(int kind, const uint16_t r[4]) const {
  size_t first = fGenerations.empty() ? 0 : fGenerations.back();
  for (size_t i = first; i < fTiles.size(); ++i) {
    const Tile& t = fTiles[i];
    if (t.kind == kind && r[0] <= t.r[2] && t.r[0] <= r[2] && r[1] <= t.r[3] && t.r[1] <= r[3]) return true;
  }
  return false;
}

void ILtilebatch::hold(int kind, const uint16_t r[4], const uint8_t* payload, uint32_t size, void* owner) {
  if (fTiles.empty() || overlapsGeneration(kind, r)) fGenerations.push_back(fTiles.size());
  fTiles.push_back({kind, {r[0], r[1], r[2], r[3]}, fBytes.size(), size, owner});
  fBytes.insert(fBytes.end(), payload, payload + size);
}

std::vector<std::pair<ILtilebatch::Tile, int>> ILtilebatch::decode(const Decode& decode) {
  std::vector<int> codes(fTiles.size(), 0);
  for (size_t g = 0; g < fGenerations.size(); ++g) {
    size_t first = fGenerations[g], end = g + 1 < fGenerations.size() ? fGenerations[g + 1] : fTiles.size();
    TparallelFor(end - first, fThreads, [&](size_t i) {
      const Tile& t = fTiles[first + i];
      codes[first + i] = decode(t, fBytes.data() + t.at);
    });
  }
  std::vector<std::pair<Tile, int>> failed;
  for (size_t i = 0; i < fTiles.size(); ++i)
    if (codes[i]) failed.emplace_back(fTiles[i], codes[i]);
  fTiles.clear();
  fGenerations.clear();
  fBytes.clear();
  return failed;
}
