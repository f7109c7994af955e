#pragma once

#include <cstdint>

namespace vorn {

// BlendModeType: values 0..13, see blend.h
/// How a layer's pixels combine with the layers below it.
enum BlendModeType : std::int32_t { kBlendNormal = 0 };

}  // namespace vorn
