#include "pipeline/image_processor_compute_unit.h"

#include <algorithm>
#include <cmath>
#include <new>
#include <string>

#include "core/log_failure.h"
#include "core/parallel.h"
#include "pipeline/render_effect_roles.h"
#include "vorn/core/data_store.h"
#include "vorn/core/processing_status.h"
#include "vorn/effects/effect_chain.h"
#include "vorn/pipeline/adjustment_layer.h"
#include "vorn/pipeline/blend.h"
#include "vorn/pipeline/image_layer.h"

namespace vorn {
namespace {

using ConstFrame = std::shared_ptr<const ImageDataRGBf>;

bool nearInteger(float v) {
  return std::fabs(v - std::round(v)) < 1e-3f;
}

/// The frame region resampled to the request's size. A render at a quarter or a half of the
/// frame's scale or less reads the layer's reduced copy when the region falls on its pixels, so
/// a preview of a large frame reads a few megabytes, not the whole frame.
ConstFrame resampleRegion(ImageLayer& layer, const ImageDataRGBf& frame, _Rect<int> rect,
                          const RenderRequest& request) {
  const bool highQuality = !request.previewQuality;
  for (const int factor : {4, 2}) {
    if (request.size.width * factor > rect.width || request.size.height * factor > rect.height ||
        rect.x % factor != 0 || rect.y % factor != 0 || rect.width % factor != 0 ||
        rect.height % factor != 0)
      continue;
    const ImageLayer::Frame reduced = layer.getReducedWorkingImage(factor);
    if (!reduced || reduced->width * factor != frame.width) continue;
    const _Rect<int> part(rect.x / factor, rect.y / factor, rect.width / factor,
                          rect.height / factor);
    if (part == reduced->rect() && request.size == reduced->size()) return reduced;
    return part.size() == request.size ? reduced->copy(part)
                                       : reduced->resize(request.size, part, highQuality);
  }
  // A region at its own size is a plain copy; the resampler would average single pixels.
  return rect.size() == request.size ? frame.copy(rect)
                                     : frame.resize(request.size, rect, highQuality);
}

/// The layer's best frame over the request's ROI at the request's size: a plain resample of
/// the frame region when the layer sits unmoved on the canvas, an affine render otherwise.
ConstFrame renderBase(ImageLayer& layer, const RenderRequest& request) {
  const ImageLayer::Frame frame = layer.getWorkingImage();
  if (!frame || frame->empty()) return {};
  const _Size<int> source = layer.getSourceImage()->size();
  // A raw source's quarter frame stands for the whole source until the full frame lands.
  const float fx = static_cast<float>(frame->width) / static_cast<float>(source.width);
  const float fy = static_cast<float>(frame->height) / static_cast<float>(source.height);
  const ImageTransformSettings& settings = layer.transformSettings();
  if (settings.layerToCanvas == AffineTransform()) {
    const _Rect<float> r(request.roi.x * fx, request.roi.y * fy, request.roi.width * fx,
                         request.roi.height * fy);
    if (nearInteger(r.x) && nearInteger(r.y) && nearInteger(r.width) && nearInteger(r.height)) {
      const _Rect<int> rect(static_cast<int>(std::lround(r.x)), static_cast<int>(std::lround(r.y)),
                            static_cast<int>(std::lround(r.width)),
                            static_cast<int>(std::lround(r.height)));
      if (rect == frame->rect() && request.size == frame->size()) return frame;
      const bool inside = rect.x >= 0 && rect.y >= 0 && rect.x + rect.width <= frame->width &&
                          rect.y + rect.height <= frame->height;
      // A ROI reaching past a layer smaller than the canvas takes the affine path below.
      if (inside) return resampleRegion(layer, *frame, rect, request);
    }
  }
  auto out = std::make_shared<ImageDataRGBf>(request.size, PixelRGB<float>(0.0f, 0.0f, 0.0f),
                                             frame->colorProfile);
  AffineTransform frameToOutput(1.0f / fx, 0.0f, 0.0f, 1.0f / fy, 0.0f, 0.0f);
  frameToOutput.append(settings.layerToOutput());
  // The source rectangle is stretched over the destination before the transform applies, so
  // one of the destination's own size leaves frameToOutput the whole mapping.
  frame->copyAffineTransformedTo(out,
                                 _Rect<float>(0.0f, 0.0f, static_cast<float>(request.size.width),
                                              static_cast<float>(request.size.height)),
                                 frameToOutput, {});
  return out;
}

/// The layer's mask at the output (1 without one) times, for an image layer that leaves part
/// of the canvas uncovered, whether the output pixel's centre falls on the layer.
std::shared_ptr<const _ImageData<float>> blendMask(BaseLayer& layer, _Size<int> size) {
  std::shared_ptr<const _ImageData<float>> mask;
  if (layer.hasMask() && layer.isUseMask())
    mask = layer.maskPreviewForTransform(layer.transformSettings());
  const auto* image = dynamic_cast<ImageLayer*>(&layer);
  const _Size<int> source = image ? image->getSourceImage()->size() : _Size<int>();
  if (!image || layer.transformSettings().layerCoversCanvas(source)) return mask;
  AffineTransform toLayer = layer.transformSettings().layerToOutput();
  if (!toLayer.invert()) return mask;
  auto covered = std::make_shared<_ImageData<float>>(size);
  const auto w = static_cast<float>(source.width);
  const auto h = static_cast<float>(source.height);
  detail::parallelRows(size.height, [&](int first, int end) {
    for (int y = first; y < end; ++y) {
      float* row = covered->row(y);
      const float* under = mask && mask->size() == size ? mask->row(y) : nullptr;
      const float cy = static_cast<float>(y) + 0.5f;
      for (int x = 0; x < size.width; ++x) {
        const float cx = static_cast<float>(x) + 0.5f;
        const float px = toLayer.a * cx + toLayer.b * cy + toLayer.tx;
        const float py = toLayer.c * cx + toLayer.d * cy + toLayer.ty;
        const float inside = px >= 0.0f && py >= 0.0f && px < w && py < h ? 1.0f : 0.0f;
        row[x] = under ? under[x] * inside : inside;
      }
    }
  });
  return covered;
}

ConstFrame blendStep(const Operation& op, const ConstFrame& top, const ConstFrame& bottom) {
  BaseLayer& layer = *op.layer;
  std::shared_ptr<const _ImageData<float>> mask;
  float opacity = layer.getEffectAmount();
  BlendModeType mode = kBlendNormal;
  if (op.type == OperationType::Blend) {
    mask = blendMask(layer, top->size());
    opacity = layer.opacity();
    mode = layer.blendMode();
  }
  // Every pixel is written, so the result need not start as a copy of bottom.
  auto out = std::make_shared<ImageDataRGBf>(top->size(), top->colorProfile);
  blendImages(top, bottom, out, mask, opacity, mode, {});
  return out;
}

const char* stepLogFormat(const Operation& op) {
  switch (op.type) {
    case OperationType::Base:
      return "op(%zu) Base (%zu)";
    case OperationType::Blend:
      return "op(%zu) Blend (%zu)";
    case OperationType::BlendEffectAmount:
      return "op(%zu) BlendEffectAmount (%zu)";
    case OperationType::Compute:
      return op.afterDevelop ? "op(%zu) Compute(after develop) (%zu)" : "op(%zu) Compute (%zu)";
    case OperationType::Develop:
      return "op(%zu) Develop (%zu)";
    case OperationType::PushBlend:
      return op.servesEffectAmount ? "op(%zu) PushBlend(effectAmount) (%zu)"
                                   : "op(%zu) PushBlend (%zu)";
    case OperationType::PushBlendEffectAmount:
      return "op(%zu) PushBlendEffectAmount (%zu)";
    case OperationType::None:
      return "op(%zu) None (%zu)";
  }
  return nullptr;
}

/// Whether the layer state behind the step changed since it was cached: the layer's own flag
/// for image and push steps, the effect's for effect steps, the reblend flag for blends.
bool stepMarkedDirty(const Operation& op) {
  switch (op.type) {
    case OperationType::Compute:
    case OperationType::Develop:
      return op.effect->isNeedRecompute();
    case OperationType::Blend:
    case OperationType::BlendEffectAmount:
      return op.layer->isNeedReblend() || op.layer->isNeedProcessAmount();
    case OperationType::Base:
      return op.layer->isNeedProcessing();
    default:
      return op.layer->BaseLayer::isNeedProcessing();
  }
}

/// Every step has its layer, every effect step its effect, every blend an earlier bottom.
bool wellFormed(const std::vector<Operation>& ops) {
  for (std::size_t i = 0; i < ops.size(); ++i) {
    const Operation& op = ops[i];
    const bool effectStep = op.type == OperationType::Compute || op.type == OperationType::Develop;
    const bool blendStep =
        op.type == OperationType::Blend || op.type == OperationType::BlendEffectAmount;
    if (!op.layer || (effectStep && !op.effect) || (blendStep && op.bottom >= i)) return false;
  }
  return true;
}

/// The photo an effect step works on: that of the nearest image layer at or below it, whose
/// metadata (camera, as-shot white) the raw effects read.
std::shared_ptr<Image> photoBelow(const std::vector<Operation>& ops, std::size_t i) {
  for (std::size_t j = i + 1; j-- > 0;)
    if (ops[j].type == OperationType::Base)
      return static_cast<const ImageLayer&>(*ops[j].layer).getSourceImage();
  return nullptr;
}

}  // namespace

void ImageProcessorComputeUnit::reset() {
  cachedOps_.clear();
  results_.clear();
  result_.reset();
}

std::uint64_t ImageProcessorComputeUnit::cachedBytes() const {
  std::uint64_t total = 0;
  for (std::size_t i = 0; i < results_.size(); ++i) {
    if (!results_[i]) continue;
    const bool seen =
        std::any_of(results_.begin(), results_.begin() + static_cast<long>(i),
                    [&](const ConstFrame& r) { return r && r->data == results_[i]->data; });
    if (!seen) total += results_[i]->sizeInBytes();
  }
  return total;
}

void ImageProcessorComputeUnit::notePeak() {
  peakBytes_ = std::max(peakBytes_, cachedBytes());
}

std::size_t ImageProcessorComputeUnit::restoreCurrentCacheState(const std::vector<Operation>& ops,
                                                                const RenderRequest& request) {
  const std::size_t firstLayer = ops.empty() ? 0 : ops[0].layerIndex;
  if (cachedOps_.empty() || results_.empty()) {
    LogComment("cache-> cache is empty(%zu) op(%zu)", firstLayer, std::size_t{0});
    return 0;
  }
  if (!(request.roi == cachedRoi_) || request.size != cachedSize_) {
    LogComment("cache-> rect wasn't cached(%zu) op(%zu)", firstLayer, std::size_t{0});
    return 0;
  }
  std::size_t matched = 0;
  for (; matched < ops.size(); ++matched) {
    const Operation& op = ops[matched];
    if (matched >= cachedOps_.size()) {
      LogComment("cache-> rect wasn't cached(%zu) op(%zu)", op.layerIndex, matched);
      break;
    }
    const Operation& cached = cachedOps_[matched];
    if (op.type != cached.type) {
      const std::string line = std::string("cache-> operations type don't match(%zu) ") +
                               operationTypeName(op.type) +
                               " != " + operationTypeName(cached.type) + " op(%zu)";
      LogComment(line.c_str(), op.layerIndex, matched);
      break;
    }
    if (stepMarkedDirty(op) || op.key != cached.key) {
      LogComment("cache-> layer needs processing(%zu) op(%zu)", op.layerIndex, matched);
      break;
    }
  }
  // Resume after the last matching step whose image survived the budget, provided every bottom
  // a later blend reads survived too.
  std::size_t from = matched;
  const auto resumable = [&](std::size_t r) {
    if (r == 0) return true;
    if (!results_[r - 1]) return false;
    for (std::size_t j = r; j < ops.size(); ++j)
      if ((ops[j].type == OperationType::Blend ||
           ops[j].type == OperationType::BlendEffectAmount) &&
          ops[j].bottom < r && !results_[ops[j].bottom])
        return false;
    return true;
  };
  while (!resumable(from)) --from;
  if (from < matched)
    LogComment("cache-> rect wasn't cached(%zu) op(%zu)", ops[from].layerIndex, from);
  if (from == ops.size() && !ops.empty())
    LogComment("cache-> all operations are done(%zu) op(%zu)", ops.size(), ops.size() - 1);
  return from;
}

std::shared_ptr<const ImageDataRGBf> ImageProcessorComputeUnit::runStep(
    const std::vector<Operation>& ops, std::size_t i, const RenderRequest& request) {
  const Operation& op = ops[i];
  const ConstFrame previous = i > 0 ? results_[i - 1] : ConstFrame();
  switch (op.type) {
    case OperationType::Base:
      return renderBase(static_cast<ImageLayer&>(*op.layer), request);
    case OperationType::PushBlend:
    case OperationType::PushBlendEffectAmount:
      return previous;
    case OperationType::Compute:
    case OperationType::Develop: {
      if (!previous) return {};
      auto out = std::make_shared<ImageDataRGBf>(previous->size(), previous->colorProfile);
      const ConstFrame reference =
          needsWholePictureReference(op.effect->id()) ? request.wholePicture : ConstFrame();
      EffectCallContext call(previous, out, reference, {}, photoBelow(ops, i),
                             request.cancel.get());
      const EffectChainResult chain = runEffectChain({op.effect}, call);
      if (chain.status == EffectChainStatus::Cancelled)
        throw ImageProcessingStatus::cancelException();
      if (chain.status == EffectChainStatus::Failed) return {};
      return out;
    }
    case OperationType::Blend:
    case OperationType::BlendEffectAmount:
      if (!previous || !results_[op.bottom]) return {};
      return blendStep(op, previous, results_[op.bottom]);
    case OperationType::None:
      break;
  }
  return {};
}

bool ImageProcessorComputeUnit::processOperations(const std::vector<Operation>& ops,
                                                  std::size_t from, const RenderRequest& request) {
  const ImageProcessingStatus status(request.cancel);
  for (std::size_t i = from; i < ops.size(); ++i) {
    status.throwIfCancelled();
    const char* format = stepLogFormat(ops[i]);
    if (!format) {
      VORN_LOG_FAILURE("Unknown type of operation!");
      return false;
    }
    LogComment(format, i, ops[i].layerIndex);
    ConstFrame image = runStep(ops, i, request);
    if (!image) {
      VORN_LOG_FAILURE(("The step " + std::to_string(i) + " (" + operationTypeName(ops[i].type) +
                        ") produced no image")
                           .c_str());
      return false;
    }
    results_[i] = std::move(image);
    notePeak();
  }
  return true;
}

void ImageProcessorComputeUnit::trimCache() {
  const int budgetMiB = DataStore::instance().getInt(kCacheBudgetSetting, kDefaultCacheMiB);
  const std::uint64_t budget = static_cast<std::uint64_t>(std::max(budgetMiB, 0)) << 20;
  // The last image is the result itself, so it always stays.
  for (std::size_t i = 0; i + 1 < results_.size() && cachedBytes() > budget; ++i)
    results_[i].reset();
}

void ImageProcessorComputeUnit::clearFlags(const std::vector<Operation>& ops) {
  for (const Operation& op : ops) {
    op.layer->setNeedProcessing(false);
    op.layer->setNeedReblend(false);
    op.layer->setNeedProcessAmount(false);
    if (op.effect) op.effect->setNeedRecompute(false);
  }
}

RenderStatus ImageProcessorComputeUnit::run(const RenderRequest& request) {
  return runSteps(request, nullptr);
}

RenderStatus ImageProcessorComputeUnit::runOperations(const RenderRequest& request,
                                                      const std::vector<Operation>& ops) {
  return runSteps(request, &ops);
}

RenderStatus ImageProcessorComputeUnit::runSteps(const RenderRequest& request,
                                                 const std::vector<Operation>* given) {
  peakBytes_ = 0;
  try {
    const std::vector<Operation> ops = given ? *given : buildOperations(request);
    if (ops.empty()) {
      VORN_LOG_FAILURE("There is nothing to render");
      return RenderStatus::Failed;
    }
    if (!wellFormed(ops)) {
      VORN_LOG_FAILURE("Malformed step list: a step lacks its layer, effect or bottom");
      reset();
      return RenderStatus::Failed;
    }
    std::size_t from = request.useCache ? restoreCurrentCacheState(ops, request) : 0;
    const bool unchanged = from == ops.size() && ops.size() == cachedOps_.size() && result_;
    results_.resize(ops.size());
    for (std::size_t i = from; i < results_.size(); ++i) results_[i].reset();
    cachedOps_ = ops;
    cachedRoi_ = request.roi;
    cachedSize_ = request.size;
    notePeak();
    if (!processOperations(ops, from, request)) {
      reset();
      return RenderStatus::Failed;
    }
    clearFlags(ops);
    if (!unchanged) {
      // Shared with the cache: post-processing copies before it draws.
      result_ = std::const_pointer_cast<ImageDataRGBf>(results_.back());
      if (request.profile) {
        if (result_->colorProfile != request.profile) {
          result_ = std::make_shared<ImageDataRGBf>(*result_);
          result_->setColorProfile(request.profile);
        }
      }
    }
    if (!request.useCache) {
      for (std::size_t i = 0; i + 1 < results_.size(); ++i) results_[i].reset();
    } else {
      trimCache();
    }
    return RenderStatus::Done;
  } catch (const ImageProcessingStatus::cancelException&) {
    reset();
    return RenderStatus::Cancelled;
  } catch (const std::bad_alloc&) {
    reset();
    VORN_LOG_FAILURE("Not enough memory for the render");
    return RenderStatus::Failed;
  }
}

}  // namespace vorn
