// Memory under keys. Each block carries a small header that links it into
// its key's list, so a block can be freed alone in constant time and a key
// can release everything at once.
#include <cstdlib>
#include <cstring>
#include <new>

#include "kelpimage/il/chunk/fl.h"

struct FLblock {
  FLblock* prev;
  FLblock* next;
  FLmkey* key;
  size_t size;
};
static_assert(sizeof(FLblock) % 16 == 0, "block payloads stay 16-byte aligned");

struct FLmkey {
  FLblock* head = nullptr;
};

static FLblock* headerOf(void* p) { return static_cast<FLblock*>(p) - 1; }

static void link(FLblock* b, FLmkey* key) {
  b->key = key;
  b->prev = nullptr;
  b->next = key ? key->head : nullptr;
  if (key) {
    if (key->head) key->head->prev = b;
    key->head = b;
  }
}

static void unlink(FLblock* b) {
  if (!b->key) return;
  if (b->prev)
    b->prev->next = b->next;
  else
    b->key->head = b->next;
  if (b->next) b->next->prev = b->prev;
}

FLmkey* FLinitmkey() { return new (std::nothrow) FLmkey; }

void FLclean(FLmkey* key) {
  if (!key) return;
  for (FLblock* b = key->head; b;) {
    FLblock* next = b->next;
    std::free(b);
    b = next;
  }
  key->head = nullptr;
}

void FLfreemkey(FLmkey* key) {
  FLclean(key);
  delete key;
}

void* FLmalloc(size_t size, FLmkey* key) {
  if (size > SIZE_MAX - sizeof(FLblock)) {
    flerrno = FL_ENOMEM;
    return nullptr;
  }
  auto* b = static_cast<FLblock*>(std::malloc(sizeof(FLblock) + size));
  if (!b) {
    flerrno = FL_ENOMEM;
    return nullptr;
  }
  b->size = size;
  link(b, key);
  return b + 1;
}

void* FLcalloc(size_t size, FLmkey* key) {
  void* p = FLmalloc(size, key);
  if (p) std::memset(p, 0, size);
  return p;
}

static void* regrow(void* old, size_t size, FLmkey* key, bool keep) {
  if (!old) return FLmalloc(size, key);
  FLblock* b = headerOf(old);
  if (b->size >= size) return old;
  void* fresh = FLmalloc(size, key ? key : b->key);
  if (!fresh) return nullptr;
  if (keep) std::memcpy(fresh, old, b->size);
  FLfree(old);
  return fresh;
}

void* FLgrow(void* old, size_t size, FLmkey* key) { return regrow(old, size, key, false); }
void* FLrgrow(void* old, size_t size, FLmkey* key) { return regrow(old, size, key, true); }

int FLfree(void* block, void*) {
  if (!block) return 0;
  FLblock* b = headerOf(block);
  unlink(b);
  std::free(b);
  return 0;
}
