// FFmpeg's entry points, bound by name from the libraries opened at run
// time (internal to the movie layer). Only the headers are used when
// building: every call goes through this table.
#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

#include <memory>
#include <string>

class TdynamicLoad;

namespace kelpmovie {

// Each entry as X(library, name): 0 libavformat, 1 libavcodec, 2 libavutil,
// 3 libswscale.
#define KELP_FFMPEG_ENTRIES(X)           \
  X(0, avformat_alloc_output_context2)   \
  X(0, avformat_new_stream)              \
  X(0, avformat_write_header)            \
  X(0, av_write_frame)                   \
  X(0, av_write_trailer)                 \
  X(0, avformat_free_context)            \
  X(0, avformat_open_input)              \
  X(0, avformat_close_input)             \
  X(0, av_find_input_format)             \
  X(0, av_read_frame)                    \
  X(0, av_seek_frame)                    \
  X(0, avio_open2)                       \
  X(0, avio_closep)                      \
  X(0, avformat_index_get_entries_count) \
  X(1, avcodec_find_encoder)             \
  X(1, avcodec_find_decoder)             \
  X(1, avcodec_alloc_context3)           \
  X(1, avcodec_free_context)             \
  X(1, avcodec_open2)                    \
  X(1, avcodec_parameters_from_context)  \
  X(1, avcodec_parameters_to_context)    \
  X(1, avcodec_send_frame)               \
  X(1, avcodec_receive_packet)           \
  X(1, avcodec_send_packet)              \
  X(1, avcodec_receive_frame)            \
  X(1, avcodec_flush_buffers)            \
  X(1, avcodec_get_name)                 \
  X(1, av_packet_alloc)                  \
  X(1, av_packet_free)                   \
  X(1, av_packet_unref)                  \
  X(1, av_new_packet)                    \
  X(1, av_packet_rescale_ts)             \
  X(2, av_frame_alloc)                   \
  X(2, av_frame_free)                    \
  X(2, av_frame_unref)                   \
  X(2, av_frame_get_buffer)              \
  X(2, av_frame_make_writable)           \
  X(2, av_frame_move_ref)                \
  X(2, av_log_set_level)                 \
  X(2, av_strerror)                      \
  X(2, av_dict_set)                      \
  X(2, av_dict_free)                     \
  X(2, av_pix_fmt_desc_get)              \
  X(2, av_channel_layout_default)        \
  X(3, sws_getCachedContext)             \
  X(3, sws_scale)                        \
  X(3, sws_freeContext)

struct Ffmpeg {
#define KELP_FFMPEG_POINTER(lib, name) decltype(&::name) name = nullptr;
  KELP_FFMPEG_ENTRIES(KELP_FFMPEG_POINTER)
#undef KELP_FFMPEG_POINTER
};

// The bound entries; valid while the layer is started.
Ffmpeg& ffmpeg();

// The file names of the four libraries, with the major versions this
// library was built against, in the folder KELP_FFMPEG_DIR names if set.
std::string libraryName(int library);
// Opens the libraries and binds every entry. False, with the reason in
// `why`, if a library or an entry is missing; nothing stays open then.
bool bindFfmpeg(std::unique_ptr<TdynamicLoad> (&handles)[4], std::string& why);
void unbindFfmpeg();

// FFmpeg's words for an error code.
std::string errorText(int code);

}  // namespace kelpmovie
