// String helpers on NUL-terminated strings: comparison, copies, path
// pieces, word arrays ended by a null pointer, and a shared pool of
// reference-counted strings in which equal strings are one pointer.
#pragma once

#include <cstddef>

#include "kelpimage/kelpexport.h"

KELP_API int STR_compare(const char* a, const char* b);
KELP_API int STR_n_compare(const char* a, const char* b, int n);
KELP_API int STR_length(const char* s);
KELP_API char* STR_more(char* block, int size);
KELP_API char* STR_save(const char* s);
KELP_API char* STR_save_n(int count, ...);
KELP_API char* STR_skip_space(char* s);
KELP_API char* STR_find_space(char* s);
KELP_API char* STR_extension(char* s);
KELP_API char* STR_root(char* s);
KELP_API char* STR_tail(char* s);
KELP_API char* STR_head(char* s);
KELP_API bool STR_is_numeric(const char* s);
KELP_API char** STR_find_string(char** array, const char* s);
// Splits s in place into its whitespace-separated words.
KELP_API char** STR_parse(char* s);
KELP_API char** STR_sort(char** array);
KELP_API unsigned STR_hash(const char* s, unsigned size);
KELP_API const char* STR_define(const char* s);
KELP_API int STR_undefine(const char* s);
KELP_API int STR_undefine_array(char** array);

// Growing arrays of pointers ended by a null pointer.
KELP_API int STR_array_count(void** array);
KELP_API void** STR_array_grow(void** array, int n);
KELP_API void** STR_array_append(void** array, void* const* entries, int n);
KELP_API void** STR_array_find(void** array, const void* value);

// The second form: pointer, capacity, growth step and length.
struct STR_growarray {
  void** data = nullptr;
  int capacity = 0;
  int step = 8;
  int length = 0;
};
KELP_API bool STR_growarray_reserve(STR_growarray* array, int n);
KELP_API bool STR_growarray_add(STR_growarray* array, void* value);
