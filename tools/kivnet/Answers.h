// What kivnet's exchanges with devices bring back, as plain records for the report writers.
#ifndef KIV_TOOLS_KIVNET_ANSWERS_H
#define KIV_TOOLS_KIVNET_ANSWERS_H

#include <string>
#include <vector>

#include "Common/Constants/KivCommunicationConstants.h"
#include "Common/KivTypes.h"

namespace kivnet {

// A device that answered the discovery query, with the address the answer came from.
struct FoundDevice {
  std::string from;
  int fromPort = 0;
  KivNetRecord record;
};

// A datagram that arrived during discovery but could not be read as a device's answer.
struct UnreadAnswer {
  std::string from;
  int fromPort = 0;
  int length = 0;
  UInt32 code = 0; // what ParseHCPResponse returned
};

struct Discovery {
  std::vector<FoundDevice> devices; // in order of arrival, each device once
  std::vector<UnreadAnswer> unread;
  int datagrams = 0;  // every datagram received, repeats included
  int duplicates = 0; // answers of a device already listed
  double seconds = 0; // time spent collecting
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
};

// The device's answer to a configuration message.
struct ConfigAnswer {
  std::string from;
  int fromPort = 0;
  KivNetRecord record; // iResponse: the device's result byte (0: accepted)
};

// The host's own settings as the library reports them.
struct HostInfo {
  std::string hostname;
  std::string address;
  std::string netmask;
  std::string broadcast;
  std::string gateway;
  // Interface names with their hardware address ("02:42:ac:11:00:02").
  std::vector<std::pair<std::string, std::string>> hardware;
};

} // namespace kivnet

#endif // KIV_TOOLS_KIVNET_ANSWERS_H
