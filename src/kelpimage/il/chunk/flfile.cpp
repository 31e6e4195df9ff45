// File records: opening files, pipes and standard streams, filters, closing.
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "kelpimage/il/chunk/flio.h"

namespace {
bool startsWith(const char* s, const char* prefix) { return std::strncmp(s, prefix, std::strlen(prefix)) == 0; }

bool exists(const std::string& p) {
  struct stat st;
  return ::stat(p.c_str(), &st) == 0 && !S_ISDIR(st.st_mode);
}

// A relative name to read is looked for along the thread's search path.
std::string locate(const char* name) {
  FLpath* path = FLcurrentpath();
  if (!path || name[0] == '/') return name;
  for (FLnode* n = path->dirs.head; n; n = n->next) {
    std::string dir = n->name ? n->name : ".";
    std::string candidate = (dir == ".") ? std::string(name) : dir + "/" + name;
    if (exists(candidate)) return candidate;
  }
  return name;
}

void resetGroups(FLfile* f) {
  FLio* io = f->io;
  // Pop everything above the root.
  for (FLgroup* g = f->group; g && g != &io->root;) {
    FLgroup* parent = g->parent;
    delete g;
    g = parent;
  }
  io->root = FLgroup{};
  io->root.end = UINT64_MAX;
  io->root.align = 4;
  f->group = &io->root;
  io->chunkopen = false;
}

// Opens `name` into the record's stream and sets the mode flags.
int openInto(FLfile* f, const char* name, const char* mode) {
  FLio* io = f->io;
  bool write = mode[0] != 'r';
  uint32_t flags = write ? FL_WRITE : FL_READ;
  int rc;
  if (startsWith(name, "pipe:")) {
    flags |= FL_PIPE | FL_NOSEEK;
    if (write && std::strchr(mode, 'c')) flags |= FL_PACKPIPE;
    rc = io->stream->openCommand(name + 5, write);
  } else if (std::strcmp(name, "-") == 0) {
    flags |= FL_STDIO;
    rc = io->stream->openStdio(write);
  } else {
    // "mmap:" asks for a mapped file; reading through the buffer gives the same bytes.
    const char* plain = startsWith(name, "mmap:") ? name + 5 : name;
    rc = io->stream->openFile(write ? std::string(plain) : locate(plain), write);
  }
  if (rc) return rc;
  if (!io->stream->seekable()) flags |= FL_NOSEEK;
  f->flags = flags;
  io->name = name;
  f->name = io->name.data();
  resetGroups(f);
  return 0;
}
}  // namespace

FLfile* FLsopen(const char* name, const char* mode, size_t recsize) {
  if (!name || !mode) {
    FLfail(FL_EARG);
    return nullptr;
  }
  if (recsize < sizeof(FLfile)) recsize = sizeof(FLfile);
  auto* f = static_cast<FLfile*>(std::calloc(1, recsize));
  if (!f) {
    FLfail(FL_ENOMEM);
    return nullptr;
  }
  f->recsize = uint32_t(recsize);
  f->io = new (std::nothrow) FLio;
  f->mkey = FLinitmkey();
  int rc = (f->io && f->mkey) ? openInto(f, name, mode) : FL_ENOMEM;
  if (rc) {
    delete f->io;
    FLfreemkey(f->mkey);
    std::free(f);
    FLfail(rc);
    return nullptr;
  }
  flerrno = 0;
  return f;
}

FLfile* FLreopen(const char* name, const char* mode, FLfile* f) {
  if (!f) return FLsopen(name, mode, sizeof(FLfile));
  if (!name || !mode) {
    FLfail(FL_EARG);
    return nullptr;
  }
  std::string keep = name;  // the name may point into the record being replaced
  f->io->stream->close();
  resetGroups(f);
  f->io->stream = std::make_unique<FLstream>();
  if (int rc = openInto(f, keep.c_str(), mode)) {
    FLclose(f);
    FLfail(rc);
    return nullptr;
  }
  flerrno = 0;
  return f;
}

FLfile* FLfilter(const char* command, const char* mode, FLfile* f) {
  if (!f || !command || !mode) {
    FLfail(FL_EARG);
    return nullptr;
  }
  FLio* io = f->io;
  bool write = mode[0] != 'r';
  if (write != io->stream->writing() || f->group != &io->root || io->stream->held()) {
    FLclose(f);
    FLfail(FL_EMODE);
    return nullptr;
  }
  std::unique_ptr<FLstream> old = std::move(io->stream);
  io->stream = std::make_unique<FLstream>();
  int rc = write ? io->stream->openWriteFilter(command, std::move(old))
                 : io->stream->openReadFilter(command, std::move(old));
  if (rc) {
    FLclose(f);
    FLfail(rc);
    return nullptr;
  }
  f->flags |= FL_FILTERED | FL_STREAMED | FL_NOSEEK;
  resetGroups(f);
  return f;
}

int FLclose(FLfile* f) {
  if (!f) return FLfail(FL_EARG);
  int result = 0;
  FLio* io = f->io;
  if (io) {
    if (io->stream->writing()) {
      if (int rc = FLendput(f)) result = rc;
      while (f->group != &io->root)
        if (int rc = FLendwgroup(f); rc && !result) result = rc;
    } else {
      resetGroups(f);
    }
    if (int rc = io->stream->close(); rc && !result) result = rc;
    delete io;
  }
  FLfreemkey(f->mkey);
  std::free(f);
  if (result) flerrno = result;
  return result;
}
