// The exported HCP functions that depend on the host's network settings (CreateIPConfig puts the
// host's address in the message; ParseHCPResponse needs the host information for the MAC
// conversion), run with a scripted host. They link the internal library, which holds the same
// exported functions as the shared one, because only there can a test set the host platform;
// the shared library has no test seam.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "HelperFiles/KivHostPlatform.h"
#include "Interfaces/KivNetworkComm.h"
#include "support/FakeHostPlatform.h"
#include "support/ScopedContainer.h"
#include "support/TestSupport.h"

using kivtest::Bytes;
using kivtest::FakeHostPlatform;
using kivtest::Hex;
using kivtest::Join;
using kivtest::Text;
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
  // CreateIPConfig with the usual arguments, some of which a test changes first.
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

// ---- CreateIPConfig -----------------------------------------------------------------------------

TEST_F(HCPMessageFunctionsTest, ConfigurationMessageWithoutPassword) {
  ASSERT_EQ(BuildConfig(), 0u);
  const Bytes expected = Join({Hex("48435031 0001 0004000A1B2C 000000000000 C0A86417 0A000005"
                                   "0001 0000 0000003E"),
                               kRecord});
  ASSERT_EQ(expected.size(), 96u);
  EXPECT_EQ(ToHex(container.bytes()), ToHex(expected));
  EXPECT_EQ(GetHeaderType(container.handle()), kHCP1);
  // The container reads bytes 16-19 as the command whatever the protocol: here the end of the
  // source MAC and the start of the host's address.
  EXPECT_EQ(GetCommandType(container.handle()), 0x0000C0A8u);
}

TEST_F(HCPMessageFunctionsTest, ConfigurationMessageCarriesThePasswordBytesAsGiven) {
  password = "abc";
  ASSERT_EQ(BuildConfig(kHCP1), 0u);
  const Bytes expected = Join({Hex("48435031 0001 0004000A1B2C 000000000000 C0A86417 0A000005"
                                   "0001 0003 616263 0000003E"),
                               kRecord});
  EXPECT_EQ(ToHex(container.bytes()), ToHex(expected));
  EXPECT_EQ(password, "abc");
}

TEST_F(HCPMessageFunctionsTest, BothHeaderTypesAndAnySourceArgumentsGiveTheSameBytes) {
  ASSERT_EQ(BuildConfig(kHBN3), 0u);
  const Bytes first = container.bytes();
  srcIP = "192.168.1.1";
  srcMac = "FFFFFFFFFFFF";
  ASSERT_EQ(BuildConfig(kHCP1), 0u);
  EXPECT_EQ(ToHex(container.bytes()), ToHex(first));
  EXPECT_EQ(srcIP, "192.168.1.1");
  EXPECT_EQ(srcMac, "FFFFFFFFFFFF");
}

TEST_F(HCPMessageFunctionsTest, TextRecordMayFillTheWholeWorkingArea) {
  // 33 key bytes + 991 value bytes = 1024, the builder's room exactly; one more is refused.
  destIP = std::string(991, '1');
  mask.clear();
  gateway.clear();
  ASSERT_EQ(BuildConfig(), 0u);
  const Bytes bytes = container.bytes();
  ASSERT_EQ(bytes.size(), 34u + 1024u);
  EXPECT_EQ(ToHex(Bytes(bytes.begin() + 22, bytes.begin() + 26)), "FF FF FF FF")
      << "text that is no address gives 255.255.255.255";
  EXPECT_EQ(ToHex(Bytes(bytes.begin() + 30, bytes.begin() + 34)), "00 00 04 00");

  destIP.push_back('1');
  EXPECT_EQ(BuildConfig(), 0x0A0507A3u);
  EXPECT_EQ(container.bytes().size(), 34u + 1024u) << "the container keeps the first message";
}

TEST_F(HCPMessageFunctionsTest, OverlongPasswordIsRefused) {
  password.assign(65536, 'p');
  EXPECT_EQ(BuildConfig(), 0x0A0409A3u);
  EXPECT_EQ(container.bytes().size(), 0u);
  password.pop_back();
  ASSERT_EQ(BuildConfig(), 0u);
  EXPECT_EQ(container.bytes().size(), 34u + 65535u + 62u);
}

TEST_F(HCPMessageFunctionsTest, HostWithoutDefaultInterfaceGivesKind00) {
  const Bytes before = Hex("48424E33 00000000 00000000 00000007 00000003 00000000");
  container.Fill(before);
  FakeHostPlatform none;
  kiv::HostPlatformOverrideScope noHost(none);
  EXPECT_EQ(BuildConfig(), 0x0A090B00u);
  EXPECT_EQ(ToHex(container.bytes()), ToHex(before));
}

// ---- ParseHCPResponse ---------------------------------------------------------------------------

constexpr UInt32 kDiscoveryAnswer = 0x80000006;
constexpr UInt32 kConfigurationAnswer = 0;

