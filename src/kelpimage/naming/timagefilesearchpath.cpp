#include "kelpimage/naming/timagefilesearchpath.h"

#include <cctype>
#include <cstring>
#include <string>

#include "kelpimage/naming/tprojectmgr.h"

TcameraTypes::TfieldType TimageFileSearchPath::fCurrentField = TcameraTypes::kFrame;
char TimageFileSearchPath::fOddFieldExt[4] = "";
char TimageFileSearchPath::fEvenFieldExt[4] = "";
char TimageFileSearchPath::fOutFormatExt[12] = "";

namespace {

constexpr size_t kExpandedSize = 4096;
constexpr size_t kPartSize = 1024;  // the parts' buffers, for the private helpers

void copyInto(char* to, size_t size, const std::string& text) {
  size_t n = std::min(text.size(), size - 1);
  std::memcpy(to, text.data(), n);
  to[n] = '\0';
}

bool alpha(char c) { return std::isalpha(static_cast<unsigned char>(c)) != 0; }
bool digit(char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; }

// The first three characters of `text` and of `marker` followed by ".".
bool markerThenDot(const std::string& text, const char* marker) {
  std::string m = std::string(marker) + ".";
  return std::strncmp(text.c_str(), m.c_str(), 3) == 0;
}

// A name taken apart.
struct Parts {
  std::string dir, stem, field, format, frame, compression;
  bool marked = false;  // the name carried a field marker
};

// The format extension: the first component when it is a word of 3 to 9
// characters with its dot, else the second when it is the last and such a word.
std::string formatExtension(const std::string& base) {
  size_t p = base.find('.');
  if (p == std::string::npos) return {};
  size_t q = base.find('.', p + 1);
  auto word = [&](size_t at, size_t length) {
    return at + 1 < base.size() && alpha(base[at + 1]) && length >= 3 && length <= 9;
  };
  if (q == std::string::npos) return word(p, base.size() - p) ? base.substr(p) : std::string();
  if (word(p, q - p)) return base.substr(p, q - p);
  if (base.find('.', q + 1) == std::string::npos && word(q, base.size() - q)) return base.substr(q);
  return {};
}

// The first component after a dot that starts with a digit, with its dot.
std::string frameExtension(const std::string& base) {
  for (size_t at = base.find('.'); at != std::string::npos; at = base.find('.', at + 1)) {
    if (at + 1 < base.size() && digit(base[at + 1])) {
      size_t end = base.find('.', at + 1);
      return base.substr(at, end == std::string::npos ? std::string::npos : end - at);
    }
  }
  return {};
}

}  // namespace

void TimageFileSearchPath::initImageFileSearchPath(TcameraTypes::TfieldType field, const Tstring& oddExt,
                                                   const Tstring& evenExt, const Tstring& outFormatExt) {
  fCurrentField = field;
  copyInto(fOddFieldExt, sizeof fOddFieldExt, oddExt.str());
  copyInto(fEvenFieldExt, sizeof fEvenFieldExt, evenExt.str());
  copyInto(fOutFormatExt, sizeof fOutFormatExt, outFormatExt.str());
}

bool TimageFileSearchPath::nextFrameExt(char* current, bool useFrame, char* frameExt) {
  if (!useFrame) return false;
  long zeros = long(std::strlen(current)) - long(std::strlen(frameExt));
  if (zeros > 3) return false;
  std::string next(1, '.');
  next.append(size_t(zeros < 0 ? 0 : zeros) + 1, '0');
  next.append(frameExt[0] == '.' ? frameExt + 1 : frameExt);
  copyInto(current, kPartSize, next);
  return true;
}

bool TimageFileSearchPath::nextFieldExt(char* current, char* field) {
  // `field` holds the marker the name carried: only a name without one is
  // tried with the current field's.
  if (field[0] != '\0' || current[0] != '\0') return false;
  if (fCurrentField == TcameraTypes::kEvenField)
    copyInto(current, kPartSize, fEvenFieldExt);
  else if (fCurrentField == TcameraTypes::kOddField)
    copyInto(current, kPartSize, fOddFieldExt);
  else
    return false;
  return current[0] != '\0';
}

