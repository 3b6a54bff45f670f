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

#include "Interfaces/KivNetworkComm.h"

namespace {

// The machine's default route (the lowest metric) as the kernel lists it, read here on its own so
// that a fault in the library's reading is not repeated by the test: its interface name, or empty.
std::string DefaultRoute(UInt32 &gatewayOut) {
  std::ifstream table("/proc/net/route");
  std::string line, found;
  unsigned long best = ~0ul;
  while (std::getline(table, line)) {
    char name[64];
    unsigned long destination, gateway, flags, refs, use, metric, mask;
    if (std::sscanf(line.c_str(), "%63s %lx %lx %lx %lu %lu %lu %lx", name, &destination, &gateway,
                    &flags, &refs, &use, &metric, &mask) == 8 &&
        destination == 0 && mask == 0 && (flags & RTF_UP) && metric < best) {
      best = metric;
      found = name;
      gatewayOut = static_cast<UInt32>(gateway);
    }
  }
  return found;
}

// Skips a machine without a default route.
class HostInformation : public testing::Test {
protected:
  void SetUp() override {
    routeInterface = DefaultRoute(routeGateway);
    if (routeInterface.empty()) {
      GTEST_SKIP() << "this machine has no default route";
    }
  }
  std::string routeInterface;
  UInt32 routeGateway = 0;
};

TEST_F(HostInformation, AddressesAreThoseOfTheDefaultRoutesInterface) {
  const UInt32 address = GetHostIPAddress();
  const UInt32 netmask = GetHostNetMask();
  bool onInterface = false;
  ifaddrs *list = nullptr;
  ASSERT_EQ(getifaddrs(&list), 0);
  for (const ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == AF_INET &&
        routeInterface == entry->ifa_name &&
        reinterpret_cast<const sockaddr_in *>(entry->ifa_addr)->sin_addr.s_addr == address) {
      onInterface = true;
      EXPECT_EQ(netmask,
                reinterpret_cast<const sockaddr_in *>(entry->ifa_netmask)->sin_addr.s_addr);
    }
  }
  freeifaddrs(list);
  EXPECT_TRUE(onInterface) << GetHostIPAddressString() << " is not on " << routeInterface;
  EXPECT_EQ(GetHostBroadcastAddress(), address | ~netmask);
  EXPECT_EQ(GetHostGateway(), routeGateway);
  EXPECT_EQ(GetHostMACAddress("kivnone9"), nullptr) << "an unknown interface";
}

TEST_F(HostInformation, BroadcastTextIsComparedCharacterForCharacter) {
  const std::string exact = GetHostBroadcastAddressString();
  std::string text = exact;
  EXPECT_TRUE(IsBroadcastAddress(text));
  text = "0" + exact; // the same address with a leading zero
  EXPECT_FALSE(IsBroadcastAddress(text));
  text = exact + " ";
  EXPECT_FALSE(IsBroadcastAddress(text));
  text = GetHostIPAddressString();
  EXPECT_FALSE(IsBroadcastAddress(text));
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
  const std::function<void()> calls[] = {
      [] { GetHostMACAddress("lo"); },
      [] { GetHostIPAddress(); },
      [] { GetHostBroadcastAddressString(); },
      [] { GetHostname(); },
      [&] { GetLongFromIP(text); },
      [&] { IsBroadcastAddress(text); },
      [&] { ConvertCharStrToHexVal("0004AC1F2B3C", bytes); },
  };
  for (const auto &call : calls) {
    int thrown = 0;
    try {
      call();
    } catch (int value) {
      thrown = value;
    }
    EXPECT_EQ(thrown, -1);
  }
}

} // namespace
