// Large image blocks: small ones from the heap, large ones as whole pages
// of anonymous memory straight from the system.
#pragma once

#include <cstdint>

#include "kelpimage/kelpexport.h"

struct TisBlock {
  void* pointer = nullptr;
  uint32_t size = 0;  // wanted size; allocate may round it up, deallocate relies on it
};

class KELP_API TisAllocator {
 public:
  static const unsigned kMinMmapSize = 0x7C00;  // blocks at or above this size are mapped
  static unsigned fsPageSize;
  static unsigned fsMask;
  static bool fsUseMalloc;  // KELP_USE_MALLOC exists in the environment

  static int init(const char* unused = nullptr);
  static void allocate(TisBlock& block);
  static void deallocate(TisBlock& block);
  static bool useBuiltin(const TisBlock& block);
  static void pageAlign(TisBlock& block);
};
