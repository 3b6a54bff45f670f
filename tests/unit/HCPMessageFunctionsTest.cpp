// The exported HCP functions that depend on the host's network settings (CreateIPConfig puts the
// host's address in the message; ParseHCPResponse needs the host information for the MAC
// conversion), run with a scripted host. They link the internal library, which holds the same
// exported functions as the shared one, because only there can a test set the host platform.
#include <gtest/gtest.h>

#include <string>

#include "Asm_Deasm/KivHBN3Disassembler.h"
#include "HelperFiles/KivHostPlatform.h"
#include "Interfaces/KivNetworkComm.h"
#include "support/FakeHostPlatform.h"
#include "support/MessageVectors.h"
#include "support/ScopedContainer.h"
#include "support/TestSupport.h"

using kivtest::Bytes;
using kivtest::FakeHostPlatform;
using kivtest::Hex;
using kivtest::Join;
using kivtest::ToHex;

namespace {

constexpr UInt32 kHBN3 = 0x48424E33;
constexpr UInt32 kHCP1 = 0x48435031;

// "IPADDRESS 10.0.0.5\nIPNETMASK 255.255.255.0\nIPGATEWAY 10.0.0.1\n", 62 bytes.
const Bytes kRecord = Hex("49 50 41 44 44 52 45 53 53 20 31 30 2E 30 2E 30 2E 35 0A"
                          "49 50 4E 45 54 4D 41 53 4B 20 32 35 35 2E 32 35 35 2E 32 35 35 2E 30 0A"
                          "49 50 47 41 54 45 57 41 59 20 31 30 2E 30 2E 30 2E 31 0A");

class HCPMessageFunctionsTest : public testing::Test {
protected:
  UInt32 BuildConfig(UInt32 headerType = kHBN3) {
    return CreateIPConfig(headerType, destMac, srcMac, srcIP, destIP, password, mask, gateway,
                          container.handle());
  }

