#include "kelpimage/support/str.h"

#include <cctype>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace {
// The difference of two addresses, kept within an int with its sign.
int addressDifference(const char* a, const char* b) {
  auto d = static_cast<long long>(reinterpret_cast<uintptr_t>(a) - reinterpret_cast<uintptr_t>(b));
  return d < INT_MIN ? INT_MIN : d > INT_MAX ? INT_MAX : int(d);
}
}  // namespace

int STR_compare(const char* a, const char* b) {
  if (!a || !b) return addressDifference(a, b);
  while (*a && *a == *b) ++a, ++b;
  return int(static_cast<signed char>(*a)) - int(static_cast<signed char>(*b));
}

int STR_n_compare(const char* a, const char* b, int n) {
  if (!a || !b) return addressDifference(a, b);
  for (int i = 1; i < n && *a && *a == *b; ++i) ++a, ++b;
  return int(static_cast<signed char>(*a)) - int(static_cast<signed char>(*b));
}

int STR_length(const char* s) { return s ? int(std::strlen(s)) : 0; }

char* STR_more(char* block, int size) {
  if (size < 0) size = 0;
  auto* p = static_cast<char*>(std::realloc(block, size_t(size) + 1));
  if (!p) return nullptr;
  if (block)
    p[size] = 0;
  else
    p[0] = 0;
  return p;
}

char* STR_save(const char* s) {
  size_t n = std::strlen(s);
  auto* p = static_cast<char*>(std::malloc(n + 1));
  if (p) std::memcpy(p, s, n + 1);
  return p;
}

char* STR_save_n(int count, ...) {
  va_list args;
  va_start(args, count);
  size_t total = 0;
  va_list sizing;
  va_copy(sizing, args);
  for (int i = 0; i < count; ++i) {
    const char* s = va_arg(sizing, const char*);
    total += s ? std::strlen(s) : 0;
  }
  va_end(sizing);
  auto* p = static_cast<char*>(std::malloc(total + 1));
  if (p) {
    char* at = p;
    for (int i = 0; i < count; ++i) {
      const char* s = va_arg(args, const char*);
      size_t n = s ? std::strlen(s) : 0;
      std::memcpy(at, s, n);
      at += n;
    }
    *at = 0;
  }
  va_end(args);
  return p;
}

char* STR_skip_space(char* s) {
  while (*s && std::isspace(static_cast<unsigned char>(*s))) ++s;
  return s;
}

char* STR_find_space(char* s) {
  if (!s) return nullptr;
  if (!*s) return s;
  ++s;  // the first character is never looked at
  while (*s && !std::isspace(static_cast<unsigned char>(*s))) ++s;
  return s;
}

char* STR_extension(char* s) {
  if (!s || !*s) return nullptr;
  char* dot = std::strrchr(s, '.');
  return dot ? dot + 1 : nullptr;
}

char* STR_root(char* s) {
  if (char* dot = s ? std::strrchr(s, '.') : nullptr) *dot = 0;
  return s;
}

char* STR_tail(char* s) {
  char* slash = std::strrchr(s, '/');
  return slash ? slash + 1 : s;
}

char* STR_head(char* s) {
  if (!s || !*s) return nullptr;
  char* slash = std::strrchr(s, '/');
  if (!slash) return nullptr;
  while (slash > s && slash[-1] == '/') --slash;  // the start of the last run of slashes
  *slash = 0;
  return s;
}

bool STR_is_numeric(const char* s) {
  if (!s || !*s) return false;
  for (; *s; ++s)
    if (!std::isdigit(static_cast<unsigned char>(*s))) return false;
  return true;
}

char** STR_find_string(char** array, const char* s) {
  if (!array) return nullptr;
  for (char** p = array; *p; ++p)
    if (STR_compare(*p, s) == 0) return p;
  return nullptr;
}

char** STR_parse(char* s) {
  auto** words = reinterpret_cast<char**>(STR_array_grow(nullptr, 0));
  if (!words) return nullptr;
  char* p = s;
  for (;;) {
    p = STR_skip_space(p);
    if (!*p) return words;
    void* word = p;
    void** grown = STR_array_append(reinterpret_cast<void**>(words), &word, 1);
    if (!grown) {
      std::free(words);
      return nullptr;
    }
    words = reinterpret_cast<char**>(grown);
    while (*p && !std::isspace(static_cast<unsigned char>(*p))) ++p;
    // A word that ends the string ends the parse here, without looking
    // past the string's own terminator.
    if (!*p) return words;
    *p++ = 0;
    if (!*p) return words;
  }
}

