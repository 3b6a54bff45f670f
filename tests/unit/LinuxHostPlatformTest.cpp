// The Linux platform's default interface against the machine's own tables, read here on their own
// (the route table with sscanf, the addresses with getifaddrs) so that a fault in the library's
// reading is not repeated by the test. tests/netns/netns-host-platform.sh runs this in network
// namespaces it sets up (several addresses, an alias label, a point-to-point address, several
// default routes, a default route without an address) and names the answer it expects in
// KIV_EXPECTED_DEFAULT_INTERFACE: "none", or the address, net mask and gateway in dotted text.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/route.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "HelperFiles/KivLinuxHostPlatform.h"

namespace {

std::string Dotted(UInt32 address) {
  in_addr in;
  in.s_addr = address;
  return inet_ntoa(in);
}

// "none", or "address netmask gateway".
std::string Describe(bool found, const kiv::KivInterfaceInfo &info) {
  if (!found) {
    return "none";
  }
  return Dotted(info.fAddress) + " " + Dotted(info.fNetmask) + " " +
         Dotted(info.fDefaultGatewayAddr);
}

// The default route of lowest metric and, among the IPv4 addresses of its interface (by name, so
// an alias label is another name), the one whose subnet holds the gateway, else the first.
bool Reference(kiv::KivInterfaceInfo &info) {
  std::ifstream table("/proc/net/route");
  std::string line, route;
  unsigned long best = ~0ul, destination, gateway, flags, metric, mask, via = 0;
  char name[64];
  while (std::getline(table, line)) {
    if (std::sscanf(line.c_str(), "%63s %lx %lx %lx %*u %*u %lu %lx", name, &destination, &gateway,
                    &flags, &metric, &mask) == 6 &&
        destination == 0 && mask == 0 && (flags & RTF_UP) && (route.empty() || metric < best)) {
      best = metric;
      route = name;
      via = gateway;
    }
  }
  if (route.empty()) {
    return false;
  }
  ifaddrs *list = nullptr;
  if (getifaddrs(&list) != 0) {
    return false;
  }
  bool found = false;
  for (const ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next) {
    const auto *in = reinterpret_cast<const sockaddr_in *>(entry->ifa_addr);
    if (in == nullptr || in->sin_family != AF_INET || route != entry->ifa_name) {
      continue;
    }
    const UInt32 address = in->sin_addr.s_addr;
    const UInt32 netmask =
        reinterpret_cast<const sockaddr_in *>(entry->ifa_netmask)->sin_addr.s_addr;
    const bool holds = via != 0 && ((address ^ static_cast<UInt32>(via)) & netmask) == 0;
    if (!found || holds) {
      found = true;
      info.fAddress = address;
      info.fNetmask = netmask;
      info.fDefaultGatewayAddr = static_cast<UInt32>(via);
      if (holds) {
        break;
      }
    }
  }
  freeifaddrs(list);
  return found;
}

// A route table's default route read the way a C++ stream reads the fields: the oracle for tables
// written by the test.
bool StreamReading(const std::string &table, std::string &interfaceName, UInt32 &gateway) {
  std::istringstream lines(table);
  std::string line;
  std::getline(lines, line);
  bool found = false;
  unsigned long best = 0;
  while (std::getline(lines, line)) {
    std::istringstream fields(line);
    std::string name;
    unsigned long destination = 0, via = 0, flags = 0, refCount = 0, use = 0, metric = 0, mask = 0;
    fields >> name >> std::hex >> destination >> via >> flags >> std::dec >> refCount >> use >>
        metric >> std::hex >> mask;
    if (!fields.fail() && destination == 0 && mask == 0 && (flags & RTF_UP) &&
        (!found || metric < best)) {
      found = true;
      best = metric;
      interfaceName = name;
      gateway = static_cast<UInt32>(via);
    }
  }
  return found;
}

// One line as the kernel writes it, padded to 127 characters.
std::string RouteLine(const std::string &name, const char *destination, const char *gateway,
                      const char *flags, const char *metric, const char *mask) {
  std::string line = name + "\t" + destination + "\t" + gateway + "\t" + flags + "\t0\t0\t" +
                     metric + "\t" + mask + "\t0\t0\t0";
  line.resize(127, ' ');
  return line + "\n";
}

// Tables the kernel never writes as well as those it does: many lines read in pieces (a line cut
// at every piece boundary), a last line without a line feed, a line longer than the reading area,
// a metric written signed, lines with fields missing or not numbers, routes that are down.
TEST(LinuxHostPlatformTest, RouteTableIsReadAsAStreamReadsIt) {
  const std::string titles =
      "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT";
  std::string many = titles + "\n";
  for (int i = 0; i < 300; ++i) {
    char gateway[9];
    std::snprintf(gateway, sizeof gateway, "%08X", 0x0A000001 + i);
    const bool isDefault = i % 37 == 5;
    many += RouteLine("eth" + std::to_string(i % 3), isDefault ? "00000000" : "0001010A", gateway,
                      "0003", std::to_string(isDefault ? 1000 - i : 0).c_str(),
                      isDefault ? "00000000" : "00FFFFFF");
  }
  const std::string down = RouteLine("eth9", "00000000", "0100000A", "0002", "0", "00000000");
  const std::string signedMetric =
      RouteLine("tun0", "00000000", "0200000A", "0003", "-1", "00000000");
  const std::string cases[] = {
      many,
      many.substr(0, many.size() - 1), // no line feed at the end
      titles + "\n" + RouteLine("eth0", "00000000", "010200C0", "0003", "5", "00000000") +
          "eth1 0 0A000001 3 0 0 1 0" + std::string(5000, ' ') + "x\n" +
          RouteLine("eth2", "00000000", "030200C0", "0003", "2", "00000000"),
      titles + "\n" + signedMetric, // the largest metric, not a refused field
      titles + "\n" + signedMetric +
          RouteLine("eth0", "00000000", "010200C0", "0003", "4294967295", "00000000"),
      titles + "\n" + down + "eth0 00000000 010200C0 0003 0 0\n" +
          "eth1 00000000 zz 0003 0 0 0 00000000\n" + "\n" +
          RouteLine("eth3", "00000000", "040200C0", "0003", "9", "00000000"),
      titles + "\n" + down,
      titles,
      "",
  };
  // The process number keeps parallel runs of this test apart.
  const std::string path = testing::TempDir() + "kiv-route-table-" + std::to_string(getpid());
  int defaults = 0;
  for (const std::string &table : cases) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << table;
    std::string name = "unset", expectedName = "unset";
    UInt32 gateway = 7, expectedGateway = 7;
    const bool expected = StreamReading(table, expectedName, expectedGateway);
    EXPECT_EQ(kiv::ReadDefaultRoute(path.c_str(), name, gateway), expected) << table.size();
    EXPECT_EQ(name, expectedName) << table.size();
    EXPECT_EQ(gateway, expectedGateway) << table.size();
    defaults += expected;
  }
  EXPECT_EQ(defaults, 6) << "every table but the last three has a default route that is up";
  std::remove(path.c_str());
  std::string name;
  UInt32 gateway = 0;
  EXPECT_FALSE(kiv::ReadDefaultRoute("/nonexistent/route", name, gateway));
}

TEST(LinuxHostPlatformTest, DefaultInterfaceIsTheMachinesOwnReading) {
  kiv::KivInterfaceInfo info, reference;
  const bool found = kiv::LinuxHostPlatform().GetDefaultInterface(info);
  const std::string described = Describe(found, info);
  EXPECT_EQ(described, Describe(Reference(reference), reference));
  if (found) {
    EXPECT_EQ(info.fBroadcastAddr, info.fAddress | ~info.fNetmask);
  }
  if (const char *expected = std::getenv("KIV_EXPECTED_DEFAULT_INTERFACE")) {
    EXPECT_EQ(described, expected);
  }
}

} // namespace
