// kivnet's exchanges. Exported functions do the work; the classes appear only where a host gives
// memory back (the library hands every object to its host and never releases one) and where it
// copies a received message's bytes out of a container.
#include "tools/kivnet/Exchange.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <functional>
#include <memory>
#include <set>

#include "CommonFiles/KivWireBytes.h"
#include "Exceptions/KivSocketExceptions.h"
#include "HBN3/KivHBN3Header.h"
#include "HBN3/KivHBN3PayLoad.h"
#include "Interfaces/KivCallFrame.h"
#include "Interfaces/KivNetworkComm.h"
#include "tools/kivnet/ResultCodes.h"

namespace kivnet {

namespace {

typedef std::chrono::steady_clock Clock;

// The reply to a status-cache request carries the request's command with the reply bit.
constexpr UInt32 kStatusCacheReply = kCmdReplyFlag | kCmdStatusCacheRequest;
// What ParseHCPResponse is told for the answer to a configuration message: any value but
// kHCPDiscoveryResponse; the reply to configuration command 1 says what it is.
constexpr UInt32 kConfigurationAnswer = kCmdReplyFlag | kHCPConfigCommand;

// The status answer: the HBN3 header, then the payload's fixed part, whose bytes 12-15 declare
// how many status bytes follow.
constexpr int kStatusFixedEnd = kHBN3HeaderLength + KivHBN3StatusCacheResponsePayload::kFixedLength;
constexpr int kOffStatusLength = kHBN3HeaderLength + 12;

// The configuration answer names the device at bytes 6-11, where the configuration message
// carried it, and holds the device's result byte at byte 26.
constexpr int kOffConfigMac = 6;
constexpr int kConfigMacLength = 6;
constexpr int kConfigAnswerMinimum = 27;

// Each receive is bounded although it only follows a readiness report: a datagram whose checksum
// fails is reported readable and then dropped by the receive, which would otherwise wait for
// the next one without end. The socket option counts whole seconds.
constexpr int kReceiveGuardSeconds = 1;

// Parsing starts when no datagram has arrived for this long. The answers to one query arrive in
// a burst, microseconds apart, with pauses of milliseconds in it (devices that answer later, a
// busy host); a parse (about 80 us, most of it reading the host's interfaces) made in such a
// pause, with the processor time it takes from receiving, lets the socket's buffer fill. With
// 1000 simulated devices on a busy host, parsing after 2 ms of quiet listed about 80 of every
// 100 answers a plain receive loop took in, after 50 ms about 95. 50 ms is no delay to a person.
constexpr std::chrono::milliseconds kQuietBeforeParsing(50);
// ... but no answer waits longer than this to be read and shown.
constexpr std::chrono::milliseconds kLongestHold(250);

// A flood cannot make discovery keep more than this many datagrams (at most 1024 bytes each).
constexpr int kMaxDatagrams = 20000;

// RecvFrom's code for a receive that failed or found nothing within the guard.
UInt32 ReceiveFailedCode() {
  return kiv::frame::kExceptionCodeBase + KivSocketException(RECVFROM_ERROR).GetErrorCode();
}

std::string Where(const std::string &address, int port) {
  return (address == kBroadcast ? std::string("255.255.255.255") : address) + ":" +
         std::to_string(port);
}

UInt32 TimeStamp() { return static_cast<UInt32>(std::time(nullptr)); }

std::string Plural(std::size_t count, const char *one, const char *many) {
  return std::to_string(count) + " " + (count == 1 ? one : many);
}

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

