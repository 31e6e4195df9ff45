// The movie layer over FFmpeg: movies written and read back through the
// track calls and Tmovie, the options kept in the settings store, and the
// failures a caller must see as codes.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <random>

#include "kelpimage/base/tsettings.h"
#include "kelpimage/movie/tmovie.h"
#include "testutil.h"

namespace {

using namespace kelptest;

using Frame = std::vector<uint8_t>;  // 4-byte pixels, bottom row first

// Every test starts the layer with a settings store of its own.
class Movies : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("XDG_CONFIG_HOME", dir.path().c_str(), 1);
    ASSERT_TRUE(TmovieLayer::initMovieLayer()) << TmovieLayer::mvLastError();
  }
  void TearDown() override { TmovieLayer layer; }  // its end undoes the start

  TempDir dir;
};

Frame noise(int w, int h, unsigned seed) {
  std::mt19937 rng(seed);
  Frame f(size_t(w) * h * 4);
  for (auto& b : f) b = uint8_t(rng());
  return f;
}

// A smooth picture, kind to lossy codecs.
Frame gradient(int w, int h, int shift) {
  Frame f(size_t(w) * h * 4);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      uint8_t* p = &f[(size_t(y) * w + x) * 4];
      p[0] = uint8_t(x * 255 / w);
      p[1] = uint8_t(y * 255 / h);
      p[2] = uint8_t((x + y + shift) & 255);
      p[3] = 7;
    }
  return f;
}

// Why the last write or read of the helpers below stopped.
std::string lastWhy;

int code(const char* text) { return TmovieLayer::mvHandlerCode(text); }

// Writes `frames` as a movie with the given handler; 0 or the failing code.
int writeMovie(const std::string& name, const std::vector<Frame>& frames, int w, int h, const char* handler,
               double rate = 25, int bits = 24) {
  if (handler && TmovieLayer::mvSetMovieDefaults(nullptr, code(handler))) return 10;
  TaviWrapper *movie = nullptr, *track = nullptr;
  if (TmovieLayer::mvCreateFile(name.c_str(), nullptr, nullptr, &movie)) return 11;
  unsigned char* params = nullptr;
  TmovieLayer::dmParamsCreate(&params);
  TmovieLayer::dmSetImageDefaults(params, w, h, 0);
  params[14] = uint8_t(bits);
  int rc = TmovieLayer::mvAddTrack(movie, TmovieLayer::kVideo, params, nullptr, &track) ? 12 : 0;
  TmovieLayer::dmParamsDestroy(params);
  if (!rc && TmovieLayer::mvSetImageRate(track, rate)) rc = 13;
  for (size_t i = 0; !rc && i < frames.size(); ++i)
    if (TmovieLayer::mvInsertFrames(track, int(i), 1, 0, const_cast<uint8_t*>(frames[i].data()))) rc = 14;
  lastWhy = TmovieLayer::mvLastError();
  int closed = TmovieLayer::mvClose(movie);
  return rc ? rc : closed ? 15 : 0;
}

std::vector<Frame> readMovie(const std::string& name, int& w, int& h) {
  TaviWrapper* handle = nullptr;
  std::vector<Frame> frames;
  if (TmovieLayer::mvOpenFile(name.c_str(), 0, &handle)) return frames;
  Tmovie movie(handle);
  w = movie.width();
  h = movie.height();
  for (int i = 0; i < movie.imageTrackLength(); ++i) {
    TpixelMap map;
    if (!movie.readFrame(i, map)) {
      lastWhy = TmovieLayer::mvLastError();
      break;
    }
    auto* p = reinterpret_cast<const uint8_t*>(map.pixels());
    frames.emplace_back(p, p + size_t(w) * h * 4);
  }
  return frames;
}

// Largest difference in colour; the fourth byte must be 255.
int colourDifference(const Frame& wrote, const Frame& read) {
  int most = 0;
  for (size_t i = 0; i < wrote.size(); i += 4) {
    if (read[i + 3] != 255) return 1000;
    for (size_t c = 0; c < 3; ++c) most = std::max(most, std::abs(int(wrote[i + c]) - int(read[i + c])));
  }
  return most;
}

