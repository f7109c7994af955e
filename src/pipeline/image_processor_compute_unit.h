#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "vorn/core/color_profile.h"
#include "vorn/core/geometry.h"
#include "vorn/core/image_data.h"
#include "vorn/effects/effect.h"
#include "vorn/pipeline/base_layer.h"

namespace vorn {

/// One step of a render. Every step leaves one image, the "current" one; a push step keeps the
/// current image as the bottom that a later blend step of the same layer reads.
enum class OperationType : int {
  None = 0,
  Base = 1,
  Blend = 2,
  BlendEffectAmount = 3,
  Compute = 4,
  Develop = 5,
  PushBlend = 6,
  PushBlendEffectAmount = 7,
};

/// "None", "Base", ... "PushBlendEffectAmount"; "Unknown" for any other value.
const char* operationTypeName(OperationType type);

struct Operation {
  OperationType type = OperationType::None;
  /// Index of the owning layer in the render's pool.
  std::size_t layerIndex = 0;
  std::shared_ptr<BaseLayer> layer;
  /// The effect of a Compute or Develop step.
  std::shared_ptr<Effect> effect;
  /// The push step whose image a blend step reads as its bottom.
  std::size_t bottom = 0;
  /// A Compute step that follows a Develop step of its layer.
  bool afterDevelop = false;
  /// A PushBlend step that also serves the layer's effect amount.
  bool servesEffectAmount = false;
  /// Everything that decides the step's image, this step and all before it, hashed.
  std::uint64_t key = 0;
};

/// What the processor hands the engine for one render.
struct RenderRequest {
  std::vector<std::shared_ptr<BaseLayer>> pool;
  std::shared_ptr<ColorProfile> profile;
  /// The canvas region rendered and the size it is rendered at.
  _Rect<float> roi;
  _Size<int> size;
  /// The part of the output the host shows; empty when nothing of it lies inside.
  _Rect<int> finalRect;
  std::shared_ptr<bool> cancel;
  /// The whole picture, small, for effects that measure it (see needsWholePictureReference);
  /// empty when the render covers the whole canvas and the step input serves.
  std::shared_ptr<const ImageDataRGBf> wholePicture;
  bool useCache = true;
  bool previewQuality = false;
};

enum class RenderStatus { Done, Failed, Cancelled };

/// The render engine: turns the pool into a list of steps, reuses the images of the longest
/// matching prefix of the previous render and runs the rest.
class ImageProcessorComputeUnit {
 public:
  /// The cache budget in MiB; oldest entries go first when a render leaves more than this.
  static constexpr const char* kCacheBudgetSetting = "ImageProcessor.CacheMiB";
  static constexpr int kDefaultCacheMiB = 4096;

  RenderStatus run(const RenderRequest& request);
  /// Runs a step list made elsewhere (a test's, say) as run() runs buildOperations(request); a
  /// step whose type is not an OperationType fails the render with "Unknown type of operation!".
  RenderStatus runOperations(const RenderRequest& request, const std::vector<Operation>& ops);
  std::shared_ptr<ImageDataRGBf> result() const { return result_; }
  /// Forgets every cached step.
  void reset();
  /// Bytes the cached step images hold (shared buffers counted once).
  std::uint64_t cachedBytes() const;
  /// The largest cachedBytes() plus working buffers seen during the last run.
  std::uint64_t peakBytes() const { return peakBytes_; }
  const std::vector<Operation>& operations() const { return cachedOps_; }

  /// The steps of a render of `request` (keys included).
  static std::vector<Operation> buildOperations(const RenderRequest& request);

 private:
  /// The index of the first step that must run; earlier ones come from the cache.
  std::size_t restoreCurrentCacheState(const std::vector<Operation>& ops,
                                       const RenderRequest& request);
  /// Runs ops[from..]; false on failure, cancelException when cancelled.
  bool processOperations(const std::vector<Operation>& ops, std::size_t from,
                         const RenderRequest& request);
  std::shared_ptr<const ImageDataRGBf> runStep(const std::vector<Operation>& ops, std::size_t i,
                                               const RenderRequest& request);
  void trimCache();
  /// The steps are done: their layers and effects no longer need processing.
  static void clearFlags(const std::vector<Operation>& ops);
  void notePeak();
  /// run() and runOperations(): `given` steps, or those of the request when null.
  RenderStatus runSteps(const RenderRequest& request, const std::vector<Operation>* given);

  std::vector<Operation> cachedOps_;
  std::vector<std::shared_ptr<const ImageDataRGBf>> results_;
  _Rect<float> cachedRoi_;
  _Size<int> cachedSize_;
  std::shared_ptr<ImageDataRGBf> result_;
  std::uint64_t peakBytes_ = 0;
};

}  // namespace vorn
