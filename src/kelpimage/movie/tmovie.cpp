#include "kelpimage/movie/tmovie.h"

#include "kelpimage/movie/movieframes.h"

Tmovie::Tmovie(TaviWrapper* movie) { movieID(movie); }

void Tmovie::movieID(TaviWrapper* movie) {
  *this = Tmovie();
  if (!movie) return;
  fMovie.reset(movie, [](TaviWrapper* m) { TmovieLayer::mvClose(m); });
  fTrackCount = TmovieLayer::mvGetNumTracks(movie);
  tagRECT rect;
  if (TmovieLayer::mvGetMovieRect(movie, &rect) == 0)
    static_cast<TportRect&>(*this) =
        TportRect(int16_t(rect.left), int16_t(rect.bottom), int16_t(rect.right), int16_t(rect.top));
  for (int i = 0; i < fTrackCount; ++i) {
    TaviWrapper* track = nullptr;
    if (TmovieLayer::mvFindTrackByIndex(movie, i, &track) != 0) continue;
    if (TmovieLayer::mvGetTrackMedium(track) == TmovieLayer::kVideo) {
      fImageTrack = track;
      fImageTrackLength = TmovieLayer::mvGetTrackLength(track);
    } else {
      fAudioTrack = track;
    }
  }
}

bool Tmovie::readFrame(int frame, TpixelMap& map) {
  kelpmovie::Track* track = kelpmovie::asTrack(fImageTrack);
  if (!track) return false;
  if (frame < 0 || (fImageTrackLength > 0 && frame >= fImageTrackLength)) {
    kelpmovie::setError(track->movie->finalName + ": frame " + std::to_string(frame) + " is past the movie's end (" +
                        std::to_string(fImageTrackLength) + " frames)");
    return false;
  }
  // The frame is decoded before the map is sized for it, so that a file
  // claiming a huge size without frames to match costs nothing.
  int width = 0, height = 0;
  const AVFrame* decoded =
      kelpmovie::movieSize(*track, width, height) ? kelpmovie::decodeFrame(*track, frame) : nullptr;
  if (!decoded) return false;
  // Every pixel is written below: a map already of this size is not
  // cleared first, as reading frame after frame into one map would.
  if (!map.ownsPixels() || map.width() != width || map.height() != height) map.setSize(width, height);
  if (map.width() != width || map.height() != height) return false;
  return kelpmovie::copyFrame(*track, decoded, reinterpret_cast<uint8_t*>(map.pixels()), width, height);
}
