// Files written whole or not at all: what stands at the target before the
// commit, links, modes, devices and FIFOs, failures, and what is left in
// the folder afterwards.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <thread>

#include "kelpimage/base/tatomicfile.h"
#include "kelpimage/base/tscratchfile.h"
#include "kelpimage/base/ttemporaryfiles.h"
#include "testutil.h"

using namespace kelptest;

namespace {

bool writeAll(int fd, const std::string& text) { return ::write(fd, text.data(), text.size()) == ssize_t(text.size()); }

std::string readText(const std::string& path) {
  auto bytes = readBytes(path);
  return std::string(bytes.begin(), bytes.end());
}

// Every entry of the folder, hidden ones included.
size_t entries(const TempDir& dir) {
  size_t n = 0;
  for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator(dir.path())) ++n;
  return n;
}

}  // namespace

TEST(TatomicFile, TheTargetKeepsItsBytesUntilTheCommit) {
  TempDir dir;
  std::string target = dir.file("out.txt");
  writeBytes(target, {'o', 'l', 'd'});
  for (int flags : {0, int(TatomicFile::kNamed)}) {
    TatomicFile file(target, flags);
    ASSERT_TRUE(file.isOpen()) << file.error();
    ASSERT_TRUE(writeAll(file.fd(), "new bytes"));
    EXPECT_EQ(readText(target), "old");
    ASSERT_TRUE(file.commit()) << file.error();
    EXPECT_EQ(readText(target), "new bytes");
    writeBytes(target, {'o', 'l', 'd'});
  }
  EXPECT_EQ(entries(dir), 1u);  // nothing beside the target
}

TEST(TatomicFile, AFileNeverCommittedLeavesTheTargetAsItWas) {
  TempDir dir;
  std::string target = dir.file("out.txt");
  writeBytes(target, {'o', 'l', 'd'});
  {
    TatomicFile file(target, TatomicFile::kNamed);
    ASSERT_TRUE(writeAll(file.fd(), "part"));
    // A named temporary keeps the target's extension, beside it.
    EXPECT_EQ(file.path().substr(file.path().size() - 4), ".txt");
    EXPECT_EQ(std::filesystem::path(file.path()).parent_path(), dir.path());
  }
  EXPECT_EQ(readText(target), "old");
  EXPECT_EQ(entries(dir), 1u);
  TatomicFile fresh(dir.file("new.txt"));
  ASSERT_TRUE(writeAll(fresh.fd(), "x"));
  fresh.abandon();
  EXPECT_FALSE(std::filesystem::exists(dir.file("new.txt")));
}

TEST(TatomicFile, WritersByNameReachTheFileThroughItsPath) {
  TempDir dir;
  TatomicFile file(dir.file("by-name.txt"));
  FILE* f = std::fopen(file.path().c_str(), "wb");
  ASSERT_NE(f, nullptr);
  std::fputs("through the path", f);
  ASSERT_EQ(std::fclose(f), 0);
  ASSERT_TRUE(file.commit()) << file.error();
  EXPECT_EQ(readText(dir.file("by-name.txt")), "through the path");
}

