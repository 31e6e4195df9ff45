// Groups and chunks of the EA IFF 85 family, reading and writing, and the
// form parse. Items in a "FOR4" group are padded to 4 bytes, in a "FORM"
// group to 2; the padding is not counted in an item's size.
#include <cstring>

#include "kelpimage/byteorder.h"
#include "kelpimage/il/chunk/flio.h"

namespace {
constexpr int kEnd = -1;  // FLbgnget: plain end of the group, flerrno untouched
constexpr int kMaxDepth = 64;

bool isGroupTag(uint32_t t) {
  switch (t) {
    case FLmaketag("FORM"):
    case FLmaketag("LIST"):
    case FLmaketag("CAT "):
    case FLmaketag("PROP"):
    case FLmaketag("FOR4"):
    case FLmaketag("LIS4"):
    case FLmaketag("CAT4"):
    case FLmaketag("PRO4"): return true;
    default: return false;
  }
}

uint32_t alignOf(uint32_t grouptag) { return (grouptag & 0xFF) == '4' ? 4 : 2; }

uint64_t padded(uint64_t size, uint32_t align) { return (size + align - 1) / align * align; }

FLstream& stream(FLfile* f) { return *f->io->stream; }
uint64_t pos(FLfile* f) { return f->io->stream->tell(); }
bool isRoot(FLfile* f, const FLgroup* g) { return g == &f->io->root; }
int depth(FLfile* f) {
  int d = 0;
  for (FLgroup* g = f->group; g && !isRoot(f, g); g = g->parent) ++d;
  return d;
}

// Moves to `target` in the group being read. Running out of data on the way
// is not an error here: the next header read will find the end.
void skipTo(FLfile* f, uint64_t target) {
  if (target > f->group->end) target = f->group->end;
  if (target > pos(f)) stream(f).seek(target);
  f->group->gpos = pos(f);
}

// Reads the next item's header into the group's read-ahead words.
int readAhead(FLfile* f, FLgroup* g) {
  uint64_t here = pos(f);
  if (here >= g->end) return kEnd;
  uint8_t h[12];
  size_t got = stream(f).read(h, 8);
  if (got < 8) {
    stream(f).unread(h, got);
    return got == 0 ? kEnd : FLfail(FL_EEOF);
  }
  uint32_t tag = kelp::getBE32(h);
  uint32_t size = kelp::getBE32(h + 4);
  uint64_t need = uint64_t(size) + 8;
  if (isGroupTag(tag) && size < 4) need = UINT64_MAX;
  if (!isRoot(f, g) && (need == UINT64_MAX || here + need > g->end)) {
    stream(f).unread(h, 8);
    return FLfail(FL_EBADSIZE);
  }
  std::memcpy(&g->gtag, h, 4);
  g->gsize = size;
  g->gflags |= FLG_AHEAD;
  if (isGroupTag(tag)) {
    if (size < 4) {
      g->gflags |= FLG_AHEAD;
      return 0;
    }
    if (stream(f).read(h + 8, 4) < 4) {
      stream(f).unread(h, 8);
      g->gflags &= ~FLG_AHEAD;
      return FLfail(FL_EEOF);
    }
    g->gnextform = kelp::getBE32(h + 8);
    g->gflags |= FLG_FORMAHEAD;
  }
  g->gpos = pos(f);
  return 0;
}

uint32_t aheadTag(const FLgroup* g) { return kelp::getBE32(reinterpret_cast<const uint8_t*>(&g->gtag)); }

// Skips an item that was read ahead but not begun (a group not entered).
void skipAhead(FLfile* f) {
  FLgroup* g = f->group;
  uint64_t dataStart = pos(f) - ((g->gflags & FLG_FORMAHEAD) ? 4 : 0);
  g->gflags &= ~(FLG_AHEAD | FLG_FORMAHEAD);
  skipTo(f, dataStart + padded(g->gsize, g->align));
}

int writeHeader(FLfile* f, uint32_t tag, uint32_t size) {
  uint8_t h[8];
  kelp::putBE32(h, tag);
  kelp::putBE32(h + 4, size);
  return stream(f).write(h, 8);
}

int writePad(FLfile* f, uint64_t size, uint32_t align) {
  static const uint8_t zeros[8] = {};
  uint64_t pad = padded(size, align) - size;
  return pad ? stream(f).write(zeros, size_t(pad)) : 0;
}

bool writable(FLfile* f) { return f && stream(f).writing(); }
}  // namespace

