// The face effects on a real portrait: the face is found, retouched inside, and nothing else.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>

#include "effects/effect_test_support.h"
#include "effects/face/face_detection.h"
#include "effects/face/face_shape.h"
#include "support/data_store_guard.h"
#include "vorn/effects/face_effects.h"
#include "vorn/io/image.h"
#include "vorn/io/image_reader.h"

namespace vorn {
namespace {

using test::ImageRGBf;

/// Where the face of the portrait lies (brows to chin, ear to ear), measured by eye.
constexpr _Rect<int> kFaceArea(108, 40, 66, 78);
/// A part of the portrait far from the face: the flag at the bottom left.
constexpr _Rect<int> kFarAway(0, 200, 60, 120);

std::shared_ptr<const ImageRGBf> portrait() {
  static const std::shared_ptr<const ImageRGBf> frame = []() -> std::shared_ptr<const ImageRGBf> {
    const ImageResult result =
        ImageReader::readNonRaw(VORN_SOURCE_DIR "/tests/data/astronaut_face_320.jpg");
    if (result.errorCode != kImageReaderOk || !result.image) return nullptr;
    return result.image->workingImage();
  }();
  return frame;
}

float overlap(_Rect<float> a, _Rect<int> b) {
  const float x0 = std::max(a.x, static_cast<float>(b.x));
  const float y0 = std::max(a.y, static_cast<float>(b.y));
  const float x1 = std::min(a.x + a.width, static_cast<float>(b.x + b.width));
  const float y1 = std::min(a.y + a.height, static_cast<float>(b.y + b.height));
  if (x1 <= x0 || y1 <= y0) return 0.0f;
  return (x1 - x0) * (y1 - y0) / static_cast<float>(b.width * b.height);
}

/// Mean absolute Laplacian of luminance inside rect: the picture's fine texture.
double highFrequency(const ImageRGBf& image, _Rect<int> rect) {
  const auto luma = [&](int x, int y) {
    const PixelRGB<float>& p = image.at(x, y);
    return 0.2126 * p.r + 0.7152 * p.g + 0.0722 * p.b;
  };
  double sum = 0.0;
  for (int y = rect.y + 1; y < rect.y + rect.height - 1; ++y)
    for (int x = rect.x + 1; x < rect.x + rect.width - 1; ++x)
      sum += std::fabs(4.0 * luma(x, y) - luma(x - 1, y) - luma(x + 1, y) - luma(x, y - 1) -
                       luma(x, y + 1));
  return sum / ((rect.width - 2) * (rect.height - 2));
}

double meanLuma(const ImageRGBf& image, _Rect<int> rect) {
  double sum = 0.0;
  for (int y = rect.y; y < rect.y + rect.height; ++y)
    for (int x = rect.x; x < rect.x + rect.width; ++x) {
      const PixelRGB<float>& p = image.at(x, y);
      sum += 0.2126 * p.r + 0.7152 * p.g + 0.0722 * p.b;
    }
  return sum / (rect.width * rect.height);
}

/// Sets (or with nullopt, unsets) an environment variable for the scope.
class ScopedEnvironment {
 public:
  ScopedEnvironment(const char* name, const std::optional<std::string>& value) : name_(name) {
    if (const char* old = std::getenv(name)) previous_ = old;
    if (value)
      setenv(name, value->c_str(), 1);
    else
      unsetenv(name);
  }
  ~ScopedEnvironment() {
    if (previous_)
      setenv(name_, previous_->c_str(), 1);
    else
      unsetenv(name_);
  }
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

