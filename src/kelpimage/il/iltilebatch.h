// Tiles whose payloads are copied aside as they are met in the file, to be
// decoded together on several threads. Tiles of one kind that overlap are
// never decoded at once: a tile that may overlap one held before it, by
// sharing a cell of a grid the size of the first tile, starts a new
// generation, decoded after the one before, so that it lands last, as it
// does when a file is read in order. Tiles of a regular layout each fill a
// cell of their own, and share a generation.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

class ILtilebatch {
 public:
  struct Tile {
    int kind;  // 0 colour, 1 depth
    uint16_t r[4];
    size_t at;  // of the payload in the batch's bytes
    uint32_t size;
  };
  using Decode = std::function<int(const Tile& tile, const uint8_t* payload)>;

  // Decoded on `threads` threads (0: one a core), with room for `bytes` of
  // payloads, for an image of `width` x `height` pixels.
  ILtilebatch(unsigned threads, size_t bytes, uint32_t width, uint32_t height);

  size_t bytes() const { return fBytes.size(); }
  void hold(int kind, const uint16_t r[4], const uint8_t* payload, uint32_t size);
  // Decodes every tile held, generation after generation, `decode` returning
  // 0 or a code for each, and empties the batch. The code of the first tile
  // in file order that failed, or 0.
  int decode(const Decode& decode);

 private:
  // A grid of cells the size of the first tile held.
  void makeGrid(const uint16_t r[4]);
  // Marks the cells under `r` as the current generation's; false if one
  // already was, for a tile of the same kind that may overlap it.
  bool claimCells(int kind, const uint16_t r[4]);

  unsigned fThreads;
  std::vector<Tile> fTiles;
  std::vector<size_t> fGenerations;  // the index of each generation's first tile
  std::vector<uint8_t> fBytes;
  // A grid over the image, a cell a tile in a regular layout: the stamp of
  // the generation that last held a tile over each cell, per kind.
  uint32_t fWidth, fHeight;
  uint32_t fCellWidth = 1, fCellHeight = 1, fColumns = 1, fRows = 1;
  std::vector<uint32_t> fStamps[2];
  uint32_t fStamp = 0;
};
