// The host platform on Linux. The only source that talks to the system's interface tables.
#include "HelperFiles/KivLinuxHostPlatform.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <net/route.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <limits>
#include <memory>
#include <sstream>
#include <string>

namespace kiv {

namespace {

struct IfaddrsDeleter {
  void operator()(ifaddrs *list) const { freeifaddrs(list); }
};
typedef std::unique_ptr<ifaddrs, IfaddrsDeleter> IfaddrsList;

IfaddrsList ReadInterfaceList() {
  ifaddrs *list = nullptr;
  if (getifaddrs(&list) != 0) {
    return IfaddrsList();
  }
  return IfaddrsList(list);
}

UInt32 InetAddressOf(const sockaddr *address) {
  sockaddr_in inet;
  std::memcpy(&inet, address, sizeof(inet));
  return inet.sin_addr.s_addr;
}

// The default route with the lowest metric: its interface name and gateway (network order).
// /proc/net/route prints each address as the hexadecimal value of the kernel's 32-bit word, so
// reading it back as a number restores the word with its bytes in network order.
bool FindDefaultRoute(std::string &interfaceName, UInt32 &gateway) {
  std::ifstream routes("/proc/net/route");
  if (!routes) {
    return false;
  }
  std::string line;
  std::getline(routes, line); // column titles
  bool found = false;
  unsigned long bestMetric = std::numeric_limits<unsigned long>::max();
  while (std::getline(routes, line)) {
    std::istringstream fields(line);
    std::string name;
    unsigned long destination = 0, via = 0, flags = 0, refCount = 0, use = 0, metric = 0, mask = 0;
    fields >> name >> std::hex >> destination >> via >> flags >> std::dec >> refCount >> use >>
        metric >> std::hex >> mask;
    if (fields.fail() || destination != 0 || mask != 0 || (flags & RTF_UP) == 0) {
      continue;
    }
    if (!found || metric < bestMetric) {
      found = true;
      bestMetric = metric;
      interfaceName = name;
      gateway = static_cast<UInt32>(via);
    }
  }
  return found;
}

} // namespace

bool KivLinuxHostPlatform::GetDefaultInterface(KivInterfaceInfo &info) const {
  std::string interfaceName;
  UInt32 gateway = 0;
  if (!FindDefaultRoute(interfaceName, gateway)) {
    return false;
  }
  IfaddrsList list = ReadInterfaceList();
  bool found = false;
  for (const ifaddrs *entry = list.get(); entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || entry->ifa_netmask == nullptr ||
        entry->ifa_addr->sa_family != AF_INET || interfaceName != entry->ifa_name) {
      continue;
    }
    const UInt32 address = InetAddressOf(entry->ifa_addr);
    const UInt32 netmask = InetAddressOf(entry->ifa_netmask);
    const bool holdsGateway = gateway != 0 && (address & netmask) == (gateway & netmask);
    if (!found || holdsGateway) {
      found = true;
      info.fAddress = address;
      info.fNetmask = netmask;
      // Byte-wise operations, so the network byte order of both operands carries over.
      info.fBroadcastAddr = address | ~netmask;
      info.fDefaultGatewayAddr = gateway;
      if (holdsGateway) {
        break;
      }
    }
  }
  return found;
}

std::string KivLinuxHostPlatform::AddressToText(UInt32 address) const {
  in_addr inet;
  inet.s_addr = address;
  char text[INET_ADDRSTRLEN] = {0};
  if (inet_ntop(AF_INET, &inet, text, sizeof(text)) == nullptr) {
    return std::string();
  }
  return std::string(text);
}

bool KivLinuxHostPlatform::GetLinkAddresses(std::vector<KivLinkAddress> &list) const {
  IfaddrsList interfaces = ReadInterfaceList();
  if (!interfaces) {
    return false;
  }
  list.clear();
  for (const ifaddrs *entry = interfaces.get(); entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_PACKET ||
        entry->ifa_name == nullptr) {
      continue;
    }
    sockaddr_ll link;
    std::memcpy(&link, entry->ifa_addr, sizeof(link));
    KivLinkAddress item;
    item.name = entry->ifa_name;
    // Interfaces without a 6-byte address (tunnels report none) give zeros past what they have.
    const size_t length = std::min<size_t>(link.sll_halen, sizeof(item.hwAddress));
    std::memcpy(item.hwAddress, link.sll_addr, length);
    list.push_back(item);
  }
  return true;
}

const KivHostPlatform &LinuxHostPlatform() {
  static const KivLinuxHostPlatform platform;
  return platform;
}

} // namespace kiv
