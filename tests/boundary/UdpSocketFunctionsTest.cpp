// UDP socket and address handles through the shared library: the platform form of an address, the
// codes of bad handles, kinds and options, the options on the descriptor, close and revive,
// loopback exchanges into containers, the receive time-out, and no descriptor left open, not even
// by a constructor that throws.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <numeric>
#include <stdexcept>
#include <string>

#include "Interfaces/KivNetworkComm.h"
#include "support/DescriptorCheckedTest.h"
#include "support/ScopedContainer.h"

namespace {

using kivtest::Bytes;

// The library hands every object to the host; the tests release theirs through the classes.
typedef std::unique_ptr<KivUDPSocket> UdpHandle;
typedef std::unique_ptr<KivSocketAddress> AddressHandle;
UdpHandle OpenUdp(int port) { return UdpHandle(static_cast<KivUDPSocket *>(OpenUDPSocket(port))); }
AddressHandle Address(std::string text, int port) {
  return AddressHandle(static_cast<KivSocketAddress *>(CreateSocketAddress(text, port)));
}

// A stream socket of the base class alone, carrying `classID`: stands in for the TCP handles
// (kinds 1 and 2) where only the base matters; with 0 its constructor throws after the base made
// the descriptor.
class StandInSocket : public KivSocket {
public:
  explicit StandInSocket(UInt32 classID) : KivSocket(TCP) {
    mClassID = classID;
    if (classID == 0) {
      throw std::runtime_error("constructor failed after the base");
    }
  }
};

int LocalPort(KivSocket &socket) {
  sockaddr_in bound = {};
  socklen_t length = sizeof bound;
  ::getsockname(socket.GetSocket(), reinterpret_cast<sockaddr *>(&bound), &length);
  return ntohs(bound.sin_port);
}

// A SOL_SOCKET option of the descriptor: an int, or for SO_RCVTIMEO the whole seconds.
long Option(KivSocket &socket, int option) {
  timeval value = {-1, 0};
  socklen_t length = sizeof value;
  ::getsockopt(socket.GetSocket(), SOL_SOCKET, option, &value, &length);
  int number = 0;
  std::memcpy(&number, &value, sizeof number);
  return option == SO_RCVTIMEO ? value.tv_sec : number;
}

// A bound receiver and sender on loopback, the receiver's address, a sender address to be
// written, and the containers sent and received.
struct LoopbackPair {
  UdpHandle receiver = OpenUdp(0), sender = OpenUdp(0);
  AddressHandle toReceiver, from = Address("unchanged", 9);
  kivtest::ScopedContainer message, inbox;
  int count = -77;
  LoopbackPair() {
    EXPECT_EQ(BindUDPSocket(receiver.get()) + BindUDPSocket(sender.get()), 0u);
    toReceiver = Address("127.0.0.1", LocalPort(*receiver));
  }
  UInt32 Send(HANDLE socket) {
    return SendTo(socket, toReceiver.get(), message.handle(), 0, count);
  }
  UInt32 Receive(HANDLE socket) { return RecvFrom(socket, from.get(), inbox.handle(), 0, count); }
};

typedef kivtest::DescriptorCheckedTest UdpSocketFunctions;

// The platform form of an address handle: family, then port and address bytes as hex.
TEST_F(UdpSocketFunctions, AddressHandlesKeepTheirTextAndFormTheirPlatformAddress) {
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
    AddressHandle made = Address(c.text, c.port);
    const sockaddr_in *bsd = made->GetBSDAddress();
    EXPECT_EQ(std::to_string(bsd->sin_family) + " " +
                  kivtest::ToHex(reinterpret_cast<const unsigned char *>(bsd) + 2, 6) + " " +
                  made->GetIPAddress(),
              std::to_string(AF_INET) + " " + c.form + " " + c.text);
  }
}

