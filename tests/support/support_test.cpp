// Block allocator thresholds and round-up, cached-image statistics, and the
// string helpers' edge behaviour.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>

#include "kelpimage/support/str.h"
#include "kelpimage/support/tcachedimagebase.h"
#include "kelpimage/support/tisallocator.h"

TEST(TisAllocator, HeapBelowTheThresholdPagesAbove) {
  if (TisAllocator::fsUseMalloc) GTEST_SKIP() << "KELP_USE_MALLOC is set";
  ASSERT_GT(TisAllocator::fsPageSize, 0u);
  EXPECT_EQ(TisAllocator::fsMask, TisAllocator::fsPageSize - 1);
  TisBlock small{nullptr, 31743};
  EXPECT_TRUE(TisAllocator::useBuiltin(small));
  TisAllocator::allocate(small);
  ASSERT_NE(small.pointer, nullptr);
  EXPECT_EQ(small.size, 31743u);
  std::memset(small.pointer, 1, small.size);
  TisAllocator::deallocate(small);

  TisBlock large{nullptr, 31744};
  EXPECT_FALSE(TisAllocator::useBuiltin(large));
  TisAllocator::allocate(large);
  ASSERT_NE(large.pointer, nullptr);
  uint32_t page = TisAllocator::fsPageSize;
  EXPECT_EQ(large.size, (31744 + page - 1) / page * page);
  if (page == 4096) {
    EXPECT_EQ(large.size, 32768u);
  }
  EXPECT_EQ(reinterpret_cast<uintptr_t>(large.pointer) % page, 0u);
  std::memset(large.pointer, 2, large.size);
  TisAllocator::deallocate(large);
  EXPECT_EQ(large.pointer, nullptr);

  TisBlock exact{nullptr, page * 8};
  TisAllocator::pageAlign(exact);
  EXPECT_EQ(exact.size, page * 8);  // a multiple already is kept
  EXPECT_EQ(TisAllocator::init("ignored"), 0);
}

// Run with KELP_USE_MALLOC set (an empty value counts) by its own CTest entry.
TEST(TisAllocatorHeapOnly, EverythingFromTheHeap) {
  if (!std::getenv("KELP_USE_MALLOC")) GTEST_SKIP() << "needs KELP_USE_MALLOC at load";
  EXPECT_TRUE(TisAllocator::fsUseMalloc);
  EXPECT_EQ(TisAllocator::fsPageSize, 0u);
  TisBlock big{nullptr, 1 << 20};
  EXPECT_TRUE(TisAllocator::useBuiltin(big));
  TisAllocator::allocate(big);
  ASSERT_NE(big.pointer, nullptr);
  EXPECT_EQ(big.size, 1u << 20);
  TisAllocator::deallocate(big);
}

namespace {
struct Cache : TcachedImageBase {
  Cache() {
    fWidth = 640;
    fHeight = 480;
    fChunkSize = 64;
    fChunkSamples = 64 * 64;
    fChunkCount = 80;
    fCacheEntries = 20;
    fTempFileName = "/tmp/cache.tmp";
    fAccesses = 200;
    fMisses = 50;
  }
  using TcachedImageBase::printAccessStats;
  using TcachedImageBase::printCacheStats;
  using TcachedImageBase::printError;
};
}  // namespace

TEST(TcachedImageBase, PrintsItsStatistics) {
  Cache cache;
  testing::internal::CaptureStdout();
  cache.printCacheStats(4);
  cache.printAccessStats();
  std::string out = testing::internal::GetCapturedStdout();
  for (const char* text :
       {"Created cached image:", "Using temp file /tmp/cache.tmp", "Resolution = 640 x 480", "# chunks = 80",
        "chunk size = 64x64", "# cache entries = 20", "full image size = 1.25 MB ", "pct in memory = 25%",
        "Destroying TcachedImage.....", "Cache Accesses = 200", "Cache Misses = 50", "Hit pct = 75%"})
    EXPECT_NE(out.find(text), std::string::npos) << text;
  testing::internal::CaptureStderr();
  cache.printError("bad: ", "thing");
  cache.printError("alone");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "bad: thing\nalone\n");
}

TEST(StringHelpers, ComparisonLengthAndCopies) {
  const char* a = "abc";
  EXPECT_EQ(STR_compare(nullptr, nullptr), 0);
  EXPECT_LT(STR_compare(nullptr, a), 0);
  EXPECT_EQ(STR_compare("abc", "abc"), 0);
  EXPECT_EQ(STR_compare("abd", "abc"), 1);
  EXPECT_EQ(STR_compare("ab", "abc"), -'c');
  EXPECT_LT(STR_compare("\x80", "a"), 0);  // bytes compare as signed chars
  EXPECT_EQ(STR_n_compare("abcX", "abcY", 4), 'X' - 'Y');
  EXPECT_EQ(STR_n_compare("abcX", "abcY", 3), 0);
  EXPECT_EQ(STR_n_compare("xa", "ya", 1), 'x' - 'y');
  EXPECT_EQ(STR_length(nullptr), 0);
  EXPECT_EQ(STR_length("four"), 4);

  char* s = STR_more(nullptr, 10);
  EXPECT_STREQ(s, "");
  std::strcpy(s, "0123456789");
  s = STR_more(s, 4);
  EXPECT_STREQ(s, "0123");
  std::free(s);
  char* joined = STR_save_n(3, "a", "bc", "d");
  EXPECT_STREQ(joined, "abcd");
  std::free(joined);
  char* none = STR_save_n(0);
  EXPECT_STREQ(none, "");
  std::free(none);
  char* copy = STR_save("copy");
  EXPECT_STREQ(copy, "copy");
  std::free(copy);
}

