// Chunk services: byte layouts of groups and chunks, reading them back,
// pipes and filters, lists, memory keys, paths and error codes.
#include <gtest/gtest.h>

#include <cstring>
#include <thread>

#include "kelpimage/il/chunk/fl.h"
#include "kelpimage/il/il.h"
#include "testutil.h"

using namespace kelptest;

namespace {
constexpr uint32_t kTEST = FLmaketag("TEST");
constexpr uint32_t kDATA = FLmaketag("DATA");

// Writes FOR4 TEST { DATA "hello", FOR4 INNR { DATA 4 bytes } } to `name`.
void writeSample(const std::string& name) {
  FLfile* f = FLsopen(name.c_str(), "w", sizeof(FLfile));
  ASSERT_NE(f, nullptr) << FLstrerror(flerrno);
  ASSERT_EQ(FLbgnwgroup(f, FL_FOR4, kTEST), 0);
  ASSERT_EQ(FLputchunk(f, kDATA, 5, "hello"), 0);
  ASSERT_EQ(FLbgnwgroup(f, FL_FOR4, FLmaketag("INNR")), 0);
  ASSERT_EQ(FLputchunk(f, kDATA, 4, "abcd"), 0);
  ASSERT_EQ(FLendwgroup(f), 0);
  ASSERT_EQ(FLendwgroup(f), 0);
  ASSERT_EQ(FLclose(f), 0);
}

std::vector<uint8_t> expectedSample() {
  std::vector<uint8_t> b;
  putTag(b, "FOR4");
  put32(b, 4 + 16 + 24);
  putTag(b, "TEST");
  putTag(b, "DATA");
  put32(b, 5);
  putBytes(b, "hello\0\0\0", 8);
  putTag(b, "FOR4");
  put32(b, 16);
  putTag(b, "INNR");
  putTag(b, "DATA");
  put32(b, 4);
  putBytes(b, "abcd", 4);
  return b;
}
}  // namespace

TEST(ChunkFiles, WriterPadsChunksAndPatchesGroupSizes) {
  TempDir dir;
  writeSample(dir.file("a.iff"));
  EXPECT_EQ(readBytes(dir.file("a.iff")), expectedSample());
}

TEST(ChunkFiles, PipeWriterPatchesSizesOfGroupsKeptInMemory) {
  TempDir dir;
  writeSample("pipe:cat > " + dir.file("p.iff"));
  EXPECT_EQ(readBytes(dir.file("p.iff")), expectedSample());
}

TEST(ChunkFiles, BufferedChunkAndStreamedChunk) {
  TempDir dir;
  std::string name = dir.file("b.iff");
  FLfile* f = FLsopen(name.c_str(), "w", 0);
  ASSERT_EQ(FLbgnwgroup(f, FL_FOR4, kTEST), 0);
  auto* buf = static_cast<char*>(FLbgnwbchunk(f, kDATA, 100));
  ASSERT_NE(buf, nullptr);
  std::memcpy(buf, "xyz", 3);
  ASSERT_EQ(FLendwbchunk(f, 3), 0);  // smaller than announced: the header says 3
  ASSERT_EQ(FLbgnput(f, FLmaketag("STRM")), 0);
  ASSERT_EQ(FLput(f, "12", 2), 0);
  ASSERT_EQ(FLput(f, "345", 3), 0);
  ASSERT_EQ(FLendput(f), 0);
  ASSERT_EQ(FLclose(f), 0);  // closes the open group itself
  auto b = readBytes(name);
  ASSERT_EQ(b.size(), 12u + 12 + 16);
  EXPECT_EQ(be32(b, 4), 4u + 12 + 16);
  EXPECT_EQ(text(b, 12, 4), "DATA");
  EXPECT_EQ(be32(b, 16), 3u);
  EXPECT_EQ(text(b, 24, 4), "STRM");
  EXPECT_EQ(be32(b, 28), 5u);
  EXPECT_EQ(text(b, 32, 5), "12345");
}

