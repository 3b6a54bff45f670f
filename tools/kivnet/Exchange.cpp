// kivnet's exchanges. Only exported functions do the work; the classes appear only where a host
// gives memory back (the library hands every object to its host and never releases one).
#include "tools/kivnet/Exchange.h"

#include <net/if.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <memory>
#include <set>

#include "Interfaces/KivNetworkComm.h"
#include "tools/kivnet/ResultCodes.h"

namespace kivnet {

namespace {

typedef std::chrono::steady_clock Clock;

constexpr UInt32 kHeaderHCP1 = 0x48435031;
constexpr UInt32 kHeaderHBN3 = 0x48424E33;
constexpr UInt32 kDiscoveryAnswer = 0x80000006;
constexpr UInt32 kConfigurationAnswer = 1; // any value but the discovery one
constexpr UInt32 kPingReply = 0x80000003;
constexpr UInt32 kStatusCacheReply = 0x80000001;
constexpr UInt32 kRecvFromError = 0x0A0000B6;
// Each receive waits at most this long, so the loop looks at its deadline at least once a
// second; the socket option counts whole seconds.
constexpr int kReceiveSliceSeconds = 1;
// A flood cannot keep a loop going past this many datagrams, whatever the clock says.
constexpr int kMaxDatagrams = 100000;

Failure Fail(const char *function, UInt32 code, const std::string &detail) {
  Failure failure;
  failure.function = function;
  failure.code = code;
  failure.detail = detail;
  return failure;
}

std::string Where(const std::string &address, int port) {
  return (address == kBroadcast ? std::string("255.255.255.255") : address) + ":" +
         std::to_string(port);
}

UInt32 TimeStamp() { return static_cast<UInt32>(std::time(nullptr)); }

// A message container, released with its storage when the exchange ends.
class Message {
public:
  Message() : mHandle(CreateBuffer()) {}
  ~Message() {
    KivNetBuffer *buffer = VerifyBufferHandle(mHandle);
    buffer->ResetBuffer();
    delete buffer;
  }
  Message(const Message &) = delete;
  Message &operator=(const Message &) = delete;
  HANDLE handle() const { return mHandle; }

private:
  HANDLE mHandle;
};

// An address handle, released when the exchange ends.
class Address {
public:
  Address(std::string text, int port) : mHandle(CreateSocketAddress(text, port)) {}
  ~Address() { delete VerifySockAddressHandle(mHandle); }
  Address(const Address &) = delete;
  Address &operator=(const Address &) = delete;
  HANDLE handle() const { return mHandle; }

  std::string Text() const {
    std::string text;
    GetAddressPort(mHandle, &text, nullptr);
    return text;
  }
  int Port() const {
    int port = 0;
    GetAddressPort(mHandle, nullptr, &port);
    return port;
  }

private:
  HANDLE mHandle;
};

// One UDP socket on a port the system picks, with a one-second receive limit; closed and
// released when the exchange ends.
class Endpoint {
public:
  Endpoint() : mHandle(OpenUDPSocket(0)) {}
  ~Endpoint() {
    if (mHandle != nullptr) {
      CloseUDPSocket(mHandle);
      delete static_cast<KivUDPSocket *>(VerifySocketHandle(mHandle, kSocketKindUDP));
    }
  }
  Endpoint(const Endpoint &) = delete;
  Endpoint &operator=(const Endpoint &) = delete;

  Failure Prepare(bool broadcast) {
    if (mHandle == nullptr) {
      return Fail("OpenUDPSocket", 0, "no UDP socket could be made");
    }
    UInt32 code = BindUDPSocket(mHandle);
    if (code != 0) {
      return Fail("BindUDPSocket", code, "cannot bind a local port");
    }
    code = SetSocketOptions(mHandle, kSocketKindUDP, TIME_OUT, kReceiveSliceSeconds);
    if (code != 0) {
      return Fail("SetSocketOptions", code, "cannot set the receive time-out");
    }
    if (broadcast) {
      code = SetSocketOptions(mHandle, kSocketKindUDP, BROADCAST_PERMITTED, 0);
      if (code != 0) {
        return Fail("SetSocketOptions", code, "cannot permit broadcasts");
      }
    }
    return Failure();
  }

  Failure Send(const std::string &address, int port, const Message &message) {
    Address to(address, port);
    int sent = 0;
    const UInt32 code = SendTo(mHandle, to.handle(), message.handle(), 0, sent);
    if (code != 0) {
      return Fail("SendTo", code, "cannot send to " + Where(address, port));
    }
    return Failure();
  }

