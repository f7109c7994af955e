#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

namespace vorn::ipc {

/// Messages fit the queue's default per-message limit of 8 KiB.
inline constexpr std::size_t kMaxMessageSize = 8192;
inline constexpr std::uint32_t kMessageMagic = 0x4952'4e56;
inline constexpr std::uint16_t kMessageVersion = 1;

/// What a control message says; the child sends Ready, Identity, Frame and Done.
enum class MessageType : std::uint16_t {
  Ready = 1,    ///< the child opened both queues
  Load,         ///< host asks for a file
  Cancel,       ///< host gives up the running load
  Identity,     ///< result code, geometry and metadata of the opened file
  Frame,        ///< a frame waits in its shared region
  Done,         ///< the load is over, with its code
  DecodeFrame,  ///< host asks for one frame of a file: answered by Identity, then a Frame if 0
};

/// One control message: a fixed header (magic, version, type, sequence, payload size) and up to
/// kMaxMessageSize bytes in all.
struct Message {
  MessageType type = MessageType::Ready;
  std::uint32_t sequence = 0;
  std::vector<unsigned char> payload;
};

/// The message's wire bytes; empty when its payload is too large.
std::vector<unsigned char> encodeMessage(const Message& message);
/// Checks magic, version, type and sizes; false with `error` set for anything else.
bool decodeMessage(const unsigned char* data, std::size_t size, Message& message,
                   std::string& error);

/// Appends fixed-size values and length-prefixed strings to a payload.
class PayloadWriter {
 public:
  template <typename T>
  void put(const T& value) {
    static_assert(std::is_trivially_copyable_v<T>);
    const auto* bytes = reinterpret_cast<const unsigned char*>(&value);
    bytes_.insert(bytes_.end(), bytes, bytes + sizeof(T));
  }
  void putString(const std::string& text);
  std::vector<unsigned char>& bytes() { return bytes_; }

 private:
  std::vector<unsigned char> bytes_;
};

/// Reads what PayloadWriter wrote; every read fails instead of running past the end.
class PayloadReader {
 public:
  explicit PayloadReader(const std::vector<unsigned char>& bytes) : bytes_(bytes) {}
  template <typename T>
  bool get(T& value) {
    static_assert(std::is_trivially_copyable_v<T>);
    if (bytes_.size() - offset_ < sizeof(T)) return false;
    std::memcpy(&value, bytes_.data() + offset_, sizeof(T));
    offset_ += sizeof(T);
    return true;
  }
  bool getString(std::string& text);
  bool atEnd() const { return offset_ == bytes_.size(); }

 private:
  const std::vector<unsigned char>& bytes_;
  std::size_t offset_ = 0;
};

}  // namespace vorn::ipc
