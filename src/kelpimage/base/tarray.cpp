#include "kelpimage/base/tarray.h"

#include <cstdlib>
#include <cstring>

Tarray::Tarray(int elementSize, int initialCapacity) : fElementSize(elementSize > 0 ? elementSize : 1) {
  if (initialCapacity > 0) allocateArray(initialCapacity);
}

Tarray::Tarray(const Tarray& other) : fElementSize(other.fElementSize) { copyElements(other); }

Tarray& Tarray::operator=(const Tarray& other) {
  if (this != &other) {
    fElementSize = other.fElementSize;
    fCount = 0;
    copyElements(other);
  }
  return *this;
}

Tarray::~Tarray() { std::free(fData); }

void Tarray::allocateArray(int capacity) {
  size_t bytes = size_t(capacity) * size_t(fElementSize);
  void* p = std::realloc(fData, bytes ? bytes : 1);
  if (!p) throw TmemoryException();
  fData = p;
  fCapacity = capacity;
}

void Tarray::expandArray(int needed) {
  if (needed <= fCapacity) return;
  int grown = fCapacity < 4 ? 4 : fCapacity;
  while (grown < needed) grown = grown > (1 << 29) ? needed : grown * 2;
  allocateArray(grown);
}

void Tarray::changePhysicalSizeTo(int capacity) {
  if (capacity < fCount) capacity = fCount;
  allocateArray(capacity);
}

void Tarray::changeLogicalSizeTo(int count) {
  if (count < 0) count = 0;
  expandArray(count);
  if (count > fCount) std::memset(at(fCount), 0, size_t(count - fCount) * size_t(fElementSize));
  fCount = count;
}

void Tarray::create(int count) { createAndInitialise(count, nullptr); }

void Tarray::createAndInitialise(int count, const void* init) {
  fCount = 0;
  changeLogicalSizeTo(count);
  if (init)
    for (int i = 0; i < count; ++i) std::memcpy(at(i), init, size_t(fElementSize));
}

void Tarray::insertElement(int index, const void* element) {
  if (index < 0 || index > fCount) index = fCount;
  expandArray(fCount + 1);
  std::memmove(at(index + 1), at(index), size_t(fCount - index) * size_t(fElementSize));
  std::memcpy(at(index), element, size_t(fElementSize));
  ++fCount;
}

int Tarray::findElement(const void* element) const {
  for (int i = 0; i < fCount; ++i)
    if (std::memcmp(at(i), element, size_t(fElementSize)) == 0) return i;
  return -1;
}

void Tarray::removeElement(int index) {
  if (index < 0 || index >= fCount) return;
  std::memmove(at(index), at(index + 1), size_t(fCount - index - 1) * size_t(fElementSize));
  --fCount;
}

void Tarray::copyElements(const Tarray& other) {
  expandArray(other.fCount);
  if (other.fCount) std::memcpy(fData, other.fData, size_t(other.fCount) * size_t(fElementSize));
  fCount = other.fCount;
}
