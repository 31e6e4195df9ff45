#include "kelpimage/naming/tframepattern.h"

#include <dirent.h>

#include <algorithm>
#include <cctype>
#include <cstdio>

bool TframePattern::parse(const std::string& name, TframePattern& p) {
  size_t slash = name.rfind('/');
  size_t base = slash == std::string::npos ? 0 : slash + 1;
  size_t hash = name.find('#', base);
  if (hash != std::string::npos) {
    size_t end = name.find_first_not_of('#', hash);
    if (end == std::string::npos) end = name.size();
    if (name.find('#', end) != std::string::npos) return false;  // one run of marks only
    p.prefix = name.substr(0, hash);
    p.suffix = name.substr(end);
    p.width = end - hash > 1 ? int(end - hash) : 0;
    return true;
  }
  size_t percent = name.find('%', base);
  if (percent == std::string::npos) return false;
  size_t at = percent + 1;
  int width = 0;
  bool zero = at < name.size() && name[at] == '0';
  while (at < name.size() && std::isdigit(static_cast<unsigned char>(name[at])))
    width = width * 10 + (name[at++] - '0');
  if (at >= name.size() || name[at] != 'd' || (width > 0 && !zero) || width > 18) return false;
  p.prefix = name.substr(0, percent);
  p.suffix = name.substr(at + 1);
  p.width = width > 1 ? width : 0;
  return true;
}

std::string TframePattern::name(long frame) const {
  char digits[32];
  std::snprintf(digits, sizeof digits, "%0*ld", width, frame);
  return prefix + digits + suffix;
}

bool TframePattern::frameOf(const std::string& file, long& frame) const {
  if (file.size() <= prefix.size() + suffix.size() || file.compare(0, prefix.size(), prefix) != 0 ||
      file.compare(file.size() - suffix.size(), suffix.size(), suffix) != 0)
    return false;
  std::string digits = file.substr(prefix.size(), file.size() - prefix.size() - suffix.size());
  if (digits.empty() || digits.size() > 18 || !std::all_of(digits.begin(), digits.end(), ::isdigit)) return false;
  // Padded frames have exactly their width; unpadded ones no leading zero.
  if (width > 0 ? int(digits.size()) != width : (digits.size() > 1 && digits[0] == '0')) return false;
  frame = std::stol(digits);
  return true;
}

std::vector<long> TframePattern::onDisk() const {
  size_t slash = prefix.rfind('/');
  std::string dir = slash == std::string::npos ? "." : prefix.substr(0, slash == 0 ? 1 : slash);
  std::string lead = slash == std::string::npos ? "" : prefix.substr(0, slash + 1);
  std::vector<long> frames;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      long frame = 0;
      if (frameOf(lead + e->d_name, frame)) frames.push_back(frame);
    }
    closedir(d);
  }
  std::sort(frames.begin(), frames.end());
  return frames;
}

bool TframePattern::parseRange(const std::string& text, std::vector<long>& frames, std::string& why) {
  long first = 0, last = 0, step = 1;
  char dash = 0, x = 0, rest = 0;
  int n = std::sscanf(text.c_str(), "%ld%c%ld%c%ld%c", &first, &dash, &last, &x, &step, &rest);
  bool ok = (n == 1) || (n == 3 && dash == '-') || (n == 5 && dash == '-' && x == 'x');
  if (n == 1) last = first;
  if (!ok || step < 1 || last < first || first < 0) {
    why = "--frames must be FIRST-LAST or FIRST-LASTxSTEP, FIRST no more than LAST, STEP at least 1: " + text;
    return false;
  }
  if ((last - first) / step >= 10000000) {
    why = "--frames names too many frames: " + text;
    return false;
  }
  frames.clear();
  for (long f = first; f <= last; f += step) frames.push_back(f);
  return true;
}
