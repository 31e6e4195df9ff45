// Chunk services: buffered files and pipes, groups and chunks of the
// EA IFF 85 family ("FOR4" with 4-byte alignment), lists with typed nodes,
// memory under keys, search paths and error codes.
//
// Every function that can fail returns 0 (or a pointer) on success and a code
// otherwise (or null), and leaves the code in flerrno. flerrno is per thread,
// like errno, so two threads working on two files never see each other's codes.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kelpimage/kelpexport.h"

// Builds a tag number from four characters: the first character is the top byte.
constexpr uint32_t FLmaketag(const char (&s)[5]) {
  return (uint32_t(uint8_t(s[0])) << 24) | (uint32_t(uint8_t(s[1])) << 16) | (uint32_t(uint8_t(s[2])) << 8) |
         uint32_t(uint8_t(s[3]));
}

constexpr uint32_t FL_FOR4 = FLmaketag("FOR4");
constexpr uint32_t FL_FORM = FLmaketag("FORM");

// ---------------------------------------------------------------------------
// Error codes of the chunk services. The image library adds 100 to 112.
enum : int {
  FL_ESYS = 1,        // a system call failed
  FL_ENOMEM = 2,      // out of memory
  FL_EMODE = 3,       // operation not allowed in the file's mode
  FL_EREAD = 4,       // read error
  FL_EWRITE = 5,      // write error
  FL_ESEEK = 6,       // the file cannot seek there
  FL_EEOF = 7,        // unexpected end of file
  FL_ENOGROUP = 8,    // no group is open
  FL_ENOCHUNK = 9,    // no chunk is open
  FL_EDEPTH = 10,     // groups nested too deep
  FL_EPIPE = 11,      // a pipe or filter command failed
  FL_ENOTIFF = 12,    // the stream does not begin with a group
  FL_EBADSIZE = 13,   // an item's size does not fit its group
  FL_ENOENT = 14,     // no such file along the search path
  FL_EARG = 15,       // invalid argument
  FL_ESHORT = 16,     // the stream is empty or too short to be a chunked file
  FL_EALIGN = 22,     // a group of 2-byte alignment where 4 is required
  FL_EFIT = 23,       // data does not fit
  FL_ENOTREAD = 24,   // the operation needs an image open for reading
  FL_GROUP = 31,      // FLbgnget: a group is next
  FL_ENULL = 42,      // null pointer passed to a text formatter
  FL_EFILTER = 43,    // the filter command could not be started
  FL_FORMFOUND = 47,  // FLparse: the form callback accepted a form
};

// File record flags (FLfile::flags).
constexpr uint32_t FL_READ = 0x1;
constexpr uint32_t FL_WRITE = 0x2;
constexpr uint32_t FL_PIPE = 0x10;        // opened as "pipe:command"
constexpr uint32_t FL_NOSEEK = 0x20;      // the descriptor cannot seek (fifo, terminal, socket)
constexpr uint32_t FL_STDIO = 0x80;       // standard input or output ("-")
constexpr uint32_t FL_FILTERED = 0x100;   // passes through a filter command (FLfilter)
constexpr uint32_t FL_STREAMED = 0x400;   // data reaches the record through a stream of our own
constexpr uint32_t FL_PACKPIPE = 0x2000;  // a pipe for which the caller asked compression ("wc")

// Group record flags (FLgroup::gflags) that callers look at.
constexpr uint32_t FLG_AHEAD = 0x40000000;     // tag and size of the next item have been read ahead
constexpr uint32_t FLG_FORMAHEAD = 0x1000000;  // its form type has been read ahead too
constexpr uint32_t FLG_ACCEPTED = 0x100000;    // the parse stands inside a form the callback accepted

struct FLmkey;
struct FLio;

// One open group (or the whole file, at the root). A chunk being read or
// written is described by the record of the group that holds it.
struct FLgroup {
  FLgroup* parent;
  uint32_t gflags;
  uint32_t gtag;   // read-ahead tag, the four bytes as they stood in the file
  uint32_t gsize;  // read-ahead size, machine order
  uint32_t gform;  // this group's form type as a tag number
  uint32_t gdone;  // bytes of the current chunk that count as read
  uint64_t gpos;   // file position of the next byte to read or write in the group
  // Private to the services.
  uint32_t gnextform;  // form type read ahead with FLG_FORMAHEAD
  uint32_t ctag;       // tag of the chunk open in this group
  uint32_t csize;      // its size
  uint32_t cstate;     // 0 none, 1 reading, 2 writing by FLbgnput
  uint64_t cstart;     // file position of the open chunk's data
  uint64_t start;      // file position of the group's size word (0 for the root)
  uint64_t end;        // reading: file position just past the group
  uint32_t align;      // alignment of items inside (4 for FOR4, 2 for FORM)
  uint32_t gtagself;   // the group's own tag
};

// The file record. FLsopen allocates it with room for the caller behind it,
// the whole allocation zeroed, so callers extend it by derivation.
struct FLfile {
  char* name;        // the name as given
  FLgroup* group;    // innermost open group
  uint32_t flags;    // FL_READ, FL_PIPE, ...
  FLmkey* mkey;      // memory key: everything under it goes at FLclose
  FLio* io;          // private stream state
  uint32_t recsize;  // size of the whole record as allocated
};

struct FLlist;

