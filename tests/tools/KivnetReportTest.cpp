// kivnet's output: whatever bytes a device sends end up escaped, in JSON strings, in the discovery
// listing (where a terminal shows them) and in the JSON documents and lines; values that are
// numbers and booleans are written as such.
#include <gtest/gtest.h>

#include <algorithm>
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

// A frame's dump shows every byte of a short frame as hexdump -C would, control and high bytes
// as dots; a longer frame shows its first 64 bytes and says so.
TEST(KivnetReport, ChannelFramesAsHexDumpsAndJsonLines) {
  kivnet::ChannelFrame frame;
  frame.number = 2;
  frame.length = 18;
  frame.head = std::string("HBN3\x00\x1b\x7f\x80\xff", 9) + "|ok \"x\"\n\\";
  frame.seconds = 0.0125;
  EXPECT_EQ(kivnet::ChannelFrameText(frame),
            "frame 2: 18 bytes\n"
            "  0000  48 42 4e 33 00 1b 7f 80  ff 7c 6f 6b 20 22 78 22  |HBN3.....|ok \"x\"|\n"
            "  0010  0a 5c                                             |.\\|\n");
  EXPECT_EQ(kivnet::ChannelFrameJson(frame),
            "{\"kind\": \"frame\", \"frame\": 2, \"length\": 18, \"seconds\": 0.013, \"hex\": "
            "\"48424e33001b7f80ff7c6f6b2022782"
            "20a5c\", \"hexBytes\": 18}\n");

  frame.number = 1;
  frame.length = 70000;
  frame.head.assign(kivnet::kFrameHeadBytes, 'A');
  const std::string text = kivnet::ChannelFrameText(frame);
  EXPECT_EQ(text.substr(0, text.find('\n') + 1), "frame 1: 70000 bytes (the first 64 shown)\n");
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 5);
  EXPECT_NE(text.find("\n  0030  41 41 "), std::string::npos) << text;
  EXPECT_NE(kivnet::ChannelFrameJson(frame).find("\"length\": 70000,"), std::string::npos);
  EXPECT_NE(kivnet::ChannelFrameJson(frame).find("\"hexBytes\": 64}"), std::string::npos);

  frame.length = 1;
  frame.head = "\x41";
  EXPECT_EQ(kivnet::ChannelFrameText(frame),
            "frame 1: 1 byte\n"
            "  0000  41                                                |A|\n");
}

TEST(KivnetReport, ChannelOpenSendAndEnd) {
  EXPECT_EQ(kivnet::ChannelOpenedText("127.0.0.10", 9100, 3),
            "opened the media channel of 127.0.0.10:9100\n");
  EXPECT_EQ(kivnet::ChannelOpenedJson("127.0.0.10", 9100, 1),
            "{\"kind\": \"open\", \"address\": \"127.0.0.10\", \"port\": 9100, \"interface\": "
            "\"hid\"}\n");
  EXPECT_EQ(kivnet::ChannelSentText(std::string("\x1b\x45", 2)), "sent 2 bytes: 1b 45\n");
  EXPECT_EQ(kivnet::ChannelSentText(std::string(20, '\x01')),
            "sent 20 bytes: 01 01 01 01 01 01 01 01 01 01 01 01 01 01 01 01 ...\n");
  EXPECT_EQ(kivnet::ChannelSentJson(std::string("\x00\xff", 2)),
            "{\"kind\": \"sent\", \"bytes\": 2, \"hex\": \"00ff\"}\n");

  const struct {
    kivnet::ChannelEndReason reason;
    int signal;
    const char *text;
    const char *json;
  } cases[] = {
      {kivnet::ChannelEndReason::kCount, 0, "the count was reached", "\"count\""},
      {kivnet::ChannelEndReason::kClosed, 0, "the device closed the channel", "\"closed\""},
      {kivnet::ChannelEndReason::kQuiet, 0, "no frame for 1.5 s", "\"quiet\""},
      {kivnet::ChannelEndReason::kListenerIdle, 0,
       "the listener ended after more than 20 s without a frame", "\"listener-idle\""},
      {kivnet::ChannelEndReason::kInterrupted, 2, "interrupted by SIGINT", "\"interrupted\""},
      {kivnet::ChannelEndReason::kInterrupted, 15, "interrupted by SIGTERM", "\"interrupted\""},
  };
  for (const auto &c : cases) {
    kivnet::ChannelEnd end;
    end.reason = c.reason;
    end.signal = c.signal;
    end.frames = 1;
    end.bytes = 48;
    end.seconds = 2.04;
    end.quietTenths = 15;
    EXPECT_EQ(kivnet::ChannelEndText(end),
              "1 frame (48 bytes) in 2.0 s; " + std::string(c.text) + "; channel closed\n");
    const std::string signal = c.signal == 2    ? "\"SIGINT\""
                               : c.signal == 15 ? "\"SIGTERM\""
                                                : "null";
    EXPECT_EQ(kivnet::ChannelEndJson(end),
              "{\"kind\": \"end\", \"reason\": " + std::string(c.json) +
                  ", \"frames\": 1, \"bytes\": 48, \"seconds\": "
                  "2.040, \"signal\": " +
                  signal + "}\n");
  }
}