TEST_F(Movies, LosslessCodecsGiveBackEveryFrameExactly) {
  // An odd size: rows of 3 x 37 bytes need padding in a 24-bit bitmap.
  // A large one is converted in two bands at once.
  for (auto [w, h] : {std::pair{37, 23}, std::pair{641, 481}})
    for (const char* handler : {"DIB ", "FFV1"}) {
      std::vector<Frame> frames = {noise(w, h, 1), noise(w, h, 2), gradient(w, h, 0), noise(w, h, 3)};
      std::string name = dir.file(std::string("lossless_") + handler[0] + std::to_string(w) + ".avi");
      ASSERT_EQ(writeMovie(name, frames, w, h, handler), 0) << handler << ": " << TmovieLayer::mvLastError();
      int rw = 0, rh = 0;
      std::vector<Frame> read = readMovie(name, rw, rh);
      ASSERT_EQ(rw, w);
      ASSERT_EQ(rh, h);
      ASSERT_EQ(read.size(), frames.size()) << handler;
      for (size_t i = 0; i < frames.size(); ++i) EXPECT_EQ(colourDifference(frames[i], read[i]), 0) << handler << i;
    }
}

TEST_F(Movies, LossyCodecsStayCloseAndNeedTheirSizes) {
  const int w = 64, h = 48;
  std::vector<Frame> frames = {gradient(w, h, 0), gradient(w, h, 40), gradient(w, h, 80)};
  struct Case {
    const char* handler;
    double meanLimit;
  };
  for (Case c : {Case{"MJPG", 1.5}, Case{"msvc", 6}, Case{"cvid", 8}}) {
    std::string name = dir.file(std::string("lossy_") + c.handler + ".avi");
    ASSERT_EQ(writeMovie(name, frames, w, h, c.handler), 0) << c.handler << ": " << TmovieLayer::mvLastError();
    int rw = 0, rh = 0;
    std::vector<Frame> read = readMovie(name, rw, rh);
    ASSERT_EQ(read.size(), frames.size()) << c.handler;
    for (size_t i = 0; i < frames.size(); ++i) {
      double sum = 0;
      for (size_t b = 0; b < frames[i].size(); b += 4)
        for (size_t k = 0; k < 3; ++k) sum += std::abs(int(frames[i][b + k]) - int(read[i][b + k]));
      EXPECT_LT(sum / (double(w) * h * 3), c.meanLimit) << c.handler << " frame " << i;
      // The picture is not upside down: the bottom row is dark in green.
      EXPECT_LT(read[i][1], 40) << c.handler;
    }
  }
  // Video 1 takes only multiples of 4: a clean failure at the rate, and no
  // file left behind.
  std::string odd = dir.file("odd.avi");
  EXPECT_EQ(writeMovie(odd, {gradient(33, 17, 0)}, 33, 17, "msvc"), 13);
  EXPECT_NE(lastWhy.find("33 x 17"), std::string::npos) << lastWhy;
  EXPECT_FALSE(std::filesystem::exists(odd));
  for (const auto& entry : std::filesystem::directory_iterator(dir.path()))
    EXPECT_NE(entry.path().filename().string()[0], '.') << "a temporary file stayed: " << entry.path();
}

TEST_F(Movies, EightBitFramesGoThroughTheColourCube) {
  const int w = 30, h = 10;
  Frame frame = noise(w, h, 9);
  std::string name = dir.file("cube.avi");
  ASSERT_EQ(writeMovie(name, {frame, gradient(w, h, 5)}, w, h, "DIB ", 25, 8), 0) << TmovieLayer::mvLastError();
  int rw = 0, rh = 0;
  std::vector<Frame> read = readMovie(name, rw, rh);
  ASSERT_EQ(read.size(), 2u);
  for (size_t i = 0; i < frame.size(); i += 4) {
    // Each byte to the nearest of 0, 51, ... 255.
    for (size_t c = 0; c < 3; ++c) ASSERT_EQ(read[0][i + c], (frame[i + c] + 25) / 51 * 51) << i;
    ASSERT_EQ(read[0][i + 3], 255);
  }
}

