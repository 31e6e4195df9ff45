// Writing movies: the file made beside its name, its tracks, their frames,
// and the close that moves it into place.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <climits>
#include <cstring>

#include "kelpimage/base/tcolourcube.h"
#include "kelpimage/base/tfilemode.h"
#include "kelpimage/movie/aviwrapper.h"
#include "kelpimage/movie/codecs.h"

using namespace kelpmovie;

namespace {

constexpr int kMostSide = 32767;

// The name with ".AVI" appended unless its extension is ".avi" in any case.
std::string aviName(const std::string& name) {
  size_t slash = name.rfind('/');
  size_t dot = name.rfind('.');
  std::string extension =
      dot != std::string::npos && (slash == std::string::npos || dot > slash) ? name.substr(dot) : "";
  for (char& c : extension) c = char(std::tolower(static_cast<unsigned char>(c)));
  return extension == ".avi" ? name : name + ".AVI";
}

// A new empty file beside `target`, with a normal file's permissions; its
// name, or empty with the reason said.
std::string makeTempBeside(const std::string& target) {
  size_t slash = target.rfind('/');
  std::string dir = slash == std::string::npos ? "" : target.substr(0, slash + 1);
  std::string base = slash == std::string::npos ? target : target.substr(slash + 1);
  std::string pattern = dir + "." + base + ".XXXXXX";
  std::vector<char> path(pattern.begin(), pattern.end());
  path.push_back('\0');
  int fd = ::mkostemp(path.data(), O_CLOEXEC);
  if (fd < 0) {
    setError(target + ": cannot be written: " + std::strerror(errno));
    return "";
  }
  ::fchmod(fd, newFileMode());
  ::close(fd);
  return path.data();
}

bool targetWritable(const std::string& target) {
  struct stat st;
  if (::stat(target.c_str(), &st) != 0) return true;  // a new file; the folder is tried by the temporary one
  if (!S_ISREG(st.st_mode)) return refuse(target + ": is not a regular file");
  if (::access(target.c_str(), W_OK) != 0) return refuse(target + ": cannot be written: " + std::strerror(errno));
  return true;
}

AVDictionary* fileOnly() {
  AVDictionary* options = nullptr;
  ffmpeg().av_dict_set(&options, "protocol_whitelist", "file", 0);
  return options;
}

// A write that failed part way: the movie will not be moved into place.
// Answers 1, with `why` (after the movie's name) as the reason if given.
int spoiled(Movie& movie, const std::string& why = "") {
  movie.failed = true;
  if (!why.empty()) setError(movie.finalName + why);
  return 1;
}

bool writeHeader(Movie& movie) {
  if (movie.headerWritten) return true;
  if (movie.file->nb_streams == 0) return refuse(movie.finalName + ": the movie has no track with a stream");
  int rc = ffmpeg().avformat_write_header(movie.file, nullptr);
  if (rc < 0) return refuse(movie.finalName + ": cannot be written: " + errorText(rc));
  movie.headerWritten = true;
  return true;
}

// Hands what the encoder has ready to the file.
bool drainEncoder(Track& track) {
  Movie& movie = *track.movie;
  for (;;) {
    int rc = ffmpeg().avcodec_receive_packet(track.compressed.get(), track.packet.get());
    if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) return true;
    if (rc < 0) return refuse(movie.finalName + ": the frame cannot be compressed: " + errorText(rc));
    AVPacket* pkt = track.packet.get();
    pkt->stream_index = track.stream->index;
    pkt->flags |= AV_PKT_FLAG_KEY;
    ffmpeg().av_packet_rescale_ts(pkt, track.compressed->time_base, track.stream->time_base);
    rc = ffmpeg().av_write_frame(movie.file, pkt);
    ffmpeg().av_packet_unref(pkt);
    if (rc < 0) return refuse(movie.finalName + ": cannot be written: " + errorText(rc));
  }
}

