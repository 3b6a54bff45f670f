// A driver's address buffer for the relocation tests: the 16 bytes the library may write, and a
// guard area behind them that must stay as it was.
#ifndef KIV_TESTS_SUPPORT_ADDRESSBUFFER_H
#define KIV_TESTS_SUPPORT_ADDRESSBUFFER_H

#include <cstddef>
#include <cstring>
#include <string>

namespace kivtest {

class AddressBuffer {
protected:
  AddressBuffer() { std::memset(buffer, kGuard, sizeof buffer); }

  // Holds `address` and its terminator at the start, guard bytes after it.
  void Hold(const char *address) {
    std::memset(buffer, kGuard, sizeof buffer);
    std::strcpy(buffer, address);
  }
  // The text in the 16 bytes the library may write.
  std::string Held() const { return std::string(buffer, strnlen(buffer, kWritable)); }
  // Whether every byte behind the 16 is still a guard byte.
  bool GuardIntact() const {
    for (std::size_t i = kWritable; i < sizeof buffer; ++i) {
      if (static_cast<unsigned char>(buffer[i]) != kGuard) {
        return false;
      }
    }
    return true;
  }

  static constexpr std::size_t kWritable = 16;
  static constexpr unsigned char kGuard = 0xA5;
  char buffer[32];
};

} // namespace kivtest

#endif // KIV_TESTS_SUPPORT_ADDRESSBUFFER_H
