#include <gtest/gtest.h>

#include <sstream>

#include "vorn/io/image.h"

namespace vorn {
namespace {

std::shared_ptr<ImageFrame> frameOf(int w, int h) {
  auto frame = std::make_shared<ImageFrame>(_Size<int>(w, h));
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) frame->at(x, y) = PixelRGB<float>(float(x), float(y), 0.0f);
  return frame;
}

TEST(ImageSource, MissingArgumentsThrowWithTheirNames) {
  const auto meta = std::make_shared<ImageMetadata>();
  const auto message = [](auto&& make) {
    try {
      make();
    } catch (const ImageSourceException& e) {
      return std::string(e.what());
    }
    return std::string("no exception");
  };
  EXPECT_EQ(message([] { ImageSource(nullptr, nullptr); }),
            "imageData nullptr and metadata nullptr");
  EXPECT_EQ(message([&] { ImageSource(nullptr, meta); }), "imageData nullptr");
  EXPECT_EQ(message([] { ImageSource(frameOf(2, 2), nullptr); }), "metadata nullptr");
  try {
    Image image(nullptr);
    FAIL();
  } catch (const std::exception& e) {
    EXPECT_STREQ(e.what(), "[BaseImage::BaseImage] invalid parameter _imageSource");
  }
}

TEST(ImageSource, FinishedFrameServesRegionsAndSizes) {
  auto frame = frameOf(40, 30);
  frame->setColorProfile(ColorProfileType::sRGB());
  Image image(std::make_shared<ImageSource>(frame, std::make_shared<ImageMetadata>()));
  EXPECT_EQ(image.size(), _Size<int>(40, 30));
  EXPECT_EQ(image.status(), FULL_LOADED);
  EXPECT_EQ(image.colorProfile(), ColorProfileType::sRGB());
  EXPECT_TRUE(image.source()->loadComplete());

  auto region = image.copy(_Rect<int>(5, 6, 10, 4));
  ASSERT_TRUE(region);
  EXPECT_EQ(region->at(0, 0), frame->at(5, 6));
  // A region reaching past the image is clipped before resampling.
  auto clipped = image.imageData(_Size<int>(0, 0), _Rect<int>(30, 20, 50, 50), false);
  ASSERT_TRUE(clipped);
  EXPECT_EQ(clipped->size(), _Size<int>(10, 10));
  auto half = image.resize(_Size<int>(20, 15), _Rect<int>(), false);
  ASSERT_TRUE(half);
  EXPECT_EQ(half->size(), _Size<int>(20, 15));
  EXPECT_FALSE(image.imageData(_Size<int>(5, 5), _Rect<int>(100, 100, 5, 5), false));
}

TEST(ImageMetadata, PrintOrderAndMutableParameters) {
  ImageMetadata meta;
  meta.cameraName = "Maker";
  meta.isoSpeed = 200;
  meta.sizeRawMatrix = {6000, 4000};
  std::istringstream lines(meta.print());
  std::vector<std::string> labels;
  for (std::string line; std::getline(lines, line);)
    labels.push_back(line.substr(0, line.find(": ")));
  const std::vector<std::string> expected = {"cameraName",
                                             "cameraModel",
                                             "fNumber",
                                             "aperture",
                                             "shutterSpeed",
                                             "isoSpeed",
                                             "focalLen",
                                             "focalLen35mm",
                                             "minFocalLen",
                                             "maxFocalLen",
                                             "WBTint",
                                             "WBTemperature",
                                             "lensMaker",
                                             "lensModel",
                                             "lensId",
                                             "exposureBias",
                                             "focalPlaneXResolution",
                                             "focalPlaneYResolution",
                                             "sizeRawMatrix.first",
                                             "sizeRawMatrix.second"};
  EXPECT_EQ(labels, expected);
  EXPECT_NE(meta.print().find("isoSpeed: 200\n"), std::string::npos);

  meta.dcpProfile = std::make_shared<Blob>("dcp", 3);
  ImageMetadata copy = meta;
  EXPECT_EQ(copy.dcpProfile, meta.dcpProfile);
  copy.deepCopyDCP();
  EXPECT_NE(copy.dcpProfile, meta.dcpProfile);
  EXPECT_EQ(copy.dcpProfile->size(), 3u);

  ImageMetadata::MutableParameters params{5200.0f, -3.0f, 6}, loaded;
  ASSERT_TRUE(loadMutableParameters(saveMutableParameters(params), loaded));
  EXPECT_EQ(loaded, params);
  EXPECT_FALSE(loadMutableParameters("22 serialization::archive garbage", loaded));
  EXPECT_FALSE(loadMutableParameters("", loaded));
  EXPECT_EQ(loaded, params);
}

}  // namespace
}  // namespace vorn