TEST_F(UdpSocketFunctions, BadHandlesKindsAndOptionsGiveTheirCodesAndChangeNothing) {
  LoopbackPair pair;
  ASSERT_EQ(SetSocketOptions(pair.sender.get(), 0, TIME_OUT, 2), 0u);
  HANDLE udp = pair.sender.get(), to = pair.toReceiver.get(), msg = pair.message.handle();
  HANDLE box = pair.inbox.handle(), addr = pair.from.get();
  int &count = pair.count, port = -77;
  std::string text = "untouched";
  const std::pair<UInt32, std::function<UInt32()>> cases[] = {
      {0x0A091802, [&] { return BindUDPSocket(box); }},
      {0x0A091702, [&] { return SetSocketOptions(udp, 3, REUSE_ADDRESS, 0); }}, // kind 3
      {0x0A091704, [&] { return SetSocketOptions(udp, 0, SOCKET_OPTIONS(6), 0); }},
      {0x0A091704, [&] { return SetSocketOptions(udp, 0, TIME_OUT, -1); }},
      {0x0A091402, [&] { return SendTo(nullptr, to, msg, 0, count); }},
      {0x0A091401, [&] { return SendTo(udp, to, nullptr, 0, count); }},
      {0x0A091403, [&] { return SendTo(udp, box, msg, 0, count); }}, // a container for an address
      {0x0A091502, [&] { return RecvFrom(addr, addr, box, 0, count); }},
      {0x0A091501, [&] { return RecvFrom(udp, addr, nullptr, 0, count); }},
      {0x0A091503, [&] { return RecvFrom(udp, box, box, 0, count); }},
      {0x0A091602, [&] { return CloseUDPSocket(box); }},
      {0x0A092602, [&] { return UInt32(RevitalizeSocket(udp, 3)); }},
      {0x0A091903, [&] { return GetAddressPort(udp, &text, &port); }}};
  for (const auto &c : cases) {
    EXPECT_EQ(c.second(), c.first);
  }
  EXPECT_EQ(std::to_string(count) + text + std::to_string(port) + pair.from->GetIPAddress() + " " +
                std::to_string(Option(*pair.sender, SO_RCVTIMEO)),
            "-77untouched-77unchanged 2");
  EXPECT_EQ(pair.Send(udp), 0u) << "the handle still works";
}

TEST_F(UdpSocketFunctions, OptionsReachTheDescriptor) {
  UdpHandle udp = OpenUdp(0);
  EXPECT_EQ(::fcntl(udp->GetSocket(), F_GETFD), FD_CLOEXEC) << "a host that forks and executes";
  const struct {
    SOCKET_OPTIONS option;
    int timeOut, name, value;
  } cases[] = {{REUSE_ADDRESS, 0, SO_REUSEADDR, 1},
               {REUSE_PORT, 0, SO_REUSEPORT, 1},
               {BROADCAST_PERMITTED, 0, SO_BROADCAST, 1},
               {BROADCAST_PERMITTED_OFF, 0, SO_BROADCAST, 0},
               {TIME_OUT, 3, SO_RCVTIMEO, 3},
               {TIME_OUT, 0, SO_RCVTIMEO, 0}};
  for (const auto &c : cases) {
    EXPECT_EQ(SetSocketOptions(udp.get(), 0, c.option, c.timeOut), 0u) << c.option;
    EXPECT_EQ(Option(*udp, c.name), c.value) << c.option << " " << c.timeOut;
  }
  EXPECT_EQ(SetSocketOptions(udp.get(), 0, NO_DELAY, 0), 0x0A0000B3u) << "no-delay is for streams";
  ASSERT_EQ(CloseUDPSocket(udp.get()), 0u);
  EXPECT_EQ(SetSocketOptions(udp.get(), 0, TIME_OUT, 1), 0x0A0000C2u);

  // The TCP kinds (TIME_OUT accepted, receive limit untouched) are checked with real TCP
  // handles in the channel tests: a stand-in made here is no handle of the library's.
  // The fixture finds the descriptor still open if the base leaks it.
  EXPECT_THROW(StandInSocket(0), std::runtime_error);
}

