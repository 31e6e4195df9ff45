// Base classes: text and messages, arrays, pixel maps, files and
// directories, threads, settings, dynamic libraries and chunk writing.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <thread>
#include <vector>

#include "kelpimage/base/tarray.h"
#include "kelpimage/base/tdynamicload.h"
#include "kelpimage/base/terrorhandler.h"
#include "kelpimage/base/tfile.h"
#include "kelpimage/base/tpixelmap.h"
#include "kelpimage/base/tsettings.h"
#include "kelpimage/base/tstring.h"
#include "kelpimage/base/tthread.h"
#include "kelpimage/il/chunk/tifffile.h"
#include "testutil.h"

using namespace kelptest;

TEST(Tstring, EditingPathsAndComparison) {
  Tstring empty, null(nullptr);
  EXPECT_TRUE(empty == null);
  EXPECT_TRUE(empty == Tstring::kNullStr);
  Tstring s("dir/sub/name.0001.iff");
  EXPECT_EQ(s.baseName(), "name.0001.iff");
  EXPECT_EQ(s.directoryPath(), "dir/sub");
  EXPECT_EQ(s.extension(), "iff");
  EXPECT_EQ(Tstring("/x").directoryPath(), "/");
  EXPECT_EQ(Tstring("plain").extension(), "");

  TstringArray parts;
  EXPECT_EQ(s.baseName().split('.', parts), 3);
  EXPECT_EQ(parts[1], "0001");
  Tstring t("a-b-a");
  EXPECT_EQ(t.substitute("a", "xy"), 2);
  EXPECT_EQ(t, "xy-b-xy");
  Tstring sub;
  t.substring(3, 100, sub);
  EXPECT_EQ(sub, "b-xy");
  t.substring(50, 2, sub);
  EXPECT_TRUE(sub.isEmpty());
  EXPECT_EQ(Tstring().copyChar("abcdef", 3), "abc");
  EXPECT_EQ(Tstring("abc").setChar(1, 'X').setChar(9, 'Y'), "aXc");
  EXPECT_EQ(t[0], 'x');
  EXPECT_EQ(t[99], '\0');
  EXPECT_EQ(Tstring("a") + "b", "ab");
  Tstring n;
  EXPECT_EQ(n.setInt32(-42), "-42");
  EXPECT_TRUE(Tstring("a") < Tstring("b"));
  EXPECT_EQ(Tstring().format("%s=%d", Tstring("w"), 7), "w=7");
}

TEST(Tstring, MessagesByNumber) {
  Tstring report(TstringIdNumber(619));
  report.catenate("a.iff");
  EXPECT_EQ(report, "Cannot open image file for reading: a.iff");
  Tstring load;
  load.format(Tstring(TstringIdNumber(630)), Tstring("b.iff"), "truncated");
  EXPECT_EQ(load, "Cannot read the pixels of image file b.iff: truncated");
  for (int id : {618, 619, 620, 621, 622, 624, 625, 628, 629, 630, 631, 632, 634, 635, 636})
    EXPECT_EQ(Tstring(TstringIdNumber(id)).str().find("Message"), std::string::npos) << id;
}

TEST(Tarray, GrowInsertFindRemoveAndCopy) {
  Tint32Array a(2);
  for (int i = 0; i < 100; ++i) a.addLast(i * 3);
  EXPECT_EQ(a.length(), 100);
  EXPECT_EQ(a[99], 297);
  EXPECT_EQ(a.find(30), 10);
  EXPECT_EQ(a.find(31), -1);
  a.remove(0);
  EXPECT_EQ(a[0], 3);
  Tint32Array b = a;
  b[0] = -1;
  EXPECT_EQ(a[0], 3);  // copies are separate
  a.changeLogicalSizeTo(120);
  EXPECT_EQ(a[119], 0);  // new elements are zero
  int32_t seven = 7;
  a.createAndInitialise(5, &seven);
  EXPECT_EQ(a.length(), 5);
  EXPECT_EQ(a[4], 7);
  TobjArray objs;
  objs.addLast(&seven);
  objs.reset();
  EXPECT_EQ(objs.length(), 0);
  TstringArray names(1);
  names.addLast("x");
  names.addLast("y");
  TstringArray copy;
  copy.copy(names);
  EXPECT_EQ(copy[1], "y");
  EXPECT_THROW(copy[5], std::out_of_range);
}

