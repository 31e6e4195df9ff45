#include "kelpimage/image/host/tdata.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <new>

namespace {
struct Registry {
  std::mutex lock;
  std::map<int, std::vector<int>> types;
  std::vector<Tmetaclass*> metaclasses;
};
Registry& registry() {
  static Registry r;
  return r;
}
}  // namespace

void KObjBase::add(int type, const std::vector<int>& parents) {
  Registry& r = registry();
  std::lock_guard<std::mutex> guard(r.lock);
  r.types[type] = parents;
}

bool KObjBase::isRegistered(int type) {
  Registry& r = registry();
  std::lock_guard<std::mutex> guard(r.lock);
  return r.types.count(type) != 0;
}

bool KObjBase::isA(int type, int ancestor) {
  if (type == ancestor) return true;
  std::vector<int> parents;
  {
    Registry& r = registry();
    std::lock_guard<std::mutex> guard(r.lock);
    auto it = r.types.find(type);
    if (it == r.types.end()) return false;
    parents = it->second;
  }
  for (int p : parents)
    if (p != type && isA(p, ancestor)) return true;
  return false;
}

void* TmultiSharedObject::operator new(size_t size) { return ::operator new(size); }
void* TmultiSharedObject::operator new(size_t size, const std::nothrow_t& tag) noexcept {
  return ::operator new(size, tag);
}
void TmultiSharedObject::operator delete(void* p) { ::operator delete(p); }

void TmultiSharedObject::unreference() {
  if (--fRefs <= 0) delete this;
}

Tmetaclass::Tmetaclass(const char* name, size_t size, Creator creator, uint32_t tag, bool abstract, Tmetaclass* parent,
                       Tmetaclass*, Tmetaclass*, Tmetaclass*)
    : fName(name), fSize(size), fCreator(creator), fTag(tag), fAbstract(abstract), fParent(parent) {
  Registry& r = registry();
  std::lock_guard<std::mutex> guard(r.lock);
  r.metaclasses.push_back(this);
}

bool Tmetaclass::istype(const Tmetaclass* ancestor) const {
  for (const Tmetaclass* m = this; m; m = m->fParent)
    if (m == ancestor) return true;
  return false;
}

TdataLetter* Tmetaclass::construct(Tmetaclass* m, Tmetaclass* base) {
  if (!m || !m->fCreator || m->fAbstract || (base && !m->istype(base))) return nullptr;
  return m->fCreator(m);
}

Tmetaclass* Tmetaclass::byName(const char* name) {
  Registry& r = registry();
  std::lock_guard<std::mutex> guard(r.lock);
  for (Tmetaclass* m : r.metaclasses)
    if (name && std::strcmp(m->fName, name) == 0) return m;
  return nullptr;
}

Tmetaclass* Tmetaclass::byTag(uint32_t tag) {
  Registry& r = registry();
  std::lock_guard<std::mutex> guard(r.lock);
  for (Tmetaclass* m : r.metaclasses)
    if (m->fTag == tag) return m;
  return nullptr;
}

Tmetaclass TdataTmeta("data", sizeof(Tdata), nullptr, 0, true, nullptr);
Tmetaclass TdataNumericTmeta("numericData", sizeof(Tdata), nullptr, 0, true, &TdataTmeta);
Tmetaclass TdataLetterTmeta("dataLetter", sizeof(TdataLetter), nullptr, 0, true, nullptr);

void TdataLetter::debug(TdebugOutput& out, unsigned) const {
  out.printf("TdataLetter %s refs %d", typeName(), references());
}

Tmetaclass* TdataLetter::typeof() const { return &TdataLetterTmeta; }

void* TdataLetter::cast(Tmetaclass* m) { return m == &TdataLetterTmeta ? this : nullptr; }

bool TdataLetter::operator==(const Tdata& other) const {
  const TdataLetter* letter = other.privateDataStar();
  return letter && *this == *letter;
}

Tdata::Tdata(TdataLetter* letter) : fWord(reinterpret_cast<uintptr_t>(letter)) {
  if (letter) letter->reference();
}

Tdata::Tdata(const Tdata& other) : fWord(other.fWord) {
  if (TdataLetter* l = privateDataStar()) l->reference();
}

Tdata& Tdata::operator=(const Tdata& other) {
  if (this != &other) {
    Tdata copy(other);
    std::swap(fWord, copy.fWord);
  }
  return *this;
}

Tdata::~Tdata() {
  if (TdataLetter* l = privateDataStar()) l->unreference();
}

Tdata Tdata::directValue(uintptr_t value) {
  Tdata d;
  d.fWord = (value << 1) | 1u;
  return d;
}
