// kivnet's output: whatever bytes a device sends end up escaped, in JSON strings, in the discovery
// table (where a terminal shows them) and in the discovery document.
#include <gtest/gtest.h>

#include <string>

#include "tools/kivnet/Report.h"

namespace {

TEST(KivnetReport, JsonStringEscapesHostileBytesAndKeepsValidUtf8) {
  const struct {
    std::string in;
    const char *out;
  } cases[] = {
      {"say \"hi\" C:\\path", R"("say \"hi\" C:\\path")"},
      {"a\nb\rc\td\be\ff", R"("a\nb\rc\td\be\ff")"},
      {std::string("\0\x01\x1F\x7F", 4), R"("\u0000\u0001\u001f\u007f")"},
      {"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x96\xA8", "\"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x96\xA8\""},
      {"\xE2\x80\xA8\xE2\x80\xA9", R"("\u2028\u2029")"}, // line ends in JavaScript
      // Bytes that are no UTF-8 become the Latin-1 character of the same value.
      {"\xE9\xFF\x41\x80", R"("\u00e9\u00ffA\u0080")"},
      {"\xC3", R"("\u00c3")"},                               // cut short at the end
      {"\xC0\xAF", R"("\u00c0\u00af")"},                     // overlong "/"
      {"\xED\xA0\x80", R"("\u00ed\u00a0\u0080")"},           // surrogate
      {"\xF4\x90\x80\x80", R"("\u00f4\u0090\u0080\u0080")"}, // past U+10FFFF
  };
  for (const auto &c : cases) {
    EXPECT_EQ(kivnet::JsonString(c.in), c.out);
  }
}

// A device whose name and product try to steer a terminal or end a JSON string, an unreadable
// answer and a repeated one: the table shows no raw control byte, the document escapes the texts.
TEST(KivnetReport, DiscoveryTableAndDocumentEscapeTheDeviceTexts) {
  kivnet::Discovery discovery;
  kivnet::FoundDevice device;
  device.from = device.record.strIPAddr = "127.0.0.10";
  device.record.strMacUaa = "ET024b49560001";
  device.record.strIPName = "lab \"printer\"\n\\";
  DeviceSpecific port;
  port.strProdID = "Model \x1B[31mX\xC2\x9B\xFF";
  device.record.vecDeviceSpecific = {port, port};
  discovery.devices.push_back(device);
  discovery.unread.push_back(kivnet::UnreadAnswer{"127.0.0.12", 5353, 40, 0x0A0707A3});
  discovery.duplicates = 1;
  discovery.seconds = 1.25;
  EXPECT_EQ(
      kivnet::DiscoveryTable(discovery),
      "ADDRESS     MAC             NAME                 PRODUCT                      PORTS\n"
      "127.0.0.10  ET024b49560001  lab \"printer\"\\x0A\\\\  Model \\x1B[31mX\\xC2\\x9B\\xFF  2\n"
      "1 device in 1.2 s (1 repeated answer ignored)\n"
      "unreadable answer from 127.0.0.12:5353 (40 bytes): 0x0A0707A3 "
      "KivHBN3Disassembler::ParseHCPResponse: COPY_ERROR, a copy failed or the message "
      "could not be parsed\n");
  const std::string json = kivnet::DiscoveryJson(discovery);
  for (const char *member :
       {R"("name": "lab \"printer\"\n\\",)", "\"product\": \"Model \\u001b[31mX\xC2\x9B\\u00ff\",",
        R"("answeredFrom": "127.0.0.10",)", R"("code": "0x0A0707A3",)", R"("duplicates": 1,)"}) {
    EXPECT_NE(json.find(member), std::string::npos) << member << " in\n" << json;
  }
}

} // namespace