TEST(ChunkFiles, ReaderWalksGroupsAndChunks) {
  TempDir dir;
  std::string name = dir.file("a.iff");
  writeSample(name);
  for (const std::string& source : {name, "pipe:cat " + name}) {
    FLfile* f = FLsopen(source.c_str(), "r", 0);
    ASSERT_NE(f, nullptr);
    uint32_t tag = 0, size = 0, form = 0;
    // A group is reported, not entered, until FLbgnrgroup.
    EXPECT_EQ(FLbgnget(f, &tag, &size), FL_GROUP);
    EXPECT_EQ(FLbgnget(f, &tag, &size), FL_GROUP);
    EXPECT_EQ(tag, FL_FOR4);
    ASSERT_EQ(FLbgnrgroup(f, &tag, &form), 0);
    EXPECT_EQ(form, kTEST);
    ASSERT_EQ(FLbgnget(f, &tag, &size), 0);
    EXPECT_EQ(tag, kDATA);
    EXPECT_EQ(size, 5u);
    char got[8] = {};
    EXPECT_EQ(FLget(f, got, sizeof got), 5u);  // never past the chunk
    EXPECT_STREQ(got, "hello");
    ASSERT_EQ(FLbgnget(f, &tag, &size), FL_GROUP);  // finishes the chunk first
    ASSERT_EQ(FLbgnrgroup(f, &tag, &form), 0);
    EXPECT_EQ(form, FLmaketag("INNR"));
    auto* whole = static_cast<const char*>(FLgetchunk(f, nullptr, &size));
    ASSERT_NE(whole, nullptr);
    EXPECT_EQ(std::string(whole, size), "abcd");
    flerrno = 0;
    EXPECT_NE(FLbgnget(f, &tag, &size), 0);  // plain end of group
    EXPECT_EQ(flerrno, 0);
    EXPECT_EQ(FLendrgroup(f), 0);
    EXPECT_NE(FLbgnget(f, &tag, &size), 0);
    EXPECT_EQ(flerrno, 0);
    EXPECT_EQ(FLclose(f), 0);
  }
}

TEST(ChunkFiles, SeekTellUnreadAndDirectReads) {
  TempDir dir;
  std::string name = dir.file("a.iff");
  writeSample(name);
  FLfile* f = FLsopen(name.c_str(), "r", 0);
  const uint8_t* p = FLbgnread(f, 12);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(std::memcmp(p, "FOR4", 4), 0);
  EXPECT_EQ(FLtell(f), 12u);
  ASSERT_EQ(FLunread(f, "FORM", 4), 0);
  EXPECT_EQ(FLtell(f), 8u);
  p = FLbgnread(f, 4);
  EXPECT_EQ(std::memcmp(p, "FORM", 4), 0);
  ASSERT_EQ(FLseek(f, 12, 0), 0);
  p = FLbgnread(f, 4);
  EXPECT_EQ(std::memcmp(p, "DATA", 4), 0);
  // Asking for more than the file holds fails without a huge allocation.
  EXPECT_EQ(FLbgnread(f, size_t(1) << 40), nullptr);
  EXPECT_EQ(flerrno, FL_EEOF);
  FLclose(f);
}

TEST(ChunkFiles, ParseFindsAcceptedFormOrSaysNotChunked) {
  TempDir dir;
  std::string name = dir.file("a.iff");
  writeSample(name);
  FLfile* f = FLsopen(name.c_str(), "r", 0);
  // Go into every group; a form is found once the parse stands inside INNR.
  FLsetform(f, [](FLfile* file, uint32_t, uint32_t form) {
    return (form == FLmaketag("INNR") && file->group->gform == form) ? int(FL_FORMFOUND) : 1;
  });
  ASSERT_EQ(FLparse(f), FL_FORMFOUND);
  uint32_t tag = 0, size = 0;
  ASSERT_EQ(FLbgnget(f, &tag, &size), 0);
  EXPECT_EQ(size, 4u);
  FLclose(f);

  writeBytes(dir.file("text.txt"), {'p', 'l', 'a', 'i', 'n', ' ', 't', 'e', 'x', 't'});
  f = FLsopen(dir.file("text.txt").c_str(), "r", 0);
  EXPECT_EQ(FLparse(f), FL_ENOTIFF);
  EXPECT_TRUE(f->group->gflags & FLG_AHEAD);
  FLclose(f);

  writeBytes(dir.file("short"), {'F', 'O', 'R'});
  f = FLsopen(dir.file("short").c_str(), "r", 0);
  EXPECT_EQ(FLparse(f), FL_ESHORT);
  EXPECT_EQ(FLbgnread(f, 3)[2], 'R');  // nothing was lost
  FLclose(f);
}

