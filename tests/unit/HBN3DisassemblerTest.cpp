// The parser's HBN3 side: classification, the four answers and the scan request as wire vectors,
// messages too short for each operation, and the value extraction the HCP parser builds on.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "Asm_Deasm/KivHBN3Disassembler.h"
#include "CommonFiles/KivNetBuffer.h"
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

// ---- Wire vectors ----

// A ping reply: port information 1, channel 0, command 0x80000003, no payload.
const char kPingReply[] = "48424E33 00000001 00000000 00000000 80000003 00000000";
// A ping sent by a device to the host (command without the reply bit).
const char kPingRequest[] = "48424E33 00000001 00000000 00000000 00000003 00000000";
// A request-scan reply on the scan channel.
const char kRequestScanReply[] = "48424E33 00000002 00000002 0000002A 80000005 00000000";
// A host-list entry answer whose outcome code is 2.
const char kHostListAnswer[] = "48424E33 00000003 00000000 00000000 80000004 00000004 00000002";
// A device's scan request: time stamp 256, report 08 07 06 05 04 03 02 01.
const char kScanRequest[] =
    "48424E33 00000001 00000002 00000100 00000005 00000008 0807060504030201";

// A status-cache answer: header, adapter 00 04 00 0A 1B 2C, reserved 00 00, address 192.168.1.20,
// 30 status bytes (zero bytes among them) whose bytes 26 and 27 are 12 AB.
Bytes StatusAnswer() {
  return Join({Hex("48424E33 00000001 00000005 00000000 80000001 0000002E"),
               Hex("0004000A1B2C 0000 C0A80114 0000001E"),
               Hex("00010203 04050607 08090A0B 0C0D0E0F 10111213 14151617 1819 12AB 1C1D")});
}

KivWrapperException ErrorOf(UInt32 function, KivWrapperError error) {
  return KivWrapperException(kClassHBN3Disassembler, function, error);
}

UInt32 CodeFor(UInt32 function) { return ErrorOf(function, COPY_ERROR).GetErrorCode(); }

// ---- Classification ----

TEST(HBN3DisassemblerTest, ClassifiesByTagAndReadsTheCommandWhereTheTagSaysItIs) {
  struct Case {
    const char *name;
    Bytes message;
    UInt32 headerType;
    UInt32 command;
  };
  const Case cases[] = {
      {"HBN3 ping reply", Hex(kPingReply), 0x48424E33, 0x80000003},
      // The same bytes under the HCP1 tag: the command is at 24, here outside the 24 bytes.
      {"HCP1, 24 bytes", Join({Text("HCP1"), Bytes(20, 0x11)}), 0x48435031, 0},
      {"HCP1 with command", Join({Text("HCP1"), Bytes(20, 0x11), Hex("00 01 02 03")}), 0x48435031,
       0x00010203},
      {"other tag", Join({Text("ABCD"), Bytes(12, 0), Hex("80000003 00000000")}), 0x41424344, 0},
      {"HBN3 cut before the command", Hex("48424E33 00000001 00000000"), 0x48424E33, 0},
      {"two bytes", Hex("4842"), 0, 0},
      {"empty", Bytes(), 0, 0},
  };
  for (const Case &c : cases) {
    auto parser = Holding(c.message);
    EXPECT_EQ(parser->GetHeaderType(), c.headerType) << c.name;
    EXPECT_EQ(parser->GetCommandType(), c.command) << c.name;
  }
}

TEST(HBN3DisassemblerTest, AnUnknownTagKeepsTheCommandOfTheMessageBefore) {
  KivNetBuffer buffer;
  KivNetBufferStorageGuard guard(buffer);
  KivHBN3Disassembler parser;
  EXPECT_EQ(parser.GetHeaderType(), 0u);
  EXPECT_EQ(parser.GetCommandType(), 0u);

  const Bytes ping = Hex(kPingReply);
  buffer.SetBuffer(ping.data(), static_cast<int>(ping.size()));
  parser.SetMessage(&buffer);
  const Bytes other = Join({Text("XYZW"), Bytes(12, 0), Hex("00000007 00000000")});
  buffer.SetBuffer(other.data(), static_cast<int>(other.size()));
  parser.SetMessage(&buffer);
  EXPECT_EQ(parser.GetHeaderType(), 0x58595A57u);
  EXPECT_EQ(parser.GetCommandType(), 0x80000003u);
}

