// The HBN3 wire pieces: the header, the payloads and the channel open requests, byte for byte,
// parsed back, and every refusal with its numbers.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "Common/Constants/KivCommunicationConstants.h"
#include "HBN3/KivHBN3Header.h"
#include "HBN3/KivHBN3PayLoad.h"
#include "support/TestSupport.h"
#include "support/Thrown.h"

using namespace kivtest;

namespace {

int Size(const Bytes &bytes) { return static_cast<int>(bytes.size()); }

// Header values 1, 2, 3, 4 and a 5-byte payload.
const Bytes kCarrying = Hex("48424E33 00000001 00000002 00000003 00000004 00000005 0102030405");

// The whole message a header writes, into a room of exactly 24 + its data length.
Bytes Stream(KivHBN3Header &header) {
  Bytes out(static_cast<size_t>(kHBN3HeaderLength + header.GetPayloadSize()), 0xEE);
  header.GetDataStream(out.data(), Size(out));
  return out;
}

TEST(HBN3HeaderTest, ParsedHeaderWritesTheSameBytes) {
  const Bytes wire = Hex("48435031 A1B2C3D4 00000002 5F3759DF 80000005 00000000");
  KivHBN3Header parsed(wire.data(), Size(wire));
  EXPECT_EQ(ToHex(Stream(parsed)), ToHex(wire));
  // A parse takes the declared payload only, and replaces the one held before.
  const Bytes extra = Join({kCarrying, Hex("ABCD")});
  parsed.SetDataHeader(extra.data(), Size(extra));
  EXPECT_EQ(ToHex(Stream(parsed)), ToHex(kCarrying));
  parsed.SetDataHeader(wire.data(), Size(wire));
  EXPECT_EQ(ToHex(Stream(parsed)), ToHex(wire));
}

TEST(HBN3HeaderTest, PayloadWritesOnlyHeldBytesAtOffset24) {
  KivHBN3Header header(kCarrying.data(), Size(kCarrying));
  header.SetDataLength(8);
  Bytes room(32, 0xEE);
  header.GetDataStream(room.data(), 32);
  EXPECT_EQ(ToHex(room), ToHex(Hex("48424E33 00000001 00000002 00000003 00000004 00000008"
                                   "0102030405 EEEEEE")));
  // A room of 24 + the stated length, the stated length fewer than the held bytes.
  header.SetDataLength(2);
  Bytes exact(26, 0xEE);
  header.GetPayload(exact.data(), 2);
  EXPECT_EQ(ToHex(exact), ToHex(Join({Bytes(24, 0xEE), Hex("0102")})));
}

// A payload is taken, zero-filled, only when it states a length: status answers declaring 4 bytes
// with none arrived, and declaring -16.
TEST(HBN3HeaderTest, PayloadObjectIsTakenZeroFilledOnlyWhenItStatesALength) {
  const Bytes cut = Hex("0004000A1B2C 0000 C0A80114 00000004");
  const Bytes negative = Hex("0004000A1B2C 0000 C0A80114 FFFFFFF0");
  KivHBN3StatusCacheResponsePayload four(cut.data(), 16), none(negative.data(), 16);
  KivHBN3Header declared(0x48424E33, 0, 2, 0, 4, four), bare(0x48424E33, 0, 2, 0, 4, none);
  EXPECT_EQ(ToHex(Stream(declared)),
            ToHex(Hex("48424E33 00000000 00000002 00000000 00000004 00000004 00000000")));
  EXPECT_EQ(ToHex(Stream(bare)),
            ToHex(Hex("48424E33 00000000 00000002 00000000 00000004 00000000")));
}

TEST(HBN3HeaderTest, RefusalsCarryTheirNumbersAndChangeNothing) {
  KivHBN3Header header(kCarrying.data(), Size(kCarrying));
  Bytes room(40, 0xEE);
  // The first 20 bytes of kCarrying then `tail`, in a vector of exactly its bytes so that a read
  // past the end is caught; `size` is handed to the parser, -1 for the message's own size.
  const auto parse = [&](const char *tail, int size = -1) -> std::function<void()> {
    const Bytes message = Join({Bytes(kCarrying.begin(), kCarrying.begin() + 20), Hex(tail)});
    return [&header, message, size] {
      header.SetDataHeader(message.data(), size == -1 ? Size(message) : size);
    };
  };
  ExpectCodes({
      {"parse null", [] { KivHBN3Header parsed(nullptr, 24); }, 0x105A1},
      {"23 bytes", parse("000000"), 0x105A2},
      {"declares 1, holds 0", parse("00000001"), 0x105A2},
      {"size below the bytes", parse("00000002 0102", 25), 0x105A2},
      {"declares 2^32-1", parse("FFFFFFFF 00"), 0x105A2},
      {"GetDataHeader null", [&] { header.GetDataHeader(nullptr, 24); }, 0x106A1},
      {"GetDataHeader 23", [&] { header.GetDataHeader(room.data(), 23); }, 0x106A2},
      {"GetPayload null", [&] { header.GetPayload(nullptr, 100); }, 0x109A1},
      {"GetPayload 4 of 5", [&] { header.GetPayload(room.data(), 4); }, 0x109A2},
      // A stream room short of the whole message is answered by writing nothing, silently.
      {"GetDataStream 28 of 29", [&] { header.GetDataStream(room.data(), 28); }, 0},
  });
  EXPECT_EQ(Stream(header), kCarrying);
  EXPECT_EQ(room, Bytes(40, 0xEE));
}

// ---- Payloads ----

const unsigned char kUniqueID[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};

// The wire form of a host-list entry whose name argument is `name` (hex, count byte first;
// nullptr for none). The name lies in a block of exactly its bytes, so reading past its count is
// caught, and is released before the payload is written: the payload keeps its own copy.
std::string HostEntry(UInt32 type, const char *pin, UInt16 codePage, const char *name) {
  const Bytes hex = Hex(name ? name : "");
  std::unique_ptr<Bytes> block(new Bytes(hex.begin(), hex.end()));
  KivHBN3ScanHostPayLoad payload(type, pin, kUniqueID, codePage,
                                 name ? reinterpret_cast<const char *>(block->data()) : nullptr);
  block.reset();
  Bytes exact(static_cast<size_t>(payload.GetPayloadLength()));
  payload.GetDataPayload(exact.data(), Size(exact));
  return ToHex(exact);
}

TEST(HBN3PayloadTest, HostListEntryVectors) {
  EXPECT_EQ(HostEntry(1, "12", 0x04E4, "04 484F5354"),
            ToHex(Hex("00000001 31320000 001122334455 04E4 0004 484F5354")));
  EXPECT_EQ(HostEntry(2, "", 0x0000, nullptr),
            ToHex(Hex("00000002 30303030 001122334455 0000 0000")));
  EXPECT_EQ(HostEntry(0x01020304, "9", 0xFDE9, "01 41"),
            ToHex(Hex("01020304 39000000 001122334455 FDE9 0001 41")));
}

// 28 status bytes after the fixed part (adapter, reserved, address 192.168.1.20, length); the
// printer identifier is status bytes 26 and 27, there only when both are held.
const Bytes kStatus = Hex("000102030405060708090A0B0C0D0E0F 10111213141516171819 4F0A");
const struct StatusCase {
  const char *length;
  int declared, held;
  const char *printerID;
} kStatusCases[] = {{"0000001C", 28, 28, "4f0a"},
                    {"0000001B", 27, 27, ""},
                    {"0000001D", 29, 0, ""},
                    {"FFFFFFFF", -1, 0, ""},
                    {"00000004", 4, 4, ""}};

Bytes StatusPayload(const StatusCase &c) {
  return Join({Hex("0004000A1B2C 0000 C0A80114"), Hex(c.length), kStatus});
}

TEST(HBN3PayloadTest, StatusIsHeldOnlyWhenTheDeclaredLengthArrived) {
  for (const StatusCase &c : kStatusCases) {
    const Bytes answer = StatusPayload(c);
    KivHBN3StatusCacheResponsePayload payload(answer.data(), Size(answer));
    EXPECT_EQ(payload.IsPayloadSet(), c.held > 0) << c.length;
    EXPECT_EQ(payload.GetPayloadLength(), c.declared) << c.length;
    EXPECT_EQ(payload.GetHeldStatusLength(), c.held) << c.length;
    EXPECT_EQ(payload.GetPrinterID(), c.printerID) << c.length;
  }
}

// A room as large as any declared length receives only what is held; a smaller one stops it.
TEST(HBN3PayloadTest, StatusIsCopiedUpToTheRoom) {
  for (const StatusCase &c : kStatusCases) {
    const Bytes answer = StatusPayload(c);
    KivHBN3StatusCacheResponsePayload payload(answer.data(), Size(answer));
    Bytes room(64, 0xEE), expected(64, 0xEE), three(3, 0xEE);
    std::copy(kStatus.begin(), kStatus.begin() + c.held, expected.begin());
    payload.GetDataPayload(room.data(), Size(room));
    payload.GetDataPayload(three.data(), 3);
    EXPECT_EQ(ToHex(room), ToHex(expected)) << c.length;
    EXPECT_EQ(three, Bytes(expected.begin(), expected.begin() + 3)) << c.length;
  }
}

TEST(HBN3PayloadTest, RefusalsCarryClassAndFunctionNumbers) {
  const Bytes name = Hex("04 484F5354");
  KivHBN3ScanHostPayLoad host(1, "1234", kUniqueID, 0x04E4,
                              reinterpret_cast<const char *>(name.data()));
  const Bytes answer = Hex("0004000A1B2C 0000 C0A80114 00000004 01020304");
  KivHBN3StatusCacheResponsePayload status(answer.data(), Size(answer));
  Bytes room(22, 0xEE);
  ExpectCodes({
      {"host no identifier", [] { KivHBN3ScanHostPayLoad p(1, "", nullptr, 0, nullptr); }, 0x201A3},
      {"host null room", [&] { host.GetDataPayload(nullptr, 22); }, 0x203A1},
      // The whole payload or nothing: a room for the fixed part only is refused too.
      {"host room 21 of 22", [&] { host.GetDataPayload(room.data(), 21); }, 0x203A2},
      {"host room 18 of 22", [&] { host.GetDataPayload(room.data(), 18); }, 0x203A2},
      {"status 15 bytes", [&] { KivHBN3StatusCacheResponsePayload p(answer.data(), 15); }, 0x301A2},
      {"status -16", [&] { KivHBN3StatusCacheResponsePayload p(answer.data(), -16); }, 0x301A2},
      {"status null", [] { KivHBN3StatusCacheResponsePayload p(nullptr, 16); }, 0x301A1},
      {"status null room", [&] { status.GetDataPayload(nullptr, 4); }, 0x308A1},
      {"status room -5", [&] { status.GetDataPayload(room.data(), -5); }, 0},
  });
  EXPECT_EQ(room, Bytes(22, 0xEE));
}

// ---- Channel open requests ----

TEST(HBN3OpenRequestTest, EachEndPointHasItsNineBytes) {
  // End points 0 scan, 1 HID, 2 print, 3 media; any other opens the scan channel.
  Bytes all;
  for (int endPoint : {0, 1, 2, 3, 7, -1}) {
    const unsigned char *request = KivOpenRequestFor(endPoint);
    all.insert(all.end(), request, request + kHBN3InterfaceTagLength);
  }
  EXPECT_EQ(ToHex(all),
            ToHex(Hex("48424E33 00 00000002  48424E33 00 00000004  48424E33 00 00000001"
                      "48424E33 00 00000008  48424E33 00 00000002  48424E33 00 00000002")));
}

} // namespace
