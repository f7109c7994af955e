#include "vorn/pipeline/layer_conversion.h"

#include "core/log_failure.h"

namespace vorn {
namespace {

void carryState(const BaseLayer& from, BaseLayer& to) {
  to.setEnabled(from.isEnabled());
  to.setLevel(from.level());
  to.setBlendMode(from.blendMode());
  to.setOpacity(from.opacity());
  to.setEffectAmount(from.getEffectAmount());
  to.setMask(std::shared_ptr<const MaskImage>(from.mask()));
  to.setUseMask(from.isUseMask());
  to.clearTags();
  for (const std::string& tag : from.getTags()) to.setTag(tag);
  to.setTransform(from.transformSettings());
}

}  // namespace

std::shared_ptr<ImageLayer> convertLayer(std::shared_ptr<const AdjustmentLayer> layer,
                                         std::shared_ptr<Image> image) {
  if (!layer || !image) {
    VORN_LOG_FAILURE(!layer ? "Null layer" : "Null image");
    return {};
  }
  auto converted = std::make_shared<ImageLayer>(std::move(image));
  carryState(*layer, *converted);
  return converted;
}

std::shared_ptr<AdjustmentLayer> convertLayer(std::shared_ptr<const ImageLayer> layer) {
  if (!layer) {
    VORN_LOG_FAILURE("Null layer");
    return {};
  }
  auto converted = std::make_shared<AdjustmentLayer>(layer->level());
  carryState(*layer, *converted);
  return converted;
}

}  // namespace vorn
