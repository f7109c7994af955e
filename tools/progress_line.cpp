#include "progress_line.h"

#include <cmath>
#include <cstdio>
#include <ostream>

namespace vorn::cli {
namespace {

// "\r" goes back to the start and "ESC [K" erases what a longer earlier line left behind.
constexpr const char* kRewind = "\r\x1b[K";

std::string duration(double seconds) {
  const long total = std::lround(std::max(0.0, seconds));
  char text[32];
  if (total >= 3600)
    std::snprintf(text, sizeof text, "%ld:%02ld:%02ld", total / 3600, total / 60 % 60, total % 60);
  else
    std::snprintf(text, sizeof text, "%ld:%02ld", total / 60, total % 60);
  return text;
}

}  // namespace

std::string ProgressLine::text(std::size_t done, std::size_t total, double seconds) {
  const std::string count = std::to_string(total);
  std::string doneText = std::to_string(done);
  doneText.insert(0, count.size() > doneText.size() ? count.size() - doneText.size() : 0, ' ');
  std::string line = "[" + doneText + "/" + count + "]";
  if (done == 0 || seconds <= 0.0) return line + " starting";
  const double rate = static_cast<double>(done) / seconds;
  char rateText[32];
  std::snprintf(rateText, sizeof rateText, " %.2f files/s", rate);
  line += rateText;
  if (done < total)
    line += ", " + duration(static_cast<double>(total - done) / rate) + " left";
  else
    line += ", " + duration(seconds) + " in all";
  return line;
}

void ProgressLine::update(std::size_t done, double seconds) {
  last_ = text(done, total_, seconds);
  out_ << kRewind << last_ << std::flush;
}

void ProgressLine::printAbove(const std::string& message) {
  out_ << kRewind << message << '\n' << last_ << std::flush;
}

void ProgressLine::finish() {
  if (!last_.empty()) out_ << '\n' << std::flush;
  last_.clear();
}

}  // namespace vorn::cli