TEST(HBN3DisassemblerTest, SetMessageRefusesANullContainerAndKeepsItsOwnCopy) {
  KivHBN3Disassembler parser;
  EXPECT_EQ(CodeOf([&] { parser.SetMessage(nullptr); }),
            ErrorOf(KivHBN3Disassembler::kFnSetMessage, BUFFER_NULL).GetErrorCode());
  EXPECT_EQ(CodeOf([&] { parser.SetMessage(nullptr); }), 0x704A1u);

  // The container is emptied and refilled after SetMessage; the parser still reads its copy.
  KivNetBuffer buffer;
  KivNetBufferStorageGuard guard(buffer);
  const Bytes ping = Hex(kPingReply);
  buffer.SetBuffer(ping.data(), static_cast<int>(ping.size()));
  parser.SetMessage(&buffer);
  const Bytes other = Hex(kScanRequest);
  buffer.SetBuffer(other.data(), static_cast<int>(other.size()));
  EXPECT_EQ(parser.ParsePingResponse().iStatus, 1u);
  buffer.ResetBuffer();
  EXPECT_EQ(parser.ParsePingResponse().iPortInfo, 1u);

  // A refused SetMessage keeps the message held before.
  EXPECT_NE(CodeOf([&] { parser.SetMessage(nullptr); }), 0u);
  EXPECT_EQ(parser.GetCommandType(), 0x80000003u);
  EXPECT_EQ(parser.ParsePingResponse().iStatus, 1u);
}

// ---- HBN3 answers ----

TEST(HBN3DisassemblerTest, PingAndRequestScanRepliesTellTheirOwnReplyCommandOnly) {
  struct Case {
    const char *vector;
    UInt32 port, channel, pingStatus, requestScanStatus;
  };
  const Case cases[] = {
      {kPingReply, 1, 0, 1, 0},
      {kPingRequest, 1, 0, 0, 0},
      {kRequestScanReply, 2, 2, 0, 1},
      {kHostListAnswer, 3, 0, 0, 0},
  };
  for (const Case &c : cases) {
    auto parser = Holding(Hex(c.vector));
    const HBNResponseInfo ping = parser->ParsePingResponse();
    EXPECT_EQ(ping.iPortInfo, c.port) << c.vector;
    EXPECT_EQ(ping.iChannelID, c.channel) << c.vector;
    EXPECT_EQ(ping.iStatus, c.pingStatus) << c.vector;
    EXPECT_EQ(ping.iTimeStamp, 0u);
    EXPECT_EQ(ping.iReport, 0u);
    EXPECT_TRUE(ping.strIPAddress.empty());
    const HBNResponseInfo scan = parser->ParseRequestScanResponse();
    EXPECT_EQ(scan.iPortInfo, c.port) << c.vector;
    EXPECT_EQ(scan.iChannelID, c.channel) << c.vector;
    EXPECT_EQ(scan.iStatus, c.requestScanStatus) << c.vector;
  }
}

TEST(HBN3DisassemblerTest, HostListAnswerPassesTheDeviceCodeOn) {
  auto parser = Holding(Hex(kHostListAnswer));
  const HBNResponseInfo info = parser->ParseHostListEntryResponse();
  EXPECT_EQ(info.iPortInfo, 3u);
  EXPECT_EQ(info.iChannelID, 0u);
  EXPECT_EQ(info.iStatus, 2u);

  auto large = Holding(Join({Hex(kPingReply), Hex("FFFFFFFE")}));
  EXPECT_EQ(large->ParseHostListEntryResponse().iStatus, 0xFFFFFFFEu);
}

