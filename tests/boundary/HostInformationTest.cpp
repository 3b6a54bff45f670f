// The host-information functions through the shared library, checked against what the machine
// itself reports (routing table, interface list, host name) without sending anything; the text
// conversions; and the int -1 that reaches the caller on a host without a default route.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/ethernet.h>
#include <net/route.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "Interfaces/KivNetworkComm.h"
#include "support/TestSupport.h"

namespace {

using kivtest::Bytes;
using kivtest::Hex;
using kivtest::ToHex;

// The machine's default route as the kernel lists it: interface and gateway (network order).
struct DefaultRoute {
  bool present = false;
  std::string interfaceName;
  UInt32 gateway = 0;
};

// Read here on its own, so that a fault in the library's reading is not repeated by the test.
DefaultRoute ReadDefaultRoute() {
  DefaultRoute route;
  std::ifstream table("/proc/net/route");
  std::string line;
  std::getline(table, line);
  unsigned long bestMetric = std::numeric_limits<unsigned long>::max();
  while (std::getline(table, line)) {
    std::istringstream fields(line);
    std::string name;
    unsigned long destination, gateway, flags, refs, use, metric, mask;
    fields >> name >> std::hex >> destination >> gateway >> flags >> std::dec >> refs >> use >>
        metric >> std::hex >> mask;
    if (!fields.fail() && destination == 0 && mask == 0 && (flags & RTF_UP) != 0 &&
        (!route.present || metric < bestMetric)) {
      route.present = true;
      route.interfaceName = name;
      route.gateway = static_cast<UInt32>(gateway);
      bestMetric = metric;
    }
  }
  return route;
}

struct InterfaceAddress {
  UInt32 address;
  UInt32 netmask;
};

std::vector<InterfaceAddress> IPv4AddressesOf(const std::string &name) {
  std::vector<InterfaceAddress> found;
  ifaddrs *list = nullptr;
  if (getifaddrs(&list) != 0) {
    return found;
  }
  for (const ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr != nullptr && entry->ifa_netmask != nullptr &&
        entry->ifa_addr->sa_family == AF_INET && name == entry->ifa_name) {
      sockaddr_in address, netmask;
      std::memcpy(&address, entry->ifa_addr, sizeof address);
      std::memcpy(&netmask, entry->ifa_netmask, sizeof netmask);
      found.push_back({address.sin_addr.s_addr, netmask.sin_addr.s_addr});
    }
  }
  freeifaddrs(list);
  return found;
}

std::string Dotted(UInt32 address) {
  in_addr inet;
  inet.s_addr = address;
  char text[INET_ADDRSTRLEN] = {0};
  inet_ntop(AF_INET, &inet, text, sizeof text);
  return text;
}

// The interface's hardware address as the kernel writes it ("02:42:ac:11:00:02"), as bytes; empty
// when it has none of 6 bytes.
Bytes SysfsHardwareAddress(const std::string &name) {
  std::ifstream file("/sys/class/net/" + name + "/address");
  std::string text;
  std::getline(file, text);
  unsigned int b[6];
  if (std::sscanf(text.c_str(), "%x:%x:%x:%x:%x:%x", &b[0], &b[1], &b[2], &b[3], &b[4], &b[5]) !=
      6) {
    return Bytes();
  }
  return Bytes(b, b + 6);
}

// GetHostMACAddress's block as bytes, released as its header asks; empty for null.
Bytes TakeMac(ether_addr *mac) {
  if (mac == nullptr) {
    return Bytes();
  }
  const unsigned char *bytes = reinterpret_cast<const unsigned char *>(mac);
  Bytes copy(bytes, bytes + 6);
  std::free(mac);
  return copy;
}

class HostInformation : public testing::Test {
protected:
  void SetUp() override {
    route = ReadDefaultRoute();
    if (!route.present) {
      GTEST_SKIP()
          << "this machine has no default route (HostWithoutDefaultRoute checks that case)";
    }
  }
  DefaultRoute route;
};

// ---- The default interface ----------------------------------------------------------------------

TEST_F(HostInformation, AddressesAreThoseOfTheDefaultRoutesInterface) {
  const std::vector<InterfaceAddress> addresses = IPv4AddressesOf(route.interfaceName);
  ASSERT_FALSE(addresses.empty()) << route.interfaceName << " has no IPv4 address";

  const UInt32 address = GetHostIPAddress();
  const UInt32 netmask = GetHostNetMask();
  bool onInterface = false;
  for (const InterfaceAddress &candidate : addresses) {
    if (candidate.address == address) {
      onInterface = true;
      EXPECT_EQ(netmask, candidate.netmask) << "the mask belongs to the same address";
    }
  }
  EXPECT_TRUE(onInterface) << Dotted(address) << " is not on " << route.interfaceName;
  EXPECT_EQ(GetHostBroadcastAddress(), address | ~netmask);
  EXPECT_EQ(GetHostGateway(), route.gateway);
}