TEST(TpixelMap, PixelsFlipsSwitchAndAdoptedMemory) {
  TpixelMap map(3, 2);
  EXPECT_EQ(map.width(), 3);
  EXPECT_EQ(map.height(), 2);
  EXPECT_EQ(map.pixelPointer(3, 0), nullptr);
  map.pixelPointer(0, 0)->fValue = 0xFF0000FF;  // alpha, red, green, blue
  map.pixelPointer(Tpoint(2, 1))->fValue = 0x11223344;
  EXPECT_EQ(map.pixels()[0].fChannels.fBlue, 0xFF);
  map.verticalFlip();
  EXPECT_EQ(map.pixelPointer(0, 1)->fValue, 0xFF0000FFu);
  EXPECT_EQ(map.pixelPointer(2, 0)->fValue, 0x11223344u);
  map.rgbaSwitch();
  EXPECT_EQ(map.pixelPointer(0, 1)->fValue, 0xFFFF0000u);

  std::vector<Tpixel32> outside(4, Tpixel32{0x01020304});
  TpixelMap adopted;
  adopted.setPixelPtr(outside.data(), TportRect(0, 0, 2, 2));
  EXPECT_FALSE(adopted.ownsPixels());
  adopted.rgbaSwitch();
  EXPECT_EQ(outside[3].fValue, 0x01040302u);  // worked in place
  TpixelMap copy = adopted;
  EXPECT_TRUE(copy.ownsPixels());
  copy.pixels()[0].fValue = 0;
  EXPECT_EQ(outside[0].fValue, 0x01040302u);

  Tpixel32 src[5];
  for (int i = 0; i < 5; ++i) src[i].fValue = uint32_t(i + 1);
  TpixelMap small(2, 2);
  small.setPixel(1, 0, 5, src, false);  // runs on into the next row, the rest dropped
  EXPECT_EQ(small.pixelPointer(1, 0)->fValue, 1u);
  EXPECT_EQ(small.pixelPointer(1, 1)->fValue, 3u);
  Tpixel32 half{0x80400000};  // alpha 128, red 64 (premultiplied)
  small.pixelPointer(0, 0)->fValue = 0xFF0000FF;
  small.setPixel(0, 0, 1, &half, true);
  EXPECT_EQ(small.pixelPointer(0, 0)->fChannels.fRed, 64);
  EXPECT_EQ(small.pixelPointer(0, 0)->fChannels.fBlue, 127);
  EXPECT_EQ(small.pixelPointer(0, 0)->fChannels.fAlpha, 255);
}

TEST(FilesAndDirectories, WalkMakeStampAndEnvironment) {
  TempDir dir;
  Tdirectory d;
  d.setPath(dir.path().c_str());
  ASSERT_TRUE(d.makeAndSet("sub"));
  EXPECT_TRUE(TfilePath(d.path()).isDirectory());
  writeBytes(dir.file("sub/a.txt"), {1});
  writeBytes(dir.file("sub/b.txt"), {2});
  std::filesystem::create_directories(dir.path() / "sub" / "inner");
  int files = 0, entries = 0;
  for (TdirIterator it(d.path()); !it.isDone(); it.next()) {
    ++entries;
    files += it.isFile();
  }
  EXPECT_EQ(entries, 3);
  EXPECT_EQ(files, 2);
  TdirIterator none("/nonexistent/dir");
  EXPECT_TRUE(none.isDone());

  TfileStream f;
  f.setFullName(dir.file("sub/a.txt").c_str());
  EXPECT_TRUE(f.exists());
  Ttime before = f.modificationTime();
  EXPECT_NE(before.seconds(), 0);
  EXPECT_TRUE(before == f.modificationTime());
  EXPECT_EQ(TfileStream(Tstring("/nonexistent")).modificationTime(), Ttime());

  setenv("TMPDIR", dir.path().c_str(), 1);
  EXPECT_EQ(theTempDirectory.getFullName(), dir.path().c_str());
  unsetenv("TMPDIR");
}

TEST(Threads, LockConditionAndPool) {
  struct Shared {
    TmtCriticalSection cs;
    TmtConditionVar cv;
    int value = 0;
    bool stop = false;
  } shared;
  TmtRefCounter runs;
  auto worker = [](void* arg) {
    auto* s = static_cast<Shared*>(arg);
    TmtLock lock = s->cs.acquire();
    while (!s->stop) s->cv.wait(lock);
    s->value = 42;
  };
  TmtThread* t = TmtThreadPool::getPool().launchThread(worker, &shared);
  ASSERT_NE(t, nullptr);
  t->setShutdown(
      [](void* arg) {
        auto* s = static_cast<Shared*>(arg);
        TmtLock lock = s->cs.acquire();
        TmtLock again = s->cs.acquire();  // the holder may take it again
        s->stop = true;
        s->cv.signal();
      },
      &shared);
  t->shutdown();
  delete t;
  EXPECT_EQ(shared.value, 42);
  EXPECT_EQ(runs.add(), 1);
  EXPECT_EQ(runs.remove(), 0);
}

TEST(Threads, AThreadCannotJoinItself) {
  struct Shared {
    std::atomic<TmtThread*> self{nullptr};
    std::atomic<int> answer{-1};
  } shared;
  auto worker = [](void* arg) {
    auto* s = static_cast<Shared*>(arg);
    while (!s->self.load()) std::this_thread::yield();
    s->answer = s->self.load()->join() ? 1 : 0;  // refused, not the end of the process
  };
  TmtThread* t = TmtThreadPool::getPool().launchThread(worker, &shared);
  ASSERT_NE(t, nullptr);
  shared.self = t;
  EXPECT_TRUE(t->join());
  EXPECT_EQ(shared.answer.load(), 0);
  delete t;
}