TEST(HBN3DisassemblerTest, ScanRequestTakesTheReportLeastSignificantByteFirst) {
  auto parser = Holding(Hex(kScanRequest));
  const HBNResponseInfo info = parser->ParseRequestScan();
  EXPECT_EQ(info.iPortInfo, 1u);
  EXPECT_EQ(info.iChannelID, 2u);
  EXPECT_EQ(info.iTimeStamp, 256u);
  EXPECT_EQ(info.iStatus, 0u);
  // Least significant byte first, the order in which the builder writes it, on every host.
  EXPECT_EQ(info.iReport, 0x0102030405060708ull);
}

TEST(HBN3DisassemblerTest, StatusCacheAnswerGivesEveryField) {
  const Bytes answer = StatusAnswer();
  ASSERT_EQ(answer.size(), 70u);
  auto parser = Holding(answer);
  const StatCacheResponse r = parser->ParseStatusCacheResponse();
  EXPECT_EQ(r.iPortInfo, 1u);
  EXPECT_EQ(r.iChannelID, 5u);
  EXPECT_EQ(r.strAdapterUAA, "0004000a1b2c");
  EXPECT_EQ(r.strAdapterIPAddr, "192.168.1.20");
  EXPECT_EQ(r.iPayloadLength, 30);
  ASSERT_EQ(r.strPayload.size(), 30u);
  EXPECT_EQ(r.strPayload, std::string(answer.begin() + 40, answer.end()));
  EXPECT_EQ(r.strPayload[0], '\0');
  EXPECT_EQ(r.strPrinterID, "12ab");
  EXPECT_EQ(r.iReserved, 0);
}

TEST(HBN3DisassemblerTest, StatusCacheAnswersCutShortOrWithoutIdentifier) {
  const Bytes fixed = Join({Hex("48424E33 00000001 00000005 00000000 80000001 00000010"),
                            Hex("0004000A1B2C 0000 C0A80114")});
  struct Case {
    const char *name;
    Bytes message;
    int payloadLength;
    const char *printerID;
  };
  const Case cases[] = {
      {"no status bytes", Join({fixed, Hex("00000000")}), 0, ""},
      {"declares 40, holds 30", Join({fixed, Hex("00000028"), Bytes(30, 0x41)}), 0, ""},
      {"negative length", Join({fixed, Hex("FFFFFFFF"), Bytes(30, 0x41)}), 0, ""},
      {"largest negative", Join({fixed, Hex("80000000"), Bytes(30, 0x41)}), 0, ""},
      {"27 status bytes", Join({fixed, Hex("0000001B"), Bytes(27, 0x41)}), 27, ""},
      {"28 status bytes", Join({fixed, Hex("0000001C"), Bytes(26, 0), Hex("4F0A")}), 28, "4f0a"},
      {"more bytes than declared", Join({fixed, Hex("00000002"), Hex("0102 0304")}), 2, ""},
  };
  for (const Case &c : cases) {
    auto parser = Holding(c.message);
    const StatCacheResponse r = parser->ParseStatusCacheResponse();
    EXPECT_EQ(r.iPayloadLength, c.payloadLength) << c.name;
    EXPECT_EQ(r.strPayload.size(), static_cast<size_t>(c.payloadLength)) << c.name;
    EXPECT_EQ(r.strPrinterID, c.printerID) << c.name;
    EXPECT_EQ(r.strAdapterUAA, "0004000a1b2c") << c.name;
    EXPECT_EQ(r.strAdapterIPAddr, "192.168.1.20") << c.name;
  }
}

