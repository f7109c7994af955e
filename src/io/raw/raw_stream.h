#pragma once

#include <libraw/libraw_datastream.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace vorn::raw {

/// A raw file's bytes as LibRaw's input, read the way its file stream reads a file: a position
/// past the end stays where it was put and reads there find nothing. LibRaw's own memory stream
/// pulls such a position back to the end, which lets damaged offsets slip past the parser's
/// bounds checks into a stack overflow (two sample DNGs crash there); here those checks hold.
/// The stream also notices when a decoder looks for image data the file does not have, and how
/// much it read: LibRaw reads a truncated file as zeros and calls it a success.
class RawStream final : public LibRaw_abstract_datastream {
 public:
  RawStream(const unsigned char* bytes, std::size_t length);

  int valid() override { return 1; }
  int read(void* ptr, size_t size, size_t count) override;
  int seek(INT64 offset, int whence) override;
  INT64 tell() override { return position_; }
  INT64 size() override { return length_; }
  int get_char() override;
  char* gets(char* line, int capacity) override;
  int scanf_one(const char* format, void* value) override;
  int eof() override { return position_ >= length_; }
  void* make_jas_stream() override { return nullptr; }

  /// Starts watching the reads: parsing the metadata may legitimately follow offsets out of
  /// the file, decoding the image data may not.
  void startChecking() { checking_ = true; }
  /// True when, since startChecking, a decoder looked for data past the end of the file.
  bool truncated() const;
  /// Bytes read since startChecking.
  std::int64_t consumed() const { return consumed_; }

 private:
  void noteShortfall(std::int64_t missing);

  const unsigned char* bytes_;
  INT64 length_;
  INT64 position_ = 0;
  bool checking_ = false;
  // Parallel decoders read through one stream from several threads.
  std::atomic<bool> pastEnd_{false};
  std::atomic<std::int64_t> missing_{0};
  std::atomic<std::int64_t> consumed_{0};
};

}  // namespace vorn::raw
