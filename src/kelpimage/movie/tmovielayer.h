// Movie files as tracks: a small interface shaped like a track-based movie
// library (movies with tracks, "mv" calls, "dm" parameter blocks), carried
// out on FFmpeg's libraries (libavformat, libavcodec, libavutil, libswscale).
// Those libraries are opened by name when the layer starts, never linked, so
// the library loads and runs on a machine without them: there
// initMovieLayer() answers false and every call fails cleanly.
//
// Movies are AVI files. A written movie's video codec is chosen by a
// four-character handler code: "DIB " (uncompressed 24-bit), "MJPG" (Motion
// JPEG), "msvc" (Microsoft Video 1), "cvid" (Cinepak) and "FFV1" (lossless,
// the default when the settings store holds no choice). Audio is 16-bit PCM.
//
// Pixels, both ways, are 4 bytes each (blue, green, red, a fourth byte) in
// rows from the bottom up. Unless told otherwise a call answers 0 on
// success and 1 on failure; mvLastError() says why in words. The layer is
// for one thread at a time.
#pragma once

#include <cstdint>

#include "kelpimage/base/tdynamicload.h"
#include "kelpimage/kelpexport.h"

// An open movie, and also an open track of one: the calls take each where
// they say so, and refuse the other kind.
struct TaviWrapper;

// A rectangle as the movie calls give it: left, top, right, bottom.
struct tagRECT {
  int32_t left = 0, top = 0, right = 0, bottom = 0;
};

class KELP_API TmovieLayer {
 public:
  enum Medium { kVideo = 0, kAudio = 1 };
  // Sizes of a parameter block and of the compression options' fixed part.
  static constexpr int kParamsSize = 256;
  static constexpr int kOptionsSize = 44;

  // Starts the layer: opens the libraries and sets the compression options
  // from the settings store. True when the layer is ready; a second call
  // only answers true. The libraries are looked for where the system looks
  // for libraries, or in the folder named by KELP_FFMPEG_DIR.
  static bool initMovieLayer();
  // Ends the layer (one start undone); at the last, the libraries close.
  ~TmovieLayer();

  // Opens `name` for reading; `mode` is not used.
  static int mvOpenFile(const char* name, int mode, TaviWrapper** movie);
  // Makes a movie for writing. A name whose extension is not ".avi" in any
  // case gets ".AVI" appended. The movie is written beside its name under a
  // temporary one and moved into place by mvClose, so the name holds the old
  // file, or none, until then. The two blocks are not used.
  static int mvCreateFile(const char* name, unsigned char* imageParams, unsigned char* audioParams,
                          TaviWrapper** movie);
  // Closes a movie and its tracks. A written movie is finished and moved
  // into place: 0 if that worked. When it does not, the temporary file goes
  // and the name keeps what it held. A movie opened for reading closes with 1.
  static int mvClose(TaviWrapper* movie);
  // Closes a movie being written without finishing it: its temporary file
  // goes and its name keeps what it held. For a movie opened for reading,
  // the same as mvClose.
  static int mvAbandon(TaviWrapper* movie);

  // Adds a video (0) or audio (1) track to a movie being written; `params`
  // is a block set by dmSetImageDefaults or dmSetAudioDefaults.
  static int mvAddTrack(TaviWrapper* movie, int medium, unsigned char* params, unsigned char* ignored,
                        TaviWrapper** track);
  // Makes a video track's stream at `rate` frames a second, truncated to an
  // integer. Only once a track: a second call answers non-zero at once.
  static int mvSetImageRate(TaviWrapper* track, double rate);
  // Does nothing.
  static int mvSetTrackSMPTEStart(TaviWrapper* track, const char* start);
  // Video: writes the one frame in `data` (width x height pixels) at frame
  // `start`, lasting `count` frames; `size` is not used. Audio: writes
  // `size` sample frames of 16-bit PCM from `data` at `start`. Frames go
  // forward only.
  static int mvInsertFrames(TaviWrapper* track, int start, int count, unsigned size, void* data);
  // Reads `count` frames from `start` of a video track into `buffer`, each
  // the movie's width x height pixels, one after another; the fourth byte
  // is 255. Where a decoded frame is smaller than the movie, the rest is
  // opaque black. `size` is not used.
  static int mvReadFrames(TaviWrapper* track, int start, int count, unsigned size, void* buffer);

  // The tracks of a movie: at most one video and one audio track.
  static int mvGetNumTracks(TaviWrapper* movie);
  static int mvFindTrackByIndex(TaviWrapper* movie, int index, TaviWrapper** track);
  // Frames of a video track, sample frames of an audio track; 0 if unknown.
  static int mvGetTrackLength(TaviWrapper* track);
  // 0 video, 1 audio; -1 for what is not a track.
  static int mvGetTrackMedium(TaviWrapper* track);
  // The movie's frame rectangle in bottom-up form: top and bottom swapped.
  static int mvGetMovieRect(TaviWrapper* movie, tagRECT* rect);
  // A track's frames (or samples) a second, and its codec's name.
  static int mvGetTrackRate(TaviWrapper* track, double* rate);
  static int mvGetTrackCodec(TaviWrapper* track, char* name, int size);

  // The compression options. 0: the stored choice ("VIDEO_COMPRESSION_OPTS"
  // in the settings store) or the default, unless a handler is already set.
  // -1: the compression dialog; there is no window here, so the options
  // stay as they are and are stored as the user's choice, as an accepted
  // dialog would store them. Any other value: a handler code (four
  // characters, the first in the low byte); a code no encoder here takes
  // answers 1 and changes nothing.
  static int mvSetMovieDefaults(unsigned char* ignored, int mode);
  // Rounds width and height down to multiples of 4 for codecs that need it;
  // true if either changed.
  static bool mvVideoResolutionClamp(int* width, int* height);

  // Parameter blocks of kParamsSize bytes.
  static int dmParamsCreate(unsigned char** block);
  static int dmParamsDestroy(unsigned char* block);
  static int dmSetImageDefaults(unsigned char* block, int width, int height, int ignored);
  static int dmSetAudioDefaults(unsigned char* block, int bits, int rate, int channels);

  // Why the last call of this thread failed, in words; empty if none did.
  static const char* mvLastError();
  // A handler code from its text ("MJPG", "DIB " or "DIB"); 0 if the text
  // is longer than four characters or empty.
  static int mvHandlerCode(const char* text);

 private:
  static int finitcount;
  static TdynamicLoad* fsMovieHandle;
  static TdynamicLoad* fsCompressHandle;
};