  // Receives datagrams into `message` until `take` returns true, the deadline passes or the
  // datagram limit is reached. `take` sees the sender and the count of each datagram.
  Failure Collect(Clock::time_point deadline, const Message &message,
                  const std::function<bool(const std::string &, int, int)> &take) {
    Address from("", 0);
    for (int count = 0; count < kMaxDatagrams && Clock::now() < deadline;) {
      int received = 0;
      const UInt32 code = RecvFrom(mHandle, from.handle(), message.handle(), 0, received);
      if (code == kRecvFromError) {
        continue; // the one-second slice passed without a datagram
      }
      if (code != 0) {
        return Fail("RecvFrom", code, "receiving failed");
      }
      ++count;
      if (take(from.Text(), from.Port(), received)) {
        break;
      }
    }
    return Failure();
  }

private:
  HANDLE mHandle;
};

Clock::time_point DeadlineAfter(int seconds) {
  return Clock::now() + std::chrono::seconds(seconds);
}

std::string MacText(const unsigned char *bytes) {
  char text[20];
  std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", bytes[0], bytes[1], bytes[2],
                bytes[3], bytes[4], bytes[5]);
  return text;
}

// GetHostMACAddress's block as text; empty for null. The block is the caller's to free.
std::string HardwareAddressOf(const std::string &name) {
  ether_addr *mac = GetHostMACAddress(name.c_str());
  if (mac == nullptr) {
    return "";
  }
  const std::string text = MacText(reinterpret_cast<const unsigned char *>(mac));
  std::free(mac);
  return text;
}

Failure NoAnswer(const CommandLine &line) {
  return Fail("RecvFrom", kRecvFromError,
              "no answer from " + Where(line.target, line.port) + " within " +
                  std::to_string(line.waitSeconds) + " s");
}

// Sends `request` to the target of `line` and waits for the first reply (in `reply`) whose sender
// `accept` takes; `parse` reads it and returns the library's code, reported as `parser`'s when it
// is not 0. Anything else arriving on the port (a late answer to someone else) is passed over.
Failure RequestOne(Endpoint &endpoint, const CommandLine &line, const Message &request,
                   const Message &reply, const std::function<bool(const std::string &)> &accept,
                   const std::function<UInt32()> &parse, const char *parser, std::string &from,
                   int &fromPort) {
  Failure failure = endpoint.Send(line.target, line.port, request);
  if (failure.failed()) {
    return failure;
  }
  bool answered = false;
  UInt32 code = 0;
  failure = endpoint.Collect(DeadlineAfter(line.waitSeconds), reply,
                             [&](const std::string &sender, int port, int) {
                               if (!accept(sender)) {
                                 return false;
                               }
                               code = parse();
                               from = sender;
                               fromPort = port;
                               answered = true;
                               return true;
                             });
  if (failure.failed()) {
    return failure;
  }
  if (!answered) {
    return NoAnswer(line);
  }
  if (code != 0) {
    return Fail(parser, code, "unreadable answer from " + from);
  }
  return Failure();
}

} // namespace

std::string Failure::Describe() const {
  std::string text = detail.empty() ? std::string() : detail + ": ";
  if (code == 0) {
    return text + function + " failed";
  }
  return text + function + " returned " + CodeHex(code) + " (" + DescribeCode(code) + ")";
}

Failure Discover(const CommandLine &line, Discovery &result) {
  result = Discovery();
  Endpoint endpoint;
  Failure failure = endpoint.Prepare(line.target == kBroadcast);
  if (failure.failed()) {
    return failure;
  }
  Message query;
  UInt32 code = CreateDiscovery(kHeaderHCP1, query.handle());
  if (code != 0) {
    return Fail("CreateDiscovery", code, "cannot build the discovery query");
  }
  const Clock::time_point start = Clock::now();
  failure = endpoint.Send(line.target, line.port, query);
  if (failure.failed()) {
    return failure;
  }
  std::unique_ptr<KivNetRecord> record(static_cast<KivNetRecord *>(CreateKivNetRecord()));
  std::set<std::string> seen;
  Message answer;
  failure = endpoint.Collect(
      DeadlineAfter(line.waitSeconds), answer, [&](const std::string &from, int port, int length) {
        ++result.datagrams;
        const UInt32 parsed =
            ParseHCPResponse(kHeaderHCP1, answer.handle(), kDiscoveryAnswer, *record);
        if (parsed != 0) {
          result.unread.push_back(UnreadAnswer{from, port, length, parsed});
          return false;
        }
        // A device that answers twice (a retransmission, or two paths to it) is listed once.
        if (!seen.insert(record->strMacUaa + "/" + record->strIPAddr).second) {
          ++result.duplicates;
          return false;
        }
        result.devices.push_back(FoundDevice{from, port, *record});
        return false;
      });
  result.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  return failure;
}

