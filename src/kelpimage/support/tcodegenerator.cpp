#include "kelpimage/support/tcodegenerator.h"

#include <vector>

char* TcodeGenerator::fsGeneratedCode = nullptr;
int TcodeGenerator::fsMmapDescriptor = 0;
TcodeGenerator::Tinstruction TcodeGenerator::i = {nullptr};

namespace {
// A placed label, or a branch emitted ahead of its label. The lists grow by
// eight and are never cleared: a later routine sees the earlier names.
struct Mark {
  Tstring name;
  char* address;
};

TvoidPtrArray& labels() {
  static TvoidPtrArray list(8);
  return list;
}
TvoidPtrArray& branches() {
  static TvoidPtrArray list(8);
  return list;
}

// The lists own their records for the life of the process.
struct MarkStore {
  std::vector<Mark*> marks;
  ~MarkStore() {
    for (Mark* m : marks) delete m;
  }
} gMarks;

Mark* newMark(const Tstring& name, char* address) {
  auto* m = new Mark{name, address};
  gMarks.marks.push_back(m);
  return m;
}

uint16_t words(long bytes) { return uint16_t((bytes >> 2) & 0xFFFF); }
}  // namespace

void TcodeGenerator::addLabel(const Tstring& name) {
  labels().addLast(newMark(name, i.fByte));
  TvoidPtrArray& list = branches();
  for (int k = 0; k < list.length(); ++k) {
    auto* b = static_cast<Mark*>(list[k]);
    if (b->name == name) *reinterpret_cast<uint32_t*>(b->address) |= words(i.fByte - b->address);
  }
}

uint16_t TcodeGenerator::addBranch(const Tstring& name) {
  TvoidPtrArray& list = labels();
  for (int k = 0; k < list.length(); ++k) {
    auto* l = static_cast<Mark*>(list[k]);
    if (l->name == name) return words(l->address - i.fByte);
  }
  branches().addLast(newMark(name, i.fByte));
  return 0;
}

void TcodeGenerator::jr(unsigned rs) {
  emit(rs << 21 | 8);
  emit(0);  // the delay slot
}

void TcodeGenerator::beq(unsigned rs, unsigned rt, const Tstring& target) {
  uint16_t field = addBranch(target);
  emit(0x10000000 | rs << 21 | rt << 16 | field);
}

void TcodeGenerator::bne(unsigned rs, unsigned rt, const Tstring& target) {
  uint16_t field = addBranch(target);
  emit(0x14000000 | rs << 21 | rt << 16 | field);
}

void TcodeGenerator::blez(unsigned rs, const Tstring& target) {
  uint16_t field = addBranch(target);
  emit(0x18000000 | rs << 21 | field);
}

char* TcodeGenerator::convolve3x3(unsigned channels, unsigned, unsigned, float scale, const float* k) {
  i.fByte = fsGeneratedCode;
  const Tstring loop("L.97.16.temp"), done("L.97.18.temp");
  bool scaled = scale != 1.0f;

  // Prologue: the row pointers and the loop's end.
  addiu(t9, zero, 255);
  sll(t4, a0, 2);
  sll(a3, a0, 4);
  subu(t7, a1, a0);
  addu(t8, t7, a0);
  addu(t5, a3, t1);
  blez(t7, done);
  addu(t4, t4, t3);
  addu(t6, a3, t2);
  sll(t8, t8, 4);
  addu(a3, a3, t0);
  addu(t8, t8, t0);
  if (scaled) mov_s(20, 15);  // f15 is about to be overwritten

  // The kernel into f10 to f18; corner coefficients of exactly 1.0 need no load.
  for (int n = 0; n < 9; ++n) {
    bool unit = (n == 0 || n == 2 || n == 6 || n == 8) && k[n] == 1.0f;
    if (!unit) lwc1(unsigned(10 + n), 4 * n, a2);
  }

  label(loop);
  for (unsigned c = 0; c + 1 < channels; ++c) {
    int o = int(4 * c), p = int(4 * channels + 4 * c), m = int(4 * c) - int(4 * channels);
    pref(1, 257, t4);
    pref(0, 272, t5);
    lwc1(2, p, t5);
    pref(0, 272, a3);
    pref(0, 272, t6);
    lwc1(3, o, t6);
    lwc1(1, m, t6);
    lwc1(9, m, a3);
    lwc1(7, p, t6);
    mul_s(2, 2, 15);
    lwc1(5, p, a3);
    mul_s(3, 3, 11);
    lwc1(8, m, t5);
    if (k[0] == 1.0f)
      add_s(3, 3, 1);
    else
      madd_s(3, 3, 1, 10);
    lwc1(6, o, a3);
    // The k[6] term, tested by k[0] as the generator always has.
    if (k[0] == 1.0f)
      add_s(2, 2, 9);
    else
      madd_s(2, 2, 9, 16);
    lwc1(4, o, t5);
    if (k[2] == 1.0f)
      add_s(3, 3, 7);
    else
      madd_s(3, 3, 7, 12);
    if (k[8] == 1.0f)
      add_s(2, 2, 5);
    else
      madd_s(2, 2, 5, 18);
    madd_s(3, 3, 8, 13);
    madd_s(2, 2, 6, 17);
    madd_s(3, 3, 4, 14);
    add_s(2, 2, 3);
    if (scaled) mul_s(2, 2, 20);
    trunc_w_s(2, 2);
    mfc1(at, 2);
    sltu(v0, at, t9);
    movz(at, t9, v0);  // anything not below 255, negatives included, becomes 255
    if (c < 3) sb(at, int(3 - c), t4);
  }

  // Loop end, with the output step in the branch's delay slot.
  addiu(t5, t5, 16);
  addiu(a3, a3, 16);
  addiu(t6, t6, 16);
  bne(a3, t8, loop);
  addiu(t4, t4, 4);

  label(done);
  jr(ra);
  return fsGeneratedCode;
}
