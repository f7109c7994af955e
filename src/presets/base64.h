#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vorn::detail {

/// Standard base64 (RFC 4648, with padding; line breaks and spaces ignored); empty optional for
/// any other character or a broken length.
std::optional<std::vector<std::uint8_t>> decodeBase64(const std::string& text);
std::string encodeBase64(const std::vector<std::uint8_t>& bytes);

}  // namespace vorn::detail
