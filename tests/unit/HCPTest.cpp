// The HCP messages: what the configuration builder never asks for (other identifiers, removal,
// the host snapshot), and every refusal of the configuration message, its text record and the
// discovery query with its numbers (their usual bytes are checked with the builders).
#include <gtest/gtest.h>

#include "HCP/KivHCPConfigHeader.h"
#include "HCP/KivHCPDiscoveryHeader.h"
#include "support/FakeHostPlatform.h"
#include "support/TestSupport.h"
#include "support/Thrown.h"

using namespace kivtest;

namespace {

const unsigned char *U(const char *text) { return reinterpret_cast<const unsigned char *>(text); }

// The whole message, written into a room of exactly GetHeaderLength() bytes.
Bytes MessageOf(KivHCPConfigHeader &header) {
  Bytes room(static_cast<size_t>(header.GetHeaderLength()));
  header.GetDataHeader(room.data(), static_cast<int>(room.size()));
  return room;
}

class HCPConfigHeaderTest : public testing::Test {
protected:
  // The host is 192.168.100.23 (C0 A8 64 17) for every header made here.
  FakeHostPlatform host{"192.168.100.23", "255.255.255.0", "192.168.100.1"};
  kiv::HostPlatformOverrideScope scope{host};
};

TEST_F(HCPConfigHeaderTest, TextRecordIsThreeKeySpaceValueLinesWrittenWholeOrNotAtAll) {
  KivHCPConfigText text("1", nullptr, "3");
  text.SetIPNetMask("2");
  text.SetIPNetMask(nullptr); // keeps the value
  Bytes room(36, 0xEE);
  int len = 7;
  ExpectCodes({
      {"room 35 of 36", [&] { text.GetHCPConfigText(room.data(), &len, 35); }, 0x507A3},
      {"null room", [&] { text.GetHCPConfigText(nullptr, &len); }, 0x507A1},
      {"null length", [&] { text.GetHCPConfigText(room.data(), nullptr, 36); }, 0x507A1},
  });
  EXPECT_EQ(room, Bytes(36, 0xEE));
  EXPECT_EQ(len, 7);
  text.GetHCPConfigText(room.data(), &len, 36);
  EXPECT_EQ(len, 36);
  EXPECT_EQ(ToHex(room), "49 50 41 44 44 52 45 53 53 20 31 0A 49 50 4E 45 54 4D 41 53 4B 20 32 "
                         "0A 49 50 47 41 54 45 57 41 59 20 33 0A");
}

TEST_F(HCPConfigHeaderTest, IdentifierNullDestinationAndRemovalByLengthZero) {
  KivHCPConfigHeader header;
  header.SetDestUAA(U("0004000A1B2C"));
  header.SetDestIP(U("192.168.1.20"));
  header.SetEncryptedPassword(U("abc"), 3);
  header.SetConfigTextRecord(Hex("0A0B").data(), 2);
  EXPECT_EQ(ToHex(MessageOf(header)), ToHex(Hex("48435031 0001 0004000A1B2C 000000000000 C0A86417"
                                                "C0A80114 0001 0003 616263 00000002 0A0B")));
  header.SetHCPConfigIDwithVersion(0x48424E33, 3);
  header.SetDestIP(nullptr);
  header.SetEncryptedPassword(nullptr, 0);
  header.SetConfigTextRecord(nullptr, 0);
  EXPECT_EQ(ToHex(MessageOf(header)), ToHex(Hex("48424E33 0003 0004000A1B2C 000000000000 C0A86417"
                                                "FFFFFFFF 0001 0000 00000000")));
}

TEST_F(HCPConfigHeaderTest, MessageRefusalsChangeNothing) {
  KivHCPConfigHeader header;
  header.SetEncryptedPassword(U("abc"), 3);
  const Bytes before = MessageOf(header); // 37 bytes
  const Bytes big(65536, 0x70);
  Bytes room(37, 0xEE);
  ExpectCodes({
      {"room 36 of 37", [&] { header.GetDataHeader(room.data(), 36); }, 0x405A2},
      {"null room", [&] { header.GetDataHeader(nullptr, 37); }, 0x405A1},
      {"password 65536", [&] { header.SetEncryptedPassword(big.data(), 65536); }, 0x409A3},
      {"null password", [&] { header.SetEncryptedPassword(nullptr, 4); }, 0x409A3},
      {"null record", [&] { header.SetConfigTextRecord(nullptr, 10); }, 0x40AA3},
      {"record 2^32-1", [&] { header.SetConfigTextRecord(big.data(), 0xFFFFFFFF); }, 0x40AA3},
  });
  EXPECT_EQ(room, Bytes(37, 0xEE));
  EXPECT_EQ(MessageOf(header), before);
}

TEST_F(HCPConfigHeaderTest, InitTakesANewHostSnapshotOrChangesNothing) {
  KivHCPConfigHeader header;
  const auto addresses = [&] {
    const Bytes message = MessageOf(header);
    return ToHex(Bytes(message.begin() + 18, message.begin() + 26));
  };
  const FakeHostPlatform none, moved("10.1.2.3", "255.0.0.0", "10.0.0.1");
  header.SetDestIP(U("192.168.1.20"));
  {
    kiv::HostPlatformOverrideScope movedHost(moved);
    header.Init(); // a new snapshot, and the rest cleared
    EXPECT_EQ(addresses(), "0A 01 02 03 00 00 00 00");
    kiv::HostPlatformOverrideScope noHost(none);
    header.SetDestIP(U("192.168.1.20"));
    EXPECT_EQ(IntThrownBy([&] { header.Init(); }), -1);
    EXPECT_EQ(addresses(), "0A 01 02 03 C0 A8 01 14");
  }
  header.Init(); // the scopes have ended: the fixture's host again
  EXPECT_EQ(addresses(), "C0 A8 64 17 00 00 00 00");
}

// ---- Discovery query ----

TEST(HCPDiscoveryHeaderTest, SmallRoomsAreRefusedAndMiddleOnesLeftAlone) {
  KivHCPDiscoveryHeader header;
  Bytes room(40, 0xEE);
  ExpectCodes({
      {"null", [&] { header.GetDataHeader(nullptr, 41); }, 0x601A1},
      {"9", [&] { header.GetDataHeader(room.data(), 9); }, 0x601A2},
      // Rooms of 10 to 40 bytes have always been accepted and left as they were.
      {"10", [&] { header.GetDataHeader(room.data(), 10); }, 0},
      {"40", [&] { header.GetDataHeader(room.data(), 40); }, 0},
  });
  EXPECT_EQ(room, Bytes(40, 0xEE));
}

} // namespace
