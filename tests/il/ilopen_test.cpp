// Image handles: several images in one file, control bits, conversion
// filters with real commands, and files that are not what they claim.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstring>
#include <thread>

#include "kelpimage/il/il.h"
#include "testutil.h"

using namespace kelptest;

namespace {
void writeHeaderOnly(const std::string& name, int w, int h) {
  ILimage* im = ILopen(name.c_str(), "w");
  ASSERT_NE(im, nullptr) << FLstrerror(flerrno);
  ILsetsize(im, w, h);
  ASSERT_EQ(ILputheader(im), 0);
  ASSERT_EQ(ILclose(im), 0);
}

int32_t widthOf(const std::string& name) {
  ILimage* im = ILopen(name.c_str(), "r");
  if (!im) return -1;
  int32_t w = -1;
  if (ILgetsize(im, &w, nullptr) != 0) w = -2;
  ILclose(im);
  return w;
}

bool isGzip(const std::string& name) {
  auto b = readBytes(name);
  return b.size() > 2 && b[0] == 0x1F && b[1] == 0x8B;
}

// A stand-in for the default converter: decompresses its input and logs its arguments.
std::string fakeConverter(const TempDir& dir) {
  std::string bin = dir.file("bin");
  std::filesystem::create_directories(bin);
  std::string script = bin + "/rstcvt";
  std::string body = "#!/bin/sh\necho \"$@\" >> " + dir.file("rstcvt.log") +
                     "\nif [ $# -ge 3 ]; then exec gzip -dc \"$2\"; else exec gzip -dc; fi\n";
  writeBytes(script, std::vector<uint8_t>(body.begin(), body.end()));
  chmod(script.c_str(), 0755);
  setenv("PATH", (bin + ":" + getenv("PATH")).c_str(), 1);
  return dir.file("rstcvt.log");
}
}  // namespace

TEST(ILopen, SeveralImagesInOneFile) {
  TempDir dir;
  std::string name = dir.file("multi.iff");
  ILimage* im = ILopen(name.c_str(), "w");
  for (int i = 0; i < 3; ++i) {
    if (i) {
      ASSERT_EQ(ILnext(im), 0);
    }
    EXPECT_EQ(im->ictl & ILC_HEADER, 0u);
    ILsetsize(im, 10 + i, 20);
    ASSERT_EQ(ILputheader(im), 0);
  }
  ASSERT_EQ(ILclose(im), 0);

  im = ILopen(name.c_str(), "r");
  ASSERT_NE(im, nullptr);
  EXPECT_EQ(im->ictl, ILC_READ);
  for (int i = 0; i < 3; ++i) {
    if (i) {
      ASSERT_EQ(ILnext(im), 0);
    }
    int32_t w = 0;
    ASSERT_EQ(ILgetsize(im, &w, nullptr), 0);
    EXPECT_EQ(w, 10 + i);
  }
  EXPECT_EQ(ILnext(im), IL_ENOIMAGE);
  EXPECT_EQ(flerrno, 0);
  ILclose(im);

  // ILreopen with no handle is ILopen; with one it reuses the record.
  im = ILreopen(name.c_str(), "r", nullptr);
  ASSERT_NE(im, nullptr);
  ILimage* again = ILreopen(name.c_str(), "r", im);
  EXPECT_EQ(again, im);
  EXPECT_EQ(ILgettype(im), 3);
  ILclose(im);
}

TEST(ILopen, ControlBitsAndChannelLayout) {
  TempDir dir;
  ILimage* im = ILopen(dir.file("c.iff").c_str(), "w");
  EXPECT_EQ(ILctrl(im, 0xFFFF, 1), 0u);  // the library's own bits are not the caller's
  EXPECT_EQ(im->ictl & 0xFFFF, 0u);
  EXPECT_EQ(ILctrl(im, ILC_TOPDOWN | ILC_DEEP | 0x1, 1), ILC_TOPDOWN | ILC_DEEP);
  im->ictl |= ILC_BITMAP;  // while the tile group is open these two stay
  EXPECT_EQ(ILctrl(im, ILC_DEEP | ILC_RAWCHANNELS | ILC_TOPDOWN, 0), ILC_TOPDOWN);
  EXPECT_TRUE(im->ictl & ILC_DEEP);
  im->ictl &= ~(ILC_BITMAP | ILC_DEEP);

  struct Case {
    uint32_t type, ctl, bitmask, channels;
  } cases[] = {{3, 0, 15, 4},
               {1, 0, 14, 4},
               {0, 0, 4, 4},
               {16, 0, 0, 4},
               {2, 0, 5, 4},
               {3, ILC_RAWCHANNELS, 15, 4},
               {1, ILC_RAWCHANNELS, 7, 3},
               {0, ILC_RAWCHANNELS, 1, 1},
               {2, ILC_RAWCHANNELS, 3, 2},
               {18, ILC_RAWCHANNELS, 1, 1}};
  for (const Case& c : cases) {
    im->type = c.type;
    im->ictl = c.ctl;
    im->bytes = 2;
    ILinitio(im);
    EXPECT_EQ(im->bitmask, c.bitmask) << c.type;
    EXPECT_EQ(im->channels, c.channels) << c.type;
    EXPECT_EQ(im->pwidth, 2 * c.channels);  // writing keeps the file's bytes
    EXPECT_EQ(im->lwidth, im->width * im->pwidth);
  }
  im->ictl = ILC_READ;
  ILinitio(im);
  EXPECT_EQ(im->pwidth, im->channels);  // reading hands out one byte unless deep
  im->ictl = 0;
  ILclose(im);

  ILconfig(ILCONF_COMPRESS | ILCONF_ZOOM, 1);
  EXPECT_EQ(ilconfig, ILCONF_COMPRESS | ILCONF_ZOOM);
  ILconfig(ILCONF_ZOOM, 0);
  EXPECT_EQ(ilconfig, ILCONF_COMPRESS);
  ILconfig(~0u, 0);
}

