// The host platform on Linux: default route, interface addresses and hardware addresses.
#ifndef KIV_HELPERFILES_KIVLINUXHOSTPLATFORM_H
#define KIV_HELPERFILES_KIVLINUXHOSTPLATFORM_H

#include <string>

#include "HelperFiles/KivHostPlatform.h"

namespace kiv {

// Reads the system's state afresh on every call; holds nothing, so one object serves every thread.
//  - Default interface: the IPv4 default route with the lowest metric in /proc/net/route (main
//    routing table), and that interface's IPv4 address and mask from the kernel's IPv4 address
//    list (one request on the routing socket; the entries and order getifaddrs gives, an address
//    with an alias label belonging to the alias's name). When the interface has several
//    addresses, the one whose subnet holds the gateway is taken, else the first. The broadcast
//    address is the subnet's: address OR NOT mask. Nothing is allocated.
//  - Hardware addresses: the AF_PACKET entries of getifaddrs.
class KivLinuxHostPlatform : public KivHostPlatform {
public:
  bool GetDefaultInterface(KivInterfaceInfo &info) const override;
  std::string AddressToText(UInt32 address) const override;
  bool GetLinkAddresses(std::vector<KivLinkAddress> &list) const override;
};

// The default route of lowest metric in a route table written as /proc/net/route writes it (a
// title line, then one route a line: interface, destination, gateway, flags, reference count, use,
// metric, mask, ...): its interface name and its gateway in network byte order. False when the
// file cannot be opened or lists no default route that is up. The platform reads
// /proc/net/route with it; tests hand it tables of their own.
bool ReadDefaultRoute(const char *path, std::string &interfaceName, UInt32 &gateway);

// The process's one Linux platform object.
const KivHostPlatform &LinuxHostPlatform();

} // namespace kiv

#endif // KIV_HELPERFILES_KIVLINUXHOSTPLATFORM_H
