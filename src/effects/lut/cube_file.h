#pragma once

#include <array>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

// Colour lookup tables in the .cube text format: a 1D table (one curve per channel) or a 3D
// lattice, each with the input domain it spans.
namespace vorn::detail {

/// A .cube file that cannot be used; what() names the line and the fault.
class CubeFormatError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Largest lattice side accepted: 256^3 entries already take 200 MB as floats.
inline constexpr int kMaxCube3DSize = 256;
/// Largest 1D table accepted (a 16-bit curve).
inline constexpr int kMaxCube1DSize = 65536;

struct CubeLut {
  std::string title;
  /// Entries per side (3D) or per channel (1D).
  int size = 0;
  bool is3D = false;
  std::array<float, 3> domainMin{0.0f, 0.0f, 0.0f};
  std::array<float, 3> domainMax{1.0f, 1.0f, 1.0f};
  /// r, g, b of each entry; in a 3D table red varies fastest, then green, then blue.
  std::vector<float> values;

  /// True when every entry equals its own lattice coordinate over the unit domain.
  bool identity = false;
};

/// Parses the text of a .cube file; throws CubeFormatError.
CubeLut parseCube(std::string_view text);

/// Largest .cube file read: a 256^3 table written with six decimals fits.
inline constexpr std::size_t kMaxCubeFileBytes = std::size_t{1} << 30;

/// Reads and parses a .cube file; throws CubeFormatError for a missing, unreadable, oversized or
/// malformed file.
CubeLut readCubeFile(const std::string& path);

}  // namespace vorn::detail
