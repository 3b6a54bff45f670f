// The parser of received messages: classification, HCP discovery and configuration answers with
// their item rules, each also through the exported ParseHCPResponse and its record update, and
// every prefix of every message through every parse operation. The HBN3 answers' values are checked
// through the exported functions, the status payload's rules with the payload class.
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <memory>

#include "Asm_Deasm/KivHBN3Disassembler.h"
#include "Interfaces/KivNetworkComm.h"
#include "support/FakeHostPlatform.h"
#include "support/MessageVectors.h"
#include "support/ScopedContainer.h"
#include "support/Thrown.h"

using namespace kivtest;

namespace {

// A parser holding a copy of exactly `bytes` (a read past it is a sanitizer report); the container
// it came through is released first.
std::unique_ptr<KivHBN3Disassembler> Holding(const Bytes &bytes) {
  static const unsigned char kNothing = 0;
  KivNetBuffer buffer;
  KivNetBufferStorageGuard guard(buffer);
  buffer.SetBuffer(bytes.empty() ? &kNothing : bytes.data(), static_cast<int>(bytes.size()));
  return std::unique_ptr<KivHBN3Disassembler>(new KivHBN3Disassembler(buffer));
}

// The HCP answers need a host with a default interface for the MAC conversion; a fixed one keeps
// every test independent of the machine.
class HBN3DisassemblerTest : public testing::Test {
protected:
  FakeHostPlatform platform{"192.168.1.10", "255.255.255.0", "192.168.1.1"};
  kiv::HostPlatformOverrideScope scope{platform};
};

// ---- HBN3 messages ----

TEST_F(HBN3DisassemblerTest, ClassifiesByTagAndReadsTheCommandWhereTheTagSaysItIs) {
  EXPECT_EQ(Holding(PingReply())->GetCommandType(), 0x80000003u);
  // An HCP1 message has its command at 24, after the addresses.
  auto hcp = Holding(Join({Text("HCP1"), Bytes(20, 0x11), Hex("00010203")}));
  EXPECT_EQ(hcp->GetHeaderType(), 0x48435031u);
  EXPECT_EQ(hcp->GetCommandType(), 0x00010203u);
  auto cut = Holding(Hex("4842"));
  EXPECT_EQ(cut->GetHeaderType() | cut->GetCommandType(), 0u);
}

// ---- HCP answers ----

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

TEST_F(HBN3DisassemblerTest, DiscoveryAnswerFillsTheRecordAndAppendsEntries) {
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

  // A second parse into the same record appends its entries.
  ASSERT_EQ(Parse(DiscoveryAnswer(kItems), record), 0u);
  ASSERT_EQ(record.vecDeviceSpecific.size(), 4u);
  EXPECT_EQ(record.vecDeviceSpecific[3].iPortInfo, 2);
}

TEST_F(HBN3DisassemblerTest, EachRequiredKeyMissingOrNoDefaultInterfaceFailsTheParse) {
  for (const char *key : {"IPADDRESS", "IPNETMASK", "IPGATEWAY", "IPNAME", "MACLAA", "MACUAA",
                          "ADAPTERTYPE", "IPADDRSOURCE", "STRID", "OEMBYTE", "PASSWORDSET",
                          "ADAPTERNAME", "CPDATTACHED", "PRINTERVIDPID"}) {
    KivNetRecord record;
    EXPECT_EQ(Parse(DiscoveryAnswer(Without({key})), record), kParseFailed) << key;
  }
  // A whole answer fails too on a host without a default interface: no MAC conversion.
  const FakeHostPlatform none;
  kiv::HostPlatformOverrideScope noHost(none);
  KivNetRecord record;
  EXPECT_EQ(Parse(DiscoveryAnswer(kItems), record), kParseFailed);
}

TEST_F(HBN3DisassemblerTest, ConfigurationAnswers) {
  const Bytes accepted = ConfigurationAnswer(0, kConfigText);
  const Bytes head(accepted.begin(), accepted.begin() + 26);
  // The record, or nullptr for a failed parse.
  const std::pair<Bytes, const char *> cases[] = {
      {accepted, "0|0|10.0.0.5|255.0.0.0|10.0.0.1"},
      // A refusal carries no addresses; none are read even when present.
      {ConfigurationAnswer(5, kConfigText), "5|0|old|old|old"},
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

TEST_F(HBN3DisassemblerTest, ItemValueRules) {
  // Quoted text keeps its uppercase letters; an unquoted run stops at the first one.
  EXPECT_EQ(Discover(With("ADAPTERTYPE", "Ethernet")).strAdapterType, "");
  EXPECT_EQ(Discover(With("ADAPTERTYPE", "\"Ethernet 10/100\"")).strAdapterType, "Ethernet 10/100");
  // Unquoted runs are cut at 31 bytes, in address mode too.
  EXPECT_EQ(Discover(With("IPADDRSOURCE", std::string(40, 'm'))).strIPAddrSrc,
            std::string(31, 'm'));
  EXPECT_EQ(Discover(With("IPADDRESS", std::string(35, '1'))).strIPAddr, std::string(31, '1'));
  // A quoted value without its closing quote fails the whole parse, in address mode too.
  for (const std::string key : {"OEMBYTE", "IPGATEWAY"}) {
    KivNetRecord failed;
    EXPECT_EQ(Parse(DiscoveryAnswer(With(key, "\"0")), failed), kParseFailed) << key;
  }
  // PASSWORDSET takes its first byte only, in either case; a quoted value is neither yes nor no.
  const std::pair<const char *, const char *> passwordSet[] = {
      {"true", "TRUE"}, {"t", "TRUE"}, {"f", "FALSE"}, {"\"TRUE\"", ""}, {"1", ""}};
  for (const auto &c : passwordSet) {
    EXPECT_EQ(Discover(With("PASSWORDSET", c.first)).strPwdSet, c.second) << c.first;
  }
}

TEST_F(HBN3DisassemblerTest, PortItemsArePairedByOrderUpToFourSlots) {
  // Port 2 attached, port 3 not: one entry from the first STRID and PRINTERVIDPID, whatever
  // port number those carry.
  KivNetRecord record = Discover(Without(
      kPortKeys, {"CPDATTACHED=2 1", "CPDATTACHED=3 0", "STRID=3 \"first\"", "STRID=2 \"second\"",
                  "PRINTERVIDPID=9 \"0001:0002\"", "PRINTERVIDPID=2 \"0003:0004\""}));
  EXPECT_EQ(Entries(record), "|{1,first,,2 1,0001:0002,2}");

  // A fifth occurrence is ignored.
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

// ---- Every prefix ----

// Every prefix of every message, through every operation: a result or a KivWrapperException,
// never a read outside the message (the sanitizer stage checks that).
TEST_F(HBN3DisassemblerTest, EveryPrefixOfEveryMessageThroughEveryOperation) {
  const std::function<void(KivHBN3Disassembler &, KivNetRecord &)> operations[] = {
      [](auto &p, auto &) { p.ParsePingResponse(); },
      [](auto &p, auto &) { p.ParseRequestScanResponse(); },
      [](auto &p, auto &) { p.ParseHostListEntryResponse(); },
      [](auto &p, auto &) { p.ParseRequestScan(); },
      [](auto &p, auto &) { p.ParseStatusCacheResponse(); },
      [](auto &p, auto &r) { p.ParseHCPResponse(kHCPDiscoveryResponse, r); },
      [](auto &p, auto &r) { p.ParseHCPResponse(kConfigurationAnswer, r); },
  };
  for (const Bytes &message :
       {PingReply(), RequestScanReply(), HostListAnswer(), ScanRequest(), StatusAnswer(),
        DiscoveryAnswer(kItems), ConfigurationAnswer(0, kConfigText)}) {
    for (size_t length = 0; length <= message.size(); ++length) {
      for (size_t k = 0; k < std::size(operations); ++k) {
        auto parser = Holding(Bytes(message.begin(), message.begin() + static_cast<long>(length)));
        KivNetRecord record;
        try {
          operations[k](*parser, record);
        } catch (const KivWrapperException &) {
        } catch (...) {
          ADD_FAILURE() << "operation " << k << " threw something else at " << length << " bytes";
        }
      }
    }
  }
}

} // namespace
