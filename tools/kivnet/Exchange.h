// kivnet's exchanges with devices, written only against the library's exported functions, the
// way a driver uses them.
#ifndef KIV_TOOLS_KIVNET_EXCHANGE_H
#define KIV_TOOLS_KIVNET_EXCHANGE_H

#include <string>

#include "Common/KivTypes.h"
#include "tools/kivnet/Answers.h"
#include "tools/kivnet/CommandLine.h"

namespace kivnet {

// What kind of failure ended an exchange.
enum class FailureKind {
  kNone,
  kCall,        // an exported function or a system call failed
  kNoAnswer,    // nothing from the asked device within the wait
  kUnreadable,  // the device answered, but nothing it sent could be read
  kCutShort,    // the answer declares more bytes than arrived
  kRefused,     // the device refused the configuration
  kHost,        // the host lacks what the command needs (a default interface, a named interface)
  kOpenRefused, // the device refused a channel's open request
  kBadFrame,    // a channel frame header without "HBN3" or with an impossible length
  kEndedEarly,  // the channel ended before the frames asked for
};

// The name of a kind as the JSON error object gives it ("call-failed", "no-answer", ...).
std::string KindName(FailureKind kind);

// Why an exchange failed. `function` and `code` name the exported function and its result code
// when one was involved; `systemError` is errno as the failing call left it (0: none).
struct Failure {
  FailureKind kind = FailureKind::kNone;
  std::string detail; // what was being done, or what happened
  std::string function;
  UInt32 code = 0;
  int systemError = 0;
  bool failed() const { return kind != FailureKind::kNone; }
  // "<detail>: <system reason>; <function> returned 0x........: <meaning>", each part only when
  // it is known.
  std::string Describe() const;
  // The system's reason (strerror of systemError), or "".
  std::string SystemReason() const;
};

// A failure of `kind`; `function`, `code` and `systemError` as in Failure.
Failure Fail(FailureKind kind, const std::string &detail, const char *function = "",
             UInt32 code = 0, int systemError = 0);

// Hears of each answer as discovery takes it in, so that output can grow as devices answer.
class DiscoveryListener {
public:
  virtual ~DiscoveryListener() = default;
  virtual void Found(const FoundDevice &device) = 0;
  virtual void Unread(const UnreadAnswer &answer) = 0;
};

// Sends the discovery query to line.target (kBroadcast: 255.255.255.255) and line.port and
// collects answers for line.waitTenths. Datagrams are taken from the socket as soon as they
// arrive, one RecvFrom each into a container of its own while the descriptor reports another
// waiting, and parsed only once the socket has been quiet for a moment (or an answer has been
// held a quarter of a second), so that a burst of answers is not dropped while earlier ones are
// parsed; each parsed device or unreadable datagram goes to `listener` (may be null) and into
// `result`. An unreadable datagram is not a failure.
Failure Discover(const CommandLine &line, Discovery &result, DiscoveryListener *listener);

// Pings line.target and waits for its ping reply.
Failure Ping(const CommandLine &line, PingAnswer &answer);

// Asks line.target for its status cache (line.portInfo, line.channel) and waits for the answer.
// An answer that declares more status bytes than arrived fails as kCutShort.
Failure Status(const CommandLine &line, StatusAnswer &answer);

// Sends the configuration message for line.mac and waits for the configuration answer that
// names that MAC (from line.target or the new address when a target is given). A device's
// refusal fails as kRefused with `answer` filled.
Failure SetIp(const CommandLine &line, ConfigAnswer &answer);

// The host's settings through the host-information functions, the interface that holds the
// default address, and the hardware address of `interfaceName` (every interface's when empty).
// Fails as kHost when the host has no default IPv4 interface or `interfaceName` has no hardware
// address.
Failure ReadHostInfo(const std::string &interfaceName, HostInfo &host);

} // namespace kivnet

#endif // KIV_TOOLS_KIVNET_EXCHANGE_H
