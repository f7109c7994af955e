#pragma once

#include <cstddef>
#include <iosfwd>
#include <string>

namespace vorn::cli {

/// One line on a terminal that rewrites itself: files done of the total, the rate and the time
/// left. Messages are printed above it through printAbove, so the line is never torn.
class ProgressLine {
 public:
  ProgressLine(std::ostream& out, std::size_t total) : out_(out), total_(total) {}

  /// Redraws the line for `done` files after `seconds`.
  void update(std::size_t done, double seconds);
  /// Prints `message` (one line) and redraws the progress line under it.
  void printAbove(const std::string& message);
  /// Ends the line so that what follows starts on a fresh one.
  void finish();

  /// The line's text, e.g. "[ 37/200] 2.4 files/s, 1:08 left".
  static std::string text(std::size_t done, std::size_t total, double seconds);

 private:
  std::ostream& out_;
  std::size_t total_;
  std::string last_;
};

}  // namespace vorn::cli
