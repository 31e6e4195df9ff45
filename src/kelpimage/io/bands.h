// Bands of rows through a conversion: the next band is read on a thread of
// its own while the one before is written, two bands in hand at the most.
#pragma once

#include <cstdint>
#include <functional>

namespace kelpio {

// One band, rows y0 up to y1, in buffer `slot` (0 or 1). False stops the run.
using BandStep = std::function<bool(int32_t y0, int32_t y1, int slot)>;

// Reads and writes every band of `height` rows, `band` at a time, in order;
// with `pipelined`, reading runs a band ahead on a second thread. False at
// the first step that fails: the other side stops at its next band. The
// bands are written in the same order and with the same rows either way.
bool runBands(int32_t height, int32_t band, bool pipelined, const BandStep& read, const BandStep& write);

}  // namespace kelpio