TEST(ILopen, WideningAndDeepReading) {
  TempDir dir;
  std::string one = dir.file("one.iff"), two = dir.file("two.iff");
  writeHeaderOnly(one, 8, 8);
  ILimage* im = ILopen(two.c_str(), "w");
  ILsetbpp(im, 2);
  ILputheader(im);
  ILclose(im);

  im = ILopen(one.c_str(), "r");
  ASSERT_EQ(ILsetbpp(im, 2), 0);
  EXPECT_TRUE(im->ictl & ILC_WIDEN);
  EXPECT_EQ(ILgetbpp(im), 2);
  ILclose(im);
  im = ILopen(two.c_str(), "r");
  ASSERT_EQ(ILsetbpp(im, 2), 0);
  EXPECT_TRUE(im->ictl & ILC_DEEP);
  EXPECT_EQ(ILgetbpp(im), 2);
  EXPECT_EQ(ILsettype(im, 1), 0);  // a read handle keeps its type
  EXPECT_EQ(ILgettype(im), 3);
  ILclose(im);
}

TEST(ILopen, InputFilterFromEnvironmentOrCall) {
  TempDir dir;
  std::string name = dir.file("z.iff");
  writeHeaderOnly(name, 77, 5);
  ASSERT_EQ(std::system(("gzip " + name).c_str()), 0);
  setenv("ILICVT", "gzip -dc", 1);
  EXPECT_EQ(widthOf(name + ".gz"), 77);
  unsetenv("ILICVT");
  ASSERT_NE(ILinfilter("gzip -dc"), nullptr);
  EXPECT_EQ(widthOf(name + ".gz"), 77);
  // Through a pipe as well: the parse gives back what it read ahead.
  EXPECT_EQ(widthOf("pipe:cat " + name + ".gz"), 77);
  EXPECT_EQ(ILinfilter(nullptr), nullptr);

  // A filter that takes no file name filters the stream: it is never
  // handed the name and "stdout" unless the default converter has been
  // chosen (which no test before this one does in this process).
  ASSERT_EQ(std::system(("gzip -dc " + name + ".gz | base64 > " + name + ".b64").c_str()), 0);
  ASSERT_NE(ILinfilter("base64 -d"), nullptr);
  EXPECT_EQ(widthOf(name + ".b64"), 77);
  ILinfilter(nullptr);
  setenv("ILICVT", "base64 -d", 1);
  EXPECT_EQ(widthOf(name + ".b64"), 77);
  unsetenv("ILICVT");
}

TEST(ILopen, OutputFilterAndPipes) {
  TempDir dir;
  setenv("ILOCVT", "gzip -c", 1);
  writeHeaderOnly(dir.file("f.iff"), 9, 9);
  EXPECT_TRUE(isGzip(dir.file("f.iff")));

  // A pipe is not filtered unless asked, and gets no compression by default.
  ILimage* im = ILopen(("pipe:cat > " + dir.file("p.iff")).c_str(), "w");
  ASSERT_NE(im, nullptr);
  EXPECT_EQ(im->compress, 0u);
  ILputheader(im);
  ASSERT_EQ(ILclose(im), 0);
  EXPECT_FALSE(isGzip(dir.file("p.iff")));
  EXPECT_EQ(widthOf(dir.file("p.iff")), 384);

  ILconfig(ILCONF_PIPEFILTER, 1);
  writeHeaderOnly("pipe:cat > " + dir.file("q.iff"), 9, 9);
  EXPECT_TRUE(isGzip(dir.file("q.iff")));

  ILconfig(ILCONF_NOOUTFILTER, 1);
  writeHeaderOnly(dir.file("n.iff"), 9, 9);
  EXPECT_FALSE(isGzip(dir.file("n.iff")));
  ILconfig(~0u, 0);

  setenv("ILOCVT", "", 1);  // set but empty is none
  writeHeaderOnly(dir.file("e.iff"), 9, 9);
  EXPECT_FALSE(isGzip(dir.file("e.iff")));
  ILoutfilter("gzip -c");
  writeHeaderOnly(dir.file("g.iff"), 9, 9);
  EXPECT_TRUE(isGzip(dir.file("g.iff")));
  unsetenv("ILOCVT");
}

