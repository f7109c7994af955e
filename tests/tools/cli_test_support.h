#pragma once

#include <sstream>
#include <string>
#include <vector>

#include "cli.h"

namespace vorn::cli {

struct CommandRun {
  int code;
  std::string out;
  std::string err;
};

/// One `vorn` command run in-process, its streams captured.
inline CommandRun run(const std::vector<std::string>& args) {
  std::ostringstream out;
  std::ostringstream err;
  const int code = runCommandLine(args, out, err);
  return {code, out.str(), err.str()};
}

}  // namespace vorn::cli
