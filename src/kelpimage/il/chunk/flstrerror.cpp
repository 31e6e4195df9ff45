// The text of every code the chunk and image functions return.
#include <cstdio>
#include <cstring>

#include "kelpimage/il/chunk/flio.h"

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
    {FL_ENOTREAD, "The image is not open for reading"},
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
    {110, "The zoom record has no source of lines"},
    {111, "Output conversion filter failed"},
    {112, "Zoom filter program not found: using a box filter"},
};
}  // namespace

const char* FLstrerror(int code) {
  if (int sys = FLsyserrno(); code == FL_ESYS && sys) {
    thread_local char text[160];
    std::snprintf(text, sizeof text, "System call failed: %s", std::strerror(sys));
    return text;
  }
  for (const Message& m : kMessages)
    if (m.code == code) return m.text;
  thread_local char unknown[40];
  std::snprintf(unknown, sizeof unknown, "Unknown error %d", code);
  return unknown;
}
