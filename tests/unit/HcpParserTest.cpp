// The HCP answer parser: a device's discovery answer as it arrives (a DNS answer with a text
// record of KEY=value strings), configuration answers, every required key missing, the value and
// per-port rules at their edges, and every prefix of every answer.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Asm_Deasm/KivHBN3Disassembler.h"
#include "Exceptions/KivWrapperException.h"
#include "HelperFiles/KivHostPlatform.h"
#include "support/FakeHostPlatform.h"
#include "support/ParserSupport.h"
#include "support/TestSupport.h"

using kivtest::Bytes;
using kivtest::CodeOf;
using kivtest::Hex;
using kivtest::Holding;
using kivtest::Join;
using kivtest::Text;

namespace {

typedef std::vector<std::string> Items;

// The one code of every failed HCP parse: (0x70000, 0x700, COPY_ERROR).
constexpr UInt32 kParseFailed = 0x707A3;
constexpr UInt32 kConfigurationAnswer = 0x00000001;

// A discovery answer shaped as devices send it: a DNS response header (no questions, one answer),
// the name _host-config._udp.local, a TXT record whose strings are `items`, each with its length
// byte in front.
Bytes DiscoveryAnswer(const Items &items) {
  Bytes txt;
  for (const std::string &item : items) {
    txt.push_back(static_cast<unsigned char>(item.size()));
    txt.insert(txt.end(), item.begin(), item.end());
  }
  const Bytes rdLength = {static_cast<unsigned char>(txt.size() >> 8),
                          static_cast<unsigned char>(txt.size())};
  return Join({Hex("0000 8400 0000 0001 0000 0000"),
               Join({Hex("0C"), Text("_host-config"), Hex("04"), Text("_udp"), Hex("05"),
                     Text("local"), Hex("00")}),
               Hex("0010 8001 00001194"), rdLength, txt});
}

// The answer of a device with four ports of which 0 and 2 are attached. The port items come in
// groups per port, as devices list them.
const Items kItems = {
    "IPADDRESS=192.168.1.20",
    "IPNETMASK=255.255.255.0",
    "IPGATEWAY=192.168.1.1",
    "IPNAME=\"KIVMFC-4A1B2C\"",
    "MACLAA=\"000000000000\"",
    "MACUAA=\"00200048F13D\"",
    "ADAPTERTYPE=\"ETHERNET\"",
    "IPADDRSOURCE=dhcp",
    "CPDATTACHED=0 1",
    "STRID=0 \" KIV MFC-8890DW\"",
    "PRINTERVIDPID=0 \"04F9:0248\"",
    "CPDATTACHED=1 0",
    "STRID=1 \"KIV SCANNER\"",
    "PRINTERVIDPID=1 \"04F9:0249\"",
    "CPDATTACHED=2 1",
    "STRID=2 \"KIV FAX-2840\"",
    "PRINTERVIDPID=2 \"04F9:024A\"",
    "CPDATTACHED=3 0",
    "STRID=3 \"none\"",
    "PRINTERVIDPID=3 \"0000:0000\"",
    "PASSWORDSET=TRUE",
    "ADAPTERNAME=\"KIV NC-8800h\"",
    "OEMBYTE=0",
};

// The items with the one whose key is `key` replaced by `item` (every such item when there are
// several; removed when `item` is empty).
Items With(Items items, const std::string &key, const std::string &item) {
  Items out;
  for (const std::string &existing : items) {
    if (existing.compare(0, key.size() + 1, key + "=") != 0) {
      out.push_back(existing);
    } else if (!item.empty()) {
      out.push_back(item);
    }
  }
  return out;
}

Items Without(const Items &items, const std::string &key) { return With(items, key, ""); }

// Every answer in this file comes with a host that has a default interface, so the MAC conversion
// does not depend on the machine.
class HcpParserTest : public ::testing::Test {
protected:
  kivtest::FakeHostPlatform platform{"192.168.1.10", "255.255.255.0", "192.168.1.1"};
  kiv::HostPlatformOverrideScope scope{platform};

