// A scripted host platform for the unit tests: a chosen default interface and interface list.
#ifndef KIV_TESTS_SUPPORT_FAKEHOSTPLATFORM_H
#define KIV_TESTS_SUPPORT_FAKEHOSTPLATFORM_H

#include <arpa/inet.h>

#include <string>
#include <vector>

#include "HelperFiles/KivHostPlatform.h"
#include "HelperFiles/KivLinuxHostPlatform.h"

namespace kivtest {

// An IPv4 address from dotted text, network byte order (as the platform hands them out).
inline UInt32 Inet(const char *text) { return inet_addr(text); }

class FakeHostPlatform : public kiv::KivHostPlatform {
public:
  // No default interface, no interfaces.
  FakeHostPlatform() = default;

  // A default interface at `address`/`netmask` behind `gateway`; broadcast from the two.
  FakeHostPlatform(const char *address, const char *netmask, const char *gateway) {
    hasDefault = true;
    info.fAddress = Inet(address);
    info.fNetmask = Inet(netmask);
    info.fBroadcastAddr = info.fAddress | ~info.fNetmask;
    info.fDefaultGatewayAddr = Inet(gateway);
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
    size_t i = 0;
    for (UInt8 byte : hw) {
      if (i < sizeof(link.hwAddress)) {
        link.hwAddress[i++] = byte;
      }
    }
    links.push_back(link);
  }

  bool hasDefault = false;
  kiv::KivInterfaceInfo info;
  std::vector<kiv::KivLinkAddress> links;
  bool linksReadable = true;
};

} // namespace kivtest

#endif // KIV_TESTS_SUPPORT_FAKEHOSTPLATFORM_H
