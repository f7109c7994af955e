#include "effects/raw/dcp_profile.h"

#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <map>
#include <mutex>

#include "vorn/core/log.h"

namespace vorn::detail {

namespace {

// Tags of the DNG camera-profile format.
enum Tag : std::uint16_t {
  kColorMatrix1 = 50721,
  kColorMatrix2 = 50722,
  kCalibrationIlluminant1 = 50778,
  kCalibrationIlluminant2 = 50779,
  kProfileName = 50936,
  kHueSatMapDims = 50937,
  kHueSatMapData1 = 50938,
  kHueSatMapData2 = 50939,
  kToneCurve = 50940,
  kEmbedPolicy = 50941,
  kForwardMatrix1 = 50964,
  kForwardMatrix2 = 50965,
  kLookTableDims = 50981,
  kLookTableData = 50982,
  kHueSatMapEncoding = 51107,
  kLookTableEncoding = 51108,
};

// TIFF field types and their sizes in bytes.
enum Type : std::uint16_t {
  kByte = 1,
  kAscii = 2,
  kShort = 3,
  kLong = 4,
  kRational = 5,
  kUndefined = 7,
  kSLong = 9,
  kSRational = 10,
  kFloat = 11,
  kDouble = 12,
};

std::size_t typeSize(std::uint16_t type) {
  switch (type) {
    case kByte:
    case kAscii:
    case kUndefined:
      return 1;
    case kShort:
      return 2;
    case kLong:
    case kSLong:
    case kFloat:
      return 4;
    case kRational:
    case kSRational:
    case kDouble:
      return 8;
    default:
      return 0;
  }
}

struct Entry {
  std::uint16_t type = 0;
  std::uint32_t count = 0;
  std::size_t offset = 0;  ///< where the values start in the file
};

class Reader {
 public:
  explicit Reader(std::string_view bytes) : bytes_(bytes) {
    if (bytes.size() < 8) throw DcpFormatError("DCP: file shorter than its header");
    if (bytes.substr(0, 4) == "IIRC") {
      big_ = false;
    } else if (bytes.substr(0, 4) == "MMCR") {
      big_ = true;
    } else {
      throw DcpFormatError("DCP: not a camera profile (magic is not IIRC or MMCR)");
    }
  }

  std::uint32_t u32(std::size_t at) const { return static_cast<std::uint32_t>(read(at, 4)); }
  std::uint16_t u16(std::size_t at) const { return static_cast<std::uint16_t>(read(at, 2)); }

  /// The entries of the first directory by tag; a repeated tag keeps its first entry.
  std::map<std::uint16_t, Entry> directory() const {
    const std::size_t start = u32(4);
    const std::size_t count = u16(start);
    if (count == 0) throw DcpFormatError("DCP: empty tag directory");
    need(start + 2, 12 * count, "tag directory");
    std::map<std::uint16_t, Entry> entries;
    for (std::size_t i = 0; i < count; ++i) {
      const std::size_t at = start + 2 + 12 * i;
      Entry entry{u16(at + 2), u32(at + 4), at + 8};
      const std::size_t size = typeSize(entry.type);
      // Unknown types are skipped as TIFF readers do; the tags this reader needs check theirs.
      if (size == 0) continue;
      const std::size_t total = size * entry.count;
      if (entry.count > bytes_.size() || total > bytes_.size())
        throw DcpFormatError("DCP: tag " + std::to_string(u16(at)) + " counts past the file");
      if (total > 4) entry.offset = u32(at + 8);
      need(entry.offset, total, "tag " + std::to_string(u16(at)));
      entries.emplace(u16(at), entry);
    }
    return entries;
  }

  /// Value i of the entry as a double, whatever its numeric type.
  double number(const Entry& e, std::size_t i) const {
    const std::size_t at = e.offset + i * typeSize(e.type);
    switch (e.type) {
      case kByte:
      case kUndefined:
        return static_cast<double>(read(at, 1));
      case kShort:
        return static_cast<double>(read(at, 2));
      case kLong:
        return static_cast<double>(read(at, 4));
      case kSLong:
        return static_cast<double>(static_cast<std::int32_t>(read(at, 4)));
      case kRational:
      case kSRational: {
        const std::uint64_t n = read(at, 4);
        const std::uint64_t d = read(at + 4, 4);
        const double num = e.type == kSRational ? static_cast<std::int32_t>(n) : double(n);
        const double den = e.type == kSRational ? static_cast<std::int32_t>(d) : double(d);
        return den == 0.0 ? std::numeric_limits<double>::quiet_NaN() : num / den;
      }
      case kFloat: {
        const auto bits = static_cast<std::uint32_t>(read(at, 4));
        float f;
        std::memcpy(&f, &bits, 4);
        return f;
      }
      case kDouble: {
        const std::uint64_t bits = read(at, 8);
        double d;
        std::memcpy(&d, &bits, 8);
        return d;
      }
      default:
        return std::numeric_limits<double>::quiet_NaN();
    }
  }

