#include "kelpimage/support/tisallocator.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

unsigned TisAllocator::fsPageSize = 0;
unsigned TisAllocator::fsMask = 0;
bool TisAllocator::fsUseMalloc = false;

namespace {
// Settings are read once, when the library is loaded.
struct LoadTimeSetup {
  LoadTimeSetup() {
    TisAllocator::fsUseMalloc = std::getenv("KELP_USE_MALLOC") != nullptr;
    if (!TisAllocator::fsUseMalloc) TisAllocator::init();
  }
} gSetup;
}  // namespace

int TisAllocator::init(const char*) {
  if (!fsUseMalloc) {
    long page = sysconf(_SC_PAGESIZE);
    fsPageSize = page > 0 ? unsigned(page) : 4096u;
    fsMask = fsPageSize - 1;
  }
  return 0;
}

bool TisAllocator::useBuiltin(const TisBlock& block) { return fsUseMalloc || block.size < kMinMmapSize; }

void TisAllocator::pageAlign(TisBlock& block) {
  if (block.size & fsMask) block.size = (block.size & ~fsMask) + fsPageSize;
}

void TisAllocator::allocate(TisBlock& block) {
  if (useBuiltin(block)) {
    block.pointer = std::malloc(block.size);
    return;
  }
  pageAlign(block);
  void* p = mmap(nullptr, block.size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (p == MAP_FAILED) {
    std::perror("TisAllocator:  mmap failed.");
    p = nullptr;
  }
  block.pointer = p;
}

void TisAllocator::deallocate(TisBlock& block) {
  if (useBuiltin(block)) {
    std::free(block.pointer);
  } else if (block.pointer && munmap(block.pointer, block.size) != 0) {
    std::perror("munmap(..., MEM_RELEASE)");
  }
  block.pointer = nullptr;
}