TEST_F(Movies, NamesTemporaryFilesAndTheTargetLeftAlone) {
  std::vector<Frame> frames = {gradient(8, 8, 0)};
  // Any extension but ".avi" in some case gets ".AVI".
  ASSERT_EQ(writeMovie(dir.file("clip.mov"), frames, 8, 8, nullptr), 0);
  EXPECT_TRUE(std::filesystem::exists(dir.file("clip.mov.AVI")));
  ASSERT_EQ(writeMovie(dir.file("clip.aVi"), frames, 8, 8, nullptr), 0);
  EXPECT_TRUE(std::filesystem::exists(dir.file("clip.aVi")));

  // Until the close, the target keeps what it held; a movie that cannot be
  // finished (no track with a stream) leaves it so, and no temporary file.
  std::string target = dir.file("keep.avi");
  writeBytes(target, {'o', 'l', 'd'});
  TaviWrapper* movie = nullptr;
  ASSERT_EQ(TmovieLayer::mvCreateFile(target.c_str(), nullptr, nullptr, &movie), 0);
  EXPECT_EQ(readBytes(target).size(), 3u);
  EXPECT_EQ(TmovieLayer::mvClose(movie), 1);
  EXPECT_EQ(readBytes(target).size(), 3u);

  // A folder that cannot be written: the create fails, nothing is made.
  std::filesystem::create_directory(dir.file("locked"));
  std::filesystem::permissions(dir.file("locked"),
                               std::filesystem::perms::owner_read | std::filesystem::perms::owner_exec);
  if (::access(dir.file("locked").c_str(), W_OK) != 0) {
    movie = reinterpret_cast<TaviWrapper*>(&target);
    EXPECT_EQ(TmovieLayer::mvCreateFile(dir.file("locked/m.avi").c_str(), nullptr, nullptr, &movie), 1);
    EXPECT_EQ(movie, nullptr);
    EXPECT_NE(std::string(TmovieLayer::mvLastError()).find("locked/m.avi"), std::string::npos);
    EXPECT_TRUE(std::filesystem::is_empty(dir.file("locked")));
  }
  std::filesystem::permissions(dir.file("locked"), std::filesystem::perms::owner_all);
  for (const auto& entry : std::filesystem::directory_iterator(dir.path()))
    EXPECT_NE(entry.path().filename().string()[0], '.') << "a temporary file stayed: " << entry.path();
}