// The palette of the 8-bit path, the colour cube: blue, green, red, 0.
void putCubePalette(uint8_t* entries) {
  for (int i = 0; i < 256; ++i) {
    uint8_t rgb[3];
    TcolourCube::entry(i, rgb);
    entries[4 * i + 0] = rgb[2];
    entries[4 * i + 1] = rgb[1];
    entries[4 * i + 2] = rgb[0];
    entries[4 * i + 3] = 0;
  }
}

// Bottom-up 4-byte pixels to the frame's top-down 8-bit cube indices.
void quantise(const uint8_t* data, int width, int height, AVFrame* frame) {
  for (int y = 0; y < height; ++y) {
    const uint8_t* p = data + size_t(height - 1 - y) * size_t(width) * 4;
    uint8_t* out = frame->data[0] + ptrdiff_t(y) * frame->linesize[0];
    for (int x = 0; x < width; ++x, p += 4) out[x] = uint8_t(TcolourCube::nearest(p[2], p[1], p[0]));
  }
  auto* palette = reinterpret_cast<uint32_t*>(frame->data[1]);
  for (int i = 0; i < 256; ++i) {
    uint8_t rgb[3];
    TcolourCube::entry(i, rgb);
    palette[i] = 0xFF000000u | uint32_t(rgb[0]) << 16 | uint32_t(rgb[1]) << 8 | rgb[2];
  }
}

bool convertFrame(Track& track, const uint8_t* data) {
  AVFrame* frame = track.frame.get();
  int w = frame->width, h = frame->height;
  if (track.palette) {
    quantise(data, w, h, frame);
    return true;
  }
  track.scale.reset(ffmpeg().sws_getCachedContext(track.scale.release(), w, h, AV_PIX_FMT_BGR0, w, h,
                                                  AVPixelFormat(frame->format), SWS_BICUBIC, nullptr, nullptr,
                                                  nullptr));
  if (!track.scale) return refuse(track.movie->finalName + ": the frame cannot be converted for its codec");
  // The rows come bottom first: start at the last and step back.
  const uint8_t* source[4] = {data + size_t(h - 1) * size_t(w) * 4, nullptr, nullptr, nullptr};
  const int stride[4] = {-w * 4, 0, 0, 0};
  ffmpeg().sws_scale(track.scale.get(), source, stride, 0, h, frame->data, frame->linesize);
  return true;
}

// The encoder for a video track of the movie's options, opened for
// `input` frames; null, with the reason said, if it cannot be.
CodecPtr openEncoder(const AVCodec* codec, const CompressOptions& options, AVPixelFormat input, int width, int height,
                     int rate, const std::string& name) {
  CodecPtr c(ffmpeg().avcodec_alloc_context3(codec));
  if (!c) return (setError("out of memory"), nullptr);
  c->width = width;
  c->height = height;
  c->pix_fmt = input;
  c->time_base = AVRational{1, rate};
  c->framerate = AVRational{rate, 1};
  c->gop_size = 1;  // every frame a key frame
  c->thread_count = 0;
  if (codec->id == AV_CODEC_ID_MJPEG) {
    // Quality 10000 (the best) is JPEG's quantiser scale 2, quality 0 is 31.
    uint32_t quality = std::min<uint32_t>(options.quality, 10000);
    c->flags |= AV_CODEC_FLAG_QSCALE;
    c->global_quality = FF_QP2LAMBDA * int(2 + (10000 - quality) * 29 / 10000);
    c->color_range = AVCOL_RANGE_JPEG;
  }
  int rc = ffmpeg().avcodec_open2(c.get(), codec, nullptr);
  if (rc < 0) {
    setError(name + ": the " + codec->name + " encoder does not take " + std::to_string(width) + " x " +
             std::to_string(height) + " frames: " + errorText(rc));
    return nullptr;
  }
  return c;
}

