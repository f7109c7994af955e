#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

// Camera profiles in the DNG camera-profile (DCP) format: a TIFF-like file of tags holding the
// colour matrices, hue/saturation maps, look table and tone curve of one camera.
namespace vorn::detail {

/// A DCP file that cannot be used; what() names the tag and the fault.
class DcpFormatError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Largest DCP accepted; real profiles are below 2 MB.
inline constexpr std::size_t kMaxDcpFileBytes = std::size_t{64} << 20;
/// Largest hue/saturation or look table accepted, in entries (hue x saturation x value).
inline constexpr std::size_t kMaxDcpMapEntries = std::size_t{1} << 20;
/// Largest tone curve accepted, in points.
inline constexpr std::size_t kMaxDcpCurvePoints = 8192;

/// A 3 x 3 matrix, row-major, as read from the file.
using DcpMatrix = std::array<double, 9>;

/// A table of (hue shift in degrees, saturation scale, value scale) over hue x saturation x value
/// divisions; the value dimension is read in linear or sRGB-encoded value.
struct DcpHueSatMap {
  std::size_t hues = 0;
  std::size_t saturations = 0;
  std::size_t values = 0;
  bool srgbValues = false;
  /// Entry (v, h, s) at 3 * ((v * hues + h) * saturations + s).
  std::vector<float> data;
  bool empty() const { return data.empty(); }
};

struct DcpProfile {
  std::string name;
  /// EXIF light source codes of the two calibrations (0 when absent).
  int illuminant1 = 0;
  int illuminant2 = 0;
  std::optional<DcpMatrix> colorMatrix1, colorMatrix2;
  std::optional<DcpMatrix> forwardMatrix1, forwardMatrix2;
  DcpHueSatMap hueSatMap1, hueSatMap2;
  DcpHueSatMap lookTable;
  /// (input, output) pairs on [0, 1], inputs rising.
  std::vector<std::array<float, 2>> toneCurve;
  int embedPolicy = 0;
};

/// Parses the bytes of a DCP file; throws DcpFormatError.
DcpProfile parseDcp(std::string_view bytes);

/// Reads and parses a DCP file; throws DcpFormatError for a missing, unreadable, oversized or
/// malformed file.
DcpProfile readDcpFile(const std::string& path);

/// Correlated colour temperature of an EXIF light source code; 0 for an unknown code.
double illuminantKelvin(int code);

}  // namespace vorn::detail

namespace vorn::detail {

/// The parsed profile at path, read once per path and modification time; null when the file
/// cannot be used (the reason is logged once per version of the file).
std::shared_ptr<const DcpProfile> cachedDcp(const std::string& path);

}  // namespace vorn::detail