  std::string text(const Entry& e) const {
    std::string s(bytes_.substr(e.offset, e.count));
    return s.substr(0, s.find('\0'));
  }

 private:
  void need(std::size_t at, std::size_t size, const std::string& what) const {
    if (at > bytes_.size() || size > bytes_.size() - at)
      throw DcpFormatError("DCP: " + what + " lies past the end of the file");
  }
  std::uint64_t read(std::size_t at, std::size_t size) const {
    need(at, size, "a value");
    std::uint64_t v = 0;
    for (std::size_t i = 0; i < size; ++i) {
      const auto byte = static_cast<std::uint8_t>(bytes_[at + (big_ ? i : size - 1 - i)]);
      v = (v << 8) | byte;
    }
    return v;
  }

  std::string_view bytes_;
  bool big_ = false;
};

bool isNumeric(std::uint16_t type) {
  return type != kAscii && typeSize(type) != 0;
}

std::vector<double> numbers(const Reader& reader, const Entry& e, std::uint16_t tag,
                            std::size_t expected) {
  if (!isNumeric(e.type))
    throw DcpFormatError("DCP: tag " + std::to_string(tag) + " is not numeric");
  if (expected != 0 && e.count != expected)
    throw DcpFormatError("DCP: tag " + std::to_string(tag) + " holds " + std::to_string(e.count) +
                         " values, expected " + std::to_string(expected));
  std::vector<double> values(e.count);
  for (std::size_t i = 0; i < values.size(); ++i) {
    values[i] = reader.number(e, i);
    if (!std::isfinite(values[i]))
      throw DcpFormatError("DCP: tag " + std::to_string(tag) + " holds a non-finite value");
  }
  return values;
}

using Directory = std::map<std::uint16_t, Entry>;

std::optional<DcpMatrix> matrix(const Reader& reader, const Directory& dir, std::uint16_t tag) {
  const auto it = dir.find(tag);
  if (it == dir.end()) return std::nullopt;
  // Only three-colour cameras: a four-colour profile has 12 entries and no 3 x 3 inverse.
  const std::vector<double> v = numbers(reader, it->second, tag, 9);
  DcpMatrix m{};
  for (std::size_t i = 0; i < 9; ++i) m[i] = v[i];
  return m;
}

std::array<std::size_t, 3> dims(const Reader& reader, const Directory& dir, std::uint16_t tag) {
  const std::vector<double> v = numbers(reader, dir.at(tag), tag, 3);
  std::array<std::size_t, 3> d{};
  for (std::size_t i = 0; i < 3; ++i) {
    if (v[i] < 1.0 || v[i] > 4096.0 || v[i] != std::floor(v[i]))
      throw DcpFormatError("DCP: tag " + std::to_string(tag) + " has an unusable division count");
    d[i] = static_cast<std::size_t>(v[i]);
  }
  if (d[0] * d[1] * d[2] > kMaxDcpMapEntries)
    throw DcpFormatError("DCP: tag " + std::to_string(tag) + " declares too large a table");
  return d;
}

DcpHueSatMap map(const Reader& reader, const Directory& dir, std::uint16_t dimsTag,
                 std::uint16_t dataTag, std::uint16_t encodingTag) {
  DcpHueSatMap out;
  const auto data = dir.find(dataTag);
  if (data == dir.end()) return out;
  if (!dir.count(dimsTag))
    throw DcpFormatError("DCP: tag " + std::to_string(dataTag) + " without its dimensions");
  const auto d = dims(reader, dir, dimsTag);
  // Saturation is interpolated between divisions, so at least two are needed.
  if (d[1] < 2) throw DcpFormatError("DCP: a hue/saturation table needs two saturation divisions");
  out.hues = d[0];
  out.saturations = d[1];
  out.values = d[2];
  const std::vector<double> v = numbers(reader, data->second, dataTag, 3 * d[0] * d[1] * d[2]);
  out.data.assign(v.begin(), v.end());
  if (const auto e = dir.find(encodingTag); e != dir.end())
    out.srgbValues = numbers(reader, e->second, encodingTag, 1)[0] == 1.0;
  return out;
}

int shortValue(const Reader& reader, const Directory& dir, std::uint16_t tag) {
  const auto it = dir.find(tag);
  if (it == dir.end()) return 0;
  const double v = numbers(reader, it->second, tag, 1)[0];
  if (v < 0.0 || v > 65535.0)
    throw DcpFormatError("DCP: tag " + std::to_string(tag) + " out of range");
  return static_cast<int>(v);
}

}  // namespace

DcpProfile parseDcp(std::string_view bytes) {
  if (bytes.size() > kMaxDcpFileBytes) throw DcpFormatError("DCP: file too large");
  const Reader reader(bytes);
  const Directory dir = reader.directory();
  DcpProfile profile;
  if (const auto it = dir.find(kProfileName); it != dir.end())
    profile.name = reader.text(it->second);
  profile.illuminant1 = shortValue(reader, dir, kCalibrationIlluminant1);
  profile.illuminant2 = shortValue(reader, dir, kCalibrationIlluminant2);
  profile.embedPolicy = shortValue(reader, dir, kEmbedPolicy);
  profile.colorMatrix1 = matrix(reader, dir, kColorMatrix1);
  profile.colorMatrix2 = matrix(reader, dir, kColorMatrix2);
  profile.forwardMatrix1 = matrix(reader, dir, kForwardMatrix1);
  profile.forwardMatrix2 = matrix(reader, dir, kForwardMatrix2);
  if (!profile.colorMatrix1) throw DcpFormatError("DCP: no ColorMatrix1");
  profile.hueSatMap1 = map(reader, dir, kHueSatMapDims, kHueSatMapData1, kHueSatMapEncoding);
  profile.hueSatMap2 = map(reader, dir, kHueSatMapDims, kHueSatMapData2, kHueSatMapEncoding);
  profile.lookTable = map(reader, dir, kLookTableDims, kLookTableData, kLookTableEncoding);
  if (const auto it = dir.find(kToneCurve); it != dir.end()) {
    const std::vector<double> v = numbers(reader, it->second, kToneCurve, 0);
    if (v.size() % 2 != 0 || v.size() < 4 || v.size() / 2 > kMaxDcpCurvePoints)
      throw DcpFormatError("DCP: the tone curve needs 2 ... 8192 (input, output) pairs");
    for (std::size_t i = 0; i < v.size(); i += 2) {
      const bool rising = i == 0 || v[i] > v[i - 2];
      if (!rising || v[i] < 0.0 || v[i] > 1.0 || v[i + 1] < 0.0 || v[i + 1] > 1.0)
        throw DcpFormatError("DCP: tone curve points must rise through [0, 1]");
      profile.toneCurve.push_back({static_cast<float>(v[i]), static_cast<float>(v[i + 1])});
    }
  }
  return profile;
}

DcpProfile readDcpFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  if (!file) throw DcpFormatError("DCP: cannot open " + path);
  const std::streamoff size = file.tellg();
  if (size < 0) throw DcpFormatError("DCP: cannot read " + path);
  if (static_cast<std::uint64_t>(size) > kMaxDcpFileBytes)
    throw DcpFormatError("DCP: " + path + " is too large");
  std::string bytes(static_cast<std::size_t>(size), '\0');
  file.seekg(0);
  if (!file.read(bytes.data(), size)) throw DcpFormatError("DCP: cannot read " + path);
  return parseDcp(bytes);
}

