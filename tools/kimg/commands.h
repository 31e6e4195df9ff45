// The subcommands of kimg. Each returns the process exit status.
#pragma once

#include <string>
#include <vector>

namespace kimg {

struct CreateOptions {
  std::string out;
  std::string size = "384x288";
  std::string type = "rgba";
  int bytes = 1;
  std::string compression = "rle";
  float dpi = 72.0f;
  std::string origin = "0,0";
  std::string ratio = "1:1";
  std::vector<std::string> fields;  // TAG=TEXT
  int images = 1;
};

int info(const std::vector<std::string>& files);
int chunks(const std::string& file);
int create(const CreateOptions& options);

}  // namespace kimg