TEST(Settings, BinaryValuesSurviveInTheUsersFile) {
  TempDir dir;
  setenv("XDG_CONFIG_HOME", dir.path().c_str(), 1);
  TKelpRegNT store;
  EXPECT_EQ(store.file(), (dir.path() / "kelpimage" / "settings").c_str());
  const uint8_t value[5] = {0, 1, 0xFE, 0xFF, 7};
  ASSERT_TRUE(store.addBinarySetting("VIDEO_COMPRESSION_OPTS", value, 5));
  ASSERT_TRUE(store.addBinarySetting("OTHER", "x", 1));
  TKelpRegNT again;
  EXPECT_EQ(again.getBinarySetting("VIDEO_COMPRESSION_OPTS", nullptr, 0), 5u);
  uint8_t back[5] = {};
  EXPECT_EQ(again.getBinarySetting("VIDEO_COMPRESSION_OPTS", back, sizeof back), 5u);
  EXPECT_EQ(std::vector<uint8_t>(back, back + 5), std::vector<uint8_t>(value, value + 5));
  EXPECT_EQ(again.getBinarySetting("MISSING", back, 5), 0u);
  EXPECT_FALSE(again.addBinarySetting("bad=name", value, 1));
  unsetenv("XDG_CONFIG_HOME");
}

TEST(DynamicLoad, SymbolsOrAReason) {
  TdynamicLoad libc("libc.so.6");
  ASSERT_TRUE(libc.isLoaded());
  EXPECT_NE(libc.symbol("strlen"), nullptr);
  EXPECT_EQ(libc.symbol("no_such_symbol_here"), nullptr);
  TdynamicLoad missing("libdoes-not-exist.so");
  EXPECT_FALSE(missing.isLoaded());
  EXPECT_FALSE(missing.error().isEmpty());
  EXPECT_EQ(missing.symbol("x"), nullptr);
}

TEST(TiffFile, ChunksWrittenRawAtThePosition) {
  TempDir dir;
  FLfile* f = FLsopen(dir.file("t.iff").c_str(), "w", 0);
  TiffFile file(f);
  EXPECT_EQ(TiffTag('H', 'I', 'S', 'T').value(), FLmaketag("HIST"));
  EXPECT_EQ(TiffTag("HIST"), TiffTag('H', 'I', 'S', 'T'));
  ASSERT_EQ(file.beginPut(TiffTag("HIST"), 0), 0);
  ASSERT_EQ(file.put("kimg -x", 7), 0);
  ASSERT_EQ(file.endPut(), 0);
  FLclose(f);
  auto b = readBytes(dir.file("t.iff"));
  ASSERT_EQ(b.size(), 16u);
  EXPECT_EQ(text(b, 0, 4), "HIST");
  EXPECT_EQ(be32(b, 4), 7u);
  EXPECT_EQ(text(b, 8, 7), "kimg -x");
  EXPECT_EQ(b[15], 0);
}

TEST(TpixelMap, ZoomResamples) {
  TpixelMap map(8, 4);
  for (int y = 0; y < 4; ++y)
    for (int x = 0; x < 8; ++x) map.pixelPointer(x, y)->fValue = x < 4 ? 0xFF204060 : 0xFF204060;
  ASSERT_TRUE(map.zoom(TportRect(0, 0, 4, 2)));
  EXPECT_EQ(map.width(), 4);
  EXPECT_EQ(map.height(), 2);
  EXPECT_EQ(map.pixelPointer(3, 1)->fValue, 0xFF204060u);
  ASSERT_TRUE(map.zoom(TportRect(0, 0, 16, 16)));
  EXPECT_EQ(map.pixelPointer(15, 15)->fValue, 0xFF204060u);
  EXPECT_FALSE(map.zoom(TportRect(0, 0, 0, 5)));

  // Halving averages pairs; doubling interpolates between centres.
  TpixelMap ramp(8, 1);
  for (int x = 0; x < 8; ++x) ramp.pixelPointer(x, 0)->fValue = 0xFF000000u | uint32_t(x * 10);
  ASSERT_TRUE(ramp.zoom(TportRect(0, 0, 4, 1)));
  for (int x = 0; x < 4; ++x) EXPECT_EQ(ramp.pixelPointer(x, 0)->fValue, 0xFF000000u | uint32_t(20 * x + 5)) << x;
  ASSERT_TRUE(ramp.zoom(TportRect(0, 0, 8, 1)));
  // Result centre 1 lies a quarter of the way from source 0 (5) to source 1 (25).
  EXPECT_EQ(ramp.pixelPointer(0, 0)->fValue & 0xFFu, 5u);
  EXPECT_EQ(ramp.pixelPointer(1, 0)->fValue & 0xFFu, 10u);
  EXPECT_EQ(ramp.pixelPointer(2, 0)->fValue & 0xFFu, 20u);
  EXPECT_EQ(ramp.pixelPointer(7, 0)->fValue & 0xFFu, 65u);
}
