#include "vorn/io/fail_on.h"

#include <array>
#include <utility>

#include "vorn/core/data_store.h"

namespace vorn {
namespace {

constexpr std::array<std::pair<const char*, FailOn>, 3> kNames = {{
    {"none", FailOn::None},
    {"truncated", FailOn::Truncated},
    {"error", FailOn::Error},
}};

}  // namespace

bool parseFailOn(const std::string& text, FailOn& policy) {
  for (const auto& [name, value] : kNames) {
    if (text == name) {
      policy = value;
      return true;
    }
  }
  return false;
}

FailOn failOnSetting() {
  FailOn policy = FailOn::Error;
  parseFailOn(DataStore::instance().getString(kFailOnSetting, {}), policy);
  return policy;
}

}  // namespace vorn
