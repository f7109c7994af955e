#include "io/raw/raw_stream.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace vorn::raw {
namespace {

// Bytes a decoder may ask for past the end of a complete file: bit readers fetch a little ahead.
constexpr std::int64_t kReadAheadSlack = 4096;
// The longest number scanf_one reads; LibRaw's own streams stop a word after 24 characters.
constexpr int kMaxWord = 24;

bool isBlank(int c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

}  // namespace

RawStream::RawStream(const unsigned char* bytes, std::size_t length)
    : bytes_(bytes), length_(static_cast<INT64>(length)) {}

void RawStream::noteShortfall(std::int64_t missing) {
  if (checking_ && missing > 0) missing_ += missing;
}

int RawStream::read(void* ptr, size_t size, size_t count) {
  if (size == 0 || count == 0) return 0;
  const INT64 wanted = static_cast<INT64>(size * count);
  const INT64 available = position_ < length_ ? length_ - position_ : 0;
  const INT64 got = std::min(wanted, available);
  if (got > 0) std::memcpy(ptr, bytes_ + position_, static_cast<std::size_t>(got));
  position_ += got;
  if (checking_) consumed_ += got;
  noteShortfall(wanted - got);
  return static_cast<int>(got / static_cast<INT64>(size));
}

int RawStream::seek(INT64 offset, int whence) {
  const INT64 base = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? position_ : length_;
  // Offsets come from the file and may be anything; a sum that overflows is out of the file.
  INT64 target = 0;
  if (__builtin_add_overflow(base, offset, &target) || target < 0) return -1;
  if (checking_ && target > length_) pastEnd_ = true;
  position_ = target;
  return 0;
}

int RawStream::get_char() {
  if (position_ < length_) {
    if (checking_) ++consumed_;
    return bytes_[position_++];
  }
  noteShortfall(1);
  return -1;
}

char* RawStream::gets(char* line, int capacity) {
  if (capacity < 1 || position_ >= length_) return nullptr;
  int used = 0;
  while (used < capacity - 1 && position_ < length_) {
    const char c = static_cast<char>(bytes_[position_++]);
    line[used++] = c;
    if (c == '\n') break;
  }
  line[used] = '\0';
  return line;
}

int RawStream::scanf_one(const char* format, void* value) {
  while (position_ < length_ && isBlank(bytes_[position_])) ++position_;
  // The word is copied out first: the bytes are not terminated, sscanf must not run off them.
  char word[kMaxWord + 1] = {};
  int used = 0;
  while (used < kMaxWord && position_ < length_ && bytes_[position_] != 0 &&
         !isBlank(bytes_[position_]))
    word[used++] = static_cast<char>(bytes_[position_++]);
  if (used == 0) return position_ >= length_ ? EOF : 0;
  return std::sscanf(word, format, value);
}

bool RawStream::truncated() const {
  return pastEnd_ || missing_ > kReadAheadSlack;
}

}  // namespace vorn::raw
