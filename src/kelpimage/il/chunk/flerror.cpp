// Error codes and their texts, the per-thread error word, the bit-count
// table and the environment lookup.
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kelpimage/il/chunk/flio.h"

#include "kelpimage/il/chunk/fl.h"

int& FLerrnoRef() {
  thread_local int code = 0;
  return code;
}

int FLerror() { return flerrno; }

namespace {
thread_local int tSysErrno = 0;
}

int FLsysfail() {
  tSysErrno = errno;
  return FL_ESYS;
}

int FLoserror() {
  int e = errno;
  errno = 0;
  return e;
}

static constexpr std::array<uint8_t, 256> makeBitTable() {
  std::array<uint8_t, 256> t{};
  for (int i = 0; i < 256; ++i) {
    int n = 0;
    for (int v = i; v; v >>= 1) n += v & 1;
    t[i] = uint8_t(n);
  }
  return t;
}
static constexpr auto kBits = makeBitTable();
const uint8_t flbitset[256] = {
#define B(i) kBits[i]
#define R8(i) B(i), B(i + 1), B(i + 2), B(i + 3), B(i + 4), B(i + 5), B(i + 6), B(i + 7)
#define R64(i) R8(i), R8(i + 8), R8(i + 16), R8(i + 24), R8(i + 32), R8(i + 40), R8(i + 48), R8(i + 56)
    R64(0), R64(64), R64(128), R64(192)
#undef R64
#undef R8
#undef B
};

int FLhbset(uint32_t value) {
  return value ? 31 - __builtin_clz(value) : -1;
}

namespace {
struct Message {
  int code;
  const char* text;
};

constexpr Message kMessages[] = {
    {0, "No error"},
    {FL_ESYS, "System call failed"},
    {FL_ENOMEM, "Out of memory"},
    {FL_EMODE, "Operation not allowed in the file's mode"},
    {FL_EREAD, "Read error"},
    {FL_EWRITE, "Write error"},
    {FL_ESEEK, "The file cannot seek to that position"},
    {FL_EEOF, "Unexpected end of file"},
    {FL_ENOGROUP, "No group is open"},
    {FL_ENOCHUNK, "No chunk is open"},
    {FL_EDEPTH, "Groups are nested too deep"},
    {FL_EPIPE, "Pipe command failed"},
    {FL_ENOTIFF, "Not a chunked file: the data does not begin with a group"},
    {FL_EBADSIZE, "Chunk or group size does not fit its group"},
    {FL_ENOENT, "File not found along the search path"},
    {FL_EARG, "Invalid argument"},
    {FL_ESHORT, "File is empty or too short to be a chunked file"},
    {FL_EALIGN, "Group of 2-byte alignment where a 4-byte group is required"},
    {FL_EFIT, "Data does not fit: damaged or truncated pixel data, or a chunk of the wrong size"},
    {FL_GROUP, "A group is next"},
    {FL_ENULL, "Null pointer passed to a text formatter"},
    {FL_EFILTER, "Filter command could not be started"},
    {FL_FORMFOUND, "Form found"},
    {100, "No image found"},
    {101, "No image found: the file could not be parsed"},
    {102, "Input conversion filter failed"},
    {103, "Image attributes are fixed once the header is read or written"},
    {104, "End of image group before the image header"},
    {105, "Image header chunk could not be read"},
    {106, "Image size out of range"},
    {107, "Image pixels already finished, or the tile group ended early"},
    {108, "Compression method has no codec"},
    {109, "No tile group follows the image header"},
    {110, "Unused error code"},
    {111, "Output conversion filter failed"},
    {112, "Zoom filter program not found: using a box filter"},
};
}  // namespace

const char* FLstrerror(int code) {
  if (code == FL_ESYS && tSysErrno) {
    thread_local char text[160];
    std::snprintf(text, sizeof text, "System call failed: %s", std::strerror(tSysErrno));
    return text;
  }
  for (const Message& m : kMessages)
    if (m.code == code) return m.text;
  thread_local char unknown[40];
  std::snprintf(unknown, sizeof unknown, "Unknown error %d", code);
  return unknown;
}

const char* KelpGetEnv(const char* name) {
  if (!name) return nullptr;
  return std::getenv(name);
}
