// Reading movies: the tracks a file holds, their sizes, and frames decoded
// into 4-byte pixels from the bottom row up.
#include <algorithm>
#include <climits>
#include <cstring>
#include <future>

#include "kelpimage/movie/aviwrapper.h"
#include "kelpimage/movie/movieframes.h"

using namespace kelpmovie;

namespace {

// The most pixels a frame of a movie may have (512 MB of 4-byte pixels).
constexpr int64_t kMostPixels = int64_t(1) << 27;
constexpr int kMostSide = 32767;

std::unique_ptr<Track> newTrack(Movie& movie, AVStream* stream, int medium) {
  auto track = std::make_unique<Track>();
  track->movie = &movie;
  track->stream = stream;
  track->index = movie.trackCount;
  track->medium = medium;
  return track;
}

AVStream* firstStream(AVFormatContext* file, AVMediaType type) {
  for (unsigned i = 0; i < file->nb_streams; ++i) {
    AVStream* st = file->streams[i];
    if (st->codecpar->codec_type == type && !(st->disposition & AV_DISPOSITION_ATTACHED_PIC)) return st;
  }
  return nullptr;
}

std::string frameName(const Track& track, int64_t frame) {
  return track.movie->finalName + ": frame " + std::to_string(frame);
}

bool openDecoder(Track& track) {
  if (track.frameGetter) return true;
  const AVCodecParameters* par = track.stream->codecpar;
  const AVCodec* codec = ffmpeg().avcodec_find_decoder(par->codec_id);
  if (!codec)
    return refuse(track.movie->finalName + ": this FFmpeg has no decoder for its " +
                  ffmpeg().avcodec_get_name(par->codec_id) + " video");
  CodecPtr c(ffmpeg().avcodec_alloc_context3(codec));
  FramePtr decoded(ffmpeg().av_frame_alloc()), ahead(ffmpeg().av_frame_alloc());
  PacketPtr packet(ffmpeg().av_packet_alloc());
  if (!c || !decoded || !ahead || !packet) return refuse("out of memory");
  int rc = ffmpeg().avcodec_parameters_to_context(c.get(), par);
  if (rc >= 0) {
    c->thread_count = 0;
    c->pkt_timebase = track.stream->time_base;
    rc = ffmpeg().avcodec_open2(c.get(), codec, nullptr);
  }
  if (rc < 0)
    return refuse(track.movie->finalName + ": its " + codec->name + " video cannot be decoded: " + errorText(rc));
  track.frameGetter = std::move(c);
  track.decoded = std::move(decoded);
  track.ahead = std::move(ahead);
  track.packet = std::move(packet);
  return true;
}

void seekTo(Track& track, int64_t frame) {
  ffmpeg().av_seek_frame(track.movie->file, track.stream->index, frame, AVSEEK_FLAG_BACKWARD);
  ffmpeg().avcodec_flush_buffers(track.frameGetter.get());
  ffmpeg().av_frame_unref(track.decoded.get());
  ffmpeg().av_frame_unref(track.ahead.get());
  track.decodedAt = track.aheadAt = -1;
  track.atEnd = false;
  track.frameCount = 0;
}

// Feeds the decoder one packet of the track; false at the end of the file
// (the decoder is then told to drain) or on an error (said).
enum class Feed { kFed, kEnd, kError };
Feed feed(Track& track, int64_t frame) {
  AVPacket* pkt = track.packet.get();
  for (;;) {
    int rc = ffmpeg().av_read_frame(track.movie->file, pkt);
    if (rc < 0) {
      ffmpeg().avcodec_send_packet(track.frameGetter.get(), nullptr);
      track.atEnd = true;
      return Feed::kEnd;
    }
    if (pkt->stream_index != track.stream->index) {
      ffmpeg().av_packet_unref(pkt);
      continue;
    }
    rc = ffmpeg().avcodec_send_packet(track.frameGetter.get(), pkt);
    ffmpeg().av_packet_unref(pkt);
    if (rc < 0 && rc != AVERROR(EAGAIN)) {
      setError(frameName(track, frame) + " cannot be decoded: " + errorText(rc));
      return Feed::kError;
    }
    return Feed::kFed;
  }
}

int64_t stampOf(Track& track, const AVFrame* f) {
  if (f->best_effort_timestamp != AV_NOPTS_VALUE) return f->best_effort_timestamp;
  if (f->pkt_dts != AV_NOPTS_VALUE) return f->pkt_dts;
  return track.frameCount - 1;
}

}  // namespace