  // A copy of the content: at most `count` bytes, the count RecvFrom reported.
  std::string Bytes(int count) const {
    const KivNetBuffer *buffer = VerifyBufferHandle(mHandle);
    const int held = buffer->GetBufferLength();
    const int length = count < held ? count : held;
    if (length <= 0) {
      return std::string();
    }
    return std::string(reinterpret_cast<const char *>(buffer->GetBufferRef()),
                       static_cast<std::size_t>(length));
  }

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

private:
  HANDLE mHandle;
};

// One received datagram, copied out of the receive container.
struct Datagram {
  std::string from;
  int fromPort = 0;
  Clock::time_point arrived;
  std::string bytes;
  bool possiblyCut() const { return bytes.size() == kReceiveLimit; }
};

// One discovery answer taken in and not yet parsed: the container RecvFrom filled, which the
// parse reads in place, its sender, its length and when it came.
struct Taken {
  std::unique_ptr<Message> message;
  std::string from;
  int fromPort = 0;
  int length = 0;
  Clock::time_point arrived;
};

// One UDP socket on a port the system picks; closed and released when the exchange ends.
// Waiting is done on its descriptor with the time left, so a wait ends when the caller's does
// and not at the next whole second of a receive time-out.
class Endpoint {
public:
  Endpoint() : mFrom("", 0) {
    errno = 0;
    mHandle = OpenUDPSocket(0);
    mOpenError = errno;
  }
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
      return Fail(FailureKind::kCall, "no UDP socket could be made", "OpenUDPSocket", 0,
                  mOpenError);
    }
    errno = 0;
    UInt32 code = BindUDPSocket(mHandle);
    if (code != 0) {
      return Fail(FailureKind::kCall, "cannot bind a local port", "BindUDPSocket", code, errno);
    }
    code = SetSocketOptions(mHandle, kSocketKindUDP, TIME_OUT, kReceiveGuardSeconds);
    if (code != 0) {
      return Fail(FailureKind::kCall, "cannot set the receive time-out", "SetSocketOptions", code,
                  errno);
    }
    if (broadcast) {
      code = SetSocketOptions(mHandle, kSocketKindUDP, BROADCAST_PERMITTED, 0);
      if (code != 0) {
        return Fail(FailureKind::kCall, "cannot permit broadcasts", "SetSocketOptions", code,
                    errno);
      }
    }
    // GetSocketID gives the descriptor, or a result code (top byte 0x0A, no descriptor's).
    const int descriptor = GetSocketID(mHandle, kSocketKindUDP);
    if ((static_cast<UInt32>(descriptor) & 0xFF000000u) == kiv::frame::kExceptionCodeBase ||
        descriptor < 0) {
      return Fail(FailureKind::kCall, "cannot reach the socket's descriptor", "GetSocketID",
                  static_cast<UInt32>(descriptor));
    }
    mDescriptor = descriptor;
    return Failure();
  }

  Failure Send(const std::string &address, int port, const Message &message) {
    Address to(address, port);
    int sent = 0;
    errno = 0;
    const UInt32 code = SendTo(mHandle, to.handle(), message.handle(), 0, sent);
    if (code != 0) {
      return Fail(FailureKind::kCall, "cannot send to " + Where(address, port), "SendTo", code,
                  errno);
    }
    return Failure();
  }

  // Waits until a datagram is waiting or `deadline` passes (a deadline already past only looks).
  // True when one is waiting.
  bool Waiting(Clock::time_point deadline, Failure &failure) {
    for (;;) {
      const auto left =
          std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now()).count();
      // Rounded up, so the wait never ends just before the deadline and spins.
      const int milliseconds = left <= 0 ? 0 : static_cast<int>((left + 999) / 1000);
      pollfd watched = {mDescriptor, POLLIN, 0};
      const int ready = ::poll(&watched, 1, milliseconds);
      if (ready > 0) {
        return true;
      }
      if (ready == 0) {
        if (Clock::now() >= deadline) {
          return false;
        }
        continue;
      }
      if (errno != EINTR) {
        failure = Fail(FailureKind::kCall, "cannot wait for answers", "poll", 0, errno);
        return false;
      }
    }
  }

  // Takes the waiting datagram. False without a failure when none was there after all.
  bool Receive(Datagram &datagram, Failure &failure) {
    const int received = ReceiveInto(mArea, datagram.from, datagram.fromPort, failure);
    if (received < 0) {
      return false;
    }
    datagram.bytes = mArea.Bytes(received);
    datagram.arrived = Clock::now();
    return true;
  }

  // Takes the waiting datagram into `into` and its sender into `from` and `fromPort`. The count
  // received, or -1: with `failure` set when the receive failed, without when nothing was there.
  int ReceiveInto(const Message &into, std::string &from, int &fromPort, Failure &failure) {
    int received = 0;
    errno = 0;
    const UInt32 code = RecvFrom(mHandle, mFrom.handle(), into.handle(), 0, received);
    if (code != 0) {
      const int error = errno;
      if (code != ReceiveFailedCode() || (error != EAGAIN && error != EWOULDBLOCK)) {
        failure = Fail(FailureKind::kCall, "receiving failed", "RecvFrom", code, error);
      }
      return -1;
    }
    from.clear();
    GetAddressPort(mFrom.handle(), &from, &fromPort);
    return received;
  }

  // Whether another datagram is waiting, asked of the descriptor without taking it (FIONREAD
  // gives the size of the next one): one call, where a wait would be one more than needed. An
  // empty datagram reads as none; the next wait finds it.
  bool AnotherWaiting() const {
    int next = 0;
    return ::ioctl(mDescriptor, FIONREAD, &next) == 0 && next > 0;
  }

  // The container the last datagram was received into, for the header queries.
  const Message &Area() const { return mArea; }

