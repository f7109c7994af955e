#include "error_echo.h"

#include <algorithm>
#include <mutex>
#include <ostream>
#include <string_view>

namespace vorn::cli {
namespace {

constexpr std::string_view kCantOpen = "Can't open image at path: ";

// Failure lines start with the C++ signature of the function that logged them, which a person
// need not see: what follows its parameter list (and a trailing const) is the message.
std::string_view withoutSignature(std::string_view text) {
  const std::size_t open = text.find('(');
  if (open == std::string_view::npos || text.substr(0, open).find("::") == std::string_view::npos)
    return text;
  int depth = 0;
  for (std::size_t i = open; i < text.size(); ++i) {
    if (text[i] == '(') ++depth;
    if (text[i] != ')' || --depth != 0) continue;
    std::string_view rest = text.substr(i + 1);
    if (rest.starts_with(" const")) rest.remove_prefix(6);
    return rest.starts_with(' ') ? rest.substr(1) : text;
  }
  return text;
}

// Render threads log concurrently; the one mutex also keeps echoed lines from interleaving.
std::mutex gEchoMutex;
std::function<void(const std::string&)> gRedirect;

}  // namespace

void ErrorEcho::write(const LogMessage& message) {
  if (message.type != LogMessageType::Error && message.type != LogMessageType::CriticalError)
    return;
  // The reader's failures start with the C++ signature of the call, which a person need not see.
  const std::string_view text = message.text;
  const std::size_t reason = text.find(kCantOpen);
  const std::string line =
      "vorn: " +
      std::string(reason == std::string_view::npos ? withoutSignature(text) : text.substr(reason));
  const std::lock_guard lock(gEchoMutex);
  if (gRedirect)
    gRedirect(line);
  else
    out_ << line << '\n';
}

EchoRedirect::EchoRedirect(std::function<void(const std::string&)> print) {
  const std::lock_guard lock(gEchoMutex);
  gRedirect = std::move(print);
}

EchoRedirect::~EchoRedirect() {
  const std::lock_guard lock(gEchoMutex);
  gRedirect = nullptr;
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
