// A scripted host platform for the unit tests: a chosen default interface and interface list.
#ifndef KIV_TESTS_SUPPORT_FAKEHOSTPLATFORM_H
#define KIV_TESTS_SUPPORT_FAKEHOSTPLATFORM_H

#include <arpa/inet.h>

#include <algorithm>

#include "HelperFiles/KivHostPlatform.h"
#include "HelperFiles/KivLinuxHostPlatform.h"

namespace kivtest {

class FakeHostPlatform : public kiv::KivHostPlatform {
public:
  // No default interface, no interfaces.
  FakeHostPlatform() = default;

  // A default interface at `address`/`netmask` behind `gateway` (dotted text); broadcast from the
  // two. The platform hands addresses out in network byte order.
  FakeHostPlatform(const char *address, const char *netmask, const char *gateway) {
    hasDefault = true;
    info.fAddress = inet_addr(address);
    info.fNetmask = inet_addr(netmask);
    info.fBroadcastAddr = info.fAddress | ~info.fNetmask;
    info.fDefaultGatewayAddr = inet_addr(gateway);
  }

  bool GetDefaultInterface(kiv::KivInterfaceInfo &out) const override {
    out = info;
    return hasDefault;
  }

  // The real conversion, so the tests see the library's text.
  std::string AddressToText(UInt32 address) const override {
    return kiv::LinuxHostPlatform().AddressToText(address);
  }

  bool GetLinkAddresses(std::vector<kiv::KivLinkAddress> &list) const override {
    list = links;
    return linksReadable;
  }

  // Appends an interface; bytes past the sixth are ignored.
  void AddLink(const std::string &name, std::initializer_list<UInt8> hw) {
    kiv::KivLinkAddress link;
    link.name = name;
    std::copy_n(hw.begin(), std::min(hw.size(), sizeof(link.hwAddress)), link.hwAddress);
    links.push_back(link);
  }

  bool hasDefault = false;
  kiv::KivInterfaceInfo info;
  std::vector<kiv::KivLinkAddress> links;
  bool linksReadable = true;
};

} // namespace kivtest

#endif // KIV_TESTS_SUPPORT_FAKEHOSTPLATFORM_H
