// Small helpers for the tests: a scratch directory, whole-file I/O and a
// catcher of the library's reports.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <vector>

#include "kelpimage/base/terrorhandler.h"
#include "kelpimage/plugin/plugins.h"

namespace kelptest {

// The host's error handler while it lives: every report, a line each.
struct Reports : TerrorHandler {
  std::mutex lock;
  std::string text;
  Reports() { theErrorHandler = this; }
  ~Reports() override { theErrorHandler = nullptr; }
  void reportError(const Tstring& m) override {
    std::lock_guard<std::mutex> hold(lock);
    text += m.str() + "\n";
  }
};

class TempDir {
 public:
  TempDir() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "kelptest-XXXXXX").string();
    fPath = mkdtemp(tmpl.data());
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(fPath, ec);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  std::string file(const std::string& name) const { return (fPath / name).string(); }
  const std::filesystem::path& path() const { return fPath; }

 private:
  std::filesystem::path fPath;
};

inline std::vector<uint8_t> readBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void writeBytes(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream out(path, std::ios::binary);
  out.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
}

inline uint32_t be32(const std::vector<uint8_t>& b, size_t at) {
  return (uint32_t(b.at(at)) << 24) | (uint32_t(b.at(at + 1)) << 16) | (uint32_t(b.at(at + 2)) << 8) | b.at(at + 3);
}

inline std::string text(const std::vector<uint8_t>& b, size_t at, size_t n) {
  return std::string(b.begin() + long(at), b.begin() + long(at + n));
}

inline void putBytes(std::vector<uint8_t>& b, const void* p, size_t n) {
  auto* c = static_cast<const uint8_t*>(p);
  for (size_t i = 0; i < n; ++i) b.push_back(c[i]);
}

// Appends a big-endian word, or a four-character tag.
inline void put32(std::vector<uint8_t>& b, uint32_t v) {
  for (int s = 24; s >= 0; s -= 8) b.push_back(uint8_t(v >> s));
}
inline void putTag(std::vector<uint8_t>& b, const char* tag) { putBytes(b, tag, 4); }

#ifdef KELP_TEST_PLUGIN_DIR
// The "grey" test plug-in on the plug-in path while it lives, beside the
// build's own: "GREY", a width and a height of a byte each, then a grey
// byte a pixel.
struct GreyPlugin {
  TempDir dir;
  GreyPlugin() {
    std::filesystem::copy_file(std::string(KELP_TEST_PLUGIN_DIR) + "/grey.so", dir.file("grey.so"));
    setenv("PXF_PLUG_IN_PATH", (dir.path().string() + ";" + KELP_PLUGIN_OUTPUT_DIR).c_str(), 1);
    loadAllPXFPlugins();
  }
  ~GreyPlugin() { unsetenv("PXF_PLUG_IN_PATH"); }
};
#endif

}  // namespace kelptest