int addAudioStream(Movie& movie, Track& track) {
  WaveFormat wave = readWaveFormat(track.format.data());
  if (kelp::getLE16(track.format.data()) != 1 || wave.bits != 16 || wave.channels < 1 || wave.channels > 8 ||
      wave.sampleRate < 1 || wave.sampleRate > 768000)
    return fail(movie.finalName + ": an audio track takes 16-bit PCM of 1 to 8 channels");
  AVStream* st = ffmpeg().avformat_new_stream(movie.file, nullptr);
  if (!st) return fail("out of memory");
  AVCodecParameters* p = st->codecpar;
  p->codec_type = AVMEDIA_TYPE_AUDIO;
  p->codec_id = AV_CODEC_ID_PCM_S16LE;
  p->sample_rate = wave.sampleRate;
  ffmpeg().av_channel_layout_default(&p->ch_layout, wave.channels);
  p->block_align = wave.channels * 2;
  p->bits_per_coded_sample = 16;
  p->bit_rate = int64_t(wave.sampleRate) * p->block_align * 8;
  st->time_base = AVRational{1, wave.sampleRate};
  track.packet.reset(ffmpeg().av_packet_alloc());
  if (!track.packet) return fail("out of memory");
  track.stream = st;
  return 0;
}

}  // namespace

namespace kelpmovie {

Movie::~Movie() {
  if (!file) return;
  if (usesTempFile) {
    if (file->pb) ffmpeg().avio_closep(&file->pb);
    ffmpeg().avformat_free_context(file);
    if (!tempName.empty()) ::unlink(tempName.c_str());
  } else {
    ffmpeg().avformat_close_input(&file);
  }
}

}  // namespace kelpmovie

int TmovieLayer::mvCreateFile(const char* name, unsigned char*, unsigned char*, TaviWrapper** movie) {
  if (!movie) return fail("no place for the movie's handle");
  *movie = nullptr;
  if (!layerReady()) return 1;
  if (!name || !*name) return fail("a movie needs a name");
  auto record = std::make_unique<Movie>();
  record->finalName = aviName(name);
  if (!targetWritable(record->finalName)) return 1;
  int rc = ffmpeg().avformat_alloc_output_context2(&record->file, nullptr, "avi", nullptr);
  if (rc < 0 || !record->file) return fail("AVI files cannot be written: " + errorText(rc));
  record->usesTempFile = true;
  record->tempName = makeTempBeside(record->finalName);
  if (record->tempName.empty()) return 1;
  AVDictionary* options = fileOnly();
  rc = ffmpeg().avio_open2(&record->file->pb, ("file:" + record->tempName).c_str(), AVIO_FLAG_WRITE, nullptr, &options);
  ffmpeg().av_dict_free(&options);
  if (rc < 0) return fail(record->finalName + ": cannot be written: " + errorText(rc));
  *movie = record.release();
  setError("");
  return 0;
}

int TmovieLayer::mvAddTrack(TaviWrapper* handle, int medium, unsigned char* params, unsigned char*,
                            TaviWrapper** track) {
  Movie* movie = asMovie(handle);
  if (!movie || !track) return 1;
  if (!movie->usesTempFile || medium < 0 || medium > 1 || !params)
    return fail("tracks are added to a movie being written, as video (0) or audio (1), with a parameter block");
  if (movie->headerWritten) return fail(movie->finalName + ": tracks cannot be added once frames are written");
  for (int i = 0; i < movie->trackCount; ++i)
    if (movie->tracks[i]->medium == medium) return fail(movie->finalName + ": a movie has one track of each kind");
  int index = movie->trackCount;
  movie->options[index] = compressOptions()[size_t(medium)];
  auto record = std::make_unique<Track>();
  record->movie = movie;
  record->index = index;
  record->medium = medium;
  if (medium == kVideo) {
    record->format.assign(params, params + kBitmapHeaderSize);
    BitmapHeader h = readBitmapHeader(params);
    if (h.width < 1 || h.width > kMostSide || h.height == 0 || h.height == INT32_MIN ||
        std::abs(h.height) > kMostSide || (h.bitCount != 24 && h.bitCount != 8))
      return fail(movie->finalName + ": a video track needs a size of 1 to 32767 a side and 24 or 8 bits");
  } else {
    record->format.assign(params, params + kWaveFormatSize);
    if (addAudioStream(*movie, *record)) return 1;
  }
  movie->options[index].format = record->format;
  *track = record.get();
  movie->tracks[index] = std::move(record);
  ++movie->trackCount;
  setError("");
  return 0;
}

