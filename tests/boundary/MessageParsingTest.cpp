// The exported message-parsing functions through the shared library: received HBN3 answers into
// the caller's records, which fields each function writes, result codes, and that parsing only
// reads the container. HCP answers need the host information and are parsed with a scripted
// host in tests/unit/HCPMessageFunctionsTest.cpp.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "Interfaces/KivNetworkComm.h"
#include "support/ScopedContainer.h"
#include "support/TestSupport.h"

using kivtest::Bytes;
using kivtest::Hex;
using kivtest::Join;
using kivtest::ScopedContainer;
using kivtest::ToHex;

namespace {

constexpr UInt32 kHBN3 = 0x48424E33;
constexpr UInt32 kHCP1 = 0x48435031;

const Bytes kPingReply = Hex("48424E33 00000001 00000000 00000000 80000003 00000000");
const Bytes kPingEcho = Hex("48424E33 00000001 00000000 00000000 00000003 00000000");
const Bytes kScanReply = Hex("48424E33 00000004 00000002 00000009 80000005 00000000");
const Bytes kHostListAnswer = Hex("48424E33 00000003 00000002 00000000 80000004 00000004 00000002");
const Bytes kScanRequest =
    Hex("48424E33 00000001 00000002 00000100 00000005 00000008 08 07 06 05 04 03 02 01");

// Status-cache answer: 24 + 16 + 30 bytes; adapter 00 04 00 0A 1B 2C at 192.168.1.20, status
// bytes 0..29 with a zero byte at 5 and the printer identifier 12 AB at 26 and 27.
Bytes StatusBytes() {
  Bytes status;
  for (int i = 0; i < 30; ++i) {
    status.push_back(static_cast<unsigned char>(0x40 + i));
  }
  status[5] = 0x00;
  status[26] = 0x12;
  status[27] = 0xAB;
  return status;
}
const Bytes kStatusAnswer = Join({Hex("48424E33 00000007 00000001 00000000 80000001 0000002E"
                                      "0004000A1B2C 0000 C0A80114 0000001E"),
                                  StatusBytes()});

// A record whose every field holds a value no parser produces, to see which ones are written.
HBNResponseInfo SentinelResponse() {
  HBNResponseInfo info;
  info.strIPAddress = "192.0.2.77";
  info.iPortInfo = 0xDEAD0001;
  info.iChannelID = 0xDEAD0002;
  info.iStatus = 0xDEAD0003;
  info.iReport = 0xDEADDEADDEADDEADull;
  info.iTimeStamp = 0xDEAD0005;
  return info;
}

StatCacheResponse SentinelStatus() {
  StatCacheResponse status;
  status.iPortInfo = 0xDEAD0001;
  status.iChannelID = 0xDEAD0002;
  status.strAdapterUAA = "uaa";
  status.iReserved = 77;
  status.strAdapterIPAddr = "ip";
  status.strPrinterID = "id";
  status.iPayloadLength = 78;
  status.strPayload = "payload";
  return status;
}

bool SameResponse(const HBNResponseInfo &a, const HBNResponseInfo &b) {
  return a.strIPAddress == b.strIPAddress && a.iPortInfo == b.iPortInfo &&
         a.iChannelID == b.iChannelID && a.iStatus == b.iStatus && a.iReport == b.iReport &&
         a.iTimeStamp == b.iTimeStamp;
}

bool SameStatus(const StatCacheResponse &a, const StatCacheResponse &b) {
  return a.iPortInfo == b.iPortInfo && a.iChannelID == b.iChannelID &&
         a.strAdapterUAA == b.strAdapterUAA && a.iReserved == b.iReserved &&
         a.strAdapterIPAddr == b.strAdapterIPAddr && a.strPrinterID == b.strPrinterID &&
         a.iPayloadLength == b.iPayloadLength && a.strPayload == b.strPayload;
}

typedef UInt32 (*ResponseParser)(UInt32, HANDLE, HBNResponseInfo &);

// ---- HBN3 answers -------------------------------------------------------------------------------

struct AnswerCase {
  const char *name;
  ResponseParser parse;
  Bytes message;
  UInt32 portInfo, channel, status;
};

TEST(MessageParsing, AnswersFillPortChannelAndStatusOnly) {
  const std::vector<AnswerCase> cases = {
      {"ping reply", ParsePingResponse, kPingReply, 1, 0, 1},
      {"ping without the reply bit", ParsePingResponse, kPingEcho, 1, 0, 0},
      {"request-scan reply", ParseRequestScanResponse, kScanReply, 4, 2, 1},
      {"ping reply read as a request-scan reply", ParseRequestScanResponse, kPingReply, 1, 0, 0},
      {"host-list answer", ParseHostListEntryResponse, kHostListAnswer, 3, 2, 2},
  };
  for (const AnswerCase &c : cases) {
    for (UInt32 headerType : {kHBN3, kHCP1}) {
      SCOPED_TRACE(testing::Message() << c.name << ", header type " << std::hex << headerType);
      ScopedContainer container;
      container.Fill(c.message);
      HBNResponseInfo info = SentinelResponse();
      ASSERT_EQ(c.parse(headerType, container.handle(), info), 0u);
      EXPECT_EQ(info.iPortInfo, c.portInfo);
      EXPECT_EQ(info.iChannelID, c.channel);
      EXPECT_EQ(info.iStatus, c.status);
      // Not written by these parsers.
      EXPECT_EQ(info.strIPAddress, "192.0.2.77");
      EXPECT_EQ(info.iReport, 0xDEADDEADDEADDEADull);
      EXPECT_EQ(info.iTimeStamp, 0xDEAD0005u);
    }
  }
}

TEST(MessageParsing, ScanRequestFillsReportAndTimeStampButNotStatus) {
  ScopedContainer container;
  container.Fill(kScanRequest);
  HBNResponseInfo info = SentinelResponse();
  ASSERT_EQ(ParseRequestScan(kHBN3, container.handle(), info), 0u);
  EXPECT_EQ(info.iPortInfo, 1u);
  EXPECT_EQ(info.iChannelID, 2u);
  EXPECT_EQ(info.iTimeStamp, 256u);
  EXPECT_EQ(info.iReport, 0x0102030405060708ull) << "report bytes are least significant first";
  EXPECT_EQ(info.iStatus, 0xDEAD0003u);
  EXPECT_EQ(info.strIPAddress, "192.0.2.77");
}

TEST(MessageParsing, BuiltScanRequestParsesBackToItsValues) {
  ScopedContainer container;
  ASSERT_EQ(CreateRequestScan(kHCP1, true, 0x11223344, 0x55667788, 0x8877665544332211ull,
                              container.handle()),
            0u);
  HBNResponseInfo info;
  ASSERT_EQ(ParseRequestScan(kHCP1, container.handle(), info), 0u);
  EXPECT_EQ(info.iPortInfo, 0x11223344u);
  EXPECT_EQ(info.iChannelID, 2u);
  EXPECT_EQ(info.iTimeStamp, 0x55667788u);
  EXPECT_EQ(info.iReport, 0x8877665544332211ull);
}

// ---- Status-cache answers -----------------------------------------------------------------------

TEST(MessageParsing, StatusCacheAnswerFillsAllEightFields) {
  ScopedContainer container;
  container.Fill(kStatusAnswer);
  HANDLE handle = CreateStatCacheResponse();
  ASSERT_NE(handle, nullptr);
  StatCacheResponse &record = *static_cast<StatCacheResponse *>(handle);
  record = SentinelStatus();
  ASSERT_EQ(ParseStatusCacheResponse(kHBN3, container.handle(), record), 0u);
  EXPECT_EQ(record.iPortInfo, 7u);
  EXPECT_EQ(record.iChannelID, 1u);
  EXPECT_EQ(record.strAdapterUAA, "0004000a1b2c");
  EXPECT_EQ(record.iReserved, 0);
  EXPECT_EQ(record.strAdapterIPAddr, "192.168.1.20");
  EXPECT_EQ(record.strPrinterID, "12ab");
  EXPECT_EQ(record.iPayloadLength, 30);
  const Bytes status = StatusBytes();
  EXPECT_EQ(record.strPayload, std::string(status.begin(), status.end()))
      << "all 30 status bytes, the zero byte included";
  delete &record;
}

TEST(MessageParsing, ParsingTwiceGivesTheSameRecordAndLeavesTheContainer) {
  ScopedContainer container;
  container.Fill(kStatusAnswer);
  StatCacheResponse first, second = SentinelStatus();
  ASSERT_EQ(ParseStatusCacheResponse(kHBN3, container.handle(), first), 0u);
  ASSERT_EQ(ParseStatusCacheResponse(kHCP1, container.handle(), second), 0u);
  EXPECT_TRUE(SameStatus(first, second));
  EXPECT_EQ(ToHex(container.bytes()), ToHex(kStatusAnswer));
  EXPECT_EQ(GetHeaderType(container.handle()), kHBN3);
  EXPECT_EQ(GetCommandType(container.handle()), 0x80000001u);
}

TEST(MessageParsing, EveryParserLeavesTheContainerAsItWas) {
  ScopedContainer container;
  container.Fill(kScanRequest);
  HBNResponseInfo info;
  StatCacheResponse status;
  EXPECT_EQ(ParsePingResponse(kHBN3, container.handle(), info), 0u);
  EXPECT_EQ(ParseRequestScanResponse(kHBN3, container.handle(), info), 0u);
  EXPECT_EQ(ParseHostListEntryResponse(kHBN3, container.handle(), info), 0u);
  EXPECT_EQ(ParseRequestScan(kHBN3, container.handle(), info), 0u);
  EXPECT_NE(ParseStatusCacheResponse(kHBN3, container.handle(), status), 0u);
  EXPECT_EQ(ToHex(container.bytes()), ToHex(kScanRequest));
  EXPECT_EQ(GetCommandType(container.handle()), 5u);
}

TEST(MessageParsing, CreatedRecordsStartEmptyAndZero) {
  StatCacheResponse *status = static_cast<StatCacheResponse *>(CreateStatCacheResponse());
  ASSERT_NE(status, nullptr);
  EXPECT_TRUE(SameStatus(*status, StatCacheResponse()));
  EXPECT_EQ(status->iPortInfo, 0u);
  EXPECT_EQ(status->iPayloadLength, 0);
  delete status;

  KivNetRecord *record = static_cast<KivNetRecord *>(CreateKivNetRecord());
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->iResponse, 0);
  EXPECT_EQ(record->iPortInfo, 0);
  EXPECT_TRUE(record->strIPAddr.empty());
  EXPECT_TRUE(record->strPrintrVidPid.empty());
  EXPECT_TRUE(record->vecDeviceSpecific.empty());
  delete record;
}

