#include "io/ipc/loader_payloads.h"

#include "io/ipc/ipc_message.h"

namespace vorn::ipc {
namespace {

// Metadata travels field by field: its strings cannot be copied as bytes.
template <typename Stream, typename Metadata>
bool visitMetadata(Stream& stream, Metadata& m, auto&& number, auto&& text) {
  return text(stream, m.cameraName) && text(stream, m.cameraModel) && number(stream, m.fNumber) &&
         number(stream, m.aperture) && number(stream, m.shutterSpeed) &&
         number(stream, m.isoSpeed) && number(stream, m.focalLen) &&
         number(stream, m.focalLen35mm) && number(stream, m.minFocalLen) &&
         number(stream, m.maxFocalLen) && number(stream, m.WBTint) &&
         number(stream, m.WBTemperature) && text(stream, m.lensMaker) &&
         text(stream, m.lensModel) && text(stream, m.lensId) && number(stream, m.exposureBias) &&
         number(stream, m.focalPlaneXResolution) && number(stream, m.focalPlaneYResolution) &&
         number(stream, m.sizeRawMatrix.first) && number(stream, m.sizeRawMatrix.second) &&
         number(stream, m.cameraColor) && number(stream, m.mutableParameters);
}

const auto kPutNumber = [](PayloadWriter& w, const auto& v) { return w.put(v), true; };
const auto kPutText = [](PayloadWriter& w, const std::string& v) { return w.putString(v), true; };
const auto kGetNumber = [](PayloadReader& r, auto& v) { return r.get(v); };
const auto kGetText = [](PayloadReader& r, std::string& v) { return r.getString(v); };

}  // namespace

std::uint64_t FrameNotice::bytes() const {
  return static_cast<std::uint64_t>(width) * static_cast<std::uint64_t>(height) *
         sizeof(ImageFrame::PixelType);
}

std::vector<unsigned char> encodeLoadRequest(const LoadRequest& request) {
  PayloadWriter writer;
  writer.put(request.flag);
  writer.putString(request.path);
  writer.put(request.cpuSeconds);
  writer.putString(request.fault);
  writer.put(static_cast<std::uint32_t>(request.settings.size()));
  for (const auto& [key, value] : request.settings) {
    writer.putString(key);
    writer.putString(value);
  }
  writer.put(request.coverWidth);
  writer.put(request.coverHeight);
  writer.put(request.failOn);
  return std::move(writer.bytes());
}

bool decodeLoadRequest(const std::vector<unsigned char>& payload, LoadRequest& request) {
  PayloadReader reader(payload);
  std::uint32_t count = 0;
  if (!reader.get(request.flag) || !reader.getString(request.path) ||
      !reader.get(request.cpuSeconds) || !reader.getString(request.fault) || !reader.get(count))
    return false;
  request.settings.clear();
  for (std::uint32_t i = 0; i < count; ++i) {
    std::pair<std::string, std::string> setting;
    if (!reader.getString(setting.first) || !reader.getString(setting.second)) return false;
    request.settings.push_back(std::move(setting));
  }
  return reader.get(request.coverWidth) && reader.get(request.coverHeight) &&
         reader.get(request.failOn) && reader.atEnd();
}

std::vector<unsigned char> encodeIdentity(const LoadIdentity& identity) {
  PayloadWriter writer;
  writer.put(identity.code);
  writer.put(identity.geometry);
  visitMetadata(writer, identity.metadata, kPutNumber, kPutText);
  return std::move(writer.bytes());
}

bool decodeIdentity(const std::vector<unsigned char>& payload, LoadIdentity& identity) {
  PayloadReader reader(payload);
  return reader.get(identity.code) && reader.get(identity.geometry) &&
         visitMetadata(reader, identity.metadata, kGetNumber, kGetText) && reader.atEnd();
}

std::vector<unsigned char> encodeFrameNotice(const FrameNotice& notice) {
  PayloadWriter writer;
  writer.put(notice);
  return std::move(writer.bytes());
}

bool decodeFrameNotice(const std::vector<unsigned char>& payload, FrameNotice& notice) {
  PayloadReader reader(payload);
  return reader.get(notice) && reader.atEnd() && notice.full <= 1 && notice.width > 0 &&
         notice.height > 0 && notice.loadState >= LOAD_ERROR && notice.loadState <= FULL_LOADED;
}

std::vector<unsigned char> encodeCode(std::int32_t code) {
  PayloadWriter writer;
  writer.put(code);
  return std::move(writer.bytes());
}

bool decodeCode(const std::vector<unsigned char>& payload, std::int32_t& code) {
  PayloadReader reader(payload);
  return reader.get(code) && reader.atEnd();
}

}  // namespace vorn::ipc
