// Starting and ending the movie layer, the compression options and the
// parameter blocks.
#include "kelpimage/movie/tmovielayer.h"

#include <cstring>

#include "kelpimage/base/tsettings.h"
#include "kelpimage/movie/aviwrapper.h"
#include "kelpimage/movie/codecs.h"

int TmovieLayer::finitcount = 0;
TdynamicLoad* TmovieLayer::fsMovieHandle = nullptr;
TdynamicLoad* TmovieLayer::fsCompressHandle = nullptr;

namespace kelpmovie {
namespace {

// The libraries, in the order of libraryName(); the layer's two named
// handles point at the first two.
std::unique_ptr<TdynamicLoad> gLibraries[4];
std::array<CompressOptions, 2> gOptions;
thread_local std::string tError;

constexpr char kSettingName[] = "VIDEO_COMPRESSION_OPTS";
constexpr uint32_t kDefaultHandler = fourCC('F', 'F', 'V', '1');
// The largest format or parameter part taken from the settings store.
constexpr uint32_t kMostOptionBytes = 1 << 16;

void putBitmapHeader(std::vector<uint8_t>& format, int width, int height) {
  format.assign(kBitmapHeaderSize, 0);
  kelp::putLE32(&format[0], kBitmapHeaderSize);
  kelp::putLE32(&format[4], uint32_t(width));
  kelp::putLE32(&format[8], uint32_t(height));
  kelp::putLE16(&format[12], 1);
  kelp::putLE16(&format[14], 24);
}

void putWaveFormat(std::vector<uint8_t>& format, int channels, int rate, int bits) {
  format.assign(kWaveFormatSize, 0);
  int align = bits * channels / 8;
  kelp::putLE16(&format[0], 1);
  kelp::putLE16(&format[2], uint16_t(channels));
  kelp::putLE32(&format[4], uint32_t(rate));
  kelp::putLE32(&format[8], uint32_t(int64_t(bits) * rate * channels / 8));
  kelp::putLE16(&format[12], uint16_t(align));
  kelp::putLE16(&format[14], uint16_t(bits));
}

void packOptions(const CompressOptions& o, std::vector<uint8_t>& out) {
  uint8_t fixed[TmovieLayer::kOptionsSize] = {};
  const uint32_t fields[] = {
      o.type,           o.handler, o.keyFrameEvery,           o.quality, o.bytesPerSecond,
      o.flags,          0,         uint32_t(o.format.size()), 0,         uint32_t(o.parms.size()),
      o.interleaveEvery};
  for (size_t i = 0; i < std::size(fields); ++i) kelp::putLE32(fixed + 4 * i, fields[i]);
  out.insert(out.end(), fixed, fixed + sizeof fixed);
  out.insert(out.end(), o.format.begin(), o.format.end());
  out.insert(out.end(), o.parms.begin(), o.parms.end());
}

// One medium's options from the stored value at `at`; false, with nothing
// changed, if the value is cut short or its sizes are out of reason. As
// when they were stored, the parameters are skipped.
bool unpackOptions(const std::vector<uint8_t>& value, size_t& at, CompressOptions& o) {
  if (value.size() - at < size_t(TmovieLayer::kOptionsSize)) return false;
  const uint8_t* p = value.data() + at;
  uint32_t formatSize = kelp::getLE32(p + 28), parmSize = kelp::getLE32(p + 36);
  if (formatSize > kMostOptionBytes || parmSize > kMostOptionBytes) return false;
  size_t end = at + TmovieLayer::kOptionsSize + formatSize + parmSize;
  if (end > value.size()) return false;
  CompressOptions read;
  read.type = kelp::getLE32(p);
  read.handler = kelp::getLE32(p + 4);
  read.keyFrameEvery = kelp::getLE32(p + 8);
  read.quality = kelp::getLE32(p + 12);
  read.bytesPerSecond = kelp::getLE32(p + 16);
  read.flags = kelp::getLE32(p + 20);
  read.interleaveEvery = kelp::getLE32(p + 40);
  read.format.assign(p + TmovieLayer::kOptionsSize, p + TmovieLayer::kOptionsSize + formatSize);
  o = std::move(read);
  at = end;
  return true;
}

bool restoreStoredOptions() {
  TKelpRegNT settings;
  size_t size = settings.getBinarySetting(kSettingName, nullptr, 0);
  if (size == 0) return false;
  std::vector<uint8_t> value(size);
  settings.getBinarySetting(kSettingName, value.data(), value.size());
  size_t at = 0;
  CompressOptions video, audio;
  if (!unpackOptions(value, at, video) || !unpackOptions(value, at, audio)) return false;
  gOptions[0] = std::move(video);
  gOptions[1] = std::move(audio);
  return true;
}

void setOptionDefaults(uint32_t handler) {
  CompressOptions& video = gOptions[0];
  video.type = kVids;
  video.handler = handler;
  video.keyFrameEvery = 10;
  video.quality = 10000;
  video.flags = 0xC;
  if (video.format.empty()) putBitmapHeader(video.format, 320, 240);
  CompressOptions& audio = gOptions[1];
  audio.type = kAuds;
  audio.flags = 9;
  if (audio.format.empty()) putWaveFormat(audio.format, 2, 22050, 16);
  audio.interleaveEvery = 10;
}

}  // namespace

std::array<CompressOptions, 2>& compressOptions() { return gOptions; }

BitmapHeader readBitmapHeader(const uint8_t* bytes) {
  return BitmapHeader{int32_t(kelp::getLE32(bytes + 4)), int32_t(kelp::getLE32(bytes + 8)),
                      int(kelp::getLE16(bytes + 14))};
}

WaveFormat readWaveFormat(const uint8_t* bytes) {
  return WaveFormat{int(kelp::getLE16(bytes + 2)), int(kelp::getLE32(bytes + 4)), int(kelp::getLE32(bytes + 8)),
                    int(kelp::getLE16(bytes + 12)), int(kelp::getLE16(bytes + 14))};
}

void setError(std::string why) { tError = std::move(why); }

int fail(std::string why) {
  setError(std::move(why));
  return 1;
}

bool refuse(std::string why) {
  setError(std::move(why));
  return false;
}

bool layerReady() { return ffmpeg().avformat_open_input != nullptr || refuse("the movie layer is not started"); }

Movie* asMovie(TaviWrapper* handle) {
  if (!layerReady()) return nullptr;
  if (!handle || handle->kind != Kind::kMovie) {
    setError("not an open movie");
    return nullptr;
  }
  return static_cast<Movie*>(handle);
}

Track* asTrack(TaviWrapper* handle) {
  if (!layerReady()) return nullptr;
  if (!handle || handle->kind != Kind::kTrack) {
    setError("not a track of an open movie");
    return nullptr;
  }
  return static_cast<Track*>(handle);
}

void FrameDeleter::operator()(AVFrame* f) const { ffmpeg().av_frame_free(&f); }
void PacketDeleter::operator()(AVPacket* p) const { ffmpeg().av_packet_free(&p); }
void CodecDeleter::operator()(AVCodecContext* c) const { ffmpeg().avcodec_free_context(&c); }
void ScaleDeleter::operator()(SwsContext* s) const { ffmpeg().sws_freeContext(s); }

}  // namespace kelpmovie

