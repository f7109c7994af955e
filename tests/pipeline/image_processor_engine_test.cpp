#include <gtest/gtest.h>

#include "pipeline/image_processor_compute_unit.h"
#include "pipeline/processor_test_support.h"
#include "support/log_capture.h"

namespace vorn {
namespace {

/// The engine's request for a whole-canvas render of the test document.
RenderRequest wholeRender(test::Document& doc) {
  RenderRequest request;
  request.pool = {doc.imageLayer, doc.adjustment};
  const _Size<int> canvas = doc.processor.canvasSize();
  request.roi =
      _Rect<float>(0.0f, 0.0f, static_cast<float>(canvas.width), static_cast<float>(canvas.height));
  request.size = canvas;
  return request;
}

TEST(ImageProcessorEngine, StepListsFromOutsideRunOrFailCleanly) {
  test::Document doc(_Size<int>(24, 16));
  const RenderRequest request = wholeRender(doc);
  const std::vector<Operation> built = ImageProcessorComputeUnit::buildOperations(request);
  ASSERT_EQ(built.size(), 3u) << "base, exposure, contrast";
  ImageProcessorComputeUnit engine;
  ASSERT_EQ(engine.runOperations(request, built), RenderStatus::Done);
  ASSERT_TRUE(engine.result());
  const ImageDataRGBf expected = *engine.result();

  struct Case {
    const char* name;
    std::size_t at;
    OperationType type;
    const char* line;
  };
  const Case cases[] = {
      {"past the last type", 3, static_cast<OperationType>(8), " Unknown type of operation!"},
      {"negative", 1, static_cast<OperationType>(-1), " Unknown type of operation!"},
      {"first step", 0, static_cast<OperationType>(1000), " Unknown type of operation!"},
      {"none", 3, OperationType::None, " The step 3 (None) produced no image"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<Operation> ops = built;
    Operation odd;
    odd.type = c.type;
    odd.layer = doc.imageLayer;
    ops.insert(ops.begin() + static_cast<long>(c.at), odd);
    test::LogCapture log;
    EXPECT_EQ(engine.runOperations(request, ops), RenderStatus::Failed);
    EXPECT_EQ(log.countEndingWith(c.line), 1u);
    EXPECT_FALSE(engine.result()) << "a failed render leaves no result";
    EXPECT_TRUE(engine.operations().empty()) << "nor a cache to resume from";
  }
  {
    test::LogCapture log;
    std::vector<Operation> ops = built;
    ops[1].effect.reset();
    EXPECT_EQ(engine.runOperations(request, ops), RenderStatus::Failed);
    ops = built;
    ops[0].layer.reset();
    EXPECT_EQ(engine.runOperations(request, ops), RenderStatus::Failed);
    EXPECT_EQ(log.countContaining("Malformed step list"), 2u);
  }
  // The engine renders again after the failures, from scratch.
  ASSERT_EQ(engine.runOperations(request, built), RenderStatus::Done);
  ASSERT_TRUE(engine.result());
  EXPECT_TRUE(test::sameRGB(*engine.result(), expected));
}

}  // namespace
}  // namespace vorn