private:
  HANDLE mHandle = nullptr;
  int mOpenError = 0;
  int mDescriptor = -1;
  Message mArea;
  Address mFrom;
};

Clock::time_point DeadlineAfter(int tenths) {
  return Clock::now() + std::chrono::milliseconds(100 * tenths);
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

// The interface that holds the IPv4 address `address`; empty when none does.
std::string InterfaceHolding(const std::string &address) {
  in_addr wanted = {};
  if (inet_pton(AF_INET, address.c_str(), &wanted) != 1) {
    return "";
  }
  ifaddrs *list = nullptr;
  if (getifaddrs(&list) != 0) {
    return "";
  }
  std::string name;
  for (const ifaddrs *entry = list; entry != nullptr && name.empty(); entry = entry->ifa_next) {
    if (entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == AF_INET &&
        reinterpret_cast<const sockaddr_in *>(entry->ifa_addr)->sin_addr.s_addr == wanted.s_addr) {
      name = entry->ifa_name;
    }
  }
  freeifaddrs(list);
  return name;
}

// What a request makes of one datagram.
enum class Verdict {
  kOther,      // not from the asked device, or for another one: passed over
  kUnreadable, // from the asked device but not readable as the answer: passed over, remembered
  kAnswer,     // the answer; `outcome` says whether it could be used
};

struct Judgement {
  Verdict verdict = Verdict::kOther;
  Failure outcome; // kAnswer: the failure the answer gives, if any; kUnreadable: why
};

Judgement Judged(Verdict verdict, Failure outcome = Failure()) {
  Judgement judgement;
  judgement.verdict = verdict;
  judgement.outcome = outcome;
  return judgement;
}

// The part of a judgement every HBN3 request shares: only a datagram from `device` of at least a
// full header, tagged HBN3 and carrying `reply`, is its answer.
Judgement JudgeHBN3(const Datagram &datagram, const Message &area, const std::string &device,
                    UInt32 reply, const char *what) {
  if (datagram.from != device) {
    return Judged(Verdict::kOther);
  }
  const std::string prefix = device + " sent " + Plural(datagram.bytes.size(), "byte", "bytes");
  if (datagram.bytes.size() < static_cast<std::size_t>(kHBN3HeaderLength)) {
    return Judged(Verdict::kUnreadable,
                  Fail(FailureKind::kUnreadable, prefix + ", fewer than an HBN3 header's " +
                                                     std::to_string(kHBN3HeaderLength)));
  }
  if (GetHeaderType(area.handle()) != kHeaderTypeHBN3) {
    return Judged(Verdict::kUnreadable,
                  Fail(FailureKind::kUnreadable, prefix + " that are no HBN3 message"));
  }
  const UInt32 command = GetCommandType(area.handle());
  if (command != reply) {
    return Judged(Verdict::kUnreadable, Fail(FailureKind::kUnreadable,
                                             prefix + " with the command " + CodeHex(command) +
                                                 ", not " + what + " (" + CodeHex(reply) + ")"));
  }
  return Judged(Verdict::kAnswer);
}

// Sends `request` to line.target and waits, until line.waitTenths have passed, for the datagram
// `judge` takes as the answer (left in `answer`). Datagrams it passes over do not end the wait;
// when the wait ends without an answer, one the asked device sent that could not be read is
// reported rather than silence. `what` names the awaited answer in the messages.
Failure RequestAndAnswer(const CommandLine &line, const Message &request, const char *what,
                         const std::function<Judgement(const Datagram &, const Message &)> &judge,
                         Datagram &answer, Clock::time_point *sent = nullptr) {
  Endpoint endpoint;
  Failure failure = endpoint.Prepare(line.target == kBroadcast);
  if (failure.failed()) {
    return failure;
  }
  if (sent != nullptr) {
    *sent = Clock::now();
  }
  failure = endpoint.Send(line.target, line.port, request);
  if (failure.failed()) {
    return failure;
  }
  const Clock::time_point deadline = DeadlineAfter(line.waitTenths);
  Failure unreadable;
  int passedOver = 0;
  Datagram datagram;
  while (endpoint.Waiting(deadline, failure)) {
    if (!endpoint.Receive(datagram, failure)) {
      if (failure.failed()) {
        return failure;
      }
      continue;
    }
    const Judgement judgement = judge(datagram, endpoint.Area());
    switch (judgement.verdict) {
    case Verdict::kAnswer:
      answer = datagram;
      return judgement.outcome;
    case Verdict::kUnreadable:
      unreadable = judgement.outcome;
      break;
    case Verdict::kOther:
      ++passedOver;
      break;
    }
  }
  if (failure.failed()) {
    return failure;
  }
  if (unreadable.failed()) {
    unreadable.detail = "no " + std::string(what) + " could be read: " + unreadable.detail;
    return unreadable;
  }
  std::string detail = "no " + std::string(what) + " from " + Where(line.target, line.port) +
                       " within " + WaitText(line.waitTenths) + " s";
  if (passedOver > 0) {
    detail += " (" +
              Plural(static_cast<std::size_t>(passedOver), "other datagram", "other datagrams") +
              " passed over)";
  }
  return Fail(FailureKind::kNoAnswer, detail);
}

// The six bytes of a MAC text of 12 hexadecimal digits, as a configuration message carries them.
std::string MacBytes(const std::string &mac) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < mac.size(); i += 2) {
    bytes += static_cast<char>(std::strtoul(mac.substr(i, 2).c_str(), nullptr, 16));
  }
  return bytes;
}

} // namespace