TEST(TatomicFile, LinksAreFollowedAndModesKept) {
  TempDir dir;
  std::string real = dir.file("real.txt"), link = dir.file("link.txt");
  writeBytes(real, {'a'});
  ASSERT_EQ(::chmod(real.c_str(), 0640), 0);
  ASSERT_EQ(::symlink("real.txt", link.c_str()), 0);
  TatomicFile file(link);
  EXPECT_EQ(file.target(), real);
  ASSERT_TRUE(writeAll(file.fd(), "via link"));
  ASSERT_TRUE(file.commit()) << file.error();
  struct stat st;
  ASSERT_EQ(::lstat(link.c_str(), &st), 0);
  EXPECT_TRUE(S_ISLNK(st.st_mode));
  ASSERT_EQ(::stat(real.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);
  EXPECT_EQ(readText(real), "via link");

  // A link to nothing yet makes the file it points at.
  std::string dangling = dir.file("dangling.txt");
  ASSERT_EQ(::symlink("made.txt", dangling.c_str()), 0);
  TatomicFile made(dangling);
  ASSERT_TRUE(writeAll(made.fd(), "made"));
  ASSERT_TRUE(made.commit()) << made.error();
  EXPECT_EQ(readText(dir.file("made.txt")), "made");
}

TEST(TatomicFile, DevicesAndFifosAreWrittenStraightInto) {
  TatomicFile full("/dev/full");
  ASSERT_TRUE(full.isOpen()) << full.error();
  EXPECT_TRUE(full.direct());
  EXPECT_FALSE(writeAll(full.fd(), "x"));  // the device refuses, and stays a device
  struct stat st;
  ASSERT_EQ(::stat("/dev/full", &st), 0);
  EXPECT_TRUE(S_ISCHR(st.st_mode));

  TempDir dir;
  std::string fifo = dir.file("fifo");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  std::string got;
  std::thread reader([&] { got = readText(fifo); });
  {
    TatomicFile file(fifo);
    ASSERT_TRUE(file.direct());
    ASSERT_TRUE(writeAll(file.fd(), "down the pipe"));
    ASSERT_TRUE(file.commit()) << file.error();
  }
  reader.join();
  EXPECT_EQ(got, "down the pipe");
}

TEST(TatomicFile, FailuresSayTheTargetAndTheReason) {
  TempDir dir;
  TatomicFile folder(dir.path().string());
  EXPECT_FALSE(folder.isOpen());
  EXPECT_NE(folder.error().find("Is a directory"), std::string::npos);
  TatomicFile missing(dir.file("no/such/folder/x.txt"));
  EXPECT_FALSE(missing.isOpen());
  EXPECT_EQ(missing.error().rfind(dir.file("no/such/folder/x.txt") + ": ", 0), 0u) << missing.error();
  if (::geteuid() != 0) {  // root writes anywhere
    std::string locked = dir.file("locked");
    std::filesystem::create_directory(locked);
    ::chmod(locked.c_str(), 0500);
    TatomicFile refused(locked + "/x.txt");
    EXPECT_FALSE(refused.isOpen());
    ::chmod(locked.c_str(), 0700);
  }
  TatomicFile closed;
  EXPECT_FALSE(closed.commit());
}

TEST(TscratchFile, HasNoNameAndGoesWithTheObject) {
  TempDir dir;
  ::setenv("TMPDIR", dir.path().c_str(), 1);
  std::string path;
  {
    TscratchFile scratch;
    ASSERT_TRUE(scratch.isOpen()) << scratch.error();
    path = scratch.path();
    FILE* f = std::fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    std::fputs("scratch", f);
    std::fclose(f);
    EXPECT_EQ(readText(path), "scratch");
    EXPECT_EQ(entries(dir), 0u);
  }
  ::unsetenv("TMPDIR");
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(TtemporaryFiles, RemoveAllNowTakesEveryEnteredFile) {
  TempDir dir;
  std::string a = dir.file("a.tmp"), b = dir.file("b.tmp"), kept = dir.file("kept.tmp");
  for (const std::string& f : {a, b, kept}) writeBytes(f, {'x'});
  TtemporaryFiles::add(a.c_str());
  TtemporaryFiles::add(b.c_str());
  TtemporaryFiles::add(kept.c_str());
  TtemporaryFiles::forget(kept.c_str());
  TtemporaryFiles::removeAllNow();
  EXPECT_FALSE(std::filesystem::exists(a));
  EXPECT_FALSE(std::filesystem::exists(b));
  EXPECT_TRUE(std::filesystem::exists(kept));
  TtemporaryFiles::forget(a.c_str());
  TtemporaryFiles::forget(b.c_str());
}
