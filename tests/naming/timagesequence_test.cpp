// Frame sequences: padded and unpadded patterns, offsets, the integer
// throws, and the hash count that adds up between resets.
#include <gtest/gtest.h>

#include "kelpimage/naming/timagesequence.h"

namespace {
bool throwsOne(const char* file, const char* format) {
  TimageSequence s;
  try {
    s.setFileNameAndFormat(Tstring(file), Tstring(format));
  } catch (int code) {
    return code == 1 && !s.isValid() && s.atFrame(1).isEmpty();
  }
  return false;
}
}  // namespace

TEST(TimageSequence, PaddedAndUnpadded) {
  TimageSequence s;
  s.setFileNameAndFormat(Tstring("/shots/plate.0012.iff"), Tstring("plate.####.iff"));
  EXPECT_TRUE(s.isValid());
  EXPECT_EQ(s.hashComponent(), 1);
  EXPECT_EQ(s.atFrame(3).str(), "/shots/plate.0003.iff");
  EXPECT_EQ(s.atFrame(12345).str(), "/shots/plate.12345.iff");
  EXPECT_TRUE(throwsOne("plate.12.iff", "plate.####.iff"));

  TimageSequence u;
  u.setFileNameAndFormat(Tstring("tex.12.tif"), Tstring("tex.#.tif"));
  EXPECT_EQ(u.atFrame(7).str(), "tex.7.tif");  // no folder: none added
  EXPECT_TRUE(throwsOne("tex.012.tif", "tex.#.tif"));
  u.setFileNameAndFormat(Tstring("tex.0.tif"), Tstring("tex.#.tif"));
  EXPECT_EQ(u.atFrame(40).str(), "tex.40.tif");

  // One component: the trailing digits of the whole name.
  TimageSequence one;
  one.setFileNameAndFormat(Tstring("dir/frame0042"), Tstring("frame####"));
  EXPECT_EQ(one.atFrame(5).str(), "dir/frame0005");
}

TEST(TimageSequence, OffsetsThrowsAndCounts) {
  TimageSequence s;
  s.setFileNameAndFormat(Tstring("a.5.b"), Tstring("a.#.b"));
  s.setOffset(10);
  EXPECT_EQ(s.atFrame(1).str(), "a.11.b");
  EXPECT_EQ(s.nextFrame(1).str(), "a.12.b");
  // The number text occurs twice in its component: both change.
  TimageSequence twice;
  twice.setFileNameAndFormat(Tstring("x.1v1.y"), Tstring("x.#.y"));
  EXPECT_EQ(twice.atFrame(2).str(), "x.2v2.y");

  EXPECT_TRUE(throwsOne("", "a.#.b"));
  EXPECT_TRUE(throwsOne("a.5.b", ""));
  EXPECT_TRUE(throwsOne("a.5.b.c", "a.#.b"));  // another component count
  EXPECT_TRUE(throwsOne("a.b.c", "a.#.c"));    // no number where the marks are
  EXPECT_TRUE(throwsOne("a.5.b", "a.b.c"));    // no marks

  // Without a reset the hash count adds up: a second match judges as if the
  // pattern had two marks, a third as if it had three.
  EXPECT_FALSE(s.doesNameMatchFormat(Tstring("a.7.b")));
  EXPECT_EQ(s.hashCount(), 2);
  EXPECT_TRUE(s.doesNameMatchFormat(Tstring("a.123.b")));  // three marks by now
  s.setFileNameAndFormat(Tstring("a.7.b"), Tstring("a.#.b"));
  EXPECT_EQ(s.hashCount(), 1);
  EXPECT_TRUE(s.doesNameMatchFormat(Tstring("a.7.b")) == false);  // now 2 again

  TstringArray formats;
  formats.addLast(Tstring("name.####.ext"));
  TimageSequence::setFileNameFormats(formats);
  TstringArray back;
  TimageSequence::getFileNameFormats(back);
  ASSERT_EQ(back.length(), 1);
  EXPECT_EQ(back[0].str(), "name.####.ext");
}
