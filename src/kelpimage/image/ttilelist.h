// An array of rectangles, stored by value.
#pragma once

#include "kelpimage/base/tarray.h"
#include "kelpimage/base/tgeometry.h"
#include "kelpimage/kelpexport.h"

class KELP_API TtileList : public Tarray {
 public:
  explicit TtileList(int initialCapacity = 8) : Tarray(int(sizeof(TportRect)), initialCapacity) {}
  ~TtileList() override = default;

  void createAndSet(const TportRect& rect, unsigned count, unsigned);
  void insert(const TportRect& rect, unsigned index);
  void insert(const TportRect* rects, unsigned count, unsigned index);
  void addLast(const TportRect& rect) { insert(rect, unsigned(length())); }
  void addLast(const TportRect* rects, unsigned count) { insert(rects, count, unsigned(length())); }
  bool find(const TportRect& rect, unsigned& index) const;
  bool find(const TportRect& rect) const;
  void remove(const TportRect& rect);
  // Exchanges the contents of two lists.
  void swap(TtileList& other);
  // Replaces the contents with `count` elements of `src` from `start`; the
  // number copied.
  int copy(const TtileList& src, unsigned start, unsigned count);
  int copy(const TtileList& src, unsigned count) { return copy(src, 0, count); }
  int copy(const TtileList& src) { return copy(src, 0, unsigned(src.length())); }
  // The same, appended.
  int catenate(const TtileList& src, unsigned start, unsigned count);
  int catenate(const TtileList& src, unsigned count) { return catenate(src, 0, count); }
  int catenate(const TtileList& src) { return catenate(src, 0, unsigned(src.length())); }

  TportRect* data() { return static_cast<TportRect*>(Tarray::data()); }
  const TportRect* data() const { return static_cast<const TportRect*>(Tarray::data()); }
  TportRect& operator[](unsigned i) { return data()[i]; }
  const TportRect& operator[](unsigned i) const { return data()[i]; }
  const TportRect& last() const { return data()[length() - 1]; }
};
