#pragma once

#include <memory>
#include <string>

#include "effects/lut/cube_file.h"

namespace vorn::detail {

/// The parsed table of a .cube file, read once per path and modification time and shared by
/// every render; null when the file cannot be used (the reason is logged once per version of
/// the file). A relative name not found as given is looked for in the data folder's "LUTs".
std::shared_ptr<const CubeLut> cachedCube(const std::string& name);

/// Where a LUT name leads: itself when it exists or is absolute, else <data folder>/LUTs/name.
std::string resolvedCubePath(const std::string& name);

}  // namespace vorn::detail
