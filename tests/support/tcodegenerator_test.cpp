// The convolution code generator, checked by an independent disassembler:
// the words must decode, instruction by instruction, to the listing that
// the routine's recipe gives.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "kelpimage/support/tcodegenerator.h"
#include "testutil.h"

using namespace kelptest;

namespace {
const char* kObjdump = "mips-linux-gnu-objdump";

bool haveObjdump() { return std::system((std::string("command -v ") + kObjdump + " >/dev/null 2>&1").c_str()) == 0; }

// Disassembles little-endian MIPS IV words into "mnemonic\toperands" lines.
std::vector<std::string> disassemble(const std::vector<uint32_t>& words) {
  TempDir dir;
  std::string bin = dir.file("code.bin");
  writeBytes(bin, std::vector<uint8_t>(reinterpret_cast<const uint8_t*>(words.data()),
                                       reinterpret_cast<const uint8_t*>(words.data() + words.size())));
  std::string cmd = std::string(kObjdump) + " -D -b binary -m mips:8000 -EL " + bin;
  std::vector<std::string> lines;
  FILE* p = popen(cmd.c_str(), "r");
  char buf[512];
  while (p && std::fgets(buf, sizeof buf, p)) {
    std::string line(buf);
    if (!line.empty() && line.back() == '\n') line.pop_back();
    // "   1c:\t018b6021 \taddu\tt4,t4,t3"
    size_t colon = line.find(":\t");
    if (colon == std::string::npos || line.find_first_not_of(" 0123456789abcdef") != colon) continue;
    size_t tab = line.find('\t', colon + 2);
    if (tab != std::string::npos) lines.push_back(line.substr(tab + 1));
  }
  if (p) pclose(p);
  return lines;
}

std::string hex(long v) {
  char b[32];
  std::snprintf(b, sizeof b, "0x%lx", v);
  return b;
}

// The listing the recipe gives, in the disassembler's notation.
std::vector<std::string> expectedListing(unsigned n, float scale, const float* k) {
  std::vector<std::string> L;
  auto f = [](int r) { return "$f" + std::to_string(r); };
  bool scaled = scale != 1.0f;
  L = {"li\tt9,255",    "sll\tt4,a0,0x2", "sll\ta3,a0,0x4", "subu\tt7,a1,a0", "addu\tt8,t7,a0", "addu\tt5,a3,t1",
       "blez\tt7,DONE", "addu\tt4,t4,t3", "addu\tt6,a3,t2", "sll\tt8,t8,0x4", "addu\ta3,a3,t0", "addu\tt8,t8,t0"};
  if (scaled) L.push_back("mov.s\t$f20,$f15");
  for (int i = 0; i < 9; ++i) {
    bool unitCorner = (i == 0 || i == 2 || i == 6 || i == 8) && k[i] == 1.0f;
    if (!unitCorner) L.push_back("lwc1\t" + f(10 + i) + "," + std::to_string(4 * i) + "(a2)");
  }
  long loop = long(L.size()) * 4;
  auto plusOrMadd = [&](bool unit, int d, int s, int coef) {
    return unit ? "add.s\t" + f(d) + "," + f(d) + "," + f(s)
                : "madd.s\t" + f(d) + "," + f(d) + "," + f(s) + "," + f(coef);
  };
  for (unsigned c = 0; c + 1 < n; ++c) {
    std::string o = std::to_string(4 * c), p = std::to_string(4 * n + 4 * c),
                m = std::to_string(int(4 * c) - int(4 * n));
    for (const std::string& s :
         {std::string("pref\t0x1,257(t4)"), std::string("pref\t0x0,272(t5)"), "lwc1\t$f2," + p + "(t5)",
          std::string("pref\t0x0,272(a3)"), std::string("pref\t0x0,272(t6)"), "lwc1\t$f3," + o + "(t6)",
          "lwc1\t$f1," + m + "(t6)", "lwc1\t$f9," + m + "(a3)", "lwc1\t$f7," + p + "(t6)",
          std::string("mul.s\t$f2,$f2,$f15"), "lwc1\t$f5," + p + "(a3)", std::string("mul.s\t$f3,$f3,$f11"),
          "lwc1\t$f8," + m + "(t5)"})
      L.push_back(s);
    L.push_back(plusOrMadd(k[0] == 1.0f, 3, 1, 10));
    L.push_back("lwc1\t$f6," + o + "(a3)");
    L.push_back(plusOrMadd(k[0] == 1.0f, 2, 9, 16));  // the k[6] term, tested by k[0]
    L.push_back("lwc1\t$f4," + o + "(t5)");
    L.push_back(plusOrMadd(k[2] == 1.0f, 3, 7, 12));
    L.push_back(plusOrMadd(k[8] == 1.0f, 2, 5, 18));
    for (const char* s :
         {"madd.s\t$f3,$f3,$f8,$f13", "madd.s\t$f2,$f2,$f6,$f17", "madd.s\t$f3,$f3,$f4,$f14", "add.s\t$f2,$f2,$f3"})
      L.push_back(s);
    if (scaled) L.push_back("mul.s\t$f2,$f2,$f20");
    for (const char* s : {"trunc.w.s\t$f2,$f2", "mfc1\tat,$f2", "sltu\tv0,at,t9", "movz\tat,t9,v0"}) L.push_back(s);
    if (c < 3) L.push_back("sb\tat," + std::to_string(3 - c) + "(t4)");
  }
  for (const char* s : {"addiu\tt5,t5,16", "addiu\ta3,a3,16", "addiu\tt6,t6,16"}) L.push_back(s);
  L.push_back("bne\ta3,t8," + hex(loop + 4));  // lands one word past its label
  L.push_back("addiu\tt4,t4,4");
  long done = long(L.size()) * 4;
  L.push_back("jr\tra");
  L.push_back("nop");
  for (std::string& s : L)
    if (s == "blez\tt7,DONE") s = "blez\tt7," + hex(done + 4);  // the return's delay slot
  return L;
}

std::vector<uint32_t> generate(unsigned channels, float scale, const float* k) {
  std::vector<uint32_t> buffer(512, 0xDEADBEEF);
  TcodeGenerator::fsGeneratedCode = reinterpret_cast<char*>(buffer.data());
  EXPECT_EQ(TcodeGenerator::convolve3x3(channels, 0, 0, scale, k), TcodeGenerator::fsGeneratedCode);
  size_t n = size_t(TcodeGenerator::i.fWord - buffer.data());
  buffer.resize(n);
  return buffer;
}

// Generates in a child process (the label lists outlive a call) and
// compares the disassembly with the recipe; exits 0 when they agree.
void checkInChild(unsigned channels, float scale, std::vector<float> k) {
  auto words = generate(channels, scale, k.data());
  auto got = disassemble(words);
  auto want = expectedListing(channels, scale, k.data());
  for (size_t i = 0; i < std::max(got.size(), want.size()); ++i) {
    std::string g = i < got.size() ? got[i] : "(none)", w = i < want.size() ? want[i] : "(none)";
    if (g != w) {
      std::fprintf(stderr, "word %zu: got '%s', want '%s'\n", i, g.c_str(), w.c_str());
      std::exit(1);
    }
  }
  std::exit(0);
}
}  // namespace