TEST(ILopen, DefaultConverterReadsTheFileByNameAndStaysChosen) {
  TempDir dir;
  std::string log = fakeConverter(dir);
  std::string name = dir.file("pic.giff");
  writeHeaderOnly(name, 31, 5);
  ASSERT_EQ(std::system(("gzip -c " + name + " > " + name + ".tmp && mv " + name + ".tmp " + name).c_str()), 0);

  EXPECT_EQ(widthOf(name), 31);
  auto first = readBytes(log);
  EXPECT_EQ(text(first, 0, first.size()), "-s " + name + " stdout\n");

  // Once the default has been chosen, a later ILICVT runs the same way, by name.
  setenv("ILICVT", "rstcvt -s", 1);
  EXPECT_EQ(widthOf(name), 31);
  auto both = readBytes(log);
  EXPECT_EQ(text(both, first.size(), both.size() - first.size()), "-s " + name + " stdout\n");
  unsetenv("ILICVT");
}

TEST(ILopen, FilesThatAreNotImages) {
  TempDir dir;
  // No default converter installed: nothing is run, and the open says what
  // the bytes are not.
  writeBytes(dir.file("text.txt"), std::vector<uint8_t>(40, 'x'));
  writeBytes(dir.file("empty"), {});
  setenv("PATH", "/nonexistent", 1);
  testing::internal::CaptureStderr();
  EXPECT_EQ(ILopen(dir.file("text.txt").c_str(), "r"), nullptr);
  EXPECT_EQ(flerrno, FL_ENOTIFF);
  EXPECT_EQ(ILopen(dir.file("empty").c_str(), "r"), nullptr);
  EXPECT_EQ(flerrno, FL_ESHORT);
  EXPECT_EQ(ILopen(dir.path().c_str(), "r"), nullptr);
  EXPECT_NE(flerrno, 0);

  // A converter that fails runs once, its complaints go nowhere, and the
  // open fails with the converter's code.
  std::string count = dir.file("runs");
  setenv("PATH", "/usr/bin:/bin", 1);
  setenv("ILICVT", ("echo run >> " + count + "; echo complaint >&2; exit 1; :").c_str(), 1);
  EXPECT_EQ(ILopen(dir.file("text.txt").c_str(), "r"), nullptr);
  EXPECT_EQ(flerrno, IL_EINFILTER);
  unsetenv("ILICVT");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(readBytes(count).size(), 4u);  // "run\n", once

  // A chunked file without an image form.
  std::vector<uint8_t> b;
  putTag(b, "FOR4");
  put32(b, 4);
  putTag(b, "Kelp");
  writeBytes(dir.file("scene.iff"), b);
  EXPECT_EQ(ILopen(dir.file("scene.iff").c_str(), "r"), nullptr);
  EXPECT_EQ(flerrno, IL_ENOIMAGE);

  // An image in a group of 2-byte alignment is refused.
  b.clear();
  putTag(b, "FORM");
  put32(b, 4);
  putTag(b, "CIMG");
  writeBytes(dir.file("form.iff"), b);
  EXPECT_EQ(ILopen(dir.file("form.iff").c_str(), "r"), nullptr);
  EXPECT_EQ(flerrno, IL_EPARSE);

  EXPECT_EQ(ILopen(dir.file("missing.iff").c_str(), "r"), nullptr);
  EXPECT_NE(flerrno, 0);
}

