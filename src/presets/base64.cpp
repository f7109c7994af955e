#include "presets/base64.h"

#include <array>

namespace vorn::detail {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<int, 256> decodingTable() {
  std::array<int, 256> table{};
  for (int& v : table) v = -1;
  for (int i = 0; i < 64; ++i) table[static_cast<unsigned char>(kAlphabet[i])] = i;
  return table;
}

}  // namespace

std::optional<std::vector<std::uint8_t>> decodeBase64(const std::string& text) {
  static constexpr std::array<int, 256> kTable = decodingTable();
  std::vector<std::uint8_t> bytes;
  bytes.reserve(text.size() / 4 * 3);
  std::uint32_t bits = 0;
  int count = 0;
  std::size_t padding = 0;
  std::size_t symbols = 0;
  for (const char c : text) {
    if (c == '\n' || c == '\r' || c == ' ' || c == '\t') continue;
    if (c == '=') {
      ++padding;
      ++symbols;
      continue;
    }
    const int value = kTable[static_cast<unsigned char>(c)];
    if (value < 0 || padding > 0) return std::nullopt;  // padding only at the end
    bits = bits << 6 | static_cast<std::uint32_t>(value);
    ++symbols;
    if (++count == 4) {
      bytes.push_back(static_cast<std::uint8_t>(bits >> 16));
      bytes.push_back(static_cast<std::uint8_t>(bits >> 8));
      bytes.push_back(static_cast<std::uint8_t>(bits));
      bits = 0;
      count = 0;
    }
  }
  if (symbols % 4 != 0 || padding > 2 || (padding > 0 && count + padding != 4)) return std::nullopt;
  if (count == 2) bytes.push_back(static_cast<std::uint8_t>(bits >> 4));
  if (count == 3) {
    bytes.push_back(static_cast<std::uint8_t>(bits >> 10));
    bytes.push_back(static_cast<std::uint8_t>(bits >> 2));
  }
  return bytes;
}

std::string encodeBase64(const std::vector<std::uint8_t>& bytes) {
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const std::size_t n = std::min<std::size_t>(3, bytes.size() - i);
    std::uint32_t bits = static_cast<std::uint32_t>(bytes[i]) << 16;
    if (n > 1) bits |= static_cast<std::uint32_t>(bytes[i + 1]) << 8;
    if (n > 2) bits |= bytes[i + 2];
    for (std::size_t k = 0; k < 4; ++k)
      text.push_back(k <= n ? kAlphabet[(bits >> (18 - 6 * k)) & 63] : '=');
  }
  return text;
}

}  // namespace vorn::detail