 private:
  const char* name_;
  std::optional<std::string> previous_;
};

class FaceEffects : public testing::Test {
 protected:
  void SetUp() override {
    photo_ = portrait();
    ASSERT_TRUE(photo_) << "the test portrait does not load";
  }
  std::shared_ptr<const ImageRGBf> photo_;
};

TEST_F(FaceEffects, FindsTheFaceOfThePortraitAndItsEyes) {
  const auto faces = detail::detectFaces(*photo_, photo_->rect(), detail::RenderControl(nullptr));
  ASSERT_FALSE(faces.empty());
  const auto face = std::find_if(faces.begin(), faces.end(), [](const detail::DetectedFace& f) {
    return overlap(f.box, kFaceArea) > 0.5f;
  });
  ASSERT_NE(face, faces.end()) << "no face box on the face";
  EXPECT_LT(face->box.width, 1.6f * static_cast<float>(kFaceArea.width));
  for (const detail::DetectedFace& f : faces)
    EXPECT_EQ(overlap(f.box, kFarAway), 0.0f) << "a face found on the flag";
  if (face->eyes.size() == 2) {
    EXPECT_LT(face->eyes[0].x, face->eyes[1].x);
    EXPECT_LT(face->eyes[0].y, face->box.y + 0.6f * face->box.height);
  }
  // Detection ran on the CPU without OpenCV probing for an OpenCL device, which loads the
  // system's OpenCL loader and drivers into the process.
  std::ifstream maps("/proc/self/maps");
  const std::string mapped((std::istreambuf_iterator<char>(maps)),
                           std::istreambuf_iterator<char>());
  EXPECT_EQ(mapped.find("libOpenCL"), std::string::npos);
}

TEST_F(FaceEffects, SoftenerSmoothsTheFaceAndLeavesTheRestAlone) {
  auto effect = test::makeEffect("VORNFaceSkinSoftenerEffect", {100});
  const auto output = test::render(*effect, photo_);
  ASSERT_TRUE(output);
  const _Rect<int> cheeks(kFaceArea.x + 8, kFaceArea.y + 30, kFaceArea.width - 16, 30);
  EXPECT_LT(highFrequency(*output, cheeks), 0.8 * highFrequency(*photo_, cheeks));
  EXPECT_EQ(test::maxDifference(*output, *photo_, kFarAway), 0.0f);
  // The orange suit below the face is far from skin tones and keeps its texture.
  const _Rect<int> suit(60, 240, 40, 40);
  EXPECT_EQ(test::maxDifference(*output, *photo_, suit), 0.0f);
  // A weaker amount changes less.
  auto half = test::makeEffect("VORNFaceSkinSoftenerEffect", {40});
  const auto weaker = test::render(*half, photo_);
  ASSERT_TRUE(weaker);
  EXPECT_LT(test::meanDifference(*weaker, *photo_), test::meanDifference(*output, *photo_));
}

TEST_F(FaceEffects, FaceSlidersDoWhatTheyPromise) {
  auto light = test::makeEffect("VORNFaceEffect", {100, 0, 0});
  const auto lit = test::render(*light, photo_);
  ASSERT_TRUE(lit);
  EXPECT_GT(meanLuma(*lit, kFaceArea), meanLuma(*photo_, kFaceArea) + 0.02);
  EXPECT_EQ(test::maxDifference(*lit, *photo_, kFarAway), 0.0f);

  auto smooth = test::makeEffect("VORNFaceEffect", {0, 100, 0});
  auto softener = test::makeEffect("VORNFaceSkinSoftenerEffect", {100});
  const auto smoothed = test::render(*smooth, photo_);
  const auto softened = test::render(*softener, photo_);
  ASSERT_TRUE(smoothed && softened);
  EXPECT_EQ(test::maxDifference(*smoothed, *softened), 0.0f) << "one skin smoothing for both";

  // The eyes sit in the upper half of the face: their detail and brightness rise.
  auto eyes = test::makeEffect("VORNFaceEffect", {0, 0, 100});
  const auto enhanced = test::render(*eyes, photo_);
  ASSERT_TRUE(enhanced);
  const _Rect<int> eyeBand(kFaceArea.x + 6, kFaceArea.y + 20, kFaceArea.width - 12, 18);
  EXPECT_GT(highFrequency(*enhanced, eyeBand), 1.1 * highFrequency(*photo_, eyeBand));
  const _Rect<int> mouth(kFaceArea.x + 20, kFaceArea.y + 62, kFaceArea.width - 40, 10);
  EXPECT_LT(test::maxDifference(*enhanced, *photo_, mouth), 1e-6f);
}

// Smoothing follows the skin weight: skin tones inside a face are softened, other colours in the
// same face area keep their texture.
TEST_F(FaceEffects, SmoothingSparesWhatIsNotSkin) {
  const PixelRGB<float> skin(0.90f, 0.67f, 0.55f);
  const PixelRGB<float> darkerSkin(0.55f, 0.36f, 0.26f);
  EXPECT_GT(detail::skinWeight(skin), 0.5f);
  EXPECT_GT(detail::skinWeight(darkerSkin), 0.3f);
  for (const PixelRGB<float>& other :
       {PixelRGB<float>(0.9f, 0.4f, 0.15f), PixelRGB<float>(0.3f, 0.5f, 0.9f),
        PixelRGB<float>(0.5f, 0.5f, 0.5f), PixelRGB<float>(0.2f, 0.7f, 0.3f),
        PixelRGB<float>(0.02f, 0.015f, 0.01f)}) {
    EXPECT_LT(detail::skinWeight(other), 0.1f) << other.r << " " << other.g << " " << other.b;
  }
  // A textured patch, skin on the left half and blue on the right, all inside one given face.
  auto patch = std::make_shared<ImageRGBf>(_Size<int>(200, 200));
  for (int y = 0; y < 200; ++y)
    for (int x = 0; x < 200; ++x) {
      const float t = ((x / 2 + y / 2) % 2 == 0 ? 0.03f : -0.03f);
      const PixelRGB<float> base = x < 100 ? skin : PixelRGB<float>(0.3f, 0.5f, 0.9f);
      patch->at(x, y) = PixelRGB<float>(base.r + t, base.g + t, base.b + t);
    }
  auto effect = test::makeEffect("VORNFaceSkinSoftenerEffect", {100}, 1.0f);
  auto* retouch = dynamic_cast<detail::FaceRetouchEffect*>(effect.get());
  ASSERT_TRUE(retouch);
  retouch->setKnownFaces({{_Rect<int>(40, 30, 120, 120), {}}});
  const auto output = test::render(*effect, patch);
  ASSERT_TRUE(output);
  const _Rect<int> skinSide(70, 80, 20, 20);
  const _Rect<int> blueSide(110, 80, 20, 20);
  EXPECT_LT(highFrequency(*output, skinSide), 0.5 * highFrequency(*patch, skinSide));
  EXPECT_GT(highFrequency(*output, blueSide), 0.9 * highFrequency(*patch, blueSide));
}

TEST_F(FaceEffects, FaceIndexPicksOneFace) {
  auto all = test::makeEffect("VORNFaceEffect", {60, 60, 60, -1});
  auto first = test::makeEffect("VORNFaceEffect", {60, 60, 60, 0});
  auto missing = test::makeEffect("VORNFaceEffect", {60, 60, 60, 50});
  const auto faces = detail::detectFaces(*photo_, photo_->rect(), detail::RenderControl(nullptr));
  ASSERT_EQ(faces.size(), 1u);
  const auto allOut = test::render(*all, photo_);
  const auto firstOut = test::render(*first, photo_);
  const auto missingOut = test::render(*missing, photo_);
  ASSERT_TRUE(allOut && firstOut && missingOut);
  EXPECT_GT(test::maxDifference(*allOut, *photo_), 0.01f);
  EXPECT_EQ(test::maxDifference(*allOut, *firstOut), 0.0f);
  EXPECT_EQ(test::maxDifference(*missingOut, *photo_), 0.0f) << "an index past the faces";
}

TEST_F(FaceEffects, RegionThroughTheFaceEqualsTheWholeRender) {
  auto effect = test::makeEffect("VORNFaceEffect", {70, 80, 60});
  const auto whole = test::render(*effect, photo_);
  ASSERT_TRUE(whole);
  // A region cutting the face in two, rendered from its crop with the whole portrait beside it.
  const _Rect<int> region(130, 60, 80, 70);
  const _Rect<int> needed = effect->getInRectForOutRect(region);
  const int x0 = std::max(needed.x, 0);
  const int y0 = std::max(needed.y, 0);
  const _Rect<int> input(x0, y0, std::min(needed.x + needed.width, photo_->width) - x0,
                         std::min(needed.y + needed.height, photo_->height) - y0);
  const auto crop = photo_->copy(input);
  ASSERT_TRUE(crop);
  auto placed = std::make_shared<EffectContext>();
  placed->scale = 0.1f;
  placed->origin = _Point<int>(input.x, input.y);
  effect->setContext(placed);
  const auto part = test::render(*effect, crop, photo_);
  ASSERT_TRUE(part);
  EXPECT_LE(test::maxDifference(*whole, *part, region, region.x - input.x, region.y - input.y),
            1e-5f);
  EXPECT_GT(test::maxDifference(*whole, *photo_, region), 0.01f) << "the region was retouched";
}

// The conformance suite's scene has no face, so the half-size check runs here: a preview of the
// portrait at half size looks like the full render shrunk.
TEST_F(FaceEffects, HalfSizeRenderLooksLikeTheFullRenderShrunk) {
  auto effect = test::makeEffect("VORNFaceEffect", {60, 100, 80});
  const auto small = photo_->resize(_Size<int>(photo_->width / 2, photo_->height / 2));
  ASSERT_TRUE(small);
  const auto renderAs = [&](const std::shared_ptr<const ImageRGBf>& image) {
    auto context = std::make_shared<EffectContext>();
    context->imageSize = image->size();
    effect->setContext(context);
    return test::render(*effect, image);
  };
  const auto full = renderAs(photo_);
  const auto half = renderAs(small);
  ASSERT_TRUE(full && half);
  const auto shrunk = full->resize(small->size());
  ASSERT_TRUE(shrunk);
  const _Rect<int> face(kFaceArea.x / 2, kFaceArea.y / 2, kFaceArea.width / 2,
                        kFaceArea.height / 2);
  const float change = test::meanDifference(*half, *small, face);
  EXPECT_GT(change, 0.01f) << "the face was retouched";
  EXPECT_LT(test::meanDifference(*shrunk, *half, face), 0.3f * change);
}

TEST_F(FaceEffects, NoFaceNoChange) {
  const ImageResult landscape =
      ImageReader::readNonRaw(VORN_SOURCE_DIR "/tests/data/coldripple_olympus_em1.jpg");
  ASSERT_EQ(landscape.errorCode, kImageReaderOk);
  ASSERT_TRUE(landscape.image);
  for (const auto& picture : {std::shared_ptr<const ImageRGBf>(test::makeSceneImage(480, 320)),
                              landscape.image->workingImage()}) {
    ASSERT_TRUE(picture);
    auto face = test::makeEffect("VORNFaceEffect", {100, 100, 100});
    auto softener = test::makeEffect("VORNFaceSkinSoftenerEffect", {100});
    for (Effect* effect : {face.get(), softener.get()}) {
      SCOPED_TRACE(effect->id());
      const auto output = test::render(*effect, picture);
      ASSERT_TRUE(output);
      EXPECT_EQ(test::maxDifference(*output, *picture), 0.0f);
    }
  }
}

TEST_F(FaceEffects, MissingCascadeMeansNoChangeNotAFailure) {
  auto effect = test::makeEffect("VORNFaceEffect", {100, 100, 100});
  {
    const ScopedEnvironment missing(detail::kCascadeDirEnvironment, "/nonexistent/cascades");
    EXPECT_EQ(detail::cascadeDirectory(), "/nonexistent/cascades");
    const auto output = test::render(*effect, photo_);
    ASSERT_TRUE(output);
    EXPECT_EQ(test::maxDifference(*output, *photo_), 0.0f);
  }
  {
    const ScopedEnvironment unset(detail::kCascadeDirEnvironment, std::nullopt);
    const test::DataStoreGuard guard(detail::kCascadeDirSetting);
    DataStore::instance().set(detail::kCascadeDirSetting, "/nonexistent/settings");
    EXPECT_EQ(detail::cascadeDirectory(), "/nonexistent/settings");
    const auto output = test::render(*effect, photo_);
    ASSERT_TRUE(output);
    EXPECT_EQ(test::maxDifference(*output, *photo_), 0.0f);
  }
  // With the settings back, the face is found again.
  const auto output = test::render(*effect, photo_);
  ASSERT_TRUE(output);
  EXPECT_GT(test::maxDifference(*output, *photo_), 0.01f);
}

TEST_F(FaceEffects, HostFacesReplaceDetection) {
  const auto scene = test::makeSceneImage(480, 320);
  auto effect = test::makeEffect("VORNFaceEffect", {100, 0, 0});
  auto* retouch = dynamic_cast<detail::FaceRetouchEffect*>(effect.get());
  ASSERT_TRUE(retouch);
  const _Rect<int> box(300, 100, 80, 90);
  retouch->setKnownFaces({{box, {}}});
  const auto output = test::render(*effect, scene);
  ASSERT_TRUE(output);
  EXPECT_GT(meanLuma(*output, box), meanLuma(*scene, box) + 0.01);
  EXPECT_EQ(test::maxDifference(*output, *scene, _Rect<int>(0, 0, 200, 320)), 0.0f);
  retouch->forgetKnownFaces();
  const auto detected = test::render(*effect, scene);
  ASSERT_TRUE(detected);
  EXPECT_EQ(test::maxDifference(*detected, *scene), 0.0f) << "the scene has no face of its own";
  // Eyes the host gives are where the eye retouch goes, not where a face box puts them.
  auto eyes = test::makeEffect("VORNFaceEffect", {0, 0, 100});
  auto* eyeRetouch = dynamic_cast<detail::FaceRetouchEffect*>(eyes.get());
  ASSERT_TRUE(eyeRetouch);
  const _Rect<int> leftEye(310, 160, 16, 16);
  eyeRetouch->setKnownFaces({{box, {leftEye, _Rect<int>(350, 160, 16, 16)}}});
  const auto lookedAt = test::render(*eyes, scene);
  ASSERT_TRUE(lookedAt);
  EXPECT_GT(test::maxDifference(*lookedAt, *scene, leftEye), 0.005f);
  const _Rect<int> boxEye(box.x + 20, box.y + 32, 8, 8);  // 0.3 w, 0.4 h: the default place
  EXPECT_EQ(test::maxDifference(*lookedAt, *scene, boxEye), 0.0f);
  // The host saying "no faces" wins over a face the picture has.
  retouch->setKnownFaces({});
  const auto told = test::render(*effect, photo_);
  ASSERT_TRUE(told);
  EXPECT_EQ(test::maxDifference(*told, *photo_), 0.0f);
}

}  // namespace
}  // namespace vorn
