// The step list of a render and the keys that tell which steps an earlier render already did.
#include <algorithm>
#include <bit>
#include <string_view>

#include "pipeline/image_processor_compute_unit.h"
#include "pipeline/render_effect_roles.h"
#include "vorn/pipeline/adjustment_layer.h"
#include "vorn/pipeline/image_layer.h"

namespace vorn {
namespace {

/// Folds values into a 64-bit key (splitmix64 finaliser per value).
class KeyMixer {
 public:
  explicit KeyMixer(std::uint64_t seed) : key_(seed) {}
  KeyMixer& add(std::uint64_t value) {
    std::uint64_t z = key_ ^ (value + 0x9e3779b97f4a7c15ull + (key_ << 6) + (key_ >> 2));
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
    key_ = z ^ (z >> 31);
    return *this;
  }
  KeyMixer& add(float value) { return add(std::uint64_t{std::bit_cast<std::uint32_t>(value)}); }
  KeyMixer& add(const void* pointer) { return add(reinterpret_cast<std::uintptr_t>(pointer)); }
  KeyMixer& add(const AffineTransform& t) {
    return add(t.a).add(t.b).add(t.c).add(t.d).add(t.tx).add(t.ty);
  }
  std::uint64_t key() const { return key_; }

 private:
  std::uint64_t key_;
};

/// Whether the layer must be mixed with what lies beneath it. Unlike isNeedBlend() this leaves
/// out the transient reblend flag, so the step list of a layer only changes with its state.
bool blendsOverBelow(BaseLayer& layer, bool coversCanvas) {
  return layer.opacity() != 1.0f || layer.blendMode() != kBlendNormal ||
         (layer.hasMask() && layer.isUseMask()) || !coversCanvas;
}

class OperationBuilder {
 public:
  explicit OperationBuilder(const RenderRequest& request) : request_(request) {}

  std::vector<Operation> build() {
    for (std::size_t i = 0; i < request_.pool.size(); ++i) {
      const std::shared_ptr<BaseLayer>& layer = request_.pool[i];
      if (layer->type() == kImageLayer)
        addImageLayer(i, std::static_pointer_cast<ImageLayer>(layer));
      else
        addAdjustmentLayer(i, std::static_pointer_cast<AdjustmentLayer>(layer));
    }
    return std::move(ops_);
  }

 private:
  Operation& push(OperationType type, std::size_t index, const std::shared_ptr<BaseLayer>& layer) {
    Operation op;
    op.type = type;
    op.layerIndex = index;
    op.layer = layer;
    op.key = ops_.empty() ? 0 : ops_.back().key;
    ops_.push_back(std::move(op));
    return ops_.back();
  }

  void addImageLayer(std::size_t index, const std::shared_ptr<ImageLayer>& layer) {
    const bool covers =
        layer->transformSettings().layerCoversCanvas(layer->getSourceImage()->size());
    const bool blend = !ops_.empty() && blendsOverBelow(*layer, covers);
    const std::size_t pushIndex = ops_.size();
    if (blend) mixed(push(OperationType::PushBlend, index, layer));
    Operation& base = push(OperationType::Base, index, layer);
    const ImageLayer::Frame frame = layer->getWorkingImage();
    const ImageTransformSettings& t = layer->transformSettings();
    // A base step starts a new image: its key does not depend on the steps below.
    base.key = KeyMixer(0x62617365)
                   .add(layer.get())
                   .add(frame ? static_cast<const void*>(frame->data) : nullptr)
                   .add(std::uint64_t{frame ? static_cast<std::uint64_t>(frame->loadState) : 0})
                   .add(t.layerToCanvas)
                   .add(request_.roi.x)
                   .add(request_.roi.y)
                   .add(request_.roi.width)
                   .add(request_.roi.height)
                   .add(std::uint64_t{static_cast<std::uint32_t>(request_.size.width)})
                   .add(std::uint64_t{static_cast<std::uint32_t>(request_.size.height)})
                   .add(std::uint64_t{request_.previewQuality})
                   .key();
    if (blend) addBlend(OperationType::Blend, index, layer, pushIndex);
  }

  void addAdjustmentLayer(std::size_t index, const std::shared_ptr<AdjustmentLayer>& layer) {
    std::vector<std::shared_ptr<Effect>> active;
    for (const std::shared_ptr<Effect>& effect : layer->effects())
      if (effect && effect->isNeedProcessing()) active.push_back(effect);
    // A layer whose effects all rest at their defaults leaves the image as it is.
    if (active.empty() || ops_.empty()) return;
    const bool blend = blendsOverBelow(*layer, true);
    const bool amount = layer->getEffectAmount() < 1.0f;
    const std::size_t pushIndex = ops_.size();
    if (blend) {
      mixed(push(OperationType::PushBlend, index, layer)).servesEffectAmount = amount;
    } else if (amount) {
      mixed(push(OperationType::PushBlendEffectAmount, index, layer));
    }
    bool developed = false;
    for (const std::shared_ptr<Effect>& effect : active) {
      const bool develop = isDevelopEffect(effect->id());
      Operation& op = push(develop ? OperationType::Develop : OperationType::Compute, index, layer);
      op.effect = effect;
      op.afterDevelop = developed && !develop;
      developed = developed || develop;
      op.key = KeyMixer(op.key).add(std::uint64_t{4}).add(effect->cacheKey()).key();
    }
    if (amount) addBlend(OperationType::BlendEffectAmount, index, layer, pushIndex);
    if (blend) addBlend(OperationType::Blend, index, layer, pushIndex);
  }

  Operation& mixed(Operation& op) {
    op.key = KeyMixer(op.key).add(std::uint64_t{static_cast<std::uint32_t>(op.type)}).key();
    return op;
  }

  void addBlend(OperationType type, std::size_t index, const std::shared_ptr<BaseLayer>& layer,
                std::size_t pushIndex) {
    const std::uint64_t bottomKey = ops_[pushIndex].key;
    Operation& op = push(type, index, layer);
    op.bottom = pushIndex;
    KeyMixer mixer(op.key);
    mixer.add(std::uint64_t{static_cast<std::uint32_t>(type)}).add(bottomKey);
    if (type == OperationType::BlendEffectAmount) {
      mixer.add(layer->getEffectAmount());
    } else {
      mixer.add(layer->opacity())
          .add(std::uint64_t{static_cast<std::uint32_t>(layer->blendMode())})
          .add(layer->isUseMask() ? static_cast<const void*>(layer->mask().get()) : nullptr)
          .add(layer->transformSettings().layerToCanvas);
    }
    op.key = mixer.key();
  }

  const RenderRequest& request_;
  std::vector<Operation> ops_;
};

}  // namespace

const char* operationTypeName(OperationType type) {
  switch (type) {
    case OperationType::None:
      return "None";
    case OperationType::Base:
      return "Base";
    case OperationType::Blend:
      return "Blend";
    case OperationType::BlendEffectAmount:
      return "BlendEffectAmount";
    case OperationType::Compute:
      return "Compute";
    case OperationType::Develop:
      return "Develop";
    case OperationType::PushBlend:
      return "PushBlend";
    case OperationType::PushBlendEffectAmount:
      return "PushBlendEffectAmount";
  }
  return "Unknown";
}

std::vector<Operation> ImageProcessorComputeUnit::buildOperations(const RenderRequest& request) {
  return OperationBuilder(request).build();
}

}  // namespace vorn