TEST(KivnetReport, MacRelocationAndVersion) {
  kivnet::MacAnswer answer;
  answer.address = "127.0.0.10";
  answer.waitSeconds = 2;
  answer.seconds = 2.0;
  EXPECT_EQ(kivnet::MacText(answer), "no MAC address from 127.0.0.10 within 2 s\n");
  EXPECT_NE(kivnet::MacJson(answer).find("\"mac\": null,\n  \"macEt\": null,"), std::string::npos);
  answer.mac = "024b49560003";
  answer.seconds = 0.01;
  EXPECT_EQ(kivnet::MacText(answer),
            "127.0.0.10 answered in 0.0 s: MAC 024b49560003 (ET024b49560003)\n");
  EXPECT_NE(kivnet::MacJson(answer).find("\"mac\": \"024b49560003\",\n  \"macEt\": "
                                         "\"ET024b49560003\","),
            std::string::npos);

  kivnet::RelocationPlan plan;
  plan.mac = "024b49560003";
  plan.store = "/tmp/store";
  plan.given = "127.0.0.12";
  plan.waitSeconds = 1;
  kivnet::RelocationResult result;
  result.seconds = 3.0;
  EXPECT_EQ(kivnet::RelocationText(plan, result),
            "024b49560003 not found in 3.0 s: no answer with that MAC from 127.0.0.12 (the "
            "address given) or from a web server DNS-SD found in 1 s\n");
  plan.remembered = "127.0.0.9";
  EXPECT_NE(kivnet::RelocationText(plan, result)
                .find("from the remembered address 127.0.0.9, 127.0.0.12 (the address given)"),
            std::string::npos);
  result.found = true;
  result.address = "127.0.0.60";
  result.remembered = true;
  result.seconds = 0.01;
  EXPECT_EQ(kivnet::RelocationText(plan, result),
            "024b49560003 is at 127.0.0.60 (found in 0.0 s; the address given was 127.0.0.12)\n"
            "remembered in the device store /tmp/store\n");
  result.address = "127.0.0.12";
  result.remembered = false;
  EXPECT_EQ(kivnet::RelocationText(plan, result),
            "024b49560003 is at 127.0.0.12, the address given (confirmed in 0.0 s)\n"
            "not remembered: the device store /tmp/store could not be written\n");
  const std::string json = kivnet::RelocationJson(plan, result);
  for (const char *member :
       {"\"found\": true,", "\"address\": \"127.0.0.12\",", "\"rememberedBefore\": \"127.0.0.9\",",
        "\"remembered\": false,", "\"waitSeconds\": 1,"}) {
    EXPECT_NE(json.find(member), std::string::npos) << member << " in\n" << json;
  }

  EXPECT_EQ(kivnet::VersionText("1.0.0", "1.0.0"), "kivnet (KivNetworkComm) 1.0.0\n");
  EXPECT_EQ(kivnet::VersionText("1.0.0", "1.2.0"),
            "kivnet (KivNetworkComm) 1.0.0\n"
            "running library libKivNetworkComm 1.2.0 (kivnet was built with the 1.0.0 headers)\n");
}

} // namespace
