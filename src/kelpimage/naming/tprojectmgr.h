// The project manager: the host's service that says whether an image a
// scene names exists among the project's images, and where. A host installs
// its own; without one, TdiskProjectMgr looks on disk.
#pragma once

#include <string>
#include <vector>

#include "kelpimage/base/tstring.h"
#include "kelpimage/kelpexport.h"

// The kinds of file object a lookup asks about.
struct TfileObjectTypeName {
  enum Trule { kTR_Image = 1 };
  enum Tlocation { kRT_SourceImages = 1, kRT_Images = 2 };
};

class KELP_API TprojectMgrBase {
 public:
  virtual ~TprojectMgrBase();
  // The project's root folder; empty when there is none.
  virtual Tstring projectRoot() const;
  // Whether `name` exists as a file of `rule` in `location`; its full name
  // in `resolved` when it does. `flag` 1 asks for files only.
  virtual bool findFile(const Tstring& name, TfileObjectTypeName::Trule rule, TfileObjectTypeName::Tlocation location,
                        int flag, Tstring& resolved) = 0;
  // The folder where files of `rule` go in `location`: rendered images in
  // kRT_Images. By default the folder set with setOutputDirectory, or the
  // current one.
  virtual Tstring directoryOf(TfileObjectTypeName::Trule rule, TfileObjectTypeName::Tlocation location) const;
  static void setOutputDirectory(const Tstring& folder);

  // The host's project manager, or null for the disk lookup. The host sets
  // it before the library looks up names, and keeps it alive while it is set.
  static TprojectMgrBase* theProjectMgr;
  // theProjectMgr, or the library's disk lookup when it is null.
  static TprojectMgrBase& current();
};

// The lookup on disk: an absolute name as it stands; a relative one in each
// of the image folders the host sets, in order, or, when it sets none, the
// name itself and then along the image search path that ILopen uses.
class KELP_API TdiskProjectMgr : public TprojectMgrBase {
 public:
  bool findFile(const Tstring& name, TfileObjectTypeName::Trule rule, TfileObjectTypeName::Tlocation location, int flag,
                Tstring& resolved) override;

  // The image folders, searched in order; empty for the search path.
  static void setImageDirectories(const std::vector<std::string>& folders);
  static std::vector<std::string> imageDirectories();
};