TEST(ChunkFiles, HostileSizesFailCleanly) {
  TempDir dir;
  std::vector<uint8_t> b;
  putTag(b, "FOR4");
  put32(b, 20);
  putTag(b, "TEST");
  putTag(b, "DATA");
  put32(b, 0x7FFFFFF0);  // far past its group
  put32(b, 0);
  writeBytes(dir.file("bad.iff"), b);
  FLfile* f = FLsopen(dir.file("bad.iff").c_str(), "r", 0);
  uint32_t tag, size;
  ASSERT_EQ(FLbgnget(f, &tag, &size), FL_GROUP);
  ASSERT_EQ(FLbgnrgroup(f, nullptr, nullptr), 0);
  EXPECT_EQ(FLbgnget(f, &tag, &size), FL_EBADSIZE);
  FLclose(f);

  // At the top a chunk may claim anything; the data that is really there bounds the reads.
  b.clear();
  putTag(b, "DATA");
  put32(b, 0xFFFFFFF0);
  b.insert(b.end(), 10, 7);
  writeBytes(dir.file("huge.iff"), b);
  for (std::string src : {dir.file("huge.iff"), "pipe:cat " + dir.file("huge.iff")}) {
    f = FLsopen(src.c_str(), "r", 0);
    ASSERT_EQ(FLbgnget(f, &tag, &size), 0);
    EXPECT_EQ(FLgetchunk(f, nullptr, nullptr), nullptr);
    EXPECT_EQ(flerrno, FL_EFIT);
    FLclose(f);
  }
}

TEST(ChunkFiles, FiltersAndPipesRunRealCommands) {
  TempDir dir;
  std::string name = dir.file("a.iff");
  writeSample(name);
  ASSERT_EQ(std::system(("gzip -c " + name + " > " + name + ".gz").c_str()), 0);

  // A pipe that decompresses.
  FLfile* f = FLsopen(("pipe:gzip -dc " + name + ".gz").c_str(), "r", 0);
  ASSERT_NE(f, nullptr);
  EXPECT_TRUE(f->flags & FL_PIPE);
  EXPECT_EQ(std::memcmp(FLbgnread(f, 4), "FOR4", 4), 0);
  FLclose(f);

  // A filter over an open file, after bytes were read and given back.
  f = FLsopen((name + ".gz").c_str(), "r", 0);
  const uint8_t* magic = FLbgnread(f, 2);
  uint8_t keep[2] = {magic[0], magic[1]};
  FLunread(f, keep, 2);
  f = FLfilter("gzip -dc", "r", f);
  ASSERT_NE(f, nullptr);
  auto* data = FLbgnread(f, uint32_t(expectedSample().size()));
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(std::vector<uint8_t>(data, data + expectedSample().size()), expectedSample());
  FLclose(f);

  // A filter on output: the file on disk is what the command made of the stream.
  f = FLsopen(dir.file("out.gz").c_str(), "w", 0);
  f = FLfilter("gzip -c", "w", f);
  ASSERT_NE(f, nullptr);
  ASSERT_EQ(FLbgnwgroup(f, FL_FOR4, kTEST), 0);
  ASSERT_EQ(FLputchunk(f, kDATA, 5, "hello"), 0);
  ASSERT_EQ(FLclose(f), 0);
  ASSERT_EQ(std::system(("gzip -dc " + dir.file("out.gz") + " > " + dir.file("out")).c_str()), 0);
  auto out = readBytes(dir.file("out"));
  ASSERT_EQ(out.size(), 28u);
  EXPECT_EQ(be32(out, 4), 20u);

  // A write command that fails is reported at close; a reader that stops early is not.
  f = FLsopen("pipe:exit 3", "w", 0);
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(FLclose(f), FL_EPIPE);
  f = FLsopen("pipe:yes", "r", 0);
  EXPECT_NE(FLbgnread(f, 100), nullptr);
  EXPECT_EQ(FLclose(f), 0);
}

TEST(ChunkFiles, OpenFailuresSetCodes) {
  flerrno = 0;
  EXPECT_EQ(FLsopen("/nonexistent/dir/x.iff", "r", 0), nullptr);
  EXPECT_EQ(flerrno, FL_ESYS);
  EXPECT_EQ(FLsopen(nullptr, "r", 0), nullptr);
  EXPECT_EQ(flerrno, FL_EARG);
}