double illuminantKelvin(int code) {
  // EXIF LightSource codes of the calibrations profiles use.
  switch (code) {
    case 1:
    case 9:
    case 4:
      return 5500.0;  // daylight, fine weather, flash
    case 2:
      return 4150.0;  // fluorescent
    case 3:
      return 2850.0;  // tungsten
    case 10:
      return 6500.0;  // cloudy
    case 11:
      return 7500.0;  // shade
    case 12:
      return 6430.0;  // daylight fluorescent
    case 13:
      return 5000.0;  // day white fluorescent
    case 14:
      return 4150.0;  // cool white fluorescent
    case 15:
      return 3450.0;  // white fluorescent
    case 17:
      return 2856.0;  // standard light A
    case 18:
      return 4874.0;  // standard light B
    case 19:
      return 6774.0;  // standard light C
    case 20:
      return 5503.0;  // D55
    case 21:
      return 6504.0;  // D65
    case 22:
      return 7504.0;  // D75
    case 23:
      return 5003.0;  // D50
    case 24:
      return 3200.0;  // studio tungsten
    default:
      return 0.0;
  }
}

std::shared_ptr<const DcpProfile> cachedDcp(const std::string& path) {
  struct Cached {
    std::string path;
    std::filesystem::file_time_type time;
    std::shared_ptr<const DcpProfile> profile;
  };
  // The last profile read: a document uses one, and a failure is kept so it is logged once.
  static std::mutex mutex;
  static std::optional<Cached> last;
  std::error_code error;
  const auto time = std::filesystem::last_write_time(path, error);
  const std::lock_guard lock(mutex);
  if (last && last->path == path && (error || last->time == time)) return last->profile;
  std::shared_ptr<const DcpProfile> profile;
  try {
    profile = std::make_shared<const DcpProfile>(readDcpFile(path));
  } catch (const DcpFormatError& failure) {
    LogError("The camera profile is not applied: %s", failure.what());
  }
  last = Cached{path, time, profile};
  return profile;
}

}  // namespace vorn::detail
