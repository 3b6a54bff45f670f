// The host-information functions through the shared library, checked against what the machine
// itself reports (routing table, interface list) without sending anything.
#include <gtest/gtest.h>

#include <ifaddrs.h>
#include <net/route.h>
#include <netinet/in.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "Interfaces/KivNetworkComm.h"
#include "support/Thrown.h"

namespace {

// The machine's default route (the lowest metric) as the kernel lists it, read here on its own so
// that a fault in the library's reading is not repeated by the test: its interface name, or empty.
std::string DefaultRoute(UInt32 &gatewayOut) {
  std::ifstream table("/proc/net/route");
  std::string line, found;
  unsigned long best = ~0ul, destination, gateway, flags, metric, mask;
  char name[64];
  while (std::getline(table, line)) {
    if (std::sscanf(line.c_str(), "%63s %lx %lx %lx %*u %*u %lu %lx", name, &destination, &gateway,
                    &flags, &metric, &mask) == 6 &&
        destination == 0 && mask == 0 && (flags & RTF_UP) && metric < best) {
      best = metric;
      found = name;
      gatewayOut = static_cast<UInt32>(gateway);
    }
  }
  return found;
}

TEST(HostInformation, AddressesAreThoseOfTheDefaultRoutesInterface) {
  UInt32 gateway = 0;
  const std::string route = DefaultRoute(gateway);
  if (route.empty()) {
    GTEST_SKIP() << "this machine has no default route";
  }
  const UInt32 address = GetHostIPAddress(), netmask = GetHostNetMask();
  int matches = 0; // IPv4 entries of the route's interface with that address and netmask
  ifaddrs *list = nullptr;
  ASSERT_EQ(getifaddrs(&list), 0);
  for (const ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next) {
    const auto *in = reinterpret_cast<const sockaddr_in *>(entry->ifa_addr);
    matches +=
        in != nullptr && in->sin_family == AF_INET && route == entry->ifa_name &&
        in->sin_addr.s_addr == address &&
        reinterpret_cast<const sockaddr_in *>(entry->ifa_netmask)->sin_addr.s_addr == netmask;
  }
  freeifaddrs(list);
  EXPECT_EQ(matches, 1) << GetHostIPAddressString() << "/" << GetHostNetMaskString() << " on "
                        << route;
  EXPECT_EQ(GetHostBroadcastAddress(), address | ~netmask);
  EXPECT_EQ(GetHostGateway(), gateway);
  EXPECT_EQ(GetHostMACAddress("kivnone9"), nullptr) << "an unknown interface";

  // The broadcast text is compared character for character.
  const std::string exact = GetHostBroadcastAddressString();
  for (std::string text : {exact, "0" + exact, exact + " ", GetHostIPAddressString()}) {
    EXPECT_EQ(IsBroadcastAddress(text), text == exact) << text;
  }
}

// Without a default route every host-information function lets the int -1 through, even those
// that need no interface data. The namespace test runs this where there is no default route.
TEST(HostWithoutDefaultRoute, EveryFunctionThrowsMinusOne) {
  UInt32 gateway = 0;
  if (!DefaultRoute(gateway).empty()) {
    GTEST_SKIP() << "this machine has a default route";
  }
  std::string text = "10.1.2.3";
  unsigned char bytes[6];
  for (const std::function<void()> &call : std::vector<std::function<void()>>{
           [] { GetHostMACAddress("lo"); }, [] { GetHostIPAddress(); },
           [] { GetHostBroadcastAddressString(); }, [] { GetHostname(); },
           [&] { GetLongFromIP(text); }, [&] { IsBroadcastAddress(text); },
           [&] { ConvertCharStrToHexVal("0004AC1F2B3C", bytes); }}) {
    EXPECT_EQ(kivtest::IntThrownBy(call), -1);
  }
}

} // namespace
