// A movie for reading, as the host uses one: its size, its frame count and
// one pixel map a frame.
#pragma once

#include <memory>

#include "kelpimage/base/tgeometry.h"
#include "kelpimage/base/tpixelmap.h"
#include "kelpimage/kelpexport.h"
#include "kelpimage/movie/tmovielayer.h"

class KELP_API Tmovie : public TportRect {
 public:
  Tmovie() = default;
  // Takes over a movie opened with TmovieLayer::mvOpenFile; it is closed
  // when the last Tmovie that shares it goes.
  explicit Tmovie(TaviWrapper* movie);
  Tmovie(const Tmovie& other) = default;
  Tmovie& operator=(const Tmovie& other) = default;
  ~Tmovie() override = default;

  // Closes the movie held (unless a copy still shares it) and takes `movie`.
  void movieID(TaviWrapper* movie);
  TaviWrapper* movieID() const { return fMovie.get(); }
  int imageTrackLength() const { return fImageTrackLength; }
  // The number of tracks.
  int size() const { return fTrackCount; }

  // Sizes `map` to the movie and fills it with frame `frame`, bottom row
  // first, fully opaque. False, with the reason in
  // TmovieLayer::mvLastError(), if the frame cannot be read.
  bool readFrame(int frame, TpixelMap& map);

 private:
  std::shared_ptr<TaviWrapper> fMovie;
  TaviWrapper* fImageTrack = nullptr;
  int fImageTrackLength = 0;
  TaviWrapper* fAudioTrack = nullptr;
  int fTrackCount = 0;
};
