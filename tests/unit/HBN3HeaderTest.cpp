// The HBN3 header: byte-exact wire vectors, parsing back, and every refusal with its numbers.
#include <gtest/gtest.h>

#include <climits>
#include <functional>
#include <utility>
#include <string>

#include "Exceptions/KivWrapperException.h"
#include "HBN3/KivHBN3Header.h"
#include "HBN3/KivHBN3PayLoad.h"
#include "support/TestSupport.h"

using kivtest::Bytes;
using kivtest::Hex;
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

// An HBN3 message with header values 1, 2, 3, 4 and `payload`, its length written by hand.
Bytes Message(const Bytes &payload) {
  const size_t n = payload.size();
  return kivtest::Join({Hex("48424E33 00000001 00000002 00000003 00000004"),
                        {static_cast<unsigned char>(n >> 24), static_cast<unsigned char>(n >> 16),
                         static_cast<unsigned char>(n >> 8), static_cast<unsigned char>(n)},
                        payload});
}

// `bytes` followed by 0xEE up to `size` bytes.
Bytes Padded(Bytes bytes, size_t size) {
  bytes.resize(size, 0xEE);
  return bytes;
}

// The whole message a header writes, into a room of exactly 24 + its data length.
Bytes Stream(KivHBN3Header &header) {
  Bytes out(static_cast<size_t>(KivHBN3Header::kHeaderLength + header.GetPayloadSize()), 0xEE);
  header.GetDataStream(out.data(), Size(out));
  return out;
}

// A payload whose length and behaviour a test chooses.
class FakePayload : public KivPayload {
public:
  FakePayload(int length, Bytes bytes, bool fail = false)
      : mLength(length), mBytes(std::move(bytes)), mFail(fail) {}
  int GetPayloadLength() override { return mLength; }
  void GetDataPayload(unsigned char *dataPayload, int payloadlen) override {
    ++calls;
    if (mFail) {
      throw KivWrapperException(kClassHBN3StatusCacheResponsePayload, 0x800, COPY_ERROR);
    }
    for (size_t i = 0; i < mBytes.size() && static_cast<int>(i) < payloadlen; ++i) {
      dataPayload[i] = mBytes[i];
    }
  }
  int calls = 0;

private:
  int mLength;
  Bytes mBytes;
  bool mFail;
};

// ---- Writing ----

struct HeaderVector {
  UInt32 tag, portInfo, channel, timeStamp, command;
  const char *wire;
};

const HeaderVector kHeaderVectors[] = {
    {0x48424E33, 1, 2, 3, 4, "48424E33 00000001 00000002 00000003 00000004 00000000"},
    {0x48424E33, 0, 0, 0, 3, "48424E33 00000000 00000000 00000000 00000003 00000000"},
    {0x48424E33, 0xA1B2C3D4, 2, 0x5F3759DF, 0x80000005,
     "48424E33 A1B2C3D4 00000002 5F3759DF 80000005 00000000"},
    {0x48435031, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF,
     "48435031 FFFFFFFF FFFFFFFF FFFFFFFF FFFFFFFF 00000000"},
};

TEST(HBN3HeaderTest, HeaderWithoutPayloadWritesTheTableVectors) {
  for (const HeaderVector &v : kHeaderVectors) {
    KivHBN3Header header(v.tag, v.portInfo, v.channel, v.timeStamp, v.command);
    EXPECT_FALSE(header.HasPayload());
    EXPECT_EQ(header.GetPayloadSize(), 0);
    Bytes exact(24, 0xEE);
    header.GetDataHeader(exact.data(), 24);
    EXPECT_EQ(ToHex(exact), ToHex(Hex(v.wire)));
    EXPECT_EQ(ToHex(Stream(header)), ToHex(Hex(v.wire)));
  }
}

TEST(HBN3HeaderTest, GetDataHeaderWritesNothingBeyondByte23) {
  const Bytes payload = Hex("0102030405060708");
  const Bytes message = Message(payload);
  KivHBN3Header header(message.data(), Size(message));
  Bytes room(40, 0xEE);
  header.GetDataHeader(room.data(), Size(room));
  EXPECT_EQ(ToHex(room), ToHex(Padded(Bytes(message.begin(), message.begin() + 24), 40)));
}

