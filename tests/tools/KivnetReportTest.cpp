// kivnet's output: whatever bytes a device sends end up escaped, in JSON strings, in the discovery
// listing (where a terminal shows them) and in the JSON documents and lines; values that are
// numbers and booleans are written as such.
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

// A device whose name and product try to steer a terminal or end a JSON string.
kivnet::FoundDevice HostileDevice() {
  kivnet::FoundDevice device;
  device.from = device.record.strIPAddr = "127.0.0.10";
  device.fromPort = 5353;
  device.record.strMacUaa = "ET024b49560001";
  device.record.strIPName = "lab \"printer\"\n\\";
  device.record.strOEMByte = "7";
  device.record.strPwdSet = "TRUE";
  DeviceSpecific port;
  port.iPortInfo = 2;
  port.strProdID = "Model \x1B[31mX\xC2\x9B\xFF";
  device.record.vecDeviceSpecific = {port, port};
  return device;
}

TEST(KivnetReport, DiscoveryListingEscapesTheDeviceTextsAndCountsWhatWasPassedOver) {
  kivnet::Discovery discovery;
  discovery.devices.push_back(HostileDevice());
  discovery.unread.push_back(kivnet::UnreadAnswer{"127.0.0.12", 5353, 1024, 0x0A0707A3, true});
  discovery.duplicates = 1;
  discovery.seconds = 1.25;
  EXPECT_EQ(kivnet::DiscoveryHeader() + kivnet::DiscoveryRow(discovery.devices[0]) +
                kivnet::DiscoverySummary(discovery),
            "ADDRESS          MAC             NAME                      PRODUCT                  "
            "     PORTS\n"
            "127.0.0.10       ET024b49560001  lab \"printer\"\\x0A\\\\       Model "
            "\\x1B[31mX\\xC2\\x9B\\xFF   2\n"
            "1 device in 1.2 s (1 repeated answer ignored), 1 unreadable answer\n");
  EXPECT_EQ(kivnet::UnreadLine(discovery.unread[0]),
            "unreadable answer from 127.0.0.12:5353 (1024 bytes, the receive limit: possibly cut): "
            "the HCP answer could not be read (COPY_ERROR) [0x0A0707A3]\n");
  discovery.devices.clear();
  discovery.unread.clear();
  EXPECT_EQ(kivnet::DiscoverySummary(discovery), "no device answered in 1.2 s (1 repeated answer "
                                                 "ignored)\n");
}

// The document and the lines hold the same members; numbers, booleans and null are JSON's own.
TEST(KivnetReport, DiscoveryJsonTypesAndOneObjectALine) {
  kivnet::Discovery discovery;
  discovery.devices.push_back(HostileDevice());
  kivnet::FoundDevice plain = HostileDevice();
  plain.record.strOEMByte = "x1";
  plain.record.strPwdSet = "";
  plain.possiblyCut = true;
  discovery.devices.push_back(plain);
  discovery.unread.push_back(kivnet::UnreadAnswer{"127.0.0.12", 5353, 40, 0x0A0707A3, false});
  discovery.datagrams = 3;
  const std::string document = kivnet::DiscoveryJson(discovery);
  const std::string first = kivnet::DeviceJsonLine(discovery.devices[0]);
  const std::string second = kivnet::DeviceJsonLine(discovery.devices[1]);
  for (const std::string &json : {document, first}) {
    for (const char *member :
         {R"("name": "lab \"printer\"\n\\",)", R"("product": "Model \u001b[31mX)",
          R"("oemByte": 7,)", R"("passwordSet": true,)", R"("port": 2,)",
          R"("answeredPort": 5353,)", R"("possiblyCut": false)"}) {
      EXPECT_NE(json.find(member), std::string::npos) << member << " in\n" << json;
    }
  }
  for (const char *member : {R"("oemByte": null,)", R"("passwordSet": null,)",
                             R"("possiblyCut": true}})", R"({"kind": "device", "device": {)"}) {
    EXPECT_NE(second.find(member), std::string::npos) << member << " in\n" << second;
  }
  for (const std::string &line : {first, second, kivnet::UnreadJsonLine(discovery.unread[0]),
                                  kivnet::SummaryJsonLine(discovery)}) {
    EXPECT_EQ(line.find('\n'), line.size() - 1) << line;
  }
  EXPECT_EQ(kivnet::SummaryJsonLine(discovery),
            "{\"kind\": \"summary\", \"devices\": 2, \"unreadable\": 1, \"datagrams\": 3, "
            "\"duplicates\": 0, \"limitReached\": false, \"seconds\": 0.000}\n");
  EXPECT_NE(document.find(R"("code": "0x0A0707A3",)"), std::string::npos) << document;
}

TEST(KivnetReport, ErrorObjectHasNullForWhatIsNotKnown) {
  kivnet::ErrorReport report;
  report.text = "no ping reply from 127.0.0.99:5353 within 1.0 s";
  report.kind = "no-answer";
  report.meaning = "the device did not answer within the wait";
  EXPECT_EQ(kivnet::ErrorJson(report, true),
            "{\"error\": \"no ping reply from 127.0.0.99:5353 within 1.0 s\", \"kind\": "
            "\"no-answer\", \"function\": null, \"code\": null, \"meaning\": \"the device did not "
            "answer within the wait\", \"system\": null, \"exitStatus\": 1}\n");
  report.function = "SendTo";
  report.code = 0x0A0000B7;
  report.system = "Network is unreachable";
  const std::string pretty = kivnet::ErrorJson(report, false);
  for (const char *member : {"\n  \"function\": \"SendTo\",\n", "\n  \"code\": \"0x0A0000B7\",\n",
                             "\n  \"system\": \"Network is unreachable\",\n"}) {
    EXPECT_NE(pretty.find(member), std::string::npos) << member << " in\n" << pretty;
  }
}

} // namespace
