// The HCP messages: the configuration message byte for byte through the exported CreateIPConfig
// (which puts the host's address in it, so it runs here with a scripted host), what that builder
// never asks for (other identifiers, removal, the host snapshot), and every refusal of the
// configuration message, its text record and the discovery query with its numbers.
#include <gtest/gtest.h>

#include "HCP/KivHCPConfigHeader.h"
#include "HCP/KivHCPDiscoveryHeader.h"
#include "Interfaces/KivNetworkComm.h"
#include "support/FakeHostPlatform.h"
#include "support/ScopedContainer.h"
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

constexpr UInt32 kHBN3 = 0x48424E33;
constexpr UInt32 kHCP1 = 0x48435031;

class HCPTest : public testing::Test {
protected:
  UInt32 BuildConfig(UInt32 headerType = kHBN3) {
    return CreateIPConfig(headerType, destMac, srcMac, srcIP, destIP, password, mask, gateway,
                          container.handle());
  }

  // The host is 192.168.100.23 (C0 A8 64 17) for every message made here.
  FakeHostPlatform host{"192.168.100.23", "255.255.255.0", "192.168.100.1"};
  kiv::HostPlatformOverrideScope scope{host};
  ScopedContainer container;
  std::string destMac = "0004000A1B2C", srcMac = "001122334455", srcIP = "10.0.0.99",
              destIP = "10.0.0.5", password, mask = "255.255.255.0", gateway = "10.0.0.1";
};

// ---- CreateIPConfig ----

TEST_F(HCPTest, ConfigurationMessages) {
  // Destination MAC, no source MAC, the host's address, the new address, the password, then
  // "IPADDRESS 10.0.0.5\nIPNETMASK 255.255.255.0\nIPGATEWAY 10.0.0.1\n" (62 bytes).
  const std::string head = "48435031 0001 0004000A1B2C 000000000000 C0A86417 0A000005 0001";
  const Bytes record = Hex("49 50 41 44 44 52 45 53 53 20 31 30 2E 30 2E 30 2E 35 0A"
                           "49 50 4E 45 54 4D 41 53 4B 20 32 35 35 2E 32 35 35 2E 32 35 35 2E 30 0A"
                           "49 50 47 41 54 45 57 41 59 20 31 30 2E 30 2E 30 2E 31 0A");
  for (const char *pw : {"", "abc"}) {
    const Bytes expected = Join({Hex(head + (*pw ? "0003 616263" : "0000") + "0000003E"), record});
    for (UInt32 headerType : {kHBN3, kHCP1}) {
      password = pw;
      srcIP = headerType == kHBN3 ? "10.0.0.99" : "192.168.1.1"; // the source is not sent
      ASSERT_EQ(BuildConfig(headerType), 0u);
      EXPECT_EQ(ToHex(container.bytes()), ToHex(expected));
      // Bytes 16-19, read as the command whatever the protocol.
      EXPECT_EQ(GetCommandType(container.handle()), 0x0000C0A8u);
    }
  }
  // The caller's seven strings are read, never changed.
  EXPECT_EQ(destMac + srcMac + srcIP + destIP + password + mask + gateway,
            "0004000A1B2C001122334455192.168.1.110.0.0.5abc255.255.255.010.0.0.1");
}

// 33 key bytes + 991 value bytes = 1024, the builder's room exactly; one more is refused.
TEST_F(HCPTest, BuilderRefusesATextRecordBeyondItsRoom) {
  destIP = std::string(991, '1');
  mask.clear();
  gateway.clear();
  ASSERT_EQ(BuildConfig(), 0u);
  ASSERT_EQ(container.bytes().size(), 34u + 1024u);
  destIP.push_back('1');
  EXPECT_EQ(BuildConfig(), 0x0A0507A3u);
  EXPECT_EQ(container.bytes().size(), 34u + 1024u) << "the container keeps the first message";
}

// The password's length travels in 16 bits.
TEST_F(HCPTest, BuilderRefusesAPasswordBeyond65535Bytes) {
  password.assign(65536, 'p');
  EXPECT_EQ(BuildConfig(), 0x0A0409A3u);
}

// Without a default interface: kind 00, and the container keeps its message.
TEST_F(HCPTest, BuilderWithoutDefaultInterfaceGivesKind00) {
  ASSERT_EQ(BuildConfig(), 0u);
  const Bytes before = container.bytes();
  FakeHostPlatform none;
  kiv::HostPlatformOverrideScope noHost(none);
  EXPECT_EQ(BuildConfig(), 0x0A090B00u);
  EXPECT_EQ(container.bytes(), before);
}