TEST_F(Movies, TracksRatesAndTheCallsOwnRules) {
  int w = 321, h = 241;
  ASSERT_EQ(TmovieLayer::mvSetMovieDefaults(nullptr, code("cvid")), 0);
  EXPECT_FALSE(TmovieLayer::mvVideoResolutionClamp(&w, &h));
  EXPECT_EQ(w, 321);
  ASSERT_EQ(TmovieLayer::mvSetMovieDefaults(nullptr, code("MJPG")), 0);
  EXPECT_TRUE(TmovieLayer::mvVideoResolutionClamp(&w, &h));
  EXPECT_EQ(w, 320);
  EXPECT_EQ(h, 240);
  EXPECT_FALSE(TmovieLayer::mvVideoResolutionClamp(&w, &h));
  // An unknown code changes nothing.
  EXPECT_EQ(TmovieLayer::mvSetMovieDefaults(nullptr, code("XVID")), 1);
  EXPECT_NE(std::string(TmovieLayer::mvLastError()).find("XVID"), std::string::npos);

  std::string name = dir.file("av.avi");
  TaviWrapper *movie = nullptr, *video = nullptr, *audio = nullptr;
  ASSERT_EQ(TmovieLayer::mvCreateFile(name.c_str(), nullptr, nullptr, &movie), 0);
  unsigned char *image = nullptr, *sound = nullptr;
  TmovieLayer::dmParamsCreate(&image);
  TmovieLayer::dmParamsCreate(&sound);
  TmovieLayer::dmSetImageDefaults(image, 16, 8, 0);
  TmovieLayer::dmSetAudioDefaults(sound, 16, 8000, 2);
  EXPECT_EQ(sound[12], 4);  // block align
  ASSERT_EQ(TmovieLayer::mvAddTrack(movie, 0, image, nullptr, &video), 0);
  ASSERT_EQ(TmovieLayer::mvAddTrack(movie, 1, sound, nullptr, &audio), 0);
  TaviWrapper* third = nullptr;
  EXPECT_EQ(TmovieLayer::mvAddTrack(movie, 1, sound, nullptr, &third), 1);
  EXPECT_EQ(TmovieLayer::mvAddTrack(movie, 2, sound, nullptr, &third), 1);
  EXPECT_EQ(third, nullptr);
  TmovieLayer::dmParamsDestroy(image);
  TmovieLayer::dmParamsDestroy(sound);
  EXPECT_EQ(TmovieLayer::mvInsertFrames(video, 0, 1, 0, gradient(16, 8, 0).data()), 1);  // no rate yet
  ASSERT_EQ(TmovieLayer::mvSetImageRate(video, 29.97), 0);
  EXPECT_NE(TmovieLayer::mvSetImageRate(video, 30), 0);
  EXPECT_EQ(TmovieLayer::mvGetTrackMedium(video), 0);
  EXPECT_EQ(TmovieLayer::mvGetTrackMedium(movie), -1);  // a movie is no track
  EXPECT_EQ(TmovieLayer::mvReadFrames(movie, 0, 1, 0, nullptr), 1);
  for (int i = 0; i < 4; ++i) ASSERT_EQ(TmovieLayer::mvInsertFrames(video, i, 1, 0, gradient(16, 8, i).data()), 0);
  // A frame lasting two: frames 4 and 5 are the same.
  ASSERT_EQ(TmovieLayer::mvInsertFrames(video, 4, 2, 0, gradient(16, 8, 99).data()), 0);
  EXPECT_EQ(TmovieLayer::mvInsertFrames(video, 3, 1, 0, gradient(16, 8, 0).data()), 1);  // backwards
  std::vector<int16_t> samples(8000 * 2);
  for (size_t i = 0; i < samples.size(); ++i) samples[i] = int16_t(i * 37);
  ASSERT_EQ(TmovieLayer::mvInsertFrames(audio, 0, 1, 8000, samples.data()), 0);
  ASSERT_EQ(TmovieLayer::mvClose(movie), 0) << TmovieLayer::mvLastError();

  ASSERT_EQ(TmovieLayer::mvOpenFile(name.c_str(), 0, &movie), 0);
  EXPECT_EQ(TmovieLayer::mvGetNumTracks(movie), 2);
  TaviWrapper* track = nullptr;
  EXPECT_EQ(TmovieLayer::mvFindTrackByIndex(movie, -1, &track), 1);
  EXPECT_EQ(TmovieLayer::mvFindTrackByIndex(movie, 2, &track), 1);
  ASSERT_EQ(TmovieLayer::mvFindTrackByIndex(movie, 1, &track), 0);
  EXPECT_EQ(TmovieLayer::mvGetTrackMedium(track), 1);
  EXPECT_EQ(TmovieLayer::mvGetTrackLength(track), 8000);
  ASSERT_EQ(TmovieLayer::mvFindTrackByIndex(movie, 0, &track), 0);
  EXPECT_EQ(TmovieLayer::mvGetTrackLength(track), 6);
  double rate = 0;
  ASSERT_EQ(TmovieLayer::mvGetTrackRate(track, &rate), 0);
  EXPECT_EQ(rate, 29.0);
  char codec[64];
  ASSERT_EQ(TmovieLayer::mvGetTrackCodec(track, codec, sizeof codec), 0);
  EXPECT_STREQ(codec, "mjpeg (MJPG)");
  tagRECT rect;
  ASSERT_EQ(TmovieLayer::mvGetMovieRect(movie, &rect), 0);
  EXPECT_EQ(rect.left, 0);
  EXPECT_EQ(rect.right, 16);
  EXPECT_EQ(rect.top, 8);  // bottom-up
  EXPECT_EQ(rect.bottom, 0);
  // Frames read back out of order, and past the end.
  std::vector<uint8_t> a(16 * 8 * 4), b(a.size());
  ASSERT_EQ(TmovieLayer::mvReadFrames(track, 5, 1, 0, a.data()), 0);
  ASSERT_EQ(TmovieLayer::mvReadFrames(track, 1, 1, 0, b.data()), 0);
  ASSERT_EQ(TmovieLayer::mvReadFrames(track, 4, 1, 0, b.data()), 0);
  EXPECT_EQ(a, b);
  EXPECT_EQ(TmovieLayer::mvReadFrames(track, 6, 1, 0, b.data()), 1);
  EXPECT_NE(std::string(TmovieLayer::mvLastError()).find("past the movie's end"), std::string::npos);
  EXPECT_EQ(TmovieLayer::mvClose(movie), 1);  // read movies close with 1
}

