// kimg filters: the zoom filters there are, built in and in the work area.
#include <dirent.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "commands.h"
#include "kelpimage/il/il.h"

namespace kimg {

int filters() {
  std::printf("built in:");
  for (int i = 0; const char* name = ILbuiltinfilter(i); ++i) std::printf(" %s", name);
  std::printf("\n");
  std::string dir = std::string(FLgetwork(nullptr)) + "/filters";
  std::vector<std::string> programs;
  if (DIR* d = opendir(dir.c_str())) {
    while (const dirent* e = readdir(d))
      if (e->d_name[0] != '.') programs.push_back(e->d_name);
    closedir(d);
  }
  std::sort(programs.begin(), programs.end());
  std::printf("programs in %s:", dir.c_str());
  for (const std::string& p : programs) std::printf(" %s", p.c_str());
  std::printf(programs.empty() ? " none\n" : "\n");
  return 0;
}

}  // namespace kimg
