#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "vorn/core/geometry.h"
#include "vorn/core/image_data.h"
#include "vorn/core/pixel.h"
#include "vorn/effects/parameter.h"

namespace vorn {

class Image;

/// Per-effect environment set by the owner (the image processor) before rendering.
struct EffectContext {
  /// Output pixels per pixel of the full-resolution working image.
  float scale = 1.0f;
  /// The whole working image at that scale; (0, 0) when the owner does not know it. Spatial
  /// sizes (radii, grain) follow its short side, so a preview looks like the export shrunk;
  /// without it they follow scale, as if the full-resolution frame were 24 MP.
  _Size<int> imageSize;
  /// Rendering a preview rather than an export.
  bool preview = false;
  /// Where pixel (0, 0) of the rendered pixels lies in that whole image, so effects placed on
  /// the frame (vignette, gradients, grain) agree between a region render and a whole one.
  _Point<int> origin;
};

/// What the factory was told when it made the effect; stored values are interpreted against it.
struct EffectParametersContext {
  /// The effect was made for a raw photograph.
  bool rawSource = false;
  /// Version of the document format whose values will be applied.
  int documentVersion = 1;
};

/// Optional extra settings an owner may hand to an effect.
struct EffectAdditionalSettings {
  /// Prefer quality over speed (exports) rather than speed over quality (live previews).
  bool highQuality = true;
};

/// The arguments of one rendering call.
struct EffectCallContext {
  EffectCallContext() = default;
  EffectCallContext(std::shared_ptr<const _ImageData<PixelRGB<float>>> sourceImage,
                    std::shared_ptr<_ImageData<PixelRGB<float>>> destinationImage,
                    std::shared_ptr<const _ImageData<PixelRGB<float>>> referenceImage,
                    const _Rect<int>& regionOfInterest, const std::shared_ptr<Image>& loadedImage,
                    const bool* cancelFlag)
      : source(std::move(sourceImage)),
        destination(std::move(destinationImage)),
        reference(std::move(referenceImage)),
        roi(regionOfInterest),
        image(loadedImage),
        cancel(cancelFlag) {}

  std::shared_ptr<const _ImageData<PixelRGB<float>>> source;
  std::shared_ptr<_ImageData<PixelRGB<float>>> destination;
  /// A read-only image beside the source; effects with global statistics read them from here
  /// when it is given (the whole picture) so that every tile of a render agrees.
  std::shared_ptr<const _ImageData<PixelRGB<float>>> reference;
  _Rect<int> roi;
  std::shared_ptr<Image> image;
  const bool* cancel = nullptr;
};

/// An image adjustment: named float parameters and a renderer of source into destination.
class Effect {
 public:
  Effect();
  explicit Effect(const std::string& id);
  Effect(const Effect&) = default;
  Effect& operator=(const Effect&) = default;

  virtual ~Effect();
  /// Drops intermediate results an effect may keep between calls.
  virtual void clearCache();
  /// Renders call.source into call.destination (same size); true on success.
  virtual bool processImage(EffectCallContext& call) = 0;
  /// A new effect from the factory with this id, parameters context and parameter values.
  virtual std::shared_ptr<Effect> clone() const;
  /// Replaces the parameters by the declared list and marks the effect for recomputation.
  virtual void setParametersDefault();
  virtual void setParametersContext(const std::shared_ptr<const EffectParametersContext>& context);
  /// The effect's full parameter list with every value at its default.
  virtual std::vector<Parameter> declaredParameters() const = 0;
  /// True when any parameter is non-default.
  virtual bool isNeedProcessing() const;
  virtual void setAdditionalSettings(std::shared_ptr<const EffectAdditionalSettings> settings);
  /// The input region that rendering outRect needs.
  virtual _Rect<int> getInRectForOutRect(_Rect<int> outRect);
  /// The output region that inRect influences.
  virtual _Rect<int> getOutRectForInRect(_Rect<int> inRect);
  virtual void setContext(std::shared_ptr<EffectContext> context);
  /// Whether faces must be detected before the effect runs.
  virtual bool needFaces();

  std::string id() const { return id_; }
  Parameters& parameters() { return parameters_; }
  const Parameters& parameters() const { return parameters_; }
  std::vector<Parameter> getCurrentParameters() const { return parameters_; }
  /// Applies a list of the declared shape; any other non-empty list resets to the defaults
  /// with a line on standard error, an empty one silently.
  void setParameters(const std::vector<Parameter>& parameters);
  bool isNeedRecompute() const { return needRecompute_; }
  void setNeedRecompute(bool needRecompute) { needRecompute_ = needRecompute; }
  std::shared_ptr<const EffectParametersContext> getPrarmetersContext() const {
    return parametersContext_;
  }
  /// processImage plus one CriticalError log line when it fails.
  bool processImageWrapper(EffectCallContext& call);

  /// Identifies what this effect would render: its identifier, parameter values and optional
  /// data hashed together. Equal keys mean equal output for the same input and render scale.
  std::uint64_t cacheKey() const;

  /// Maps parameter `index` piecewise linearly: min to atMin, the midpoint to atMid, max to
  /// atMax. An index outside the list gives atMid.
  float mappedValue(std::size_t index, float atMin, float atMid, float atMax) const;

 protected:
  bool checkParameters(const std::vector<Parameter>& parameters) const;
  void setId(const std::string& id) { id_ = id; }
  /// The render scale of the context, 1 without one.
  float renderScale() const;
  /// Spatial sizes are given in pixels of a frame whose short side is 4000 pixels (a 24 MP
  /// photograph); this factor turns them into pixels of the frame being rendered.
  float spatialScale() const;

  std::shared_ptr<EffectContext> context_;
  std::string id_;
  Parameters parameters_;
  bool needRecompute_ = true;
  std::shared_ptr<const EffectAdditionalSettings> additionalSettings_;
  std::shared_ptr<const EffectParametersContext> parametersContext_;
};

}  // namespace vorn
