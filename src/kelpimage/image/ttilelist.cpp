#include "kelpimage/image/ttilelist.h"

#include <algorithm>
#include <utility>

void TtileList::createAndSet(const TportRect& rect, unsigned count, unsigned) {
  createAndInitialise(int(count), &rect);
}

void TtileList::insert(const TportRect& rect, unsigned index) { insertElement(int(index), &rect); }

void TtileList::insert(const TportRect* rects, unsigned count, unsigned index) {
  for (unsigned i = 0; i < count; ++i) insertElement(int(index + i), &rects[i]);
}

bool TtileList::find(const TportRect& rect, unsigned& index) const {
  int at = findElement(&rect);
  if (at < 0) return false;
  index = unsigned(at);
  return true;
}

bool TtileList::find(const TportRect& rect) const { return findElement(&rect) >= 0; }

void TtileList::remove(const TportRect& rect) {
  int at = findElement(&rect);
  if (at >= 0) removeElement(at);
}

void TtileList::swap(TtileList& other) {
  TtileList tmp(0);
  tmp.Tarray::operator=(other);
  other.Tarray::operator=(*this);
  Tarray::operator=(tmp);
}

int TtileList::copy(const TtileList& src, unsigned start, unsigned count) {
  changeLogicalSizeTo(0);
  return catenate(src, start, count);
}

int TtileList::catenate(const TtileList& src, unsigned start, unsigned count) {
  if (src.length() == 0 || start >= unsigned(src.length())) return 0;
  count = std::min(count, unsigned(src.length()) - start);
  for (unsigned i = 0; i < count; ++i) insertElement(length(), &src.data()[start + i]);
  return int(count);
}