// ---------------------------------------------------------------------------
// Reading.

int FLbgnget(FLfile* f, uint32_t* tag, uint32_t* size) {
  if (!f || stream(f).writing()) return FLfail(FL_EMODE);
  FLgroup* g = f->group;
  if (g->cstate == 1)
    if (int rc = FLendget(f)) return rc;
  if (!(g->gflags & FLG_AHEAD))
    if (int rc = readAhead(f, g)) return rc;
  uint32_t t = aheadTag(g);
  if (tag) *tag = t;
  if (size) *size = g->gsize;
  if (isGroupTag(t)) return FL_GROUP;
  g->gflags &= ~(FLG_AHEAD | FLG_FORMAHEAD);
  g->ctag = t;
  g->csize = g->gsize;
  g->gdone = 0;
  g->cstate = 1;
  g->cstart = pos(f);
  g->gpos = g->cstart;
  return 0;
}

int FLendget(FLfile* f) {
  if (!f) return FLfail(FL_EARG);
  FLgroup* g = f->group;
  if (g->cstate == 1) {
    g->cstate = 0;
    skipTo(f, g->cstart + padded(g->csize, g->align));
    return 0;
  }
  if (g->gflags & FLG_AHEAD) skipAhead(f);
  return 0;
}

size_t FLget(FLfile* f, void* buffer, size_t count) {
  if (!f || f->group->cstate != 1) {
    FLfail(FL_ENOCHUNK);
    return 0;
  }
  FLgroup* g = f->group;
  uint32_t left = g->csize > g->gdone ? g->csize - g->gdone : 0;
  if (count > left) count = left;
  size_t got = stream(f).read(buffer, count);
  g->gdone += uint32_t(got);
  g->gpos = pos(f);
  return got;
}

void* FLgetchunk(FLfile* f, uint32_t* tag, uint32_t* size) {
  if (!f) {
    FLfail(FL_EARG);
    return nullptr;
  }
  FLgroup* g = f->group;
  if (g->cstate != 1) {
    int rc = FLbgnget(f, nullptr, nullptr);
    if (rc) {
      if (rc == FL_GROUP) FLfail(FL_ENOCHUNK);
      return nullptr;
    }
  }
  uint32_t left = g->csize > g->gdone ? g->csize - g->gdone : 0;
  const uint8_t* p = FLbgnread(f, left);
  if (!p) {
    FLfail(FL_EFIT);
    return nullptr;
  }
  // One spare zero byte, so that text chunks can be used as C strings.
  auto* copy = static_cast<uint8_t*>(FLmalloc(size_t(left) + 1, f->mkey));
  if (!copy) return nullptr;
  std::memcpy(copy, p, left);
  copy[left] = 0;
  g->gdone += left;
  if (tag) *tag = g->ctag;
  if (size) *size = left;
  FLendget(f);
  return copy;
}

int FLbgnrgroup(FLfile* f, uint32_t* grouptag, uint32_t* formtype) {
  if (!f || stream(f).writing()) return FLfail(FL_EMODE);
  FLgroup* parent = f->group;
  if (parent->cstate == 1) FLendget(f);
  if (!(parent->gflags & FLG_AHEAD))
    if (int rc = readAhead(f, parent)) return rc == kEnd ? FLfail(FL_ENOGROUP) : rc;
  uint32_t t = aheadTag(parent);
  if (!isGroupTag(t) || !(parent->gflags & FLG_FORMAHEAD)) return FLfail(FL_ENOGROUP);
  if (depth(f) >= kMaxDepth) return FLfail(FL_EDEPTH);
  auto* g = new (std::nothrow) FLgroup{};
  if (!g) return FLfail(FL_ENOMEM);
  g->parent = parent;
  g->gtagself = t;
  g->gform = parent->gnextform;
  g->align = alignOf(t);
  g->start = pos(f) - 8;
  g->end = pos(f) - 4 + parent->gsize;
  g->gpos = pos(f);
  parent->gflags &= ~(FLG_AHEAD | FLG_FORMAHEAD);
  f->group = g;
  if (grouptag) *grouptag = t;
  if (formtype) *formtype = g->gform;
  return 0;
}