char** STR_sort(char** array) {
  int n = STR_array_count(reinterpret_cast<void**>(array));
  if (n < 2) return array;
  char** a = array - 1;  // positions counted from 1
  auto sift = [&](int root, int end) {
    char* value = a[root];
    int j = root;
    while (2 * j <= end) {
      int child = 2 * j;
      if (child < end && STR_compare(a[child], a[child + 1]) < 0) ++child;
      if (STR_compare(value, a[child]) >= 0) break;
      a[j] = a[child];
      j = child;
    }
    a[j] = value;
  };
  for (int root = (n >> 1); root >= 1; --root) sift(root, n);
  for (int end = n; end > 1; --end) {
    std::swap(a[1], a[end]);
    sift(1, end - 1);
  }
  return array;
}

unsigned STR_hash(const char* s, unsigned size) {
  if (!s || !*s) return 0;
  uint32_t h = 0;
  for (; *s; ++s) h = h * 33u + uint32_t(int32_t(static_cast<signed char>(*s)));
  return h % size;
}

// ---------------------------------------------------------------------------
// The shared pool.

namespace {
struct PoolEntry {
  PoolEntry* next;
  int count;
  char* text;
};
constexpr unsigned kChains = 1023;
PoolEntry* gChains[kChains];  // zeroed before first use, as statics are
}  // namespace

const char* STR_define(const char* s) {
  unsigned b = STR_hash(s, kChains);
  for (PoolEntry* e = gChains[b]; e; e = e->next)
    if (std::strcmp(e->text, s) == 0) {
      e->count++;
      return e->text;
    }
  auto* e = static_cast<PoolEntry*>(std::malloc(sizeof(PoolEntry)));
  if (!e) return nullptr;
  e->text = STR_save(s);
  if (!e->text) return nullptr;
  e->count = 1;
  e->next = gChains[b];
  gChains[b] = e;
  return e->text;
}

int STR_undefine(const char* s) {
  if (!s) return 0;
  unsigned b = STR_hash(s, kChains);
  for (PoolEntry** link = &gChains[b]; *link; link = &(*link)->next) {
    PoolEntry* e = *link;
    if (std::strcmp(e->text, s) != 0) continue;
    if (--e->count == 0) {
      *link = e->next;
      std::free(e->text);
      std::free(e);
    }
    return 0;
  }
  return 0;
}

int STR_undefine_array(char** array) {
  if (!array) return 0;
  for (char** p = array; *p; ++p) STR_undefine(*p);
  std::free(array);
  return 0;
}

// ---------------------------------------------------------------------------
// Pointer arrays.

int STR_array_count(void** array) {
  int n = 0;
  if (array)
    while (array[n]) ++n;
  return n;
}

void** STR_array_grow(void** array, int n) {
  auto** p = static_cast<void**>(std::realloc(array, (size_t(n) + 1) * sizeof(void*)));
  if (p && !array) p[0] = nullptr;
  return p;
}

void** STR_array_append(void** array, void* const* entries, int n) {
  int count = STR_array_count(array);
  void** p = STR_array_grow(array, count + n);
  if (!p) return nullptr;
  int i = 0;
  for (; i < n && entries[i]; ++i) p[count + i] = entries[i];
  p[count + i] = nullptr;
  return p;
}

void** STR_array_find(void** array, const void* value) {
  if (!array) return nullptr;
  for (void** p = array; *p; ++p)
    if (*p == value) return p;
  return nullptr;
}

bool STR_growarray_reserve(STR_growarray* a, int n) {
  if (a->capacity >= n) return true;
  auto** p = static_cast<void**>(std::realloc(a->data, (size_t(n) + size_t(a->step) + 1) * sizeof(void*)));
  if (!p) return false;
  a->data = p;
  a->capacity = n + a->step;
  return true;
}

bool STR_growarray_add(STR_growarray* a, void* value) {
  if (!STR_growarray_reserve(a, a->length + 1)) return false;
  a->data[a->length++] = value;
  a->data[a->length] = nullptr;
  return true;
}