TEST_F(UdpSocketFunctions, WithoutDescriptorsOpenGivesNullAndReviveFails) {
  UdpHandle udp = OpenUdp(0);
  ASSERT_EQ(CloseUDPSocket(udp.get()), 0u);
  // The library's socket error is made once first: the sanitizer builds check an exception's
  // dynamic type the first time, and that check itself needs descriptors.
  ASSERT_EQ(SetSocketOptions(udp.get(), 0, REUSE_PORT, 0), 0x0A0000B1u);
  rlimit saved = {};
  ::getrlimit(RLIMIT_NOFILE, &saved);
  const rlimit none = {0, saved.rlim_max};
  ::setrlimit(RLIMIT_NOFILE, &none);
  HANDLE opened = OpenUDPSocket(0);
  const int revived = RevitalizeSocket(udp.get(), 0);
  ::setrlimit(RLIMIT_NOFILE, &saved);
  EXPECT_EQ(opened, nullptr);
  EXPECT_EQ(revived, static_cast<int>(0x0A0000B4u));
}

// An empty datagram and one cut to the receive area arrive with their sender; then the receive
// waits and ends with the time-out code, writing nothing. A bind to a port taken fails; a closed
// socket refuses everything until it is revived and bound again.
TEST_F(UdpSocketFunctions, DatagramsArriveCutOrTimeOutAndAClosedSocketRevives) {
  LoopbackPair pair;
  Bytes longest(2000);
  std::iota(longest.begin(), longest.end(), 0); // a cut elsewhere than at the end shows
  std::string text;
  int port = -1;
  for (const std::pair<Bytes, int> &c :
       {std::make_pair(Bytes(), 0), std::make_pair(longest, 1024)}) {
    pair.message.Fill(c.first);
    ASSERT_EQ(pair.Send(pair.sender.get()), 0u);
    EXPECT_EQ(pair.count, static_cast<int>(c.first.size()));
    ASSERT_EQ(pair.Receive(pair.receiver.get()), 0u);
    EXPECT_EQ(pair.count, c.second);
    EXPECT_EQ(pair.inbox.bytes(), Bytes(c.first.begin(), c.first.begin() + c.second));
    EXPECT_EQ(GetAddressPort(pair.from.get(), &text, &port), 0u);
    EXPECT_EQ(text + ":" + std::to_string(port),
              "127.0.0.1:" + std::to_string(LocalPort(*pair.sender)));
  }
  ASSERT_EQ(SetSocketOptions(pair.receiver.get(), 0, TIME_OUT, 1), 0u);
  pair.from->SetAddress("kept", 7);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(pair.Receive(pair.receiver.get()), 0x0A0000B6u);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
  EXPECT_EQ(std::to_string(pair.count) + " " + pair.from->GetIPAddress(), "1024 kept");
  EXPECT_EQ(pair.inbox.bytes(), Bytes(longest.begin(), longest.begin() + 1024));

  UdpHandle taken = OpenUdp(LocalPort(*pair.receiver));
  EXPECT_EQ(BindUDPSocket(taken.get()), 0x0A0000B5u);
  HANDLE h = pair.sender.get();
  pair.count = -77;
  EXPECT_EQ(CloseUDPSocket(h), 0u);
  EXPECT_EQ(CloseUDPSocket(h), 0xFFFFFFFFu);
  EXPECT_EQ(pair.Send(h), 0x0A0000B7u);
  EXPECT_EQ(pair.Receive(h), 0x0A0000B6u);
  EXPECT_EQ(BindUDPSocket(h), 0x0A0000B5u);
  EXPECT_EQ(pair.count, -77);
  EXPECT_EQ(RevitalizeSocket(h, 0), 0);
  EXPECT_EQ(::fcntl(pair.sender->GetSocket(), F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(BindUDPSocket(h), 0u);
  pair.message.Fill(kivtest::Text("after revive"));
  EXPECT_EQ(pair.Send(h), 0u);
  EXPECT_EQ(pair.Receive(pair.receiver.get()), 0u);
  EXPECT_EQ(pair.inbox.bytes(), pair.message.bytes());
}

} // namespace
