#pragma once

namespace vorn::loader {

/// True once any allocation of this process was refused (the address-space limit reached).
bool allocationRefused();

}  // namespace vorn::loader
