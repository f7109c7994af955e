#include "io/raster/jpeg_markers.h"

#include <cstring>

namespace vorn::detail {
namespace {

constexpr std::uint8_t kIccSignature[] = {'I', 'C', 'C', '_', 'P', 'R', 'O', 'F', 'I', 'L', 'E', 0};

bool isStartOfFrame(std::uint8_t marker) {
  return marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 && marker != 0xCC;
}

int readBigEndian16(const std::uint8_t* p) {
  return (p[0] << 8) | p[1];
}

struct IccChunk {
  const std::uint8_t* data = nullptr;
  std::size_t size = 0;
};

void joinIccChunks(const std::vector<IccChunk>& chunks, int declaredCount, JpegMarkers& markers) {
  if (chunks.empty()) return;
  if (declaredCount <= 0 || static_cast<std::size_t>(declaredCount) != chunks.size()) {
    markers.iccDamaged = true;
    return;
  }
  std::size_t total = 0;
  for (const IccChunk& chunk : chunks) {
    if (chunk.data == nullptr) {
      markers.iccDamaged = true;
      return;
    }
    total += chunk.size;
  }
  markers.icc.reserve(total);
  for (const IccChunk& chunk : chunks)
    markers.icc.insert(markers.icc.end(), chunk.data, chunk.data + chunk.size);
}

}  // namespace

bool readJpegMarkers(const std::uint8_t* data, std::size_t size, JpegMarkers& markers) {
  markers = JpegMarkers{};
  if (data == nullptr || size < 4 || data[0] != 0xFF || data[1] != 0xD8) return false;
  std::vector<IccChunk> iccChunks;
  int iccCount = 0;
  std::size_t pos = 2;
  while (pos < size) {
    if (data[pos] != 0xFF) break;  // garbage between segments: leave it to the decoder
    while (pos < size && data[pos] == 0xFF) ++pos;  // fill bytes
    if (pos >= size) break;
    const std::uint8_t marker = data[pos++];
    if (marker == 0xD8 || marker == 0x01 || (marker >= 0xD0 && marker <= 0xD7)) continue;
    if (marker == 0xD9 || pos + 2 > size) break;
    const int length = readBigEndian16(data + pos);
    if (length < 2 || pos + static_cast<std::size_t>(length) > size) break;
    const std::uint8_t* payload = data + pos + 2;
    const std::size_t payloadSize = static_cast<std::size_t>(length) - 2;
    if (marker == 0xDA) break;  // scan data follows; nothing later matters here
    if (isStartOfFrame(marker) && payloadSize >= 6 && !markers.hasFrame) {
      markers.hasFrame = true;
      markers.precision = payload[0];
      markers.height = readBigEndian16(payload + 1);
      markers.width = readBigEndian16(payload + 3);
      markers.components = payload[5];
    } else if (marker == 0xE2 && payloadSize > sizeof(kIccSignature) + 2 &&
               std::memcmp(payload, kIccSignature, sizeof(kIccSignature)) == 0) {
      const int sequence = payload[sizeof(kIccSignature)];
      const int count = payload[sizeof(kIccSignature) + 1];
      if (iccChunks.empty()) {
        iccCount = count;
        iccChunks.resize(static_cast<std::size_t>(count > 0 ? count : 0));
      }
      const std::size_t header = sizeof(kIccSignature) + 2;
      if (count != iccCount || sequence < 1 || sequence > iccCount ||
          iccChunks[static_cast<std::size_t>(sequence - 1)].data != nullptr) {
        markers.iccDamaged = true;
      } else {
        iccChunks[static_cast<std::size_t>(sequence - 1)] = {payload + header,
                                                             payloadSize - header};
      }
    }
    pos += static_cast<std::size_t>(length);
  }
  if (!markers.iccDamaged) joinIccChunks(iccChunks, iccCount, markers);
  if (markers.iccDamaged) markers.icc.clear();
  return markers.hasFrame;
}

}  // namespace vorn::detail