std::string KindName(FailureKind kind) {
  switch (kind) {
  case FailureKind::kNone:
    return "none";
  case FailureKind::kCall:
    return "call-failed";
  case FailureKind::kNoAnswer:
    return "no-answer";
  case FailureKind::kUnreadable:
    return "unreadable-answer";
  case FailureKind::kCutShort:
    return "cut-short";
  case FailureKind::kRefused:
    return "refused";
  case FailureKind::kHost:
    return "host";
  case FailureKind::kOpenRefused:
    return "open-refused";
  case FailureKind::kBadFrame:
    return "bad-frame";
  case FailureKind::kEndedEarly:
    return "ended-early";
  }
  return "none";
}

Failure Fail(FailureKind kind, const std::string &detail, const char *function, UInt32 code,
             int systemError) {
  Failure failure;
  failure.kind = kind;
  failure.detail = detail;
  failure.function = function;
  failure.code = code;
  failure.systemError = systemError;
  return failure;
}

std::string Failure::SystemReason() const {
  return systemError != 0 ? std::strerror(systemError) : "";
}

std::string Failure::Describe() const {
  std::string text = detail;
  if (systemError != 0) {
    text += (text.empty() ? "" : ": ") + SystemReason();
  }
  if (!function.empty()) {
    text += (text.empty() ? "" : systemError != 0 ? "; " : ": ") + function;
    text += code == 0 ? std::string(" failed")
                      : " returned " + CodeHex(code) + ": " + DescribeCode(code);
  }
  return text;
}