int TmovieLayer::mvSetImageRate(TaviWrapper* handle, double rate) {
  Track* track = asTrack(handle);
  if (!track) return 1;
  if (track->stream) return fail("the track's rate is already set");
  if (track->medium != kVideo) return fail("only a video track has an image rate");
  Movie& movie = *track->movie;
  if (movie.headerWritten) return fail(movie.finalName + ": the rate must be set before frames are written");
  if (!(rate >= 1.0 && rate < double(INT_MAX))) return fail(movie.finalName + ": the image rate must be at least 1");
  int fps = int(rate);
  const CompressOptions& options = movie.options[track->index];
  const AVCodec* codec = encoderFor(options.handler);
  if (!codec) return fail(movie.finalName + ": no encoder for the video handler code");
  BitmapHeader h = readBitmapHeader(track->format.data());
  int width = h.width, height = std::abs(h.height);
  AVPixelFormat input = h.bitCount == 24 ? encoderInput(codec, false) : AV_PIX_FMT_NONE;
  if (input == AV_PIX_FMT_NONE) {
    // The codec takes no 24-bit frames: 8 bits, through the cube palette.
    input = encoderInput(codec, true);
    if (input == AV_PIX_FMT_NONE)
      return fail(movie.finalName + ": the " + codec->name + " encoder takes neither 24-bit nor palette frames");
    track->format.resize(kBitmapHeaderSize + kPaletteSize);
    kelp::putLE16(&track->format[14], 8);
    kelp::putLE32(&track->format[32], 256);
    putCubePalette(&track->format[kBitmapHeaderSize]);
    movie.options[track->index].format = track->format;
    track->palette = true;
  }
  CodecPtr encoder = openEncoder(codec, options, input, width, height, fps, movie.finalName);
  if (!encoder) return 1;
  FramePtr frame(ffmpeg().av_frame_alloc());
  PacketPtr packet(ffmpeg().av_packet_alloc());
  if (!frame || !packet) return fail("out of memory");
  frame->format = input;
  frame->width = width;
  frame->height = height;
  if (int rc = ffmpeg().av_frame_get_buffer(frame.get(), 0); rc < 0) return fail("out of memory: " + errorText(rc));
  AVStream* st = ffmpeg().avformat_new_stream(movie.file, nullptr);
  if (!st) return fail("out of memory");
  ffmpeg().avcodec_parameters_from_context(st->codecpar, encoder.get());
  st->time_base = AVRational{1, fps};
  st->avg_frame_rate = st->r_frame_rate = AVRational{fps, 1};
  track->stream = st;
  track->compressed = std::move(encoder);
  track->frame = std::move(frame);
  track->packet = std::move(packet);
  setError("");
  return 0;
}

