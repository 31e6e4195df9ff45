// Writes MIPS IV machine code at run time: a 3x3 convolution routine
// specialised for one kernel. The words go into a buffer the caller sets
// (fsGeneratedCode); they run only on that processor, so here the
// generator is a producer of data.
#pragma once

#include <cstdint>

#include "kelpimage/base/tarray.h"
#include "kelpimage/base/tstring.h"
#include "kelpimage/kelpexport.h"

class KELP_API TcodeGenerator {
 public:
  // The emission cursor, as a byte pointer or a word pointer.
  union Tinstruction {
    char* fByte;
    uint32_t* fWord;
  };

  static char* fsGeneratedCode;
  static int fsMmapDescriptor;
  static Tinstruction i;

  static char* init() { return fsGeneratedCode; }
  static char* convolve3x3(unsigned channels, unsigned, unsigned, float scale, const float* kernel);

  // Labels and branches: the field holds the distance from branch to label in words.
  static void label(const Tstring& name) { addLabel(name); }
  static void addLabel(const Tstring& name);
  static uint16_t addBranch(const Tstring& name);

  // Register numbers.
  enum Reg : unsigned {
    zero = 0,
    at = 1,
    v0 = 2,
    a0 = 4,
    a1 = 5,
    a2 = 6,
    a3 = 7,
    t0 = 8,
    t1 = 9,
    t2 = 10,
    t3 = 11,
    t4 = 12,
    t5 = 13,
    t6 = 14,
    t7 = 15,
    t8 = 24,
    t9 = 25,
    ra = 31,
  };

  static void addu(unsigned rd, unsigned rs, unsigned rt) { special(rs, rt, rd, 0, 33); }
  static void subu(unsigned rd, unsigned rs, unsigned rt) { special(rs, rt, rd, 0, 35); }
  static void OR(unsigned rs, unsigned rt, unsigned rd) { special(rs, rt, rd, 0, 37); }
  static void slt(unsigned rd, unsigned rs, unsigned rt) { special(rs, rt, rd, 0, 42); }
  static void sltu(unsigned rd, unsigned rs, unsigned rt) { special(rs, rt, rd, 0, 43); }
  static void movz(unsigned rd, unsigned rs, unsigned rt) { special(rs, rt, rd, 0, 10); }
  static void move(unsigned rd, unsigned rs) { special(rs, 0, rd, 0, 37); }
  static void sll(unsigned rd, unsigned rt, unsigned shift) { special(0, rt, rd, shift, 0); }
  static void jr(unsigned rs);
  static void addiu(unsigned rt, unsigned rs, int immediate) { immediateForm(0x24000000, rs, rt, immediate); }
  static void li(unsigned rt, int immediate) { immediateForm(0x24000000, 0, rt, immediate); }
  static void lw(unsigned rt, int offset, unsigned base) { immediateForm(0x8C000000, base, rt, offset); }
  static void sb(unsigned rt, int offset, unsigned base) { immediateForm(0xA0000000, base, rt, offset); }
  static void lwc1(unsigned ft, int offset, unsigned base) { immediateForm(0xC4000000, base, ft, offset); }
  static void pref(unsigned hint, int offset, unsigned base) { immediateForm(0xCC000000, base, hint, offset); }
  static void beq(unsigned rs, unsigned rt, const Tstring& target);
  static void bne(unsigned rs, unsigned rt, const Tstring& target);
  static void blez(unsigned rs, const Tstring& target);
  static void mfc1(unsigned rt, unsigned fs) { emit(0x44000000 | rt << 16 | fs << 11); }
  static void add_s(unsigned fd, unsigned fs, unsigned ft) { emit(0x46000000 | ft << 16 | fs << 11 | fd << 6); }
  static void mul_s(unsigned fd, unsigned fs, unsigned ft) { emit(0x46000002 | ft << 16 | fs << 11 | fd << 6); }
  static void mov_s(unsigned fd, unsigned fs) { emit(0x46000006 | fs << 11 | fd << 6); }
  static void trunc_w_s(unsigned fd, unsigned fs) { emit(0x4600000D | fs << 11 | fd << 6); }
  static void madd_s(unsigned fd, unsigned fr, unsigned fs, unsigned ft) {
    emit(0x4C000020 | fr << 21 | ft << 16 | fs << 11 | fd << 6);
  }

 private:
  static void emit(uint32_t word) { *i.fWord++ = word; }
  static void special(unsigned rs, unsigned rt, unsigned rd, unsigned shift, unsigned function) {
    emit(rs << 21 | rt << 16 | rd << 11 | shift << 6 | function);
  }
  static void immediateForm(uint32_t op, unsigned rs, unsigned rt, int immediate) {
    emit(op | rs << 21 | rt << 16 | (uint32_t(immediate) & 0xFFFF));
  }
};
