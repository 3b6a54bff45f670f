// The exported message functions through the shared library: byte-exact messages of the builders,
// the result codes of every builder and parser and of the buffer handle functions, messages too
// short for their parser, and which record fields each parser writes with which values. The
// functions that depend on the host's network settings run with a scripted host in
// tests/unit/HCPTest.cpp and tests/unit/HcpAnswerParserTest.cpp.
#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "Interfaces/KivNetworkComm.h"
#include "support/MessageVectors.h"
#include "support/ScopedContainer.h"

using namespace kivtest;

namespace {

constexpr UInt32 kHBN3 = 0x48424E33;
constexpr UInt32 kHCP1 = 0x48435031;

unsigned char gUniqueID[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
char gNoName[1] = {0x00};
char gHostName[5] = {0x04, 'H', 'O', 'S', 'T'};

typedef std::function<UInt32(UInt32 headerType, HANDLE container)> Call;

// ---- Building ----

std::string gNoPin, gPin = "1234";

// Each builder by its function number NN, and the message it makes.
const struct Builder {
  UInt32 nn;
  const char *name;
  Call build;
  Bytes expected;
} kBuilders[] = {
    {0x05, "discovery query", [](UInt32 t, HANDLE h) { return CreateDiscovery(t, h); },
     Hex("0000 0000 0001 0000 0000 0000 00 5F686F73742D636F6E666967 04 5F756470"
         "05 6C6F63616C 00 0021 0001")},
    {0x06, "ping", [](UInt32 t, HANDLE h) { return CreatePing(t, 7, h); },
     Hex("48424E33 00000000 00000000 00000007 00000003 00000000")},
    {0x07, "status-cache request",
     [](UInt32 t, HANDLE h) { return CreateStatusCacheRequest(t, 0x0A0B0C0D, 5, 0x01020304, h); },
     Hex("48424E33 0A0B0C0D 00000005 01020304 00000001 00000000")},
    {0x08, "host-list entry with name and PIN",
     [](UInt32 t, HANDLE h) {
       return CreateHostListEntry(t, true, 1, 1, 2, gHostName, gPin, gUniqueID, 0x04E4, h);
     },
     Hex("48424E33 00000001 00000002 00000002 00000004 00000016"
         "00000001 31323334 001122334455 04E4 0004 484F5354")},
    {0x08, "host-list entry, no name, no PIN",
     [](UInt32 t, HANDLE h) {
       return CreateHostListEntry(t, false, 1, 1, 2, gNoName, gNoPin, gUniqueID, 0x04E4, h);
     },
     Hex("48424E33 00000001 00000002 00000002 00000004 00000012"
         "00000001 30303030 001122334455 04E4 0000")},
    {0x09, "request scan",
     [](UInt32 t, HANDLE h) { return CreateRequestScan(t, false, 1, 2, 0x0102030405060708, h); },
     Hex("48424E33 00000001 00000002 00000002 00000005 00000008 0807060504030201")},
    {0x0A, "request-scan reply",
     [](UInt32 t, HANDLE h) { return CreateRequestScanReply(t, false, 1, 2, h); },
     Hex("48424E33 00000001 00000002 00000002 80000005 00000000")},
};

TEST(MessageFunctions, EachBuilderReplacesTheMessageWithItsOwnForBothHeaderTypes) {
  // A length byte of 200 is 200 name bytes, not a negative count; only four PIN characters
  // travel.
  std::vector<char> name(201, 'a');
  name[0] = static_cast<char>(200);
  std::string pin = "123456";
  ScopedContainer container;
  ASSERT_EQ(
      CreateHostListEntry(kHBN3, true, 1, 0, 0, name.data(), pin, gUniqueID, 0, container.handle()),
      0u);
  EXPECT_EQ(pin, "123456");
  const Bytes bytes = container.bytes();
  ASSERT_EQ(bytes.size(), 24u + 18u + 200u);
  EXPECT_EQ(ToHex(Bytes(bytes.begin() + 28, bytes.begin() + 42)),
            "31 32 33 34 00 11 22 33 44 55 00 00 00 C8");
  for (const Builder &b : kBuilders) {
    for (UInt32 headerType : {kHBN3, kHCP1}) {
      SCOPED_TRACE(testing::Message() << b.name << ", header type " << std::hex << headerType);
      ASSERT_EQ(b.build(headerType, container.handle()), 0u);
      EXPECT_EQ(ToHex(container.bytes()), ToHex(b.expected));
    }
  }
}

// ---- Result codes ----

// Every message function by its number NN; the parsers write into records of their own.
std::map<UInt32, Call> EveryFunction() {
  static HBNResponseInfo info;
  static StatCacheResponse status;
  static KivNetRecord record;
  std::map<UInt32, Call> all = {
      {0x0B,
       [](UInt32 t, HANDLE h) {
         return CreateIPConfig(t, gPin, gPin, gPin, gPin, gPin, gPin, gPin, h);
       }},
      {0x0C, [](UInt32 t, HANDLE h) { return ParseHCPResponse(t, h, 0x80000006, record); }},
      {0x0D, [](UInt32 t, HANDLE h) { return ParsePingResponse(t, h, info); }},
      {0x0E, [](UInt32 t, HANDLE h) { return ParseRequestScanResponse(t, h, info); }},
      {0x0F, [](UInt32 t, HANDLE h) { return ParseHostListEntryResponse(t, h, info); }},
      {0x10, [](UInt32 t, HANDLE h) { return ParseStatusCacheResponse(t, h, status); }},
      {0x35, [](UInt32 t, HANDLE h) { return ParseRequestScan(t, h, info); }},
  };
  for (const Builder &b : kBuilders) {
    all.insert({b.nn, b.build});
  }
  return all;
}

TEST(MessageFunctions, BadBufferHandlesGiveKind01) {
  // A block of the container's size whose class identifier field says something else.
  alignas(KivNetBuffer) unsigned char foreign[sizeof(KivNetBuffer)] = {};
  for (HANDLE handle : {static_cast<HANDLE>(nullptr), static_cast<HANDLE>(foreign)}) {
    EXPECT_EQ(VerifyBufferHandle(handle), nullptr);
    EXPECT_EQ(GetHeaderType(handle), 0x0A091101u);
    EXPECT_EQ(GetCommandType(handle), 0x0A091201u);
  }
  ScopedContainer fresh; // validated by its own handle; never filled: header type and command 0
  EXPECT_EQ(GetHeaderType(fresh.handle()) | GetCommandType(fresh.handle()), 0u);
  for (const auto &function : EveryFunction()) {
    const UInt32 nn = function.first << 8;
    SCOPED_TRACE(testing::Message() << "NN " << std::hex << function.first);
    EXPECT_EQ(function.second(kHBN3, nullptr), 0x0A090001u | nn);
    EXPECT_EQ(function.second(kHBN3, foreign), 0x0A090001u | nn);
    EXPECT_EQ(function.second(0, nullptr), 0x0A090001u | nn); // the handle is checked first
  }
}

TEST(MessageFunctions, UnknownHeaderTypesGiveKind00AndLeaveTheContainer) {
  const Bytes before = ScanRequest();
  for (const auto &function : EveryFunction()) {
    const UInt32 nn = function.first << 8;
    SCOPED_TRACE(testing::Message() << "NN " << std::hex << function.first);
    ScopedContainer container;
    container.Fill(before);
    for (UInt32 headerType : {0x00000000u, 0x48424E31u /* "HBN1" */, 0x33424E48u}) {
      EXPECT_EQ(function.second(headerType, container.handle()), 0x0A090000u | nn);
    }
    EXPECT_EQ(ToHex(container.bytes()), ToHex(before));
  }
}

// ---- Parsing ----

// A record's fields in order: address, port, channel, status, report, time stamp.
std::string Fields(const HBNResponseInfo &i) {
  std::ostringstream out;
  out << std::hex << i.strIPAddress << ' ' << i.iPortInfo << ' ' << i.iChannelID << ' ' << i.iStatus
      << ' ' << i.iReport << ' ' << i.iTimeStamp;
  return out.str();
}

// Each HBN3 answer parser, a message holding exactly the fields it reads, and the fields it then
// writes into a record whose fields were all e1 to e5.
const struct ParserCase {
  UInt32 (*parse)(UInt32, HANDLE, HBNResponseInfo &);
  Bytes message;
  long needed;
  UInt32 code;
  const char *fields;
} kParserCases[] = {
    {ParsePingResponse, PingReply(), 20, 0x0A070AA3, "sender 1 0 1 e4 e5"},
    {ParsePingResponse, Hex("48424E33 00000001 00000000 00000000 00000003"), 20, 0x0A070AA3,
     "sender 1 0 0 e4 e5"}, // no reply bit
    {ParseRequestScanResponse, RequestScanReply(), 20, 0x0A070BA3, "sender 4 2 1 e4 e5"},
    {ParseRequestScanResponse, PingReply(), 20, 0x0A070BA3, "sender 1 0 0 e4 e5"},
    {ParseHostListEntryResponse, HostListAnswer(), 28, 0x0A0709A3, "sender 3 2 2 e4 e5"},
    // The report is least significant byte first.
    {ParseRequestScan, ScanRequest(), 32, 0x0A070CA3, "sender 1 2 e3 102030405060708 100"},
};

// Each parser refuses a message one byte shorter than the fields it reads with its own code,
// changing nothing.
TEST(MessageFunctions, ParsersRefuseAMessageShortOfTheirFields) {
  for (const ParserCase &c : kParserCases) {
    ScopedContainer container;
    container.Fill(Bytes(c.message.begin(), c.message.begin() + c.needed - 1));
    HBNResponseInfo info{"sender", 0xE1, 0xE2, 0xE3, 0xE4, 0xE5};
    EXPECT_EQ(c.parse(kHCP1, container.handle(), info), c.code) << c.fields;
    EXPECT_EQ(Fields(info), "sender e1 e2 e3 e4 e5") << c.fields;
  }

  // The status-cache parser needs the 40 bytes up to the status length.
  const Bytes answer = StatusAnswer();
  ScopedContainer container;
  StatCacheResponse &r = *static_cast<StatCacheResponse *>(CreateStatCacheResponse());
  r = {0xE1, 0xE2, "old", 77, "old", "old", 78, "old"};
  container.Fill(Bytes(answer.begin(), answer.begin() + 39));
  EXPECT_EQ(ParseStatusCacheResponse(kHBN3, container.handle(), r), 0x0A0708A3u);
  EXPECT_EQ(r.strPayload + r.strAdapterUAA, "oldold");
  delete &r;
}

// From the message that holds its fields each parser writes its own fields and keeps the others.
TEST(MessageFunctions, ParsersWriteOnlyTheirOwnFields) {
  for (const ParserCase &c : kParserCases) {
    ScopedContainer container;
    container.Fill(Bytes(c.message.begin(), c.message.begin() + c.needed));
    HBNResponseInfo info{"sender", 0xE1, 0xE2, 0xE3, 0xE4, 0xE5};
    ASSERT_EQ(c.parse(kHCP1, container.handle(), info), 0u) << c.fields;
    EXPECT_EQ(Fields(info), c.fields);
  }

  // The status-cache parser replaces all eight fields.
  const Bytes answer = StatusAnswer();
  ScopedContainer container;
  StatCacheResponse &r = *static_cast<StatCacheResponse *>(CreateStatCacheResponse());
  r = {0xE1, 0xE2, "old", 77, "old", "old", 78, "old"};
  container.Fill(answer);
  ASSERT_EQ(ParseStatusCacheResponse(kHBN3, container.handle(), r), 0u);
  std::ostringstream fields;
  fields << r.iPortInfo << ' ' << r.iChannelID << ' ' << r.strAdapterUAA << ' ' << r.iReserved
         << ' ' << r.strAdapterIPAddr << ' ' << r.strPrinterID << ' ' << r.iPayloadLength;
  EXPECT_EQ(fields.str(), "1 5 0004000a1b2c 0 192.168.1.20 12ab 30");
  EXPECT_EQ(r.strPayload, std::string(answer.begin() + 40, answer.end()));
  delete &r;
}

} // namespace