// A discovery answer: a query-like prefix, then the items, with length bytes between the address
// items and nothing between the others (an unquoted value ends at the next key's first letter).
// Port 2 is attached, port 3 is not, so the second STRID and PRINTERVIDPID are not used.
const Bytes kDiscovery =
    Join({Hex("0000 8400 0000 0001 0000 0000"),
          Text("IPADDRESS=10.0.0.5\x12IPNETMASK=255.255.255.0\x16IPGATEWAY=10.0.0.1\x0D"
               "IPNAME=\"Printer1\"MACLAA=\"000000000000\"MACUAA=\"00200048F13D\""
               "ADAPTERTYPE=\"Ethernet\"IPADDRSOURCE=\"DHCP\"OEMBYTE=0PASSWORDSET=t"
               "ADAPTERNAME=\"NIC One\"CPDATTACHED=2 1CPDATTACHED=3 0"
               "STRID=2 \" MFG:Kiv;MDL:X1;\"STRID=3 \"MFG:Kiv;MDL:Y;\""
               "PRINTERVIDPID=2 \"04F9:0001\"PRINTERVIDPID=3 \"04F9:0002\"")});

// A configuration answer: 26 header bytes, the result byte, a zero byte, then the addresses.
Bytes ConfigurationAnswer(unsigned char result, const std::string &items) {
  return Join({Hex("48435031 0001 000000000000 000000000000 00000000 00000000"),
               Bytes{result, 0x00}, Text(items)});
}

// A record as a host may pass it: values everywhere and three old device entries.
KivNetRecord FilledRecord() {
  KivNetRecord record;
  record.iResponse = 7;
  record.iPortInfo = 9;
  for (std::string *field :
       {&record.strIPAddr, &record.strIPNetMask, &record.strIPGateway, &record.strIPName,
        &record.strMacLaa, &record.strMacUaa, &record.strAdapterType, &record.strIPAddrSrc,
        &record.strOEMByte, &record.strPwdSet, &record.strProdID, &record.strAdapterName,
        &record.strCPDAttached, &record.strPrintrVidPid}) {
    *field = "old";
  }
  record.vecDeviceSpecific.resize(3);
  record.vecDeviceSpecific[0].strProdID = "old entry";
  return record;
}

// Field-by-field text of a record, for comparisons with readable failures.
std::string Describe(const KivNetRecord &r) {
  std::string text = std::to_string(r.iResponse) + "|" + std::to_string(r.iPortInfo);
  for (const std::string *field :
       {&r.strIPAddr, &r.strIPNetMask, &r.strIPGateway, &r.strIPName, &r.strMacLaa, &r.strMacUaa,
        &r.strAdapterType, &r.strIPAddrSrc, &r.strOEMByte, &r.strPwdSet, &r.strProdID,
        &r.strAdapterName, &r.strCPDAttached, &r.strPrintrVidPid}) {
    text += "|" + *field;
  }
  for (const DeviceSpecific &d : r.vecDeviceSpecific) {
    text += "|{" + std::to_string(d.iFlag) + "," + d.strProdID + "," + d.strOEMByte + "," +
            d.strCPDAttached + "," + d.strPrintrVidPid + "," + std::to_string(d.iPortInfo) + "}";
  }
  return text;
}

TEST_F(HCPMessageFunctionsTest, DiscoveryAnswerReplacesStringsAndDeviceList) {
  container.Fill(kDiscovery);
  KivNetRecord record = FilledRecord();
  ASSERT_EQ(ParseHCPResponse(kHBN3, container.handle(), kDiscoveryAnswer, record), 0u);
  EXPECT_EQ(record.strIPAddr, "10.0.0.5");
  EXPECT_EQ(record.strIPNetMask, "255.255.255.0");
  EXPECT_EQ(record.strIPGateway, "10.0.0.1");
  EXPECT_EQ(record.strIPName, "Printer1");
  EXPECT_EQ(record.strMacLaa, "000000000000");
  EXPECT_EQ(record.strMacUaa, "ET000400128fbc");
  EXPECT_EQ(record.strAdapterType, "Ethernet");
  EXPECT_EQ(record.strIPAddrSrc, "DHCP");
  EXPECT_EQ(record.strOEMByte, "0");
  EXPECT_EQ(record.strPwdSet, "TRUE");
  EXPECT_EQ(record.strAdapterName, "NIC One");
  // Not in the answer: written as the parser left them, empty.
  EXPECT_EQ(record.strProdID, "");
  EXPECT_EQ(record.strCPDAttached, "");
  EXPECT_EQ(record.strPrintrVidPid, "");
  // The three old entries are gone; only the attached port remains.
  ASSERT_EQ(record.vecDeviceSpecific.size(), 1u);
  const DeviceSpecific &port = record.vecDeviceSpecific[0];
  EXPECT_EQ(port.iFlag, 1);
  EXPECT_EQ(port.iPortInfo, 2);
  EXPECT_EQ(port.strCPDAttached, "2 1");
  EXPECT_EQ(port.strProdID, "MFG:Kiv;MDL:X1;");
  EXPECT_EQ(port.strPrintrVidPid, "04F9:0001");
  EXPECT_EQ(port.strOEMByte, "");
  // A discovery answer has no result byte; iPortInfo is never written.
  EXPECT_EQ(record.iResponse, 7);
  EXPECT_EQ(record.iPortInfo, 9);
}

