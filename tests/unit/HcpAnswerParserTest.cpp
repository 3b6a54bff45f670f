// The HCP answer parser: discovery and configuration answers with their item rules, each also
// through the exported ParseHCPResponse and its record update.
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>

#include "Asm_Deasm/KivHBN3Disassembler.h"
#include "Interfaces/KivNetworkComm.h"
#include "support/FakeHostPlatform.h"
#include "support/MessageVectors.h"
#include "support/ScopedContainer.h"
#include "support/Thrown.h"

using namespace kivtest;

namespace {

// The MAC conversion needs a host with a default interface; a fixed one keeps every test
// independent of the machine.
class HcpAnswerParserTest : public testing::Test {
protected:
  FakeHostPlatform platform{"192.168.1.10", "255.255.255.0", "192.168.1.1"};
  kiv::HostPlatformOverrideScope scope{platform};
};

// The one code of every failed HCP parse: (0x70000, 0x700, COPY_ERROR).
constexpr UInt32 kParseFailed = 0x707A3;
constexpr UInt32 kConfigurationAnswer = 1;
const Items kItems = DeviceItems();

// `kItems` without the items of `keys`, then `added`.
Items Without(const Items &keys, const Items &added = {}) {
  Items out;
  std::copy_if(kItems.begin(), kItems.end(), std::back_inserter(out), [&](const std::string &item) {
    return std::none_of(keys.begin(), keys.end(),
                        [&](const std::string &key) { return item.rfind(key + "=", 0) == 0; });
  });
  out.insert(out.end(), added.begin(), added.end());
  return out;
}

// `kItems` with the item of `key` moved to the end with `value`.
Items With(const std::string &key, const std::string &value) {
  return Without({key}, {key + "=" + value});
}

const Items kPortKeys = {"CPDATTACHED", "STRID", "PRINTERVIDPID"};

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

// Parses `message` into `record`; the code thrown, or 0. The exported ParseHCPResponse must then
// have replaced every field the parser fills (the device entries too) in a host's record, written
// iResponse only for a configuration answer and never iPortInfo; after a failure, nothing.
UInt32 Parse(const Bytes &message, KivNetRecord &record, UInt32 kind = kHCPDiscoveryResponse) {
  const UInt32 code =
      CodeOf([&] { EXPECT_EQ(Holding(message)->ParseHCPResponse(kind, record), 0u); });
  KivNetRecord expected = FilledRecord(), exported = FilledRecord();
  if (code == 0) {
    Holding(message)->ParseHCPResponse(kind, expected = KivNetRecord());
    expected.iPortInfo = 9;
    expected.iResponse = kind == kHCPDiscoveryResponse ? 7 : expected.iResponse;
  }
  ScopedContainer container;
  container.Fill(message);
  EXPECT_EQ(ParseHCPResponse(0x48424E33, container.handle(), kind, exported),
            code == 0 ? 0 : 0x0A0707A3u);
  EXPECT_EQ(Describe(exported), Describe(expected));
  return code;
}

KivNetRecord Discover(const Items &items) {
  KivNetRecord record;
  EXPECT_EQ(Parse(DiscoveryAnswer(items), record), 0u);
  return record;
}

// ---- Discovery answers ----

TEST_F(HcpAnswerParserTest, DiscoveryAnswerFillsTheRecord) {
  KivNetRecord record = Discover(kItems);
  // The address stops at the next string's length byte.
  EXPECT_EQ(Describe(record),
            "0|0|192.168.1.20|255.255.255.0|192.168.1.1|KIVMFC-4A1B2C|000000000000"
            // Bits of each byte reversed.
            "|ET000400128fbc|ETHERNET"
            // An unquoted value runs on over the next string's length byte up to the next key.
            "|dhcp\x0F|0|TRUE||KIV NC-8800h||"
            // The space after the quote of a product text is dropped.
            "|{1,KIV MFC-8890DW,,0 1,04F9:0248,0}|{1,KIV FAX-2840,,2 1,04F9:024A,2}");
}

TEST_F(HcpAnswerParserTest, SecondParseIntoTheSameRecordAppendsItsEntries) {
  KivNetRecord record = Discover(kItems);
  ASSERT_EQ(Parse(DiscoveryAnswer(kItems), record), 0u);
  ASSERT_EQ(record.vecDeviceSpecific.size(), 4u);
  EXPECT_EQ(record.vecDeviceSpecific[3].iPortInfo, 2);
}

TEST_F(HcpAnswerParserTest, EachRequiredKeyMissingFailsTheParse) {
  for (const char *key : {"IPADDRESS", "IPNETMASK", "IPGATEWAY", "IPNAME", "MACLAA", "MACUAA",
                          "ADAPTERTYPE", "IPADDRSOURCE", "STRID", "OEMBYTE", "PASSWORDSET",
                          "ADAPTERNAME", "CPDATTACHED", "PRINTERVIDPID"}) {
    KivNetRecord record;
    EXPECT_EQ(Parse(DiscoveryAnswer(Without({key})), record), kParseFailed) << key;
  }
}

// A whole answer fails on a host without a default interface: no MAC conversion.
TEST_F(HcpAnswerParserTest, NoDefaultInterfaceFailsTheParse) {
  const FakeHostPlatform none;
  kiv::HostPlatformOverrideScope noHost(none);
  KivNetRecord record;
  EXPECT_EQ(Parse(DiscoveryAnswer(kItems), record), kParseFailed);
}

// ---- Configuration answers ----

TEST_F(HcpAnswerParserTest, ConfigurationAnswers) {
  const Bytes accepted = ConfigurationAnswer(0, ConfigurationText());
  const Bytes head(accepted.begin(), accepted.begin() + 26);
  // The record, or nullptr for a failed parse.
  const std::pair<Bytes, const char *> cases[] = {
      {accepted, "0|0|10.0.0.5|255.0.0.0|10.0.0.1"},
      // A refusal carries no addresses; none are read even when present.
      {ConfigurationAnswer(5, ConfigurationText()), "5|0|old|old|old"},
      {ConfigurationAnswer(5, ""), "5|0|old|old|old"},
      {Join({head, Bytes{5}}), "5|0|old|old|old"},
      {head, nullptr},                   // no result byte
      {Join({head, Bytes{0}}), nullptr}, // accepted, without the addresses
  };
  for (const auto &c : cases) {
    KivNetRecord record;
    record.strIPAddr = record.strIPNetMask = record.strIPGateway = "old";
    ASSERT_EQ(Parse(c.first, record, kConfigurationAnswer), c.second ? 0 : kParseFailed)
        << ToHex(c.first);
    if (c.second) {
      EXPECT_EQ(Describe(record), c.second + std::string("|||||||||||")) << ToHex(c.first);
    }
  }
}

// ---- Item value rules ----

// Quoted text keeps its uppercase letters; an unquoted run stops at the first one.
TEST_F(HcpAnswerParserTest, UnquotedValueStopsAtAnUppercaseLetterQuotedTextKeepsThem) {
  EXPECT_EQ(Discover(With("ADAPTERTYPE", "Ethernet")).strAdapterType, "");
  EXPECT_EQ(Discover(With("ADAPTERTYPE", "\"Ethernet 10/100\"")).strAdapterType, "Ethernet 10/100");
}

// Unquoted runs are cut at 31 bytes, in address mode too.
TEST_F(HcpAnswerParserTest, UnquotedValueIsCutAt31Bytes) {
  EXPECT_EQ(Discover(With("IPADDRSOURCE", std::string(40, 'm'))).strIPAddrSrc,
            std::string(31, 'm'));
  EXPECT_EQ(Discover(With("IPADDRESS", std::string(35, '1'))).strIPAddr, std::string(31, '1'));
}

// A quoted value without its closing quote fails the whole parse, in address mode too.
TEST_F(HcpAnswerParserTest, QuotedValueWithoutClosingQuoteFailsTheParse) {
  for (const std::string key : {"OEMBYTE", "IPGATEWAY"}) {
    KivNetRecord failed;
    EXPECT_EQ(Parse(DiscoveryAnswer(With(key, "\"0")), failed), kParseFailed) << key;
  }
}

// PASSWORDSET takes its first byte only, in either case; a quoted value is neither yes nor no.
TEST_F(HcpAnswerParserTest, PasswordSetReadsItsFirstByteOnly) {
  const std::pair<const char *, const char *> passwordSet[] = {
      {"true", "TRUE"}, {"t", "TRUE"}, {"f", "FALSE"}, {"\"TRUE\"", ""}, {"1", ""}};
  for (const auto &c : passwordSet) {
    EXPECT_EQ(Discover(With("PASSWORDSET", c.first)).strPwdSet, c.second) << c.first;
  }
}

// ---- Per-port items ----

// Port 2 attached, port 3 not: one entry from the first STRID and PRINTERVIDPID, whatever port
// number those carry.
TEST_F(HcpAnswerParserTest, PortItemsArePairedByOrderNotByPortNumber) {
  KivNetRecord record = Discover(Without(
      kPortKeys, {"CPDATTACHED=2 1", "CPDATTACHED=3 0", "STRID=3 \"first\"", "STRID=2 \"second\"",
                  "PRINTERVIDPID=9 \"0001:0002\"", "PRINTERVIDPID=2 \"0003:0004\""}));
  EXPECT_EQ(Entries(record), "|{1,first,,2 1,0001:0002,2}");
}

TEST_F(HcpAnswerParserTest, FifthPortIsIgnored) {
  Items ports;
  for (const std::string n : {"0", "1", "2", "3", "4"}) {
    ports.push_back("CPDATTACHED=" + n + " 1");
    ports.push_back("STRID=" + n + " \"product " + n + "\"");
    ports.push_back("PRINTERVIDPID=" + n + " \"vid:" + n + "\"");
  }
  EXPECT_EQ(Entries(Discover(Without(kPortKeys, ports))),
            "|{1,product 0,,0 1,vid:0,0}|{1,product 1,,1 1,vid:1,1}"
            "|{1,product 2,,2 1,vid:2,2}|{1,product 3,,3 1,vid:3,3}");
}

} // namespace
