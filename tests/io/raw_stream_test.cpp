#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "io/raw/raw_stream.h"

namespace vorn::raw {
namespace {

const unsigned char kBytes[] = "12 3.5\nsecond line\n";
constexpr std::size_t kLength = sizeof kBytes - 1;

// The positions LibRaw's bounds checks compare with the size stay where they were put.
TEST(RawStream, APositionPastTheEndStaysThereAndReadsFindNothing) {
  RawStream stream(kBytes, kLength);
  EXPECT_EQ(stream.seek(1000, SEEK_SET), 0);
  EXPECT_EQ(stream.tell(), 1000);
  EXPECT_TRUE(stream.eof());
  char buffer[8] = {};
  EXPECT_EQ(stream.read(buffer, 1, sizeof buffer), 0);
  EXPECT_EQ(stream.get_char(), -1);
  EXPECT_EQ(stream.seek(-2000, SEEK_CUR), -1) << "before the start is refused";
  EXPECT_EQ(stream.tell(), 1000);
  EXPECT_EQ(stream.seek(INT64_MAX, SEEK_CUR), -1) << "an overflowing offset is refused";
  EXPECT_EQ(stream.seek(-4, SEEK_END), 0);
  EXPECT_EQ(stream.read(buffer, 2, 4), 2) << "whole items only";
  EXPECT_EQ(std::string(buffer, 4), "ine\n");
}

TEST(RawStream, TextReadsStopAtTheEndOfTheBytes) {
  RawStream stream(kBytes, kLength);
  int whole = 0;
  float fraction = 0.0f;
  EXPECT_EQ(stream.scanf_one("%d", &whole), 1);
  EXPECT_EQ(stream.scanf_one("%f", &fraction), 1);
  EXPECT_EQ(whole, 12);
  EXPECT_FLOAT_EQ(fraction, 3.5f);
  char line[8];
  ASSERT_NE(stream.gets(line, sizeof line), nullptr);
  EXPECT_STREQ(line, "\n");
  ASSERT_NE(stream.gets(line, sizeof line), nullptr);
  EXPECT_STREQ(line, "second ") << "cut at the buffer, terminated";
  ASSERT_NE(stream.gets(line, sizeof line), nullptr);
  EXPECT_STREQ(line, "line\n");
  EXPECT_EQ(stream.gets(line, sizeof line), nullptr);
  EXPECT_EQ(stream.scanf_one("%d", &whole), EOF);
}

// Metadata may point out of the file; image data that does is a truncation.
TEST(RawStream, ReadsPastTheEndCountOnlyOnceChecking) {
  RawStream stream(kBytes, kLength);
  stream.seek(100000, SEEK_SET);
  EXPECT_FALSE(stream.truncated());
  stream.startChecking();
  stream.seek(0, SEEK_SET);
  char buffer[64];
  stream.read(buffer, 1, sizeof buffer);
  EXPECT_FALSE(stream.truncated()) << "a little read-ahead is allowed";
  stream.seek(static_cast<INT64>(kLength) + 1, SEEK_SET);
  EXPECT_TRUE(stream.truncated());
}

}  // namespace
}  // namespace vorn::raw