int FLendrgroup(FLfile* f) {
  if (!f) return FLfail(FL_EARG);
  FLgroup* g = f->group;
  if (isRoot(f, g)) return FLfail(FL_ENOGROUP);
  FLgroup* parent = g->parent;
  uint64_t end = g->start + 4 + padded(g->end - (g->start + 4), parent->align);
  f->group = parent;
  delete g;
  parent->cstate = 0;
  parent->gflags &= ~(FLG_AHEAD | FLG_FORMAHEAD);
  skipTo(f, end);
  return 0;
}

void FLsetform(FLfile* f, FLformfn callback) {
  if (f) f->io->form = callback;
}

// Reads forward to the first form the callback accepts. At the top of the
// stream, data that is not a group says the stream is no chunked file (12),
// and too few bytes for a header say the same (16); in both cases everything
// read stays available to be read again. These two answers, like 31 and 47,
// are signals rather than failures and leave flerrno alone.
int FLparse(FLfile* f) {
  if (!f || stream(f).writing()) return FLfail(FL_EMODE);
  for (;;) {
    uint32_t tag = 0, size = 0;
    FLgroup* g = f->group;
    bool atTop = isRoot(f, g);
    int rc = FLbgnget(f, &tag, &size);
    if (rc == 0) {
      if (atTop) {
        // Not a group: give the chunk back as read-ahead and say so.
        g->cstate = 0;
        g->gflags |= FLG_AHEAD;
        return FL_ENOTIFF;
      }
      FLendget(f);
      continue;
    }
    if (rc == kEnd) {
      if (!atTop) {
        FLendrgroup(f);
        continue;
      }
      return pos(f) == 0 ? FL_ESHORT : kEnd;
    }
    if (rc == FL_EEOF && atTop && pos(f) == 0) {
      flerrno = 0;
      return FL_ESHORT;
    }
    if (rc != FL_GROUP) return rc;
    if (!(g->gflags & FLG_FORMAHEAD)) return FLfail(FL_EBADSIZE);
    FLformfn form = f->io->form;
    int answer = form ? form(f, tag, g->gnextform) : 1;
    if (answer == 0) {
      skipAhead(f);
      continue;
    }
    if (answer != 1) {
      if (answer != FL_FORMFOUND) flerrno = answer;
      return answer;
    }
    if (int r = FLbgnrgroup(f, nullptr, nullptr)) return r;
    f->group->gflags |= FLG_ACCEPTED;
    answer = form ? form(f, tag, f->group->gform) : 1;
    if (answer == 0) {
      FLendrgroup(f);
      continue;
    }
    if (answer != 1) {
      if (answer != FL_FORMFOUND) flerrno = answer;
      return answer;
    }
  }
}

// ---------------------------------------------------------------------------
// Writing. A group's size word is written as 0 and patched when the group
// ends. On a seekable file the patch goes to the file; on a pipe or through a
// filter, where nothing can be patched once sent, the stream is held while
// any group is open: the whole top-level group stays in memory and goes out
// with its sizes right when it closes. Output through a pipe is therefore
// byte for byte the output to a file, at the cost of one image in memory.

int FLbgnwgroup(FLfile* f, uint32_t grouptag, uint32_t formtype) {
  if (!writable(f)) return FLfail(FL_EMODE);
  if (int rc = FLendput(f)) return rc;
  if (depth(f) >= kMaxDepth) return FLfail(FL_EDEPTH);
  auto* g = new (std::nothrow) FLgroup{};
  if (!g) return FLfail(FL_ENOMEM);
  g->parent = f->group;
  g->gtagself = grouptag;
  g->gform = formtype;
  g->align = alignOf(grouptag);
  g->start = pos(f) + 4;
  uint8_t h[12];
  kelp::putBE32(h, grouptag);
  kelp::putBE32(h + 4, 0);
  kelp::putBE32(h + 8, formtype);
  stream(f).hold(1);
  f->group = g;
  if (int rc = stream(f).write(h, 12)) return FLfail(rc);
  g->gpos = pos(f);
  return 0;
}

