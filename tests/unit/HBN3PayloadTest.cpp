// The HBN3 payloads: host-list entry vectors and status-cache answers, whole, cut short and lying.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <functional>
#include <memory>
#include <string>

#include "Exceptions/KivWrapperException.h"
#include "HBN3/KivHBN3Header.h"
#include "HBN3/KivHBN3PayLoad.h"
#include "support/TestSupport.h"

using kivtest::Bytes;
using kivtest::Hex;
using kivtest::Join;
using kivtest::ToHex;

namespace {

// The code an operation throws, or 0 when it throws nothing.
UInt32 CodeOf(const std::function<void()> &operation) {
  try {
    operation();
  } catch (const KivWrapperException &e) {
    return e.GetErrorCode();
  }
  return 0;
}

int Size(const Bytes &bytes) { return static_cast<int>(bytes.size()); }

const unsigned char kUniqueID[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};

// A length-prefixed host-name argument in a block of exactly its bytes, so that reading one byte
// more than the count byte allows is caught.
std::unique_ptr<char[]> NameArgument(const Bytes &bytes) {
  std::unique_ptr<char[]> name(new char[bytes.size()]);
  std::memcpy(name.get(), bytes.data(), bytes.size());
  return name;
}

// The wire form of a payload, written into a room of exactly its length.
Bytes Wire(KivPayload &payload) {
  Bytes out(static_cast<size_t>(payload.GetPayloadLength()), 0xEE);
  payload.GetDataPayload(out.data(), Size(out));
  return out;
}

// ---- Host-list entry ----

struct HostVector {
  const char *name;
  UInt32 type;
  const char *pin;
  UInt16 codePage;
  const char *hostArgument; // hex, count byte first; nullptr for no name
  const char *wire;
};

const HostVector kHostVectors[] = {
    {"PIN 1234, name HOST", 1, "1234", 0x04E4, "04 484F5354",
     "00000001 31323334 001122334455 04E4 0004 484F5354"},
    {"no PIN", 1, "", 0x04E4, "04 484F5354", "00000001 30303030 001122334455 04E4 0004 484F5354"},
    {"short PIN", 1, "12", 0x04E4, "04 484F5354",
     "00000001 31320000 001122334455 04E4 0004 484F5354"},
    {"long PIN", 1, "123456", 0x04E4, "04 484F5354",
     "00000001 31323334 001122334455 04E4 0004 484F5354"},
    {"no name", 2, "1234", 0x0000, nullptr, "00000002 31323334 001122334455 0000 0000"},
    {"empty name", 0xFFFFFFFF, "", 0xFDE9, "00", "FFFFFFFF 30303030 001122334455 FDE9 0000"},
    {"one-byte name", 0x01020304, "9", 0x0001, "01 41",
     "01020304 39000000 001122334455 0001 0001 41"},
};

TEST(HBN3PayloadTest, HostListEntryWritesTheTableVectors) {
  for (const HostVector &v : kHostVectors) {
    std::unique_ptr<char[]> argument;
    if (v.hostArgument != nullptr) {
      argument = NameArgument(Hex(v.hostArgument));
    }
    KivHBN3ScanHostPayLoad payload(v.type, v.pin, kUniqueID, v.codePage, argument.get());
    const Bytes wire = Hex(v.wire);
    EXPECT_EQ(payload.GetPayloadLength(), Size(wire)) << v.name;
    EXPECT_EQ(ToHex(Wire(payload)), ToHex(wire)) << v.name;
  }
}

TEST(HBN3PayloadTest, HostNameLengthIsUnsigned) {
  Bytes argument(201, 'n');
  argument[0] = 200;
  std::unique_ptr<char[]> name = NameArgument(argument);
  KivHBN3ScanHostPayLoad payload(1, "", kUniqueID, 0, name.get());
  EXPECT_EQ(payload.GetPayloadLength(), 218);
  const Bytes wire = Wire(payload);
  EXPECT_EQ(ToHex(Bytes(wire.begin() + 16, wire.begin() + 18)), "00 C8");
  EXPECT_EQ(Bytes(wire.begin() + 18, wire.end()), Bytes(200, 'n'));

  Bytes longest(256, 'x');
  longest[0] = 0xFF;
  name = NameArgument(longest);
  KivHBN3ScanHostPayLoad biggest(1, "", kUniqueID, 0, name.get());
  EXPECT_EQ(biggest.GetPayloadLength(), 18 + 255);
  EXPECT_EQ(Wire(biggest).size(), 273u);
}

TEST(HBN3PayloadTest, HostListEntryKeepsItsOwnCopies) {
  Bytes argument = Hex("04 484F5354");
  unsigned char uniqueID[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
  std::string pin = "1234";
  KivHBN3ScanHostPayLoad payload(1, pin, uniqueID, 0x04E4,
                                 reinterpret_cast<const char *>(argument.data()));
  argument.assign(argument.size(), 0);
  std::memset(uniqueID, 0, sizeof uniqueID);
  pin = "9999";
  EXPECT_EQ(ToHex(Wire(payload)), ToHex(Hex("00000001 31323334 001122334455 04E4 0004 484F5354")));
}

TEST(HBN3PayloadTest, HostListEntryRefusesRoomsShortOfTheWholePayload) {
  const Bytes argument = Hex("04 484F5354");
  KivHBN3ScanHostPayLoad payload(1, "1234", kUniqueID, 0x04E4,
                                 reinterpret_cast<const char *>(argument.data()));
  for (int room : {-1, 0, 17, 18, 21}) {
    Bytes out(22, 0xEE);
    EXPECT_EQ(CodeOf([&] { payload.GetDataPayload(out.data(), room); }), 0x203A2u) << room;
    EXPECT_EQ(out, Bytes(22, 0xEE)) << "nothing written for room " << room;
  }
  EXPECT_EQ(CodeOf([&] { payload.GetDataPayload(nullptr, 22); }), 0x203A1u);

  KivHBN3ScanHostPayLoad bare(1, "", kUniqueID, 0, nullptr);
  Bytes seventeen(17, 0xEE);
  EXPECT_EQ(CodeOf([&] { bare.GetDataPayload(seventeen.data(), 17); }), 0x203A2u);
  Bytes larger(30, 0xEE);
  bare.GetDataPayload(larger.data(), 30);
  EXPECT_EQ(Bytes(larger.begin() + 18, larger.end()), Bytes(12, 0xEE)) << "only 18 bytes written";
}

TEST(HBN3PayloadTest, HostListEntryWithoutUniqueIDIsRefused) {
  const Bytes argument = Hex("04 484F5354");
  EXPECT_EQ(CodeOf([&] {
              KivHBN3ScanHostPayLoad payload(1, "", nullptr, 0,
                                             reinterpret_cast<const char *>(argument.data()));
            }),
            0x201A3u);
}

// ---- Status-cache answer ----

// Adapter 00 04 00 0A 1B 2C, reserved 00 00, address 192.168.1.20, then the length and status.
Bytes StatusAnswer(const char *lengthHex, const Bytes &status) {
  return Join({Hex("0004000A1B2C 0000 C0A80114"), Hex(lengthHex), status});
}

// 28 status bytes whose bytes 26 and 27 are 4F 0A.
Bytes Status28() {
  Bytes status(28);
  for (size_t i = 0; i < status.size(); ++i) {
    status[i] = static_cast<unsigned char>(i);
  }
  status[26] = 0x4F;
  status[27] = 0x0A;
  return status;
}

TEST(HBN3PayloadTest, StatusAnswerGivesItsFieldsAndTexts) {
  const Bytes status = Status28();
  const Bytes answer = StatusAnswer("0000001C", status);
  KivHBN3StatusCacheResponsePayload payload(answer.data(), Size(answer));
  EXPECT_TRUE(payload.IsPayloadSet());
  EXPECT_EQ(payload.GetPayloadLength(), 28);
  EXPECT_EQ(payload.GetHeldStatusLength(), 28);
  EXPECT_EQ(payload.GetStrAdapterUAA(), "0004000a1b2c");
  EXPECT_EQ(payload.GetIPAddressString(), "192.168.1.20");
  EXPECT_EQ(payload.GetPrinterID(), "4f0a");
  EXPECT_EQ(ToHex(payload.GetAdapterUAA(), 6), "00 04 00 0A 1B 2C");
  UInt32 asReceived = 0;
  std::memcpy(&asReceived, answer.data() + 8, 4);
  EXPECT_EQ(payload.GetIPAddressULong(), asReceived) << "kept in network order";
  EXPECT_EQ(Wire(payload), status);
}

TEST(HBN3PayloadTest, StatusTextsUseLowercaseAndFullOctets) {
  const Bytes answer = Join({Hex("FFABCDEF0102 1234 FFFFFFFF 00000000")});
  KivHBN3StatusCacheResponsePayload payload(answer.data(), Size(answer));
  EXPECT_EQ(payload.GetStrAdapterUAA(), "ffabcdef0102");
  EXPECT_EQ(payload.GetIPAddressString(), "255.255.255.255");
  const Bytes zero = Hex("000000000000 0000 00000000 00000000");
  KivHBN3StatusCacheResponsePayload none(zero.data(), Size(zero));
  EXPECT_EQ(none.GetStrAdapterUAA(), "000000000000");
  EXPECT_EQ(none.GetIPAddressString(), "0.0.0.0");
}

struct StatusCase {
  const char *name;
  Bytes answer; // held in a vector of exactly its bytes
  bool set;
  int declared;
  int held;
  const char *printerID;
};

TEST(HBN3PayloadTest, StatusAnswersWholeCutAndLying) {
  const Bytes status = Status28();
  const StatusCase cases[] = {
      {"16 bytes declaring 0", StatusAnswer("00000000", Bytes()), true, 0, 0, ""},
      {"20 bytes declaring 10", StatusAnswer("0000000A", Hex("01020304")), false, 10, 0, ""},
      {"declares one more than arrived", StatusAnswer("0000001D", status), false, 29, 0, ""},
      {"declares fewer than arrived", Join({StatusAnswer("00000004", Hex("01020304")), status}),
       true, 4, 4, ""},
      {"27 status bytes", StatusAnswer("0000001B", Bytes(status.begin(), status.end() - 1)), true,
       27, 27, ""},
      {"declares -1", StatusAnswer("FFFFFFFF", status), false, -1, 0, ""},
      {"declares INT_MIN", StatusAnswer("80000000", status), false, INT_MIN, 0, ""},
      {"declares INT_MAX", StatusAnswer("7FFFFFFF", status), false, INT_MAX, 0, ""},
      {"exactly 28", StatusAnswer("0000001C", status), true, 28, 28, "4f0a"},
  };
  for (const StatusCase &c : cases) {
    KivHBN3StatusCacheResponsePayload payload(c.answer.data(), Size(c.answer));
    EXPECT_EQ(payload.IsPayloadSet(), c.set) << c.name;
    EXPECT_EQ(payload.GetPayloadLength(), c.declared) << c.name;
    EXPECT_EQ(payload.GetHeldStatusLength(), c.held) << c.name;
    EXPECT_EQ(payload.GetPrinterID(), c.printerID) << c.name;
    EXPECT_EQ(payload.GetStrAdapterUAA(), "0004000a1b2c") << c.name;
    EXPECT_EQ(payload.GetIPAddressString(), "192.168.1.20") << c.name;

    // A room as large as any declared length still receives only what is held.
    Bytes room(64, 0xEE);
    payload.GetDataPayload(room.data(), Size(room));
    Bytes expected(64, 0xEE);
    for (int i = 0; i < c.held; ++i) {
      expected[static_cast<size_t>(i)] = c.answer[static_cast<size_t>(16 + i)];
    }
    EXPECT_EQ(ToHex(room), ToHex(expected)) << c.name;
  }
}

TEST(HBN3PayloadTest, StatusAnswerRefusals) {
  const Bytes fifteen = Hex("0004000A1B2C 0000 C0A80114 000000");
  EXPECT_EQ(CodeOf([&] { KivHBN3StatusCacheResponsePayload p(fifteen.data(), 15); }), 0x301A2u);
  EXPECT_EQ(CodeOf([&] { KivHBN3StatusCacheResponsePayload p(fifteen.data(), 0); }), 0x301A2u);
  EXPECT_EQ(CodeOf([&] { KivHBN3StatusCacheResponsePayload p(fifteen.data(), -16); }), 0x301A2u);
  EXPECT_EQ(CodeOf([&] { KivHBN3StatusCacheResponsePayload p(nullptr, 16); }), 0x301A1u);

  const Bytes answer = StatusAnswer("00000004", Hex("01020304"));
  KivHBN3StatusCacheResponsePayload payload(answer.data(), Size(answer));
  EXPECT_EQ(CodeOf([&] { payload.GetDataPayload(nullptr, 4); }), 0x308A1u);
}

TEST(HBN3PayloadTest, StatusCopyStopsAtTheRoom) {
  const Bytes status = Status28();
  const Bytes answer = StatusAnswer("0000001C", status);
  KivHBN3StatusCacheResponsePayload payload(answer.data(), Size(answer));
  Bytes three(3, 0xEE);
  payload.GetDataPayload(three.data(), 3);
  EXPECT_EQ(three, Bytes(status.begin(), status.begin() + 3));
  unsigned char untouched = 0xEE;
  payload.GetDataPayload(&untouched, 0);
  payload.GetDataPayload(&untouched, -5);
  EXPECT_EQ(untouched, 0xEE);
}

TEST(HBN3PayloadTest, StatusAnswerKeepsItsOwnCopy) {
  Bytes answer = StatusAnswer("0000001C", Status28());
  KivHBN3StatusCacheResponsePayload payload(answer.data(), Size(answer));
  answer.assign(answer.size(), 0);
  EXPECT_EQ(payload.GetPrinterID(), "4f0a");
  EXPECT_EQ(payload.GetStrAdapterUAA(), "0004000a1b2c");
  EXPECT_EQ(payload.GetIPAddressString(), "192.168.1.20");
}

TEST(HBN3PayloadTest, HeaderFromACutStatusCarriesZeroBytesNotStaleOnes) {
  const Bytes answer = StatusAnswer("00000004", Bytes());
  KivHBN3StatusCacheResponsePayload cut(answer.data(), Size(answer));
  KivHBN3Header header(0x48424E33, 0, 0, 0, 0x80000001, cut);
  Bytes out(28, 0xEE);
  header.GetDataStream(out.data(), 28);
  EXPECT_EQ(ToHex(out), ToHex(Hex("48424E33 00000000 00000000 00000000 80000001 00000004"
                                  "00000000")));

  const Bytes negative = StatusAnswer("FFFFFFF0", Bytes());
  KivHBN3StatusCacheResponsePayload lying(negative.data(), Size(negative));
  KivHBN3Header none(0x48424E33, 0, 0, 0, 0x80000001, lying);
  EXPECT_FALSE(none.HasPayload());
}

} // namespace
