#pragma once

namespace vorn::ipc {

/// The descriptors under which the child inherits its frame buffers (quarter, full frame).
inline constexpr int kQuarterArenaFd = 3;
inline constexpr int kFullArenaFd = 4;

/// The loader's exit status after an allocation was refused: the host reports it as such.
inline constexpr int kLoaderExitOutOfMemory = 5;

/// The loader process's whole life: argv is (program, request queue, reply queue, host pid,
/// address-space limit in MiB). `allocationRefused`, when given, tells whether an allocation
/// failed; the loader then ends with kLoaderExitOutOfMemory before its next answer. Returns the
/// exit status.
int runRawLoader(int argc, char** argv, bool (*allocationRefused)() = nullptr);

}  // namespace vorn::ipc
