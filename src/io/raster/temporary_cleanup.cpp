#include "io/raster/temporary_cleanup.h"

#include <limits.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstring>
#include <mutex>

namespace vorn::detail {
namespace {

// The handler may only touch lock-free atomics and fixed arrays: no allocation, no locks.
enum SlotState : int { kFree = 0, kFilling = 1, kArmed = 2 };

struct Slot {
  std::atomic<int> state{kFree};
  char path[PATH_MAX] = {};
};

constexpr int kSlots = 32;
constexpr std::array<int, 2> kSignals = {SIGINT, SIGTERM};

std::array<Slot, kSlots> gSlots;
std::array<struct sigaction, kSignals.size()> gPrevious;

void removeArmedFiles() {
  for (Slot& slot : gSlots)
    if (slot.state.load(std::memory_order_acquire) == kArmed) ::unlink(slot.path);
}

void onSignal(int signal, siginfo_t* info, void* context) {
  removeArmedFiles();
  for (std::size_t i = 0; i < kSignals.size(); ++i) {
    if (kSignals[i] != signal) continue;
    const struct sigaction& previous = gPrevious[i];
    if (previous.sa_flags & SA_SIGINFO) {
      previous.sa_sigaction(signal, info, context);
    } else if (previous.sa_handler == SIG_DFL) {
      // Default action: end the process by the same signal, so the parent sees it.
      ::signal(signal, SIG_DFL);
      ::raise(signal);
    } else if (previous.sa_handler != SIG_IGN) {
      previous.sa_handler(signal);
    }
  }
}

void installHandlers() {
  for (std::size_t i = 0; i < kSignals.size(); ++i) {
    struct sigaction current {};
    if (::sigaction(kSignals[i], nullptr, &current) != 0) continue;
    // A host that ignores the signal keeps ignoring it; nothing would end the process.
    if (!(current.sa_flags & SA_SIGINFO) && current.sa_handler == SIG_IGN) continue;
    gPrevious[i] = current;
    struct sigaction mine {};
    mine.sa_sigaction = onSignal;
    mine.sa_flags = SA_SIGINFO | SA_RESTART;
    sigemptyset(&mine.sa_mask);
    ::sigaction(kSignals[i], &mine, nullptr);
  }
}

}  // namespace

int registerTemporary(const char* path) {
  if (std::strlen(path) >= PATH_MAX) return -1;
  static std::once_flag installed;
  std::call_once(installed, installHandlers);
  for (int i = 0; i < kSlots; ++i) {
    int expected = kFree;
    if (!gSlots[i].state.compare_exchange_strong(expected, kFilling)) continue;
    std::strcpy(gSlots[i].path, path);
    gSlots[i].state.store(kArmed, std::memory_order_release);
    return i;
  }
  return -1;
}

void unregisterTemporary(int slot) {
  if (slot < 0 || slot >= kSlots) return;
  gSlots[slot].state.store(kFree, std::memory_order_release);
}

}  // namespace vorn::detail