// ---- Result codes -------------------------------------------------------------------------------

struct ParseCall {
  const char *name;
  UInt32 number; // NN
  // Runs the function into fresh sentinel records; true when they are unchanged afterwards.
  std::function<UInt32(UInt32 headerType, HANDLE container, bool &recordUnchanged)> run;
};

std::vector<ParseCall> ParseCalls() {
  auto response = [](ResponseParser parse) {
    return [parse](UInt32 type, HANDLE h, bool &unchanged) {
      HBNResponseInfo info = SentinelResponse();
      const UInt32 result = parse(type, h, info);
      unchanged = SameResponse(info, SentinelResponse());
      return result;
    };
  };
  return {
      {"ParseHCPResponse", 0x0C,
       [](UInt32 type, HANDLE h, bool &unchanged) {
         KivNetRecord record;
         record.strIPAddr = "keep";
         record.vecDeviceSpecific.resize(2);
         const UInt32 result = ParseHCPResponse(type, h, 0x80000006, record);
         unchanged = record.strIPAddr == "keep" && record.vecDeviceSpecific.size() == 2;
         return result;
       }},
      {"ParsePingResponse", 0x0D, response(ParsePingResponse)},
      {"ParseRequestScanResponse", 0x0E, response(ParseRequestScanResponse)},
      {"ParseHostListEntryResponse", 0x0F, response(ParseHostListEntryResponse)},
      {"ParseStatusCacheResponse", 0x10,
       [](UInt32 type, HANDLE h, bool &unchanged) {
         StatCacheResponse status = SentinelStatus();
         const UInt32 result = ParseStatusCacheResponse(type, h, status);
         unchanged = SameStatus(status, SentinelStatus());
         return result;
       }},
      {"ParseRequestScan", 0x35, response(ParseRequestScan)},
  };
}

