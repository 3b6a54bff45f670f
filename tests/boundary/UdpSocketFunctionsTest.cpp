// UDP socket and address handles through the shared library: validation, result codes, options,
// loopback exchanges into containers, time-outs, the close and revive cycle, and no descriptor
// left open.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "Interfaces/KivNetworkComm.h"
#include "support/TestSupport.h"

namespace {

using kivtest::Bytes;
using kivtest::Hex;

// The library hands every object to the host; the tests release theirs through the classes.
typedef std::unique_ptr<KivUDPSocket> UdpHandle;
typedef std::unique_ptr<KivSocketAddress> AddressHandle;

UdpHandle OpenUdp(int port) { return UdpHandle(static_cast<KivUDPSocket *>(OpenUDPSocket(port))); }

AddressHandle MakeAddress(std::string text, int port) {
  return AddressHandle(static_cast<KivSocketAddress *>(CreateSocketAddress(text, port)));
}

class Container {
public:
  Container() : mBuffer(static_cast<KivNetBuffer *>(CreateBuffer())) {}
  explicit Container(const Bytes &bytes) : Container() {
    mBuffer->SetBuffer(bytes.data(), static_cast<int>(bytes.size()));
  }
  ~Container() {
    mBuffer->ResetBuffer();
    delete mBuffer;
  }
  Container(const Container &) = delete;
  Container &operator=(const Container &) = delete;
  HANDLE handle() const { return mBuffer; }
  std::string hex() const {
    return kivtest::ToHex(mBuffer->GetBufferRef(), mBuffer->GetBufferLength());
  }
  int length() const { return mBuffer->GetBufferLength(); }

private:
  KivNetBuffer *mBuffer;
};

// A stream socket carrying a TCP class identifier: stands in for the TCP handles (kinds 1 and 2)
// where only the socket base matters.
class StandInTcpSocket : public KivSocket {
public:
  explicit StandInTcpSocket(UInt32 classID) : KivSocket(TCP) { mClassID = classID; }
};

int LocalPort(KivSocket &socket) {
  sockaddr_in bound = {};
  socklen_t length = sizeof bound;
  if (::getsockname(socket.GetSocket(), reinterpret_cast<sockaddr *>(&bound), &length) != 0) {
    return -1;
  }
  return ntohs(bound.sin_port);
}

int IntOption(KivSocket &socket, int level, int option) {
  int value = -1;
  socklen_t length = sizeof value;
  ::getsockopt(socket.GetSocket(), level, option, &value, &length);
  return value;
}

long ReceiveTimeOutSeconds(KivSocket &socket) {
  timeval limit = {-1, 0};
  socklen_t length = sizeof limit;
  ::getsockopt(socket.GetSocket(), SOL_SOCKET, SO_RCVTIMEO, &limit, &length);
  return static_cast<long>(limit.tv_sec);
}

// Lowers the soft descriptor limit for the life of the object, so that no descriptor can be made.
// The library's descriptor error is thrown once before: the sanitizer builds check an exception's
// dynamic type the first time it is made, and that check itself needs descriptors.
class NoNewDescriptors {
public:
  NoNewDescriptors() {
    UdpHandle closed = OpenUdp(0);
    CloseUDPSocket(closed.get());
    try {
      closed->GetSocket();
    } catch (const KivSocketException &) {
    }
    ::getrlimit(RLIMIT_NOFILE, &mSaved);
    rlimit none = mSaved;
    none.rlim_cur = 0;
    ::setrlimit(RLIMIT_NOFILE, &none);
  }
  ~NoNewDescriptors() { ::setrlimit(RLIMIT_NOFILE, &mSaved); }

private:
  rlimit mSaved = {};
};

// A bound receiver and sender on loopback, and the receiver's address as a handle.
struct LoopbackPair {
  UdpHandle receiver = OpenUdp(0);
  UdpHandle sender = OpenUdp(0);
  AddressHandle toReceiver;
  int senderPort = 0;
  LoopbackPair() {
    EXPECT_EQ(BindUDPSocket(receiver.get()), 0u);
    EXPECT_EQ(BindUDPSocket(sender.get()), 0u);
    toReceiver = MakeAddress("127.0.0.1", LocalPort(*receiver));
    senderPort = LocalPort(*sender);
  }
};

// Every test ends with as many descriptors open as it started with.
class UdpSocketFunctions : public ::testing::Test {
protected:
  void SetUp() override { mOpenBefore = kivtest::CountOpenDescriptors(); }
  void TearDown() override {
    EXPECT_EQ(kivtest::CountOpenDescriptors(), mOpenBefore) << "a descriptor was left open";
  }

private:
  int mOpenBefore = 0;
};

TEST_F(UdpSocketFunctions, HandlesAreValidatedByKindAndClassIdentifier) {
  UdpHandle udp = OpenUdp(0);
  UdpHandle mdns = OpenUdp(5353); // made, never bound
  ASSERT_NE(udp, nullptr);
  ASSERT_NE(mdns, nullptr);
  EXPECT_EQ(udp->getClassID(), 0x75647073u);
  EXPECT_EQ(mdns->getClassID(), 0x75647073u);
  AddressHandle address = MakeAddress("127.0.0.1", 1);
  Container container;
  StandInTcpSocket client(kKivTCPClientSocketClassID);
  StandInTcpSocket server(kKivTCPServerSocketClassID);

  struct Case {
    const char *what;
    HANDLE handle;
    int kind;
    bool valid;
  };
  const Case cases[] = {
      {"udp kind 0", udp.get(), 0, true},
      {"udp kind 1", udp.get(), 1, false},
      {"udp kind 2", udp.get(), 2, false},
      {"udp kind 3", udp.get(), 3, false},
      {"udp kind -1", udp.get(), -1, false},
      {"null kind 0", nullptr, 0, false},
      {"container kind 0", container.handle(), 0, false},
      {"address kind 0", address.get(), 0, false},
      {"client kind 1", &client, 1, true},
      {"client kind 0", &client, 0, false},
      {"server kind 2", &server, 2, true},
      {"server kind 1", &server, 1, false},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    KivSocket *found = VerifySocketHandle(c.handle, c.kind);
    EXPECT_EQ(found, c.valid ? static_cast<KivSocket *>(c.handle) : nullptr);
  }

  EXPECT_EQ(VerifySockAddressHandle(address.get()), address.get());
  EXPECT_EQ(VerifySockAddressHandle(nullptr), nullptr);
  EXPECT_EQ(VerifySockAddressHandle(container.handle()), nullptr);
  EXPECT_EQ(VerifySockAddressHandle(udp.get()), nullptr);
}

TEST_F(UdpSocketFunctions, BadHandlesGiveTheirCodesAndChangeNothing) {
  LoopbackPair pair;
  AddressHandle from = MakeAddress("unchanged", 9);
  Container message(Hex("48424E33 00000000 00000000 00000007 80000003 00000000"));
  Container foreign;
  HANDLE udp = pair.sender.get();
  HANDLE to = pair.toReceiver.get();
  HANDLE msg = message.handle();
  HANDLE box = foreign.handle();
  HANDLE addr = from.get();
  int sent = -77;
  int received = -77;
  std::string text = "untouched";
  int port = -77;

  struct Case {
    const char *what;
    std::function<UInt32()> call;
    UInt32 expected;
  };
  const Case cases[] = {
      {"bind null", [&] { return BindUDPSocket(nullptr); }, 0x0A091802},
      {"bind container", [&] { return BindUDPSocket(box); }, 0x0A091802},
      {"bind address", [&] { return BindUDPSocket(addr); }, 0x0A091802},
      {"options kind 3", [&] { return SetSocketOptions(udp, 3, BROADCAST_PERMITTED, 0); },
       0x0A091702},
      {"options kind 1 on udp", [&] { return SetSocketOptions(udp, 1, BROADCAST_PERMITTED, 0); },
       0x0A091702},
      {"options null", [&] { return SetSocketOptions(nullptr, 0, REUSE_ADDRESS, 0); }, 0x0A091702},
      {"options container", [&] { return SetSocketOptions(box, 0, REUSE_ADDRESS, 0); }, 0x0A091702},
      {"option 6", [&] { return SetSocketOptions(udp, 0, static_cast<SOCKET_OPTIONS>(6), 0); },
       0x0A091704},
      {"option -1",
       [&] { return SetSocketOptions(udp, 0, static_cast<SOCKET_OPTIONS>(0xFFFFFFFF), 0); },
       0x0A091704},
      {"option 6 kind 3 (handle first)",
       [&] { return SetSocketOptions(udp, 3, static_cast<SOCKET_OPTIONS>(6), 0); }, 0x0A091702},
      {"send null socket", [&] { return SendTo(nullptr, to, msg, 0, sent); }, 0x0A091402},
      {"send container as socket", [&] { return SendTo(box, to, msg, 0, sent); }, 0x0A091402},
      {"send all bad (socket first)", [&] { return SendTo(nullptr, nullptr, nullptr, 0, sent); },
       0x0A091402},
      {"send null buffer", [&] { return SendTo(udp, to, nullptr, 0, sent); }, 0x0A091401},
      {"send address as buffer", [&] { return SendTo(udp, to, addr, 0, sent); }, 0x0A091401},
      {"send buffer before address", [&] { return SendTo(udp, nullptr, nullptr, 0, sent); },
       0x0A091401},
      {"send null address", [&] { return SendTo(udp, nullptr, msg, 0, sent); }, 0x0A091403},
      {"send container as address", [&] { return SendTo(udp, box, msg, 0, sent); }, 0x0A091403},
      {"send socket as address", [&] { return SendTo(udp, udp, msg, 0, sent); }, 0x0A091403},
      {"recv null socket", [&] { return RecvFrom(nullptr, addr, box, 0, received); }, 0x0A091502},
      {"recv address as socket", [&] { return RecvFrom(addr, addr, box, 0, received); },
       0x0A091502},
      {"recv null buffer", [&] { return RecvFrom(udp, addr, nullptr, 0, received); }, 0x0A091501},
      {"recv null address", [&] { return RecvFrom(udp, nullptr, box, 0, received); }, 0x0A091503},
      {"recv container as address", [&] { return RecvFrom(udp, box, box, 0, received); },
       0x0A091503},
      {"close null", [&] { return CloseUDPSocket(nullptr); }, 0x0A091602},
      {"close container", [&] { return CloseUDPSocket(box); }, 0x0A091602},
      {"revive null", [&] { return static_cast<UInt32>(RevitalizeSocket(nullptr, 0)); },
       0x0A092602},
      {"revive udp kind 1", [&] { return static_cast<UInt32>(RevitalizeSocket(udp, 1)); },
       0x0A092602},
      {"revive udp kind 3", [&] { return static_cast<UInt32>(RevitalizeSocket(udp, 3)); },
       0x0A092602},
      {"address port null", [&] { return GetAddressPort(nullptr, &text, &port); }, 0x0A091903},
      {"address port of socket", [&] { return GetAddressPort(udp, &text, &port); }, 0x0A091903},
      {"address port of container", [&] { return GetAddressPort(box, &text, &port); }, 0x0A091903},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(c.call(), c.expected);
  }
  EXPECT_EQ(sent, -77);
  EXPECT_EQ(received, -77);
  EXPECT_EQ(text, "untouched");
  EXPECT_EQ(port, -77);
  EXPECT_EQ(from->GetIPAddress(), "unchanged");
  EXPECT_EQ(foreign.length(), 0);
  EXPECT_EQ(IntOption(*pair.sender, SOL_SOCKET, SO_BROADCAST), 0) << "no refused option applied";
  EXPECT_EQ(SendTo(udp, to, msg, 0, sent), 0u) << "the handle still works";
}

TEST_F(UdpSocketFunctions, RejectedCallsMoveNoData) {
  LoopbackPair pair;
  AddressHandle from = MakeAddress("", 0);
  Container inbox;
  Container first(kivtest::Text("first"));
  int count = -1;
  ASSERT_EQ(SetSocketOptions(pair.receiver.get(), 0, TIME_OUT, 1), 0u);

  EXPECT_EQ(SendTo(pair.sender.get(), pair.toReceiver.get(), nullptr, 0, count), 0x0A091401u);
  EXPECT_EQ(SendTo(pair.sender.get(), pair.toReceiver.get(), first.handle(), 0, count), 0u);
  EXPECT_EQ(RecvFrom(pair.receiver.get(), nullptr, inbox.handle(), 0, count), 0x0A091503u);
  EXPECT_EQ(RecvFrom(pair.receiver.get(), from.get(), nullptr, 0, count), 0x0A091501u);
  EXPECT_EQ(RecvFrom(pair.receiver.get(), from.get(), inbox.handle(), 0, count), 0u);
  EXPECT_EQ(inbox.hex(), kivtest::ToHex(kivtest::Text("first")))
      << "the rejected receives consumed nothing";
  EXPECT_EQ(RecvFrom(pair.receiver.get(), from.get(), inbox.handle(), 0, count), 0x0A0000B6u)
      << "the rejected send sent nothing";
}

TEST_F(UdpSocketFunctions, OptionsReachTheSocketOrReportTheirFailure) {
  UdpHandle udp = OpenUdp(0);
  HANDLE h = udp.get();
  EXPECT_EQ(SetSocketOptions(h, 0, REUSE_ADDRESS, 0), 0u);
  EXPECT_EQ(IntOption(*udp, SOL_SOCKET, SO_REUSEADDR), 1);
  EXPECT_EQ(SetSocketOptions(h, 0, REUSE_PORT, 0), 0u);
  EXPECT_EQ(IntOption(*udp, SOL_SOCKET, SO_REUSEPORT), 1);
  EXPECT_EQ(SetSocketOptions(h, 0, BROADCAST_PERMITTED, 0), 0u);
  EXPECT_EQ(IntOption(*udp, SOL_SOCKET, SO_BROADCAST), 1);
  EXPECT_EQ(SetSocketOptions(h, 0, BROADCAST_PERMITTED_OFF, 0), 0u);
  EXPECT_EQ(IntOption(*udp, SOL_SOCKET, SO_BROADCAST), 0);
  EXPECT_EQ(SetSocketOptions(h, 0, NO_DELAY, 0), 0x0A0000B3u) << "no-delay is for streams";

  EXPECT_EQ(SetSocketOptions(h, 0, TIME_OUT, 2), 0u);
  EXPECT_EQ(ReceiveTimeOutSeconds(*udp), 2);
  EXPECT_EQ(SetSocketOptions(h, 0, TIME_OUT, -1), 0x0A091704u);
  EXPECT_EQ(ReceiveTimeOutSeconds(*udp), 2) << "a refused time-out changes nothing";
  EXPECT_EQ(SetSocketOptions(h, 0, TIME_OUT, 0), 0u);
  EXPECT_EQ(ReceiveTimeOutSeconds(*udp), 0);

  EXPECT_EQ(CloseUDPSocket(h), 0u);
  EXPECT_EQ(SetSocketOptions(h, 0, REUSE_ADDRESS, 0), 0x0A0000B1u);
  EXPECT_EQ(SetSocketOptions(h, 0, REUSE_PORT, 0), 0x0A0000B1u);
  EXPECT_EQ(SetSocketOptions(h, 0, BROADCAST_PERMITTED, 0), 0x0A0000B2u);
  EXPECT_EQ(SetSocketOptions(h, 0, BROADCAST_PERMITTED_OFF, 0), 0x0A0000B2u);
  EXPECT_EQ(SetSocketOptions(h, 0, TIME_OUT, 1), 0x0A0000C2u);
}

TEST_F(UdpSocketFunctions, TcpKindsTakeTheBaseOptionsAndIgnoreTheTimeOut) {
  StandInTcpSocket client(kKivTCPClientSocketClassID);
  StandInTcpSocket server(kKivTCPServerSocketClassID);
  EXPECT_EQ(SetSocketOptions(&client, 1, NO_DELAY, 0), 0u);
  EXPECT_EQ(IntOption(client, IPPROTO_TCP, TCP_NODELAY), 1);
  EXPECT_EQ(SetSocketOptions(&server, 2, REUSE_ADDRESS, 0), 0u);
  EXPECT_EQ(IntOption(server, SOL_SOCKET, SO_REUSEADDR), 1);
  const int limits[] = {5, 0, -1};
  for (int limit : limits) {
    SCOPED_TRACE(limit);
    EXPECT_EQ(SetSocketOptions(&client, 1, TIME_OUT, limit), 0u);
    EXPECT_EQ(SetSocketOptions(&server, 2, TIME_OUT, limit), 0u);
    EXPECT_EQ(ReceiveTimeOutSeconds(client), 0);
    EXPECT_EQ(ReceiveTimeOutSeconds(server), 0);
  }
  EXPECT_EQ(SetSocketOptions(&client, 1, static_cast<SOCKET_OPTIONS>(6), 0), 0x0A091704u);
}

TEST_F(UdpSocketFunctions, BindConflictAndPortReuse) {
  UdpHandle first = OpenUdp(0);
  ASSERT_EQ(BindUDPSocket(first.get()), 0u);
  UdpHandle second = OpenUdp(LocalPort(*first));
  EXPECT_EQ(BindUDPSocket(second.get()), 0x0A0000B5u);

  UdpHandle shared = OpenUdp(0);
  ASSERT_EQ(SetSocketOptions(shared.get(), 0, REUSE_PORT, 0), 0u);
  ASSERT_EQ(BindUDPSocket(shared.get()), 0u);
  UdpHandle sharing = OpenUdp(LocalPort(*shared));
  ASSERT_EQ(SetSocketOptions(sharing.get(), 0, REUSE_PORT, 0), 0u);
  EXPECT_EQ(BindUDPSocket(sharing.get()), 0u);
}

TEST_F(UdpSocketFunctions, CloseKeepsTheHandleAndReviveMakesItUsableAgain) {
  LoopbackPair pair;
  HANDLE h = pair.sender.get();
  Container message(kivtest::Text("after revive"));
  int sent = -77;
  int received = -77;
  AddressHandle from = MakeAddress("", 0);
  Container inbox;

  EXPECT_EQ(RevitalizeSocket(h, 0), 0);
  EXPECT_EQ(CloseUDPSocket(h), 0u);
  EXPECT_EQ(CloseUDPSocket(h), 0xFFFFFFFFu);
  EXPECT_EQ(VerifySocketHandle(h, 0), h) << "a closed handle stays valid";
  EXPECT_EQ(SendTo(h, pair.toReceiver.get(), message.handle(), 0, sent), 0x0A0000B7u);
  EXPECT_EQ(sent, -77);
  EXPECT_EQ(RecvFrom(h, from.get(), inbox.handle(), 0, received), 0x0A0000B6u);
  EXPECT_EQ(received, -77);
  EXPECT_EQ(BindUDPSocket(h), 0x0A0000B5u);

  EXPECT_EQ(RevitalizeSocket(h, 0), 0);
  EXPECT_EQ(RevitalizeSocket(h, 0), 0) << "an open handle is left as it is";
  EXPECT_EQ(BindUDPSocket(h), 0u);
  EXPECT_EQ(SendTo(h, pair.toReceiver.get(), message.handle(), 0, sent), 0u);
  EXPECT_EQ(sent, 12);
  EXPECT_EQ(RecvFrom(pair.receiver.get(), from.get(), inbox.handle(), 0, received), 0u);
  EXPECT_EQ(inbox.hex(), message.hex());
  EXPECT_EQ(CloseUDPSocket(h), 0u);
}

TEST_F(UdpSocketFunctions, ReviveServesServerSocketsAndLeavesChannelsAlone) {
  StandInTcpSocket server(kKivTCPServerSocketClassID);
  StandInTcpSocket client(kKivTCPClientSocketClassID);
  server.Close();
  client.Close();
  EXPECT_EQ(RevitalizeSocket(&server, 2), 0);
  EXPECT_EQ(IntOption(server, SOL_SOCKET, SO_TYPE), SOCK_STREAM);
  EXPECT_EQ(RevitalizeSocket(&client, 1), 0);
  EXPECT_EQ(client.Close(), -1) << "a channel makes its own descriptor when it opens";
}

TEST_F(UdpSocketFunctions, WithoutDescriptorsOpenGivesNullAndReviveStaysClosed) {
  UdpHandle udp = OpenUdp(0);
  ASSERT_EQ(CloseUDPSocket(udp.get()), 0u);
  HANDLE opened = reinterpret_cast<HANDLE>(1);
  int revived = 0;
  {
    NoNewDescriptors limit;
    opened = OpenUDPSocket(0);
    revived = RevitalizeSocket(udp.get(), 0);
  }
  EXPECT_EQ(opened, nullptr);
  EXPECT_EQ(revived, static_cast<int>(0x0A0000B4u));
  EXPECT_EQ(CloseUDPSocket(udp.get()), 0xFFFFFFFFu) << "the handle stayed closed";
  EXPECT_EQ(RevitalizeSocket(udp.get(), 0), 0);
}

struct MessageCase {
  const char *what;
  const char *hex;
  UInt32 headerType;
  UInt32 command;
};

TEST_F(UdpSocketFunctions, RecvFromFillsTheContainerAndTheSender) {
  const MessageCase cases[] = {
      {"HBN3 ping", "48424E33 00000000 00000000 00000007 80000003 00000000", 0x48424E33,
       0x80000003},
      {"HCP1 with text", "48435031 00010002 00000000 00000000 00000011 4950414444524553533D31",
       0x48435031, 0x00000011},
      {"shorter than a header", "48424E33 0000", 0x48424E33, 0},
  };
  for (const MessageCase &c : cases) {
    SCOPED_TRACE(c.what);
    LoopbackPair pair;
    const Bytes bytes = Hex(c.hex);
    Container message(bytes);
    Container inbox;
    AddressHandle from = MakeAddress("BROADCAST", 1);
    int sent = -1;
    int received = -1;
    ASSERT_EQ(SendTo(pair.sender.get(), pair.toReceiver.get(), message.handle(), 0, sent), 0u);
    EXPECT_EQ(sent, static_cast<int>(bytes.size()));
    ASSERT_EQ(RecvFrom(pair.receiver.get(), from.get(), inbox.handle(), 0, received), 0u);
    EXPECT_EQ(received, static_cast<int>(bytes.size()));
    EXPECT_EQ(inbox.hex(), kivtest::ToHex(bytes));
    EXPECT_EQ(GetHeaderType(inbox.handle()), c.headerType);
    EXPECT_EQ(GetCommandType(inbox.handle()), c.command);
    std::string text;
    int port = -1;
    EXPECT_EQ(GetAddressPort(from.get(), &text, &port), 0u);
    EXPECT_EQ(text, "127.0.0.1");
    EXPECT_EQ(port, pair.senderPort);
    EXPECT_EQ(VerifySockAddressHandle(from.get()), from.get()) << "class identifier unchanged";
  }
}

TEST_F(UdpSocketFunctions, LongDatagramsArriveCutTo1024Bytes) {
  LoopbackPair pair;
  Bytes bytes(2000);
  for (size_t i = 0; i < bytes.size(); ++i) {
    bytes[i] = static_cast<unsigned char>(i % 251);
  }
  Container message(bytes);
  Container inbox;
  AddressHandle from = MakeAddress("", 0);
  int sent = -1;
  int received = -1;
  ASSERT_EQ(SendTo(pair.sender.get(), pair.toReceiver.get(), message.handle(), 0, sent), 0u);
  EXPECT_EQ(sent, 2000);
  ASSERT_EQ(RecvFrom(pair.receiver.get(), from.get(), inbox.handle(), 0, received), 0u);
  EXPECT_EQ(received, 1024);
  EXPECT_EQ(inbox.length(), 1024);
  EXPECT_EQ(inbox.hex(), kivtest::ToHex(bytes.data(), 1024));
}

TEST_F(UdpSocketFunctions, EmptyContainerSendsAnEmptyDatagram) {
  LoopbackPair pair;
  Container empty;
  Container inbox(kivtest::Text("old"));
  AddressHandle from = MakeAddress("", 0);
  int sent = -1;
  int received = -1;
  ASSERT_EQ(SendTo(pair.sender.get(), pair.toReceiver.get(), empty.handle(), 0, sent), 0u);
  EXPECT_EQ(sent, 0);
  ASSERT_EQ(RecvFrom(pair.receiver.get(), from.get(), inbox.handle(), 0, received), 0u);
  EXPECT_EQ(received, 0);
  EXPECT_EQ(inbox.length(), 0);
}

TEST_F(UdpSocketFunctions, ReceiveTimeOutGivesB6AndWritesNothing) {
  UdpHandle udp = OpenUdp(0);
  ASSERT_EQ(BindUDPSocket(udp.get()), 0u);
  ASSERT_EQ(SetSocketOptions(udp.get(), 0, TIME_OUT, 1), 0u);
  Container inbox(kivtest::Text("kept"));
  AddressHandle from = MakeAddress("kept", 7);
  int received = -77;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(RecvFrom(udp.get(), from.get(), inbox.handle(), 0, received), 0x0A0000B6u);
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited, std::chrono::milliseconds(500));
  EXPECT_LT(waited, std::chrono::seconds(30));
  EXPECT_EQ(received, -77);
  EXPECT_EQ(inbox.hex(), kivtest::ToHex(kivtest::Text("kept")));
  EXPECT_EQ(from->GetIPAddress(), "kept");
  EXPECT_EQ(from->GetPort(), 7);
}

