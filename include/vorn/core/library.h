#pragma once

#include <memory>
#include <string>

namespace vorn {

/// Result of vornInit; 0 is success.
enum InitErrorCode : int {
  kInitOk = 0,
  kInitBadContext = 1,
};

/// Which host application drives the library.
enum class VornApplication : int {
  Editor = 0,
  CommandLine = 1,
  Tests = 2,
};

/// Folders where camera (DCP) and lens profiles are looked up.
struct CameraProfilePaths {
  std::string dcpFolder;
  std::string lensProfileFolder;
  bool operator==(const CameraProfilePaths&) const = default;
};

/// The context the host hands to vornInit and InitLog.
struct SVornContext {
  /// Mode value that disables out-of-process loading.
  static constexpr int kModeNoOutOfProcess = 6;

  SVornContext() = default;
  SVornContext(std::string dataFolderPath, std::string resourceFolderPath,
               CameraProfilePaths profiles = {}, VornApplication app = VornApplication::Editor)
      : dataFolder(std::move(dataFolderPath)),
        resourceFolder(std::move(resourceFolderPath)),
        cameraProfiles(std::move(profiles)),
        application(app) {}

  std::string dataFolder;      ///< the log folder "Logs" and the settings file live here
  std::string resourceFolder;  ///< read-only resources shipped with the host
  unsigned logFlags = 3;       ///< kLogToConsole | kLogToFile
  int mode = 0;
  bool forbidOutOfProcessLoader = false;
  CameraProfilePaths cameraProfiles;
  VornApplication application = VornApplication::Editor;

  bool operator==(const SVornContext&) const = default;
};

/// Writes the context as a Boost text archive.
std::string saveContextToText(const SVornContext& context);
/// Reads a context written by saveContextToText; false (and `context` untouched) on bad text.
bool loadContextFromText(const std::string& text, SVornContext& context);

InitErrorCode vornInit();
/// Keeps the context (getVornContext returns it) and loads the settings file of its data folder.
InitErrorCode vornInit(const SVornContext& context);
std::shared_ptr<SVornContext> getVornContext();
void vornTearDown();
double vornVersionNumber();
std::string vornVersionString();

}  // namespace vorn