TEST(MessageParsing, BadBufferHandlesGiveKind01) {
  alignas(KivNetBuffer) unsigned char foreign[sizeof(KivNetBuffer)] = {};
  for (const ParseCall &c : ParseCalls()) {
    SCOPED_TRACE(c.name);
    const UInt32 expected = 0x0A090001u | (c.number << 8);
    bool unchanged = false;
    EXPECT_EQ(c.run(kHBN3, nullptr, unchanged), expected);
    EXPECT_TRUE(unchanged);
    EXPECT_EQ(c.run(kHBN3, foreign, unchanged), expected);
    EXPECT_TRUE(unchanged);
    EXPECT_EQ(c.run(0, nullptr, unchanged), expected) << "the handle is checked first";
  }
}

TEST(MessageParsing, UnknownHeaderTypesGiveKind00) {
  ScopedContainer container;
  container.Fill(kScanRequest);
  for (const ParseCall &c : ParseCalls()) {
    for (UInt32 headerType : {0x00000000u, 0x48424E31u /* "HBN1" */, 0x48435030u}) {
      SCOPED_TRACE(testing::Message() << c.name << ", header type " << std::hex << headerType);
      bool unchanged = false;
      EXPECT_EQ(c.run(headerType, container.handle(), unchanged), 0x0A090000u | (c.number << 8));
      EXPECT_TRUE(unchanged);
    }
  }
  EXPECT_EQ(ToHex(container.bytes()), ToHex(kScanRequest));
}

