#include "presets/json_lines.h"

#include <cctype>
#include <set>

#include "vorn/presets/preset.h"

namespace vorn::detail {
namespace {

[[noreturn]] void fail(const std::string& origin, int line, const std::string& message) {
  throw PresetError(origin + ":" + std::to_string(line) + ": " + message);
}

// Counted on the raw text before parsing, so a hostile file of nested brackets is refused
// without building any of it; brackets inside strings do not count.
void checkNesting(const std::string& text, const std::string& origin, int maxDepth) {
  int depth = 0;
  int line = 1;
  bool inString = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '\n') ++line;
    if (inString) {
      if (c == '\\') {
        ++i;
      } else if (c == '"') {
        inString = false;
      }
    } else if (c == '"') {
      inString = true;
    } else if (c == '{' || c == '[') {
      if (++depth > maxDepth)
        fail(origin, line, "nested deeper than " + std::to_string(maxDepth) + " levels");
    } else if (c == '}' || c == ']') {
      --depth;
    }
  }
}

int lineAt(const std::string& text, std::size_t offset) {
  int line = 1;
  for (std::size_t i = 0; i < offset && i < text.size(); ++i) line += text[i] == '\n';
  return line;
}

// Walks text the parser has accepted, so it can rely on the grammar holding.
class Walker {
 public:
  Walker(const std::string& text, const std::string& origin,
         std::unordered_map<std::string, int>& lines)
      : text_(text), origin_(origin), lines_(lines) {}

  void value(const std::string& pointer, bool record) {
    space();
    const char c = text_[at_];
    if (record || c == '{' || c == '[') lines_.emplace(pointer, line_);
    if (c == '{') {
      object(pointer);
    } else if (c == '[') {
      array(pointer);
    } else if (c == '"') {
      string();
    } else {
      while (at_ < text_.size() &&
             std::string_view(",}] \t\r\n").find(text_[at_]) == std::string_view::npos)
        ++at_;
    }
  }

 private:
  void object(const std::string& pointer) {
    ++at_;
    std::set<std::string> keys;
    space();
    if (text_[at_] == '}') {
      ++at_;
      return;
    }
    for (;;) {
      space();
      const int keyLine = line_;
      const std::string key = string();
      if (!keys.insert(key).second) fail(origin_, keyLine, "duplicate key \"" + key + "\"");
      space();
      ++at_;  // ':'
      value(pointer + "/" + pointerStep(key), true);
      space();
      if (text_[at_++] == '}') return;
    }
  }

  void array(const std::string& pointer) {
    ++at_;
    space();
    if (text_[at_] == ']') {
      ++at_;
      return;
    }
    for (std::size_t index = 0;; ++index) {
      value(pointer + "/" + std::to_string(index), false);
      space();
      if (text_[at_++] == ']') return;
    }
  }

  std::string string() {
    const std::size_t first = ++at_;
    bool escaped = false;
    while (text_[at_] != '"') {
      escaped = escaped || text_[at_] == '\\';
      at_ += text_[at_] == '\\' ? 2 : 1;
    }
    const std::string raw = text_.substr(first, at_ - first);
    ++at_;
    return escaped ? nlohmann::json::parse("\"" + raw + "\"").get<std::string>() : raw;
  }

  void space() {
    while (at_ < text_.size() && std::isspace(static_cast<unsigned char>(text_[at_]))) {
      line_ += text_[at_] == '\n';
      ++at_;
    }
  }

  const std::string& text_;
  const std::string& origin_;
  std::unordered_map<std::string, int>& lines_;
  std::size_t at_ = 0;
  int line_ = 1;
};

}  // namespace

JsonLines::JsonLines(const std::string& text, const std::string& origin, int maxDepth) {
  checkNesting(text, origin, maxDepth);
  try {
    root_ = nlohmann::json::parse(text);
  } catch (const nlohmann::json::parse_error& e) {
    // The parser's own message carries its position; the line is what a person looks for.
    std::string message = e.what();
    if (const auto colon = message.rfind(": "); colon != std::string::npos)
      message = message.substr(colon + 2);
    fail(origin, lineAt(text, e.byte == 0 ? 0 : e.byte - 1), "not valid JSON: " + message);
  } catch (const nlohmann::json::exception& e) {
    std::string message = e.what();  // "[json.exception.out_of_range.406] number overflow ..."
    if (const auto bracket = message.find("] "); bracket != std::string::npos)
      message = message.substr(bracket + 2);
    fail(origin, 1, "not valid JSON: " + message);
  }
  Walker(text, origin, lines_).value("", true);
}

int JsonLines::lineOf(std::string pointer) const {
  for (;;) {
    if (const auto found = lines_.find(pointer); found != lines_.end()) return found->second;
    const auto slash = pointer.rfind('/');
    if (slash == std::string::npos) return 1;
    pointer.resize(slash);
  }
}

std::string fieldName(const std::string& pointer) {
  std::string name;
  std::size_t at = 1;
  while (at <= pointer.size() && !pointer.empty()) {
    const std::size_t next = std::min(pointer.find('/', at), pointer.size());
    std::string step;
    for (std::size_t i = at; i < next; ++i) {
      const bool escape = pointer[i] == '~' && i + 1 < next;
      step.push_back(escape ? (pointer[++i] == '1' ? '/' : '~') : pointer[i]);
    }
    const bool index = !step.empty() && std::all_of(step.begin(), step.end(), [](char c) {
      return std::isdigit(static_cast<unsigned char>(c));
    });
    if (index) {
      name.append(1, '[').append(step).append(1, ']');
    } else {
      if (!name.empty()) name.append(1, '.');
      name.append(step);
    }
    at = next + 1;
  }
  return name.empty() ? "(top level)" : name;
}

std::string pointerStep(const std::string& key) {
  std::string step;
  for (const char c : key) {
    if (c == '~') {
      step += "~0";
    } else if (c == '/') {
      step += "~1";
    } else {
      step += c;
    }
  }
  return step;
}

}  // namespace vorn::detail
