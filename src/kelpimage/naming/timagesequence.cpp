#include "kelpimage/naming/timagesequence.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <mutex>
#include <string>

TstringArray TimageSequence::fsFileFormatList(8);

namespace {
// The list is the host's; the lock only keeps two threads that set and get
// it from tearing it.
std::mutex& listLock() {
  static std::mutex lock;
  return lock;
}
}  // namespace

void TimageSequence::init() { *this = TimageSequence(); }

bool TimageSequence::checkForNumber(const Tstring& text, Tstring& number) {
  const std::string& t = text.str();
  size_t start = t.size();
  while (start > 0 && std::isdigit(static_cast<unsigned char>(t[start - 1]))) --start;
  if (start == t.size()) return false;
  number = Tstring(t.substr(start));
  return true;
}

bool TimageSequence::doesNameMatchFormat(const Tstring& name) {
  TstringArray format;
  int n = fFormat.split('.', format);
  if (n < 2) {
    fHashCount += int(std::count(fFormat.str().begin(), fFormat.str().end(), '#'));
    if (fHashCount > 0) fHashComponent = 0;
  } else {
    for (int i = 0; i < n; ++i) {
      const std::string& part = format[i].str();
      int marks = int(std::count(part.begin(), part.end(), '#'));
      if (marks > 0) {
        fHashComponent = i;
        fHashCount += marks;
        break;
      }
    }
  }
  TstringArray parts;
  Tstring base = name.baseName();
  int m = base.split('.', parts);
  Tstring number;
  if (m > 1) {
    if (m != n || fHashComponent < 0 || !checkForNumber(parts[fHashComponent], number)) return false;
  } else if (m == 1) {
    if (n != 1 || !checkForNumber(base, number) || fHashComponent < 0) return false;
  } else {
    return false;
  }
  fNumberText = number;
  const std::string& digits = number.str();
  if (fHashCount > 1) return int(digits.size()) == fHashCount;
  if (fHashCount == 1) return digits[0] != '0' || digits == "0";
  return false;
}

void TimageSequence::setFileNameAndFormat(const Tstring& fileName, const Tstring& format) {
  init();
  if (fileName.isEmpty() || format.isEmpty()) throw 1;
  fFileName = fileName;
  fFormat = format;
  fHashComponent = -1;
  if (!doesNameMatchFormat(fileName)) {
    init();
    throw 1;
  }
  fValid = true;
}

Tstring TimageSequence::atFrame(int frame) {
  if (!fValid) return Tstring();
  int f = fOffset + frame;
  char number[32];
  if (fHashCount > 1)
    std::snprintf(number, sizeof number, "%0*d", fHashCount, f);
  else
    std::snprintf(number, sizeof number, "%d", f);
  Tstring base = fFileName.baseName();
  TstringArray parts;
  int count = base.split('.', parts);
  if (count >= 2) {
    parts[fHashComponent].substitute(fNumberText, Tstring(number));
    std::string joined;
    for (int i = 0; i < count; ++i) joined += (i ? "." : "") + parts[i].str();
    base = Tstring(joined);
  } else {
    base.substitute(fNumberText, Tstring(number));
  }
  // A name without a folder stays without one.
  Tstring dir = fFileName.directoryPath();
  if (dir.isEmpty()) return base;
  return Tstring(dir.str() + (dir.str() == "/" ? "" : "/") + base.str());
}

void TimageSequence::setFileNameFormats(const TstringArray& formats) {
  std::lock_guard<std::mutex> hold(listLock());
  fsFileFormatList.copy(formats);
}

void TimageSequence::getFileNameFormats(TstringArray& formats) {
  std::lock_guard<std::mutex> hold(listLock());
  formats.copy(fsFileFormatList);
}