TEST_F(HCPMessageFunctionsTest, ParsingTheSameAnswerTwiceGivesTheSameRecord) {
  container.Fill(kDiscovery);
  KivNetRecord first = FilledRecord(), second;
  ASSERT_EQ(ParseHCPResponse(kHCP1, container.handle(), kDiscoveryAnswer, first), 0u);
  ASSERT_EQ(ParseHCPResponse(kHBN3, container.handle(), kDiscoveryAnswer, second), 0u);
  second.iResponse = first.iResponse;
  second.iPortInfo = first.iPortInfo;
  EXPECT_EQ(Describe(first), Describe(second)) << "entries replaced, not appended";
  EXPECT_EQ(ToHex(container.bytes()), ToHex(kDiscovery));
}

TEST_F(HCPMessageFunctionsTest, ConfigurationAnswerHandsOverTheResultByte) {
  container.Fill(
      ConfigurationAnswer(0, "IPADDRESS=10.0.0.5\nIPNETMASK=255.255.255.0\nIPGATEWAY=10.0.0.1\n"));
  KivNetRecord record = FilledRecord();
  ASSERT_EQ(ParseHCPResponse(kHCP1, container.handle(), kConfigurationAnswer, record), 0u);
  EXPECT_EQ(record.iResponse, 0);
  EXPECT_EQ(record.strIPAddr, "10.0.0.5");
  EXPECT_EQ(record.strIPNetMask, "255.255.255.0");
  EXPECT_EQ(record.strIPGateway, "10.0.0.1");
  EXPECT_EQ(record.strIPName, "") << "a configuration answer carries only the addresses";
  EXPECT_TRUE(record.vecDeviceSpecific.empty());
  EXPECT_EQ(record.iPortInfo, 9);
}

TEST_F(HCPMessageFunctionsTest, RefusedConfigurationGivesItsResultByteAndNoAddresses) {
  // The device refused (result 5): no address items are needed, and none are read.
  container.Fill(ConfigurationAnswer(5, ""));
  KivNetRecord record = FilledRecord();
  ASSERT_EQ(ParseHCPResponse(kHCP1, container.handle(), kConfigurationAnswer, record), 0u);
  EXPECT_EQ(record.iResponse, 5);
  EXPECT_EQ(record.strIPAddr, "");
  EXPECT_TRUE(record.vecDeviceSpecific.empty());
  EXPECT_EQ(record.iPortInfo, 9);
}

TEST_F(HCPMessageFunctionsTest, FailedParseLeavesTheRecordWhole) {
  struct FailCase {
    const char *name;
    Bytes message;
    UInt32 answerKind;
  };
  Bytes noPrinterIds = kDiscovery;
  const std::string text(noPrinterIds.begin(), noPrinterIds.end());
  noPrinterIds.resize(text.find("PRINTERVIDPID"));
  const std::vector<FailCase> cases = {
      // The parser has already read the addresses when it finds the key missing.
      {"discovery answer without PRINTERVIDPID", noPrinterIds, kDiscoveryAnswer},
      {"accepted configuration without IPGATEWAY",
       ConfigurationAnswer(0, "IPADDRESS=10.0.0.5\nIPNETMASK=255.255.255.0\n"),
       kConfigurationAnswer},
      {"empty message", Bytes(), kDiscoveryAnswer},
  };
  for (const FailCase &c : cases) {
    SCOPED_TRACE(c.name);
    container.Fill(c.message);
    KivNetRecord record = FilledRecord();
    const std::string before = Describe(record);
    EXPECT_EQ(ParseHCPResponse(kHBN3, container.handle(), c.answerKind, record), 0x0A0707A3u);
    EXPECT_EQ(Describe(record), before);
  }
}

TEST_F(HCPMessageFunctionsTest, DiscoveryAnswerNeedsTheHostInformation) {
  container.Fill(kDiscovery);
  FakeHostPlatform none;
  kiv::HostPlatformOverrideScope noHost(none);
  KivNetRecord record = FilledRecord();
  const std::string before = Describe(record);
  EXPECT_EQ(ParseHCPResponse(kHBN3, container.handle(), kDiscoveryAnswer, record), 0x0A0707A3u);
  EXPECT_EQ(Describe(record), before);
}

} // namespace