Failure Discover(const CommandLine &line, Discovery &result, DiscoveryListener *listener) {
  result = Discovery();
  Endpoint endpoint;
  Failure failure = endpoint.Prepare(line.target == kBroadcast);
  if (failure.failed()) {
    return failure;
  }
  Message query;
  const UInt32 built = CreateDiscovery(kHeaderTypeHCP1, query.handle());
  if (built != 0) {
    return Fail(FailureKind::kCall, "cannot build the discovery query", "CreateDiscovery", built);
  }
  const Clock::time_point start = Clock::now();
  failure = endpoint.Send(line.target, line.port, query);
  if (failure.failed()) {
    return failure;
  }
  const Clock::time_point deadline = DeadlineAfter(line.waitTenths);
  std::unique_ptr<KivNetRecord> record(static_cast<KivNetRecord *>(CreateKivNetRecord()));
  std::set<std::string> seen;
  std::deque<Taken> pending;
  // Containers already parsed, for the next receives.
  std::vector<std::unique_ptr<Message>> spare;
  bool receiving = true;
  Clock::time_point lastArrival = start;
  const auto overdue = [&](Clock::time_point now) {
    return !pending.empty() && now - pending.front().arrived >= kLongestHold;
  };
  for (;;) {
    // Answers that arrive after the wait are not taken; those already taken are all read.
    receiving = receiving && Clock::now() < deadline;
    // Receiving comes first: while datagrams arrive they are only taken in, so a burst of
    // answers is taken in before the socket's buffer fills; parsing happens when the socket has
    // been quiet for a moment, one answer at a time, looking at the socket again after each. A
    // steady trickle still has its oldest answer read once it has been held long enough.
    const Clock::time_point quiet = std::min(deadline, lastArrival + kQuietBeforeParsing);
    if (receiving && !overdue(Clock::now()) &&
        endpoint.Waiting(pending.empty() ? deadline : quiet, failure)) {
      // One run of receives, as long as the descriptor says another datagram waits: each goes
      // into a container of its own that the parse reads later, so a receive is the exported
      // call, the sender's address and one query of the descriptor, with no copy, parse or
      // output in between.
      do {
        if (spare.empty()) {
          spare.push_back(std::make_unique<Message>());
        }
        Taken taken;
        taken.message = std::move(spare.back());
        spare.pop_back();
        taken.length = endpoint.ReceiveInto(*taken.message, taken.from, taken.fromPort, failure);
        if (taken.length < 0) {
          spare.push_back(std::move(taken.message));
          break;
        }
        taken.arrived = Clock::now();
        lastArrival = taken.arrived;
        pending.push_back(std::move(taken));
        if (++result.datagrams >= kMaxDatagrams) {
          result.limitReached = true;
          receiving = false;
        }
        receiving = receiving && lastArrival < deadline;
      } while (receiving && !overdue(lastArrival) && endpoint.AnotherWaiting());
      if (failure.failed()) {
        return failure;
      }
      continue;
    }
    if (failure.failed()) {
      return failure;
    }
    if (pending.empty()) {
      if (receiving) {
        continue;
      }
      break;
    }
    Taken taken = std::move(pending.front());
    pending.pop_front();
    const bool possiblyCut = static_cast<std::size_t>(taken.length) == kReceiveLimit;
    const UInt32 code =
        ParseHCPResponse(kHeaderTypeHCP1, taken.message->handle(), kHCPDiscoveryResponse, *record);
    spare.push_back(std::move(taken.message));
    if (code != 0) {
      UnreadAnswer unread{taken.from, taken.fromPort, taken.length, code, possiblyCut};
      result.unread.push_back(unread);
      if (listener != nullptr) {
        listener->Unread(unread);
      }
    } else if (!seen.insert(record->strMacUaa + "/" + record->strIPAddr).second) {
      // A device that answers twice (a retransmission, or two paths to it) is listed once.
      ++result.duplicates;
    } else {
      result.devices.push_back(FoundDevice{taken.from, taken.fromPort, *record, possiblyCut});
      if (listener != nullptr) {
        listener->Found(result.devices.back());
      }
    }
  }
  result.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  return Failure();
}

