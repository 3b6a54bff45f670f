// The message container: each operation's boundaries, and the numbers its exceptions carry.
#include <gtest/gtest.h>

#include <functional>

#include "CommonFiles/KivNetBuffer.h"
#include "Exceptions/KivWrapperException.h"
#include "support/TestSupport.h"

using kivtest::Bytes;
using kivtest::Hex;

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

Bytes Contents(const KivNetBuffer &buffer) {
  return Bytes(buffer.GetBufferRef(), buffer.GetBufferRef() + buffer.GetBufferLength());
}

class NetBufferTest : public testing::Test {
protected:
  ~NetBufferTest() override { buffer.ResetBuffer(); }
  KivNetBuffer buffer;
  // 24-byte HBN3 header whose command (bytes 16-19) is 2.
  const Bytes header = Hex("48424E33 00000001 00000000 00000007 00000002 00000000");
};

TEST_F(NetBufferTest, FreshContainerIsEmpty) {
  EXPECT_EQ(buffer.GetBufferRef(), nullptr);
  EXPECT_EQ(buffer.GetBufferLength(), 0);
  EXPECT_EQ(buffer.GetHeaderType(), 0u);
  EXPECT_EQ(buffer.GetCommandType(), 0u);
  EXPECT_EQ(buffer.getClassID(), 0x62756666u);
}

TEST_F(NetBufferTest, SetBufferReadsHeaderTypeAndCommand) {
  EXPECT_EQ(buffer.SetBuffer(header.data(), 24), 24);
  EXPECT_EQ(buffer.GetHeaderType(), 0x48424E33u);
  EXPECT_EQ(buffer.GetCommandType(), 2u);
  EXPECT_EQ(Contents(buffer), header);
  UInt32 type = 0;
  EXPECT_EQ(buffer.GetHeaderContainer(type), nullptr);
  EXPECT_EQ(type, 0x48424E33u);
}

TEST_F(NetBufferTest, SetBufferCopiesTheSource) {
  Bytes source = header;
  buffer.SetBuffer(source.data(), 24);
  source[0] = 0;
  EXPECT_EQ(Contents(buffer), header);
}

TEST_F(NetBufferTest, ShortMessagesRecordZeroForMissingFields) {
  const Bytes hcp = Hex("48435031 0001 000000");
  buffer.SetBuffer(hcp.data(), static_cast<int>(hcp.size()));
  EXPECT_EQ(buffer.GetHeaderType(), 0x48435031u);
  EXPECT_EQ(buffer.GetCommandType(), 0u);
  buffer.SetBuffer(header.data(), 3);
  EXPECT_EQ(buffer.GetHeaderType(), 0u);
  EXPECT_EQ(buffer.GetBufferLength(), 3);
}

TEST_F(NetBufferTest, EmptySetBufferKeepsHeaderAndCommand) {
  buffer.SetBuffer(header.data(), 24);
  EXPECT_EQ(buffer.SetBuffer(header.data(), 0), 0);
  EXPECT_EQ(buffer.GetBufferRef(), nullptr);
  EXPECT_EQ(buffer.GetBufferLength(), 0);
  EXPECT_EQ(buffer.GetHeaderType(), 0x48424E33u);
  EXPECT_EQ(buffer.GetCommandType(), 2u);
}

TEST_F(NetBufferTest, ResetKeepsHeaderAndCommand) {
  buffer.SetBuffer(header.data(), 24);
  buffer.ResetBuffer();
  EXPECT_EQ(buffer.GetBufferLength(), 0);
  EXPECT_EQ(buffer.GetBufferRef(), nullptr);
  EXPECT_EQ(buffer.GetHeaderType(), 0x48424E33u);
  EXPECT_EQ(buffer.GetCommandType(), 2u);
  buffer.ResetBuffer(); // twice is harmless
}

TEST_F(NetBufferTest, GetBufferNeedsRoomForTheWholeMessage) {
  buffer.SetBuffer(header.data(), 24);
  Bytes exact(24, 0xEE);
  EXPECT_EQ(buffer.GetBuffer(exact.data(), 24), 24);
  EXPECT_EQ(exact, header);
  Bytes shorter(23, 0xEE);
  EXPECT_EQ(CodeOf([&] { buffer.GetBuffer(shorter.data(), 23); }), 0x804A2u);
  EXPECT_EQ(shorter, Bytes(23, 0xEE)) << "nothing copied in part";
  EXPECT_EQ(CodeOf([&] { buffer.GetBuffer(shorter.data(), -1); }), 0x804A2u);
  EXPECT_EQ(buffer.GetBufferLength(), 24) << "the container keeps its content";
}

TEST_F(NetBufferTest, EmptyContainerGetsZeroBytes) {
  unsigned char one = 0x5A;
  EXPECT_EQ(buffer.GetBuffer(&one, 0), 0);
  EXPECT_EQ(one, 0x5A);
}

