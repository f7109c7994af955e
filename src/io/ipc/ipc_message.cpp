#include "io/ipc/ipc_message.h"

namespace vorn::ipc {
namespace {

struct Header {
  std::uint32_t magic;
  std::uint16_t version;
  std::uint16_t type;
  std::uint32_t sequence;
  std::uint32_t payloadSize;
};
static_assert(sizeof(Header) == 16);

bool isKnownType(std::uint16_t type) {
  return type >= static_cast<std::uint16_t>(MessageType::Ready) &&
         type <= static_cast<std::uint16_t>(MessageType::DecodeFrame);
}

}  // namespace

std::vector<unsigned char> encodeMessage(const Message& message) {
  if (message.payload.size() > kMaxMessageSize - sizeof(Header)) return {};
  const Header header{kMessageMagic, kMessageVersion, static_cast<std::uint16_t>(message.type),
                      message.sequence, static_cast<std::uint32_t>(message.payload.size())};
  std::vector<unsigned char> bytes(sizeof(Header) + message.payload.size());
  std::memcpy(bytes.data(), &header, sizeof(Header));
  if (!message.payload.empty())
    std::memcpy(bytes.data() + sizeof(Header), message.payload.data(), message.payload.size());
  return bytes;
}

bool decodeMessage(const unsigned char* data, std::size_t size, Message& message,
                   std::string& error) {
  Header header{};
  if (size < sizeof(Header)) {
    error = "message of " + std::to_string(size) + " bytes is shorter than its header";
    return false;
  }
  std::memcpy(&header, data, sizeof(Header));
  if (header.magic != kMessageMagic) {
    error = "message without the loader's magic number";
    return false;
  }
  if (header.version != kMessageVersion) {
    error = "message of version " + std::to_string(header.version);
    return false;
  }
  if (!isKnownType(header.type)) {
    error = "message of unknown type " + std::to_string(header.type);
    return false;
  }
  if (header.payloadSize != size - sizeof(Header)) {
    error = "message whose payload size " + std::to_string(header.payloadSize) +
            " disagrees with its length " + std::to_string(size);
    return false;
  }
  message.type = static_cast<MessageType>(header.type);
  message.sequence = header.sequence;
  message.payload.assign(data + sizeof(Header), data + size);
  return true;
}

void PayloadWriter::putString(const std::string& text) {
  put(static_cast<std::uint32_t>(text.size()));
  bytes_.insert(bytes_.end(), text.begin(), text.end());
}

bool PayloadReader::getString(std::string& text) {
  std::uint32_t length = 0;
  if (!get(length) || bytes_.size() - offset_ < length) return false;
  text.assign(reinterpret_cast<const char*>(bytes_.data() + offset_), length);
  offset_ += length;
  return true;
}

}  // namespace vorn::ipc