namespace kelpmovie {

const AVFrame* decodeFrame(Track& track, int64_t frame) {
  if (!openDecoder(track)) return nullptr;
  if (track.decodedAt == frame) return track.decoded.get();
  if (track.aheadAt == frame) {
    ffmpeg().av_frame_unref(track.decoded.get());
    ffmpeg().av_frame_move_ref(track.decoded.get(), track.ahead.get());
    track.decodedAt = frame;
    track.aheadAt = -1;
    return track.decoded.get();
  }
  if (track.aheadAt > frame && frame > track.decodedAt && track.decodedAt >= 0) {
    track.decodedAt = frame;  // still in a run of dropped frames
    return track.decoded.get();
  }
  if (frame != track.decodedAt + 1 || track.aheadAt >= 0) seekTo(track, frame);
  for (;;) {
    int rc = ffmpeg().avcodec_receive_frame(track.frameGetter.get(), track.ahead.get());
    if (rc == 0) {
      ++track.frameCount;
      int64_t at = stampOf(track, track.ahead.get());
      if (at < frame) {
        ffmpeg().av_frame_unref(track.ahead.get());
        continue;
      }
      track.aheadAt = at;
      if (at > frame && track.decodedAt >= 0) {
        // No frame of its own (a dropped one): the one before it shows on.
        track.decodedAt = frame;
        return track.decoded.get();
      }
      ffmpeg().av_frame_unref(track.decoded.get());
      ffmpeg().av_frame_move_ref(track.decoded.get(), track.ahead.get());
      track.decodedAt = frame;
      track.aheadAt = -1;
      return track.decoded.get();
    }
    if (rc == AVERROR(EAGAIN) && !track.atEnd) {
      Feed fed = feed(track, frame);
      if (fed == Feed::kError) return nullptr;
      continue;
    }
    if (rc == AVERROR_EOF || rc == AVERROR(EAGAIN)) {
      setError(frameName(track, frame) + " is past the movie's end");
      return nullptr;
    }
    setError(frameName(track, frame) + " cannot be decoded: " + errorText(rc));
    return nullptr;
  }
}

bool movieSize(Track& track, int& width, int& height) {
  const AVCodecParameters* par = track.stream->codecpar;
  width = par->width;
  height = par->height;
  if (width < 1 || height < 1 || width > kMostSide || height > kMostSide || int64_t(width) * height > kMostPixels)
    return refuse(track.movie->finalName + ": its frame size " + std::to_string(width) + " x " +
                  std::to_string(height) + " is out of range");
  return true;
}

namespace {

// Frames this large are converted in two bands at once.
constexpr int64_t kBandedPixels = 1 << 18;

// Rows [y0, y0 + rows) of the frame converted to 4-byte pixels at `dst`
// (stepping `stride` bytes a row) through `scale`.
bool convertRows(ScalePtr& scale, const AVFrame* f, const AVPixFmtDescriptor* desc, int y0, int rows, uint8_t* dst,
                 int stride) {
  scale.reset(ffmpeg().sws_getCachedContext(scale.release(), f->width, rows, AVPixelFormat(f->format), f->width, rows,
                                            AV_PIX_FMT_BGRA, SWS_BICUBIC, nullptr, nullptr, nullptr));
  if (!scale) return false;
  const uint8_t* src[4] = {};
  int srcStride[4] = {};
  for (int p = 0; p < 4 && f->data[p]; ++p) {
    int shift = (p == 1 || p == 2) ? desc->log2_chroma_h : 0;
    src[p] = f->data[p] + ptrdiff_t(y0 >> shift) * f->linesize[p];
    srcStride[p] = f->linesize[p];
  }
  uint8_t* dstPlanes[4] = {dst, nullptr, nullptr, nullptr};
  int dstStride[4] = {stride, 0, 0, 0};
  ffmpeg().sws_scale(scale.get(), src, srcStride, 0, rows, dstPlanes, dstStride);
  return true;
}

// The whole frame into `out` from its last row back, so that the frame's
// top row lands at the top; a large frame in two bands on two threads.
bool convertFlipped(Track& track, const AVFrame* f, const AVPixFmtDescriptor* desc, uint8_t* out) {
  int w = f->width, h = f->height;
  int rowBytes = w * 4;
  auto band = [&](ScalePtr& scale, int y0, int rows) {
    return convertRows(scale, f, desc, y0, rows, out + size_t(h - 1 - y0) * size_t(rowBytes), -rowBytes);
  };
  // Bands start on a row every chroma row begins, for subsampled formats.
  int align = 1 << desc->log2_chroma_h;
  int split = int64_t(w) * h >= kBandedPixels ? h / 2 / align * align : 0;
  if (split <= 0) return band(track.scale, 0, h);
  auto lower = std::async(std::launch::async, [&] { return band(track.lowerScale, split, h - split); });
  bool upper = band(track.scale, 0, split);
  return lower.get() && upper;
}

}  // namespace

bool copyFrame(Track& track, const AVFrame* frame, uint8_t* out, int width, int height) {
  int fw = frame->width, fh = frame->height;
  auto format = AVPixelFormat(frame->format);
  const AVPixFmtDescriptor* desc = ffmpeg().av_pix_fmt_desc_get(format);
  if (fw < 1 || fh < 1 || !desc) return refuse(track.movie->finalName + ": a decoded frame is empty");
  size_t rowBytes = size_t(width) * 4;
  int rows = std::min(fh, height), cols = std::min(fw, width);
  if (format == AV_PIX_FMT_PAL8) {
    const auto* palette = reinterpret_cast<const uint32_t*>(frame->data[1]);
    for (int y = 0; y < rows; ++y) {
      const uint8_t* in = frame->data[0] + ptrdiff_t(fh - 1 - y) * frame->linesize[0];
      uint8_t* o = out + size_t(y) * rowBytes;
      for (int x = 0; x < cols; ++x, o += 4) {
        uint32_t c = palette[in[x]];
        o[0] = uint8_t(c);
        o[1] = uint8_t(c >> 8);
        o[2] = uint8_t(c >> 16);
        o[3] = 0xFF;
      }
    }
  } else {
    // A frame of another size than the movie goes through the buffer.
    bool whole = fw == width && fh == height;
    if (!whole) track.buffer.resize(size_t(fw) * fh * 4);
    bool converted = whole ? convertFlipped(track, frame, desc, out)
                           : convertRows(track.scale, frame, desc, 0, fh, track.buffer.data(), fw * 4);
    if (!converted) return refuse(track.movie->finalName + ": its frames (" + desc->name + ") cannot be converted");
    if (!whole)
      for (int y = 0; y < rows; ++y)
        std::memcpy(out + size_t(y) * rowBytes, track.buffer.data() + size_t(fh - 1 - y) * fw * 4, size_t(cols) * 4);
    if (desc->flags & AV_PIX_FMT_FLAG_ALPHA)
      for (int y = 0; y < rows; ++y)
        for (int x = 0; x < cols; ++x) out[size_t(y) * rowBytes + size_t(x) * 4 + 3] = 0xFF;
  }
  // What the frame does not cover is opaque black.
  static const uint8_t kBlack[4] = {0, 0, 0, 0xFF};
  for (int y = 0; y < height; ++y)
    for (int x = y < rows ? cols : 0; x < width; ++x)
      std::memcpy(out + size_t(y) * rowBytes + size_t(x) * 4, kBlack, 4);
  return true;
}

}  // namespace kelpmovie

