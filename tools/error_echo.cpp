#include "error_echo.h"

#include <algorithm>
#include <ostream>
#include <string_view>

namespace vorn::cli {
namespace {

constexpr std::string_view kCantOpen = "Can't open image at path: ";

}  // namespace

void ErrorEcho::write(const LogMessage& message) {
  if (message.type != LogMessageType::Error && message.type != LogMessageType::CriticalError)
    return;
  // The reader's failures start with the C++ signature of the call, which a person need not see.
  const std::string_view text = message.text;
  const std::size_t reason = text.find(kCantOpen);
  out_ << "vorn: " << (reason == std::string_view::npos ? text : text.substr(reason)) << '\n';
}

void ErrorEcho::flush() {
  out_.flush();
}

void echoLibraryErrors(std::ostream& out) {
  Log& log = Logger::LogInstance();
  // The default verbosity keeps only critical errors; a command keeps every error.
  log.SetVerbosity(std::min(log.GetVerbosity(), static_cast<unsigned>(LogMessageType::Error)));
  log.AddStream(std::make_shared<ErrorEcho>(out));
}

}  // namespace vorn::cli