int TmovieLayer::mvInsertFrames(TaviWrapper* handle, int start, int count, unsigned size, void* data) {
  Track* track = asTrack(handle);
  if (!track) return 1;
  Movie& movie = *track->movie;
  if (!movie.usesTempFile) return fail("frames are inserted into a movie being written");
  if (!track->stream) return fail(movie.finalName + ": the video track's rate is not set");
  if (!data || count < 1 || start < track->nextFrame)
    return fail(movie.finalName + ": frames are written forward, from frame " + std::to_string(track->nextFrame));
  if (!writeHeader(movie)) return spoiled(movie);
  if (track->medium == kAudio) {
    WaveFormat wave = readWaveFormat(track->format.data());
    int64_t bytes = int64_t(size) * wave.blockAlign;
    if (bytes > INT_MAX / 2) return fail(movie.finalName + ": too many samples at once");
    if (ffmpeg().av_new_packet(track->packet.get(), int(bytes)) < 0) return fail("out of memory");
    AVPacket* pkt = track->packet.get();
    std::memcpy(pkt->data, data, size_t(bytes));
    pkt->stream_index = track->stream->index;
    pkt->pts = pkt->dts = start;
    pkt->duration = size;
    pkt->flags |= AV_PKT_FLAG_KEY;
    ffmpeg().av_packet_rescale_ts(pkt, AVRational{1, wave.sampleRate}, track->stream->time_base);
    int rc = ffmpeg().av_write_frame(movie.file, pkt);
    ffmpeg().av_packet_unref(pkt);
    if (rc < 0) return spoiled(movie, ": cannot be written: " + errorText(rc));
    track->nextFrame = int64_t(start) + size;
    setError("");
    return 0;
  }
  AVFrame* frame = track->frame.get();
  if (ffmpeg().av_frame_make_writable(frame) < 0) return fail("out of memory");
  if (!convertFrame(*track, static_cast<const uint8_t*>(data))) return 1;
  for (int i = 0; i < count; ++i) {
    frame->pts = int64_t(start) + i;
    int rc = ffmpeg().avcodec_send_frame(track->compressed.get(), frame);
    if (rc < 0) return spoiled(movie, ": the frame cannot be compressed: " + errorText(rc));
    if (!drainEncoder(*track)) return spoiled(movie);
  }
  track->nextFrame = int64_t(start) + count;
  setError("");
  return 0;
}

namespace {

// Flushes the encoders and the file's index; false, with the reason said,
// if any of it fails.
bool finishWriting(Movie& movie) {
  if (movie.failed) return false;
  for (auto& track : movie.tracks) {
    if (!track || !track->compressed) continue;
    if (!movie.headerWritten && !writeHeader(movie)) return false;
    ffmpeg().avcodec_send_frame(track->compressed.get(), nullptr);
    if (!drainEncoder(*track)) return false;
  }
  if (!writeHeader(movie)) return false;
  int rc = ffmpeg().av_write_trailer(movie.file);
  if (rc < 0) return refuse(movie.finalName + ": cannot be written: " + errorText(rc));
  rc = ffmpeg().avio_closep(&movie.file->pb);
  if (rc < 0) return refuse(movie.finalName + ": cannot be written: " + errorText(rc));
  int fd = ::open(movie.tempName.c_str(), O_RDONLY | O_CLOEXEC);
  bool synced = fd >= 0 && ::fsync(fd) == 0;
  if (fd >= 0) ::close(fd);
  if (!synced) return refuse(movie.finalName + ": cannot be written: " + std::strerror(errno));
  return true;
}

}  // namespace

int TmovieLayer::mvClose(TaviWrapper* handle) {
  Movie* movie = asMovie(handle);
  if (!movie) return 1;
  std::unique_ptr<Movie> record(movie);
  if (!movie->usesTempFile) return 1;    // read: nothing to move
  if (!finishWriting(*movie)) return 1;  // the record's end removes the temporary file
  if (::rename(movie->tempName.c_str(), movie->finalName.c_str()) != 0)
    return fail(movie->finalName + ": cannot be written: " + std::strerror(errno));
  movie->tempName.clear();
  setError("");
  return 0;
}

int TmovieLayer::mvAbandon(TaviWrapper* handle) {
  Movie* movie = asMovie(handle);
  if (!movie) return 1;
  delete movie;  // its end removes the temporary file
  return 0;
}
