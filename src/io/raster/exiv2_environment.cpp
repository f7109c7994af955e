#include "io/raster/exiv2_environment.h"

#include <exiv2/exiv2.hpp>

#include <mutex>
#include <string>

#include "vorn/core/log.h"

namespace vorn::detail {
namespace {

thread_local const std::string* currentFile = nullptr;

void forwardExiv2Message(int level, const char* text) {
  if (level < Exiv2::LogMsg::warn || text == nullptr) return;
  std::string line(text);
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
  // Damaged metadata never stops a decode, so even Exiv2's errors are warnings here.
  if (currentFile) {
    LogWarning("Exiv2: %s (%s)", line.c_str(), currentFile->c_str());
  } else {
    LogWarning("Exiv2: %s", line.c_str());
  }
}

}  // namespace

void ensureExiv2Environment() {
  static std::once_flag once;
  std::call_once(once, [] {
    // The XMP toolkit is not safe to initialise from two threads at once.
    Exiv2::XmpParser::initialize();
    // Off by default in Exiv2: without it the metadata of CR3 and HEIF files cannot be read.
    Exiv2::enableBMFF(true);
    Exiv2::LogMsg::setLevel(Exiv2::LogMsg::warn);
    Exiv2::LogMsg::setHandler(forwardExiv2Message);
  });
}

Exiv2FileScope::Exiv2FileScope(const std::string& name) : previous_(currentFile) {
  currentFile = &name;
}

Exiv2FileScope::~Exiv2FileScope() {
  currentFile = previous_;
}

}  // namespace vorn::detail
