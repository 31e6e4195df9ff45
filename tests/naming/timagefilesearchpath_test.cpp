// Image name search: the order of candidates the project manager is asked
// about, field markers turned to the current field, format and frame
// exchanged, and the disk lookup finding files placed in image folders.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "kelpimage/naming/timagefilesearchpath.h"
#include "kelpimage/naming/tprojectmgr.h"
#include "testutil.h"

using namespace kelptest;

namespace {

// A project manager that notes every name it is asked about and knows the
// names in `files`.
struct Recorder : TprojectMgrBase {
  std::vector<std::string> asked;
  std::set<std::string> files;
  Recorder() { theProjectMgr = this; }
  ~Recorder() override { theProjectMgr = nullptr; }
  bool findFile(const Tstring& name, TfileObjectTypeName::Trule, TfileObjectTypeName::Tlocation, int,
                Tstring& resolved) override {
    asked.push_back(name.str());
    if (!files.count(name.str())) return false;
    resolved = Tstring("/project/" + name.str());
    return true;
  }
};

bool expand(const std::string& name, std::string& out, bool useFrame = false, const std::string& frame = "") {
  Tstring expanded;
  bool found = TimageFileSearchPath::exactImageName(Tstring(name), expanded, useFrame, Tstring(frame));
  out = expanded.str();
  return found;
}

}  // namespace

// A one-digit frame, field 2 and no format extension: the five frame forms,
// then with the even marker, then all again with ".Z"; each asked twice.
TEST(TimageFileSearchPath, CandidateOrderAndItsLimit) {
  TimageFileSearchPath::initImageFileSearchPath(TcameraTypes::kEvenField, ".o", ".e", ".iff");
  Recorder project;
  std::string out;
  EXPECT_FALSE(expand("dir/shot", out, true, ".7"));
  std::vector<std::string> expected;
  for (std::string z : {"", ".Z"})
    for (std::string field : {"", ".e"})
      for (std::string frame : {".7", ".07", ".007", ".0007", ".00007"})
        for (int twice = 0; twice < 2; ++twice) expected.push_back("dir/shot" + field + frame + z);
  EXPECT_EQ(project.asked, expected);
  EXPECT_EQ(project.asked.size(), 40u);
  EXPECT_EQ(out, "");  // expanded is set only on success

  // The last candidate stays in the buffer of the character form.
  char name[] = "dir\\shot";
  char frame[] = ".7";
  char expanded[4096];
  EXPECT_FALSE(TimageFileSearchPath::expandImageName(name, expanded, true, frame));
  EXPECT_STREQ(expanded, "dir/shot.e.00007.Z");
  EXPECT_STREQ(name, "dir/shot");

  // A hit on ".Z" comes after every uncompressed try.
  project.asked.clear();
  project.files = {"dir/shot.e.07.Z", "dir/shot.e.0007"};
  EXPECT_TRUE(expand("dir/shot", out, true, ".7"));
  EXPECT_EQ(out, "/project/dir/shot.e.0007");
  EXPECT_EQ(project.asked.size(), 10u + 7u);
  EXPECT_FALSE(expand("", out));
}

// Field markers turn to the current field; other fields add none; format
// and frame are tried both ways round; a name found as it stands is taken.
TEST(TimageFileSearchPath, MarkersFormatsAndFrames) {
  Recorder project;
  std::string out;
  TimageFileSearchPath::initImageFileSearchPath(TcameraTypes::kEvenField, ".o", ".e", "");
  EXPECT_FALSE(expand("img.o.0003", out));
  ASSERT_GE(project.asked.size(), 3u);
  EXPECT_EQ(project.asked[0], "img.o.0003");  // as it stands, first
  EXPECT_EQ(project.asked[1], "img.e.0003");
  EXPECT_EQ(project.asked.size(), 1u + 4u);  // no frame forms, no second field

  project.asked.clear();
  TimageFileSearchPath::initImageFileSearchPath(TcameraTypes::kFrame, ".o", ".e", "");
  EXPECT_FALSE(expand("pic.0012.tif", out));
  EXPECT_EQ(project.asked, (std::vector<std::string>{"pic.0012.tif", "pic.tif.0012", "pic.0012.tif", "pic.tif.0012.Z",
                                                     "pic.0012.tif.Z"}));
  project.files = {"pic.tif.0012"};
  EXPECT_TRUE(expand("pic.0012.tif", out));
  EXPECT_EQ(out, "/project/pic.tif.0012");

  // Field 1 with a frame: five forms, two compressions, no marker.
  project.asked.clear();
  project.files.clear();
  EXPECT_FALSE(expand("./a/b.rgb", out, true, ".3"));
  EXPECT_EQ(project.asked.size(), 20u);
  EXPECT_EQ(project.asked[0], "./a/b.rgb.3");
  EXPECT_EQ(project.asked[1], "./a/b.3.rgb");
  // A directory of "." adds no directory part.
  project.asked.clear();
  EXPECT_FALSE(expand("b.Z", out));
  EXPECT_EQ(project.asked, (std::vector<std::string>{"b.Z", "b.Z", "b.Z"}));
}

// Without a host's project manager, files are looked for in the image
// folders the host sets.
TEST(TimageFileSearchPath, DiskLookupInImageFolders) {
  TempDir images, other;
  writeBytes(images.file("render.e.007.iff"), {1});
  writeBytes(other.file("plate.iff"), {1});
  TdiskProjectMgr::setImageDirectories({other.path().string(), images.path().string()});
  TimageFileSearchPath::initImageFileSearchPath(TcameraTypes::kEvenField, ".o", ".e", "");
  std::string out;
  EXPECT_TRUE(expand("render.iff", out, true, ".7"));
  EXPECT_EQ(out, images.file("render.e.007.iff"));
  EXPECT_TRUE(expand("plate.iff", out));
  EXPECT_EQ(out, other.file("plate.iff"));
  EXPECT_FALSE(expand("missing.iff", out, true, ".7"));
  EXPECT_TRUE(expand(images.file("render.e.007.iff"), out));  // an absolute name as it stands
  TdiskProjectMgr::setImageDirectories({});
  TimageFileSearchPath::initImageFileSearchPath(TcameraTypes::kFrame, "", "", "");
}
