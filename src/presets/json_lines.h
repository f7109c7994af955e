#pragma once

#include <nlohmann/json.hpp>

#include <string>
#include <unordered_map>

namespace vorn::detail {

/// Parses JSON text for a file reader that must name lines: refuses nesting deeper than
/// `maxDepth` and duplicate keys (which the parser would silently merge), and remembers the
/// line of every member and of every array element that is an object or an array. Throws
/// PresetError with `origin:line: message`.
class JsonLines {
 public:
  JsonLines(const std::string& text, const std::string& origin, int maxDepth);

  const nlohmann::json& root() const { return root_; }
  /// The line of the value at a JSON pointer, or of its nearest recorded parent.
  int lineOf(std::string pointer) const;

 private:
  nlohmann::json root_;
  std::unordered_map<std::string, int> lines_;
};

/// "/layers/0/effects" as a reader would write it: layers[0].effects.
std::string fieldName(const std::string& pointer);
/// One JSON pointer step for a key (escapes '~' and '/').
std::string pointerStep(const std::string& key);

}  // namespace vorn::detail
