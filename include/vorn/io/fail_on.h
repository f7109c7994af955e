#pragma once

#include <string>

namespace vorn {

/// Which damage in a file's data fails its open: the decoder's warnings (corrupt data, a bad
/// Huffman code, data that ends early) and a raw decode that stops before the image is whole.
enum class FailOn {
  None,       ///< damage is logged and whatever was decoded is kept
  Truncated,  ///< only data that ends before the image does fails
  Error,      ///< any damage the decoder reports fails (the default)
};

/// The library side of the policy is this setting ("none", "truncated" or "error"), read by
/// every open that is not handed a policy of its own; unset or unknown text reads as "error".
inline constexpr const char* kFailOnSetting = "ImageReader.FailOn";

/// The policy the setting names.
FailOn failOnSetting();
/// The policy a name spells ("none", "truncated", "error"); false for any other text.
bool parseFailOn(const std::string& text, FailOn& policy);
/// Whether damage of this kind (data that ends early, or any other) fails under the policy.
inline bool damageFails(FailOn policy, bool truncation) {
  return policy == FailOn::Error || (policy == FailOn::Truncated && truncation);
}

}  // namespace vorn
