// kimg find: the file a loose image name stands for, as a renderer finds it.
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "commands.h"
#include "kelpimage/naming/timagefilesearchpath.h"
#include "kelpimage/naming/tprojectmgr.h"
#include "util.h"

namespace kimg {
namespace {

// The disk lookup, noting every name it is asked about.
struct Noting : TdiskProjectMgr {
  std::vector<std::string> asked;
  bool findFile(const Tstring& name, TfileObjectTypeName::Trule rule, TfileObjectTypeName::Tlocation location, int flag,
                Tstring& resolved) override {
    // The search may ask about a name again: it is listed once.
    if (std::find(asked.begin(), asked.end(), name.str()) == asked.end()) asked.push_back(name.str());
    return TdiskProjectMgr::findFile(name, rule, location, flag, resolved);
  }
};

}  // namespace

int find(const FindOptions& o) {
  TcameraTypes::TfieldType field = o.field == "even"  ? TcameraTypes::kEvenField
                                   : o.field == "odd" ? TcameraTypes::kOddField
                                                      : TcameraTypes::kFrame;
  TimageFileSearchPath::initImageFileSearchPath(field, Tstring(".o"), Tstring(".e"), Tstring());
  Noting project;
  TprojectMgrBase::theProjectMgr = &project;
  Tstring found;
  std::string frameExt(1, '.');
  frameExt += std::to_string(o.frame < 0 ? 0 : o.frame);
  bool ok = TimageFileSearchPath::exactImageName(Tstring(o.name), found, o.frame >= 0, Tstring(frameExt));
  TprojectMgrBase::theProjectMgr = nullptr;
  if (o.verbose)
    for (const std::string& name : project.asked) std::fprintf(stderr, "tried %s\n", name.c_str());
  if (!ok)
    return fail(o.name, "no file found (" + std::to_string(project.asked.size()) + " names tried" +
                            (o.verbose ? ")" : "; -v lists them)"));
  std::printf("%s\n", found.asChar());
  return 0;
}

}  // namespace kimg
