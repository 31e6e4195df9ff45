// Channels expanded and packed on several threads at once, inside the
// document code.
#pragma once

#include <vector>

#include "kelpimage/photoshop/tchannel.h"

namespace zkPhotoshop {

// Expands the channels on `threads` threads (0: one a core), the largest
// first; a memory failure in any of them is thrown as std::bad_alloc once
// all are done.
void expandInParallel(const std::vector<Tchannel*>& channels, unsigned threads = 0);
// Packs the channels (their file form, row tables in front) the same way.
void compressInParallel(const std::vector<Tchannel*>& channels, unsigned threads = 0);
// Threads to use for `threads` (0: one a core), at least 1 and at most 8.
unsigned threadsFor(unsigned threads);

}  // namespace zkPhotoshop
