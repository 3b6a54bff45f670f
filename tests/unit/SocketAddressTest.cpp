// The IPv4 address value: text and port, and the platform form built from them.
#include <gtest/gtest.h>

#include <netinet/in.h>

#include <string>

#include "Sockets/KivSocketAddress.h"
#include "support/TestSupport.h"

namespace {

// Family, port and address bytes of the platform form, as hex ("13 88 FF FF FF FF").
std::string Form(KivSocketAddress &address) {
  const sockaddr_in *form = address.GetBSDAddress();
  return std::to_string(form->sin_family) + " " +
         kivtest::ToHex(reinterpret_cast<const unsigned char *>(form) + 2, 6);
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
    KivSocketAddress made(c.text, c.port);
    EXPECT_EQ(Form(made), std::to_string(AF_INET) + " " + c.form) << c.text;
    EXPECT_EQ(made.GetIPAddress(), c.text) << "the text is kept as given";
  }
  KivSocketAddress moved("10.0.0.7", 1);
  moved.SetPort(8080);
  EXPECT_EQ(Form(moved), std::to_string(AF_INET) + " 1F 90 0A 00 00 07") << "the form follows";
}

} // namespace
