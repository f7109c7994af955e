#pragma once

#include <boost/variant.hpp>

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace vorn {

/// Extra data a parameter may carry beside its float (curve points, a file name, named groups).
using ParameterOptionalData =
    boost::variant<std::vector<float>, std::string,
                   std::vector<std::pair<std::string, std::map<std::string, float>>>>;

/// One named, bounded float value of an effect; out-of-range values are clamped, never rejected.
class Parameter {
 public:
  Parameter(const std::string& name, float min, float max, float defaultValue, bool hidden);
  Parameter(const std::string& name, float min, float max, float defaultValue,
            const ParameterOptionalData& defaultOptionalData,
            const ParameterOptionalData& optionalData, bool hidden);

  std::string name() const { return name_; }
  float minValue() const { return min_; }
  float maxValue() const { return max_; }
  float defaultValue() const { return default_; }
  float value() const { return value_; }
  bool isHidden() const { return hidden_; }
  bool isNonDefault() const { return nonDefault_; }

  /// Clamps to [min, max] (NaN becomes min); true when the stored value changed.
  bool setValue(float value);
  /// Restores the default value and the default optional data.
  void setToDefault();
  /// Same name, bounds, default and default optional data; current state is ignored.
  bool isSameType(const Parameter& other) const;

  ParameterOptionalData optionalData() const { return optionalData_; }
  /// Stores the data (the default form when it and the value are default); true when it changed.
  bool setOptionalData(const ParameterOptionalData& data);

  /// Always true: parameters are deliberately never told apart by ==; use isSameType and the
  /// accessors for comparisons that matter.
  bool operator==(const Parameter&) const { return true; }

 private:
  std::string name_;
  float min_;
  float max_;
  float default_;
  float value_;
  bool nonDefault_ = false;
  bool hidden_;
  ParameterOptionalData optionalData_;
  ParameterOptionalData defaultOptionalData_;
};

/// An effect's parameters in declaration order; lists are matched by position, not by name.
using Parameters = std::vector<Parameter>;

}  // namespace vorn
