#pragma once

#include <string>

namespace vorn::detail {

/// Sets Exiv2 up once per process (thread-safe): its XMP parser, and its messages routed into
/// the library log as warnings. Call before any Exiv2 use.
void ensureExiv2Environment();

/// Names the file Exiv2 works on in this thread, so its messages can say which file they are
/// about; scopes nest.
class Exiv2FileScope {
 public:
  explicit Exiv2FileScope(const std::string& name);
  ~Exiv2FileScope();
  Exiv2FileScope(const Exiv2FileScope&) = delete;
  Exiv2FileScope& operator=(const Exiv2FileScope&) = delete;

 private:
  const std::string* previous_;
};

}  // namespace vorn::detail
