// Files that claim far more than they hold are refused at their open, with
// the reason, before anything the size of the picture is allocated; a
// JPEG cut short is an error, and a lenient read steps over it saying so.
#include <gtest/gtest.h>

#include <string>

#include "kelpimage/base/tlimits.h"
#include "kelpimage/convert/conversions.h"
#include "kelpimage/io/timagereader.h"
#include "kelpimage/plugin/plugins.h"
#include "kelpimage/plugin/pxf.h"
#include "testutil.h"

namespace {

std::string hostile(const std::string& name) { return std::string(KELP_TEST_SOURCE_DIR) + "/plugin/hostile/" + name; }

// Opens a file through the framework: the handle, or null with PXF_last_error.
PxfHandle* open(const std::string& path, int lenient = 0) {
  loadAllPXFPlugins();
  PxfFileInfo info;
  PXF_info_init(&info);
  info.name = info.name2 = path.c_str();
  PxfImageData wanted;
  wanted.lenient = lenient;
  info.image = &wanted;
  return PXF_open(&info, "r");
}

}  // namespace

TEST(HostileInputs, RefusedAtTheOpenWithTheReason) {
  struct Case {
    const char* file;
    const char* reason;
  };
  for (const Case& c : {Case{"tga-rle-16384x16384.tga", "a file of 23 bytes cannot hold a picture of 16384 x 16384"},
                        Case{"bmp-claims-20000x20000.bmp", "cannot hold a picture of 20000 x 20000"},
                        Case{"jpeg-claims-32000x32000.jpg", "32000 x 32000 pixels is past the limit of 134217728"},
                        Case{"webp-animation-canvas-16384x16384.webp", "16384 x 16384 pixels is past the limit"},
                        Case{"exr-data-window-20000x20000.exr", ""}}) {
    SCOPED_TRACE(c.file);
    PxfHandle* handle = open(hostile(c.file));
    EXPECT_EQ(handle, nullptr);
    if (handle) PXF_close(handle);
    EXPECT_NE(std::string(PXF_last_error()).find(c.reason), std::string::npos) << PXF_last_error();
    EXPECT_STRNE(PXF_last_error(), "");
  }
}

TEST(HostileInputs, ALargerLimitOpensTheHeaderAndDecodesNothing) {
  // Raised past the canvas, the animation opens: its header and frame
  // count come from its chunks, and no pixel is decoded until a row is.
  TpixelLimit::set(uint64_t(1) << 30);
  PxfHandle* handle = open(hostile("webp-animation-canvas-16384x16384.webp"));
  ASSERT_NE(handle, nullptr) << PXF_last_error();
  EXPECT_EQ(handle->image->width(), 16384);
  EXPECT_EQ(handle->frameCount, 2);
  PXF_close(handle);
  TpixelLimit::set(0);
  EXPECT_EQ(TpixelLimit::get(), TpixelLimit::kDefault);
}

TEST(HostileInputs, AJpegCutShortFailsUnlessLenient) {
  kelptest::TempDir dir;
  kelptest::Reports reports;
  loadAllPXFPlugins();
  EXPECT_EQ(anytoiff(hostile("jpeg-cut-at-80-percent.jpg").c_str(), dir.file("out.iff").c_str(), nullptr, 0), -1);
  EXPECT_NE(reports.text.find("Premature end of JPEG file"), std::string::npos) << reports.text;

  PxfHandle* handle = open(hostile("jpeg-cut-at-80-percent.jpg"), 1);
  ASSERT_NE(handle, nullptr) << PXF_last_error();
  PxfChannels* channels = PXF_chan_alloc(handle->image, handle->image->width(), "jpg", nullptr);
  std::string said;
  for (int32_t row = handle->image->height() - 1; row >= 0; --row) {
    ASSERT_EQ(PXF_scan_read(handle, row, channels), 0) << row;
    if (said.empty()) said = PXF_last_error();
  }
  EXPECT_NE(said.find("Premature end of JPEG file"), std::string::npos) << said;
  PXF_chan_free(channels);
  PXF_close(handle);
}

// What the fuzz targets found: refused from memory with the reason, and
// nothing held after (the sanitizer build sees to leaks).
TEST(HostileInputs, FuzzFindingsAreRefusedFromMemory) {
  struct Case {
    const char* file;
    const char* key;
    const char* reason;
  };
  for (const Case& c : {Case{"gif-bad-signature-taken-as-gif.gif", "gif", ""},
                        Case{"exr-attribute-claims-1792-mib.exr", "exr", "claims more bytes than the file holds"},
                        Case{"exr-long-name-then-832-mib.exr", "exr", "the header is damaged"},
                        Case{"exr-channel-list-shorter-than-declared.exr", "exr", "the header is damaged"}}) {
    SCOPED_TRACE(c.file);
    std::vector<uint8_t> bytes = kelptest::readBytes(hostile(c.file));
    TimageReader reader;
    TreadOptions options;
    options.key = c.key;
    EXPECT_FALSE(reader.openMemory(bytes.data(), bytes.size(), "found", options));
    EXPECT_EQ(reader.error().rfind("found: ", 0), 0u) << reader.error();
    EXPECT_NE(reader.error().find(c.reason), std::string::npos) << reader.error();
  }
}
