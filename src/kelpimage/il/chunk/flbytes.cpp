// The raw bytes of an open file record: its position, bytes read ahead and
// pushed back, and flushing what is written.
#include "kelpimage/il/chunk/flio.h"

int FLseek(FLfile* f, uint64_t position, int) {
  if (!f) return FLfail(FL_EARG);
  if (int rc = f->io->stream->seek(position)) return FLfail(rc);
  f->group->gpos = position;
  return 0;
}

uint64_t FLtell(FLfile* f) { return f ? f->io->stream->tell() : 0; }

bool FLisseekable(const FLfile* f) { return f && f->io->stream->seekable(); }

int FLunread(FLfile* f, const void* bytes, size_t count) {
  if (!f || f->io->stream->writing()) return FLfail(FL_EMODE);
  f->io->stream->unread(bytes, count);
  f->group->gpos = FLtell(f);
  return 0;
}

const uint8_t* FLbgnread(FLfile* f, size_t count) {
  if (!f || f->io->stream->writing()) {
    FLfail(FL_EMODE);
    return nullptr;
  }
  FLstream& s = *f->io->stream;
  // A regular file tells at once whether the bytes exist, before any memory is asked for.
  uint64_t left = s.remaining();
  if (left != UINT64_MAX && count > left + s.available()) left = s.remaining(true);
  if (left != UINT64_MAX && count > left + s.available()) {
    FLfail(FL_EEOF);
    return nullptr;
  }
  if (s.fill(count) < count) {
    FLfail(FL_EEOF);
    return nullptr;
  }
  const uint8_t* p = s.peek();
  s.consume(count);
  f->group->gpos = FLtell(f);
  return p;
}

int FLflush(FLfile* f) {
  if (!f) return FLfail(FL_EARG);
  if (!f->io->stream->writing()) return 0;
  if (int rc = f->io->stream->flush()) return FLfail(rc);
  return 0;
}

int FLflushBuffer(FLfile* f) { return FLflush(f); }