  // Parses `message` into `record`; returns the code thrown or 0.
  UInt32 Parse(const Bytes &message, KivNetRecord &record, UInt32 kind = kHCPDiscoveryResponse) {
    auto parser = Holding(message);
    UInt32 result = 0xDEAD;
    const UInt32 code = CodeOf([&] { result = parser->ParseHCPResponse(kind, record); });
    if (code == 0) {
      EXPECT_EQ(result, 0u);
    }
    return code;
  }

  KivNetRecord Discover(const Items &items) {
    KivNetRecord record;
    EXPECT_EQ(Parse(DiscoveryAnswer(items), record), 0u);
    return record;
  }
};

// ---- A whole discovery answer ----

TEST_F(HcpParserTest, DiscoveryAnswerFillsTheRecord) {
  KivNetRecord record;
  record.iResponse = 9;
  record.strProdID = "kept";
  record.strCPDAttached = "kept";
  record.strPrintrVidPid = "kept";
  record.iPortInfo = 7;
  ASSERT_EQ(Parse(DiscoveryAnswer(kItems), record), 0u);

  EXPECT_EQ(record.strIPAddr, "192.168.1.20"); // the length byte after it is not an address
  EXPECT_EQ(record.strIPNetMask, "255.255.255.0");
  EXPECT_EQ(record.strIPGateway, "192.168.1.1");
  EXPECT_EQ(record.strIPName, "KIVMFC-4A1B2C");
  EXPECT_EQ(record.strMacLaa, "000000000000");
  EXPECT_EQ(record.strMacUaa, "ET000400128fbc");
  EXPECT_EQ(record.strAdapterType, "ETHERNET");
  // An unquoted value runs on over the next string's length byte (15, "CPDATTACHED=0 1") up to
  // the next key's first letter.
  EXPECT_EQ(record.strIPAddrSrc, std::string("dhcp\x0F"));
  EXPECT_EQ(record.strPwdSet, "TRUE");
  EXPECT_EQ(record.strAdapterName, "KIV NC-8800h");
  EXPECT_EQ(record.strOEMByte, "0"); // the last value ends with the message

  // Fields the parser does not name keep their contents.
  EXPECT_EQ(record.iResponse, 9);
  EXPECT_EQ(record.strProdID, "kept");
  EXPECT_EQ(record.strCPDAttached, "kept");
  EXPECT_EQ(record.strPrintrVidPid, "kept");
  EXPECT_EQ(record.iPortInfo, 7);

  ASSERT_EQ(record.vecDeviceSpecific.size(), 2u);
  const DeviceSpecific &first = record.vecDeviceSpecific[0];
  EXPECT_EQ(first.iFlag, 1);
  EXPECT_EQ(first.iPortInfo, 0);
  EXPECT_EQ(first.strCPDAttached, "0 1");
  EXPECT_EQ(first.strProdID, "KIV MFC-8890DW"); // the one space after the quote is dropped
  EXPECT_EQ(first.strPrintrVidPid, "04F9:0248");
  EXPECT_EQ(first.strOEMByte, "");
  const DeviceSpecific &second = record.vecDeviceSpecific[1];
  EXPECT_EQ(second.iFlag, 1);
  EXPECT_EQ(second.iPortInfo, 2);
  EXPECT_EQ(second.strCPDAttached, "2 1");
  EXPECT_EQ(second.strProdID, "KIV FAX-2840");
  EXPECT_EQ(second.strPrintrVidPid, "04F9:024A");
}

TEST_F(HcpParserTest, EntriesAreAppendedNotReplaced) {
  KivNetRecord record;
  DeviceSpecific earlier;
  earlier.iFlag = 1;
  earlier.strProdID = "earlier";
  record.vecDeviceSpecific.push_back(earlier);
  ASSERT_EQ(Parse(DiscoveryAnswer(kItems), record), 0u);
  ASSERT_EQ(Parse(DiscoveryAnswer(kItems), record), 0u);
  ASSERT_EQ(record.vecDeviceSpecific.size(), 5u);
  EXPECT_EQ(record.vecDeviceSpecific[0].strProdID, "earlier");
  EXPECT_EQ(record.vecDeviceSpecific[1].iPortInfo, 0);
  EXPECT_EQ(record.vecDeviceSpecific[2].iPortInfo, 2);
  EXPECT_EQ(record.vecDeviceSpecific[3].iPortInfo, 0);
  EXPECT_EQ(record.vecDeviceSpecific[4].iPortInfo, 2);
}

TEST_F(HcpParserTest, EachRequiredKeyMissingFailsTheParse) {
  const char *keys[] = {"IPADDRESS",   "IPNETMASK",   "IPGATEWAY",    "IPNAME",       "MACLAA",
                        "MACUAA",      "ADAPTERTYPE", "IPADDRSOURCE", "STRID",        "OEMBYTE",
                        "PASSWORDSET", "ADAPTERNAME", "CPDATTACHED",  "PRINTERVIDPID"};
  for (const char *key : keys) {
    KivNetRecord record;
    EXPECT_EQ(Parse(DiscoveryAnswer(Without(kItems, key)), record), kParseFailed) << key;
    EXPECT_TRUE(record.vecDeviceSpecific.empty()) << key;
    EXPECT_TRUE(record.strMacUaa.empty()) << key;
  }
  // The addresses are read before the other keys are looked for.
  KivNetRecord record;
  EXPECT_EQ(Parse(DiscoveryAnswer(Without(kItems, "PRINTERVIDPID")), record), kParseFailed);
  EXPECT_EQ(record.strIPAddr, "192.168.1.20");
  EXPECT_EQ(record.strIPNetMask, "255.255.255.0");
  EXPECT_EQ(record.strIPGateway, "192.168.1.1");
  EXPECT_TRUE(record.strIPName.empty());
}

// ---- Configuration answers ----

// A configuration answer: the configuration message's header with the device's result byte at
// 26, then the text record it echoes (may be empty).
Bytes ConfigurationAnswer(UInt8 result, const std::string &text) {
  const Bytes length = {0, 0, static_cast<unsigned char>(text.size() >> 8),
                        static_cast<unsigned char>(text.size())};
  return Join({Text("HCP1"), Hex("0001 00804A1B2C3D 000000000000 C0A80114 C0A8010A"),
               Bytes{result, 0x01}, Hex("0000"), length, Text(text)});
}

const char kConfigText[] = "IPADDRESS 10.0.0.5\nIPNETMASK 255.0.0.0\nIPGATEWAY 10.0.0.1\n";

TEST_F(HcpParserTest, ConfigurationAnswerWithResultZeroGivesTheAddresses) {
  KivNetRecord record;
  record.strIPName = "kept";
  record.strMacUaa = "kept";
  ASSERT_EQ(Parse(ConfigurationAnswer(0, kConfigText), record, kConfigurationAnswer), 0u);
  EXPECT_EQ(record.iResponse, 0);
  EXPECT_EQ(record.strIPAddr, "10.0.0.5");
  EXPECT_EQ(record.strIPNetMask, "255.0.0.0");
  EXPECT_EQ(record.strIPGateway, "10.0.0.1");
  EXPECT_EQ(record.strIPName, "kept");
  EXPECT_EQ(record.strMacUaa, "kept");
  EXPECT_TRUE(record.vecDeviceSpecific.empty());
}

TEST_F(HcpParserTest, ConfigurationAnswerWithAResultReadsNothingElse) {
  for (const std::string &text : {std::string(), std::string(kConfigText)}) {
    KivNetRecord record;
    record.strIPAddr = "old";
    ASSERT_EQ(Parse(ConfigurationAnswer(5, text), record, kConfigurationAnswer), 0u);
    EXPECT_EQ(record.iResponse, 5);
    EXPECT_EQ(record.strIPAddr, "old");
    EXPECT_TRUE(record.strIPNetMask.empty());
  }
}

TEST_F(HcpParserTest, ConfigurationAnswersThatFail) {
  KivNetRecord record;
  EXPECT_EQ(Parse(ConfigurationAnswer(0, "IPADDRESS 10.0.0.5\nIPNETMASK 255.0.0.0\n"), record,
                  kConfigurationAnswer),
            kParseFailed);
  const Bytes full = ConfigurationAnswer(5, "");
  // Shorter than 27 bytes: no result byte.
  for (size_t length : {size_t(0), size_t(4), size_t(26)}) {
    EXPECT_EQ(Parse(Bytes(full.begin(), full.begin() + static_cast<long>(length)), record,
                    kConfigurationAnswer),
              kParseFailed)
        << length;
  }
  KivNetRecord refused;
  EXPECT_EQ(Parse(Bytes(full.begin(), full.begin() + 27), refused, kConfigurationAnswer), 0u);
  EXPECT_EQ(refused.iResponse, 5);
  // Result 0 in 27 bytes: the addresses are missing.
  const Bytes accepted = ConfigurationAnswer(0, "");
  EXPECT_EQ(Parse(Bytes(accepted.begin(), accepted.begin() + 27), record, kConfigurationAnswer),
            kParseFailed);
}

TEST_F(HcpParserTest, MacNeedsAHostWithADefaultInterface) {
  kivtest::FakeHostPlatform noInterface;
  kiv::HostPlatformOverrideScope inner(noInterface);
  KivNetRecord record;
  EXPECT_EQ(Parse(DiscoveryAnswer(kItems), record), kParseFailed);
  // A configuration answer converts no MAC.
  EXPECT_EQ(Parse(ConfigurationAnswer(0, kConfigText), record, kConfigurationAnswer), 0u);
  EXPECT_EQ(record.strIPAddr, "10.0.0.5");
}

// ---- Item values ----

TEST_F(HcpParserTest, ItemValueRulesInAnAnswer) {
  // Address mode stops at the next string's length byte; an ordinary value takes it: IPNAME is
  // followed here by the 13-byte string MACLAA="000".
  Items items = With(kItems, "IPADDRESS", "IPADDRESS=10.0.0.5");
  items = With(items, "IPNAME", "IPNAME=printer1");
  items = With(items, "MACLAA", "MACLAA=\"0000\"");
  KivNetRecord record = Discover(items);
  EXPECT_EQ(record.strIPAddr, "10.0.0.5");
  EXPECT_EQ(record.strIPName, std::string("printer1\x0D"));
  EXPECT_EQ(record.strMacLaa, "0000");

  // Quoted text keeps its uppercase letters; an unquoted run stops at the first one.
  record = Discover(With(kItems, "ADAPTERTYPE", "ADAPTERTYPE=Ethernet"));
  EXPECT_EQ(record.strAdapterType, "");
  record = Discover(With(kItems, "ADAPTERTYPE", "ADAPTERTYPE=\"Ethernet 10/100\""));
  EXPECT_EQ(record.strAdapterType, "Ethernet 10/100");

  // 40 lowercase letters give 31.
  record = Discover(With(kItems, "IPADDRSOURCE", "IPADDRSOURCE=" + std::string(40, 'm')));
  EXPECT_EQ(record.strIPAddrSrc, std::string(31, 'm'));

  // A quoted value without its closing quote fails the whole parse, in address mode too.
  KivNetRecord failed;
  EXPECT_EQ(Parse(DiscoveryAnswer(With(kItems, "OEMBYTE", "OEMBYTE=\"0")), failed), kParseFailed);
  EXPECT_EQ(Parse(DiscoveryAnswer(With(kItems, "OEMBYTE", "OEMBYTE=\"")), failed), kParseFailed);
  EXPECT_EQ(Parse(DiscoveryAnswer(Without(kItems, "OEMBYTE")), failed), kParseFailed);
  EXPECT_EQ(Parse(DiscoveryAnswer({"IPADDRESS=\"10.0.0.5", "IPNETMASK=1", "IPGATEWAY=1"}), failed,
                  kHCPDiscoveryResponse),
            kParseFailed);
}

TEST_F(HcpParserTest, AFailedParseLeavesAddressModeOff) {
  auto parser = Holding(Join({Text("IPADDRESS=1 IPNETMASK=\"1 IPGATEWAY=1 "), Text("ab cd")}));
  KivNetRecord record;
  EXPECT_EQ(CodeOf([&] { parser->ParseHCPResponse(kHCPDiscoveryResponse, record); }), kParseFailed);
  EXPECT_EQ(record.strIPAddr, "1");
  const std::string stream = "IPADDRESS=1 IPNETMASK=\"1 IPGATEWAY=1 ab cd";
  EXPECT_EQ(parser->getValue(stream, 37), "ab cd");
}

TEST_F(HcpParserTest, KeysAtTheVeryEnd) {
  // The value of a key with nothing after it would start past the message.
  Bytes answer = DiscoveryAnswer(Without(kItems, "OEMBYTE"));
  const Bytes key = Text("OEMBYTE");
  KivNetRecord record;
  EXPECT_EQ(Parse(Join({answer, key}), record), kParseFailed);
  // With its separator the value is empty.
  EXPECT_EQ(Parse(Join({answer, Text("OEMBYTE=")}), record), 0u);
  EXPECT_EQ(record.strOEMByte, "");
  // PASSWORDSET with no value byte at all is neither yes nor no.
  answer = DiscoveryAnswer(Without(kItems, "PASSWORDSET"));
  record.strPwdSet = "kept";
  EXPECT_EQ(Parse(Join({answer, Text("PASSWORDSET")}), record), 0u);
  EXPECT_EQ(record.strPwdSet, "");
}

TEST_F(HcpParserTest, PasswordSetTakesItsFirstByteOnly) {
  const struct {
    const char *item;
    const char *expected;
  } cases[] = {
      {"PASSWORDSET=TRUE", "TRUE"},   {"PASSWORDSET=true", "TRUE"}, {"PASSWORDSET=t", "TRUE"},
      {"PASSWORDSET=FALSE", "FALSE"}, {"PASSWORDSET=f", "FALSE"},   {"PASSWORDSET=\"TRUE\"", ""},
      {"PASSWORDSET=\"FALSE\"", ""},  {"PASSWORDSET=1", ""},        {"PASSWORDSET=", ""},
  };
  for (const auto &c : cases) {
    KivNetRecord record;
    record.strPwdSet = "kept";
    ASSERT_EQ(Parse(DiscoveryAnswer(With(kItems, "PASSWORDSET", c.item)), record), 0u) << c.item;
    EXPECT_EQ(record.strPwdSet, c.expected) << c.item;
  }
}

TEST_F(HcpParserTest, MacConversion) {
  const struct {
    const char *item;
    const char *expected;
  } cases[] = {
      {"MACUAA=\"00200048F13D\"", "ET000400128fbc"},
      {"MACUAA=\"FFFFFFFFFFFF\"", "ETffffffffffff"},
      {"MACUAA=\"8040C020A060\"", "ET010203040506"},
      // Characters past the twelfth are not read.
      {"MACUAA=\"00200048F13D99\"", "ET000400128fbc"},
      // A short value converts what it has; the missing digits are 0.
      {"MACUAA=\"00200048\"", "ET000400120000"},
      {"MACUAA=\"\"", "ET000000000000"},
      // Unquoted digits run on over the next string's length byte, which is no digit (0).
      {"MACUAA=0020004810", "ET000400120800"},
      // Lowercase letters are not digits of the device's form: 0.
      {"MACUAA=\"00200048f13d\"", "ET00040012800c"},
  };
  for (const auto &c : cases) {
    KivNetRecord record = Discover(With(kItems, "MACUAA", c.item));
    EXPECT_EQ(record.strMacUaa, c.expected) << c.item;
  }
}

// ---- Per-port items ----

// Items with the port items replaced by `ports`.
Items WithPorts(const Items &ports) {
  Items items = Without(Without(Without(kItems, "CPDATTACHED"), "STRID"), "PRINTERVIDPID");
  items.insert(items.begin() + 3, ports.begin(), ports.end());
  return items;
}

TEST_F(HcpParserTest, PortsArePairedByOrderNotByNumber) {
  // Port 2 attached, port 3 not: one entry, and the second STRID and PRINTERVIDPID are ignored.
  KivNetRecord record = Discover(
      WithPorts({"CPDATTACHED=2 1", "CPDATTACHED=3 0", "STRID=3 \"second\"", "STRID=2 \"first\"",
                 "PRINTERVIDPID=9 \"0001:0002\"", "PRINTERVIDPID=2 \"0003:0004\""}));
  ASSERT_EQ(record.vecDeviceSpecific.size(), 1u);
  EXPECT_EQ(record.vecDeviceSpecific[0].iPortInfo, 2);
  EXPECT_EQ(record.vecDeviceSpecific[0].strCPDAttached, "2 1");
  EXPECT_EQ(record.vecDeviceSpecific[0].strProdID, "second");
  EXPECT_EQ(record.vecDeviceSpecific[0].strPrintrVidPid, "0001:0002");

  // Slot 2 in use: its entry comes second whatever the port numbers say.
  record = Discover(WithPorts({"CPDATTACHED=3 0", "CPDATTACHED=1 1", "STRID=0 \"a\"",
                               "STRID=0 \"b\"", "PRINTERVIDPID=0 \"x\"", "PRINTERVIDPID=0 \"y\""}));
  ASSERT_EQ(record.vecDeviceSpecific.size(), 1u);
  EXPECT_EQ(record.vecDeviceSpecific[0].iPortInfo, 1);
  EXPECT_EQ(record.vecDeviceSpecific[0].strProdID, "b");
  EXPECT_EQ(record.vecDeviceSpecific[0].strPrintrVidPid, "y");
}

TEST_F(HcpParserTest, EachSearchMovesOnFromThePreviousItem) {
  // The next occurrence is searched from after the previous one's space (CPDATTACHED) or
  // opening quote (STRID, PRINTERVIDPID): a key inside a port token is skipped, one inside a
  // quoted text is found.
  KivNetRecord record = Discover(WithPorts(
      {"CPDATTACHED=0-CPDATTACHED=5 1", "CPDATTACHED=1 1", "STRID=0-STRIDxx \"a STRID=9 \"",
       "STRID=1 \"b\"", "PRINTERVIDPID=0-PRINTERVIDPIDxx \"c\"", "PRINTERVIDPID=1 \"d\""}));
  ASSERT_EQ(record.vecDeviceSpecific.size(), 2u);
  EXPECT_EQ(record.vecDeviceSpecific[0].strCPDAttached, "0-CPDATTACHED=5 1");
  EXPECT_EQ(record.vecDeviceSpecific[0].iPortInfo, 0);
  EXPECT_EQ(record.vecDeviceSpecific[1].iPortInfo, 1);
  EXPECT_EQ(record.vecDeviceSpecific[0].strProdID, "a STRID=9 ");
  // The second occurrence is the STRID inside the first text: its opening quote is the first
  // text's closing one, so its text runs to the next quote (the next string's length byte
  // included).
  const std::string next = "STRID=1 \"b\"";
  EXPECT_EQ(record.vecDeviceSpecific[1].strProdID,
            std::string(1, static_cast<char>(next.size())) + "STRID=1 ");
  EXPECT_EQ(record.vecDeviceSpecific[0].strPrintrVidPid, "c");
  EXPECT_EQ(record.vecDeviceSpecific[1].strPrintrVidPid, "d");
}

TEST_F(HcpParserTest, TheAttachedFlagIsAOneWithinFiveBytesOfTheSpace) {
  const struct {
    const char *item;
    bool attached;
  } cases[] = {
      {"CPDATTACHED=2 1", true},     {"CPDATTACHED=2 0", false},      {"CPDATTACHED=2 0001", true},
      {"CPDATTACHED=2 00001", true}, {"CPDATTACHED=2 000001", false}, {"CPDATTACHED=2 ", false},
      {"CPDATTACHED=2 10", true},
  };
  for (const auto &c : cases) {
    // The STRID item that follows has no "1" in it.
    KivNetRecord record = Discover(WithPorts({c.item, "STRID=2 \"p\"", "PRINTERVIDPID=2 \"v\""}));
    EXPECT_EQ(record.vecDeviceSpecific.size(), c.attached ? 1u : 0u) << c.item;
  }
  // No "1" anywhere after the last space.
  Items items = WithPorts({"STRID=2 \"p\"", "PRINTERVIDPID=2 \"v\""});
  items.push_back("CPDATTACHED=2 0");
  EXPECT_TRUE(Discover(items).vecDeviceSpecific.empty());
}

TEST_F(HcpParserTest, PortTokensReadAsDecimalNumbers) {
  const struct {
    const char *item;
    int port;
    const char *attached;
  } cases[] = {
      {"CPDATTACHED=0 1", 0, "0 1"},
      {"CPDATTACHED=12 1", 12, "12 1"},
      {"CPDATTACHED=\t7 1", 7, "\t7 1"},
      {"CPDATTACHED=3abc 1", 3, "3abc 1"},
      {"CPDATTACHED=usb 1", 0, "usb 1"},
      {"CPDATTACHED= 1", 0, " 1"},
      {"CPDATTACHED=-2 1", 0, "-2 1"},
      {"CPDATTACHED=4294967295 1", -1, "4294967295 1"},
      {"CPDATTACHED=99999999999 1", -1, "99999999999 1"},
  };
  for (const auto &c : cases) {
    KivNetRecord record = Discover(WithPorts({c.item, "STRID=0 \"p\"", "PRINTERVIDPID=0 \"v\""}));
    ASSERT_EQ(record.vecDeviceSpecific.size(), 1u) << c.item;
    EXPECT_EQ(record.vecDeviceSpecific[0].iPortInfo, c.port) << c.item;
    EXPECT_EQ(record.vecDeviceSpecific[0].strCPDAttached, c.attached) << c.item;
  }
}

TEST_F(HcpParserTest, AFifthOccurrenceIsIgnored) {
  Items ports;
  for (int port = 0; port < 5; ++port) {
    const std::string n = std::to_string(port);
    ports.push_back("CPDATTACHED=" + n + " 1");
    ports.push_back("STRID=" + n + " \"product " + n + "\"");
    ports.push_back("PRINTERVIDPID=" + n + " \"vid:" + n + "\"");
  }
  KivNetRecord record = Discover(WithPorts(ports));
  ASSERT_EQ(record.vecDeviceSpecific.size(), 4u);
  for (int k = 0; k < 4; ++k) {
    EXPECT_EQ(record.vecDeviceSpecific[k].iPortInfo, k);
    EXPECT_EQ(record.vecDeviceSpecific[k].strProdID, "product " + std::to_string(k));
    EXPECT_EQ(record.vecDeviceSpecific[k].strPrintrVidPid, "vid:" + std::to_string(k));
  }
}

TEST_F(HcpParserTest, QuotedPortTexts) {
  // The closing quote is searched from the second byte of the text, so "" takes the text up to
  // the next quote further on.
  KivNetRecord record =
      Discover(WithPorts({"CPDATTACHED=0 1", "STRID=0 \"\"", "PRINTERVIDPID=0 \"v\""}));
  ASSERT_EQ(record.vecDeviceSpecific.size(), 1u);
  const std::string next = "PRINTERVIDPID=0 \"v\"";
  EXPECT_EQ(record.vecDeviceSpecific[0].strProdID,
            "\"" + std::string(1, static_cast<char>(next.size())) + "PRINTERVIDPID=0 ");

  // Only one leading space is dropped, and only from STRID.
  record = Discover(WithPorts({"CPDATTACHED=0 1", "STRID=0 \"  two\"", "PRINTERVIDPID=0 \" v\""}));
  ASSERT_EQ(record.vecDeviceSpecific.size(), 1u);
  EXPECT_EQ(record.vecDeviceSpecific[0].strProdID, " two");
  EXPECT_EQ(record.vecDeviceSpecific[0].strPrintrVidPid, " v");

  const struct {
    const char *name;
    Items ports;
    bool parses;
  } cases[] = {
      {"used slot, no closing quote",
       {"CPDATTACHED=0 1", "PRINTERVIDPID=0 \"v\"", "STRID=0 \"p"},
       false},
      {"unused slot, no closing quote",
       {"CPDATTACHED=0 0", "PRINTERVIDPID=0 \"v\"", "STRID=0 \"p"},
       true},
      {"used slot, no quote at all",
       {"CPDATTACHED=0 1", "PRINTERVIDPID=0 \"v\"", "STRID=0 p"},
       false},
      {"unused slot, no quote at all",
       {"CPDATTACHED=0 0", "PRINTERVIDPID=0 \"v\"", "STRID=0 p"},
       false},
      {"no space after the port token",
       {"CPDATTACHED=0 1", "PRINTERVIDPID=0 \"v\"", "STRID=0"},
       false},
  };
  for (const auto &c : cases) {
    // The case's items go last, so nothing after them can complete what they lack.
    Items items = WithPorts({});
    items.insert(items.end(), c.ports.begin(), c.ports.end());
    KivNetRecord out;
    EXPECT_EQ(Parse(DiscoveryAnswer(items), out), c.parses ? 0u : kParseFailed) << c.name;
  }
}

TEST_F(HcpParserTest, CpdAttachedWithoutASpaceFails) {
  Items items = WithPorts({"STRID=0 \"p\"", "PRINTERVIDPID=0 \"v\""});
  items.push_back("CPDATTACHED=0");
  KivNetRecord record;
  EXPECT_EQ(Parse(DiscoveryAnswer(items), record), kParseFailed);
}

// ---- Every prefix ----

TEST_F(HcpParserTest, EveryPrefixOfEveryAnswerThroughEveryOperation) {
  const Bytes answers[] = {
      DiscoveryAnswer(kItems),
      DiscoveryAnswer(
          WithPorts({"CPDATTACHED=2 1", "CPDATTACHED=3 0", "STRID=2 \"a\"", "STRID=3 \"b\"",
                     "PRINTERVIDPID=2 \"c\"", "PRINTERVIDPID=3 \"d\""})),
      ConfigurationAnswer(0, kConfigText),
      ConfigurationAnswer(5, ""),
  };
  size_t parsed = 0;
  for (const Bytes &answer : answers) {
    for (size_t length = 0; length <= answer.size(); ++length) {
      const Bytes prefix(answer.begin(), answer.begin() + static_cast<long>(length));
      for (const kivtest::ParseOperation &operation : kivtest::EveryParseOperation()) {
        auto parser = Holding(prefix);
        try {
          operation.run(*parser);
          ++parsed;
        } catch (const KivWrapperException &) {
        } catch (...) {
          ADD_FAILURE() << operation.name << " threw something else for " << length << " bytes";
        }
      }
    }
  }
  EXPECT_GT(parsed, 0u);
}

} // namespace
