// The TCP client and server sockets against loopback peers: complete receives from pieces and
// early closes, timed waits, every failure's error (no SIGPIPE from a vanished peer), the
// server's accept and client bookkeeping, and no descriptor left open.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <memory>
#include <thread>

#include "Sockets/KivTCPClientSocket.h"
#include "Sockets/KivTCPServerSocket.h"
#include "support/ChannelPeer.h"

namespace {

using kivtest::Bytes;
using kivtest::Hex;
using kivtest::LoopbackPeer;

typedef kivtest::DescriptorCheckedTest TCPSockets;

// The socket error an operation throws as a KivSocketException (or subclass), 0 for none.
UInt32 ErrorOf(const std::function<void()> &operation) {
  try {
    operation();
  } catch (const KivSocketException &e) {
    return e.GetErrorType();
  }
  return 0;
}

int BoundPort(int descriptor) {
  sockaddr_in bound = {};
  socklen_t length = sizeof bound;
  ::getsockname(descriptor, reinterpret_cast<sockaddr *>(&bound), &length);
  return ntohs(bound.sin_port);
}

// A client connected to `peer`, whose connection the peer has accepted.
std::unique_ptr<KivTCPClientSocket> Connected(LoopbackPeer &peer) {
  std::unique_ptr<KivTCPClientSocket> client(new KivTCPClientSocket("127.0.0.1", peer.Port()));
  EXPECT_EQ(client->Connect(), 0);
  EXPECT_TRUE(peer.Accept());
  return client;
}

TEST_F(TCPSockets, CompleteReceivesGatherPiecesAndReportAnEarlyClose) {
  LoopbackPeer peer;
  auto client = Connected(peer);
  std::thread device([&] {
    peer.Send(Hex("01 02 03 04"));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    peer.Send(Hex("05 06 07 08 09"));
  });
  unsigned char got[9] = {};
  EXPECT_EQ(client->RecvAll(got, 9, 0), 9);
  device.join();
  EXPECT_EQ(kivtest::ToHex(got, 9), "01 02 03 04 05 06 07 08 09");

  // Four of nine bytes, then the peer closes: 0, the four kept but not reported.
  peer.Send(Hex("0A 0B 0C 0D"));
  peer.CloseConnection();
  EXPECT_EQ(client->RecvAll(got, 9, KivTimeVal{5, 0}, 0), 0);
  EXPECT_EQ(kivtest::ToHex(got, 4), "0A 0B 0C 0D");
  EXPECT_EQ(client->Recv(got, 9, 0), 0) << "the closed peer stays readable";
}

TEST_F(TCPSockets, TimedWaitsRunOutAndFailOnAClosedDescriptor) {
  LoopbackPeer peer;
  auto client = Connected(peer);
  unsigned char got[9];
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(client->RecvAll(got, 9, KivTimeVal{0, 0}, 0), -2);
  EXPECT_LT(kivtest::SecondsSince(start), 0.5) << "a zero limit does not wait";
  EXPECT_EQ(ErrorOf([&] { client->RecvAll(got, 9, KivTimeVal{0, 1000000}, 0); }), SELECT_ERROR);
  ASSERT_EQ(client->Close(), 0);
  EXPECT_EQ(ErrorOf([&] { client->RecvAll(got, 9, KivTimeVal{1, 0}, 0); }), SELECT_ERROR);
  EXPECT_EQ(ErrorOf([&] { client->SendAll(got, 9, KivTimeVal{1, 0}, 0); }), SELECT_ERROR);
  EXPECT_EQ(client->SendAll(got, 0, 0), 0) << "an empty message makes no system call";
}

TEST_F(TCPSockets, EveryFailureThrowsItsError) {
  LoopbackPeer peer;
  KivTCPClientSocket nowhere("127.0.0.1", [] { return LoopbackPeer().Port(); }());
  auto client = Connected(peer);
  KivTCPServerSocket fresh(0), busy(peer.Port()), notListening(0);
  KivSocketAddress from("", 0);
  unsigned char area[16] = {};
  const Bytes lots(4096, 1);
  const struct {
    const char *name;
    std::function<void()> operation;
    UInt32 error;
  } cases[] = {
      {"connect to nothing", [&] { nowhere.Connect(); }, CONNECT_ERROR},
      {"negative send", [&] { client->Send(area, -1, 0); }, CLIENT_SEND_ERROR},
      {"negative receive", [&] { client->Recv(area, -1, 0); }, CLIENT_RECV_ERROR},
      {"null receive", [&] { client->RecvAll(nullptr, 3, 0); }, CLIENT_RECV_ERROR},
      {"bind a taken port", [&] { busy.Bind(); }, BIND_TCP_ERROR},
      {"accept unlistened", [&] { notListening.Accept(from); }, ACCEPT_ERROR},
      {"receive before accept", [&] { fresh.Recv(area, 4, 0); }, SERVER_RECV_ERROR},
      {"send before accept", [&] { fresh.Send(area, 4, 0); }, SERVER_SEND_ERROR},
      // The peer resets; the sends that follow fail instead of raising SIGPIPE in this process.
      {"send to a vanished peer",
       [&] {
         peer.ResetConnection();
         for (int i = 0; i < 100; ++i) {
           client->SendAll(lots.data(), static_cast<int>(lots.size()), 0);
         }
       },
       CLIENT_SEND_ERROR},
      {"listen when closed",
       [&] {
         fresh.Close();
         fresh.Listen(1);
       },
       LISTEN_ERROR},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(ErrorOf(c.operation), c.error) << c.name;
  }
}

TEST_F(TCPSockets, ServerAcceptsAndLeavesTheFormerClientToTheCaller) {
  std::unique_ptr<KivTCPServerSocket> server(new KivTCPServerSocket());
  ASSERT_EQ(server->Bind() + server->Listen(4), 0);
  const int port = BoundPort(server->GetSocket());
  KivTCPClientSocket first("127.0.0.1", port), second("127.0.0.1", port);
  ASSERT_EQ(first.Connect(), 0);
  KivSocketAddress from("unchanged", 1);
  const int firstClient = server->Accept(from);
  EXPECT_EQ(server->GetClientSocket(), firstClient);
  EXPECT_EQ(from.GetIPAddress() + ":" + std::to_string(from.GetPort()),
            "127.0.0.1:" + std::to_string(BoundPort(first.GetSocket())));
  EXPECT_EQ(::fcntl(firstClient, F_GETFD), FD_CLOEXEC);

  // Sending and receiving through the accepted client: ChannelFunctionsTest (kind 2).
  unsigned char got[8] = {};
  ASSERT_EQ(second.Connect(), 0);
  EXPECT_NE(server->Accept(from), firstClient);
  EXPECT_NE(::fcntl(firstClient, F_GETFD), -1) << "the former client stays open";
  ::close(firstClient); // the caller's to close
  EXPECT_EQ(first.Recv(got, 8, 0), 0);
  server.reset(); // closes the current client and the listening descriptor
  EXPECT_EQ(second.Recv(got, 8, 0), 0);
}

} // namespace