TEST_F(HostInformation, TextsAreTheDottedFormOfTheNumbers) {
  const struct {
    const char *name;
    std::function<UInt32()> number;
    std::function<std::string()> text;
  } pairs[] = {
      {"address", GetHostIPAddress, GetHostIPAddressString},
      {"broadcast", GetHostBroadcastAddress, GetHostBroadcastAddressString},
      {"gateway", GetHostGateway, GetHostGatewayString},
      {"net mask", GetHostNetMask, GetHostNetMaskString},
  };
  for (const auto &pair : pairs) {
    SCOPED_TRACE(pair.name);
    const std::string text = pair.text();
    EXPECT_EQ(text, Dotted(pair.number()));
    EXPECT_LE(text.size(), 15u);
  }
}

TEST_F(HostInformation, BroadcastTextIsComparedCharacterForCharacter) {
  const std::string exact = GetHostBroadcastAddressString();
  in_addr parsed;
  ASSERT_EQ(inet_pton(AF_INET, exact.c_str(), &parsed), 1);
  const unsigned char *octet = reinterpret_cast<const unsigned char *>(&parsed.s_addr);
  char padded[32];
  std::snprintf(padded, sizeof padded, "%03u.%03u.%03u.%03u", octet[0], octet[1], octet[2],
                octet[3]);
  const struct {
    std::string text;
    bool expected;
  } cases[] = {
      {exact, true},
      {"0" + exact, false}, // the same address with a leading zero
      {padded, std::string(padded) == exact},
      {exact + " ", false},
      {" " + exact, false},
      {"", false},
      {"BROADCAST", false},
      {"255.255.255.255", exact == "255.255.255.255"},
      {GetHostIPAddressString(), false},
  };
  for (const auto &c : cases) {
    std::string text = c.text;
    EXPECT_EQ(IsBroadcastAddress(text), c.expected) << "'" << c.text << "'";
    EXPECT_EQ(text, c.text) << "the caller's text is only read";
  }
}

TEST_F(HostInformation, HostnameIsTheSystemsName) {
  char name[256] = {0};
  ASSERT_EQ(gethostname(name, sizeof name - 1), 0);
  EXPECT_EQ(GetHostname(), std::string(name));
}

// ---- Hardware addresses
// --------------------------------------------------------------------------

TEST_F(HostInformation, MacOfTheDefaultInterfaceMatchesTheKernelsAndIsTheCallersToFree) {
  const Bytes expected = SysfsHardwareAddress(route.interfaceName);
  if (expected.empty()) {
    GTEST_SKIP() << route.interfaceName << " has no 6-byte hardware address";
  }
  EXPECT_EQ(ToHex(TakeMac(GetHostMACAddress(route.interfaceName.c_str()))), ToHex(expected));
  // A longer name that begins with the interface's (a VLAN name, say) finds the same interface.
  const std::string longer = route.interfaceName + ".100";
  EXPECT_EQ(ToHex(TakeMac(GetHostMACAddress(longer.c_str()))), ToHex(expected));
}

TEST(HostMacAddress, UnknownOrNullInterfaceGivesNull) {
  // Needs no default route: the interface list alone answers, but the snapshot is taken first.
  if (!ReadDefaultRoute().present) {
    GTEST_SKIP() << "this machine has no default route";
  }
  EXPECT_EQ(GetHostMACAddress("kivnone9"), nullptr);
  EXPECT_EQ(GetHostMACAddress(""), nullptr) << "no interface has an empty name";
  EXPECT_EQ(GetHostMACAddress(nullptr), nullptr);
}

// ---- Conversions
// ---------------------------------------------------------------------------------

TEST(HostConversions, AddressTextToNetworkOrder) {
  if (!ReadDefaultRoute().present) {
    GTEST_SKIP() << "this machine has no default route";
  }
  const struct {
    const char *text;
    const char *memory; // the low 32 bits as they lie in memory
  } cases[] = {
      {"10.1.2.3", "0A 01 02 03"},       {"192.168.100.255", "C0 A8 64 FF"},
      {"0.0.0.0", "00 00 00 00"},        {"255.255.255.255", "FF FF FF FF"},
      {"not an address", "FF FF FF FF"}, {"", "FF FF FF FF"},
      {"10.1.2.256", "FF FF FF FF"},
  };
  for (const auto &c : cases) {
    std::string text = c.text;
    const unsigned long value = GetLongFromIP(text);
    EXPECT_LE(value, 0xFFFFFFFFul) << c.text;
    const UInt32 low = static_cast<UInt32>(value);
    EXPECT_EQ(ToHex(reinterpret_cast<const unsigned char *>(&low), 4), c.memory) << c.text;
    EXPECT_EQ(text, c.text);
  }
}

