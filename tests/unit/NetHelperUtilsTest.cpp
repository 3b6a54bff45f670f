// Host network information through a scripted platform, and the MAC text conversions. The real
// machine's default interface is checked through the exported functions in
// tests/boundary/HostInformationTest.cpp.
#include <gtest/gtest.h>

#include <net/ethernet.h>

#include <cstdlib>

#include "HelperFiles/KivNetHelperUtils.h"
#include "support/FakeHostPlatform.h"
#include "support/TestSupport.h"
#include "support/Thrown.h"

using namespace kivtest;

namespace {

// The 6 bytes GetHostMACAddress hands out, or "null"; releases the block as a host must.
std::string MacOf(const KivNetHelperUtils &utils, const char *device) {
  ether_addr *mac = utils.GetHostMACAddress(device);
  const std::string text = mac ? ToHex(reinterpret_cast<const unsigned char *>(mac), 6) : "null";
  std::free(mac);
  return text;
}

// The four bytes of an address as they lie in memory.
std::string MemoryBytes(UInt32 address) {
  return ToHex(reinterpret_cast<const unsigned char *>(&address), 4);
}

const FakeHostPlatform kHost("192.168.100.23", "255.255.255.0", "192.168.100.1");

TEST(NetHelperUtilsTest, AnswersFromTheDefaultInterfaceSnapshot) {
  const KivNetHelperUtils utils(kHost);
  EXPECT_EQ(MemoryBytes(utils.GetHostIPAddress()) + "|" + MemoryBytes(utils.GetHostNetMask()) +
                "|" + MemoryBytes(utils.GetHostBroadcastAddress()) + "|" +
                MemoryBytes(utils.GetHostGateway()),
            "C0 A8 64 17|FF FF FF 00|C0 A8 64 FF|C0 A8 64 01");
  // The broadcast text is the longest, 15 characters.
  EXPECT_EQ(utils.GetHostIPAddressString() + "|" + utils.GetHostNetMaskString() + "|" +
                utils.GetHostBroadcastAddressString() + "|" + utils.GetHostGatewayString(),
            "192.168.100.23|255.255.255.0|192.168.100.255|192.168.100.1");
  EXPECT_EQ(utils.GetLongFromIP("192.168.100.23"), utils.GetHostIPAddress());
  EXPECT_EQ(utils.GetLongFromIP("192.168.100."), KivNetHelperUtils::kInvalidAddress);
  const FakeHostPlatform none;
  EXPECT_EQ(IntThrownBy([&] { KivNetHelperUtils fails(none); }), -1) << "no default interface";
}

TEST(NetHelperUtilsTest, MacLookupTakesTheFirstInterfaceWhoseNameStartsTheDevice) {
  FakeHostPlatform platform("192.168.100.23", "255.255.255.0", "192.168.100.1");
  platform.AddLink("eth0", {0x00, 0x04, 0xAC, 0x1F, 0x2B, 0x3C});
  platform.AddLink("eth0.100", {0x02, 0x00, 0x00, 0x00, 0x01, 0x00});
  const KivNetHelperUtils utils(platform);
  EXPECT_EQ(MacOf(utils, "eth0"), "00 04 AC 1F 2B 3C");
  EXPECT_EQ(MacOf(utils, "eth0.100"), "00 04 AC 1F 2B 3C") << "eth0 comes first";
  for (const char *device : {"eth", "", static_cast<const char *>(nullptr)}) {
    EXPECT_EQ(MacOf(utils, device), "null") << (device ? device : "(null)");
  }
  platform.linksReadable = false;
  EXPECT_EQ(MacOf(utils, "eth0"), "null");
}

TEST(NetHelperUtilsTest, MacTextConversion) {
  KivNetHelperUtils utils(kHost);
  const std::pair<const char *, const char *> cases[] = {
      {"0G0000000000", "10 00 00 00 00 00"}, // letters beyond F: (0 << 4) | 16
      {"ZZZZZZZZZZZZ", "33 33 33 33 33 33"}, // (35 << 4 | 35) kept to 8 bits
      {"0004AC", "00 04 AC 00 00 00"},       // no read past the terminator (the sanitizer sees it)
      {nullptr, "00 00 00 00 00 00"},
  };
  for (const auto &c : cases) {
    Bytes exact(6), remembered(6); // no text here has a non-digit: the two agree
    utils.GetExactHexValOfString(c.first, exact.data());
    utils.ConvertCharStrToHexVal(c.first, remembered.data());
    EXPECT_EQ(ToHex(exact) + "|" + ToHex(remembered), std::string(c.second) + "|" + c.second)
        << (c.first ? c.first : "(null)");
  }
  // ConvertCharStrToHexVal alone remembers: a non-digit takes the digit of the previous text at
  // its position, but positions a short text lacks are 0.
  Bytes out(6);
  utils.ConvertCharStrToHexVal("0004AC1F2B3C", out.data());
  utils.ConvertCharStrToHexVal("0000zz0000", out.data());
  EXPECT_EQ(ToHex(out), "00 00 AC 00 00 00");
  utils.GetExactHexValOfString("0000zz000000", out.data());
  EXPECT_EQ(ToHex(out), "00 00 00 00 00 00");
}

} // namespace