Failure Ping(const CommandLine &line, PingAnswer &answer) {
  Message request;
  const UInt32 built = CreatePing(kHeaderTypeHBN3, TimeStamp(), request.handle());
  if (built != 0) {
    return Fail(FailureKind::kCall, "cannot build the ping", "CreatePing", built);
  }
  Clock::time_point sent;
  Datagram reply;
  Failure failure = RequestAndAnswer(
      line, request, "ping reply",
      [&](const Datagram &datagram, const Message &area) {
        Judgement judgement = JudgeHBN3(datagram, area, line.target, kCmdPingReply, "a ping reply");
        if (judgement.verdict == Verdict::kAnswer) {
          answer.milliseconds =
              std::chrono::duration<double, std::milli>(Clock::now() - sent).count();
          const UInt32 code = ParsePingResponse(kHeaderTypeHBN3, area.handle(), answer.info);
          if (code != 0) {
            judgement.outcome = Fail(FailureKind::kUnreadable,
                                     "the ping reply from " + datagram.from + " could not be read",
                                     "ParsePingResponse", code);
          }
        }
        return judgement;
      },
      reply, &sent);
  answer.from = reply.from;
  answer.fromPort = reply.fromPort;
  return failure;
}

Failure Status(const CommandLine &line, StatusAnswer &answer) {
  Message request;
  const UInt32 built = CreateStatusCacheRequest(kHeaderTypeHBN3, line.portInfo, line.channel,
                                                TimeStamp(), request.handle());
  if (built != 0) {
    return Fail(FailureKind::kCall, "cannot build the status request", "CreateStatusCacheRequest",
                built);
  }
  std::unique_ptr<StatCacheResponse> status(
      static_cast<StatCacheResponse *>(CreateStatCacheResponse()));
  Datagram reply;
  Failure failure = RequestAndAnswer(
      line, request, "status answer",
      [&](const Datagram &datagram, const Message &area) {
        Judgement judgement =
            JudgeHBN3(datagram, area, line.target, kStatusCacheReply, "a status answer");
        if (judgement.verdict != Verdict::kAnswer) {
          return judgement;
        }
        const std::string from = "the status answer from " + datagram.from;
        const UInt32 code = ParseStatusCacheResponse(kHeaderTypeHBN3, area.handle(), *status);
        if (code != 0) {
          judgement.outcome = Fail(FailureKind::kUnreadable,
                                   from + " could not be read (" +
                                       Plural(datagram.bytes.size(), "byte", "bytes") + ")",
                                   "ParseStatusCacheResponse", code);
          return judgement;
        }
        // The parse leaves out status bytes that did not all arrive; the declared count tells.
        const auto *bytes = reinterpret_cast<const unsigned char *>(datagram.bytes.data());
        const int declared = static_cast<int>(kiv::ReadBE32(bytes + kOffStatusLength));
        const long long arrived = static_cast<long long>(datagram.bytes.size()) - kStatusFixedEnd;
        if (declared < 0 || declared > arrived) {
          judgement.outcome =
              Fail(FailureKind::kCutShort,
                   from + " was cut short: it declares " + std::to_string(declared) +
                       " status bytes and " + std::to_string(arrived) + " arrived" +
                       (datagram.possiblyCut() ? " (the receive limit is 1024 bytes)" : ""));
        }
        return judgement;
      },
      reply);
  answer.from = reply.from;
  answer.fromPort = reply.fromPort;
  answer.possiblyCut = reply.possiblyCut();
  if (!failure.failed()) {
    answer.status = *status;
  }
  return failure;
}