// Each operation refuses every message shorter than the bytes it reads, with its own number, and
// accepts the first length that holds them.
TEST(HBN3DisassemblerTest, ShortMessagesFailWithTheOperationsOwnNumber) {
  struct Case {
    const char *name;
    UInt32 function;
    size_t needed;
    std::function<void(KivHBN3Disassembler &)> run;
  };
  const Case cases[] = {
      {"ping", KivHBN3Disassembler::kFnParsePingResponse, 20,
       [](KivHBN3Disassembler &p) { p.ParsePingResponse(); }},
      {"request-scan reply", KivHBN3Disassembler::kFnParseRequestScanResponse, 20,
       [](KivHBN3Disassembler &p) { p.ParseRequestScanResponse(); }},
      {"host-list answer", KivHBN3Disassembler::kFnParseHostListEntryResponse, 28,
       [](KivHBN3Disassembler &p) { p.ParseHostListEntryResponse(); }},
      {"scan request", KivHBN3Disassembler::kFnParseRequestScan, 32,
       [](KivHBN3Disassembler &p) { p.ParseRequestScan(); }},
      {"status-cache answer", KivHBN3Disassembler::kFnParseStatusCacheResponse, 40,
       [](KivHBN3Disassembler &p) { p.ParseStatusCacheResponse(); }},
  };
  // Long enough for every operation; the status length field (bytes 36-39) declares 0.
  const Bytes full = Join({Hex(kScanRequest), Bytes(8, 0)});
  for (const Case &c : cases) {
    for (size_t length = 0; length <= c.needed; ++length) {
      auto parser = Holding(Bytes(full.begin(), full.begin() + static_cast<long>(length)));
      const UInt32 expected = length < c.needed ? CodeFor(c.function) : 0;
      EXPECT_EQ(CodeOf([&] { c.run(*parser); }), expected) << c.name << ", " << length << " bytes";
    }
  }
  EXPECT_EQ(CodeFor(KivHBN3Disassembler::kFnParseStatusCacheResponse), 0x708A3u);
  EXPECT_EQ(CodeFor(KivHBN3Disassembler::kFnParsePingResponse), 0x70AA3u);
  EXPECT_EQ(CodeFor(KivHBN3Disassembler::kFnParseRequestScan), 0x70CA3u);

  // 39 bytes of a status answer: one byte short of the fixed status fields.
  const Bytes answer = StatusAnswer();
  auto cut = Holding(Bytes(answer.begin(), answer.begin() + 39));
  EXPECT_EQ(CodeOf([&] { cut->ParseStatusCacheResponse(); }), 0x708A3u);
}

// Every prefix of every vector, through every operation: a result or a KivWrapperException,
// never a read outside the message (the sanitizer stage checks that).
TEST(HBN3DisassemblerTest, EveryPrefixOfEveryVectorThroughEveryOperation) {
  kivtest::FakeHostPlatform platform("192.168.1.10", "255.255.255.0", "192.168.1.1");
  kiv::HostPlatformOverrideScope scope(platform);
  const Bytes vectors[] = {Hex(kPingReply),      Hex(kPingRequest), Hex(kRequestScanReply),
                           Hex(kHostListAnswer), Hex(kScanRequest), StatusAnswer(),
                           Text("HCP1")};
  for (const Bytes &vector : vectors) {
    for (size_t length = 0; length <= vector.size(); ++length) {
      const Bytes prefix(vector.begin(), vector.begin() + static_cast<long>(length));
      for (const kivtest::ParseOperation &operation : kivtest::EveryParseOperation()) {
        auto parser = Holding(prefix);
        try {
          operation.run(*parser);
        } catch (const KivWrapperException &) {
        } catch (...) {
          ADD_FAILURE() << operation.name << " threw something else for " << length << " bytes";
        }
      }
    }
  }
}

// ---- copyData and getValue ----

