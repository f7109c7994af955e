#include "effects/lut/cube_file.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace vorn::detail {

namespace {

constexpr std::string_view kBlanks = " \t\r\f\v";

std::string_view trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

/// The words of a line, split at blanks.
std::vector<std::string_view> words(std::string_view line) {
  std::vector<std::string_view> out;
  while (!(line = trimmed(line)).empty()) {
    const auto end = line.find_first_of(kBlanks);
    out.push_back(line.substr(0, end));
    line = end == std::string_view::npos ? std::string_view() : line.substr(end);
  }
  return out;
}

/// The reading state of one file: where we are, what has been declared.
class CubeParser {
 public:
  CubeLut run(std::string_view text) {
    textBytes_ = text.size();
    while (!text.empty()) {
      const auto end = text.find('\n');
      ++lineNumber_;
      line(text.substr(0, end));
      text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    }
    if (lut_.size == 0) fail("no LUT_1D_SIZE or LUT_3D_SIZE line", false);
    if (entries_ < expected_) {
      fail("truncated: " + std::to_string(entries_) + " of " + std::to_string(expected_) +
               " table entries",
           false);
    }
    for (std::size_t c = 0; c < 3; ++c) {
      if (!(lut_.domainMin[c] < lut_.domainMax[c]))
        fail("DOMAIN_MIN is not below DOMAIN_MAX in every channel", false);
    }
    return std::move(lut_);
  }

 private:
  [[noreturn]] void fail(const std::string& what, bool atLine = true) const {
    throw CubeFormatError(atLine ? "line " + std::to_string(lineNumber_) + ": " + what : what);
  }

  // Out of line: GCC 12 misreads the inlined string building as an overlapping copy.
  [[noreturn, gnu::noinline]] void failWord(std::string_view word, const char* what) const {
    std::string message(1, '"');
    message.append(word).append("\" ").append(what);
    fail(message);
  }

  float number(std::string_view word) const {
    const char* end = word.data() + word.size();
    const char* begin = !word.empty() && word.front() == '+' ? word.data() + 1 : word.data();
    float value = 0.0f;
    const auto [stop, status] = std::from_chars(begin, end, value);
    if (status != std::errc() || stop != end) failWord(word, "is not a number");
    if (!std::isfinite(value)) failWord(word, "is not a finite number");
    return value;
  }

  void line(std::string_view text) {
    text = trimmed(text.substr(0, text.find('#')));
    if (text.empty()) return;
    if (text.rfind("TITLE", 0) == 0 && (text.size() == 5 || kBlanks.find(text[5]) != kBlanks.npos))
      return title(trimmed(text.substr(5)));
    const std::vector<std::string_view> parts = words(text);
    const std::string_view key = parts.front();
    const bool isData = key.front() == '-' || key.front() == '+' || key.front() == '.' ||
                        (key.front() >= '0' && key.front() <= '9');
    if (isData) return entry(parts);
    const bool isSize = key == "LUT_1D_SIZE" || key == "LUT_3D_SIZE";
    const bool isDomain = key == "DOMAIN_MIN" || key == "DOMAIN_MAX";
    const bool isRange = key == "LUT_1D_INPUT_RANGE" || key == "LUT_3D_INPUT_RANGE";
    if (!isSize && !isDomain && !isRange) failWord(key, "is an unknown keyword");
    if (entries_ > 0) fail("keyword " + std::string(key) + " after the table entries");
    if (isSize) return size(parts, key == "LUT_3D_SIZE");
    if (isDomain) return domain(parts, key == "DOMAIN_MIN");
    inputRange(parts);
  }

  void title(std::string_view text) {
    if (text.size() >= 2 && text.front() == '"' && text.back() == '"')
      text = text.substr(1, text.size() - 2);
    lut_.title = std::string(text);
  }

