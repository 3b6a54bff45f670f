// Shared helpers of the tests.
#include "support/TestSupport.h"

#include <dirent.h>

#include <cctype>
#include <cstdio>
#include <stdexcept>

#include <gtest/gtest.h>

namespace kivtest {

Bytes Hex(const std::string &text) {
  Bytes bytes;
  int high = -1;
  for (char c : text) {
    if (std::isxdigit(static_cast<unsigned char>(c)) == 0) {
      continue;
    }
    const int value = std::isdigit(static_cast<unsigned char>(c)) != 0
                          ? c - '0'
                          : std::tolower(static_cast<unsigned char>(c)) - 'a' + 10;
    if (high < 0) {
      high = value;
    } else {
      bytes.push_back(static_cast<unsigned char>((high << 4) | value));
      high = -1;
    }
  }
  if (high >= 0) {
    throw std::invalid_argument("odd number of hex digits: " + text);
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
    std::snprintf(pair, sizeof pair, "%02X", data[i]);
    if (!text.empty()) {
      text += ' ';
    }
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
  int count = 0;
  DIR *dir = opendir("/proc/self/fd");
  if (dir == nullptr) {
    return -1;
  }
  while (dirent *entry = readdir(dir)) {
    if (entry->d_name[0] != '.') {
      ++count;
    }
  }
  closedir(dir);
  return count - 1; // the directory's own descriptor
}

} // namespace kivtest
