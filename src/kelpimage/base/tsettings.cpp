#include "kelpimage/base/tsettings.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <string>
#include <vector>

namespace {
using Values = std::map<std::string, std::vector<uint8_t>>;

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// One line a value: the name, '=', the bytes in hexadecimal.
Values load(const std::string& file) {
  Values values;
  std::ifstream in(file);
  std::string line;
  while (std::getline(in, line)) {
    size_t eq = line.find('=');
    if (eq == std::string::npos) continue;
    std::vector<uint8_t> bytes;
    bool good = true;
    for (size_t i = eq + 1; i + 1 < line.size() && good; i += 2) {
      int hi = hexDigit(line[i]), lo = hexDigit(line[i + 1]);
      good = hi >= 0 && lo >= 0;
      bytes.push_back(uint8_t(hi * 16 + lo));
    }
    if (good) values[line.substr(0, eq)] = std::move(bytes);
  }
  return values;
}

bool save(const std::string& file, const Values& values) {
  std::string dir = file.substr(0, file.find_last_of('/'));
  for (size_t at = 1; (at = dir.find('/', at)) != std::string::npos; ++at) ::mkdir(dir.substr(0, at).c_str(), 0700);
  ::mkdir(dir.c_str(), 0700);
  // Write aside and rename, so a reader never sees half a file.
  std::string temp = file + ".tmp" + std::to_string(::getpid());
  {
    std::ofstream out(temp, std::ios::trunc);
    static const char* hex = "0123456789abcdef";
    for (const auto& [name, bytes] : values) {
      out << name << '=';
      for (uint8_t b : bytes) out << hex[b >> 4] << hex[b & 15];
      out << '\n';
    }
    if (!out) return false;
  }
  return ::rename(temp.c_str(), file.c_str()) == 0;
}
}  // namespace

TKelpRegNT::TKelpRegNT() {
  std::string base;
  if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg && *xdg)
    base = xdg;
  else if (const char* home = std::getenv("HOME"); home && *home)
    base = std::string(home) + "/.config";
  else
    base = "/tmp";
  fFile = base + "/kelpimage/settings";
}

bool TKelpRegNT::addBinarySetting(const char* name, const void* bytes, size_t size) {
  if (!name || !*name || std::strpbrk(name, "=\n")) return false;
  Values values = load(fFile.str());
  auto* p = static_cast<const uint8_t*>(bytes);
  values[name] = p ? std::vector<uint8_t>(p, p + size) : std::vector<uint8_t>();
  return save(fFile.str(), values);
}

size_t TKelpRegNT::getBinarySetting(const char* name, void* bytes, size_t size) const {
  if (!name) return 0;
  Values values = load(fFile.str());
  auto it = values.find(name);
  if (it == values.end()) return 0;
  if (bytes) std::memcpy(bytes, it->second.data(), std::min(size, it->second.size()));
  return it->second.size();
}