TEST(ILopen, DamagedHeadersGiveCodes) {
  TempDir dir;
  std::string good = dir.file("good.iff");
  writeHeaderOnly(good, 16, 16);
  auto bytes = readBytes(good);

  auto tryHeader = [&](const std::vector<uint8_t>& b) {
    writeBytes(dir.file("bad.iff"), b);
    ILimage* im = ILopen(dir.file("bad.iff").c_str(), "r");
    if (!im) return -flerrno;
    int code = ILgetheader(im) ? 0 : flerrno;
    ILclose(im);
    return code;
  };

  // Cut inside the header chunk.
  auto cut = bytes;
  cut.resize(40);
  EXPECT_EQ(tryHeader(cut), IL_EBADHEADER);
  // A header chunk that claims 20 bytes.
  auto small = bytes;
  small[31] = 20;
  EXPECT_EQ(tryHeader(small), FL_EFIT);
  // A channel size that does not exist.
  auto huge = bytes;
  huge[32 + 16] = 9;
  EXPECT_EQ(tryHeader(huge), FL_EFIT);
  // No header chunk at all before the group ends.
  std::vector<uint8_t> empty;
  putTag(empty, "FOR4");
  put32(empty, 4);
  putTag(empty, "CIMG");
  EXPECT_EQ(tryHeader(empty), IL_ENOHEADER);
  // A field record that runs past its chunk.
  std::vector<uint8_t> fields(bytes.begin(), bytes.begin() + 64);
  putTag(fields, "FLDS");
  put32(fields, 16);
  putTag(fields, "ABCD");
  put32(fields, 1000);
  put32(fields, 0);
  put32(fields, 0);
  fields.resize(fields.size());
  uint32_t total = uint32_t(fields.size() - 8);
  fields[4] = uint8_t(total >> 24);
  fields[5] = uint8_t(total >> 16);
  fields[6] = uint8_t(total >> 8);
  fields[7] = uint8_t(total);
  EXPECT_EQ(tryHeader(fields), FL_EFIT);
  // Every truncation of a good file fails cleanly or reads.
  for (size_t n = 0; n < bytes.size(); ++n) {
    auto t = bytes;
    t.resize(n);
    tryHeader(t);
  }
}

TEST(ILopen, TwoThreadsReadTwoFilesWithTheirOwnCodes) {
  TempDir dir;
  std::string good = dir.file("good.iff");
  writeHeaderOnly(good, 123, 4);
  std::vector<uint8_t> b;
  putTag(b, "FOR4");
  put32(b, 4);
  putTag(b, "CIMG");
  writeBytes(dir.file("empty.iff"), b);
  auto reader = [&](const std::string& name, int wantWidth, int wantCode, bool* ok) {
    for (int i = 0; i < 200; ++i) {
      ILimage* im = ILopen(name.c_str(), "r");
      if (!im) {
        *ok = false;
        return;
      }
      int32_t w = -1;
      int rc = ILgetsize(im, &w, nullptr);
      if (rc != wantCode || flerrno != wantCode || (rc == 0 && w != wantWidth)) *ok = false;
      ILclose(im);
    }
  };
  bool okGood = true, okEmpty = true;
  std::thread a(reader, good, 123, 0, &okGood);
  std::thread c(reader, dir.file("empty.iff"), 0, IL_ENOHEADER, &okEmpty);
  a.join();
  c.join();
  EXPECT_TRUE(okGood);
  EXPECT_TRUE(okEmpty);
}

TEST(ILopen, DamagedBytesNeverCrash) {
  TempDir dir;
  std::string good = dir.file("good.iff");
  ILimage* im = ILopen(good.c_str(), "w");
  ILsetfield(im, FLmaketag("A\0\0\x14"), 6, "123456");
  ILsetfield(im, FLmaketag("B\0\0\x18"), 16, "0123456789abcdef");
  ILputheader(im);
  ILclose(im);
  auto bytes = readBytes(good);
  uint32_t seed = 12345;
  auto next = [&] { return seed = seed * 1103515245u + 12345u; };
  for (int round = 0; round < 3000; ++round) {
    auto t = bytes;
    for (int k = 0; k < 1 + round % 4; ++k) t[(next() >> 8) % t.size()] = uint8_t(next() >> 16);
    writeBytes(dir.file("bad.iff"), t);
    setenv("PATH", "/nonexistent", 1);  // no converter: damaged files stay unreadable
    // Every damaged file either opens or fails with a code that has its own
    // text; the sanitizer build also sees every read stay in bounds.
    auto known = [](int code) { return std::string(FLstrerror(code)).rfind("Unknown error", 0) != 0; };
    flerrno = 0;
    ILimage* r = ILopen(dir.file("bad.iff").c_str(), "r");
    if (!r) {
      EXPECT_NE(flerrno, 0) << round;
      EXPECT_TRUE(known(flerrno)) << round << ": " << flerrno;
      continue;
    }
    if (!ILgetheader(r)) {
      EXPECT_TRUE(known(flerrno)) << round << ": " << flerrno;
    }
    ILgetfield(r, FLmaketag("B\0\0\x18"), nullptr);
    int rc = ILnext(r);
    EXPECT_TRUE(rc == 0 || known(rc)) << round << ": " << rc;
    ILclose(r);
  }
}
