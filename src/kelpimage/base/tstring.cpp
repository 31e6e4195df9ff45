#include "kelpimage/base/tstring.h"

#include <cstdarg>
#include <cstring>

#include "kelpimage/base/tstringtable.h"

const char* const Tstring::kNullStr = "";

Tstring::Tstring(TstringIdNumber id) {
  if (const char* text = TstringFindMessage(id.fId))
    fText = text;
  else
    fText = "Message " + std::to_string(id.fId);
}

Tstring& Tstring::set(const char* text) {
  fText = text ? text : "";
  return *this;
}

Tstring& Tstring::copyChar(const char* text, int count) {
  if (!text || count <= 0) {
    fText.clear();
  } else {
    fText.assign(text, strnlen(text, size_t(count)));
  }
  return *this;
}

Tstring& Tstring::setChar(int index, char c) {
  if (index >= 0 && index < length()) fText[size_t(index)] = c;
  return *this;
}

Tstring& Tstring::catenate(const Tstring& other) {
  fText += other.fText;
  return *this;
}

Tstring Tstring::operator+(const Tstring& other) const {
  Tstring r(*this);
  return r.catenate(other);
}

Tstring& Tstring::formatRaw(const char* pattern, ...) {
  va_list a, b;
  va_start(a, pattern);
  va_copy(b, a);
  int n = std::vsnprintf(nullptr, 0, pattern, a);
  va_end(a);
  if (n < 0) {
    va_end(b);
    fText.clear();
    return *this;
  }
  std::string out(size_t(n) + 1, '\0');
  std::vsnprintf(out.data(), out.size(), pattern, b);
  va_end(b);
  out.resize(size_t(n));
  fText = std::move(out);
  return *this;
}

void Tstring::substring(int start, int count, Tstring& result) const {
  if (start < 0) start = 0;
  if (start >= length() || count <= 0) {
    result.fText.clear();
    return;
  }
  result.fText = fText.substr(size_t(start), size_t(count));
}

int Tstring::substitute(const Tstring& oldText, const Tstring& newText) {
  if (oldText.isEmpty()) return 0;
  int n = 0;
  for (size_t at = 0; (at = fText.find(oldText.fText, at)) != std::string::npos; ++n) {
    fText.replace(at, oldText.fText.size(), newText.fText);
    at += newText.fText.size();
  }
  return n;
}

int Tstring::split(char separator, TstringArray& pieces) const {
  if (fText.empty()) return 0;
  int n = 0;
  size_t from = 0;
  for (;;) {
    size_t at = fText.find(separator, from);
    pieces.addLast(Tstring(fText.substr(from, at == std::string::npos ? std::string::npos : at - from)));
    ++n;
    if (at == std::string::npos) return n;
    from = at + 1;
  }
}

Tstring Tstring::baseName() const {
  size_t slash = fText.find_last_of('/');
  return Tstring(slash == std::string::npos ? fText : fText.substr(slash + 1));
}

Tstring Tstring::directoryPath() const {
  size_t slash = fText.find_last_of('/');
  if (slash == std::string::npos) return Tstring();
  return Tstring(slash == 0 ? std::string("/") : fText.substr(0, slash));
}

Tstring Tstring::extension() const {
  std::string base = baseName().fText;
  size_t dot = base.find_last_of('.');
  return Tstring(dot == std::string::npos ? std::string() : base.substr(dot + 1));
}

Tstring& Tstring::setInt32(int32_t value) {
  fText = std::to_string(value);
  return *this;
}
