// kimg movie: AVI movies made from pictures, and their frames written out.
#pragma once

#include <string>
#include <vector>

namespace kimg {

struct MovieOptions {
  std::string movie;                // the movie made, or read with --extract
  std::vector<std::string> frames;  // pictures or frame patterns, in order
  double rate = 24;
  std::string codec;    // a handler code; empty: the stored choice or FFV1
  std::string extract;  // a frame pattern to write the movie's frames to
};

int movie(const MovieOptions& options);
// True for a file that starts as an AVI movie does.
bool isAvi(const std::string& path);
// kimg info for a movie: size, frames, rate and codec of each track.
int infoMovie(const std::string& name, const std::string& path);

}  // namespace kimg