  // The host is 192.168.100.23 (C0 A8 64 17).
  FakeHostPlatform host{"192.168.100.23", "255.255.255.0", "192.168.100.1"};
  kiv::HostPlatformOverrideScope scope{host};
  kivtest::ScopedContainer container;
  std::string destMac = "0004000A1B2C", srcMac = "001122334455", srcIP = "10.0.0.99",
              destIP = "10.0.0.5", password, mask = "255.255.255.0", gateway = "10.0.0.1";
};

// ---- CreateIPConfig ----

TEST_F(HCPMessageFunctionsTest, ConfigurationMessages) {
  // Destination MAC, no source MAC, the host's address, the new address, the password.
  const std::string head = "48435031 0001 0004000A1B2C 000000000000 C0A86417 0A000005 0001";
  const struct {
    const char *password;
    Bytes expected;
  } cases[] = {
      {"", Join({Hex(head + "0000 0000003E"), kRecord})},
      {"abc", Join({Hex(head + "0003 616263 0000003E"), kRecord})},
  };
  for (const auto &c : cases) {
    for (UInt32 headerType : {kHBN3, kHCP1}) {
      password = c.password;
      srcIP = headerType == kHBN3 ? "10.0.0.99" : "192.168.1.1"; // the source is not sent
      ASSERT_EQ(BuildConfig(headerType), 0u);
      EXPECT_EQ(ToHex(container.bytes()), ToHex(c.expected));
      EXPECT_EQ(GetHeaderType(container.handle()), kHCP1);
      // Bytes 16-19, read as the command whatever the protocol.
      EXPECT_EQ(GetCommandType(container.handle()), 0x0000C0A8u);
    }
  }
  // The caller's seven strings are read, never changed.
  EXPECT_EQ(destMac + srcMac + srcIP + destIP + password + mask + gateway,
            "0004000A1B2C001122334455192.168.1.110.0.0.5abc255.255.255.010.0.0.1");
}

TEST_F(HCPMessageFunctionsTest, TextRecordAndPasswordLimits) {
  // 33 key bytes + 991 value bytes = 1024, the builder's room exactly; one more is refused.
  destIP = std::string(991, '1');
  mask.clear();
  gateway.clear();
  ASSERT_EQ(BuildConfig(), 0u);
  ASSERT_EQ(container.bytes().size(), 34u + 1024u);
  destIP.push_back('1');
  EXPECT_EQ(BuildConfig(), 0x0A0507A3u);
  EXPECT_EQ(container.bytes().size(), 34u + 1024u) << "the container keeps the first message";
  // The password's length travels in 16 bits.
  destIP = "10.0.0.5";
  password.assign(65536, 'p');
  EXPECT_EQ(BuildConfig(), 0x0A0409A3u);
  password.pop_back();
  ASSERT_EQ(BuildConfig(), 0u);
  EXPECT_EQ(container.bytes().size(), 34u + 65535u + 33u + 8u);
}

TEST_F(HCPMessageFunctionsTest, HostWithoutDefaultInterfaceGivesKind00) {
  const Bytes before = Hex("48424E33 00000000 00000000 00000007 00000003 00000000");
  container.Fill(before);
  FakeHostPlatform none;
  kiv::HostPlatformOverrideScope noHost(none);
  EXPECT_EQ(BuildConfig(), 0x0A090B00u);
  EXPECT_EQ(ToHex(container.bytes()), ToHex(before));
}

// ---- ParseHCPResponse ----

constexpr UInt32 kDiscoveryAnswer = 0x80000006;
constexpr UInt32 kConfigurationAnswer = 0;

const Bytes kDiscovery = kivtest::DiscoveryAnswer(kivtest::DeviceItems());
const char kConfigText[] = "IPADDRESS 10.0.0.5\nIPNETMASK 255.0.0.0\nIPGATEWAY 10.0.0.1\n";

// A record as a host may pass it: values everywhere and three old device entries.
KivNetRecord FilledRecord() {
  KivNetRecord r;
  r.iResponse = 7;
  r.iPortInfo = 9;
  r.strIPAddr = r.strIPNetMask = r.strIPGateway = r.strIPName = r.strMacLaa = r.strMacUaa =
      r.strAdapterType = r.strIPAddrSrc = r.strOEMByte = r.strPwdSet = r.strProdID =
          r.strAdapterName = r.strCPDAttached = r.strPrintrVidPid = "old";
  r.vecDeviceSpecific.resize(3);
  return r;
}

// The exported function replaces every field the parser fills (the device entries too) with the
// parser's result, writes iResponse only for a configuration answer, and never iPortInfo.
TEST_F(HCPMessageFunctionsTest, ParsedAnswersReplaceTheRecordsFields) {
  const struct {
    Bytes message;
    UInt32 kind;
  } cases[] = {
      {kDiscovery, kDiscoveryAnswer},
      {kivtest::ConfigurationAnswer(0, kConfigText), kConfigurationAnswer},
      {kivtest::ConfigurationAnswer(5, ""), kConfigurationAnswer},
  };
  for (const auto &c : cases) {
    KivNetBuffer buffer;
    KivNetBufferStorageGuard guard(buffer);
    buffer.SetBuffer(c.message.data(), static_cast<int>(c.message.size()));
    KivNetRecord expected;
    ASSERT_EQ(KivHBN3Disassembler(buffer).ParseHCPResponse(c.kind, expected), 0u);
    expected.iPortInfo = 9;
    if (c.kind == kDiscoveryAnswer) {
      expected.iResponse = 7;
    }
    container.Fill(c.message);
    KivNetRecord record = FilledRecord();
    ASSERT_EQ(ParseHCPResponse(kHBN3, container.handle(), c.kind, record), 0u);
    EXPECT_EQ(kivtest::Describe(record), kivtest::Describe(expected));
  }
}

TEST_F(HCPMessageFunctionsTest, FailedParseLeavesTheRecordWhole) {
  // Cut before the port items: the parser has read the addresses when it finds them missing.
  const std::string text(kDiscovery.begin(), kDiscovery.end());
  container.Fill(Bytes(kDiscovery.begin(), kDiscovery.begin() + text.find("STRID")));
  KivNetRecord record = FilledRecord();
  EXPECT_EQ(ParseHCPResponse(kHBN3, container.handle(), kDiscoveryAnswer, record), 0x0A0707A3u);
  EXPECT_EQ(kivtest::Describe(record), kivtest::Describe(FilledRecord()));
  // A whole answer on a host without a default interface: no MAC conversion.
  FakeHostPlatform none;
  kiv::HostPlatformOverrideScope noHost(none);
  container.Fill(kDiscovery);
  EXPECT_EQ(ParseHCPResponse(kHBN3, container.handle(), kDiscoveryAnswer, record), 0x0A0707A3u);
  EXPECT_EQ(kivtest::Describe(record), kivtest::Describe(FilledRecord()));
}

} // namespace
