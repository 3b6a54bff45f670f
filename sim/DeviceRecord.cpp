// Default device records and address arithmetic for the simulator.
#include "sim/DeviceRecord.h"

#include <arpa/inet.h>

#include <cstdio>
#include <stdexcept>

namespace kivsim {

DeviceRecord MakeDeviceRecord(int number, const std::string &address) {
  if (number < 1 || number > 0xFFFF) {
    throw std::invalid_argument("device number out of range: " + std::to_string(number));
  }
  DeviceRecord record;
  record.ipAddress = address;
  record.ipName = "kivsim-" + std::to_string(number);
  // 02 in the first byte marks a locally administered address, so no real adapter owns it.
  record.mac = {0x02,
                0x4B,
                0x49,
                0x56,
                static_cast<std::uint8_t>(number >> 8),
                static_cast<std::uint8_t>(number & 0xFF)};
  record.adapterName = "KivSim adapter " + std::to_string(number);
  char vidPid[32];
  std::snprintf(vidPid, sizeof vidPid, "FFFF:%04X", static_cast<unsigned>(number));
  record.ports.push_back(
      PortRecord{1, true, "KivSim Printer " + std::to_string(number), std::string(vidPid)});
  record.status.assign(32, 0);
  record.printerId = static_cast<std::uint16_t>(0x0100 | (number & 0xFF));
  return record;
}

std::string AddressAfter(const std::string &base, int count) {
  in_addr address{};
  if (inet_pton(AF_INET, base.c_str(), &address) != 1) {
    throw std::invalid_argument("not an IPv4 address: " + base);
  }
  const unsigned long long next = static_cast<unsigned long long>(ntohl(address.s_addr)) +
                                  static_cast<unsigned long long>(count);
  if (count < 0 || next > 0xFFFFFFFFull) {
    throw std::invalid_argument("address range past the end: " + base);
  }
  address.s_addr = htonl(static_cast<std::uint32_t>(next));
  char text[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, &address, text, sizeof text);
  return text;
}

} // namespace kivsim