  void size(const std::vector<std::string_view>& parts, bool is3D) {
    if (lut_.size != 0) fail("a second table size (one 1D or one 3D table per file)");
    if (parts.size() != 2) fail(std::string(parts[0]) + " needs one whole number");
    const int limit = is3D ? kMaxCube3DSize : kMaxCube1DSize;
    int value = 0;
    const auto [stop, status] =
        std::from_chars(parts[1].data(), parts[1].data() + parts[1].size(), value);
    if (status != std::errc() || stop != parts[1].data() + parts[1].size() || value < 2 ||
        value > limit) {
      fail(std::string(parts[0]) + " \"" + std::string(parts[1]) + "\" is not a size in 2 ... " +
           std::to_string(limit));
    }
    lut_.size = value;
    lut_.is3D = is3D;
    const auto side = static_cast<std::size_t>(value);
    expected_ = is3D ? side * side * side : side;
    // An entry takes at least six characters ("0 0 0\n"): a short file claiming a large table
    // must not cost the table's memory before it is found truncated.
    lut_.values.reserve(3 * std::min(expected_, textBytes_ / 6));
  }

  void domain(const std::vector<std::string_view>& parts, bool isMin) {
    if (parts.size() != 4) fail(std::string(parts[0]) + " needs three numbers");
    std::array<float, 3>& bound = isMin ? lut_.domainMin : lut_.domainMax;
    for (std::size_t c = 0; c < 3; ++c) bound[c] = number(parts[c + 1]);
  }

  void inputRange(const std::vector<std::string_view>& parts) {
    if (parts.size() != 3) fail(std::string(parts[0]) + " needs two numbers");
    lut_.domainMin.fill(number(parts[1]));
    lut_.domainMax.fill(number(parts[2]));
  }

  void entry(const std::vector<std::string_view>& parts) {
    if (lut_.size == 0) fail("a table entry before LUT_1D_SIZE or LUT_3D_SIZE");
    if (parts.size() != 3) fail("a table entry needs three numbers");
    if (entries_ == expected_) fail("more table entries than the size declares");
    for (const std::string_view part : parts) lut_.values.push_back(number(part));
    ++entries_;
  }

  CubeLut lut_;
  std::size_t textBytes_ = 0;
  std::size_t lineNumber_ = 0;
  std::size_t expected_ = 0;
  std::size_t entries_ = 0;
};

bool holdsIdentity(const CubeLut& lut) {
  // Files print six decimals, so 1/3 is written 0.333333.
  constexpr float kTolerance = 2e-6f;
  if (lut.domainMin != std::array<float, 3>{0.0f, 0.0f, 0.0f} ||
      lut.domainMax != std::array<float, 3>{1.0f, 1.0f, 1.0f})
    return false;
  const auto side = static_cast<std::size_t>(lut.size);
  const float step = 1.0f / static_cast<float>(lut.size - 1);
  const auto off = [&](std::size_t at, std::size_t index) {
    return std::fabs(lut.values[at] - static_cast<float>(index) * step) > kTolerance;
  };
  const std::size_t count = lut.values.size() / 3;
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t r = lut.is3D ? i % side : i;
    const std::size_t g = lut.is3D ? i / side % side : i;
    const std::size_t b = lut.is3D ? i / (side * side) : i;
    if (off(3 * i, r) || off(3 * i + 1, g) || off(3 * i + 2, b)) return false;
  }
  return true;
}

}  // namespace

CubeLut parseCube(std::string_view text) {
  CubeLut lut = CubeParser().run(text);
  lut.identity = holdsIdentity(lut);
  return lut;
}

CubeLut readCubeFile(const std::string& path) {
  std::error_code error;
  const auto bytes = std::filesystem::file_size(path, error);
  if (error) throw CubeFormatError("cannot read " + path + ": " + error.message());
  if (bytes > kMaxCubeFileBytes) {
    throw CubeFormatError(path + " is " + std::to_string(bytes >> 20) +
                          " MiB, more than any .cube table needs");
  }
  std::ifstream file(path, std::ios::binary);
  std::string text(static_cast<std::size_t>(bytes), '\0');
  if (!file || !file.read(text.data(), static_cast<std::streamsize>(bytes)))
    throw CubeFormatError("cannot read " + path);
  try {
    return parseCube(text);
  } catch (const CubeFormatError& e) {
    throw CubeFormatError(path + ": " + e.what());
  }
}

}  // namespace vorn::detail
