// One parallel loop for the whole library: `count` pieces of work spread
// over threads, the calling thread among them, the next piece to whichever
// is free. Nested loops are safe: each runs on threads of its own.
#pragma once

#include <cstddef>
#include <functional>

#include "kelpimage/kelpexport.h"

// Threads for a loop of `count` pieces when the caller asks for `threads`
// (0: one a core), at least 1 and at most `count`.
KELP_API unsigned TthreadsFor(unsigned threads, size_t count);

// Runs body(i) for every i below `count` on TthreadsFor(threads, count)
// threads and returns when all are done. An exception out of the body is
// thrown again here, the first one, once every thread has stopped; the
// pieces not started by then are not run.
KELP_API void TparallelFor(size_t count, unsigned threads, const std::function<void(size_t)>& body);
