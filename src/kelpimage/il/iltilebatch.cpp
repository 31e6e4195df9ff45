#include "kelpimage/il/iltilebatch.h"

#include <algorithm>

#include "kelpimage/base/tparallel.h"

namespace {
constexpr uint64_t kMaxCells = uint64_t(1) << 18;  // cells of the grid, at most, per kind
}

ILtilebatch::ILtilebatch(unsigned threads, size_t bytes, uint32_t width, uint32_t height)
    : fThreads(threads), fWidth(std::max(width, 1u)), fHeight(std::max(height, 1u)) {
  fBytes.reserve(bytes);
}

void ILtilebatch::makeGrid(const uint16_t r[4]) {
  fCellWidth = uint32_t(r[2] - r[0]) + 1;
  fCellHeight = uint32_t(r[3] - r[1]) + 1;
  // Small tiles on a large image share cells: a shared cell only costs a generation.
  auto cells = [&] { return uint64_t((fWidth - 1) / fCellWidth + 1) * ((fHeight - 1) / fCellHeight + 1); };
  while (cells() > kMaxCells) {
    fCellWidth = std::min(fWidth, fCellWidth * 2);
    fCellHeight = std::min(fHeight, fCellHeight * 2);
  }
  fColumns = (fWidth - 1) / fCellWidth + 1;
  fRows = (fHeight - 1) / fCellHeight + 1;
  for (auto& stamps : fStamps) stamps.assign(size_t(fColumns) * fRows, 0);
}

bool ILtilebatch::claimCells(int kind, const uint16_t r[4]) {
  uint32_t x0 = std::min(r[0] / fCellWidth, fColumns - 1), x1 = std::min(r[2] / fCellWidth, fColumns - 1);
  uint32_t y0 = std::min(r[1] / fCellHeight, fRows - 1), y1 = std::min(r[3] / fCellHeight, fRows - 1);
  auto& stamps = fStamps[kind];
  bool free = true;
  for (uint32_t y = y0; y <= y1; ++y)
    for (uint32_t x = x0; x <= x1; ++x) {
      uint32_t& cell = stamps[size_t(y) * fColumns + x];
      free = free && cell != fStamp;
      cell = fStamp;
    }
  return free;
}

void ILtilebatch::hold(int kind, const uint16_t r[4], const uint8_t* payload, uint32_t size) {
  if (fStamps[0].empty()) makeGrid(r);
  if (fTiles.empty() || !claimCells(kind, r)) {
    // A new generation: no cell is its yet.
    ++fStamp;
    fGenerations.push_back(fTiles.size());
    claimCells(kind, r);
  }
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
