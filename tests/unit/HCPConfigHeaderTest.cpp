// The HCP configuration message and its text record: byte-exact messages, room checks, refusals.
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "Exceptions/KivWrapperException.h"
#include "HCP/KivHCPConfigHeader.h"
#include "HelperFiles/KivHostPlatform.h"
#include "support/FakeHostPlatform.h"
#include "support/TestSupport.h"

using kivtest::Bytes;
using kivtest::FakeHostPlatform;
using kivtest::Hex;
using kivtest::ToHex;

namespace {

UInt32 CodeOf(const std::function<void()> &operation) {
  try {
    operation();
  } catch (const KivWrapperException &e) {
    return e.GetErrorCode();
  }
  return 0;
}

// "IPADDRESS 10.0.0.5\nIPNETMASK 255.255.255.0\nIPGATEWAY 10.0.0.1\n", no terminator.
const Bytes kRecord = Hex("49 50 41 44 44 52 45 53 53 20 31 30 2E 30 2E 30 2E 35 0A"
                          "49 50 4E 45 54 4D 41 53 4B 20 32 35 35 2E 32 35 35 2E 32 35 35 2E 30 0A"
                          "49 50 47 41 54 45 57 41 59 20 31 30 2E 30 2E 30 2E 31 0A");

// The record as KivHCPConfigText writes it into an exact room.
Bytes RecordOf(KivHCPConfigText &text) {
  Bytes room(text.GetRecordLength());
  int len = -1;
  text.GetHCPConfigText(room.data(), &len, static_cast<int>(room.size()));
  EXPECT_EQ(len, static_cast<int>(room.size()));
  return room;
}

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

// ---- Text record --------------------------------------------------------------------------------

TEST_F(HCPConfigHeaderTest, TextRecordIsThreeKeySpaceValueLines) {
  ASSERT_EQ(kRecord.size(), 62u);
  KivHCPConfigText text("10.0.0.5", "255.255.255.0", "10.0.0.1");
  EXPECT_EQ(ToHex(RecordOf(text)), ToHex(kRecord));

  // The builder's form, assuming 1024 bytes of room.
  Bytes room(1024, 0xEE);
  int len = 0;
  text.GetHCPConfigText(room.data(), &len);
  EXPECT_EQ(len, 62);
  EXPECT_EQ(Bytes(room.begin(), room.begin() + 62), kRecord);
  EXPECT_EQ(room[62], 0xEE);
}

TEST_F(HCPConfigHeaderTest, TextRecordValuesAreSetReplacedKeptAndCleared) {
  KivHCPConfigText empty;
  EXPECT_EQ(RecordOf(empty), kivtest::Text("IPADDRESS \nIPNETMASK \nIPGATEWAY \n"));

  KivHCPConfigText text(nullptr, "255.255.255.0", nullptr);
  text.SetIPNetMask("255.255.0.0");
  text.SetIPNetMask(nullptr);
  text.SetIPAddress("10.0.0.5");
  text.SetIPGateWay("10.0.0.1");
  EXPECT_EQ(RecordOf(text),
            kivtest::Text("IPADDRESS 10.0.0.5\nIPNETMASK 255.255.0.0\nIPGATEWAY 10.0.0.1\n"));
  text.CleanUp();
  EXPECT_EQ(RecordOf(text), RecordOf(empty));
}

TEST_F(HCPConfigHeaderTest, TextRecordThatDoesNotFitIsRefusedUnwritten) {
  KivHCPConfigText text("10.0.0.5", "255.255.255.0", "10.0.0.1");
  Bytes room(61, 0xEE);
  int len = 7;
  EXPECT_EQ(CodeOf([&] { text.GetHCPConfigText(room.data(), &len, 61); }), 0x507A3u);
  EXPECT_EQ(room, Bytes(61, 0xEE));
  EXPECT_EQ(len, 7);

  // Values longer than the builder's 1024 bytes.
  const std::string huge(1000, '9');
  KivHCPConfigText long_text(huge.c_str(), "255.255.255.0", "10.0.0.1");
  Bytes builderRoom(1024, 0xEE);
  EXPECT_EQ(CodeOf([&] { long_text.GetHCPConfigText(builderRoom.data(), &len); }), 0x507A3u);
  EXPECT_EQ(builderRoom, Bytes(1024, 0xEE));
  EXPECT_EQ(CodeOf([&] { text.GetHCPConfigText(room.data(), &len, -1); }), 0x507A3u);
}

TEST_F(HCPConfigHeaderTest, TextRecordNullsAreRefused) {
  KivHCPConfigText text("10.0.0.5", "255.255.255.0", "10.0.0.1");
  Bytes room(1024);
  int len = 0;
  EXPECT_EQ(CodeOf([&] { text.GetHCPConfigText(nullptr, &len); }), 0x507A1u);
  EXPECT_EQ(CodeOf([&] { text.GetHCPConfigText(room.data(), nullptr); }), 0x507A1u);
}

// ---- Configuration message ----------------------------------------------------------------------

TEST_F(HCPConfigHeaderTest, MessageWithRecordAndNoPassword) {
  KivHCPConfigHeader header;
  header.SetConfigTextRecord(kRecord.data(), 62);
  EXPECT_EQ(header.GetHeaderLength(), 96);
  const Bytes expected = kivtest::Join({Hex("48435031 0001"
                                            "000000000000" // destination MAC, not set
                                            "000000000000" // source MAC, always zero
                                            "C0A86417"     // host 192.168.100.23
                                            "00000000"     // destination, not set
                                            "0001 0000"    // command, no password
                                            "0000003E"),   // record length 62
                                        kRecord});
  EXPECT_EQ(ToHex(MessageOf(header)), ToHex(expected));
}

TEST_F(HCPConfigHeaderTest, MessageWithPasswordDestinationAndRecord) {
  KivHCPConfigHeader header;
  header.SetDestUAA(reinterpret_cast<const unsigned char *>("0004000A1B2C"));
  header.SetDestIP(reinterpret_cast<const unsigned char *>("192.168.1.20"));
  header.SetEncryptedPassword(reinterpret_cast<const unsigned char *>("abc"), 3);
  header.SetConfigTextRecord(kRecord.data(), 62);
  EXPECT_EQ(header.GetHeaderLength(), 99);
  const Bytes expected = kivtest::Join({Hex("48435031 0001"
                                            "0004000A1B2C"
                                            "000000000000"
                                            "C0A86417"
                                            "C0A80114"
                                            "0001 0003"
                                            "616263"
                                            "0000003E"),
                                        kRecord});
  EXPECT_EQ(ToHex(MessageOf(header)), ToHex(expected));
}

TEST_F(HCPConfigHeaderTest, DestinationAddressFromText) {
  const struct {
    const char *text;
    const char *bytes;
  } cases[] = {
      {"192.168.1.20", "C0 A8 01 14"},   {"10.0.0.5", "0A 00 00 05"},
      {"not an address", "FF FF FF FF"}, {"300.1.1.1", "FF FF FF FF"},
      {nullptr, "FF FF FF FF"},
  };
  for (const auto &c : cases) {
    KivHCPConfigHeader header;
    header.SetDestIP(reinterpret_cast<const unsigned char *>(c.text));
    const Bytes message = MessageOf(header);
    EXPECT_EQ(ToHex(Bytes(message.begin() + 22, message.begin() + 26)), c.bytes)
        << (c.text ? c.text : "(null)");
  }
}

TEST_F(HCPConfigHeaderTest, DestinationMacFromText) {
  const struct {
    const char *text;
    const char *bytes;
  } cases[] = {
      {"0004000A1B2C", "00 04 00 0A 1B 2C"}, {"0004AC1F2B3C", "00 04 AC 1F 2B 3C"},
      {"0004ac1f2b3c", "00 04 00 10 20 30"}, // lowercase letters count as 0
      {"0004AC", "00 04 AC 00 00 00"},       // a short text is not read past its end
      {nullptr, "00 00 00 00 00 00"},
  };
  for (const auto &c : cases) {
    KivHCPConfigHeader header;
    header.SetDestUAA(reinterpret_cast<const unsigned char *>(c.text));
    const Bytes message = MessageOf(header);
    EXPECT_EQ(ToHex(Bytes(message.begin() + 6, message.begin() + 12)), c.bytes)
        << (c.text ? c.text : "(null)");
    EXPECT_EQ(Bytes(message.begin() + 12, message.begin() + 18), Bytes(6, 0));
  }
}

TEST_F(HCPConfigHeaderTest, ShortRoomsAndNullAreRefusedUnwritten) {
  KivHCPConfigHeader header;
  header.SetConfigTextRecord(kRecord.data(), 62);
  for (int size : {95, 34, 24, 23, 0, -1}) {
    Bytes room(95, 0xEE);
    EXPECT_EQ(CodeOf([&] { header.GetDataHeader(room.data(), size); }), 0x405A2u) << size;
    EXPECT_EQ(room, Bytes(95, 0xEE)) << size;
  }
  EXPECT_EQ(CodeOf([&] { header.GetDataHeader(nullptr, 96); }), 0x405A1u);

  // A larger room takes the message and keeps its tail.
  Bytes room(100, 0xEE);
  header.GetDataHeader(room.data(), 100);
  EXPECT_EQ(Bytes(room.begin() + 96, room.end()), Bytes(4, 0xEE));
}

TEST_F(HCPConfigHeaderTest, OversizedOrNullPasswordIsRefusedAndChangesNothing) {
  KivHCPConfigHeader header;
  header.SetEncryptedPassword(reinterpret_cast<const unsigned char *>("abc"), 3);
  const Bytes before = MessageOf(header);

  const Bytes big(65536, 0x70);
  EXPECT_EQ(CodeOf([&] { header.SetEncryptedPassword(big.data(), 65536); }), 0x409A3u);
  EXPECT_EQ(CodeOf([&] { header.SetEncryptedPassword(nullptr, 4); }), 0x409A3u);
  EXPECT_EQ(MessageOf(header), before);

  // The longest password that its 16-bit length can carry.
  header.SetEncryptedPassword(big.data(), 65535);
  EXPECT_EQ(header.GetHeaderLength(), 34 + 65535);
  const Bytes message = MessageOf(header);
  EXPECT_EQ(ToHex(Bytes(message.begin() + 28, message.begin() + 30)), "FF FF");
  EXPECT_EQ(ToHex(Bytes(message.end() - 4, message.end())), "00 00 00 00");

  // Length 0 removes the password.
  header.SetEncryptedPassword(nullptr, 0);
  EXPECT_EQ(header.GetHeaderLength(), 34);
}

TEST_F(HCPConfigHeaderTest, NullRecordIsRefusedAndLengthZeroRemovesIt) {
  KivHCPConfigHeader header;
  header.SetConfigTextRecord(kRecord.data(), 62);
  EXPECT_EQ(CodeOf([&] { header.SetConfigTextRecord(nullptr, 10); }), 0x40AA3u);
  EXPECT_EQ(CodeOf([&] { header.SetConfigTextRecord(kRecord.data(), 0xFFFFFFFFu); }), 0x40AA3u);
  EXPECT_EQ(header.GetHeaderLength(), 96);
  header.SetConfigTextRecord(nullptr, 0);
  EXPECT_EQ(ToHex(MessageOf(header)), ToHex(Hex("48435031 0001 000000000000 000000000000"
                                                "C0A86417 00000000 0001 0000 00000000")));
}

TEST_F(HCPConfigHeaderTest, IdentifierAndVersionAreSetByConstructorAndSetter) {
  KivHCPConfigHeader header(0x48424E33, 3);
  Bytes message = MessageOf(header);
  EXPECT_EQ(ToHex(Bytes(message.begin(), message.begin() + 6)), "48 42 4E 33 00 03");
  header.SetHCPConfigIDwithVersion(0x48435031, 1);
  message = MessageOf(header);
  EXPECT_EQ(ToHex(Bytes(message.begin(), message.begin() + 6)), "48 43 50 31 00 01");
}

TEST_F(HCPConfigHeaderTest, HostAddressComesFromTheSnapshot) {
  KivHCPConfigHeader header;
  header.SetDestIP(reinterpret_cast<const unsigned char *>("192.168.1.20"));
  const FakeHostPlatform moved("10.1.2.3", "255.0.0.0", "10.0.0.1");
  kiv::HostPlatformOverrideScope other(moved);
  // The header's own snapshot still says 192.168.100.23.
  header.HostCurrentIPAddr();
  Bytes message = MessageOf(header);
  EXPECT_EQ(ToHex(Bytes(message.begin() + 18, message.begin() + 22)), "C0 A8 64 17");
  // Init takes a new snapshot and clears the rest.
  header.Init();
  message = MessageOf(header);
  EXPECT_EQ(ToHex(Bytes(message.begin() + 18, message.begin() + 26)), "0A 01 02 03 00 00 00 00");
}

TEST_F(HCPConfigHeaderTest, NoDefaultInterfaceThrowsMinusOne) {
  KivHCPConfigHeader header;
  header.SetEncryptedPassword(reinterpret_cast<const unsigned char *>("abc"), 3);
  const Bytes before = MessageOf(header);

  const FakeHostPlatform none;
  kiv::HostPlatformOverrideScope other(none);
  int thrown = 0;
  try {
    KivHCPConfigHeader fresh;
  } catch (int value) {
    thrown = value;
  }
  EXPECT_EQ(thrown, -1);
  // Init fails before it changes anything.
  thrown = 0;
  try {
    header.Init();
  } catch (int value) {
    thrown = value;
  }
  EXPECT_EQ(thrown, -1);
  EXPECT_EQ(MessageOf(header), before);
}

} // namespace
