#include "kelpimage/movie/codecs.h"

#include <cctype>

namespace kelpmovie {
namespace {

struct Codec {
  const char* code;
  AVCodecID id;
  AVPixelFormat input;  // what frames are handed over in
};

// Each codec takes its frames in the format it keeps losslessly: 24-bit
// bottom rows for "DIB ", full-range 4:4:4 for Motion JPEG, 15 bits for
// Video 1, RGB for Cinepak and FFV1.
const Codec kCodecs[] = {
    {"DIB ", AV_CODEC_ID_RAWVIDEO, AV_PIX_FMT_BGR24},    {"MJPG", AV_CODEC_ID_MJPEG, AV_PIX_FMT_YUVJ444P},
    {"MSVC", AV_CODEC_ID_MSVIDEO1, AV_PIX_FMT_RGB555LE}, {"CVID", AV_CODEC_ID_CINEPAK, AV_PIX_FMT_RGB24},
    {"FFV1", AV_CODEC_ID_FFV1, AV_PIX_FMT_BGR0},
};

const Codec* codecFor(uint32_t handler) {
  char text[5] = {};
  for (int i = 0; i < 4; ++i) text[i] = char(std::toupper(int((handler >> (8 * i)) & 0xff)));
  for (const Codec& c : kCodecs)
    if (std::string_view(c.code) == text) return &c;
  return nullptr;
}

bool takes(const AVCodec* codec, AVPixelFormat format) {
  if (!codec->pix_fmts) return true;  // raw video takes any
  for (const AVPixelFormat* f = codec->pix_fmts; *f != AV_PIX_FMT_NONE; ++f)
    if (*f == format) return true;
  return false;
}

}  // namespace

const AVCodec* encoderFor(uint32_t handler) {
  const Codec* c = codecFor(handler);
  return c ? ffmpeg().avcodec_find_encoder(c->id) : nullptr;
}

AVPixelFormat encoderInput(const AVCodec* codec, bool palette) {
  if (palette) return takes(codec, AV_PIX_FMT_PAL8) ? AV_PIX_FMT_PAL8 : AV_PIX_FMT_NONE;
  for (const Codec& c : kCodecs)
    if (c.id == codec->id && takes(codec, c.input)) return c.input;
  return AV_PIX_FMT_NONE;
}

}  // namespace kelpmovie
