// What one simulated device knows about itself: addresses, names, ports and status block.
#ifndef KIV_SIM_DEVICERECORD_H
#define KIV_SIM_DEVICERECORD_H

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace kivsim {

// One port of a device (a printer or scanner attached to the network adapter).
struct PortRecord {
  std::uint16_t number = 1; // port number, announced as the port token of the per-port items
  bool attached = true;     // announced as "<number> 1" (attached) or "<number> 0"
  std::string productText;  // STRID text, announced in double quotes
  std::string vidPidText;   // PRINTERVIDPID text, announced in double quotes
};

// The device's record. The discovery answer announces it; a configuration message that the
// device accepts changes its three address fields.
struct DeviceRecord {
  std::string ipAddress = "127.0.0.10"; // dotted IPv4; the device's sockets are bound to it
  std::string netmask = "255.0.0.0";
  std::string gateway = "127.0.0.1";
  std::string ipName = "kivsim-1";
  std::array<std::uint8_t, 6> mac = {0x02, 0x4B, 0x49, 0x56, 0x00, 0x01}; // universal address
  std::string macLaa = "000000000000"; // locally administered address, announced as held
  std::string adapterType = "ethernet";
  std::string adapterName = "KivSim adapter 1";
  std::string addressSource = "static";
  std::string oemByte = "0";
  std::string password;          // compared byte for byte with a configuration message's password
  bool passwordSet = false;      // false: any password is accepted
  std::vector<PortRecord> ports; // the first four are announced
  std::vector<std::uint8_t> status; // status block of the status-cache answer
  std::uint16_t printerId = 0x0101; // written over status bytes 26-27 when the block has them
  std::uint32_t hostListStatus = 0; // the 4-byte status of the host-list answer
  // The address items of the discovery answer: by default IPADDRESS with ipAddress and IPNETMASK
  // with netmask. A device may leave either out, or announce another IPADDRESS text (up to 200
  // bytes, such as one of 20 characters, longer than any dotted address) than the one it serves.
  bool announceIpAddress = true;
  bool announceNetmask = true;
  std::string announcedIpAddress; // when not empty, the IPADDRESS value instead of ipAddress
};

// A record for device `number` (1 to 65535) at `address`: a locally administered MAC address
// ending in the number, the name kivsim-<number>, one attached port and a 32-byte status block.
DeviceRecord MakeDeviceRecord(int number, const std::string &address);

// The dotted address `count` steps after `base` (127.0.0.10 + 1 = 127.0.0.11).
// Throws std::invalid_argument for a text that is no IPv4 address or a result past 255.255.255.255.
std::string AddressAfter(const std::string &base, int count);

} // namespace kivsim

#endif // KIV_SIM_DEVICERECORD_H