int FLendwgroup(FLfile* f) {
  if (!f) return FLfail(FL_EARG);
  if (!stream(f).writing()) return FLendrgroup(f);
  if (int rc = FLendput(f)) return rc;
  FLgroup* g = f->group;
  if (isRoot(f, g)) return FLfail(FL_ENOGROUP);
  uint64_t size = pos(f) - (g->start + 4);
  if (size > UINT32_MAX) return FLfail(FL_EBADSIZE);
  uint8_t s[4];
  kelp::putBE32(s, uint32_t(size));
  int rc = stream(f).patch(g->start, s, 4);
  FLgroup* parent = g->parent;
  f->group = parent;
  delete g;
  if (!rc) rc = writePad(f, size, parent->align);
  stream(f).hold(-1);
  if (!rc && !stream(f).held()) rc = stream(f).flush();
  parent->gpos = pos(f);
  return rc ? FLfail(rc) : 0;
}

int FLputchunk(FLfile* f, uint32_t tag, uint32_t size, const void* data) {
  if (!writable(f)) return FLfail(FL_EMODE);
  if (int rc = FLendput(f)) return rc;
  int rc = writeHeader(f, tag, size);
  if (!rc && size) rc = stream(f).write(data, size);
  if (!rc) rc = writePad(f, size, f->group->align);
  f->group->gpos = pos(f);
  return rc ? FLfail(rc) : 0;
}

void* FLbgnwbchunk(FLfile* f, uint32_t tag, uint32_t maxsize) {
  if (!writable(f)) {
    FLfail(FL_EMODE);
    return nullptr;
  }
  FLio* io = f->io;
  try {
    if (io->chunkbuf.size() < maxsize) io->chunkbuf.resize(maxsize);
  } catch (...) {
    FLfail(FL_ENOMEM);
    return nullptr;
  }
  io->chunktag = tag;
  io->chunkopen = true;
  return io->chunkbuf.data();
}

int FLendwbchunk(FLfile* f, uint32_t size) {
  if (!f || !f->io->chunkopen) return FLfail(FL_ENOCHUNK);
  if (size > f->io->chunkbuf.size()) return FLfail(FL_EARG);
  f->io->chunkopen = false;
  return FLputchunk(f, f->io->chunktag, size, f->io->chunkbuf.data());
}

int FLbgnput(FLfile* f, uint32_t tag) {
  if (!writable(f)) return FLfail(FL_EMODE);
  if (int rc = FLendput(f)) return rc;
  FLgroup* g = f->group;
  if (int rc = writeHeader(f, tag, 0)) return FLfail(rc);
  g->ctag = tag;
  g->csize = 0;
  g->cstate = 2;
  g->cstart = pos(f);
  return 0;
}

int FLput(FLfile* f, const void* data, size_t count) {
  if (!f || f->group->cstate != 2) return FLfail(FL_ENOCHUNK);
  FLgroup* g = f->group;
  if (uint64_t(g->csize) + count > UINT32_MAX) return FLfail(FL_EBADSIZE);
  if (int rc = stream(f).write(data, count)) return FLfail(rc);
  g->csize += uint32_t(count);
  g->gpos = pos(f);
  return 0;
}

int FLendput(FLfile* f) {
  if (!f) return FLfail(FL_EARG);
  FLgroup* g = f->group;
  if (g->cstate == 1) return FLendget(f);
  if (g->cstate != 2) return 0;
  g->cstate = 0;
  uint8_t s[4];
  kelp::putBE32(s, g->csize);
  int rc = stream(f).patch(g->cstart - 4, s, 4);
  if (!rc) rc = writePad(f, g->csize, g->align);
  g->gpos = pos(f);
  return rc ? FLfail(rc) : 0;
}