TEST_F(NetBufferTest, ExtractDrainsFromTheFront) {
  buffer.SetBuffer(header.data(), 24);
  Bytes out(100, 0);
  EXPECT_EQ(buffer.ExtractFromBuffer(out.data(), 10), 10);
  EXPECT_EQ(Bytes(out.begin(), out.begin() + 10), Bytes(header.begin(), header.begin() + 10));
  EXPECT_EQ(Contents(buffer), Bytes(header.begin() + 10, header.end()));
  EXPECT_EQ(buffer.ExtractFromBuffer(out.data(), 100), 14);
  EXPECT_EQ(Bytes(out.begin(), out.begin() + 14), Bytes(header.begin() + 10, header.end()));
  EXPECT_EQ(buffer.GetBufferRef(), nullptr);
  EXPECT_EQ(buffer.ExtractFromBuffer(out.data(), 100), 0);
  EXPECT_EQ(buffer.GetHeaderType(), 0x48424E33u) << "extracting keeps the header type";
}

TEST_F(NetBufferTest, ExtractOfExactlyTheLengthDrains) {
  buffer.SetBuffer(header.data(), 24);
  Bytes out(24, 0);
  EXPECT_EQ(buffer.ExtractFromBuffer(out.data(), 24), 24);
  EXPECT_EQ(out, header);
  EXPECT_EQ(buffer.GetBufferLength(), 0);
  EXPECT_EQ(buffer.ExtractFromBuffer(out.data(), 0), 0);
}

TEST_F(NetBufferTest, InsertReturnValuesDifferByCase) {
  const Bytes five = Hex("0102030405");
  const Bytes three = Hex("060708");
  EXPECT_EQ(buffer.InsertIntoBuffer(five.data(), 5), 5);
  EXPECT_EQ(buffer.InsertIntoBuffer(three.data(), 3), 0);
  EXPECT_EQ(Contents(buffer), Hex("0102030405060708"));
  EXPECT_EQ(buffer.GetHeaderType(), 0u) << "inserting never reads the header type";
  EXPECT_EQ(buffer.GetCommandType(), 0u);
}

TEST_F(NetBufferTest, InsertKeepsHeaderAndCommandOfTheStoredMessage) {
  buffer.SetBuffer(header.data(), 24);
  const Bytes tail = Hex("FFFFFFFF");
  EXPECT_EQ(buffer.InsertIntoBuffer(tail.data(), 4), 0);
  EXPECT_EQ(buffer.GetBufferLength(), 28);
  EXPECT_EQ(buffer.GetCommandType(), 2u);
}

TEST_F(NetBufferTest, EmptyInsertIntoEmptyContainerKeepsItEmpty) {
  const Bytes any = Hex("01");
  EXPECT_EQ(buffer.InsertIntoBuffer(any.data(), 0), 0);
  EXPECT_EQ(buffer.GetBufferRef(), nullptr);
  EXPECT_EQ(buffer.GetBufferLength(), 0);
}

struct Refusal {
  const char *what;
  std::function<void(KivNetBuffer &)> operation;
  UInt32 code;
};

TEST_F(NetBufferTest, RefusalsCarryClassAndFunctionNumbers) {
  unsigned char room[8] = {};
  const Refusal refusals[] = {
      {"SetBuffer null", [](KivNetBuffer &b) { b.SetBuffer(nullptr, 4); }, 0x805A1},
      {"SetBuffer negative", [&](KivNetBuffer &b) { b.SetBuffer(room, -1); }, 0x805A2},
      {"GetBuffer null", [](KivNetBuffer &b) { b.GetBuffer(nullptr, 4); }, 0x804A1},
      {"Extract null", [](KivNetBuffer &b) { b.ExtractFromBuffer(nullptr, 4); }, 0x80BA1},
      {"Extract negative", [&](KivNetBuffer &b) { b.ExtractFromBuffer(room, -5); }, 0x80BA2},
      {"Insert null", [](KivNetBuffer &b) { b.InsertIntoBuffer(nullptr, 4); }, 0x80CA1},
      {"Insert negative", [&](KivNetBuffer &b) { b.InsertIntoBuffer(room, -2); }, 0x80CA2},
  };
  for (const Refusal &r : refusals) {
    buffer.SetBuffer(header.data(), 24);
    EXPECT_EQ(CodeOf([&] { r.operation(buffer); }), r.code) << r.what;
    EXPECT_EQ(Contents(buffer), header) << r.what << ": a refusal changes nothing";
  }
}

TEST_F(NetBufferTest, CopiesShareTheBlockAndOneHolderReleasesIt) {
  buffer.SetBuffer(header.data(), 24);
  KivNetBuffer copy(buffer);
  EXPECT_EQ(copy.GetBufferRef(), buffer.GetBufferRef());
  EXPECT_EQ(copy.GetCommandType(), 2u);
  copy.ResetBuffer();
  // The original's pointer now names released storage; forget it without touching it.
  buffer = KivNetBuffer();
}

TEST_F(NetBufferTest, StorageGuardReleasesOnEveryPath) {
  KivNetBuffer temporary;
  try {
    KivNetBufferStorageGuard guard(temporary);
    temporary.SetBuffer(header.data(), 24);
    throw 1;
  } catch (int) {
  }
  EXPECT_EQ(temporary.GetBufferRef(), nullptr);
}

} // namespace