Failure Ping(const CommandLine &line, PingAnswer &answer) {
  Endpoint endpoint;
  Failure failure = endpoint.Prepare(false);
  if (failure.failed()) {
    return failure;
  }
  Message request;
  UInt32 code = CreatePing(kHeaderHBN3, TimeStamp(), request.handle());
  if (code != 0) {
    return Fail("CreatePing", code, "cannot build the ping");
  }
  const Clock::time_point start = Clock::now();
  Message reply;
  failure = RequestOne(
      endpoint, line, request, reply,
      [&](const std::string &from) {
        return from == line.target && GetCommandType(reply.handle()) == kPingReply;
      },
      [&] { return ParsePingResponse(kHeaderHBN3, reply.handle(), answer.info); },
      "ParsePingResponse", answer.from, answer.fromPort);
  answer.milliseconds = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
  return failure;
}

Failure Status(const CommandLine &line, StatusAnswer &answer) {
  Endpoint endpoint;
  Failure failure = endpoint.Prepare(false);
  if (failure.failed()) {
    return failure;
  }
  Message request;
  UInt32 code = CreateStatusCacheRequest(kHeaderHBN3, line.portInfo, line.channel, TimeStamp(),
                                         request.handle());
  if (code != 0) {
    return Fail("CreateStatusCacheRequest", code, "cannot build the status request");
  }
  std::unique_ptr<StatCacheResponse> status(
      static_cast<StatCacheResponse *>(CreateStatCacheResponse()));
  Message reply;
  failure = RequestOne(
      endpoint, line, request, reply,
      [&](const std::string &from) {
        return from == line.target && GetCommandType(reply.handle()) == kStatusCacheReply;
      },
      [&] { return ParseStatusCacheResponse(kHeaderHBN3, reply.handle(), *status); },
      "ParseStatusCacheResponse", answer.from, answer.fromPort);
  if (!failure.failed()) {
    answer.status = *status;
  }
  return failure;
}

Failure SetIp(const CommandLine &line, ConfigAnswer &answer) {
  Endpoint endpoint;
  Failure failure = endpoint.Prepare(line.target == kBroadcast);
  if (failure.failed()) {
    return failure;
  }
  Message request;
  std::string mac = line.mac, address = line.address, netmask = line.netmask,
              gateway = line.gateway, password = line.password;
  // The source MAC and address are filled in by the library; these two are not read.
  std::string unusedMac, unusedAddress;
  UInt32 code = CreateIPConfig(kHeaderHCP1, mac, unusedMac, unusedAddress, address, password,
                               netmask, gateway, request.handle());
  if (code != 0) {
    return Fail("CreateIPConfig", code, "cannot build the configuration message");
  }
  std::unique_ptr<KivNetRecord> record(static_cast<KivNetRecord *>(CreateKivNetRecord()));
  Message reply;
  failure = RequestOne(
      endpoint, line, request, reply,
      [&](const std::string &) { return GetHeaderType(reply.handle()) == kHeaderHCP1; },
      [&] { return ParseHCPResponse(kHeaderHCP1, reply.handle(), kConfigurationAnswer, *record); },
      "ParseHCPResponse", answer.from, answer.fromPort);
  if (!failure.failed()) {
    answer.record = *record;
  }
  return failure;
}

HostInfo ReadHostInfo(const std::string &interfaceName, bool &missingInterface) {
  HostInfo host;
  host.hostname = GetHostname();
  host.address = GetHostIPAddressString();
  host.netmask = GetHostNetMaskString();
  host.broadcast = GetHostBroadcastAddressString();
  host.gateway = GetHostGatewayString();
  missingInterface = false;
  if (!interfaceName.empty()) {
    const std::string mac = HardwareAddressOf(interfaceName);
    missingInterface = mac.empty();
    if (!missingInterface) {
      host.hardware.emplace_back(interfaceName, mac);
    }
    return host;
  }
  // The library answers for a named interface; the names come from the system.
  if (struct if_nameindex *names = if_nameindex()) {
    for (const struct if_nameindex *entry = names; entry->if_index != 0; ++entry) {
      const std::string mac = HardwareAddressOf(entry->if_name);
      if (!mac.empty()) {
        host.hardware.emplace_back(entry->if_name, mac);
      }
    }
    if_freenameindex(names);
  }
  return host;
}

} // namespace kivnet
