// The IPv4 address value: text and port, the platform form built from them, and a peer read back.
#include <gtest/gtest.h>

#include <netinet/in.h>

#include <cstring>
#include <string>

#include "Sockets/KivSocketAddress.h"
#include "support/TestSupport.h"

namespace {

// Port and address bytes of the platform form, as hex ("13 88 FF FF FF FF").
std::string PortAndAddress(KivSocketAddress &address) {
  const sockaddr_in *form = address.GetBSDAddress();
  EXPECT_EQ(form->sin_family, AF_INET);
  return kivtest::ToHex(reinterpret_cast<const unsigned char *>(form) + 2, 6);
}

TEST(SocketAddress, PlatformFormFromTextAndPort) {
  const struct {
    const char *text;
    int port;
    const char *form;
  } cases[] = {
      {"", 0, "00 00 00 00 00 00"},                 // any local address, any port
      {"BROADCAST", 5000, "13 88 FF FF FF FF"},     // the keyword
      {"broadcast", 5000, "13 88 FF FF FF FF"},     // unreadable text gives the same
      {"192.168.0.10", 70000, "11 70 C0 A8 00 0A"}, // port kept as its low 16 bits
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.text);
    KivSocketAddress made(c.text, c.port);
    EXPECT_EQ(PortAndAddress(made), c.form);
    EXPECT_EQ(made.GetIPAddress(), c.text) << "the text is kept as given";
  }
}

TEST(SocketAddress, SetBSDAddressRecordsAPeer) {
  sockaddr_in peer = {};
  peer.sin_family = AF_INET;
  std::memcpy(&peer.sin_port, kivtest::Hex("1F 90").data(), 2);
  std::memcpy(&peer.sin_addr, kivtest::Hex("0A 00 00 07").data(), 4);
  KivSocketAddress address("BROADCAST", 1);
  address.SetBSDAddress(&peer);
  EXPECT_EQ(address.GetIPAddress(), "10.0.0.7");
  EXPECT_EQ(address.GetPort(), 8080);
  EXPECT_EQ(PortAndAddress(address), "1F 90 0A 00 00 07");
  address.SetBSDAddress(nullptr);
  EXPECT_EQ(address.GetIPAddress(), "10.0.0.7") << "a null peer changes nothing";
  address.SetPort(70000);
  EXPECT_EQ(PortAndAddress(address), "11 70 0A 00 00 07") << "the form follows every change";
}

} // namespace