TEST(HBN3DisassemblerTest, CopyDataTakesOneCharacterLessThanItsLength) {
  KivHBN3Disassembler parser;
  const UInt32 refused = CodeFor(KivHBN3Disassembler::kFnCopyData);
  EXPECT_EQ(refused, 0x70DA3u);
  struct Case {
    std::string text;
    int length, index;
    const char *expected; // nullptr: refused
  };
  const Case cases[] = {
      {"ABCDEF", 4, 1, "BCD"},
      {"ABCDEF", 0, 1, ""},
      {"ABCDEF", 1, 1, ""},
      {"ABCDEF", 99, 2, "CDEF"},
      {"ABCDEF", 7, 0, "ABCDEF"},
      {"ABCDEF", 3, 6, ""},
      {"ABCDEF", 0, 6, ""},
      {"ABCDEF", 3, 7, nullptr},
      {"ABCDEF", -1, 0, nullptr},
      {"ABCDEF", 2, -1, nullptr},
      {"", 1, 0, ""},
      {"", 1, 1, nullptr},
  };
  for (const Case &c : cases) {
    std::string out;
    const UInt32 code = CodeOf([&] { out = parser.copyData(c.text, c.length, c.index); });
    if (c.expected == nullptr) {
      EXPECT_EQ(code, refused) << c.text << " " << c.length << " " << c.index;
    } else {
      EXPECT_EQ(code, 0u) << c.text << " " << c.length << " " << c.index;
      EXPECT_EQ(out, c.expected) << c.text << " " << c.length << " " << c.index;
    }
  }
  const std::string withZeros("a\0b\0c", 5);
  EXPECT_EQ(parser.copyData(withZeros, 5, 0), std::string("a\0b\0", 4));
}

// getValue on a held message; the value starts at `start`.
struct ValueCase {
  const char *name;
  Bytes message;
  int start;
  bool addressMode;
  std::string expected;
  bool refused;
};

TEST(HBN3DisassemblerTest, GetValueFollowsTheItemValueRules) {
  const std::string forty(40, 'x');
  const ValueCase cases[] = {
      {"address stops at a key", Text("=10.0.0.5MACUAA"), 1, true, "10.0.0.5", false},
      {"address stops at a length byte", Join({Text("=10.0.0.5"), Hex("0D"), Text("ab")}), 1, true,
       "10.0.0.5", false},
      {"address stops at a space", Text("=10.0.0.5 1"), 1, true, "10.0.0.5", false},
      {"ordinary run takes the length byte", Join({Text("=10.0.0.5"), Hex("0D"), Text("ab")}), 1,
       false,
       "10.0.0.5\x0D"
       "ab",
       false},
      {"ordinary run keeps the space before a key", Text("=printer 5 IPNAME"), 1, false,
       "printer 5 ", false},
      {"zero bytes belong to the run", Join({Text("=a"), Hex("00 00"), Text("bC")}), 1, false,
       std::string("a\0\0b", 4), false},
      {"bytes from 0x80 never stop it", Join({Text("=caf"), Hex("C3 A9 C9"), Text("X")}), 1, false,
       "caf\xC3\xA9\xC9", false},
      {"quoted keeps uppercase", Text("=\"Printer One\"X"), 1, false, "Printer One", false},
      {"quoted comes first in address mode", Text("=\"Ab.1\"X"), 1, true, "Ab.1", false},
      {"empty quotes", Text("=\"\"X"), 1, false, "", false},
      {"no closing quote", Text("=\"Printer"), 1, false, "", true},
      {"forty letters give 31", Text("=" + forty + "Q"), 1, false, std::string(31, 'x'), false},
      {"31 digits in address mode", Text("=" + std::string(35, '1')), 1, true, std::string(31, '1'),
       false},
      {"run ends with the message", Text("=abc"), 1, false, "abc", false},
      {"value at the very end", Text("KEY="), 4, false, "", false},
      {"uppercase at once", Text("=ABC"), 1, false, "", false},
      {"start past the end", Text("KEY"), 4, false, "", true},
      {"negative start", Text("KEY"), -1, false, "", true},
  };
  for (const ValueCase &c : cases) {
    auto parser = Holding(c.message);
    const std::string stream(c.message.begin(), c.message.end());
    parser->isAddress(c.addressMode);
    std::string value;
    const UInt32 code = CodeOf([&] { value = parser->getValue(stream, c.start); });
    if (c.refused) {
      EXPECT_EQ(code, CodeFor(KivHBN3Disassembler::kFnCopyData)) << c.name;
    } else {
      EXPECT_EQ(code, 0u) << c.name;
      EXPECT_EQ(value, c.expected) << c.name;
    }
  }
}

} // namespace