int TmovieLayer::mvOpenFile(const char* name, int, TaviWrapper** movie) {
  if (!movie) return fail("no place for the movie's handle");
  *movie = nullptr;
  if (!layerReady()) return 1;
  if (!name || !*name) return fail("a movie needs a name");
  auto record = std::make_unique<Movie>();
  record->finalName = name;
  AVDictionary* options = nullptr;
  ffmpeg().av_dict_set(&options, "protocol_whitelist", "file", 0);
  const AVInputFormat* avi = ffmpeg().av_find_input_format("avi");
  int rc = ffmpeg().avformat_open_input(&record->file, ("file:" + record->finalName).c_str(), avi, &options);
  ffmpeg().av_dict_free(&options);
  if (rc < 0) {
    record->file = nullptr;  // freed by the failed open
    return fail(record->finalName + ": cannot be read as an AVI movie: " + errorText(rc));
  }
  *movie = record.release();
  setError("");
  return 0;
}

int TmovieLayer::mvGetNumTracks(TaviWrapper* handle) {
  Movie* movie = asMovie(handle);
  if (!movie) return 0;
  if (movie->trackCount != 0 || movie->usesTempFile) return movie->trackCount;
  if (AVStream* video = firstStream(movie->file, AVMEDIA_TYPE_VIDEO)) {
    movie->tracks[movie->trackCount] = newTrack(*movie, video, kVideo);
    ++movie->trackCount;
  }
  if (AVStream* audio = firstStream(movie->file, AVMEDIA_TYPE_AUDIO)) {
    movie->tracks[movie->trackCount] = newTrack(*movie, audio, kAudio);
    ++movie->trackCount;
  }
  return movie->trackCount;
}