TEST(HBN3HeaderTest, HostListEntryMessageCarriesThePayloadBytes) {
  const unsigned char uniqueID[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
  const Bytes name = Hex("04 484F5354");
  KivHBN3ScanHostPayLoad payload(1, "1234", uniqueID, 0x04E4,
                                 reinterpret_cast<const char *>(name.data()));
  KivHBN3Header header(0x48424E33, 7, 2, 0x01020304, 4, payload);
  EXPECT_TRUE(header.HasPayload());
  EXPECT_EQ(header.GetPayloadSize(), 22);
  EXPECT_EQ(ToHex(Stream(header)), ToHex(Hex("48424E33 00000007 00000002 01020304 00000004 00000016"
                                             "00000001 31323334 001122334455 04E4 0004 484F5354")));
}

TEST(HBN3HeaderTest, GetDataStreamIntoAShortRoomWritesNothingAndThrowsNothing) {
  KivHBN3Header bare(0x48424E33, 1, 2, 3, 4);
  Bytes room(23, 0xEE);
  EXPECT_EQ(CodeOf([&] { bare.GetDataStream(room.data(), 23); }), 0u);
  EXPECT_EQ(room, Bytes(23, 0xEE));
  EXPECT_EQ(CodeOf([&] { bare.GetDataHeader(room.data(), 23); }), 0x106A2u);
  EXPECT_EQ(room, Bytes(23, 0xEE));

  // With a payload, one byte short of the whole message is too short as well.
  const Bytes message = Message(Hex("AABBCC"));
  KivHBN3Header carrying(message.data(), Size(message));
  Bytes almost(26, 0xEE);
  EXPECT_EQ(CodeOf([&] { carrying.GetDataStream(almost.data(), 26); }), 0u);
  EXPECT_EQ(almost, Bytes(26, 0xEE));
  EXPECT_EQ(CodeOf([&] { carrying.GetDataStream(almost.data(), -1); }), 0u);
  EXPECT_EQ(CodeOf([&] { carrying.GetDataStream(nullptr, 0); }), 0u);
}

TEST(HBN3HeaderTest, SetDataLengthStatesALengthWithoutPayloadBytes) {
  KivHBN3Header header(0x48424E33, 1, 2, 3, 5);
  header.SetDataLength(8);
  EXPECT_TRUE(header.HasPayload());
  EXPECT_EQ(header.GetPayloadSize(), 8);
  Bytes room(32, 0xEE);
  header.GetDataStream(room.data(), 32);
  EXPECT_EQ(ToHex(room), ToHex(Hex("48424E33 00000001 00000002 00000003 00000005 00000008"
                                   "EEEEEEEE EEEEEEEE")));
  // The room is checked against the stated length, and nothing is read that is not held.
  Bytes payloadRoom(32, 0xEE);
  header.GetPayload(payloadRoom.data(), 8);
  EXPECT_EQ(payloadRoom, Bytes(32, 0xEE));
}

TEST(HBN3HeaderTest, GetPayloadNeverReadsMoreThanIsHeld) {
  const Bytes message = Message(Hex("010203040506"));
  KivHBN3Header header(message.data(), Size(message));
  header.SetDataLength(10);
  Bytes room(34, 0xEE);
  header.GetPayload(room.data(), 10);
  EXPECT_EQ(ToHex(Bytes(room.begin() + 24, room.end())), ToHex(Hex("010203040506 EEEEEEEE")));
  EXPECT_EQ(Bytes(room.begin(), room.begin() + 24), Bytes(24, 0xEE)) << "offset 24 only";

  // A smaller stated length writes only that many of the bytes held.
  header.SetDataLength(2);
  Bytes exact(26, 0xEE);
  header.GetPayload(exact.data(), 2);
  EXPECT_EQ(ToHex(Bytes(exact.begin() + 24, exact.end())), ToHex(Hex("0102")));
}

TEST(HBN3HeaderTest, GetPayloadWritesExactlyIntoARoomOf24PlusTheLength) {
  const Bytes payload = Hex("A0A1A2A3A4A5A6A7A8A9");
  const Bytes message = Message(payload);
  KivHBN3Header header(message.data(), Size(message));
  Bytes exact(34, 0xEE);
  header.GetPayload(exact.data(), 10);
  EXPECT_EQ(Bytes(exact.begin() + 24, exact.end()), payload);
}

// ---- Reading ----

TEST(HBN3HeaderTest, ParsingTheTableVectorsGivesTheValuesBack) {
  for (const HeaderVector &v : kHeaderVectors) {
    const Bytes wire = Hex(v.wire);
    KivHBN3Header header(wire.data(), Size(wire));
    EXPECT_EQ(header.GetHeaderType(), v.tag);
    EXPECT_EQ(header.GetPortInfo(), v.portInfo);
    EXPECT_EQ(header.GetChannelID(), v.channel);
    EXPECT_EQ(header.GetTimeStamp(), v.timeStamp);
    EXPECT_EQ(header.GetCommand(), v.command);
    EXPECT_EQ(header.GetPayloadSize(), 0);
    EXPECT_FALSE(header.HasPayload());
    EXPECT_EQ(Stream(header), wire) << "parsed header writes the same bytes";
  }
}

TEST(HBN3HeaderTest, ParsingTakesThePayloadItDeclares) {
  const Bytes message = Hex("48424E33 00000001 00000002 00000003 80000001 00000006"
                            "111213141516");
  KivHBN3Header header(message.data(), Size(message));
  EXPECT_EQ(header.GetPayloadSize(), 6);
  EXPECT_TRUE(header.HasPayload());
  EXPECT_EQ(header.GetCommand(), 0x80000001u);
  Bytes room(30, 0);
  header.GetPayload(room.data(), 6);
  EXPECT_EQ(ToHex(Bytes(room.begin() + 24, room.end())), ToHex(Hex("111213141516")));
  EXPECT_EQ(Stream(header), message);
}

TEST(HBN3HeaderTest, BytesBeyondTheDeclaredPayloadAreIgnored) {
  const Bytes message = Hex("48424E33 00000000 00000000 00000000 00000003 00000002 ABCD EF01");
  KivHBN3Header header(message.data(), Size(message));
  EXPECT_EQ(header.GetPayloadSize(), 2);
  EXPECT_EQ(ToHex(Stream(header)),
            ToHex(Hex("48424E33 00000000 00000000 00000000 00000003 00000002 ABCD")));
}

TEST(HBN3HeaderTest, AnyTagIsAcceptedUnchanged) {
  const Bytes hcp = Hex("48435031 00000000 00000000 00000000 00000001 00000000");
  KivHBN3Header header(hcp.data(), Size(hcp));
  EXPECT_EQ(header.GetHeaderType(), 0x48435031u);
}

TEST(HBN3HeaderTest, SetDataHeaderTwiceReplacesThePayload) {
  const Bytes first = Message(Hex("0102030405060708090A"));
  const Bytes second = Message(Hex("F1F2"));
  KivHBN3Header header(first.data(), Size(first));
  header.SetDataHeader(second.data(), Size(second));
  EXPECT_EQ(header.GetPayloadSize(), 2);
  EXPECT_EQ(Stream(header), second);
  const Bytes none = Message(Bytes());
  header.SetDataHeader(none.data(), Size(none));
  EXPECT_FALSE(header.HasPayload());
  EXPECT_EQ(Stream(header), none);
}

// ---- Refusals ----

struct Refusal {
  const char *name;
  const char *message; // hex
  int size;            // size handed to the parser; -1 for the message's own size
  UInt32 code;
};

// Each message lies in a vector of exactly its bytes, so a read past the end is caught.
const Refusal kParseRefusals[] = {
    {"23 bytes", "48424E33 00000001 00000002 00000003 00000004 000000", -1, 0x105A2},
    {"size 0", "48424E33 00000001 00000002 00000003 00000004 00000000", 0, 0x105A2},
    {"negative size", "48424E33 00000001 00000002 00000003 00000004 00000000", -5, 0x105A2},
    {"declares 1, holds 0", "48424E33 00000001 00000002 00000003 00000004 00000001", -1, 0x105A2},
    {"declares 6, holds 5", "48424E33 00000000 00000000 00000000 00000001 00000006 0102030405", -1,
     0x105A2},
    {"size below the bytes", "48424E33 00000000 00000000 00000000 00000001 00000002 0102", 25,
     0x105A2},
    {"declares 2^31-1", "48424E33 00000000 00000000 00000000 00000001 7FFFFFFF 00", -1, 0x105A2},
    {"declares 2^31", "48424E33 00000000 00000000 00000000 00000001 80000000 00", -1, 0x105A2},
    {"declares 2^32-1", "48424E33 00000000 00000000 00000000 00000001 FFFFFFFF 00", -1, 0x105A2},
};

TEST(HBN3HeaderTest, ParsingRefusesShortAndLyingMessages) {
  for (const Refusal &r : kParseRefusals) {
    const Bytes message = Hex(r.message);
    const int size = r.size == -1 ? Size(message) : r.size;
    EXPECT_EQ(CodeOf([&] { KivHBN3Header parsed(message.data(), size); }), r.code) << r.name;
  }
}

TEST(HBN3HeaderTest, ARefusedParseLeavesTheHeaderAsItWas) {
  const Bytes good = Message(Hex("0A0B0C"));
  KivHBN3Header header(good.data(), Size(good));
  for (const Refusal &r : kParseRefusals) {
    const Bytes message = Hex(r.message);
    const int size = r.size == -1 ? Size(message) : r.size;
    EXPECT_EQ(CodeOf([&] { header.SetDataHeader(message.data(), size); }), r.code) << r.name;
    EXPECT_EQ(Stream(header), good) << r.name;
  }
}

TEST(HBN3HeaderTest, NullBuffersAreRefusedWithTheirFunctionNumbers) {
  EXPECT_EQ(CodeOf([] { KivHBN3Header parsed(nullptr, 24); }), 0x105A1u);
  KivHBN3Header header(0x48424E33, 1, 2, 3, 4);
  EXPECT_EQ(CodeOf([&] { header.SetDataHeader(nullptr, 100); }), 0x105A1u);
  EXPECT_EQ(CodeOf([&] { header.GetDataHeader(nullptr, 24); }), 0x106A1u);
  EXPECT_EQ(CodeOf([&] { header.GetPayload(nullptr, 100); }), 0x109A1u);
  EXPECT_EQ(CodeOf([&] { header.GetDataStream(nullptr, 24); }), 0x106A1u)
      << "a null stream with room fails in the header write";
}

TEST(HBN3HeaderTest, ShortRoomsAreRefusedWithTheirFunctionNumbers) {
  const Bytes message = Message(Hex("0102030405"));
  KivHBN3Header header(message.data(), Size(message));
  Bytes room(40, 0xEE);
  EXPECT_EQ(CodeOf([&] { header.GetDataHeader(room.data(), 0); }), 0x106A2u);
  EXPECT_EQ(CodeOf([&] { header.GetDataHeader(room.data(), -24); }), 0x106A2u);
  EXPECT_EQ(CodeOf([&] { header.GetPayload(room.data(), 4); }), 0x109A2u);
  EXPECT_EQ(CodeOf([&] { header.GetPayload(room.data(), -1); }), 0x109A2u);
  EXPECT_EQ(room, Bytes(40, 0xEE)) << "a refused write touches nothing";
  EXPECT_EQ(CodeOf([&] { header.GetPayload(room.data(), 5); }), 0u);
}

// ---- Taking a payload ----

TEST(HBN3HeaderTest, APayloadThatWritesLessLeavesZeroBytes) {
  FakePayload payload(4, Hex("AB"));
  KivHBN3Header header(0x48424E33, 0, 2, 0, 4, payload);
  EXPECT_EQ(payload.calls, 1);
  EXPECT_EQ(ToHex(Stream(header)),
            ToHex(Hex("48424E33 00000000 00000002 00000000 00000004 00000004 AB000000")));
}

TEST(HBN3HeaderTest, APayloadStatingNoOrANegativeLengthAddsNothing) {
  for (int length : {0, -1, INT_MIN}) {
    FakePayload payload(length, Bytes());
    KivHBN3Header header(0x48424E33, 0, 2, 0, 4, payload);
    EXPECT_EQ(payload.calls, 0) << length;
    EXPECT_FALSE(header.HasPayload()) << length;
    EXPECT_EQ(ToHex(Stream(header)),
              ToHex(Hex("48424E33 00000000 00000002 00000000 00000004 00000000")));
  }
}

TEST(HBN3HeaderTest, APayloadExceptionPassesUnchangedAndLeaksNothing) {
  FakePayload failing(16, Bytes(), true);
  EXPECT_EQ(CodeOf([&] { KivHBN3Header header(0x48424E33, 0, 2, 0, 4, failing); }), 0x308A3u);

  const unsigned char uniqueID[6] = {};
  KivHBN3ScanHostPayLoad host(1, "", uniqueID, 0, nullptr);
  EXPECT_NO_THROW(KivHBN3Header(0x48424E33, 0, 2, 0, 4, host));
}

} // namespace
