// The records behind a TaviWrapper handle, and the compression options
// (internal to the movie layer).
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "kelpimage/byteorder.h"
#include "kelpimage/movie/ffmpegapi.h"
#include "kelpimage/movie/tmovielayer.h"

namespace kelpmovie {

constexpr uint32_t fourCC(char a, char b, char c, char d) {
  return uint32_t(uint8_t(a)) | uint32_t(uint8_t(b)) << 8 | uint32_t(uint8_t(c)) << 16 | uint32_t(uint8_t(d)) << 24;
}
constexpr uint32_t kVids = fourCC('v', 'i', 'd', 's');
constexpr uint32_t kAuds = fourCC('a', 'u', 'd', 's');

// A BITMAPINFOHEADER and a PCM WAVEFORMAT, as they lie in a parameter block
// (little-endian, no padding).
constexpr int kBitmapHeaderSize = 40;
constexpr int kWaveFormatSize = 16;
constexpr int kPaletteSize = 1024;
struct BitmapHeader {
  int32_t width = 0, height = 0;
  int bitCount = 24;
};
struct WaveFormat {
  int channels = 0, sampleRate = 0, bytesPerSecond = 0, blockAlign = 0, bits = 0;
};
BitmapHeader readBitmapHeader(const uint8_t* bytes);
WaveFormat readWaveFormat(const uint8_t* bytes);

// The options of one medium. On disk (the settings store) they take 44
// bytes: type, handler, key frame interval, quality, bytes a second, flags,
// a format pointer (0), its size, a parameter pointer (0), their size, the
// interleave; then the format and parameter bytes.
struct CompressOptions {
  uint32_t type = 0, handler = 0, keyFrameEvery = 0, quality = 0, bytesPerSecond = 0, flags = 0;
  std::vector<uint8_t> format;
  std::vector<uint8_t> parms;
  uint32_t interleaveEvery = 0;
};
std::array<CompressOptions, 2>& compressOptions();

// What a handle stands for: the calls refuse the wrong kind.
enum class Kind : uint32_t { kMovie = 0x4d4f5649, kTrack = 0x5452434b, kDead = 0 };

struct Track;

// FFmpeg's objects, freed with the record that holds them.
struct FrameDeleter {
  void operator()(AVFrame* f) const;
};
struct PacketDeleter {
  void operator()(AVPacket* p) const;
};
struct CodecDeleter {
  void operator()(AVCodecContext* c) const;
};
struct ScaleDeleter {
  void operator()(SwsContext* s) const;
};
using FramePtr = std::unique_ptr<AVFrame, FrameDeleter>;
using PacketPtr = std::unique_ptr<AVPacket, PacketDeleter>;
using CodecPtr = std::unique_ptr<AVCodecContext, CodecDeleter>;
using ScalePtr = std::unique_ptr<SwsContext, ScaleDeleter>;

}  // namespace kelpmovie

struct TaviWrapper {
  kelpmovie::Kind kind;
  explicit TaviWrapper(kelpmovie::Kind k) : kind(k) {}
  ~TaviWrapper() { kind = kelpmovie::Kind::kDead; }
};

namespace kelpmovie {

struct Movie : TaviWrapper {
  Movie() : TaviWrapper(Kind::kMovie) {}
  ~Movie();
  AVFormatContext* file = nullptr;  // the container, reading or writing
  std::unique_ptr<Track> tracks[2];
  CompressOptions options[2];
  bool usesTempFile = false;
  std::string tempName;
  int trackCount = 0;
  std::string finalName;
  bool headerWritten = false;
  bool failed = false;  // a write failed: the movie is not moved into place
};

struct Track : TaviWrapper {
  Track() : TaviWrapper(Kind::kTrack) {}
  Movie* movie = nullptr;
  AVStream* stream = nullptr;
  CodecPtr compressed;  // the encoder of a written video track
  int index = 0;
  std::vector<uint8_t> buffer;  // reading: a frame of another size than the movie's, converted
  int medium = 0;
  std::vector<uint8_t> format;  // the track's bitmap header (+ palette) or wave format

  // Writing video: the frame handed to the encoder. Both ways: the packet,
  // and the pixel conversion (reading: of the upper band of a large frame,
  // the lower band having its own).
  FramePtr frame;
  PacketPtr packet;
  ScalePtr scale;
  ScalePtr lowerScale;
  int64_t nextFrame = 0;
  bool palette = false;  // the 8-bit cube path

  // Reading video: the decoder, opened on the first read.
  CodecPtr frameGetter;
  FramePtr decoded;  // the last frame decoded, at `decodedAt`
  int64_t decodedAt = -1;
  FramePtr ahead;  // decoded past the frame asked for; the next read's
  int64_t aheadAt = -1;
  int64_t frameCount = 0;  // frames decoded since the last seek, for frames without time stamps
  bool atEnd = false;      // the decoder is drained
};

// The handle as a movie or a track, or null (with the reason said) if it
// is not one.
Movie* asMovie(TaviWrapper* handle);
Track* asTrack(TaviWrapper* handle);

// The reason of this thread's last failure; fail() also answers 1 and
// refuse() false, for the calls that return so.
void setError(std::string why);
int fail(std::string why);
bool refuse(std::string why);

// True once the layer has started; otherwise says so.
bool layerReady();

}  // namespace kelpmovie