TEST(StringHelpers, SpacesAndPathPieces) {
  char text[] = "  word rest";
  EXPECT_STREQ(STR_skip_space(text), "word rest");
  char spaced[] = " x y";
  EXPECT_STREQ(STR_find_space(spaced), " y");  // the first character is not looked at
  char empty[] = "";
  EXPECT_EQ(STR_find_space(empty), empty);
  EXPECT_EQ(STR_find_space(nullptr), nullptr);

  char name[] = "dir/pic.0001.iff";
  EXPECT_STREQ(STR_extension(name), "iff");
  char plain[] = "noext";
  EXPECT_EQ(STR_extension(plain), nullptr);
  EXPECT_STREQ(STR_root(plain), "noext");
  EXPECT_STREQ(STR_root(name), "dir/pic.0001");
  char path[] = "a//b///c";
  EXPECT_STREQ(STR_tail(path), "c");
  EXPECT_STREQ(STR_head(path), "a//b");
  char flat[] = "file";
  EXPECT_EQ(STR_head(flat), nullptr);
  EXPECT_STREQ(STR_tail(flat), "file");
  EXPECT_TRUE(STR_is_numeric("0123"));
  EXPECT_FALSE(STR_is_numeric(""));
  EXPECT_FALSE(STR_is_numeric("12a"));
  EXPECT_FALSE(STR_is_numeric(nullptr));
}

TEST(StringHelpers, ParseSortFindAndHash) {
  char line[] = "  pear apple  fig\tbanana \0";
  char** words = STR_parse(line);
  ASSERT_NE(words, nullptr);
  EXPECT_STREQ(words[0], "pear");
  EXPECT_STREQ(words[3], "banana");
  EXPECT_EQ(words[4], nullptr);
  EXPECT_EQ(words[0], line + 2);  // the words stand in the string itself
  STR_sort(words);
  EXPECT_STREQ(words[0], "apple");
  EXPECT_STREQ(words[1], "banana");
  EXPECT_STREQ(words[3], "pear");
  EXPECT_EQ(STR_find_string(words, "fig"), words + 2);
  EXPECT_EQ(STR_find_string(words, "kiwi"), nullptr);
  std::free(words);
  char last[] = "one two\0";
  words = STR_parse(last);
  EXPECT_STREQ(words[1], "two");
  EXPECT_EQ(words[2], nullptr);
  std::free(words);
  EXPECT_EQ(STR_sort(nullptr), nullptr);

  EXPECT_EQ(STR_hash("", 7), 0u);
  EXPECT_EQ(STR_hash(nullptr, 7), 0u);
  EXPECT_EQ(STR_hash("a", 10), unsigned('a') % 10);
  EXPECT_EQ(STR_hash("ab", 1000000), unsigned('a' * 33 + 'b'));
  EXPECT_EQ(STR_hash("\xff", 1000), unsigned(0xFFFFFFFFu % 1000));  // bytes count as signed
}

TEST(StringHelpers, SharedPoolCountsReferences) {
  char first[] = "shared-name";
  char second[] = "shared-name";
  const char* p = STR_define(first);
  const char* q = STR_define(second);
  EXPECT_EQ(p, q);
  EXPECT_NE(p, static_cast<const char*>(first));
  EXPECT_EQ(STR_undefine("shared-name"), 0);
  EXPECT_EQ(STR_define("shared-name"), p);  // still pooled: one reference left before this
  STR_undefine("shared-name");
  STR_undefine("shared-name");
  EXPECT_EQ(STR_undefine("never-defined"), 0);
  auto** array = static_cast<char**>(std::malloc(3 * sizeof(char*)));
  array[0] = const_cast<char*>(STR_define("x1"));
  array[1] = const_cast<char*>(STR_define("x2"));
  array[2] = nullptr;
  EXPECT_EQ(STR_undefine_array(array), 0);
  EXPECT_EQ(STR_undefine_array(nullptr), 0);

  STR_growarray grow;
  int values[20];
  for (int& v : values) ASSERT_TRUE(STR_growarray_add(&grow, &v));
  EXPECT_EQ(grow.length, 20);
  EXPECT_EQ(grow.data[20], nullptr);
  EXPECT_EQ(STR_array_count(grow.data), 20);
  EXPECT_EQ(STR_array_find(grow.data, &values[7]), grow.data + 7);
  std::free(grow.data);
}
