#include "vorn/effects/parameter.h"

namespace vorn {

Parameter::Parameter(const std::string& name, float min, float max, float defaultValue, bool hidden)
    : name_(name),
      min_(min),
      max_(max),
      default_(defaultValue),
      value_(defaultValue),
      hidden_(hidden) {}

Parameter::Parameter(const std::string& name, float min, float max, float defaultValue,
                     const ParameterOptionalData& defaultOptionalData,
                     const ParameterOptionalData& optionalData, bool hidden)
    : name_(name),
      min_(min),
      max_(max),
      default_(defaultValue),
      value_(defaultValue),
      hidden_(hidden),
      optionalData_(optionalData),
      defaultOptionalData_(defaultOptionalData) {}

bool Parameter::setValue(float value) {
  const float before = value_;
  // Written so that an unordered comparison keeps the bound: NaN becomes min.
  float clamped = value > min_ ? value : min_;
  clamped = max_ < clamped ? max_ : clamped;
  if (clamped == default_ && optionalData_ == defaultOptionalData_) {
    value_ = default_;
    nonDefault_ = false;
  } else {
    value_ = clamped;
    nonDefault_ = true;
  }
  return value_ != before;
}

void Parameter::setToDefault() {
  value_ = default_;
  nonDefault_ = false;
  optionalData_ = defaultOptionalData_;
}

bool Parameter::isSameType(const Parameter& other) const {
  return name_ == other.name_ && min_ == other.min_ && max_ == other.max_ &&
         default_ == other.default_ && defaultOptionalData_ == other.defaultOptionalData_;
}

bool Parameter::setOptionalData(const ParameterOptionalData& data) {
  const bool changed = !(optionalData_ == data);
  if (data == defaultOptionalData_ && value_ == default_) {
    optionalData_ = defaultOptionalData_;
    nonDefault_ = false;
  } else {
    optionalData_ = data;
    nonDefault_ = true;
  }
  return changed;
}

}  // namespace vorn