// A list node: two links, a type word and a name word, and the list that
// holds the node (so it can be taken out alone); callers put their data
// behind these words.
struct FLnode {
  FLnode* next;
  FLnode* prev;
  uint32_t type;
  const char* name;
  FLlist* owner;
};

// A list header of three words: head, tail, count. A zeroed header is an
// empty list as well.
struct FLlist {
  FLnode* head;
  FLnode* tail;
  uintptr_t count;
};

// A search path: a list of directory nodes, each node's name the directory.
struct FLpath {
  FLlist dirs;
};

using FLformfn = int (*)(FLfile* file, uint32_t grouptag, uint32_t formtype);
using FLscanfn = int (*)(FLnode* node, void* arg);

extern "C++" {
// Thread-local last error code.
KELP_API int& FLerrnoRef();
}
#define flerrno (FLerrnoRef())

KELP_API extern const uint8_t flbitset[256];

// Files.
KELP_API FLfile* FLsopen(const char* name, const char* mode, size_t recsize);
KELP_API FLfile* FLreopen(const char* name, const char* mode, FLfile* file);
KELP_API FLfile* FLfilter(const char* command, const char* mode, FLfile* file);
KELP_API int FLclose(FLfile* file);
KELP_API int FLseek(FLfile* file, uint64_t position, int whence);
KELP_API uint64_t FLtell(FLfile* file);
KELP_API int FLunread(FLfile* file, const void* bytes, size_t count);
KELP_API const uint8_t* FLbgnread(FLfile* file, size_t count);
KELP_API int FLflush(FLfile* file);
KELP_API int FLflushBuffer(FLfile* file);
KELP_API int FLoserror();
KELP_API bool FLisseekable(const FLfile* file);

// Groups and parsing.
KELP_API void FLsetform(FLfile* file, FLformfn callback);
KELP_API int FLparse(FLfile* file);
KELP_API int FLbgnwgroup(FLfile* file, uint32_t grouptag, uint32_t formtype);
KELP_API int FLendwgroup(FLfile* file);
KELP_API int FLbgnrgroup(FLfile* file, uint32_t* grouptag, uint32_t* formtype);
KELP_API int FLendrgroup(FLfile* file);

// Chunks, reading.
KELP_API int FLbgnget(FLfile* file, uint32_t* tag, uint32_t* size);
KELP_API int FLendget(FLfile* file);
KELP_API size_t FLget(FLfile* file, void* buffer, size_t count);
KELP_API void* FLgetchunk(FLfile* file, uint32_t* tag, uint32_t* size);

// Chunks, writing.
KELP_API int FLputchunk(FLfile* file, uint32_t tag, uint32_t size, const void* data);
KELP_API void* FLbgnwbchunk(FLfile* file, uint32_t tag, uint32_t maxsize);
KELP_API int FLendwbchunk(FLfile* file, uint32_t size);
KELP_API int FLbgnput(FLfile* file, uint32_t tag);
KELP_API int FLput(FLfile* file, const void* data, size_t count);
KELP_API int FLendput(FLfile* file);

// Lists.
KELP_API void FLinitlist(FLlist* list);
KELP_API void FLinitnode(FLnode* node, const char* name, uint32_t type);
KELP_API void FLheadnode(FLlist* list, FLnode* node);
KELP_API void FLtailnode(FLlist* list, FLnode* node);
KELP_API void FLdelnode(FLnode* node);
KELP_API FLnode* FLgetnodebytype(FLlist* list, uint32_t type);
KELP_API FLnode* FLgetnodebyname(FLlist* list, const char* name);
KELP_API int FLscanlist(FLlist* list, FLscanfn fn, void* arg);
KELP_API FLnode* FLnewcnode(const char* name, uint32_t type, size_t size);
KELP_API void FLfreenode(FLnode* node);

// Memory under keys. A null key is memory that lives until it is freed.
KELP_API FLmkey* FLinitmkey();
KELP_API void FLclean(FLmkey* key);
KELP_API void FLfreemkey(FLmkey* key);
KELP_API void* FLmalloc(size_t size, FLmkey* key);
KELP_API void* FLcalloc(size_t size, FLmkey* key);
KELP_API void* FLgrow(void* old, size_t size, FLmkey* key);
KELP_API void* FLrgrow(void* old, size_t size, FLmkey* key);
KELP_API int FLfree(void* block, void* unused = nullptr);

// Paths and names.
KELP_API const char* FLgetwork(uint32_t* stamp);
KELP_API FLpath* FLbuildpath(const char* dirs);
KELP_API void FLfreepath(FLpath* path);
KELP_API FLpath* FLswappath(FLpath* path);
KELP_API int FLhbset(uint32_t value);
// The first of name, or name along the thread's search path, that exists;
// its path is written to `found` (null if `found` is). True if found.
KELP_API bool FLfindfile(const char* name, char* found, size_t size);
// Splits "stem[bracket]" into the stem and the text in brackets (empty if none).
KELP_API void FLgetext(const char* name, char* stem, size_t stemSize, char* bracket, size_t bracketSize);
// "dir/name", or name alone for an empty dir.
KELP_API void FLmakepath(const char* dir, const char* name, char* out, size_t size);

// Errors and environment.
KELP_API int FLerror();
KELP_API const char* FLstrerror(int code);
KELP_API const char* KelpGetEnv(const char* name);
