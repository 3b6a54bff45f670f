// The text forms of received bytes: the same characters printf's conversions give, for every value.
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <cstdio>
#include <string>

#include "CommonFiles/KivWireBytes.h"

namespace {

TEST(WireBytesTest, LowerHexIsTwoDigitsPerByteForEveryByte) {
  for (unsigned value = 0; value < 256; ++value) {
    const unsigned char bytes[2] = {static_cast<unsigned char>(value),
                                    static_cast<unsigned char>(255 - value)};
    char text[4], expected[5];
    std::snprintf(expected, sizeof expected, "%02x%02x", bytes[0], bytes[1]);
    EXPECT_EQ(std::string(text, kiv::WriteLowerHex(text, bytes, 2)), expected);
  }
}

TEST(WireBytesTest, DottedQuadIsTheAddressBytesInMemoryOrderForEveryOctet) {
  for (unsigned value = 0; value < 256; ++value) {
    const unsigned char octets[4] = {static_cast<unsigned char>(value), 0, 9,
                                     static_cast<unsigned char>(255 - value)};
    UInt32 address;
    std::memcpy(&address, octets, sizeof address);
    char text[15], expected[16];
    std::snprintf(expected, sizeof expected, "%u.%u.%u.%u", octets[0], octets[1], octets[2],
                  octets[3]);
    EXPECT_EQ(std::string(text, kiv::WriteDottedQuad(text, address)), expected);
  }
  char longest[15];
  EXPECT_EQ(std::string(longest, kiv::WriteDottedQuad(longest, inet_addr("192.168.100.255"))),
            "192.168.100.255");
}

} // namespace
