#include "exrheader.h"

#include <cstdint>
#include <cstring>
#include <string>

#include "plugin_util.h"

namespace exrplugin {
namespace {

// The bytes of the attribute types OpenEXR reads as they are, by their size.
struct Fixed {
  const char* type;
  int64_t bytes;
};
constexpr Fixed kFixed[] = {
    {"box2i", 16}, {"box2f", 16},   {"compression", 1}, {"lineOrder", 1}, {"envmap", 1},   {"deepImageState", 1},
    {"int", 4},    {"float", 4},    {"double", 8},      {"v2i", 8},       {"v2f", 8},      {"v2d", 16},
    {"v3i", 12},   {"v3f", 12},     {"v3d", 24},        {"m33f", 36},     {"m33d", 72},    {"m44f", 64},
    {"m44d", 128}, {"rational", 8}, {"tiledesc", 9},    {"keycode", 28},  {"timecode", 8}, {"chromaticities", 32}};

class Walk {
 public:
  Walk(PxfStream* in, int64_t total, char* error, size_t size) : in_(in), total_(total), error_(error), size_(size) {}

  bool bytes(void* to, int64_t n) {
    if (n < 0 || in_->tell(in_->user) + n > total_ || in_->read(in_->user, to, n) != n) return damaged("ends early");
    return true;
  }
  bool int32(int64_t& v) {
    uint8_t b[4];
    if (!bytes(b, 4)) return false;
    v = int32_t(uint32_t(b[0]) | uint32_t(b[1]) << 8 | uint32_t(b[2]) << 16 | uint32_t(b[3]) << 24);
    return true;
  }
  // A null-terminated name of at most `most` characters.
  bool name(int most, std::string& out) {
    out.clear();
    for (char c = 0;;) {
      if (!bytes(&c, 1)) return false;
      if (c == '\0') return true;
      if (int(out.size()) >= most) return damaged("has a name longer than the file's version allows");
      out += c;
    }
  }
  bool skip(int64_t n) {
    int64_t at = in_->tell(in_->user);
    if (n < 0 || at + n > total_ || in_->seek(in_->user, at + n) != 0)
      return damaged("claims more bytes than the file holds");
    return true;
  }
  int64_t at() const { return in_->tell(in_->user); }
  bool damaged(const char* what) {
    pxfplugin::fail(error_, size_, "the header is damaged: it %s", what);
    return false;
  }

 private:
  PxfStream* in_;
  int64_t total_;
  char* error_;
  size_t size_;
};

// A channel list: its channels' records, then an empty name, in exactly
// the bytes it declares.
bool channelList(Walk& w, int most, int64_t length) {
  const int64_t end = w.at() + length;
  std::string channel;
  for (;;) {
    if (!w.name(most, channel)) return false;
    if (channel.empty()) break;
    if (!w.skip(16)) return false;  // pixel type, linear flag, 3 reserved, x and y sampling
  }
  return w.at() == end || w.damaged("has a channel list of other than its declared size");
}

// A preview: its width and height, then 4 bytes a pixel, in its declared size.
bool preview(Walk& w, int64_t length) {
  int64_t width = 0, height = 0;
  if (!w.int32(width) || !w.int32(height)) return false;
  if (width < 0 || height < 0 || width * height * 4 + 8 != length)
    return w.damaged("has a preview of other than its declared size");
  return w.skip(length - 8);
}

bool attribute(Walk& w, int most, const std::string& type, int64_t length) {
  if (length < 0) return w.damaged("gives a negative size");
  if (type == "chlist") return channelList(w, most, length);
  if (type == "preview") return preview(w, length);
  for (const Fixed& f : kFixed)
    if (type == f.type)
      return (length == f.bytes || w.damaged("has a value of other than its type's size")) && w.skip(length);
  return w.skip(length);  // a string, a vector, or a type OpenEXR keeps as bytes
}

}  // namespace

bool headersFit(PxfStream* in, char* error, size_t size) {
  const int64_t total = in->size(in->user);
  if (total < 0) return true;
  uint8_t head[8];
  if (in->seek(in->user, 0) != 0 || in->read(in->user, head, 8) != 8) return in->seek(in->user, 0) == 0;
  const uint32_t flags = uint32_t(head[5]) | uint32_t(head[6]) << 8 | uint32_t(head[7]) << 16;
  const int most = (flags & 0x4) ? 255 : 31;  // long names
  const bool parts = flags & 0x10;            // several parts: headers until an empty one
  Walk w(in, total, error, size);
  for (;;) {
    std::string name, type;
    for (;;) {
      if (!w.name(most, name)) return false;
      if (name.empty()) break;
      int64_t length = 0;
      if (!w.name(most, type) || !w.int32(length) || !attribute(w, most, type, length)) return false;
    }
    if (!parts) break;
    // The list of parts' headers ends with an empty one.
    int64_t at = w.at();
    char next = 0;
    if (!w.bytes(&next, 1)) return false;
    if (next == '\0') break;
    if (in->seek(in->user, at) != 0) return w.damaged("cannot be read again");
  }
  return in->seek(in->user, 0) == 0;
}

}  // namespace exrplugin
