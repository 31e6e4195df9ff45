// Bands of rows through a conversion: the next band is read on a thread of
// its own while the one before is written, two bands in hand at the most.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace kelpio {

// One band, rows y0 up to y1, in buffer `slot` (0 or 1). False stops the run.
using BandStep = std::function<bool(int32_t y0, int32_t y1, int slot)>;

// Reads and writes every band of `height` rows, `band` at a time, in order;
// with `pipelined`, reading runs a band ahead on a second thread. False at
// the first step that fails: the other side stops at its next band. The
// bands are written in the same order and with the same rows either way.
bool runBands(int32_t height, int32_t band, bool pipelined, const BandStep& read, const BandStep& write);

// Rows taken one after the other from the top, read a band ahead on a
// thread of its own: `read` fills `into` (`rowBytes` a row) with rows y0 up
// to y1, at most `band` of them.
class RowPrefetch {
 public:
  using Fill = std::function<bool(int32_t y0, int32_t y1, uint8_t* into)>;
  RowPrefetch(int32_t height, int32_t band, size_t rowBytes, Fill read);
  ~RowPrefetch();
  RowPrefetch(const RowPrefetch&) = delete;
  RowPrefetch& operator=(const RowPrefetch&) = delete;
  // Row y (the next after the last asked for), or null when reading failed.
  const uint8_t* row(int32_t y);

 private:
  struct State;
  std::unique_ptr<State> fState;
  std::vector<uint8_t> fSlots[2];
  int32_t fHeight, fBand;
  size_t fRowBytes;
};

}  // namespace kelpio
