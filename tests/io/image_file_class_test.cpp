#include "vorn/io/image_file_class.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <vector>

#include "io/raster_test_support.h"
#include "io/raw_test_support.h"
#include "support/temp_dir.h"
#include "vorn/io/image_reader.h"

namespace vorn {
namespace {

std::string copyInto(const test::TempDir& dir, const std::string& source, const std::string& name) {
  const std::string copy = (dir.path() / name).string();
  std::filesystem::copy_file(source, copy);
  return copy;
}

TEST(ImageFileClass, NameSignatureAndCameraModelDecideTheKind) {
  test::TempDir dir("classify");
  const std::string jpeg = test::raster::dataFile("fallenleaf_canon_eos70d.jpg");
  const ImageFileClass photo = classifyImageFile(jpeg);
  ASSERT_TRUE(photo.isRead());
  EXPECT_EQ(photo.format, ImageFileFormat::Jpeg);
  EXPECT_EQ(photo.signature, ImageFileFormat::Jpeg);
  EXPECT_FALSE(photo.raw);
  EXPECT_EQ(photo.size, std::filesystem::file_size(jpeg));

  // A JPEG named .tif: name and contents disagree, and the header queries refuse it.
  const ImageFileClass disguised = classifyImageFile(copyInto(dir, jpeg, "disguised.tif"));
  EXPECT_EQ(disguised.format, ImageFileFormat::Tiff);
  EXPECT_EQ(disguised.signature, ImageFileFormat::Jpeg);
  EXPECT_EQ(ImageReader::getImageSize(disguised), _Size<int>());

  // A TIFF is raw by its camera model, which even the by-name classification has to read.
  const std::string kodak = dir.str() + "/kodak.TIF";
  test::writeTinyTiff(kodak, "KODAK DCS Pro 14N");
  const ImageFileClass kodakClass = classifyImageFileByName(kodak);
  EXPECT_TRUE(kodakClass.isRead());
  EXPECT_TRUE(kodakClass.raw);
  EXPECT_EQ(kodakClass.cameraModel, "kodak dcs pro 14n");
  EXPECT_EQ(kodakClass.signature, ImageFileFormat::Tiff);

  // Any other name decides alone: nothing is read for it.
  const ImageFileClass nef = classifyImageFileByName(dir.str() + "/absent.NEF");
  EXPECT_EQ(nef.format, ImageFileFormat::Raw);
  EXPECT_TRUE(nef.raw);
  EXPECT_FALSE(nef.bytes);
  EXPECT_TRUE(classifyImageFileByName("x.dng").isDng());
  EXPECT_TRUE(classifyImageFileByName("x.HEIC").raw);
  EXPECT_EQ(classifyImageFileByName("x.png").format, ImageFileFormat::Unknown);

  const ImageFileClass missing = classifyImageFile(dir.str() + "/absent.jpg");
  EXPECT_EQ(missing.readCode, kImageReaderFailed);
  EXPECT_FALSE(missing.readError.empty());
  EXPECT_FALSE(missing.isRead());
}

// Once classified, a file answers every question and opens from the contents it holds; it is
// deleted first, so anything that opened it again would fail.
TEST(ImageFileClass, QueriesAndOpensUseTheContentsReadOnce) {
  test::TempDir dir("classify");
  std::vector<std::string> sources = {test::raster::dataFile("fallenleaf_canon_eos70d.jpg"),
                                      test::raster::dataFile("casio_qv4000_lzw.tif")};
  if (const std::string nef = test::rawSample("nikon_coolscan4_imageio.nef"); !nef.empty())
    sources.push_back(nef);
  for (const std::string& source : sources) {
    SCOPED_TRACE(source);
    const std::string path =
        copyInto(dir, source, std::filesystem::path(source).filename().string());
    const _Size<int> size = ImageReader::getImageSize(path);
    const int depth = ImageReader::getPreciseColorDepth(path);
    const auto metadata = ImageReader::readMetadata(path);
    ASSERT_GT(size.width, 0);
    ASSERT_GT(depth, 0);
    ASSERT_TRUE(metadata);

    const ImageFileClass file = classifyImageFile(path);
    std::filesystem::remove(path);
    EXPECT_EQ(ImageReader::getImageSize(file), size);
    EXPECT_EQ(ImageReader::getPreciseColorDepth(file), depth);
    EXPECT_GT(ImageReader::getColorDepth(file), 0);
    const auto fromContents = ImageReader::readMetadata(file);
    ASSERT_TRUE(fromContents);
    EXPECT_EQ(fromContents->cameraModel, metadata->cameraModel);
    const ImageResult opened =
        ImageReader::instance().open_sync(file, {-1, 100}, kOpenDefault, nullptr, "");
    ASSERT_TRUE(ImageReader::isImageResultValid(opened));
    EXPECT_EQ(opened.image->height(), 100);
  }
}

}  // namespace
}  // namespace vorn
