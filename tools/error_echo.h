#pragma once

#include <functional>
#include <iosfwd>
#include <memory>
#include <string>

#include "vorn/core/log.h"

namespace vorn::cli {

/// A log stream that repeats the library's errors (a decoder's stage and reason, say) on `out`,
/// so that a person sees why a file failed without opening the log.
class ErrorEcho final : public ILogStream {
 public:
  explicit ErrorEcho(std::ostream& out) : out_(out) {}
  void write(const LogMessage& message) override;
  void flush() override;

 private:
  std::ostream& out_;
};

/// While alive, echoed errors go to `print` instead of their stream: a progress line on the same
/// terminal then prints them above itself and stays whole.
class EchoRedirect {
 public:
  explicit EchoRedirect(std::function<void(const std::string&)> print);
  ~EchoRedirect();
  EchoRedirect(const EchoRedirect&) = delete;
  EchoRedirect& operator=(const EchoRedirect&) = delete;
};

/// Adds an ErrorEcho on `out` to the running log and lowers its verbosity to keep errors.
void echoLibraryErrors(std::ostream& out);

}  // namespace vorn::cli