Failure SetIp(const CommandLine &line, ConfigAnswer &answer) {
  Message request;
  std::string mac = line.mac, address = line.address, netmask = line.netmask,
              gateway = line.gateway, password = line.password;
  // The source MAC and address are filled in by the library; these two are not read.
  std::string unusedMac, unusedAddress;
  const UInt32 built = CreateIPConfig(kHeaderTypeHCP1, mac, unusedMac, unusedAddress, address,
                                      password, netmask, gateway, request.handle());
  if (built != 0) {
    return Fail(FailureKind::kCall, "cannot build the configuration message", "CreateIPConfig",
                built);
  }
  const std::string macBytes = MacBytes(line.mac);
  std::unique_ptr<KivNetRecord> record(static_cast<KivNetRecord *>(CreateKivNetRecord()));
  Datagram reply;
  Failure failure = RequestAndAnswer(
      line, request, "configuration answer",
      [&](const Datagram &datagram, const Message &area) {
        // Sent to one address, the answer comes from the device there, or from its new address
        // when it has already moved.
        if (line.target != kBroadcast && datagram.from != line.target &&
            datagram.from != line.address) {
          return Judged(Verdict::kOther);
        }
        const std::string prefix =
            datagram.from + " sent " + Plural(datagram.bytes.size(), "byte", "bytes");
        if (GetHeaderType(area.handle()) != kHeaderTypeHCP1 ||
            datagram.bytes.size() < static_cast<std::size_t>(kConfigAnswerMinimum)) {
          return Judged(Verdict::kUnreadable, Fail(FailureKind::kUnreadable,
                                                   prefix + " that are no configuration answer"));
        }
        if (datagram.bytes.compare(kOffConfigMac, kConfigMacLength, macBytes) != 0) {
          return Judged(Verdict::kOther); // the answer of another device
        }
        const UInt32 code =
            ParseHCPResponse(kHeaderTypeHCP1, area.handle(), kConfigurationAnswer, *record);
        if (code != 0) {
          return Judged(Verdict::kUnreadable, Fail(FailureKind::kUnreadable,
                                                   "the configuration answer from " +
                                                       datagram.from + " could not be read",
                                                   "ParseHCPResponse", code));
        }
        Judgement judgement = Judged(Verdict::kAnswer);
        if (record->iResponse != 0) {
          judgement.outcome = Fail(
              FailureKind::kRefused,
              "device " + line.mac + " refused the configuration (result byte " +
                  std::to_string(record->iResponse) + ", answered from " + datagram.from + ")");
        }
        return judgement;
      },
      reply);
  answer.from = reply.from;
  answer.fromPort = reply.fromPort;
  answer.possiblyCut = reply.possiblyCut();
  if (failure.kind == FailureKind::kNone || failure.kind == FailureKind::kRefused) {
    answer.record = *record;
  }
  return failure;
}

Failure ReadHostInfo(const std::string &interfaceName, HostInfo &host) {
  host = HostInfo();
  try {
    host.hostname = GetHostname();
    host.address = GetHostIPAddressString();
    host.netmask = GetHostNetMaskString();
    host.broadcast = GetHostBroadcastAddressString();
    host.gateway = GetHostGatewayString();
  } catch (int) {
    // The library's signal that the host has no default IPv4 interface.
    return Fail(FailureKind::kHost, "this host has no default IPv4 interface (no default route)");
  }
  host.interfaceName = InterfaceHolding(host.address);
  if (!interfaceName.empty()) {
    const std::string mac = HardwareAddressOf(interfaceName);
    if (mac.empty()) {
      return Fail(FailureKind::kHost,
                  "no interface named '" + interfaceName + "' with a hardware address");
    }
    host.hardware.emplace_back(interfaceName, mac);
    return Failure();
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
  return Failure();
}

} // namespace kivnet
