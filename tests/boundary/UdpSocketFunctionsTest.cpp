// UDP socket and address handles through the shared library: the codes of bad handles, kinds and
// options, the options on the descriptor, close and revive, loopback exchanges into containers,
// the receive time-out, and no descriptor left open.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <string>

#include "Interfaces/KivNetworkComm.h"
#include "support/DescriptorCheckedTest.h"
#include "support/ScopedContainer.h"

namespace {

using kivtest::Bytes;
using kivtest::ScopedContainer;

// The library hands every object to the host; the tests release theirs through the classes.
typedef std::unique_ptr<KivUDPSocket> UdpHandle;
typedef std::unique_ptr<KivSocketAddress> AddressHandle;

UdpHandle OpenUdp(int port) { return UdpHandle(static_cast<KivUDPSocket *>(OpenUDPSocket(port))); }

AddressHandle MakeAddress(std::string text, int port) {
  return AddressHandle(static_cast<KivSocketAddress *>(CreateSocketAddress(text, port)));
}

// A stream socket carrying a TCP class identifier: stands in for the TCP handles (kinds 1 and 2)
// where only the socket base matters.
class StandInTcpSocket : public KivSocket {
public:
  explicit StandInTcpSocket(UInt32 classID) : KivSocket(TCP) { mClassID = classID; }
};

int LocalPort(KivSocket &socket) {
  sockaddr_in bound = {};
  socklen_t length = sizeof bound;
  ::getsockname(socket.GetSocket(), reinterpret_cast<sockaddr *>(&bound), &length);
  return ntohs(bound.sin_port);
}

bool IsCloseOnExec(KivSocket &socket) {
  return (::fcntl(socket.GetSocket(), F_GETFD) & FD_CLOEXEC) != 0;
}

// A SOL_SOCKET option of the descriptor: an int, or for SO_RCVTIMEO the whole seconds.
long Option(KivSocket &socket, int option) {
  timeval value = {-1, 0};
  socklen_t length = option == SO_RCVTIMEO ? sizeof value : sizeof(int);
  ::getsockopt(socket.GetSocket(), SOL_SOCKET, option, &value, &length);
  int number = 0;
  std::memcpy(&number, &value, sizeof number);
  return option == SO_RCVTIMEO ? value.tv_sec : number;
}

// A bound receiver and sender on loopback, and the receiver's address as a handle.
struct LoopbackPair {
  UdpHandle receiver = OpenUdp(0);
  UdpHandle sender = OpenUdp(0);
  AddressHandle toReceiver;
  LoopbackPair() {
    EXPECT_EQ(BindUDPSocket(receiver.get()), 0u);
    EXPECT_EQ(BindUDPSocket(sender.get()), 0u);
    toReceiver = MakeAddress("127.0.0.1", LocalPort(*receiver));
  }
};

typedef kivtest::DescriptorCheckedTest UdpSocketFunctions;

TEST_F(UdpSocketFunctions, BadHandlesKindsAndOptionsGiveTheirCodesAndChangeNothing) {
  LoopbackPair pair;
  ASSERT_EQ(SetSocketOptions(pair.sender.get(), 0, TIME_OUT, 2), 0u);
  ScopedContainer message, inbox;
  message.Fill(kivtest::Text("message"));
  AddressHandle from = MakeAddress("unchanged", 9);
  HANDLE udp = pair.sender.get(), to = pair.toReceiver.get(), msg = message.handle();
  HANDLE box = inbox.handle(), addr = from.get();
  int count = -77, port = -77;
  std::string text = "untouched";
  const struct {
    const char *what;
    std::function<UInt32()> call;
    UInt32 expected;
  } cases[] = {
      {"bind container", [&] { return BindUDPSocket(box); }, 0x0A091802},
      {"options kind 3", [&] { return SetSocketOptions(udp, 3, REUSE_ADDRESS, 0); }, 0x0A091702},
      {"options kind 1", [&] { return SetSocketOptions(udp, 1, REUSE_ADDRESS, 0); }, 0x0A091702},
      {"option 6", [&] { return SetSocketOptions(udp, 0, SOCKET_OPTIONS(6), 0); }, 0x0A091704},
      {"time-out -1", [&] { return SetSocketOptions(udp, 0, TIME_OUT, -1); }, 0x0A091704},
      {"send null socket", [&] { return SendTo(nullptr, to, msg, 0, count); }, 0x0A091402},
      {"send null buffer", [&] { return SendTo(udp, to, nullptr, 0, count); }, 0x0A091401},
      {"send to container", [&] { return SendTo(udp, box, msg, 0, count); }, 0x0A091403},
      {"recv on address", [&] { return RecvFrom(addr, addr, box, 0, count); }, 0x0A091502},
      {"recv null buffer", [&] { return RecvFrom(udp, addr, nullptr, 0, count); }, 0x0A091501},
      {"recv from container", [&] { return RecvFrom(udp, box, box, 0, count); }, 0x0A091503},
      {"close container", [&] { return CloseUDPSocket(box); }, 0x0A091602},
      {"revive kind 3", [&] { return UInt32(RevitalizeSocket(udp, 3)); }, 0x0A092602},
      {"address of socket", [&] { return GetAddressPort(udp, &text, &port); }, 0x0A091903},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(c.call(), c.expected) << c.what;
  }
  EXPECT_EQ(std::to_string(count) + text + std::to_string(port) + from->GetIPAddress(),
            "-77untouched-77unchanged");
  EXPECT_EQ(inbox.bytes().size(), 0u);
  EXPECT_EQ(Option(*pair.sender, SO_RCVTIMEO), 2) << "a refused time-out changes nothing";
  EXPECT_EQ(SendTo(udp, to, msg, 0, count), 0u) << "the handle still works";
  EXPECT_EQ(RecvFrom(pair.receiver.get(), addr, box, 0, count), 0u) << "one datagram sent";
  EXPECT_EQ(inbox.bytes(), kivtest::Text("message"));
}

TEST_F(UdpSocketFunctions, OptionsReachTheDescriptor) {
  UdpHandle udp = OpenUdp(0);
  EXPECT_TRUE(IsCloseOnExec(*udp)) << "a host that forks and executes keeps it";
  const struct {
    SOCKET_OPTIONS option;
    int timeOut, name, value;
  } cases[] = {
      {REUSE_ADDRESS, 0, SO_REUSEADDR, 1},
      {REUSE_PORT, 0, SO_REUSEPORT, 1},
      {BROADCAST_PERMITTED, 0, SO_BROADCAST, 1},
      {BROADCAST_PERMITTED_OFF, 0, SO_BROADCAST, 0},
      {TIME_OUT, 3, SO_RCVTIMEO, 3},
      {TIME_OUT, 0, SO_RCVTIMEO, 0},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(SetSocketOptions(udp.get(), 0, c.option, c.timeOut), 0u) << c.option;
    EXPECT_EQ(Option(*udp, c.name), c.value) << c.option << " " << c.timeOut;
  }
  EXPECT_EQ(SetSocketOptions(udp.get(), 0, NO_DELAY, 0), 0x0A0000B3u) << "no-delay is for streams";
  ASSERT_EQ(CloseUDPSocket(udp.get()), 0u);
  EXPECT_EQ(SetSocketOptions(udp.get(), 0, TIME_OUT, 1), 0x0A0000C2u);

  // The TCP kinds leave the receive limit alone, -1 included.
  StandInTcpSocket client(kKivTCPClientSocketClassID);
  StandInTcpSocket server(kKivTCPServerSocketClassID);
  EXPECT_EQ(SetSocketOptions(&server, 2, TIME_OUT, 5), 0u);
  EXPECT_EQ(SetSocketOptions(&client, 1, TIME_OUT, -1), 0u);
  EXPECT_EQ(Option(server, SO_RCVTIMEO), 0);
  EXPECT_EQ(Option(client, SO_RCVTIMEO), 0);
}

TEST_F(UdpSocketFunctions, BindConflictCloseAndRevive) {
  LoopbackPair pair;
  UdpHandle taken = OpenUdp(LocalPort(*pair.receiver));
  EXPECT_EQ(BindUDPSocket(taken.get()), 0x0A0000B5u);

  HANDLE h = pair.sender.get();
  ScopedContainer message, inbox;
  message.Fill(kivtest::Text("after revive"));
  AddressHandle from = MakeAddress("", 0);
  int count = -77;
  EXPECT_EQ(CloseUDPSocket(h), 0u);
  EXPECT_EQ(CloseUDPSocket(h), 0xFFFFFFFFu);
  EXPECT_EQ(SendTo(h, pair.toReceiver.get(), message.handle(), 0, count), 0x0A0000B7u);
  EXPECT_EQ(RecvFrom(h, from.get(), inbox.handle(), 0, count), 0x0A0000B6u);
  EXPECT_EQ(BindUDPSocket(h), 0x0A0000B5u);
  EXPECT_EQ(count, -77);

  EXPECT_EQ(RevitalizeSocket(h, 0), 0);
  EXPECT_TRUE(IsCloseOnExec(*pair.sender));
  EXPECT_EQ(BindUDPSocket(h), 0u);
  EXPECT_EQ(SendTo(h, pair.toReceiver.get(), message.handle(), 0, count), 0u);
  EXPECT_EQ(RecvFrom(pair.receiver.get(), from.get(), inbox.handle(), 0, count), 0u);
  EXPECT_EQ(inbox.bytes(), message.bytes());
}

TEST_F(UdpSocketFunctions, WithoutDescriptorsOpenGivesNullAndReviveStaysClosed) {
  UdpHandle udp = OpenUdp(0);
  ASSERT_EQ(CloseUDPSocket(udp.get()), 0u);
  // The library's socket error is made once first: the sanitizer builds check an exception's
  // dynamic type the first time, and that check itself needs descriptors.
  ASSERT_EQ(SetSocketOptions(udp.get(), 0, REUSE_PORT, 0), 0x0A0000B1u);
  rlimit saved = {};
  ::getrlimit(RLIMIT_NOFILE, &saved);
  rlimit none = saved;
  none.rlim_cur = 0;
  ::setrlimit(RLIMIT_NOFILE, &none);
  HANDLE opened = OpenUDPSocket(0);
  const int revived = RevitalizeSocket(udp.get(), 0);
  ::setrlimit(RLIMIT_NOFILE, &saved);
  EXPECT_EQ(opened, nullptr);
  EXPECT_EQ(revived, static_cast<int>(0x0A0000B4u));
  EXPECT_EQ(CloseUDPSocket(udp.get()), 0xFFFFFFFFu) << "the handle stayed closed";
}

TEST_F(UdpSocketFunctions, DatagramsArriveInTheContainerWithTheirSenderOrTimeOut) {
  Bytes longest(2000);
  for (std::size_t i = 0; i < longest.size(); ++i) {
    longest[i] = static_cast<unsigned char>(i % 251);
  }
  const struct {
    const char *what;
    Bytes bytes;
    std::size_t arrives;
  } cases[] = {
      {"ping", kivtest::Hex("48424E33 00000000 00000000 00000007 80000003 00000000"), 24},
      {"empty", Bytes(), 0},
      {"2000 bytes, cut to the receive area", longest, 1024},
  };
  LoopbackPair pair;
  ScopedContainer message, inbox;
  AddressHandle from = MakeAddress("BROADCAST", 1);
  int sent = -1, received = -1, port = -1;
  std::string text;
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    message.Fill(c.bytes);
    inbox.Fill(kivtest::Text("old"));
    ASSERT_EQ(SendTo(pair.sender.get(), pair.toReceiver.get(), message.handle(), 0, sent), 0u);
    EXPECT_EQ(sent, static_cast<int>(c.bytes.size()));
    ASSERT_EQ(RecvFrom(pair.receiver.get(), from.get(), inbox.handle(), 0, received), 0u);
    EXPECT_EQ(received, static_cast<int>(c.arrives));
    EXPECT_EQ(inbox.bytes(), Bytes(c.bytes.begin(), c.bytes.begin() + c.arrives));
    EXPECT_EQ(GetAddressPort(from.get(), &text, &port), 0u);
    EXPECT_EQ(text + ":" + std::to_string(port),
              "127.0.0.1:" + std::to_string(LocalPort(*pair.sender)));
  }

  // Nothing more comes: the receive ends with the time-out code and writes nothing.
  ASSERT_EQ(SetSocketOptions(pair.receiver.get(), 0, TIME_OUT, 1), 0u);
  from->SetAddress("kept", 7);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(RecvFrom(pair.receiver.get(), from.get(), inbox.handle(), 0, received), 0x0A0000B6u);
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited, std::chrono::milliseconds(500));
  EXPECT_LT(waited, std::chrono::seconds(30));
  EXPECT_EQ(received, 1024);
  EXPECT_EQ(inbox.bytes(), Bytes(longest.begin(), longest.begin() + 1024));
  EXPECT_EQ(from->GetIPAddress(), "kept");
}

} // namespace
