#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace vorn::cli {

/// Exit codes of the `vorn` command.
enum ExitCode : int {
  kExitOk = 0,
  kExitFailed = 1,  ///< the input could not be read or the output not written
  kExitUsage = 2,   ///< bad arguments: unknown command, option, effect or parameter
};

/// `vorn info FILE`: size, bit depth, kind and the camera's metadata.
int runInfo(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);
/// `vorn effects [ID...]`: every identifier (or the named ones) with its parameters.
int runEffects(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);
/// `vorn apply IN OUT --effect ID[:Name=value,...]... [options]`.
int runApply(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

/// Dispatches argv to a command; the library must be started already.
int runCommandLine(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

}  // namespace vorn::cli
