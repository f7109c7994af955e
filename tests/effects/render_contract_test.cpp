// The render contract the effect bases and the chain runner keep for every effect: regions,
// cancellation, finite output, buffer reuse and cache keys.
#include <gtest/gtest.h>

#include <atomic>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>

#include "effects/effect_test_support.h"
#include "effects/render.h"
#include "vorn/core/memory_manager.h"
#include "vorn/effects/effect_chain.h"
#include "vorn/effects/effect_factory.h"
#include "vorn/effects/stencil_effect.h"

namespace vorn {
namespace {

using test::ImageRGBf;

/// A point effect with a per-pixel function, always active.
class FunctionPointEffect final : public PointEffect {
 public:
  using Function = PixelRGB<float> (*)(const PixelRGB<float>&);
  explicit FunctionPointEffect(Function function) : function_(function) {}
  std::vector<Parameter> declaredParameters() const override { return {}; }
  bool isNeedProcessing() const override { return true; }

 protected:
  Kernel prepare(const Setup&) const override { return detail::pixelKernel(function_); }

 private:
  Function function_;
};

/// Sets the call's cancel flag from inside its first row span and counts the spans it ran.
class CancellingPointEffect final : public PointEffect {
 public:
  explicit CancellingPointEffect(ImageProcessingStatus& status) : status_(status) {}
  std::vector<Parameter> declaredParameters() const override { return {}; }
  mutable std::atomic<int> spans{0};

 protected:
  Kernel prepare(const Setup&) const override {
    return detail::rowKernel(
        [this](const PixelRGB<float>* in, PixelRGB<float>* out, std::size_t count) {
          ++spans;
          status_.cancel();
          for (std::size_t i = 0; i < count; ++i) out[i] = in[i];
        });
  }

 private:
  ImageProcessingStatus& status_;
};

/// A neighbourhood effect that copies its input, declares a reach and records how many pool
/// blocks are in use while it renders; optionally cancels between its passes.
class ProbeStencilEffect final : public StencilEffect {
 public:
  std::vector<Parameter> declaredParameters() const override { return {}; }
  bool isNeedProcessing() const override { return true; }
  ImageProcessingStatus* cancelBetweenPasses = nullptr;
  mutable std::size_t mostBlocksInUse = 0;
  mutable std::atomic<int> rowsWritten{0};

