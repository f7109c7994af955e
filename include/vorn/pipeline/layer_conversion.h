#pragma once

#include <memory>

#include "vorn/io/image.h"
#include "vorn/pipeline/adjustment_layer.h"
#include "vorn/pipeline/image_layer.h"

namespace vorn {

// A conversion carries the BaseLayer state over (enabled, level, blend mode, opacity, effect
// amount, a copy of the mask, use mask, tags, transform); effects and images stay behind.

/// An image layer showing `image` with the adjustment layer's state; empty and a log line when
/// either argument is null.
std::shared_ptr<ImageLayer> convertLayer(std::shared_ptr<const AdjustmentLayer> layer,
                                         std::shared_ptr<Image> image);
/// An adjustment layer without effects with the image layer's state; empty and a log line
/// for a null layer.
std::shared_ptr<AdjustmentLayer> convertLayer(std::shared_ptr<const ImageLayer> layer);

}  // namespace vorn
