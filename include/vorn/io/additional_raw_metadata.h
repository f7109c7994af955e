#pragma once

#include <memory>
#include <mutex>

namespace vorn {

/// A value that a background job delivers later.
template <typename T>
class IFuture {
 public:
  virtual ~IFuture() = default;
  /// Writes the value, blocking until it is there; throws what the job threw.
  virtual void get(T& value) = 0;
  /// True once get() would not block.
  virtual bool hasValue() const = 0;
};

/// Lens corrections found by analysing a raw frame.
struct AutoDetectedLensCorrection {
  /// Lateral chromatic aberration as scale factors of the red and blue planes about the centre.
  struct ca_t {
    float redScale = 0.0f;
    float blueScale = 0.0f;
    bool operator==(const ca_t&) const = default;
  };
  /// Radial distortion coefficients of r^2, r^4 and r^6 (normalised radius).
  struct distortion_t {
    float k1 = 0.0f;
    float k2 = 0.0f;
    float k3 = 0.0f;
    bool operator==(const distortion_t&) const = default;
  };
};

/// Results computed from a raw frame after decoding, each by its own background job.
class AdditionalRawMetadata {
 public:
  /// Tone settings that the analysis proposes for the frame.
  struct AutoDetectedTone {
    float exposure = 0.0f;
    float contrast = 0.0f;
    float highlights = 0.0f;
    float shadows = 0.0f;
    float whites = 0.0f;
    float blacks = 0.0f;
    bool operator==(const AutoDetectedTone&) const = default;
  };

  virtual ~AdditionalRawMetadata() = default;
  virtual AutoDetectedTone getAutoDetectedTone() const = 0;
  virtual AutoDetectedLensCorrection::ca_t getAutoDetectedCA() const = 0;
  virtual AutoDetectedLensCorrection::distortion_t getAutoDetectedDistortion() const = 0;
  /// Forgets the chromatic-aberration result; its getter returns the zero value afterwards.
  virtual void removeCAdata() = 0;
  /// Blocks until every scheduled value is there.
  virtual void wait() const = 0;
};

/// Values read straight from a finished AdditionalRawMetadata.
class AdditionalRawMetadataSync final : public AdditionalRawMetadata {
 public:
  /// A null source gives zero values.
  explicit AdditionalRawMetadataSync(std::shared_ptr<const AdditionalRawMetadata> finished);

  AutoDetectedTone getAutoDetectedTone() const override;
  AutoDetectedLensCorrection::ca_t getAutoDetectedCA() const override;
  AutoDetectedLensCorrection::distortion_t getAutoDetectedDistortion() const override;
  void removeCAdata() override;
  void wait() const override {}

 private:
  AutoDetectedTone tone_;
  AutoDetectedLensCorrection::ca_t ca_;
  AutoDetectedLensCorrection::distortion_t distortion_;
};

/// Values that arrive through futures; a getter whose future has no value yet returns zeros.
class AdditionalRawMetadataAsync final : public AdditionalRawMetadata {
 public:
  void scheduleTone(std::shared_ptr<IFuture<AutoDetectedTone>> future);
  void scheduleCA(std::shared_ptr<IFuture<AutoDetectedLensCorrection::ca_t>> future);
  void scheduleDistortion(
      std::shared_ptr<IFuture<AutoDetectedLensCorrection::distortion_t>> future);

  AutoDetectedTone getAutoDetectedTone() const override;
  AutoDetectedLensCorrection::ca_t getAutoDetectedCA() const override;
  AutoDetectedLensCorrection::distortion_t getAutoDetectedDistortion() const override;
  void removeCAdata() override;
  void wait() const override;

 private:
  mutable std::mutex mutex_;  ///< guards the pointers, not the futures' values
  std::shared_ptr<IFuture<AutoDetectedTone>> tone_;
  std::shared_ptr<IFuture<AutoDetectedLensCorrection::ca_t>> ca_;
  std::shared_ptr<IFuture<AutoDetectedLensCorrection::distortion_t>> distortion_;
};

}  // namespace vorn