 protected:
  int reach(float) const override { return 3; }
  bool isIdentity() const override { return false; }
  void render(const Window& window) const override {
    mostBlocksInUse = std::max(mostBlocksInUse, MemoryManager::instance().stats().blocksInUse);
    if (cancelBetweenPasses) {
      cancelBetweenPasses->cancel();
      window.control.checkpoint();
    }
    window.forOutputRows(
        [&](const PixelRGB<float>* in, PixelRGB<float>* out, std::size_t, std::size_t count) {
          for (std::size_t i = 0; i < count; ++i) out[i] = in[i];
          ++rowsWritten;
        });
  }
};

PixelRGB<float> brighten(const PixelRGB<float>& p) {
  return PixelRGB<float>(p.r * 1.5f + 0.01f, p.g * 1.5f + 0.01f, p.b * 1.5f + 0.01f);
}

PixelRGB<float> nonFinite(const PixelRGB<float>&) {
  return PixelRGB<float>(std::numeric_limits<float>::quiet_NaN(),
                         std::numeric_limits<float>::infinity(),
                         -std::numeric_limits<float>::infinity());
}

std::shared_ptr<Effect> makeEffect(const std::string& id, float at) {
  auto effect = EffectFactory::instance().makeEffectWithID(id, nullptr);
  test::setAllParameters(*effect, at);
  auto context = std::make_shared<EffectContext>();
  context->scale = 0.1f;
  effect->setContext(context);
  return effect;
}

TEST(PointEffectBase, RendersInPlaceLikeIntoAnotherBufferAndEndsFinite) {
  FunctionPointEffect effect(brighten);
  const auto source = test::makeTestImage(70, 30);
  const auto separate = test::render(effect, source);
  ASSERT_TRUE(separate);
  auto inPlace = std::make_shared<ImageRGBf>(*source);
  EffectCallContext call(inPlace, inPlace, nullptr, {}, nullptr, nullptr);
  ASSERT_TRUE(effect.processImage(call));
  EXPECT_EQ(test::maxDifference(*separate, *inPlace), 0.0f);

  FunctionPointEffect broken(nonFinite);
  const auto output = test::render(broken, source);
  ASSERT_TRUE(output);
  EXPECT_EQ(output->at(5, 5).r, 0.0f);
  EXPECT_EQ(output->at(5, 5).g, FLT_MAX);
  EXPECT_EQ(output->at(5, 5).b, -FLT_MAX);
}

TEST(FiniteTail, EveryInstructionSetMapsNonFiniteValuesAlike) {
  const float denormal = std::numeric_limits<float>::denorm_min();
  const std::vector<float> input = {std::numeric_limits<float>::quiet_NaN(),
                                    std::numeric_limits<float>::signaling_NaN(),
                                    -std::numeric_limits<float>::quiet_NaN(),
                                    std::numeric_limits<float>::infinity(),
                                    -std::numeric_limits<float>::infinity(),
                                    -0.0f,
                                    denormal,
                                    -denormal,
                                    1.0f,
                                    -3.5f,
                                    FLT_MAX,
                                    -FLT_MAX};
  const std::vector<float> expected = {0.0f,     0.0f,      0.0f, FLT_MAX, -FLT_MAX, -0.0f,
                                       denormal, -denormal, 1.0f, -3.5f,   FLT_MAX,  -FLT_MAX};
  for (const auto isa :
       {detail::FiniteIsa::Sse2, detail::FiniteIsa::Avx2, detail::FiniteIsa::Avx512}) {
    // Odd lengths run every vector width and the scalar remainder.
    for (const std::size_t repeats : {1u, 3u, 7u}) {
      std::vector<float> values;
      for (std::size_t r = 0; r < repeats; ++r)
        values.insert(values.end(), input.begin(), input.end());
      values.push_back(std::numeric_limits<float>::infinity());
      if (!detail::makeFiniteWith(isa, values.data(), values.size())) break;
      for (std::size_t i = 0; i + 1 < values.size(); ++i) {
        const float want = expected[i % expected.size()];
        EXPECT_EQ(std::memcmp(&values[i], &want, sizeof want), 0)
            << "isa " << static_cast<int>(isa) << " value " << i;
      }
      EXPECT_EQ(values.back(), FLT_MAX);
    }
  }
}

TEST(PointEffectBase, RefusesCallsItCannotRender) {
  FunctionPointEffect effect(brighten);
  const auto source = test::makeTestImage(20, 10);
  auto wrongSize = std::make_shared<ImageRGBf>(_Size<int>(10, 10));
  EffectCallContext mismatched(source, wrongSize, nullptr, {}, nullptr, nullptr);
  EXPECT_FALSE(effect.processImage(mismatched));
  auto destination = std::make_shared<ImageRGBf>(source->size());
  EffectCallContext outside(source, destination, nullptr, _Rect<int>(30, 0, 5, 5), nullptr,
                            nullptr);
  EXPECT_FALSE(effect.processImage(outside));
  EffectCallContext noSource(nullptr, destination, nullptr, {}, nullptr, nullptr);
  EXPECT_FALSE(effect.processImage(noSource));
}

TEST(PointEffectBase, StopsWithinAFewRowsOfACancel) {
  ImageProcessingStatus status;
  CancellingPointEffect effect(status);
  const auto source = test::makeTestImage(64, 4096);
  auto destination = std::make_shared<ImageRGBf>(source->size());
  EffectCallContext call(source, destination, nullptr, {}, nullptr, status.flag().get());
  EXPECT_THROW(effect.processImage(call), ImageProcessingStatus::cancelException);
  const int allSpans = 4096 / detail::kRowsBetweenChecks;
  EXPECT_GE(effect.spans.load(), 1);
  EXPECT_LT(effect.spans.load(), allSpans / 8) << "the rows after the cancel were still rendered";
}

TEST(StencilEffectBase, CancelsBetweenPassesAndRefusesToRenderInPlace) {
  ImageProcessingStatus status;
  ProbeStencilEffect effect;
  effect.cancelBetweenPasses = &status;
  const auto source = test::makeTestImage(64, 64);
  auto destination = std::make_shared<ImageRGBf>(source->size());
  EffectCallContext call(source, destination, nullptr, {}, nullptr, status.flag().get());
  EXPECT_THROW(effect.processImage(call), ImageProcessingStatus::cancelException);
  EXPECT_EQ(effect.rowsWritten.load(), 0);

  ProbeStencilEffect plain;
  auto shared = std::make_shared<ImageRGBf>(*source);
  EffectCallContext inPlace(shared, shared, nullptr, {}, nullptr, nullptr);
  EXPECT_FALSE(plain.processImage(inPlace));
  EXPECT_EQ(plain.getInRectForOutRect(_Rect<int>(10, 10, 5, 5)), _Rect<int>(7, 7, 11, 11));
}

TEST(EffectChain, RunsTheActiveEffectsInOrder) {
  const auto source = test::makeTestImage(64, 48);
  const auto idle = makeEffect("VORNContrastEffect", 0.5f);
  const auto exposure = makeEffect("VORNExposureEffect", 0.8f);
  const auto shadows = makeEffect("VORNShadowsEffect", 0.9f);
  const auto contrast = makeEffect("VORNContrastEffect", 0.8f);
  ASSERT_FALSE(idle->isNeedProcessing());

  auto expected = test::render(*exposure, source);
  ASSERT_TRUE(expected);
  expected = test::render(*shadows, expected);
  ASSERT_TRUE(expected);
  expected = test::render(*contrast, expected);
  ASSERT_TRUE(expected);

  EffectCallContext call(source, nullptr, nullptr, {}, nullptr, nullptr);
  const EffectChainResult result = runEffectChain({exposure, idle, shadows, contrast}, call);
  ASSERT_EQ(result.status, EffectChainStatus::Done);
  ASSERT_TRUE(call.destination);
  EXPECT_EQ(test::maxDifference(*expected, *call.destination), 0.0f);

  // The destination may be the source itself.
  auto inPlace = std::make_shared<ImageRGBf>(*source);
  EffectCallContext same(inPlace, inPlace, nullptr, {}, nullptr, nullptr);
  ASSERT_EQ(runEffectChain({exposure, shadows, contrast}, same).status, EffectChainStatus::Done);
  EXPECT_EQ(test::maxDifference(*expected, *inPlace), 0.0f);
}

TEST(EffectChain, RegionRenderEqualsTheRegionOfAWholeRenderAndTouchesNothingElse) {
  const auto source = test::makeTestImage(120, 90);
  const std::vector<std::shared_ptr<Effect>> chain = {
      makeEffect("VORNDynBrightnessEffect", 0.9f), makeEffect("VORNExposureEffect", 0.7f),
      makeEffect("VORNDehazeEffect", 0.8f), makeEffect("VORNHighlightsEffect", 0.2f)};
  EffectCallContext whole(source, nullptr, source, {}, nullptr, nullptr);
  ASSERT_EQ(runEffectChain(chain, whole).status, EffectChainStatus::Done);

  const _Rect<int> region(40, 30, 25, 20);
  for (const bool inPlace : {false, true}) {
    SCOPED_TRACE(inPlace);
    auto destination = inPlace ? std::make_shared<ImageRGBf>(*source)
                               : std::make_shared<ImageRGBf>(source->size(), PixelRGB<float>(-1));
    const auto before = std::make_shared<ImageRGBf>(*destination);
    EffectCallContext part(inPlace ? destination : source, destination, source, region, nullptr,
                           nullptr);
    ASSERT_EQ(runEffectChain(chain, part).status, EffectChainStatus::Done);
    EXPECT_LE(test::maxDifference(*whole.destination, *destination, region), 1e-4f);
    destination->fillRect(PixelRGB<float>(0.0f), region);
    before->fillRect(PixelRGB<float>(0.0f), region);
    EXPECT_EQ(test::maxDifference(*before, *destination), 0.0f) << "written outside the region";
  }
}

TEST(EffectChain, HoldsAtMostTwoScratchBuffersHoweverLong) {
  const auto source = test::makeTestImage(200, 100);
  std::vector<std::shared_ptr<Effect>> chain;
  std::vector<std::shared_ptr<ProbeStencilEffect>> probes;
  for (int i = 0; i < 6; ++i) {
    probes.push_back(std::make_shared<ProbeStencilEffect>());
    chain.push_back(probes.back());
  }
  auto destination = std::make_shared<ImageRGBf>(source->size());
  const std::size_t before = MemoryManager::instance().stats().blocksInUse;
  // A region render needs wider intermediate regions, so it uses both scratch buffers.
  EffectCallContext call(source, destination, nullptr, _Rect<int>(50, 20, 60, 40), nullptr,
                         nullptr);
  ASSERT_EQ(runEffectChain(chain, call).status, EffectChainStatus::Done);
  std::size_t most = 0;
  for (const auto& probe : probes) most = std::max(most, probe->mostBlocksInUse);
  EXPECT_LE(most, before + 2);
  EXPECT_EQ(test::maxDifference(*source, *destination, _Rect<int>(50, 20, 60, 40)), 0.0f);
}

TEST(EffectChain, ReportsCancellationAndTheEffectThatFailed) {
  const auto source = test::makeTestImage(64, 48);
  ImageProcessingStatus status;
  auto probe = std::make_shared<ProbeStencilEffect>();
  probe->cancelBetweenPasses = &status;
  EffectCallContext cancelled(source, nullptr, nullptr, {}, nullptr, status.flag().get());
  const auto first = makeEffect("VORNExposureEffect", 0.8f);
  EXPECT_EQ(runEffectChain({first, probe}, cancelled).status, EffectChainStatus::Cancelled);
  // A cancelled group unwinds the chain that holds it.
  const auto group = makeEffect("VORNDevelopCommonEffectID", 0.8f);
  EffectCallContext again(source, nullptr, nullptr, {}, nullptr, status.flag().get());
  EXPECT_EQ(runEffectChain({group}, again).status, EffectChainStatus::Cancelled);

  auto wrongSize = std::make_shared<ImageRGBf>(_Size<int>(3, 3));
  EffectCallContext failing(source, wrongSize, nullptr, {}, nullptr, nullptr);
  EXPECT_EQ(runEffectChain({first}, failing).status, EffectChainStatus::Failed);
}

TEST(EffectCacheKey, FollowsIdentifierValuesAndOptionalData) {
  const auto a = makeEffect("VORNCurveEffect", 0.5f);
  const auto b = makeEffect("VORNCurveEffect", 0.5f);
  EXPECT_EQ(a->cacheKey(), b->cacheKey());
  b->parameters()[0].setValue(60);
  EXPECT_NE(a->cacheKey(), b->cacheKey());
  b->parameters()[0].setValue(a->parameters()[0].value());
  EXPECT_EQ(a->cacheKey(), b->cacheKey());
  b->parameters()[0].setOptionalData(std::vector<float>{0.0f, 0.0f, 0.5f, 0.6f, 1.0f, 1.0f});
  EXPECT_NE(a->cacheKey(), b->cacheKey());
  EXPECT_NE(makeEffect("VORNContrastEffect", 0.5f)->cacheKey(),
            makeEffect("VORNContrastLumaEffect", 0.5f)->cacheKey());
  // Context is not part of what an effect renders from its values.
  a->setContext(std::make_shared<EffectContext>());
  EXPECT_EQ(a->cacheKey(), makeEffect("VORNCurveEffect", 0.5f)->cacheKey());
}

}  // namespace
}  // namespace vorn
