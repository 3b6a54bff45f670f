// What kivnet's exchanges with devices bring back, as plain records for the report writers.
#ifndef KIV_TOOLS_KIVNET_ANSWERS_H
#define KIV_TOOLS_KIVNET_ANSWERS_H

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "Common/Constants/KivCommunicationConstants.h"
#include "Common/KivTypes.h"

namespace kivnet {

// RecvFrom hands over at most this many bytes of a datagram and drops the rest, so an answer of
// exactly this length may have been longer.
constexpr std::size_t kReceiveLimit = 1024;

// A device that answered the discovery query, with the address the answer came from.
struct FoundDevice {
  std::string from;
  int fromPort = 0;
  KivNetRecord record;
  bool possiblyCut = false; // the answer filled the receive limit
};

// A datagram that arrived during discovery but could not be read as a device's answer.
struct UnreadAnswer {
  std::string from;
  int fromPort = 0;
  int length = 0;
  UInt32 code = 0; // what ParseHCPResponse returned
  bool possiblyCut = false;
};

struct Discovery {
  std::vector<FoundDevice> devices; // in order of arrival, each device once
  std::vector<UnreadAnswer> unread;
  int datagrams = 0;         // every datagram received, repeats included
  int duplicates = 0;        // answers of a device already listed
  bool limitReached = false; // receiving stopped at the datagram limit before the wait ended
  double seconds = 0;        // from sending the query to the end of the last parse
};

struct PingAnswer {
  std::string from;
  int fromPort = 0;
  double milliseconds = 0; // from sending to the reply
  HBNResponseInfo info;
};

struct StatusAnswer {
  std::string from;
  int fromPort = 0;
  StatCacheResponse status;
  bool possiblyCut = false; // the answer filled the receive limit
};

// The device's answer to a configuration message.
struct ConfigAnswer {
  std::string from;
  int fromPort = 0;
  KivNetRecord record; // iResponse: the device's result byte (0: accepted)
  bool possiblyCut = false;
};

// The host's own settings as the library reports them.
struct HostInfo {
  std::string hostname;
  std::string interfaceName; // the interface that holds `address`; empty when none does
  std::string address;
  std::string netmask;
  std::string broadcast;
  std::string gateway;
  // Interface names with their hardware address ("02:42:ac:11:00:02").
  std::vector<std::pair<std::string, std::string>> hardware;
};

// A channel frame as kivnet shows it: its number (1, 2, ...), its length and its first bytes.
constexpr std::size_t kFrameHeadBytes = 64;
struct ChannelFrame {
  int number = 0;
  int length = 0;
  std::string head;   // the first min(length, kFrameHeadBytes) bytes
  double seconds = 0; // since the channel was opened
};

// Why a channel watch ended without a failure.
enum class ChannelEndReason {
  kCount,        // --frames frames came
  kClosed,       // the device closed the channel
  kQuiet,        // no frame for the --wait time
  kListenerIdle, // the listener ended after more than 20 s without a frame
  kInterrupted,  // SIGINT or SIGTERM
};

struct ChannelEnd {
  ChannelEndReason reason = ChannelEndReason::kClosed;
  int frames = 0;
  long long bytes = 0;
  double seconds = 0;  // from the open (or the start, when the open did not finish)
  int signal = 0;      // kInterrupted: the signal's number
  int quietTenths = 0; // kQuiet: the wait that passed
};

// The answer to a MAC query: `mac` in the relocation form (12 lowercase hexadecimal digits), or
// empty when nothing usable answered.
struct MacAnswer {
  std::string address;
  std::string mac;
  int waitSeconds = 0;
  double seconds = 0;
};

// What a relocation starts from: the MAC in the form the library compares, the device store and
// the address it remembers for that MAC ("" for none), the address given and the browse's time.
struct RelocationPlan {
  std::string mac;
  std::string store;
  std::string remembered;
  std::string given;
  int waitSeconds = 0;
};

struct RelocationResult {
  bool found = false;
  std::string address;     // where the device is now, when found
  bool remembered = false; // the device store holds `address` for the MAC afterwards
  double seconds = 0;
};

} // namespace kivnet

#endif // KIV_TOOLS_KIVNET_ANSWERS_H