TEST(HostConversions, MacTextToBytes) {
  if (!ReadDefaultRoute().present) {
    GTEST_SKIP() << "this machine has no default route";
  }
  const struct {
    const char *text;
    const char *bytes;
  } cases[] = {
      {"0004AC1F2B3C", "00 04 AC 1F 2B 3C"},
      {"FFFFFFFFFFFF", "FF FF FF FF FF FF"},
      // Lowercase letters are no digits here: they count as 0.
      {"0004ac1f2b3c", "00 04 00 10 20 30"},
      // Letters past F are digits 16 to 35, cut to 8 bits per byte: "0G" is 0x10, "ZZ" 0x33.
      {"0G0000000000", "10 00 00 00 00 00"},
      {"ZZZZZZZZZZZZ", "33 33 33 33 33 33"},
      // Separators are no digits; a short text ends in zeros; a longer one is read to 12.
      {"02:4B:49:56:", "02 04 B0 49 05 60"},
      {"0102", "01 02 00 00 00 00"},
      {"", "00 00 00 00 00 00"},
      {"0004AC1F2B3C99", "00 04 AC 1F 2B 3C"},
  };
  for (const auto &c : cases) {
    unsigned char converted[6];
    std::memset(converted, 0xEE, sizeof converted);
    ConvertCharStrToHexVal(c.text, converted);
    EXPECT_EQ(ToHex(converted, 6), c.bytes) << "ConvertCharStrToHexVal " << c.text;
    UInt8 exact[6];
    std::memset(exact, 0xEE, sizeof exact);
    GetExactHexValOfString(c.text, exact);
    EXPECT_EQ(ToHex(exact, 6), c.bytes) << "GetExactHexValOfString " << c.text;
  }
}

TEST(HostConversions, NoMemoryBetweenCallsAndNullPointersAreHarmless) {
  if (!ReadDefaultRoute().present) {
    GTEST_SKIP() << "this machine has no default route";
  }
  unsigned char bytes[6];
  ConvertCharStrToHexVal("FFFFFFFFFFFF", bytes);
  ConvertCharStrToHexVal("ffffffffffff", bytes);
  EXPECT_EQ(ToHex(bytes, 6), "00 00 00 00 00 00") << "each call converts with fresh digits";

  ConvertCharStrToHexVal(nullptr, bytes);
  EXPECT_EQ(ToHex(bytes, 6), "00 00 00 00 00 00");
  ConvertCharStrToHexVal("0004AC1F2B3C", nullptr);
  GetExactHexValOfString("0004AC1F2B3C", nullptr);
}

// ---- A host without a default route
// ---------------------------------------------------------------

// Runs only where the machine has no default route (the network-namespace test runs the same
// check in a namespace it makes without one): every function lets the int -1 through.
TEST(HostWithoutDefaultRoute, EveryFunctionThrowsMinusOne) {
  if (ReadDefaultRoute().present) {
    GTEST_SKIP() << "this machine has a default route";
  }
  std::string text = "10.1.2.3";
  unsigned char bytes[6];
  const std::vector<std::function<void()>> calls = {
      [] { GetHostMACAddress("lo"); },
      [] { GetHostIPAddress(); },
      [] { GetHostBroadcastAddress(); },
      [] { GetHostGateway(); },
      [] { GetHostNetMask(); },
      [] { GetHostIPAddressString(); },
      [] { GetHostBroadcastAddressString(); },
      [] { GetHostGatewayString(); },
      [] { GetHostNetMaskString(); },
      [] { GetHostname(); },
      [&] { GetLongFromIP(text); },
      [&] { IsBroadcastAddress(text); },
      [&] { ConvertCharStrToHexVal("0004AC1F2B3C", bytes); },
      [&] { GetExactHexValOfString("0004AC1F2B3C", bytes); },
  };
  for (std::size_t i = 0; i < calls.size(); ++i) {
    int thrown = 0;
    try {
      calls[i]();
    } catch (int value) {
      thrown = value;
    }
    EXPECT_EQ(thrown, -1) << "call " << i;
  }
}

} // namespace
