#include <bit>
#include <cstdint>
#include <cstring>
#include <string>

#include "vorn/effects/effect.h"

namespace vorn {

namespace {

/// FNV-1a over everything that decides an effect's output, fed field by field.
class KeyHasher {
 public:
  void bytes(const void* data, std::size_t size) {
    const auto* p = static_cast<const unsigned char*>(data);
    for (std::size_t i = 0; i < size; ++i) hash_ = (hash_ ^ p[i]) * 0x100000001b3ull;
  }
  void number(std::uint64_t value) { bytes(&value, sizeof value); }
  // -0 and 0 render alike, so they hash alike.
  void value(float v) { number(std::bit_cast<std::uint32_t>(v == 0.0f ? 0.0f : v)); }
  void text(const std::string& s) {
    number(s.size());
    bytes(s.data(), s.size());
  }
  std::uint64_t result() const { return hash_; }

 private:
  std::uint64_t hash_ = 0xcbf29ce484222325ull;
};

/// Feeds one alternative of a parameter's optional data.
class OptionalDataHasher : public boost::static_visitor<> {
 public:
  explicit OptionalDataHasher(KeyHasher& hasher) : hasher_(hasher) {}
  void operator()(const std::vector<float>& values) const {
    hasher_.number(values.size());
    for (const float v : values) hasher_.value(v);
  }
  void operator()(const std::string& text) const { hasher_.text(text); }
  void operator()(
      const std::vector<std::pair<std::string, std::map<std::string, float>>>& groups) const {
    hasher_.number(groups.size());
    for (const auto& [name, entries] : groups) {
      hasher_.text(name);
      hasher_.number(entries.size());
      for (const auto& [key, v] : entries) {
        hasher_.text(key);
        hasher_.value(v);
      }
    }
  }

 private:
  KeyHasher& hasher_;
};

}  // namespace

std::uint64_t Effect::cacheKey() const {
  KeyHasher hasher;
  hasher.text(id_);
  hasher.number(parameters_.size());
  for (const Parameter& parameter : parameters_) {
    hasher.value(parameter.value());
    const ParameterOptionalData data = parameter.optionalData();
    hasher.number(static_cast<std::uint64_t>(data.which()));
    boost::apply_visitor(OptionalDataHasher(hasher), data);
  }
  return hasher.result();
}

}  // namespace vorn