TEST(TcodeGenerator, ListingsMatchTheDisassembler) {
  if (!haveObjdump()) GTEST_SKIP() << kObjdump << " is not installed (binutils-mips-linux-gnu)";
  std::vector<float> ones(9, 1.0f), twos(9, 2.0f);
  std::vector<float> mixed = {2.0f, 0.5f, 1.0f, -1.0f, 4.0f, 1.0f, 1.0f, 0.25f, 1.0f};
  EXPECT_EXIT(checkInChild(4, 1.0f, ones), testing::ExitedWithCode(0), "");
  EXPECT_EXIT(checkInChild(4, 0.5f, twos), testing::ExitedWithCode(0), "");
  EXPECT_EXIT(checkInChild(1, 1.0f, twos), testing::ExitedWithCode(0), "");
  EXPECT_EXIT(checkInChild(5, 2.0f, ones), testing::ExitedWithCode(0), "");
  EXPECT_EXIT(checkInChild(3, 1.0f, mixed), testing::ExitedWithCode(0), "");
}

TEST(TcodeGenerator, WordsLabelsAndBranches) {
  std::vector<float> ones(9, 1.0f), twos(9, 2.0f);
  auto w = generate(4, 1.0f, ones.data());
  const uint32_t prologue[] = {0x241900FF, 0x00046080, 0x00043900, 0x00A47823, 0x01E4C021, 0x00E96821};
  for (size_t i = 0; i < 6; ++i) EXPECT_EQ(w[i], prologue[i]);
  EXPECT_EQ(w[6] & 0xFFFF0000u, 0x19E00000u);
  // Scale 1.0: no mov.s f20,f15 and no mul.s f2,f2,f20.
  for (uint32_t word : w) {
    EXPECT_NE(word, 0x46007D06u);
    EXPECT_NE(word, 0x46141082u);
  }
  // Five of the nine coefficients load when the corners are 1.0; all nine otherwise.
  auto loads = [](const std::vector<uint32_t>& words) {
    int n = 0;
    for (uint32_t word : words) n += (word & 0xFFE00000u) == 0xC4C00000u;  // lwc1 f?,?(a2)
    return n;
  };
  EXPECT_EQ(loads(w), 5);
  auto s = generate(4, 0.5f, twos.data());
  EXPECT_EQ(loads(s), 9);
  // Three channels for four: stores to bytes 3, 2 and 1 of the pixel.
  int stores = 0;
  for (uint32_t word : w)
    if ((word & 0xFFFF0000u) == 0xA1810000u) {
      EXPECT_EQ(word & 0xFFFF, uint32_t(3 - stores++));
    }
  EXPECT_EQ(stores, 3);
  // The encoders by themselves.
  std::vector<uint32_t> buf(16);
  TcodeGenerator::i.fWord = buf.data();
  TcodeGenerator::OR(TcodeGenerator::a0, TcodeGenerator::a1, TcodeGenerator::t0);
  TcodeGenerator::move(TcodeGenerator::t0, TcodeGenerator::a0);
  TcodeGenerator::slt(TcodeGenerator::v0, TcodeGenerator::a0, TcodeGenerator::a1);
  TcodeGenerator::lw(TcodeGenerator::t0, -4, TcodeGenerator::a0);
  TcodeGenerator::jr(TcodeGenerator::ra);
  EXPECT_EQ(buf[0], 0x00854025u);
  EXPECT_EQ(buf[1], 0x00804025u);
  EXPECT_EQ(buf[2], 0x0085102Au);
  EXPECT_EQ(buf[3], 0x8C88FFFCu);
  EXPECT_EQ(buf[4], 0x03E00008u);
  EXPECT_EQ(buf[5], 0u);
  EXPECT_EQ(TcodeGenerator::i.fWord, buf.data() + 6);
}