TEST_F(Movies, CompressionOptionsKeptInTheSettingsStore) {
  ASSERT_EQ(TmovieLayer::mvSetMovieDefaults(nullptr, code("MJPG")), 0);
  ASSERT_EQ(TmovieLayer::mvSetMovieDefaults(nullptr, -1), 0);
  TKelpRegNT settings;
  std::vector<uint8_t> value(settings.getBinarySetting("VIDEO_COMPRESSION_OPTS", nullptr, 0));
  // 44 bytes and a bitmap header, then 44 bytes and a wave format.
  ASSERT_EQ(value.size(), 44u + 40 + 44 + 16);
  settings.getBinarySetting("VIDEO_COMPRESSION_OPTS", value.data(), value.size());
  auto le32 = [&](size_t at) {
    return uint32_t(value[at] | value[at + 1] << 8 | value[at + 2] << 16 | value[at + 3] << 24);
  };
  EXPECT_EQ(text(value, 0, 4), "vids");
  EXPECT_EQ(text(value, 4, 4), "MJPG");
  EXPECT_EQ(le32(8), 10u);      // a key frame every 10
  EXPECT_EQ(le32(12), 10000u);  // quality
  EXPECT_EQ(le32(20), 0xCu);
  EXPECT_EQ(le32(28), 40u);  // format size
  EXPECT_EQ(le32(44), 40u);  // the header's own size
  EXPECT_EQ(le32(48), 320u);
  EXPECT_EQ(text(value, 84, 4), "auds");
  EXPECT_EQ(le32(84 + 20), 9u);
  EXPECT_EQ(le32(84 + 28), 16u);
  EXPECT_EQ(le32(84 + 40), 10u);  // interleave
  EXPECT_EQ(le32(128 + 4), 22050u);

  // A restarted layer takes the stored handler.
  { TmovieLayer end; }
  ASSERT_TRUE(TmovieLayer::initMovieLayer());
  std::string name = dir.file("stored.avi");
  ASSERT_EQ(writeMovie(name, {gradient(16, 16, 0)}, 16, 16, nullptr), 0);
  TaviWrapper *movie = nullptr, *track = nullptr;
  ASSERT_EQ(TmovieLayer::mvOpenFile(name.c_str(), 0, &movie), 0);
  ASSERT_EQ(TmovieLayer::mvFindTrackByIndex(movie, 0, &track), 0);
  char codec[64];
  TmovieLayer::mvGetTrackCodec(track, codec, sizeof codec);
  EXPECT_STREQ(codec, "mjpeg (MJPG)");
  TmovieLayer::mvClose(movie);

  // A damaged stored value is passed over for the default, FFV1.
  value.resize(100);
  settings.addBinarySetting("VIDEO_COMPRESSION_OPTS", value.data(), value.size());
  { TmovieLayer end; }
  ASSERT_TRUE(TmovieLayer::initMovieLayer());
  ASSERT_EQ(writeMovie(name, {gradient(16, 16, 0)}, 16, 16, nullptr), 0);
  ASSERT_EQ(TmovieLayer::mvOpenFile(name.c_str(), 0, &movie), 0);
  ASSERT_EQ(TmovieLayer::mvFindTrackByIndex(movie, 0, &track), 0);
  TmovieLayer::mvGetTrackCodec(track, codec, sizeof codec);
  EXPECT_STREQ(codec, "ffv1 (FFV1)");
  TmovieLayer::mvClose(movie);
}

