// Fuzzes the reading of a MAC query's answer: any datagram gives a MAC text that is empty or 12
// lowercase hexadecimal digits, and an address that is empty or at most 15 bytes cut from the
// answer right after "IPADDRESS=" and ending before the first IPNETMASK item; never a read
// outside the datagram.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "FuzzSupport.h"
#include "HelperFiles/KivBonjourUtil.h"

using kivfuzz::Require;

namespace {

// Position of the first `key` in the data, or -1.
long Find(const uint8_t *data, size_t size, const char *key) {
  const uint8_t *end = data + size;
  const uint8_t *found = std::search(data, end, key, key + std::strlen(key));
  return found == end ? -1 : static_cast<long>(found - data);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  // A receive reads at most 1024 bytes.
  if (size > 1024) {
    return 0;
  }
  // A block of exactly the datagram's size, so any read past it is reported.
  std::unique_ptr<uint8_t[]> exact(new uint8_t[size > 0 ? size : 1]);
  if (size > 0) {
    std::memcpy(exact.get(), data, size);
  }
  const int length = static_cast<int>(size);

  const std::string mac = KivNetBonjourUtil::extractMACAddress(exact.get(), length);
  const long macKey = Find(data, size, "MACUAA");
  Require(mac.empty() == (macKey < 0 || size - macKey < 20));
  Require(mac.empty() ||
          (mac.size() == 12 && mac.find_first_not_of("0123456789abcdef") == std::string::npos));

  const std::string address = KivNetBonjourUtil::extractIPAddress(exact.get(), length);
  const long key = Find(data, size, "IPADDRESS"), mask = Find(data, size, "IPNETMASK");
  if (key < 0 || mask < 0 || mask - key < 11 || mask - key - 11 > 15) {
    Require(address.empty());
  } else {
    Require(address.size() == static_cast<size_t>(mask - key - 11));
    Require(std::memcmp(address.data(), data + key + 10, address.size()) == 0);
  }
  return 0;
}
