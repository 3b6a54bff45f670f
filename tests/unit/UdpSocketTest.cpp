// The socket base and the UDP socket over loopback: descriptor life cycle, options, bind, single
// datagrams, receive time-out, and no descriptor left open on any path.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

#include "Sockets/KivSocket.h"
#include "Sockets/KivUDPSocket.h"
#include "support/TestSupport.h"

namespace {

// The name of the socket exception `action` throws ("KivUDPSocketException.Bind" tells class and
// error at once), or "" when it throws none.
std::string Thrown(const std::function<void()> &action) {
  try {
    action();
  } catch (const KivSocketException &caught) {
    return caught.GetExceptionName();
  }
  return "";
}

// The port the platform bound a descriptor to.
int LocalPort(int descriptor) {
  sockaddr_in bound = {};
  socklen_t length = sizeof bound;
  if (::getsockname(descriptor, reinterpret_cast<sockaddr *>(&bound), &length) != 0) {
    return -1;
  }
  return ntohs(bound.sin_port);
}

int IntOption(int descriptor, int level, int option) {
  int value = -1;
  socklen_t length = sizeof value;
  if (::getsockopt(descriptor, level, option, &value, &length) != 0) {
    return -1;
  }
  return value;
}

bool IsCloseOnExec(int descriptor) {
  const int flags = ::fcntl(descriptor, F_GETFD);
  return flags != -1 && (flags & FD_CLOEXEC) != 0;
}

bool IsOpen(int descriptor) { return ::fcntl(descriptor, F_GETFD) != -1 || errno != EBADF; }

// A stream socket of the base alone, for the parts of the base that UDP does not reach.
class StreamSocket : public KivSocket {
public:
  StreamSocket() : KivSocket(TCP) { mClassID = kKivTCPClientSocketClassID; }
};

// A concrete socket whose constructor fails after the base made its descriptor.
class FailingSocket : public KivSocket {
public:
  static int sLastDescriptor;
  FailingSocket() : KivSocket(UDP) {
    sLastDescriptor = mSocket;
    throw std::runtime_error("constructor failed after the base");
  }
};
int FailingSocket::sLastDescriptor = -1;

// Lowers the soft descriptor limit for the life of the object, so that no descriptor can be made.
// The library's descriptor error is thrown once before: the sanitizer builds check an exception's
// dynamic type the first time it is made, and that check itself needs descriptors.
class NoNewDescriptors {
public:
  NoNewDescriptors() {
    Thrown([] {
      KivUDPSocket closed(0);
      closed.Close();
      closed.GetSocket();
    });
    ::getrlimit(RLIMIT_NOFILE, &mSaved);
    rlimit none = mSaved;
    none.rlim_cur = 0;
    ::setrlimit(RLIMIT_NOFILE, &none);
  }
  ~NoNewDescriptors() { ::setrlimit(RLIMIT_NOFILE, &mSaved); }

private:
  rlimit mSaved = {};
};

// Every test ends with as many descriptors open as it started with.
class UdpSocket : public ::testing::Test {
protected:
  void SetUp() override { mOpenBefore = kivtest::CountOpenDescriptors(); }
  void TearDown() override {
    EXPECT_EQ(kivtest::CountOpenDescriptors(), mOpenBefore) << "a descriptor was left open";
  }

private:
  int mOpenBefore = 0;
};

TEST_F(UdpSocket, ConstructionMakesACloseOnExecDatagramDescriptor) {
  EXPECT_EQ(kKivUDPSocketClassID, 0x75647073u);
  const int ports[] = {0, 5353, 70000};
  for (int port : ports) {
    SCOPED_TRACE(port);
    KivUDPSocket socket(port);
    EXPECT_EQ(socket.getClassID(), kKivUDPSocketClassID);
    EXPECT_EQ(socket.GetType(), UDP);
    EXPECT_EQ(socket.GetPort(), port & 0xFFFF);
    EXPECT_EQ(IntOption(socket.GetSocket(), SOL_SOCKET, SO_TYPE), SOCK_DGRAM);
    EXPECT_TRUE(IsCloseOnExec(socket.GetSocket()));
    EXPECT_EQ(LocalPort(socket.GetSocket()), 0) << "nothing is bound at construction";
    EXPECT_EQ(IntOption(socket.GetSocket(), SOL_SOCKET, SO_BROADCAST), 0) << "no option set";
  }
  EXPECT_EQ(KivUDPSocket().GetPort(), 0);
}

TEST_F(UdpSocket, CloseKeepsTheObjectAndRevitalizeMakesANewDescriptor) {
  KivUDPSocket socket(0);
  const int first = socket.GetSocket();
  EXPECT_EQ(socket.Revitalize(), 0);
  EXPECT_EQ(socket.GetSocket(), first) << "an open socket is left as it is";

  EXPECT_EQ(socket.Close(), 0);
  EXPECT_FALSE(IsOpen(first));
  EXPECT_EQ(Thrown([&] { socket.GetSocket(); }), "KivSocketException.Unknown");
  EXPECT_EQ(socket.Close(), -1) << "closing a closed socket";
  EXPECT_EQ(socket.getClassID(), kKivUDPSocketClassID);

  EXPECT_EQ(socket.Revitalize(), 0);
  EXPECT_EQ(IntOption(socket.GetSocket(), SOL_SOCKET, SO_TYPE), SOCK_DGRAM);
  EXPECT_TRUE(IsCloseOnExec(socket.GetSocket()));
  EXPECT_EQ(socket.Bind(), 0) << "a revived socket binds again";
}

TEST_F(UdpSocket, GenerateSocketFollowsTheTypeAndReplacesWithoutLeaking) {
  KivUDPSocket socket(0);
  socket.GenerateSocket(); // the fixture checks that the old descriptor was closed
  EXPECT_EQ(IntOption(socket.GetSocket(), SOL_SOCKET, SO_TYPE), SOCK_DGRAM);
  socket.SetType(TCP);
  socket.Close();
  socket.Revitalize();
  EXPECT_EQ(IntOption(socket.GetSocket(), SOL_SOCKET, SO_TYPE), SOCK_STREAM);
  EXPECT_TRUE(IsCloseOnExec(socket.GetSocket()));

  StreamSocket stream;
  EXPECT_EQ(IntOption(stream.GetSocket(), SOL_SOCKET, SO_TYPE), SOCK_STREAM);
  EXPECT_TRUE(IsCloseOnExec(stream.GetSocket()));
}

TEST_F(UdpSocket, ConstructorsThatThrowLeaveNothingOpen) {
  FailingSocket::sLastDescriptor = -1;
  EXPECT_THROW(FailingSocket(), std::runtime_error);
  ASSERT_NE(FailingSocket::sLastDescriptor, -1) << "the base made a descriptor first";
  EXPECT_FALSE(IsOpen(FailingSocket::sLastDescriptor));

  std::string name;
  {
    NoNewDescriptors limit;
    name = Thrown([] { KivUDPSocket socket(0); });
  }
  EXPECT_EQ(name, "KivSocketException.Unknown");
}

TEST_F(UdpSocket, RevitalizeWithoutDescriptorsThrowsAndStaysClosed) {
  KivUDPSocket socket(0);
  socket.Close();
  std::string name;
  {
    NoNewDescriptors limit;
    name = Thrown([&] { socket.Revitalize(); });
  }
  EXPECT_EQ(name, "KivSocketException.Unknown");
  EXPECT_EQ(Thrown([&] { socket.GetSocket(); }), "KivSocketException.Unknown");
  EXPECT_EQ(socket.Revitalize(), 0);
}

struct OptionCase {
  const char *what;
  int (KivSocket::*set)();
  int level;
  int option;
  int expected;
  const char *failure; // the exception's name on a closed socket
};

TEST_F(UdpSocket, OptionSettersSetTheirOptionOrThrowTheirError) {
  const OptionCase cases[] = {
      {"reuse address", &KivSocket::SetReuseAddress, SOL_SOCKET, SO_REUSEADDR, 1,
       "KivSocketException.ReusePort"},
      {"reuse port", &KivSocket::SetReusePort, SOL_SOCKET, SO_REUSEPORT, 1,
       "KivSocketException.ReusePort"},
      {"broadcast on", &KivSocket::SetBroadcastPermitted, SOL_SOCKET, SO_BROADCAST, 1,
       "KivSocketException.BroadcastNotPermitted"},
      {"broadcast off", &KivSocket::SetBroadcastPermittedOff, SOL_SOCKET, SO_BROADCAST, 0,
       "KivSocketException.BroadcastNotPermitted"},
  };
  for (const OptionCase &c : cases) {
    SCOPED_TRACE(c.what);
    KivUDPSocket socket(0);
    socket.SetBroadcastPermitted(); // so that "off" has something to switch
    EXPECT_EQ((socket.*c.set)(), 0);
    EXPECT_EQ(IntOption(socket.GetSocket(), c.level, c.option), c.expected);
    socket.Close();
    EXPECT_EQ(Thrown([&] { (socket.*c.set)(); }), c.failure);
  }
}

TEST_F(UdpSocket, NoDelayIsForStreamsOnly) {
  KivUDPSocket datagram(0);
  EXPECT_EQ(Thrown([&] { datagram.SetNoDelay(); }), "KivSocketException.NoDelayNotPermitted");
  StreamSocket stream;
  EXPECT_EQ(stream.SetNoDelay(), 0);
  EXPECT_EQ(IntOption(stream.GetSocket(), IPPROTO_TCP, TCP_NODELAY), 1);
  stream.Close();
  EXPECT_EQ(Thrown([&] { stream.SetNoDelay(); }), "KivSocketException.NoDelayNotPermitted");
}

TEST_F(UdpSocket, PendingErrorIsReportedOnceThenCleared) {
  int silentPort = 0;
  {
    KivUDPSocket placeholder(0);
    placeholder.Bind();
    silentPort = LocalPort(placeholder.GetSocket());
  }
  KivUDPSocket probe(0);
  EXPECT_FALSE(probe.IsGeneratingAnError());
  // A connected datagram socket learns of the closed loopback port from the ICMP answer.
  KivSocketAddress silent("127.0.0.1", silentPort);
  ASSERT_EQ(::connect(probe.GetSocket(), reinterpret_cast<sockaddr *>(silent.GetBSDAddress()), 16),
            0);
  ASSERT_EQ(::send(probe.GetSocket(), "x", 1, 0), 1);
  bool pending = false;
  for (int i = 0; i < 200 && !pending; ++i) { // at most about 2 seconds
    pending = probe.IsGeneratingAnError();
    if (!pending) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  EXPECT_TRUE(pending);
  EXPECT_FALSE(probe.IsGeneratingAnError()) << "reading the error clears it";
  probe.Close();
  EXPECT_EQ(Thrown([&] { probe.IsGeneratingAnError(); }), "KivSocketException.GetSockOpt");
}

TEST_F(UdpSocket, BindPicksAPortAndRefusesATakenOne) {
  KivUDPSocket first(0);
  EXPECT_EQ(first.Bind(), 0);
  const int port = LocalPort(first.GetSocket());
  EXPECT_GT(port, 0);
  EXPECT_EQ(first.GetPort(), 0) << "the port asked for, not the one picked";

  KivUDPSocket second(port);
  EXPECT_EQ(Thrown([&] { second.Bind(); }), "KivUDPSocketException.Bind");
  first.Close();
  EXPECT_EQ(Thrown([&] { first.Bind(); }), "KivUDPSocketException.Bind");

  // With port reuse on both sides the same port binds twice.
  KivUDPSocket shared(0);
  shared.SetReusePort();
  shared.Bind();
  KivUDPSocket sharing(LocalPort(shared.GetSocket()));
  sharing.SetReusePort();
  EXPECT_EQ(sharing.Bind(), 0);

  KivUDPSocket moved(0);
  moved.SetPort(LocalPort(shared.GetSocket()));
  EXPECT_EQ(Thrown([&] { moved.Bind(); }), "KivUDPSocketException.Bind")
      << "SetPort takes effect at the next Bind";
}

// A bound receiver and sender on loopback.
struct LoopbackPair {
  KivUDPSocket receiver{0};
  KivUDPSocket sender{0};
  KivSocketAddress toReceiver{"", 0};
  int senderPort = 0;
  LoopbackPair() {
    receiver.Bind();
    sender.Bind();
    toReceiver.SetAddress("127.0.0.1", LocalPort(receiver.GetSocket()));
    senderPort = LocalPort(sender.GetSocket());
  }
};

TEST_F(UdpSocket, DatagramsArriveWholeWithTheirSender) {
  LoopbackPair pair;
  kivtest::Bytes message(300);
  for (size_t i = 0; i < message.size(); ++i) {
    message[i] = static_cast<unsigned char>(i * 7);
  }
  EXPECT_EQ(pair.sender.SendTo(pair.toReceiver, message.data(), 300, 0), 300);
  unsigned char area[1024] = {};
  KivSocketAddress from("unchanged", 1);
  EXPECT_EQ(pair.receiver.RecvFrom(from, area, sizeof area, 0), 300);
  EXPECT_EQ(kivtest::ToHex(area, 300), kivtest::ToHex(message));
  EXPECT_EQ(from.GetIPAddress(), "127.0.0.1");
  EXPECT_EQ(from.GetPort(), pair.senderPort);

  EXPECT_EQ(pair.sender.SendTo(pair.toReceiver, nullptr, 0, 0), 0) << "an empty datagram";
  EXPECT_EQ(pair.receiver.RecvFrom(from, area, sizeof area, 0), 0);
}

TEST_F(UdpSocket, LongDatagramsAreCutToTheArea) {
  LoopbackPair pair;
  kivtest::Bytes message(2000, 0x5A);
  message[1023] = 0x11;
  message[1024] = 0x22;
  EXPECT_EQ(pair.sender.SendTo(pair.toReceiver, message.data(), 2000, 0), 2000);
  unsigned char area[1025] = {};
  KivSocketAddress from("", 0);
  EXPECT_EQ(pair.receiver.RecvFrom(from, area, 1024, 0), 1024);
  EXPECT_EQ(area[1023], 0x11);
  EXPECT_EQ(area[1024], 0x00) << "nothing written past the length given";
}

TEST_F(UdpSocket, FailedTransfersThrowAndLeaveTheAddress) {
  LoopbackPair pair;
  unsigned char area[16] = {};
  EXPECT_EQ(Thrown([&] { pair.sender.SendTo(pair.toReceiver, area, -1, 0); }),
            "KivUDPSocketException.SendTo");
  EXPECT_EQ(Thrown([&] { pair.sender.SendTo(pair.toReceiver, nullptr, 4, 0); }),
            "KivUDPSocketException.SendTo");
  KivSocketAddress from("unchanged", 9);
  EXPECT_EQ(Thrown([&] { pair.receiver.RecvFrom(from, area, -1, 0); }),
            "KivUDPSocketException.RecvFrom");
  EXPECT_EQ(Thrown([&] { pair.receiver.RecvFrom(from, nullptr, 4, 0); }),
            "KivUDPSocketException.RecvFrom");

  pair.sender.Close();
  pair.receiver.Close();
  EXPECT_EQ(Thrown([&] { pair.sender.SendTo(pair.toReceiver, area, 4, 0); }),
            "KivUDPSocketException.SendTo");
  EXPECT_EQ(Thrown([&] { pair.receiver.RecvFrom(from, area, sizeof area, 0); }),
            "KivUDPSocketException.RecvFrom");
  EXPECT_EQ(from.GetIPAddress(), "unchanged");
  EXPECT_EQ(from.GetPort(), 9);
}

TEST_F(UdpSocket, ReceiveTimeOutEndsAWaitWithRecvFromError) {
  KivUDPSocket socket(0);
  socket.Bind();
  EXPECT_EQ(socket.SetTimeOut(1), 0);
  unsigned char area[64];
  KivSocketAddress from("unchanged", 9);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Thrown([&] { socket.RecvFrom(from, area, sizeof area, 0); }),
            "KivUDPSocketException.RecvFrom");
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited, std::chrono::milliseconds(500));
  EXPECT_LT(waited, std::chrono::seconds(30));
  EXPECT_EQ(from.GetIPAddress(), "unchanged");
}

TEST_F(UdpSocket, TimeOutZeroRemovesItAndNegativeOrClosedIsRefused) {
  KivUDPSocket socket(0);
  timeval limit = {};
  socklen_t length = sizeof limit;
  socket.SetTimeOut(3);
  ::getsockopt(socket.GetSocket(), SOL_SOCKET, SO_RCVTIMEO, &limit, &length);
  EXPECT_EQ(limit.tv_sec, 3);
  socket.SetTimeOut(0);
  ::getsockopt(socket.GetSocket(), SOL_SOCKET, SO_RCVTIMEO, &limit, &length);
  EXPECT_EQ(limit.tv_sec, 0);
  EXPECT_EQ(limit.tv_usec, 0);

  EXPECT_EQ(Thrown([&] { socket.SetTimeOut(-1); }), "KivSocketException.GetSockOpt");
  ::getsockopt(socket.GetSocket(), SOL_SOCKET, SO_RCVTIMEO, &limit, &length);
  EXPECT_EQ(limit.tv_sec, 0) << "a refused value changes nothing";
  socket.Close();
  EXPECT_EQ(Thrown([&] { socket.SetTimeOut(1); }), "KivSocketException.GetSockOpt");
}

} // namespace
