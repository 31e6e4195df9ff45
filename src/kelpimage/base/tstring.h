// Text: Tstring, its message numbers and TstringArray.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "kelpimage/kelpexport.h"

class TstringArray;

// The number of a message in the library's message table.
struct TstringIdNumber {
  int fId;
  constexpr explicit TstringIdNumber(int id) : fId(id) {}
};

// Text with an empty (null) state. Copies share nothing that can be changed
// through another copy.
class KELP_API Tstring {
 public:
  static const char* const kNullStr;

  Tstring() = default;
  Tstring(const char* text) : fText(text ? text : "") {}
  Tstring(const std::string& text) : fText(text) {}
  explicit Tstring(TstringIdNumber id);

  const char* asChar() const { return fText.c_str(); }
  const std::string& str() const { return fText; }
  int length() const { return int(fText.size()); }
  bool isEmpty() const { return fText.empty(); }

  Tstring& set(const char* text);
  Tstring& copy(const Tstring& other) { return *this = other; }
  // The first `count` characters of `text`.
  Tstring& copyChar(const char* text, int count);
  // Replaces the character at `index`; past the end the text is not changed.
  Tstring& setChar(int index, char c);

  Tstring& catenate(const Tstring& other);
  Tstring& append(const char* text) { return catenate(Tstring(text)); }
  Tstring operator+(const Tstring& other) const;
  Tstring& operator+=(const Tstring& other) { return catenate(other); }

  // printf-like; Tstring arguments stand where "%s" asks for text.
  template <class... Args>
  Tstring& format(const Tstring& pattern, const Args&... args) {
    return formatRaw(pattern.asChar(), pass(args)...);
  }

  // `count` characters from `start` into `result`, clipped to the text.
  void substring(int start, int count, Tstring& result) const;
  // Every occurrence of `oldText` becomes `newText`; the number replaced.
  int substitute(const Tstring& oldText, const Tstring& newText);
  // Pieces between `separator` characters, added to `pieces`; their number.
  int split(char separator, TstringArray& pieces) const;

  // Path pieces: "dir/name.ext" gives "name.ext", "dir" and "ext".
  Tstring baseName() const;
  Tstring directoryPath() const;
  Tstring extension() const;

  Tstring& setInt32(int32_t value);

  bool operator==(const Tstring& other) const { return fText == other.fText; }
  bool operator==(const char* text) const { return fText == (text ? text : ""); }
  bool operator!=(const Tstring& other) const { return !(*this == other); }
  bool operator!=(const char* text) const { return !(*this == text); }
  bool operator<(const Tstring& other) const { return fText < other.fText; }
  char operator[](int index) const { return index >= 0 && index < length() ? fText[size_t(index)] : '\0'; }

 private:
  template <class T>
  static auto pass(const T& v) {
    if constexpr (std::is_same_v<T, Tstring>)
      return v.asChar();
    else if constexpr (std::is_same_v<T, std::string>)
      return v.c_str();
    else
      return v;
  }
  Tstring& formatRaw(const char* pattern, ...) __attribute__((format(printf, 2, 3)));

  std::string fText;
};

// A growing array of Tstring.
class KELP_API TstringArray {
 public:
  explicit TstringArray(int initialCapacity = 8) { fItems.reserve(size_t(initialCapacity)); }
  void addLast(const Tstring& s) { fItems.push_back(s); }
  void copy(const TstringArray& other) { fItems = other.fItems; }
  int length() const { return int(fItems.size()); }
  void reset() { fItems.clear(); }
  Tstring& operator[](int i) { return fItems.at(size_t(i)); }
  const Tstring& operator[](int i) const { return fItems.at(size_t(i)); }

 private:
  std::vector<Tstring> fItems;
};