TEST(MessageParsing, NamedCodesOfTheInterface) {
  HBNResponseInfo info;
  StatCacheResponse status;
  ScopedContainer container;
  container.Fill(kScanRequest);
  EXPECT_EQ(ParseRequestScan(0, container.handle(), info), 0x0A093500u);
  EXPECT_EQ(ParseStatusCacheResponse(kHBN3, nullptr, status), 0x0A091001u);
}

TEST(MessageParsing, MessagesTooShortForTheParserFailWithItsCode) {
  auto cut = [](const Bytes &message, size_t length) {
    return Bytes(message.begin(), message.begin() + static_cast<long>(length));
  };
  struct ShortCase {
    const char *name;
    size_t callIndex; // into ParseCalls()
    Bytes message;
    UInt32 code;
  };
  const std::vector<ShortCase> cases = {
      {"status-cache answer of 39 bytes", 4, cut(kStatusAnswer, 39), 0x0A0708A3},
      {"host-list answer of 27 bytes", 3, cut(kHostListAnswer, 27), 0x0A0709A3},
      {"ping reply of 19 bytes", 1, cut(kPingReply, 19), 0x0A070AA3},
      {"request-scan reply of 19 bytes", 2, cut(kScanReply, 19), 0x0A070BA3},
      {"scan request of 31 bytes", 5, cut(kScanRequest, 31), 0x0A070CA3},
  };
  const std::vector<ParseCall> calls = ParseCalls();
  for (const ShortCase &c : cases) {
    SCOPED_TRACE(c.name);
    ScopedContainer container;
    container.Fill(c.message);
    bool unchanged = false;
    EXPECT_EQ(calls[c.callIndex].run(kHBN3, container.handle(), unchanged), c.code);
    EXPECT_TRUE(unchanged) << "a failed parse writes nothing";
    EXPECT_EQ(ToHex(container.bytes()), ToHex(c.message));
  }
}

} // namespace
