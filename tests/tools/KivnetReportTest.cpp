// kivnet's output: JSON string escaping of arbitrary device bytes, terminal-safe texts, and the
// discovery table and document written out in full.
#include <gtest/gtest.h>

#include <string>

#include "tools/kivnet/Report.h"

namespace {

using kivnet::JsonString;
using kivnet::Printable;

std::string Bytes(std::initializer_list<int> values) {
  std::string bytes;
  for (int v : values) {
    bytes += static_cast<char>(v);
  }
  return bytes;
}

TEST(KivnetReport, JsonStringEscapesWhatJsonRequiresAndKeepsValidUtf8) {
  const struct {
    std::string in;
    const char *out;
  } cases[] = {
      {"", R"("")"},
      {"kivsim-1", R"("kivsim-1")"},
      {"say \"hi\"", R"("say \"hi\"")"},
      {"C:\\path", R"("C:\\path")"},
      {"a\nb\rc\td\be\ff", R"("a\nb\rc\td\be\ff")"},
      {std::string("zero\0byte", 9), R"("zero\u0000byte")"},
      {Bytes({0x01, 0x1F, 0x7F}), R"("\u0001\u001f\u007f")"},
      {"/</script>", R"("/</script>")"},
      // Valid UTF-8 of two, three and four bytes passes through.
      {"caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x96\xA8",
       "\"caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x96\xA8\""},
      // Line and paragraph separators.
      {"\xE2\x80\xA8\xE2\x80\xA9", R"("\u2028\u2029")"},
      // Bytes that are no UTF-8: the Latin-1 character of the same value.
      {Bytes({0xE9}), R"("\u00e9")"},
      {Bytes({0xFF, 0x41}), R"("\u00ffA")"},
      {Bytes({0x80}), R"("\u0080")"},
      {Bytes({0xC3}), R"("\u00c3")"},                                     // cut short at the end
      {Bytes({0xC3, 0x41}), R"("\u00c3A")"},                              // continuation missing
      {Bytes({0xC0, 0xAF}), R"("\u00c0\u00af")"},                         // overlong "/"
      {Bytes({0xED, 0xA0, 0x80}), R"("\u00ed\u00a0\u0080")"},             // surrogate
      {Bytes({0xF4, 0x90, 0x80, 0x80}), R"("\u00f4\u0090\u0080\u0080")"}, // past U+10FFFF
  };
  for (const auto &c : cases) {
    EXPECT_EQ(JsonString(c.in), c.out);
  }
}

TEST(KivnetReport, PrintableKeepsTerminalsSafe) {
  const struct {
    std::string in;
    const char *out;
  } cases[] = {
      {"KivSim Printer 1", "KivSim Printer 1"},
      {"\x1B[2J\x1B]0;owned\x07", "\\x1B[2J\\x1B]0;owned\\x07"},
      {"name\r\n", "name\\x0D\\x0A"},
      {std::string("a\0b", 3), "a\\x00b"},
      {"back\\slash", "back\\\\slash"},
      {"caf\xC3\xA9", "caf\xC3\xA9"},
      {"\xC2\x9B"
       "31m",
       "\\xC2\\x9B31m"}, // C1 control sequence introducer
      {Bytes({0xFF}), "\\xFF"},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(Printable(c.in), c.out);
  }
}

kivnet::Discovery SampleDiscovery() {
  kivnet::Discovery discovery;
  kivnet::FoundDevice device;
  device.from = "127.0.0.10";
  device.fromPort = 5353;
  KivNetRecord &r = device.record;
  r.strIPAddr = "127.0.0.10";
  r.strIPNetMask = "255.0.0.0";
  r.strIPGateway = "127.0.0.1";
  r.strIPName = "lab \"printer\"\n";
  r.strMacUaa = "ET024b49560001";
  r.strMacLaa = "000000000000";
  r.strAdapterType = "ethernet";
  r.strAdapterName = "KivSim adapter 1";
  r.strIPAddrSrc = "static";
  r.strOEMByte = "0";
  r.strPwdSet = "FALSE";
  DeviceSpecific port;
  port.iFlag = 1;
  port.iPortInfo = 1;
  port.strProdID = "Model \x1B[31mX";
  port.strPrintrVidPid = "FFFF:0001";
  r.vecDeviceSpecific.push_back(port);
  discovery.devices.push_back(device);
  discovery.unread.push_back(kivnet::UnreadAnswer{"127.0.0.12", 5353, 40, 0x0A0707A3});
  discovery.datagrams = 3;
  discovery.duplicates = 1;
  discovery.seconds = 1.25;
  return discovery;
}

TEST(KivnetReport, DiscoveryTable) {
  EXPECT_EQ(kivnet::DiscoveryTable(SampleDiscovery()),
            "ADDRESS     MAC             NAME               PRODUCT          PORTS\n"
            "127.0.0.10  ET024b49560001  lab \"printer\"\\x0A  Model \\x1B[31mX  1\n"
            "1 device in 1.2 s (1 repeated answer ignored)\n"
            "unreadable answer from 127.0.0.12:5353 (40 bytes): 0x0A0707A3 "
            "KivHBN3Disassembler::ParseHCPResponse: COPY_ERROR, a copy failed or the message "
            "could not be parsed\n");
  EXPECT_EQ(kivnet::DiscoveryTable(kivnet::Discovery()), "no device answered in 0.0 s\n");
}

TEST(KivnetReport, DiscoveryDocument) {
  EXPECT_EQ(kivnet::DiscoveryJson(SampleDiscovery()), R"({
  "devices": [
    {
      "address": "127.0.0.10",
      "netmask": "255.0.0.0",
      "gateway": "127.0.0.1",
      "name": "lab \"printer\"\n",
      "mac": "ET024b49560001",
      "macLaa": "000000000000",
      "adapterType": "ethernet",
      "adapterName": "KivSim adapter 1",
      "addressSource": "static",
      "oemByte": "0",
      "passwordSet": "FALSE",
      "ports": [
        {
          "port": 1,
          "product": "Model \u001b[31mX",
          "vidPid": "FFFF:0001"
        }
      ],
      "answeredFrom": "127.0.0.10",
      "answeredPort": 5353
    }
  ],
  "unreadable": [
    {
      "from": "127.0.0.12",
      "port": 5353,
      "bytes": 40,
      "code": "0x0A0707A3",
      "meaning": "KivHBN3Disassembler::ParseHCPResponse: COPY_ERROR, a copy failed or the message could not be parsed"
    }
  ],
  "datagrams": 3,
  "duplicates": 1,
  "seconds": 1.250
}
)");
  EXPECT_EQ(kivnet::DiscoveryJson(kivnet::Discovery()), R"({
  "devices": [],
  "unreadable": [],
  "datagrams": 0,
  "duplicates": 0,
  "seconds": 0.000
}
)");
}

TEST(KivnetReport, StatusShowsTheStatusBytesInHex) {
  kivnet::StatusAnswer answer;
  answer.from = "127.0.0.10";
  answer.fromPort = 5353;
  answer.status.strAdapterUAA = "024b49560001";
  answer.status.strAdapterIPAddr = "127.0.0.10";
  answer.status.strPrinterID = "0101";
  answer.status.iPayloadLength = 3;
  answer.status.strPayload = std::string("\x00\x01\xFF", 3);
  EXPECT_EQ(kivnet::StatusJson(answer), R"({
  "from": "127.0.0.10",
  "port": 5353,
  "portInfo": 0,
  "channel": 0,
  "adapterMac": "024b49560001",
  "adapterAddress": "127.0.0.10",
  "printerId": "0101",
  "statusLength": 3,
  "statusHex": "0001ff"
}
)");
  EXPECT_NE(kivnet::StatusText(answer).find("00 01 FF\n"), std::string::npos)
      << kivnet::StatusText(answer);
}

} // namespace
