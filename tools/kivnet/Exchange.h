// kivnet's exchanges with devices, written only against the library's exported functions, the
// way a driver uses them.
#ifndef KIV_TOOLS_KIVNET_EXCHANGE_H
#define KIV_TOOLS_KIVNET_EXCHANGE_H

#include <string>

#include "Common/KivTypes.h"
#include "tools/kivnet/Answers.h"
#include "tools/kivnet/CommandLine.h"

namespace kivnet {

// Why an exchange failed: the exported function and its result code, with a few words on what
// was being done. Empty `function` means success.
struct Failure {
  std::string function;
  UInt32 code = 0;
  std::string detail;
  bool failed() const { return !function.empty(); }
  // "<detail>: <function> returned 0x........ (<meaning>)".
  std::string Describe() const;
};

// Sends the discovery query to line.target (kBroadcast: 255.255.255.255) and line.port and
// collects answers for line.waitSeconds (plus at most one second for the last receive). Every
// datagram is parsed; one that does not parse is listed in `result.unread`, not a failure.
Failure Discover(const CommandLine &line, Discovery &result);

// Pings line.target and waits for a ping reply from that address.
Failure Ping(const CommandLine &line, PingAnswer &answer);

// Asks line.target for its status cache (line.portInfo, line.channel) and waits for the answer.
Failure Status(const CommandLine &line, StatusAnswer &answer);

// Sends the configuration message for line.mac and waits for an HCP answer. `answer.record`
// holds the device's result byte in iResponse (0: accepted, with the new addresses).
Failure SetIp(const CommandLine &line, ConfigAnswer &answer);

// The host's settings through the host-information functions, and the hardware address of
// `interfaceName` (every interface's when empty). Throws the int -1 of the library when the
// host has no default IPv4 interface; `missingInterface` is set when the named interface has no
// hardware address.
HostInfo ReadHostInfo(const std::string &interfaceName, bool &missingInterface);

} // namespace kivnet

#endif // KIV_TOOLS_KIVNET_EXCHANGE_H
