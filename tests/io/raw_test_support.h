#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <future>
#include <string>
#include <vector>

#include "support/test_files.h"

namespace vorn::test {

/// A real raw sample from ../shared/samples/raw beside the repository; empty when absent.
inline std::string rawSample(const std::string& name) {
  return sharedSample("raw", name);
}

#define VORN_REQUIRE_SAMPLE(variable, name)                   \
  const std::string variable = ::vorn::test::rawSample(name); \
  if (variable.empty()) GTEST_SKIP() << "sample " << (name) << " is absent"

/// Runs `call` on another thread; false when it has not returned within `seconds`. The thread
/// is left behind on timeout so that a hang fails the test instead of blocking it.
template <typename Call>
bool finishesWithin(double seconds, Call call) {
  auto done = std::make_shared<std::promise<void>>();
  std::future<void> future = done->get_future();
  std::thread([done, call]() mutable {
    call();
    done->set_value();
  }).detach();
  return future.wait_for(std::chrono::duration<double>(seconds)) == std::future_status::ready;
}

/// A 2 x 2 8-bit grey baseline TIFF, with an IFD0 Model tag when `model` is not empty.
inline void writeTinyTiff(const std::string& path, const std::string& model) {
  std::vector<std::uint8_t> bytes = {'I', 'I', 42, 0, 8, 0, 0, 0};
  struct Entry {
    std::uint16_t tag, type;
    std::uint32_t count, value;
  };
  std::vector<Entry> entries = {
      {256, 3, 1, 2}, {257, 3, 1, 2}, {258, 3, 1, 8}, {259, 3, 1, 1}, {262, 3, 1, 1}};
  const std::size_t entryCount = entries.size() + 5 + (model.empty() ? 0 : 1);
  const std::uint32_t dataOffset = static_cast<std::uint32_t>(8 + 2 + entryCount * 12 + 4);
  const std::uint32_t modelOffset = dataOffset + 4;
  if (!model.empty())
    entries.push_back({272, 2, static_cast<std::uint32_t>(model.size() + 1), modelOffset});
  entries.push_back({273, 4, 1, dataOffset});
  entries.push_back({277, 3, 1, 1});
  entries.push_back({278, 3, 1, 2});
  entries.push_back({279, 4, 1, 4});
  entries.push_back({284, 3, 1, 1});
  const auto put16 = [&](std::uint32_t v) {
    bytes.push_back(std::uint8_t(v & 0xff));
    bytes.push_back(std::uint8_t(v >> 8));
  };
  const auto put32 = [&](std::uint32_t v) {
    put16(v & 0xffff);
    put16(v >> 16);
  };
  put16(static_cast<std::uint32_t>(entries.size()));
  for (const Entry& e : entries) {
    put16(e.tag);
    put16(e.type);
    put32(e.count);
    put32(e.value);
  }
  put32(0);
  for (int v : {10, 20, 30, 40}) bytes.push_back(static_cast<std::uint8_t>(v));
  for (char c : model) bytes.push_back(static_cast<std::uint8_t>(c));
  if (!model.empty()) bytes.push_back(0);
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
}

}  // namespace vorn::test
