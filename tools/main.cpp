#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "cli.h"
#include "error_echo.h"
#include "vorn/core/library.h"
#include "vorn/core/log.h"
#include "vorn/core/memory_manager.h"
#include "vorn/io/image_reader.h"

namespace {

// The log and settings live in VORN_DATA_DIR, else the user's state folder; the console stays
// for the command's own messages.
std::string dataFolder() {
  if (const char* explicitFolder = std::getenv("VORN_DATA_DIR"); explicitFolder && *explicitFolder)
    return explicitFolder;
  if (const char* state = std::getenv("XDG_STATE_HOME"); state && *state)
    return std::string(state) + "/vorn";
  if (const char* home = std::getenv("HOME"); home && *home)
    return std::string(home) + "/.local/state/vorn";
  return (std::filesystem::temp_directory_path() / "vorn").string();
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  vorn::SVornContext context(dataFolder(), {}, {}, vorn::VornApplication::CommandLine);
  context.logFlags = vorn::kLogToFile;
  std::error_code ignored;
  std::filesystem::create_directories(context.dataFolder, ignored);
  vorn::vornInit(context);
  // One image, once: a freed block would never be asked for again, so none is kept resident.
  vorn::MemoryManager::instance().setCachingEnabled(false);
  vorn::InitLog(context);
  vorn::cli::echoLibraryErrors(std::cerr);
  int code = vorn::cli::kExitFailed;
  try {
    code = vorn::cli::runCommandLine(args, std::cout, std::cerr);
  } catch (const std::exception& e) {
    std::cerr << "vorn: " << e.what() << '\n';
  }
  vorn::ImageReader::waitForAllTasks();
  vorn::UnInitLog();
  vorn::vornTearDown();
  return code;
}