TEST_F(Movies, ASecondStartCountsOnceAndOneEndEndsTheLayer) {
  EXPECT_TRUE(TmovieLayer::initMovieLayer());
  { TmovieLayer end; }
  TaviWrapper* movie = nullptr;
  EXPECT_EQ(TmovieLayer::mvOpenFile("x.avi", 0, &movie), 1);
  EXPECT_STREQ(TmovieLayer::mvLastError(), "the movie layer is not started");
  EXPECT_TRUE(TmovieLayer::initMovieLayer());
}

// Every cut of a movie, and damage across it: reads fail or give frames,
// never more than the movie holds, and nothing breaks.
TEST_F(Movies, CutAndDamagedMoviesFailCleanly) {
  std::string name = dir.file("whole.avi");
  const int w = 12, h = 10;
  ASSERT_EQ(writeMovie(name, {noise(w, h, 1), noise(w, h, 2), noise(w, h, 3)}, w, h, "DIB "), 0);
  std::vector<uint8_t> whole = readBytes(name);
  std::string cut = dir.file("cut.avi");
  std::mt19937 rng(5);
  for (size_t n = 0; n < whole.size(); n += 7) {
    std::vector<uint8_t> bytes(whole.begin(), whole.begin() + long(n));
    if (n % 2) {
      bytes = whole;
      for (int k = 0; k < 4; ++k) bytes[rng() % bytes.size()] = uint8_t(rng());
    }
    writeBytes(cut, bytes);
    int rw = 0, rh = 0;
    std::vector<Frame> frames = readMovie(cut, rw, rh);
    EXPECT_LE(frames.size(), 3u) << n;
  }
  // Not a movie at all.
  writeBytes(cut, {'R', 'I', 'F', 'F', 0, 0, 0, 0, 'W', 'A', 'V', 'E'});
  TaviWrapper* movie = nullptr;
  EXPECT_EQ(TmovieLayer::mvOpenFile(cut.c_str(), 0, &movie), 1);
  EXPECT_EQ(movie, nullptr);
  EXPECT_NE(std::string(TmovieLayer::mvLastError()).find("cut.avi"), std::string::npos);
  Tmovie none;
  TpixelMap map;
  EXPECT_FALSE(none.readFrame(0, map));
}

// Without FFmpeg's libraries (none in a folder that does not exist), the
// layer does not start and every call answers with a failure.
TEST(MoviesWithoutFfmpeg, EveryCallFailsCleanly) {
  setenv("KELP_FFMPEG_DIR", "/nonexistent/ffmpeg", 1);
  EXPECT_FALSE(TmovieLayer::initMovieLayer());
  EXPECT_NE(std::string(TmovieLayer::mvLastError()).find("FFmpeg libraries are not available"), std::string::npos);
  TaviWrapper* movie = nullptr;
  EXPECT_EQ(TmovieLayer::mvOpenFile("x.avi", 0, &movie), 1);
  EXPECT_EQ(TmovieLayer::mvCreateFile("x.avi", nullptr, nullptr, &movie), 1);
  EXPECT_EQ(movie, nullptr);
  EXPECT_FALSE(std::filesystem::exists("x.avi"));
  EXPECT_EQ(TmovieLayer::mvClose(nullptr), 1);
  EXPECT_EQ(TmovieLayer::mvGetNumTracks(nullptr), 0);
  EXPECT_EQ(TmovieLayer::mvSetMovieDefaults(nullptr, 0), 1);
  EXPECT_EQ(TmovieLayer::mvReadFrames(nullptr, 0, 1, 0, nullptr), 1);
  Tmovie empty(nullptr);
  TpixelMap map;
  EXPECT_FALSE(empty.readFrame(0, map));
  unsetenv("KELP_FFMPEG_DIR");
  EXPECT_TRUE(TmovieLayer::initMovieLayer());
  TmovieLayer end;
}

}  // namespace
