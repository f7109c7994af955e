#include "error_echo.h"

#include <algorithm>
#include <ostream>

namespace vorn::cli {

void ErrorEcho::write(const LogMessage& message) {
  if (message.type == LogMessageType::Error || message.type == LogMessageType::CriticalError)
    out_ << "vorn: " << message.text << '\n';
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
