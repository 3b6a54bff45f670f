// The HCP discovery query: its 41 bytes and how each room size is treated.
#include <gtest/gtest.h>

#include <functional>

#include "CommonFiles/KivPortHeader.h"
#include "Exceptions/KivWrapperException.h"
#include "HCP/KivHCPDiscoveryHeader.h"
#include "support/TestSupport.h"

using kivtest::Bytes;
using kivtest::Hex;

namespace {

// The query devices answer; byte 12 is 00, not the first label's length.
const Bytes kQuery = Hex("0000 0000 0001 0000 0000 0000"
                         "00 5F686F73742D636F6E666967"
                         "04 5F756470"
                         "05 6C6F63616C"
                         "00 0021 0001");

UInt32 CodeOf(const std::function<void()> &operation) {
  try {
    operation();
  } catch (const KivWrapperException &e) {
    return e.GetErrorCode();
  }
  return 0;
}

TEST(HCPDiscoveryHeaderTest, WritesTheFortyOneByteQuery) {
  ASSERT_EQ(kQuery.size(), 41u);
  KivHCPDiscoveryHeader header;
  EXPECT_EQ(header.GetHeaderLength(), 41);
  Bytes room(41, 0xEE);
  KivPortHeader &base = header;
  base.GetDataHeader(room.data(), static_cast<int>(room.size()));
  EXPECT_EQ(kivtest::ToHex(room), kivtest::ToHex(kQuery));
  EXPECT_EQ(room[12], 0x00);
}

TEST(HCPDiscoveryHeaderTest, LargerRoomKeepsItsTail) {
  KivHCPDiscoveryHeader header;
  Bytes room(64, 0xEE);
  header.GetDataHeader(room.data(), 64);
  EXPECT_EQ(Bytes(room.begin(), room.begin() + 41), kQuery);
  EXPECT_EQ(Bytes(room.begin() + 41, room.end()), Bytes(23, 0xEE));
}

TEST(HCPDiscoveryHeaderTest, RoomsFromTenToFortyAreLeftAlone) {
  for (int size : {10, 20, 40}) {
    KivHCPDiscoveryHeader header;
    Bytes room(static_cast<size_t>(size), 0xEE);
    EXPECT_EQ(CodeOf([&] { header.GetDataHeader(room.data(), size); }), 0u) << size;
    EXPECT_EQ(room, Bytes(static_cast<size_t>(size), 0xEE)) << size;
  }
}

TEST(HCPDiscoveryHeaderTest, SmallRoomsAndNullAreRefused) {
  KivHCPDiscoveryHeader header;
  for (int size : {9, 1, 0, -1}) {
    Bytes room(9, 0xEE);
    EXPECT_EQ(CodeOf([&] { header.GetDataHeader(room.data(), size); }), 0x601A2u) << size;
    EXPECT_EQ(room, Bytes(9, 0xEE)) << size;
  }
  EXPECT_EQ(CodeOf([&] { header.GetDataHeader(nullptr, 41); }), 0x601A1u);
}

} // namespace
