#include "kelpimage/photoshop/psdinterface.h"

#include <gtest/gtest.h>

#include "testutil.h"

using namespace zkPhotoshop;

TEST(PsdInterface, StatusesAndTheDocumentLifecycle) {
  kelptest::TempDir dir;
  // Not a document: failed, and no object made.
  kelptest::writeBytes(dir.file("not.psd"), {'n', 'o', 't', ' ', 'p', 's', 'd'});
  TphotoshopFile* file = nullptr;
  EXPECT_EQ(openPsdFile(TfilePath(dir.file("not.psd").c_str()), file, false), statusFailed);
  EXPECT_EQ(file, nullptr);
  // A null file fails everywhere.
  TstringArray names;
  TrgbaData* image = nullptr;
  EXPECT_EQ(getLayerNames(nullptr, names), statusFailed);
  EXPECT_EQ(compositeImage(nullptr, image), statusFailed);
  EXPECT_FALSE(closePsdFile(file));

  // A new document closed with no layers is a valid file with a blank
  // composite; with a layer, its names come back.
  unsigned short w = 6, h = 4;
  ASSERT_EQ(createPsdFile(TfilePath(dir.file("new.psd").c_str()), file, w, h), statusOk);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(createLayerSet(file, "set", nullptr), statusOk);
  EXPECT_EQ(createLayerInLayerSet(file, "set", "inside"), statusOk);
  EXPECT_EQ(createLayerInLayerSet(file, "no set", "x"), statusFailed);
  EXPECT_EQ(setLayerOpacity(file, "inside", 300), statusOk);
  EXPECT_TRUE(closePsdFile(file));
  delete file;
  file = nullptr;

  ASSERT_EQ(openPsdFile(TfilePath(dir.file("new.psd").c_str()), file, false), statusOk);
  EXPECT_EQ(getLayerNames(file, names), statusOk);
  ASSERT_EQ(names.length(), 2);
  EXPECT_EQ(names[0], "Background");
  EXPECT_EQ(names[1], "inside");
  TstringArray sets;
  EXPECT_EQ(getLayerSetNames(file, sets), statusOk);
  EXPECT_EQ(compositeImage(file, image), statusOk);
  EXPECT_EQ(image->width(), 6u);
  EXPECT_EQ(readLayerImage(file, "none", image), statusFailed);
  EXPECT_EQ(static_cast<TpsdFile*>(file)->getLayerObjFromName("inside")->fOpacity, 300 % 256);
  EXPECT_TRUE(closePsdFile(file));  // read, not changed: nothing written
  delete file;
}
