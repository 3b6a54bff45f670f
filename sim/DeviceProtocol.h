// The device side of HCP and HBN3 over UDP: requests recognised and answers built from a
// device record, bytes in and bytes out, no sockets.
#ifndef KIV_SIM_DEVICEPROTOCOL_H
#define KIV_SIM_DEVICEPROTOCOL_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "sim/DeviceRecord.h"

namespace kivsim {

typedef std::vector<std::uint8_t> Bytes;

// What a received datagram asks for.
enum class RequestKind {
  kDiscovery,     // the 41-byte HCP discovery query
  kConfiguration, // an "HCP1" configuration message
  kStatusCache,   // HBN3 command 1
  kPing,          // HBN3 command 3
  kHostList,      // HBN3 command 4
  kRequestScan,   // HBN3 command 5
  kUnknown        // anything else: never answered
};

// The kind of request in `length` bytes at `data`.
RequestKind Classify(const std::uint8_t *data, std::size_t length);

// Result byte of a configuration answer (byte 26).
enum ConfigResult : std::uint8_t {
  kConfigAccepted = 0,
  kConfigWrongPassword = 1, // the password does not match the device's
  kConfigBadAddress = 2     // the text record lacks an address line or holds no IPv4 address
};

// What a device makes of a configuration message.
struct ConfigOutcome {
  bool answered = false; // false: not for this device, or malformed; no answer is sent
  std::uint8_t result = kConfigAccepted;
  std::string ipAddress, netmask, gateway; // the new addresses when result is kConfigAccepted
  Bytes answer;
};

// The answer of `record`'s device to a discovery query whose transaction identifier is `id`.
// With `wrongMac` the MACUAA item names the device's address with its last byte inverted.
Bytes DiscoveryAnswer(const DeviceRecord &record, std::uint16_t id, bool wrongMac);

// The device's handling of a configuration message: checks the target MAC address (bytes 6-11)
// and the password, reads the three address lines and builds the answer. The record is not
// changed; the caller takes the new addresses from the outcome.
ConfigOutcome Configure(const DeviceRecord &record, const std::uint8_t *data, std::size_t length);

// The device's answer to an HBN3 request (status cache, ping, host-list entry, request scan);
// empty for any other message.
Bytes Hbn3Answer(const DeviceRecord &record, const std::uint8_t *data, std::size_t length);

// The MACUAA text of a MAC address: twelve uppercase hexadecimal digits, the bits of each byte in
// reverse order (02 4B ... gives 40D2...).
std::string ReversedMacText(const std::uint8_t *mac);

// `length` bytes that form no HCP or HBN3 message, the same for the same seed.
Bytes Garbage(std::size_t length, std::uint32_t seed);

} // namespace kivsim

#endif // KIV_SIM_DEVICEPROTOCOL_H