using namespace kelpmovie;

bool TmovieLayer::initMovieLayer() {
  if (finitcount >= 1) return true;
  std::string why;
  if (!bindFfmpeg(gLibraries, why)) {
    fsMovieHandle = fsCompressHandle = nullptr;
    setError(why);
    return false;
  }
  fsMovieHandle = gLibraries[0].get();
  fsCompressHandle = gLibraries[1].get();
  // The library reports by codes and words of its own, never on the
  // process's standard error.
  ffmpeg().av_log_set_level(AV_LOG_QUIET);
  gOptions = {};
  mvSetMovieDefaults(nullptr, 0);
  ++finitcount;
  setError("");
  return true;
}

TmovieLayer::~TmovieLayer() {
  if (finitcount <= 0 || --finitcount > 0) return;
  gOptions = {};
  unbindFfmpeg();
  fsMovieHandle = fsCompressHandle = nullptr;
  for (auto& library : gLibraries) library.reset();
}

int TmovieLayer::mvSetMovieDefaults(unsigned char*, int mode) {
  if (!layerReady()) return 1;
  uint32_t handler = uint32_t(mode);
  if (mode == -1) {
    // No dialog on this platform: the options stand as they are, kept as
    // the user's choice.
    std::vector<uint8_t> value;
    packOptions(gOptions[0], value);
    packOptions(gOptions[1], value);
    if (!TKelpRegNT().addBinarySetting(kSettingName, value.data(), value.size()))
      return fail("the compression options cannot be stored in the settings");
    return 0;
  }
  if (mode == 0) {
    if (gOptions[0].handler != 0) return 0;
    if (restoreStoredOptions()) return 0;
    handler = kDefaultHandler;
  }
  if (!encoderFor(handler)) {
    char text[5] = {char(handler), char(handler >> 8), char(handler >> 16), char(handler >> 24), 0};
    return fail("no video encoder for the handler code \"" + std::string(text) + "\"");
  }
  setOptionDefaults(handler);
  return 0;
}

bool TmovieLayer::mvVideoResolutionClamp(int* width, int* height) {
  if (!width || !height || gOptions[0].type != kVids) return false;
  static const uint32_t kAnySize[] = {fourCC('m', 's', 'v', 'c'), fourCC('c', 'v', 'i', 'd'),
                                      fourCC('m', 'r', 'l', 'e'), fourCC('i', 'v', '3', '2'),
                                      fourCC('D', 'I', 'B', ' ')};
  for (uint32_t code : kAnySize)
    if (gOptions[0].handler == code) return false;
  int w = *width & ~3, h = *height & ~3;
  bool changed = w != *width || h != *height;
  *width = w;
  *height = h;
  return changed;
}

int TmovieLayer::dmParamsCreate(unsigned char** block) {
  if (!block) return 1;
  *block = new (std::nothrow) unsigned char[kParamsSize]();
  return *block ? 0 : 1;
}

int TmovieLayer::dmParamsDestroy(unsigned char* block) {
  delete[] block;
  return 0;
}

int TmovieLayer::dmSetImageDefaults(unsigned char* block, int width, int height, int) {
  if (!block) return 1;
  std::vector<uint8_t> header;
  putBitmapHeader(header, width, height);
  std::memcpy(block, header.data(), header.size());
  return 0;
}

int TmovieLayer::dmSetAudioDefaults(unsigned char* block, int bits, int rate, int channels) {
  if (!block) return 1;
  std::vector<uint8_t> format;
  putWaveFormat(format, channels, rate, bits);
  std::memcpy(block, format.data(), format.size());
  return 0;
}

const char* TmovieLayer::mvLastError() { return tError.c_str(); }

int TmovieLayer::mvHandlerCode(const char* text) {
  size_t n = text ? std::strlen(text) : 0;
  if (n == 0 || n > 4) return 0;
  char code[4] = {' ', ' ', ' ', ' '};
  std::memcpy(code, text, n);
  return int(fourCC(code[0], code[1], code[2], code[3]));
}

int TmovieLayer::mvSetTrackSMPTEStart(TaviWrapper*, const char*) { return 0; }
