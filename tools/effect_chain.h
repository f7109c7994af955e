#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "vorn/effects/effect.h"
#include "vorn/io/streamed_export.h"

namespace vorn::cli {

/// One `--effect ID[:Name=value,...]` argument as written, before it is checked.
struct EffectRequest {
  std::string id;
  std::vector<std::pair<std::string, std::string>> values;  ///< name and value text, in order
};

/// Splits one `--effect` argument; false and a message naming the fault on bad syntax.
bool parseEffectRequest(const std::string& text, EffectRequest& request, std::string& error);

/// Makes the effect and sets its values. Names match without regard to case; a value outside
/// the parameter's range is clamped and reported in `warnings`; "Name.data=TEXT" sets the
/// parameter's optional data to TEXT. Empty and `error` set on failure.
std::shared_ptr<Effect> makeRequestedEffect(const EffectRequest& request, std::string& error,
                                            std::vector<std::string>& warnings);

/// Runs the effects in order over the whole frame, in place, through the library's chain: the
/// command owns its decoded frame, so no second frame is made for the result. False and `error`
/// naming the failing effect on failure (the frame is then spoilt).
bool applyEffects(const std::shared_ptr<_ImageData<PixelRGB<float>>>& frame,
                  const std::vector<std::shared_ptr<Effect>>& effects, std::string& error);

/// Whether the effects can run on a band of rows at a time: each works pixel by pixel without
/// measuring the picture (or leaves it alone).
bool effectsRunBandByBand(const std::vector<std::shared_ptr<Effect>>& effects);

/// Runs the effects on each band handed to it, as parts of a picture of `imageSize`; after a
/// failure `error` names the failing effect.
BandProcessor effectsOnBands(const std::vector<std::shared_ptr<Effect>>& effects,
                             _Size<int> imageSize, std::string& error);

}  // namespace vorn::cli
