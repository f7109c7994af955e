#pragma once

namespace vorn::ipc {

/// The loader process's whole life: argv is (program, request queue, reply queue, host pid,
/// address-space limit in MiB). Returns the exit status.
int runRawLoader(int argc, char** argv);

}  // namespace vorn::ipc
