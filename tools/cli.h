#pragma once

#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

namespace vorn {
class Effect;
struct LayeredEdit;
}  // namespace vorn

namespace vorn::cli {

struct ApplyOptions;

/// Exit codes of the `vorn` command.
enum ExitCode : int {
  kExitOk = 0,
  kExitFailed = 1,         ///< the input could not be read or the output not written
  kExitUsage = 2,          ///< bad arguments: unknown command, option, effect or parameter
  kExitInterrupted = 130,  ///< stopped by Ctrl-C or SIGTERM (128 + SIGINT, as shells report it)
};

/// `vorn info FILE [--json]`: camera, capture, size, exposure and file type, absent fields left
/// out.
int runInfo(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);
/// `vorn effects [ID...]`: every identifier (or the named ones) with its parameters.
int runEffects(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);
/// `vorn apply IN OUT --effect ID[:Name=value,...]... [options]`.
int runApply(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

/// `vorn thumbnail IN OUT [--size N]`: an upright thumbnail whose longer side is N (256).
int runThumbnail(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

/// `vorn render DOCUMENT.json OUT [options]`: the document's photo with its layers and crop.
int runRender(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

/// `vorn batch INPUT... -o DIR [options]`: many files, several at once, none replaced unasked.
int runBatch(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);
/// runBatch reading "-" paths from `in`, with the progress line when `terminal`.
int runBatchWith(const std::vector<std::string>& args, std::istream& in, std::ostream& out,
                 std::ostream& err, bool terminal);

/// The shared body of apply and render: decode, edit, write; messages start with `command`.
int applyToFile(const char* command, const ApplyOptions& options,
                const std::vector<std::shared_ptr<Effect>>& effects, const LayeredEdit& edit,
                std::ostream& out, std::ostream& err);

/// Dispatches argv to a command; the library must be started already.
int runCommandLine(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

}  // namespace vorn::cli
