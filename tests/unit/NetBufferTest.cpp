// The message container: each operation's boundaries, and the numbers its refusals carry.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <utility>

#include "CommonFiles/KivNetBuffer.h"
#include "support/TestSupport.h"
#include "support/Thrown.h"

using namespace kivtest;

namespace {

Bytes Contents(const KivNetBuffer &buffer) {
  return Bytes(buffer.GetBufferRef(), buffer.GetBufferRef() + buffer.GetBufferLength());
}

class NetBufferTest : public testing::Test {
protected:
  ~NetBufferTest() override { buffer.ResetBuffer(); }
  KivNetBuffer buffer;
  // A 24-byte HBN3 header whose command (bytes 16-19) is 2.
  const Bytes header = Hex("48424E33 00000001 00000000 00000007 00000002 00000000");
};

TEST_F(NetBufferTest, SetBufferCopiesAndReadsOnlyTheFieldsItHolds) {
  const struct {
    int length;
    UInt32 type, command;
  } cases[] = {{24, 0x48424E33, 2}, {20, 0x48424E33, 2}, {19, 0x48424E33, 0}, {3, 0, 0}};
  for (const auto &c : cases) {
    Bytes source = header, exact(static_cast<size_t>(c.length), 0xEE);
    EXPECT_EQ(buffer.SetBuffer(source.data(), c.length), c.length);
    source.assign(24, 0);
    EXPECT_EQ(buffer.GetBuffer(exact.data(), c.length), c.length) << "an exact room is enough";
    EXPECT_EQ(exact, Bytes(header.begin(), header.begin() + c.length));
    EXPECT_EQ(buffer.GetHeaderType(), c.type) << c.length;
    EXPECT_EQ(buffer.GetCommandType(), c.command) << c.length;
  }
}

TEST_F(NetBufferTest, EmptySetBufferEmptiesAndKeepsHeaderAndCommand) {
  buffer.SetBuffer(header.data(), 24);
  EXPECT_EQ(buffer.SetBuffer(header.data(), 0), 0);
  EXPECT_EQ(buffer.GetBufferRef(), nullptr);
  EXPECT_EQ(buffer.GetCommandType(), 2u);
}

TEST_F(NetBufferTest, ResetEmptiesAndKeepsHeaderAndCommand) {
  buffer.SetBuffer(header.data(), 24);
  buffer.ResetBuffer();
  EXPECT_EQ(buffer.GetBufferRef(), nullptr);
  EXPECT_EQ(buffer.GetHeaderType(), 0x48424E33u);
  EXPECT_EQ(buffer.GetCommandType(), 2u);
  unsigned char untouched = 0x5A;
  EXPECT_EQ(buffer.GetBuffer(&untouched, 0), 0) << "an empty container gives nothing";
  EXPECT_EQ(untouched, 0x5A);
}

// Refilled from its own bytes, or from a copy sharing its block: the bytes are read first.
TEST_F(NetBufferTest, SetBufferFromItsOwnBytesReadsThemBeforeReleasing) {
  buffer.SetBuffer(header.data(), 24);
  const KivNetBuffer sharing = buffer;
  EXPECT_EQ(buffer.SetBuffer(sharing.GetBufferRef() + 4, 20), 20);
  EXPECT_EQ(buffer.SetBuffer(buffer.GetBufferRef(), 16), 16);
  EXPECT_EQ(Contents(buffer), Bytes(header.begin() + 4, header.begin() + 20));
}

TEST_F(NetBufferTest, ExtractDrainsFromTheFront) {
  buffer.SetBuffer(header.data(), 24);
  Bytes out(24, 0);
  EXPECT_EQ(buffer.ExtractFromBuffer(out.data(), 10), 10);
  EXPECT_EQ(Contents(buffer), Bytes(header.begin() + 10, header.end()));
  EXPECT_EQ(buffer.ExtractFromBuffer(out.data() + 10, 14), 14) << "exactly the rest";
  EXPECT_EQ(out, header);
  EXPECT_EQ(buffer.GetBufferRef(), nullptr);
  EXPECT_EQ(buffer.ExtractFromBuffer(out.data(), 24), 0);
}

// Inserting gives the length into an empty container and 0 after, and never reads the fields.
TEST_F(NetBufferTest, InsertGivesTheLengthOnlyIntoAnEmptyContainer) {
  buffer.SetBuffer(header.data(), 24);
  buffer.ResetBuffer();
  const Bytes five = Hex("0102030405");
  EXPECT_EQ(buffer.InsertIntoBuffer(five.data(), 0), 0);
  EXPECT_EQ(buffer.GetBufferRef(), nullptr);
  EXPECT_EQ(buffer.InsertIntoBuffer(five.data(), 5), 5);
  EXPECT_EQ(buffer.InsertIntoBuffer(five.data(), 3), 0);
  EXPECT_EQ(Contents(buffer), Hex("0102030405 010203"));
  EXPECT_EQ(buffer.GetCommandType(), 2u);
}

// A block handed over becomes the content as it is, and its fields are read from it as stored
// bytes' are; a message too short for a field records 0 for it.
TEST_F(NetBufferTest, AdoptedBlockIsTheContentItself) {
  for (int length : {24, 19, 3}) {
    kiv::OwnedBlock block(new unsigned char[static_cast<size_t>(length)]);
    std::copy_n(header.begin(), length, block.get());
    const unsigned char *const bytes = block.get();
    buffer.AdoptBlock(std::move(block), length);
    EXPECT_EQ(buffer.GetBufferRef(), bytes) << "not copied";
    EXPECT_EQ(Contents(buffer), Bytes(header.begin(), header.begin() + length));
    EXPECT_EQ(buffer.GetHeaderType(), length >= 4 ? 0x48424E33u : 0u) << length;
    EXPECT_EQ(buffer.GetCommandType(), length >= 20 ? 2u : 0u) << length;
  }
}

// Taking moves the block: the taker holds the very bytes, the source is empty and keeps its
// fields. The taker's fields come from the bytes, not from the source's fields, which appending
// does not update.
TEST_F(NetBufferTest, TakeBufferMovesTheBlockWithoutCopying) {
  KivNetBuffer source;
  KivNetBufferStorageGuard release(source);
  const Bytes ping = Hex("48424E33 00000000 00000000 00000007 00000003 00000000");
  source.InsertIntoBuffer(ping.data(), 24);
  buffer.SetBuffer(header.data(), 24);
  const unsigned char *const bytes = source.GetBufferRef();
  buffer.TakeBuffer(source);
  EXPECT_EQ(buffer.GetBufferRef(), bytes);
  EXPECT_EQ(Contents(buffer), ping);
  EXPECT_EQ(buffer.GetHeaderType(), 0x48424E33u);
  EXPECT_EQ(buffer.GetCommandType(), 3u);
  EXPECT_EQ(source.GetBufferRef(), nullptr);
  EXPECT_EQ(source.GetBufferLength(), 0);
  EXPECT_EQ(source.GetCommandType(), 0u) << "never stored with SetBuffer";
}

// A copy shares its original's block; taking from it keeps that block alive in the taker (a
// sanitizer or valgrind run sees a release of it here).
TEST_F(NetBufferTest, TakeBufferFromACopySharingTheBlockKeepsIt) {
  buffer.SetBuffer(header.data(), 24);
  KivNetBuffer sharing = buffer;
  buffer.TakeBuffer(sharing);
  EXPECT_EQ(Contents(buffer), header);
  EXPECT_EQ(sharing.GetBufferRef(), nullptr);
  buffer.TakeBuffer(buffer);
  EXPECT_EQ(Contents(buffer), header) << "from itself";
}

TEST_F(NetBufferTest, RefusalsCarryTheirNumbersAndChangeNothing) {
  buffer.SetBuffer(header.data(), 24);
  Bytes room(23, 0xEE);
  KivNetBuffer empty;
  ExpectCodes({
      {"SetBuffer null", [&] { buffer.SetBuffer(nullptr, 4); }, 0x805A1},
      {"SetBuffer -1", [&] { buffer.SetBuffer(room.data(), -1); }, 0x805A2},
      {"GetBuffer null", [&] { buffer.GetBuffer(nullptr, 24); }, 0x804A1},
      {"GetBuffer 23 of 24", [&] { buffer.GetBuffer(room.data(), 23); }, 0x804A2},
      {"Extract null", [&] { buffer.ExtractFromBuffer(nullptr, 4); }, 0x80BA1},
      {"Extract -5", [&] { buffer.ExtractFromBuffer(room.data(), -5); }, 0x80BA2},
      {"Insert null", [&] { buffer.InsertIntoBuffer(nullptr, 4); }, 0x80CA1},
      {"Insert -2", [&] { buffer.InsertIntoBuffer(room.data(), -2); }, 0x80CA2},
      // 24 held: one byte more than the largest int could count.
      {"Insert past INT_MAX", [&] { buffer.InsertIntoBuffer(room.data(), INT_MAX - 23); }, 0x80CA2},
      // Handing over no block, or a block of no bytes, is refused as storing no bytes is.
      {"AdoptBlock null", [&] { buffer.AdoptBlock(kiv::OwnedBlock(), 4); }, 0x805A1},
      {"AdoptBlock 0", [&] { buffer.AdoptBlock(kiv::OwnedBlock(new unsigned char[1]), 0); },
       0x805A2},
      {"TakeBuffer empty", [&] { buffer.TakeBuffer(empty); }, 0x805A1},
  });
  EXPECT_EQ(Contents(buffer), header);
  EXPECT_EQ(room, Bytes(23, 0xEE));
}

} // namespace
