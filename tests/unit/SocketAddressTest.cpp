// The IPv4 address value: text and port, truncation, the platform form and back.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstring>
#include <string>

#include "Sockets/KivSocketAddress.h"
#include "support/TestSupport.h"

namespace {

// Port (2 bytes), address (4 bytes) and the zero tail (8 bytes) of the platform form, as hex.
struct WireForm {
  std::string port;
  std::string address;
  std::string tail;
};

WireForm Dissect(const sockaddr_in *form) {
  const unsigned char *bytes = reinterpret_cast<const unsigned char *>(form);
  return {kivtest::ToHex(bytes + 2, 2), kivtest::ToHex(bytes + 4, 4), kivtest::ToHex(bytes + 8, 8)};
}

struct FormCase {
  const char *text;
  int port;
  const char *portBytes;
  const char *addressBytes;
};

TEST(SocketAddress, PlatformFormFromTextAndPort) {
  const FormCase cases[] = {
      {"", 0, "00 00", "00 00 00 00"},                   // any local address, any port
      {"BROADCAST", 5000, "13 88", "FF FF FF FF"},       // the keyword
      {"broadcast", 5000, "13 88", "FF FF FF FF"},       // not the keyword, but unreadable too
      {"192.168.0.10", 80, "00 50", "C0 A8 00 0A"},      // dotted decimal, network order
      {"127.0.0.1", 70000, "11 70", "7F 00 00 01"},      // port kept as its low 16 bits
      {"10.0.0.7", 8080, "1F 90", "0A 00 00 07"},        //
      {"256.1.1.1", 1, "00 01", "FF FF FF FF"},          // out of range
      {"not an address", 65535, "FF FF", "FF FF FF FF"}, // unreadable text
      {"Broadcast ", 2, "00 02", "FF FF FF FF"},         // near miss of the keyword
  };
  for (const FormCase &c : cases) {
    SCOPED_TRACE(std::string("text \"") + c.text + "\" port " + std::to_string(c.port));
    KivSocketAddress address(c.text, c.port);
    const sockaddr_in *form = address.GetBSDAddress();
    ASSERT_NE(form, nullptr);
    EXPECT_EQ(form->sin_family, AF_INET);
    const WireForm wire = Dissect(form);
    EXPECT_EQ(wire.port, c.portBytes);
    EXPECT_EQ(wire.address, c.addressBytes);
    EXPECT_EQ(wire.tail, "00 00 00 00 00 00 00 00");
    EXPECT_EQ(address.GetIPAddress(), c.text) << "the text is kept as given";
  }
}

TEST(SocketAddress, PortsAreKeptAsTheirLow16Bits) {
  const int cases[][2] = {{0, 0},     {5353, 5353},  {65535, 65535},
                          {65536, 0}, {70000, 4464}, {-1, 65535}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c[0]);
    EXPECT_EQ(KivSocketAddress("", c[0]).GetPort(), c[1]);
    KivSocketAddress address("", 1);
    address.SetPort(c[0]);
    EXPECT_EQ(address.GetPort(), c[1]);
    address.SetAddress("1.2.3.4", c[0]);
    EXPECT_EQ(address.GetPort(), c[1]);
  }
}

TEST(SocketAddress, ClassIdentifierIsSockAndSurvivesEveryChange) {
  EXPECT_EQ(kKivSocketAddressClassID, 0x736f636bu);
  KivSocketAddress address("1.2.3.4", 1);
  EXPECT_EQ(address.getClassID(), kKivSocketAddressClassID);
  address.SetAddress("5.6.7.8", 2);
  address.SetIPAddress("");
  address.SetPort(3);
  sockaddr_in peer = {};
  peer.sin_family = AF_INET;
  address.SetBSDAddress(&peer);
  EXPECT_EQ(address.getClassID(), kKivSocketAddressClassID);
  EXPECT_EQ(KivSocketAddress(address).getClassID(), kKivSocketAddressClassID);
}

TEST(SocketAddress, TextIsAuthoritativeAndTheFormIsRebuiltOnEveryCall) {
  KivSocketAddress address("10.0.0.1", 1);
  address.GetBSDAddress();
  address.SetIPAddress("BROADCAST");
  address.SetPort(5000);
  const WireForm wire = Dissect(address.GetBSDAddress());
  EXPECT_EQ(wire.address, "FF FF FF FF");
  EXPECT_EQ(wire.port, "13 88");
  EXPECT_EQ(address.GetBSDAddressLength(), 16);
}

TEST(SocketAddress, SetBSDAddressRecordsAPeer) {
  sockaddr_in peer = {};
  peer.sin_family = AF_INET;
  const kivtest::Bytes port = kivtest::Hex("1F 90");
  const kivtest::Bytes ip = kivtest::Hex("0A 00 00 07");
  std::memcpy(&peer.sin_port, port.data(), 2);
  std::memcpy(&peer.sin_addr, ip.data(), 4);

  KivSocketAddress address("BROADCAST", 1);
  address.SetBSDAddress(&peer);
  EXPECT_EQ(address.GetIPAddress(), "10.0.0.7");
  EXPECT_EQ(address.GetPort(), 8080);
  const WireForm wire = Dissect(address.GetBSDAddress());
  EXPECT_EQ(wire.address, "0A 00 00 07");
  EXPECT_EQ(wire.port, "1F 90");

  address.SetBSDAddress(nullptr);
  EXPECT_EQ(address.GetIPAddress(), "10.0.0.7") << "a null peer changes nothing";
  EXPECT_EQ(address.GetPort(), 8080);
}

TEST(SocketAddress, CopiesAreIndependentValues) {
  KivSocketAddress original("192.168.1.1", 9100);
  KivSocketAddress copy(original);
  copy.SetAddress("10.1.1.1", 1);
  EXPECT_EQ(original.GetIPAddress(), "192.168.1.1");
  EXPECT_EQ(original.GetPort(), 9100);
  KivSocketAddress assigned("", 0);
  assigned = original;
  EXPECT_EQ(assigned.GetIPAddress(), "192.168.1.1");
  EXPECT_EQ(assigned.GetPort(), 9100);
}

} // namespace
