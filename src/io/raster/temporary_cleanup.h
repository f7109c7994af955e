#pragma once

namespace vorn::detail {

/// Remembers a named temporary file so that SIGINT or SIGTERM removes it before the process
/// ends; the handlers are installed with the first file and pass the signal on to whatever
/// handled it before (default action included). Returns the slot, or -1 when all are taken.
int registerTemporary(const char* path);
/// Forgets the file of a slot (the file itself is left alone); -1 is ignored.
void unregisterTemporary(int slot);

}  // namespace vorn::detail
