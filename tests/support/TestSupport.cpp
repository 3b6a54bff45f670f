// Shared helpers of the tests.
#include "support/TestSupport.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <stdexcept>

#include <gtest/gtest.h>

namespace kivtest {

Bytes Hex(const std::string &text) {
  std::string digits;
  std::copy_if(text.begin(), text.end(), std::back_inserter(digits),
               [](char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; });
  if (digits.size() % 2 != 0) {
    throw std::invalid_argument("odd number of hex digits: " + text);
  }
  Bytes bytes;
  for (size_t i = 0; i < digits.size(); i += 2) {
    bytes.push_back(static_cast<unsigned char>(std::stoul(digits.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

Bytes Text(const std::string &text) { return Bytes(text.begin(), text.end()); }

Bytes Join(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes &part : parts) {
    all.insert(all.end(), part.begin(), part.end());
  }
  return all;
}

std::string ToHex(const unsigned char *data, int length) {
  std::string text;
  char pair[4];
  for (int i = 0; i < length; ++i) {
    std::snprintf(pair, sizeof pair, i == 0 ? "%02X" : " %02X", data[i]);
    text += pair;
  }
  return text;
}

std::string ToHex(const Bytes &bytes) {
  return ToHex(bytes.data(), static_cast<int>(bytes.size()));
}

std::string CaptureStdout(const std::function<void()> &action) {
  std::fflush(stdout);
  testing::internal::CaptureStdout();
  action();
  std::fflush(stdout);
  return testing::internal::GetCapturedStdout();
}

int CountOpenDescriptors() {
  std::error_code error;
  std::filesystem::directory_iterator fds("/proc/self/fd", error);
  // Less the descriptor the listing itself holds open.
  return error ? -1
               : static_cast<int>(std::distance(fds, std::filesystem::directory_iterator())) - 1;
}

} // namespace kivtest