bool TimageFileSearchPath::nextCompressionExt(char* current) {
  if (std::strcmp(current, ".Z") == 0) return false;
  copyInto(current, kPartSize, ".Z");
  return true;
}

bool TimageFileSearchPath::expandImageName(char* name, char* expanded, bool useFrame, char* frameExt) {
  if (!name || !*name || !expanded) return false;
  expanded[0] = '\0';
  TprojectMgrBase& project = TprojectMgrBase::current();
  auto ask = [&](const std::string& candidate) {
    copyInto(expanded, kExpandedSize, candidate);
    Tstring resolved;
    if (!project.findFile(Tstring(candidate), TfileObjectTypeName::kTR_Image, TfileObjectTypeName::kRT_SourceImages, 1,
                          resolved))
      return false;
    copyInto(expanded, kExpandedSize, resolved.str());
    return true;
  };
  if (!useFrame && ask(name)) return true;

  for (char* c = name; *c; ++c)
    if (*c == '\\') *c = '/';
  std::string whole = name;
  size_t slash = whole.rfind('/');
  Parts parts;
  std::string base = slash == std::string::npos ? whole : whole.substr(slash + 1);
  parts.dir = slash == std::string::npos ? "." : slash == 0 ? "/" : whole.substr(0, slash);
  parts.stem = base.substr(0, base.find('.'));
  size_t last = base.rfind('.');
  if (last != std::string::npos && base.substr(last) == ".Z") parts.compression = ".Z";

  if (fCurrentField == TcameraTypes::kEvenField || fCurrentField == TcameraTypes::kOddField) {
    bool even = fCurrentField == TcameraTypes::kEvenField;
    size_t dot = base.find('.');
    std::string p = dot == std::string::npos ? std::string() : base.substr(dot);
    if (!p.empty() && (p == ".o" || p == ".e" || p.rfind(".o.", 0) == 0 || p.rfind(".e.", 0) == 0)) {
      parts.field = even ? ".e" : ".o";
      parts.marked = true;
    } else if (!p.empty() && ((fOddFieldExt[0] && (p == fOddFieldExt || markerThenDot(p, fOddFieldExt))) ||
                              (fEvenFieldExt[0] && (p == fEvenFieldExt || markerThenDot(p, fEvenFieldExt))))) {
      parts.field = even ? fEvenFieldExt : fOddFieldExt;
      parts.marked = true;
    }
  }
  parts.frame = useFrame ? std::string(frameExt ? frameExt : "") : frameExtension(base);
  parts.format = formatExtension(base);

  std::string prefix = parts.dir == "." ? std::string() : parts.dir == "/" ? "/" : parts.dir + "/";
  char compression[kPartSize], field[kPartSize], frame[kPartSize], marker[kPartSize], given[kPartSize];
  copyInto(compression, sizeof compression, parts.compression);
  copyInto(marker, sizeof marker, parts.marked ? parts.field : std::string());
  copyInto(given, sizeof given, parts.frame);
  for (;;) {
    copyInto(field, sizeof field, parts.field);
    for (;;) {
      copyInto(frame, sizeof frame, parts.frame);
      for (;;) {
        if (ask(prefix + parts.stem + field + parts.format + frame + compression)) return true;
        if (ask(prefix + parts.stem + field + frame + parts.format + compression)) return true;
        if (!nextFrameExt(frame, useFrame, given)) break;
      }
      if (!nextFieldExt(field, marker)) break;
    }
    if (!nextCompressionExt(compression)) return false;
  }
}

bool TimageFileSearchPath::exactImageName(const Tstring& name, Tstring& expanded, bool useFrame,
                                          const Tstring& frameExt) {
  std::string n = name.str(), f = frameExt.str();
  n.push_back('\0');
  f.resize(std::max(f.size(), size_t(16)) + 1, '\0');
  std::string out(kExpandedSize, '\0');
  if (!expandImageName(n.data(), out.data(), useFrame, f.data())) return false;
  expanded = Tstring(out.c_str());
  return true;
}
