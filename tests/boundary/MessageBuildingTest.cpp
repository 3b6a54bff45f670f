// The exported message-building functions through the shared library: byte-exact messages, result
// codes, and what a build does to the caller's container and strings. The configuration message
// depends on the host's address and is built with a scripted host in
// tests/unit/HCPMessageFunctionsTest.cpp.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "Interfaces/KivNetworkComm.h"
#include "support/ScopedContainer.h"
#include "support/TestSupport.h"

using kivtest::Bytes;
using kivtest::Hex;
using kivtest::ToHex;

namespace {

constexpr UInt32 kHBN3 = 0x48424E33;
constexpr UInt32 kHCP1 = 0x48435031;

// Fixed values of the host-list entries below.
unsigned char gUniqueID[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
char gNoName[1] = {0x00};
char gHostName[5] = {0x04, 'H', 'O', 'S', 'T'};

typedef kivtest::ScopedContainer Container;

typedef std::function<UInt32(UInt32 headerType, HANDLE container)> BuildCall;

struct MessageCase {
  const char *name;
  BuildCall build;
  Bytes expected;
  UInt32 headerType; // what GetHeaderType reports for the built message
  UInt32 command;    // what GetCommandType reports
};

std::vector<MessageCase> MessageCases() {
  std::string noPin;
  std::string pin = "1234";
  return {
      {"discovery query", [](UInt32 type, HANDLE h) { return CreateDiscovery(type, h); },
       Hex("00 00 00 00 00 01 00 00 00 00 00 00 00 5F 68 6F 73 74 2D 63 6F 6E 66 69 67"
           "04 5F 75 64 70 05 6C 6F 63 61 6C 00 00 21 00 01"),
       // The query is no HBN3 message: its bytes 0-3 and 16-19 are read all the same.
       0x00000000, 0x73742D63},
      {"ping, time stamp 7", [](UInt32 type, HANDLE h) { return CreatePing(type, 7, h); },
       Hex("48 42 4E 33 00 00 00 00 00 00 00 00 00 00 00 07 00 00 00 03 00 00 00 00"), kHBN3, 3},
      {"status-cache request",
       [](UInt32 type, HANDLE h) {
         return CreateStatusCacheRequest(type, 0x0A0B0C0D, 5, 0x01020304, h);
       },
       Hex("48424E33 0A0B0C0D 00000005 01020304 00000001 00000000"), kHBN3, 1},
      {"host-list entry, zero-length name",
       [noPin](UInt32 type, HANDLE h) mutable {
         return CreateHostListEntry(type, false, 1, 1, 2, gNoName, noPin, gUniqueID, 0x04E4, h);
       },
       Hex("48424E33 00000001 00000002 00000002 00000004 00000012"
           "00000001 30303030 001122334455 04E4 0000"),
       kHBN3, 4},
      {"host-list entry carrying the 22-byte payload",
       [pin](UInt32 type, HANDLE h) mutable {
         return CreateHostListEntry(type, true, 1, 1, 2, gHostName, pin, gUniqueID, 0x04E4, h);
       },
       Hex("48424E33 00000001 00000002 00000002 00000004 00000016"
           "00000001 31323334 001122334455 04E4 0004 484F5354"),
       kHBN3, 4},
      {"request scan, report 0x0102030405060708",
       [](UInt32 type, HANDLE h) {
         return CreateRequestScan(type, false, 1, 2, 0x0102030405060708ull, h);
       },
       Hex("48424E33 00000001 00000002 00000002 00000005 00000008 08 07 06 05 04 03 02 01"), kHBN3,
       5},
      {"request-scan reply",
       [](UInt32 type, HANDLE h) { return CreateRequestScanReply(type, false, 1, 2, h); },
       Hex("48424E33 00000001 00000002 00000002 80000005 00000000"), kHBN3, 0x80000005},
  };
}

TEST(MessageBuilding, EachFunctionBuildsItsMessageForBothHeaderTypes) {
  for (const MessageCase &c : MessageCases()) {
    for (UInt32 headerType : {kHBN3, kHCP1}) {
      SCOPED_TRACE(testing::Message() << c.name << ", header type " << std::hex << headerType);
      Container container;
      ASSERT_EQ(c.build(headerType, container.handle()), 0u);
      EXPECT_EQ(ToHex(container.bytes()), ToHex(c.expected));
      EXPECT_EQ(GetHeaderType(container.handle()), c.headerType);
      EXPECT_EQ(GetCommandType(container.handle()), c.command);
    }
  }
}

TEST(MessageBuilding, HostNameLengthIsTakenUnsigned) {
  // A length byte of 200 (0xC8) is 200 name bytes, not a negative count.
  std::vector<char> name(201, 'a');
  name[0] = static_cast<char>(200);
  std::string pin;
  Container container;
  ASSERT_EQ(CreateHostListEntry(kHBN3, false, 1, 0, 0, name.data(), pin, gUniqueID, 0,
                                container.handle()),
            0u);
  const Bytes bytes = container.bytes();
  ASSERT_EQ(bytes.size(), 24u + 18u + 200u);
  EXPECT_EQ(ToHex(Bytes(bytes.begin() + 20, bytes.begin() + 24)), "00 00 00 DA");
  EXPECT_EQ(ToHex(Bytes(bytes.begin() + 40, bytes.begin() + 42)), "00 C8");
}

// ---- Result codes -------------------------------------------------------------------------------

struct CodeCase {
  const char *name;
  UInt32 number; // NN
  BuildCall build;
};

std::vector<CodeCase> CodeCases() {
  std::string pin = "1234";
  std::string mac = "0004000A1B2C", address = "10.0.0.5", mask = "255.255.255.0",
              gateway = "10.0.0.1", password = "abc", empty;
  return {
      {"CreateDiscovery", 0x05, [](UInt32 t, HANDLE h) { return CreateDiscovery(t, h); }},
      {"CreatePing", 0x06, [](UInt32 t, HANDLE h) { return CreatePing(t, 1, h); }},
      {"CreateStatusCacheRequest", 0x07,
       [](UInt32 t, HANDLE h) { return CreateStatusCacheRequest(t, 1, 2, 3, h); }},
      {"CreateHostListEntry", 0x08,
       [pin](UInt32 t, HANDLE h) mutable {
         return CreateHostListEntry(t, false, 1, 1, 2, gHostName, pin, gUniqueID, 0, h);
       }},
      {"CreateRequestScan", 0x09,
       [](UInt32 t, HANDLE h) { return CreateRequestScan(t, false, 1, 2, 3, h); }},
      {"CreateRequestScanReply", 0x0A,
       [](UInt32 t, HANDLE h) { return CreateRequestScanReply(t, false, 1, 2, h); }},
      {"CreateIPConfig", 0x0B,
       [=](UInt32 t, HANDLE h) mutable {
         return CreateIPConfig(t, mac, empty, empty, address, password, mask, gateway, h);
       }},
  };
}

TEST(MessageBuilding, BadBufferHandlesGiveKind01) {
  alignas(KivNetBuffer) unsigned char foreign[sizeof(KivNetBuffer)] = {};
  for (const CodeCase &c : CodeCases()) {
    SCOPED_TRACE(c.name);
    const UInt32 expected = 0x0A090001u | (c.number << 8);
    EXPECT_EQ(c.build(kHBN3, nullptr), expected);
    EXPECT_EQ(c.build(kHBN3, foreign), expected);
    EXPECT_EQ(c.build(0, nullptr), expected) << "the handle is checked before the header type";
  }
}

TEST(MessageBuilding, UnknownHeaderTypesGiveKind00AndLeaveTheContainer) {
  const Bytes before = Hex("48424E33 00000009 00000000 00000007 80000003 00000000");
  for (const CodeCase &c : CodeCases()) {
    for (UInt32 headerType : {0x00000000u, 0x48424E31u /* "HBN1" */, 0x48435030u, 0xFFFFFFFFu}) {
      SCOPED_TRACE(testing::Message() << c.name << ", header type " << std::hex << headerType);
      Container container;
      container.Fill(before);
      EXPECT_EQ(c.build(headerType, container.handle()), 0x0A090000u | (c.number << 8));
      EXPECT_EQ(ToHex(container.bytes()), ToHex(before));
      EXPECT_EQ(GetCommandType(container.handle()), 0x80000003u);
    }
  }
}

TEST(MessageBuilding, NullUniqueIdentifierFailsInThePayloadAndLeavesTheContainer) {
  std::string pin = "1234";
  Container container;
  ASSERT_EQ(CreatePing(kHBN3, 7, container.handle()), 0u);
  const Bytes ping = container.bytes();
  EXPECT_EQ(
      CreateHostListEntry(kHBN3, false, 1, 1, 2, gHostName, pin, nullptr, 0, container.handle()),
      0x0A0201A3u);
  EXPECT_EQ(ToHex(container.bytes()), ToHex(ping));
  EXPECT_EQ(GetCommandType(container.handle()), 3u);
}

TEST(MessageBuilding, OverlongConfigurationTextIsRefusedBeforeTheHostIsAsked) {
  // 992 address characters make a 1025-byte text record, one more than the builder's room. The
  // refusal comes before the host's address is looked up, so it holds on any host.
  std::string mac = "0004000A1B2C", srcMac = "000000000001", srcIP = "10.9.9.9";
  std::string address(992, '1'), password = "secret", mask, gateway;
  const std::string addressBefore = address;
  Container container;
  ASSERT_EQ(CreatePing(kHBN3, 7, container.handle()), 0u);
  const Bytes ping = container.bytes();
  EXPECT_EQ(CreateIPConfig(kHBN3, mac, srcMac, srcIP, address, password, mask, gateway,
                           container.handle()),
            0x0A0507A3u);
  EXPECT_EQ(ToHex(container.bytes()), ToHex(ping));
  // The caller's seven strings are read, never changed.
  EXPECT_EQ(mac, "0004000A1B2C");
  EXPECT_EQ(srcMac, "000000000001");
  EXPECT_EQ(srcIP, "10.9.9.9");
  EXPECT_EQ(address, addressBefore);
  EXPECT_EQ(password, "secret");
  EXPECT_EQ(mask, "");
  EXPECT_EQ(gateway, "");
}

// ---- The caller's container and strings ---------------------------------------------------------

TEST(MessageBuilding, SecondBuildReplacesTheFirst) {
  std::string pin = "1234";
  Container container;
  ASSERT_EQ(CreateHostListEntry(kHBN3, false, 1, 1, 2, gHostName, pin, gUniqueID, 0x04E4,
                                container.handle()),
            0u);
  ASSERT_EQ(container.bytes().size(), 46u);
  ASSERT_EQ(CreatePing(kHCP1, 7, container.handle()), 0u);
  EXPECT_EQ(ToHex(container.bytes()),
            "48 42 4E 33 00 00 00 00 00 00 00 00 00 00 00 07 00 00 00 03 00 00 00 00");
  EXPECT_EQ(GetCommandType(container.handle()), 3u);
}

TEST(MessageBuilding, PinArgumentIsNotChanged) {
  // Only four characters travel; the caller's text stays whole.
  std::string pin = "123456";
  Container container;
  ASSERT_EQ(
      CreateHostListEntry(kHBN3, true, 1, 1, 2, gNoName, pin, gUniqueID, 0, container.handle()),
      0u);
  EXPECT_EQ(pin, "123456");
  const Bytes bytes = container.bytes();
  EXPECT_EQ(ToHex(Bytes(bytes.begin() + 28, bytes.begin() + 32)), "31 32 33 34");
}

TEST(MessageBuilding, EachCallStandsAlone) {
  // Builders keep nothing between calls: the same call gives the same bytes again.
  Container first, second;
  ASSERT_EQ(CreateRequestScan(kHBN3, false, 3, 4, 0xFFEEDDCCBBAA9988ull, first.handle()), 0u);
  ASSERT_EQ(CreatePing(kHBN3, 1, second.handle()), 0u);
  ASSERT_EQ(CreateRequestScan(kHBN3, false, 3, 4, 0xFFEEDDCCBBAA9988ull, second.handle()), 0u);
  EXPECT_EQ(ToHex(first.bytes()), ToHex(second.bytes()));
  EXPECT_EQ(ToHex(first.bytes()), "48 42 4E 33 00 00 00 03 00 00 00 02 00 00 00 04 00 00 00 05 "
                                  "00 00 00 08 88 99 AA BB CC DD EE FF");
}

} // namespace
