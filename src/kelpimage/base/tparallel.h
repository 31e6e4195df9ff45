// One parallel loop for the whole library: `count` pieces of work spread
// over threads, the calling thread among them, the next piece to whichever
// is free. The other threads come from one pool the process shares, started
// as loops first ask for them, so that a loop costs no thread's start. Nested
// and concurrent loops are safe: a loop whose helpers are all busy elsewhere
// runs on its caller alone. A caller waiting for its helpers runs pieces of
// other loops meanwhile, so a piece must not hold a lock across a loop of its
// own that other loops' pieces take too.
#pragma once

#include <cstddef>
#include <functional>

#include "kelpimage/kelpexport.h"

// Threads for a loop of `count` pieces when the caller asks for `threads`
// (0: one a core), at least 1 and at most `count`.
KELP_API unsigned TthreadsFor(unsigned threads, size_t count);

// Runs body(i) for every i below `count` on at most TthreadsFor(threads,
// count) threads and returns when all are done. An exception out of the body is
// thrown again here, the first one, once every thread has stopped; the
// pieces not started by then are not run.
KELP_API void TparallelFor(size_t count, unsigned threads, const std::function<void(size_t)>& body);
