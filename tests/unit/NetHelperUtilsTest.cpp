// Host network information through a scripted platform, the MAC and address text conversions,
// and one consistency check of the real machine's default interface.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <net/ethernet.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>

#include "HelperFiles/KivHostPlatform.h"
#include "HelperFiles/KivLinuxHostPlatform.h"
#include "HelperFiles/KivNetHelperUtils.h"
#include "support/FakeHostPlatform.h"
#include "support/TestSupport.h"

using kivtest::Bytes;
using kivtest::FakeHostPlatform;
using kivtest::Hex;
using kivtest::Inet;
using kivtest::ToHex;

namespace {

struct FreeDeleter {
  void operator()(void *block) const { std::free(block); }
};

// The 6 bytes GetHostMACAddress hands out, or "null"; releases the block as a host must.
std::string MacOf(const KivNetHelperUtils &utils, const char *device) {
  std::unique_ptr<ether_addr, FreeDeleter> mac(utils.GetHostMACAddress(device));
  if (!mac) {
    return "null";
  }
  return ToHex(reinterpret_cast<const unsigned char *>(mac.get()), 6);
}

// The value thrown by `action` as an int, or 0 when it throws none.
int IntThrownBy(const std::function<void()> &action) {
  try {
    action();
  } catch (int value) {
    return value;
  }
  return 0;
}

// The four bytes of an address as they lie in memory.
std::string MemoryBytes(UInt32 address) {
  unsigned char bytes[4];
  std::memcpy(bytes, &address, 4);
  return ToHex(bytes, 4);
}

TEST(NetHelperUtilsTest, AnswersFromTheDefaultInterfaceSnapshot) {
  const FakeHostPlatform platform("192.168.100.23", "255.255.255.0", "192.168.100.1");
  const KivNetHelperUtils utils(platform);
  EXPECT_EQ(MemoryBytes(utils.GetHostIPAddress()), "C0 A8 64 17");
  EXPECT_EQ(MemoryBytes(utils.GetHostNetMask()), "FF FF FF 00");
  EXPECT_EQ(MemoryBytes(utils.GetHostBroadcastAddress()), "C0 A8 64 FF");
  EXPECT_EQ(MemoryBytes(utils.GetHostGateway()), "C0 A8 64 01");
  EXPECT_EQ(utils.GetHostIPAddressString(), "192.168.100.23");
  EXPECT_EQ(utils.GetHostNetMaskString(), "255.255.255.0");
  EXPECT_EQ(utils.GetHostBroadcastAddressString(), "192.168.100.255"); // 15 characters, the longest
  EXPECT_EQ(utils.GetHostGatewayString(), "192.168.100.1");
}

TEST(NetHelperUtilsTest, NoDefaultInterfaceThrowsMinusOne) {
  const FakeHostPlatform none;
  EXPECT_EQ(IntThrownBy([&] { KivNetHelperUtils utils(none); }), -1);
  // The same through the override, which is how classes that make their own object see it.
  kiv::HostPlatformOverrideScope scope(none);
  EXPECT_EQ(IntThrownBy([] { KivNetHelperUtils utils; }), -1);
}

TEST(NetHelperUtilsTest, OverrideAppliesOnlyWhileSet) {
  const FakeHostPlatform platform("10.9.8.7", "255.0.0.0", "10.0.0.1");
  {
    kiv::HostPlatformOverrideScope scope(platform);
    EXPECT_EQ(&kiv::CurrentHostPlatform(), &platform);
    EXPECT_EQ(KivNetHelperUtils().GetHostIPAddressString(), "10.9.8.7");
  }
  EXPECT_EQ(&kiv::CurrentHostPlatform(), &kiv::LinuxHostPlatform());
}

TEST(NetHelperUtilsTest, MacLookupTakesTheFirstInterfaceWhoseNameStartsTheDevice) {
  FakeHostPlatform platform("192.168.100.23", "255.255.255.0", "192.168.100.1");
  platform.AddLink("lo", {0, 0, 0, 0, 0, 0});
  platform.AddLink("eth0", {0x00, 0x04, 0xAC, 0x1F, 0x2B, 0x3C});
  platform.AddLink("eth0.100", {0x02, 0x00, 0x00, 0x00, 0x01, 0x00});
  platform.AddLink("wlan0", {0x5C, 0x51, 0x4F, 0x01, 0x02, 0x03});
  const KivNetHelperUtils utils(platform);

  const struct {
    const char *device;
    const char *expected;
  } cases[] = {
      {"eth0", "00 04 AC 1F 2B 3C"},
      {"eth0.100", "00 04 AC 1F 2B 3C"}, // "eth0" comes first and starts the text
      {"eth0:1", "00 04 AC 1F 2B 3C"},
      {"lo", "00 00 00 00 00 00"},
      {"wlan0", "5C 51 4F 01 02 03"},
      {"eth", "null"}, // shorter than every name it begins
      {"wlan1", "null"},
      {"ETH0", "null"},
      {"", "null"},
      {nullptr, "null"},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(MacOf(utils, c.device), c.expected) << (c.device ? c.device : "(null)");
  }

  platform.linksReadable = false;
  EXPECT_EQ(MacOf(utils, "eth0"), "null");
}

// Conversions of MAC texts on a fresh object: both operations agree there.
TEST(NetHelperUtilsTest, MacTextConversionTable) {
  const FakeHostPlatform platform("192.168.100.23", "255.255.255.0", "192.168.100.1");
  const struct {
    const char *text;
    const char *expected;
  } cases[] = {
      {"0004AC1F2B3C", "00 04 AC 1F 2B 3C"},
      {"0004000A1B2C", "00 04 00 0A 1B 2C"},
      {"FFFFFFFFFFFF", "FF FF FF FF FF FF"},
      {"0G0000000000", "10 00 00 00 00 00"},   // letters beyond F: (0 << 4) | 16
      {"ZZZZZZZZZZZZ", "33 33 33 33 33 33"},   // (35 << 4 | 35) kept to 8 bits
      {"0004ac1f2b3c", "00 04 00 10 20 30"},   // lowercase letters are not digits: 0 when fresh
      {"00:04:AC:1F:", "00 00 40 AC 01 F0"},   // separators are not skipped
      {"0004AC1F2B3C77", "00 04 AC 1F 2B 3C"}, // only 12 characters are read
      {"0004AC", "00 04 AC 00 00 00"},         // a short text stops at its terminator
      {"", "00 00 00 00 00 00"},
      {nullptr, "00 00 00 00 00 00"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.text ? c.text : "(null)");
    // Exact-size heap copies, so reading past a short text is caught by the address sanitizer.
    std::unique_ptr<char[]> text;
    if (c.text != nullptr) {
      text.reset(new char[std::strlen(c.text) + 1]);
      std::strcpy(text.get(), c.text);
    }
    Bytes exact(6, 0xEE);
    Bytes remembered(6, 0xEE);
    KivNetHelperUtils utils(platform);
    utils.GetExactHexValOfString(text.get(), exact.data());
    utils.ConvertCharStrToHexVal(text.get(), remembered.data());
    EXPECT_EQ(ToHex(exact), c.expected);
    EXPECT_EQ(ToHex(remembered), c.expected);
  }
}

TEST(NetHelperUtilsTest, ConvertCharStrToHexValRemembersTheLastDigits) {
  const FakeHostPlatform platform("192.168.100.23", "255.255.255.0", "192.168.100.1");
  KivNetHelperUtils utils(platform);
  Bytes out(6);
  utils.ConvertCharStrToHexVal("0004AC1F2B3C", out.data());
  // Each lowercase letter takes the digit the previous text had at its position.
  utils.ConvertCharStrToHexVal("0000zz000000", out.data());
  EXPECT_EQ(ToHex(out), "00 00 AC 00 00 00");
  // The scratch of the other conversion does not see that memory.
  utils.GetExactHexValOfString("0000zz000000", out.data());
  EXPECT_EQ(ToHex(out), "00 00 00 00 00 00");
  // Positions a short text lacks are 0, not remembered.
  utils.ConvertCharStrToHexVal("12", out.data());
  utils.ConvertCharStrToHexVal("xxxxxxxxxxxx", out.data());
  EXPECT_EQ(ToHex(out), "12 00 00 00 00 00");
}

TEST(NetHelperUtilsTest, GetLongFromIP) {
  const FakeHostPlatform platform("192.168.100.23", "255.255.255.0", "192.168.100.1");
  const KivNetHelperUtils utils(platform);
  const struct {
    const char *text;
    const char *memory;
  } cases[] = {
      {"10.1.2.3", "0A 01 02 03"},  {"192.168.1.20", "C0 A8 01 14"},
      {"0.0.0.0", "00 00 00 00"},   {"255.255.255.255", "FF FF FF FF"},
      {"", "FF FF FF FF"},          {"printer", "FF FF FF FF"},
      {"256.1.1.1", "FF FF FF FF"}, {"1.2.3.4.5", "FF FF FF FF"},
  };
  for (const auto &c : cases) {
    const unsigned long value = utils.GetLongFromIP(c.text);
    EXPECT_LE(value, 0xFFFFFFFFul) << c.text;
    EXPECT_EQ(MemoryBytes(static_cast<UInt32>(value)), c.memory) << c.text;
  }
}

TEST(NetHelperUtilsTest, HostnameIsTheSystemsName) {
  const FakeHostPlatform platform("192.168.100.23", "255.255.255.0", "192.168.100.1");
  const KivNetHelperUtils utils(platform);
  char name[256] = {0};
  ASSERT_EQ(gethostname(name, sizeof(name) - 1), 0);
  EXPECT_EQ(utils.GetHostname(), name);
  EXPECT_LE(utils.GetHostname().size(), 255u);
}

// Reads the machine's own configuration; sends nothing.
TEST(NetHelperUtilsTest, RealDefaultInterfaceIsConsistent) {
  std::unique_ptr<KivNetHelperUtils> utils;
  try {
    utils.reset(new KivNetHelperUtils(kiv::LinuxHostPlatform()));
  } catch (int) {
    GTEST_SKIP() << "this machine has no default IPv4 route";
  }
  const UInt32 address = utils->GetHostIPAddress();
  const UInt32 mask = utils->GetHostNetMask();
  EXPECT_NE(address, 0u);
  // A mask is ones then zeros: its inverse plus one is a power of two.
  const UInt32 inverse = ~ntohl(mask);
  EXPECT_EQ(inverse & (inverse + 1), 0u) << utils->GetHostNetMaskString();
  EXPECT_EQ(utils->GetHostBroadcastAddress(), address | ~mask);
  EXPECT_EQ(utils->GetHostBroadcastAddress() & mask, address & mask);
  EXPECT_EQ(utils->GetLongFromIP(utils->GetHostIPAddressString()), address);
  EXPECT_EQ(utils->GetLongFromIP(utils->GetHostNetMaskString()), mask);
  EXPECT_EQ(utils->GetLongFromIP(utils->GetHostGatewayString()), utils->GetHostGateway());
  EXPECT_EQ(MacOf(*utils, "no-such-if0"), "null");
}

} // namespace
