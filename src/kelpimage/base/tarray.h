// Growing arrays of fixed-size elements, and the small arrays built on them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>

#include "kelpimage/kelpexport.h"

// Thrown when an array cannot get the memory it needs.
class KELP_API TmemoryException : public std::bad_alloc {
 public:
  const char* what() const noexcept override { return "out of memory"; }
};

// Elements are plain bytes of `elementSize` each, copied as they are.
class KELP_API Tarray {
 public:
  Tarray(int elementSize, int initialCapacity);
  Tarray(const Tarray& other);
  Tarray& operator=(const Tarray& other);
  virtual ~Tarray();

  int length() const { return fCount; }
  int capacity() const { return fCapacity; }
  int elementSize() const { return fElementSize; }
  void* data() { return fData; }
  const void* data() const { return fData; }

  // Sets the number of elements, growing the storage as needed; new elements are zero.
  void changeLogicalSizeTo(int count);

  // Makes room for `count` elements and fills each with `init` (zero if null).
  virtual void createAndInitialise(int count, const void* init);
  virtual void create(int count);
  virtual void changePhysicalSizeTo(int capacity);

 protected:
  void insertElement(int index, const void* element);
  // The index of the first element equal to `element`, or -1.
  int findElement(const void* element) const;
  void removeElement(int index);
  void copyElements(const Tarray& other);
  uint8_t* at(int index) { return static_cast<uint8_t*>(fData) + size_t(index) * size_t(fElementSize); }
  const uint8_t* at(int index) const {
    return static_cast<const uint8_t*>(fData) + size_t(index) * size_t(fElementSize);
  }

 private:
  void allocateArray(int capacity);
  void expandArray(int needed);

  int fCount = 0;
  int fCapacity = 0;
  int fElementSize;
  void* fData = nullptr;
};

// Arrays of one element type, with `addLast` and indexing.
template <class T>
class TtypedArray : public Tarray {
 public:
  explicit TtypedArray(int initialCapacity = 8) : Tarray(int(sizeof(T)), initialCapacity) {}
  void addLast(const T& value) { insertElement(length(), &value); }
  T& operator[](int i) { return *reinterpret_cast<T*>(at(i)); }
  const T& operator[](int i) const { return *reinterpret_cast<const T*>(at(i)); }
  int find(const T& value) const { return findElement(&value); }
  void remove(int i) { removeElement(i); }
};

class KELP_API TvoidPtrArray : public TtypedArray<void*> {
  using TtypedArray::TtypedArray;
};
class KELP_API Tint16Array : public TtypedArray<int16_t> {
  using TtypedArray::TtypedArray;
};
class KELP_API Tint32Array : public TtypedArray<int32_t> {
  using TtypedArray::TtypedArray;
};
class KELP_API TuInt32Array : public TtypedArray<uint32_t> {
  using TtypedArray::TtypedArray;
};
class KELP_API TfloatArray : public TtypedArray<float> {
  using TtypedArray::TtypedArray;
};
// Pointers to objects the array does not own.
class KELP_API TobjArray : public TtypedArray<void*> {
 public:
  using TtypedArray::TtypedArray;
  void reset() { changeLogicalSizeTo(0); }
};