TEST_F(UdpSocketFunctions, TimeOutZeroLetsAReceiveWaitPastTheOldLimit) {
  LoopbackPair pair;
  ASSERT_EQ(SetSocketOptions(pair.receiver.get(), 0, TIME_OUT, 1), 0u);
  ASSERT_EQ(SetSocketOptions(pair.receiver.get(), 0, TIME_OUT, 0), 0u);
  Container message(kivtest::Text("late"));
  UInt32 sendResult = 1;
  // One datagram, later than the removed limit; the thread ends by itself.
  std::thread late([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    int sent = 0;
    sendResult = SendTo(pair.sender.get(), pair.toReceiver.get(), message.handle(), 0, sent);
  });
  Container inbox;
  AddressHandle from = MakeAddress("", 0);
  int received = -1;
  const UInt32 result = RecvFrom(pair.receiver.get(), from.get(), inbox.handle(), 0, received);
  late.join();
  EXPECT_EQ(sendResult, 0u);
  EXPECT_EQ(result, 0u);
  EXPECT_EQ(inbox.hex(), kivtest::ToHex(kivtest::Text("late")));
}

struct AddressCase {
  const char *text;
  int port;
  int storedPort;
  const char *addressBytes;
  const char *portBytes;
};

TEST_F(UdpSocketFunctions, AddressHandlesKeepTextAndPortAndMapKeywords) {
  const AddressCase cases[] = {
      {"", 0, 0, "00 00 00 00", "00 00"},
      {"BROADCAST", 5000, 5000, "FF FF FF FF", "13 88"},
      {"broadcast", 5000, 5000, "FF FF FF FF", "13 88"},
      {"192.168.0.10", 70000, 4464, "C0 A8 00 0A", "11 70"},
      {"127.0.0.1", 65535, 65535, "7F 00 00 01", "FF FF"},
  };
  for (const AddressCase &c : cases) {
    SCOPED_TRACE(c.text);
    AddressHandle address = MakeAddress(c.text, c.port);
    ASSERT_NE(VerifySockAddressHandle(address.get()), nullptr);
    std::string text = "x";
    int port = -1;
    EXPECT_EQ(GetAddressPort(address.get(), &text, &port), 0u);
    EXPECT_EQ(text, c.text) << "stored unchanged";
    EXPECT_EQ(port, c.storedPort);
    const unsigned char *form = reinterpret_cast<const unsigned char *>(
        VerifySockAddressHandle(address.get())->GetBSDAddress());
    EXPECT_EQ(kivtest::ToHex(form + 4, 4), c.addressBytes);
    EXPECT_EQ(kivtest::ToHex(form + 2, 2), c.portBytes);
  }
  AddressHandle address = MakeAddress("10.0.0.7", 8080);
  std::string text;
  int port = -1;
  EXPECT_EQ(GetAddressPort(address.get(), nullptr, &port), 0u);
  EXPECT_EQ(port, 8080);
  EXPECT_EQ(GetAddressPort(address.get(), &text, nullptr), 0u);
  EXPECT_EQ(text, "10.0.0.7");
}

} // namespace
