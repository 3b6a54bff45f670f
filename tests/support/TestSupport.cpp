// Shared helpers of the tests.
#include "support/TestSupport.h"

#include <dirent.h>

#include <algorithm>
#include <cctype>
#include <iterator>
#include <cstdio>
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
  DIR *dir = opendir("/proc/self/fd");
  if (dir == nullptr) {
    return -1;
  }
  int count = 0;
  while (dirent *entry = readdir(dir)) {
    count += entry->d_name[0] != '.' ? 1 : 0;
  }
  closedir(dir);
  return count - 1; // the directory's own descriptor
}

} // namespace kivtest