int TmovieLayer::mvFindTrackByIndex(TaviWrapper* handle, int index, TaviWrapper** track) {
  Movie* movie = asMovie(handle);
  if (!movie || !track) return 1;
  if (index < 0 || index >= mvGetNumTracks(movie)) return fail("no track " + std::to_string(index));
  *track = movie->tracks[index].get();
  return 0;
}

int TmovieLayer::mvGetTrackLength(TaviWrapper* handle) {
  Track* track = asTrack(handle);
  if (!track) return 0;
  if (track->movie->usesTempFile) return int(std::min<int64_t>(track->nextFrame, INT_MAX));
  AVStream* st = track->stream;
  int64_t length = st->nb_frames;
  if (length <= 0 && track->medium == kVideo) length = ffmpeg().avformat_index_get_entries_count(st);
  if (length <= 0 && st->duration > 0) length = st->duration;
  return int(std::clamp<int64_t>(length, 0, INT_MAX));
}

int TmovieLayer::mvGetTrackMedium(TaviWrapper* handle) {
  Track* track = asTrack(handle);
  return track ? track->medium : -1;
}

int TmovieLayer::mvGetMovieRect(TaviWrapper* handle, tagRECT* rect) {
  Movie* movie = asMovie(handle);
  if (!movie || !rect) return 1;
  if (mvGetNumTracks(movie) == 0) return fail(movie->finalName + ": the movie has no tracks");
  Track& first = *movie->tracks[0];
  if (first.medium != kVideo || !first.stream) return fail(movie->finalName + ": the movie's first track is not video");
  int width = 0, height = 0;
  if (!movieSize(first, width, height)) return 1;
  *rect = tagRECT{0, height, width, 0};
  return 0;
}

int TmovieLayer::mvGetTrackRate(TaviWrapper* handle, double* rate) {
  Track* track = asTrack(handle);
  if (!track || !rate || !track->stream) return 1;
  const AVStream* st = track->stream;
  if (track->medium == kAudio)
    *rate = st->codecpar->sample_rate;
  else if (st->avg_frame_rate.num > 0 && st->avg_frame_rate.den > 0)
    *rate = av_q2d(st->avg_frame_rate);
  else if (st->time_base.num > 0 && st->time_base.den > 0)
    *rate = double(st->time_base.den) / st->time_base.num;
  else
    return fail("the track's rate is unknown");
  return 0;
}

int TmovieLayer::mvGetTrackCodec(TaviWrapper* handle, char* name, int size) {
  Track* track = asTrack(handle);
  if (!track || !name || size < 1 || !track->stream) return 1;
  const AVCodecParameters* par = track->stream->codecpar;
  std::string text = ffmpeg().avcodec_get_name(par->codec_id);
  uint32_t tag = par->codec_tag;
  if (tag != 0) {
    std::string code;
    for (int i = 0; i < 4; ++i) {
      char c = char(tag >> (8 * i));
      code += (c >= 32 && c < 127) ? c : '.';
    }
    text += " (" + code + ")";
  }
  std::snprintf(name, size_t(size), "%s", text.c_str());
  return 0;
}

int TmovieLayer::mvReadFrames(TaviWrapper* handle, int start, int count, unsigned, void* buffer) {
  Track* track = asTrack(handle);
  if (!track) return 1;
  if (track->movie->usesTempFile || track->medium != kVideo)
    return fail("frames are read from the video track of an open movie");
  if (!buffer || start < 0 || count < 1) return fail("frames are read from frame 0 on, at least one");
  int length = mvGetTrackLength(track);
  if (length > 0 && int64_t(start) + count > length)
    return fail(frameName(*track, int64_t(start) + count - 1) + " is past the movie's end (" + std::to_string(length) +
                " frames)");
  int width = 0, height = 0;
  if (!movieSize(*track, width, height)) return 1;
  auto* out = static_cast<uint8_t*>(buffer);
  for (int i = 0; i < count; ++i) {
    const AVFrame* frame = decodeFrame(*track, int64_t(start) + i);
    if (!frame || !copyFrame(*track, frame, out + size_t(i) * width * height * 4, width, height)) return 1;
  }
  setError("");
  return 0;
}