// ---- The configuration message and its text record ----

TEST_F(HCPTest, TextRecordIsThreeKeySpaceValueLinesWrittenWholeOrNotAtAll) {
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
  EXPECT_EQ(std::string(room.begin(), room.end()), "IPADDRESS 1\nIPNETMASK 2\nIPGATEWAY 3\n");
  EXPECT_EQ(len, 36);
}

// The message of a header for 0004000A1B2C at 192.168.1.20 after `change`, as hex.
std::string MessageAfter(const std::function<void(KivHCPConfigHeader &)> &change) {
  KivHCPConfigHeader header;
  header.SetDestUAA(U("0004000A1B2C"));
  header.SetDestIP(U("192.168.1.20"));
  change(header);
  return ToHex(MessageOf(header));
}

TEST_F(HCPTest, IdentifierAndVersionCanBeReplaced) {
  EXPECT_EQ(MessageAfter([](KivHCPConfigHeader &h) { h.SetHCPConfigIDwithVersion(0x48424E33, 3); }),
            ToHex(Hex("48424E33 0003 0004000A1B2C 000000000000 C0A86417 C0A80114 0001 0000 "
                      "00000000")));
}

TEST_F(HCPTest, NullDestinationAddressIsTheBroadcastAddress) {
  EXPECT_EQ(MessageAfter([](KivHCPConfigHeader &h) { h.SetDestIP(nullptr); }),
            ToHex(Hex("48435031 0001 0004000A1B2C 000000000000 C0A86417 FFFFFFFF 0001 0000 "
                      "00000000")));
}

TEST_F(HCPTest, LengthZeroRemovesPasswordAndRecord) {
  EXPECT_EQ(MessageAfter([](KivHCPConfigHeader &h) {
              h.SetEncryptedPassword(U("abc"), 3);
              h.SetConfigTextRecord(Hex("0A0B").data(), 2);
              h.SetEncryptedPassword(nullptr, 0);
              h.SetConfigTextRecord(nullptr, 0);
            }),
            ToHex(Hex("48435031 0001 0004000A1B2C 000000000000 C0A86417 C0A80114 0001 0000 "
                      "00000000")));
}

TEST_F(HCPTest, MessageRefusalsChangeNothing) {
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
  header.SetEncryptedPassword(big.data(), 65535);
  EXPECT_EQ(MessageOf(header).size(), 34u + 65535u);
}

TEST_F(HCPTest, InitTakesANewHostSnapshotOrChangesNothing) {
  KivHCPConfigHeader header;
  const auto addresses = [&] {
    const Bytes message = MessageOf(header);
    return ToHex(Bytes(message.begin() + 18, message.begin() + 26));
  };
  const FakeHostPlatform none, moved("10.1.2.3", "255.0.0.0", "10.0.0.1");
  header.SetDestIP(U("192.168.1.20"));
  kiv::HostPlatformOverrideScope movedHost(moved);
  header.Init(); // a new snapshot, and the rest cleared
  EXPECT_EQ(addresses(), "0A 01 02 03 00 00 00 00");
  kiv::HostPlatformOverrideScope noHost(none);
  header.SetDestIP(U("192.168.1.20"));
  EXPECT_EQ(IntThrownBy([&] { header.Init(); }), -1);
  EXPECT_EQ(addresses(), "0A 01 02 03 C0 A8 01 14");
}

// ---- Discovery query ----

TEST(HCPDiscoveryHeaderTest, RoomsBelowTenBytesAreRefused) {
  KivHCPDiscoveryHeader header;
  Bytes room(40, 0xEE);
  ExpectCodes({
      {"null", [&] { header.GetDataHeader(nullptr, 41); }, 0x601A1},
      {"9", [&] { header.GetDataHeader(room.data(), 9); }, 0x601A2},
  });
  EXPECT_EQ(room, Bytes(40, 0xEE));
}

// Rooms of 10 to 40 bytes have always been accepted and left as they were.
TEST(HCPDiscoveryHeaderTest, RoomsOf10To40BytesAreLeftAlone) {
  KivHCPDiscoveryHeader header;
  Bytes room(40, 0xEE);
  ExpectCodes({
      {"10", [&] { header.GetDataHeader(room.data(), 10); }, 0},
      {"40", [&] { header.GetDataHeader(room.data(), 40); }, 0},
  });
  EXPECT_EQ(room, Bytes(40, 0xEE));
}

} // namespace