TEST(ChunkErrors, FlerrnoIsPerThreadAndEveryCodeHasText) {
  flerrno = 5;
  std::thread other([] {
    EXPECT_EQ(flerrno, 0);
    flerrno = 9;
  });
  other.join();
  EXPECT_EQ(flerrno, 5);
  for (int code : {0,  1,  2,  3,  4,  5,   6,   7,   8,   9,   10,  11,  12,  13,  14,  15,  16, 22,
                   23, 31, 42, 43, 47, 100, 101, 102, 103, 104, 105, 106, 107, 108, 109, 111, 112})
    EXPECT_EQ(std::string(FLstrerror(code)).find("Unknown"), std::string::npos) << code;
  EXPECT_STREQ(FLstrerror(9999), "Unknown error 9999");
  EXPECT_EQ(flbitset[0], 0);
  EXPECT_EQ(flbitset[0xFF], 8);
  EXPECT_EQ(flbitset[0x0E], 3);
}

TEST(ChunkLists, NodesByTypeNameAndScanThatFrees) {
  FLlist list;
  FLinitlist(&list);
  FLnode* a = FLnewcnode("alpha", 1, sizeof(FLnode));
  FLnode* b = FLnewcnode("beta", 2, 64);
  FLnode* c = FLnewcnode(nullptr, 3, 0);
  FLtailnode(&list, a);
  FLtailnode(&list, b);
  FLheadnode(&list, c);
  EXPECT_EQ(list.head, c);
  EXPECT_EQ(FLgetnodebytype(&list, 2), b);
  EXPECT_EQ(FLgetnodebyname(&list, "alpha"), a);
  FLdelnode(a);
  EXPECT_EQ(list.count, 2u);
  EXPECT_EQ(list.tail, b);
  FLfree(a);
  int seen = 0;
  EXPECT_EQ(FLscanlist(
                &list,
                [](FLnode* n, void* arg) {
                  ++*static_cast<int*>(arg);
                  return FLfree(n);
                },
                &seen),
            0);
  EXPECT_EQ(seen, 2);
  FLinitlist(&list);
}

TEST(ChunkMemory, KeysReleaseEverythingAndGrowKeepsContents) {
  FLmkey* key = FLinitmkey();
  auto* p = static_cast<char*>(FLmalloc(10, key));
  std::memcpy(p, "123456789", 10);
  p = static_cast<char*>(FLrgrow(p, 1000, key));
  EXPECT_STREQ(p, "123456789");
  EXPECT_EQ(FLrgrow(p, 10, key), p);  // big enough already
  auto* z = static_cast<uint8_t*>(FLcalloc(64, key));
  EXPECT_EQ(z[63], 0);
  FLfree(FLmalloc(5, key));
  FLfreemkey(key);  // the sanitizer build sees a leak if anything stayed
  FLfree(nullptr);
}

TEST(ChunkPaths, WorkDirectoryAndSearchPath) {
  TempDir dir;
  std::filesystem::create_directories(dir.path() / "image");
  writeSample(dir.file("image/found.iff"));
  setenv("KELP_WORK", dir.path().c_str(), 1);
  uint32_t s1 = 0, s2 = 0;
  std::string w1 = FLgetwork(&s1);
  EXPECT_EQ(w1, dir.path().string());
  FLgetwork(&s2);
  EXPECT_EQ(s1, s2);
  setenv("KELP_WORK", "/tmp", 1);
  FLgetwork(&s2);
  EXPECT_NE(s1, s2);

  // Going back and forth keeps the texts handed out, and makes no new image paths.
  const char* held = FLgetwork(nullptr);
  setenv("KELP_WORK", dir.path().c_str(), 1);
  FLpath* first = ILgetpath();
  for (int i = 0; i < 1000; ++i) {
    setenv("KELP_WORK", i % 2 ? dir.path().c_str() : "/tmp", 1);
    EXPECT_EQ(ILgetpath() == first, i % 2 == 1) << i;
  }
  EXPECT_STREQ(held, "/tmp");
  unsetenv("KELP_WORK");

  FLpath* path = FLbuildpath((".;" + dir.path().string() + "/image").c_str());
  ASSERT_NE(path, nullptr);
  EXPECT_EQ(path->dirs.count, 2u);
  FLpath* old = FLswappath(path);
  FLfile* f = FLsopen("found.iff", "r", 0);
  EXPECT_NE(f, nullptr);
  if (f) {
    EXPECT_EQ(std::string(f->name), "found.iff");
  }
  FLclose(f);
  FLswappath(old);
  FLfreepath(path);
}
