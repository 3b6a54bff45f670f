// The protocol vocabulary: header tags, command codes, channels and the channel open requests.
#include <gtest/gtest.h>

#include <string>

#include "Common/Constants/KivCommunicationConstants.h"
#include "CommonFiles/KivWireBytes.h"
#include "support/TestSupport.h"

using kivtest::Bytes;
using kivtest::Hex;
using kivtest::ToHex;

namespace {

TEST(ProtocolConstantsTest, TextConstants) {
  const struct {
    const std::string &constant;
    const char *text;
  } table[] = {
      {kStrPortInfo_USB0, ".USB0"}, {kStrPortInfo_USB1, ".USB1"},  {kStrPortInfo_USB2, ".USB2"},
      {kStrPortInfo_USB3, ".USB3"}, {kHBN1HeaderString, "HBN1"},   {kHBN3HeaderString, "HBN3"},
      {kHCPHeaderString, "HCP1"},   {kQueryHeaderString, "QUERY"},
  };
  for (const auto &row : table) {
    EXPECT_EQ(row.constant, row.text);
  }
  EXPECT_EQ(kHCPHeaderString.size(), 4u);
  EXPECT_EQ(kQueryHeaderString.size(), 5u);
}

TEST(ProtocolConstantsTest, HeaderTypesAreTheTagsReadBigEndian) {
  const Bytes hbn3 = kivtest::Text(kHBN3HeaderString);
  const Bytes hcp1 = kivtest::Text(kHCPHeaderString);
  EXPECT_EQ(kiv::ReadBE32(hbn3.data()), kHeaderTypeHBN3);
  EXPECT_EQ(kiv::ReadBE32(hcp1.data()), kHeaderTypeHCP1);
  EXPECT_EQ(kHeaderTypeHBN3, 0x48424E33u);
  EXPECT_EQ(kHeaderTypeHCP1, 0x48435031u);
}

TEST(ProtocolConstantsTest, CommandCodesAndChannels) {
  EXPECT_EQ(kCmdStatusCacheRequest, 1u);
  EXPECT_EQ(kCmdPing, 3u);
  EXPECT_EQ(kCmdHostListEntry, 4u);
  EXPECT_EQ(kCmdRequestScan, 5u);
  EXPECT_EQ(kCmdPingReply, 0x80000003u);
  EXPECT_EQ(kCmdRequestScanReply, 0x80000005u);
  EXPECT_EQ(kCmdPingReply, kCmdPing | kCmdReplyFlag) << "a reply is its request with bit 31";
  EXPECT_EQ(kCmdRequestScanReply, kCmdRequestScan | kCmdReplyFlag);
  EXPECT_EQ(kHCPConfigCommand, 1u);
  EXPECT_EQ(kHCPDiscoveryResponse, 0x80000006u);
  EXPECT_EQ(kChannelPing, 0u);
  EXPECT_EQ(kChannelScan, 2u);
}

TEST(ProtocolConstantsTest, OpenRequestsAreNineExactBytes) {
  const struct {
    int endPoint;
    const unsigned char *tag;
    const char *wire;
  } table[] = {
      {kScanInterface, kHBN3ScanInterface, "48424E33 00 00000002"},
      {kHIDInterface, kHBN3HIDInterface, "48424E33 00 00000004"},
      {kPrintInterface, kHBN3PrintInterface, "48424E33 00 00000001"},
      {kMediaInterface, kHBN3MediaInterface, "48424E33 00 00000008"},
      {7, kHBN3ScanInterface, "48424E33 00 00000002"},
      {-1, kHBN3ScanInterface, "48424E33 00 00000002"},
  };
  EXPECT_EQ(kScanInterface, 0u);
  EXPECT_EQ(kHIDInterface, 1u);
  EXPECT_EQ(kPrintInterface, 2u);
  EXPECT_EQ(kMediaInterface, 3u);
  EXPECT_EQ(sizeof kHBN3ScanInterface, 9u);
  EXPECT_EQ(sizeof kHBN3HIDInterface, 9u);
  EXPECT_EQ(sizeof kHBN3PrintInterface, 9u);
  EXPECT_EQ(sizeof kHBN3MediaInterface, 9u);
  for (const auto &row : table) {
    EXPECT_EQ(ToHex(row.tag, kHBN3InterfaceTagLength), ToHex(Hex(row.wire))) << row.endPoint;
    EXPECT_EQ(KivOpenRequestFor(row.endPoint), row.tag) << row.endPoint;
  }
}

} // namespace
