// The exported channel functions through the shared library, against a simulated device's
// channel end point on loopback: the open request of every interface and each refused answer,
// reads (tickle packets, a frame too large for the buffer, silence, a frame split at every byte
// boundary), a host waiting on the descriptor between reads, the bytes writes put on the wire, the
// listener, a server socket made through its class, and the codes of the socket kinds the
// functions do not serve.
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Interfaces/KivNetworkComm.h"
#include "sim/Simulator.h"
#include "support/ChannelPeer.h"

namespace {

using kivsim::ChannelScript;
using kivtest::Bytes;
using kivtest::Hex;

const char kDevice[] = "127.0.0.60";

// One simulated device with a channel end point on a free port. Channels opened through the
// fixture are released when the test ends (the library never releases them).
class ChannelFunctions : public kivtest::ThreadCheckedTest {
protected:
  void SetUp() override {
    kivtest::ThreadCheckedTest::SetUp();
    kivsim::SimulatorOptions options;
    options.hcpPort = 0;
    options.channelEnabled = true;
    mSimulator.reset(new kivsim::Simulator(options));
    mSimulator->AddDevice(kivsim::MakeDeviceRecord(1, kDevice));
    mSimulator->Start();
  }
  void TearDown() override {
    for (HANDLE channel : mChannels) {
      delete static_cast<KivHBN3TCPSocket *>(VerifySocketHandle(channel, 1));
    }
    mSimulator.reset();
    kivtest::ThreadCheckedTest::TearDown();
  }

  // Opens a channel to the device playing `script`; null when refused.
  HANDLE Open(const ChannelScript &script, KivEndPointInterface endPoint, int &result) {
    mSimulator->SetChannelScript(0, script);
    std::string address = kDevice;
    HANDLE channel = OpenTCPSocket(address, mSimulator->ChannelPort(), endPoint, result);
    if (channel != nullptr) {
      mChannels.push_back(channel);
    }
    return channel;
  }
  HANDLE Open(const ChannelScript &script) {
    int result = -77;
    HANDLE channel = Open(script, kScanInterface, result);
    EXPECT_EQ(result, 9);
    return channel;
  }

  std::unique_ptr<kivsim::Simulator> mSimulator;
  std::vector<HANDLE> mChannels;
};

TEST_F(ChannelFunctions, OpenSendsEachInterfacesRequestAndRefusesEveryBadAnswer) {
  const struct {
    KivEndPointInterface endPoint;
    const char *request;
  } interfaces[] = {{kScanInterface, "48 42 4E 33 00 00 00 00 02"},
                    {kHIDInterface, "48 42 4E 33 00 00 00 00 04"},
                    {kPrintInterface, "48 42 4E 33 00 00 00 00 01"},
                    {kMediaInterface, "48 42 4E 33 00 00 00 00 08"}};
  ChannelScript accepting;
  accepting.answerDummyByte = 0x7F; // not examined
  for (const auto &i : interfaces) {
    int result = -77;
    EXPECT_NE(Open(accepting, i.endPoint, result), nullptr) << i.request;
    EXPECT_EQ(result, 9);
    EXPECT_EQ(kivtest::ToHex(mSimulator->ChannelRecord(0).connections.back().openRequest),
              i.request);
  }
  // A refused channel is closed and released by the library (the fixture sees no descriptor).
  for (ChannelScript::Handshake fault :
       {ChannelScript::kNonZeroLength, ChannelScript::kWrongTag, ChannelScript::kCloseAfterFour}) {
    ChannelScript refusing;
    refusing.handshake = fault;
    int result = -77;
    EXPECT_EQ(Open(refusing, kScanInterface, result), nullptr) << fault;
    EXPECT_EQ(result, -1) << fault;
  }
  int untouched = -77;
  std::string nowhere = "127.0.0.61"; // no end point there
  EXPECT_EQ(OpenTCPSocket(nowhere, mSimulator->ChannelPort(), kScanInterface, untouched), nullptr);
  EXPECT_EQ(untouched, -77);
}

TEST_F(ChannelFunctions, ReadsSkipTicklesAndLoseOnlyAFrameTooLargeForTheBuffer) {
  const Bytes six = kivsim::PatternPayload(0, 600), three = kivsim::PatternPayload(1, 300);
  ChannelScript script;
  script.steps = {kivsim::TickleStep(),        kivsim::TickleStep(), kivsim::TickleStep(),
                  kivsim::FrameStep(six),      kivsim::TickleStep(), kivsim::FrameStep(three),
                  kivsim::FrameStep(Hex("77"))};
  HANDLE channel = Open(script);
  std::vector<unsigned char> buffer(512, 0xEE);
  int count = -77;
  EXPECT_EQ(Read(channel, 1, buffer.data(), 512, 2, count), 0u);
  EXPECT_EQ(count, -5) << "three tickle packets in a row, limit two";
  count = -77;
  EXPECT_EQ(Read(channel, 1, buffer.data(), 512, 0, count), 0x0A091D00u) << "600 into 512";
  EXPECT_EQ(count, -77);
  EXPECT_EQ(buffer[0], 0xEE) << "nothing of the lost frame";
  EXPECT_EQ(Read(channel, 1, buffer.data(), 512, 0, count), 0u);
  EXPECT_EQ(count, 300);
  EXPECT_EQ(kivtest::ToHex(buffer.data(), 300), kivtest::ToHex(three));
  EXPECT_EQ(Read(channel, 1, nullptr, 0, 0, count), 0u) << "a null buffer drops the frame";
  EXPECT_EQ(count, 1);
}

TEST_F(ChannelFunctions, ReadManagedOnASilentDeviceGivesMinusFiveAfterItsLimit) {
  HANDLE channel = Open(ChannelScript());
  unsigned char buffer[16];
  int count = -77;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(ReadManaged(channel, 1, buffer, 16, KivTimeVal{2, 0}, 0, count), 0u);
  EXPECT_EQ(count, -5);
  EXPECT_GE(kivtest::SecondsSince(start), 1.9);
  EXPECT_LT(kivtest::SecondsSince(start), 6.0);
}

TEST_F(ChannelFunctions, FramesSplitAtEveryByteBoundaryReadWhole) {
  HANDLE channel = Open(kivsim::PatternScript(3, 40, 1, true));
  for (int frame = 0; frame < 3; ++frame) {
    unsigned char buffer[64] = {};
    int count = -77;
    EXPECT_EQ(ReadManaged(channel, 1, buffer, 64, KivTimeVal{5, 0}, 0, count), 0u);
    ASSERT_EQ(count, 40) << frame;
    EXPECT_EQ(kivtest::ToHex(buffer, 40), kivtest::ToHex(kivsim::PatternPayload(frame, 40)));
  }
}

// A host that waits on the descriptor (GetSocketID) and calls ReadManaged whenever it is
// readable, against bursts of frames with pauses between them, a frame header cut by a pause, and
// a large frame: every frame comes in order, and every wake-up but the one for the cut header
// brings a frame.
TEST_F(ChannelFunctions, AHostWaitingOnTheDescriptorIsWokenByEveryFrameAndOnlyByThem) {
  std::vector<Bytes> expected;
  ChannelScript script;
  auto burst = [&](int frames, int size) {
    for (int i = 0; i < frames; ++i) {
      expected.push_back(kivsim::PatternPayload(static_cast<int>(expected.size()), size));
      script.steps.push_back(kivsim::FrameStep(expected.back()));
    }
  };
  burst(50, 100);
  script.steps.push_back(kivsim::PauseStep(300));
  expected.push_back(kivsim::PatternPayload(static_cast<int>(expected.size()), 30));
  const Bytes cut = kivtest::Frame(expected.back());
  script.steps.push_back(kivsim::RawStep(Bytes(cut.begin(), cut.begin() + 5)));
  script.steps.push_back(kivsim::PauseStep(300));
  script.steps.push_back(kivsim::RawStep(Bytes(cut.begin() + 5, cut.end())));
  burst(1, 100000);
  burst(3, 7);
  script.steps.push_back(kivsim::PauseStep(300));
  burst(400, 64);
  script.steps.push_back(kivsim::CloseStep());
  HANDLE channel = Open(script);
  const int descriptor = GetSocketID(channel, 1);
  ASSERT_GE(descriptor, 0);

  std::vector<unsigned char> buffer(128 * 1024);
  std::vector<Bytes> received;
  int wakeUps = 0, runOut = 0;
  for (int guard = 0; guard < 2000; ++guard) {
    pollfd watched = {descriptor, POLLIN, 0};
    ASSERT_EQ(::poll(&watched, 1, 5000), 1) << "the device never pauses for 5 s: a frame that "
                                               "had come was waited for, after "
                                            << received.size() << " frames";
    ++wakeUps;
    int count = -77;
    ASSERT_EQ(ReadManaged(channel, 1, buffer.data(), static_cast<int>(buffer.size()),
                          KivTimeVal{0, 0}, 0, count),
              0u);
    if (count == 0) {
      break; // the device closed
    }
    runOut += count == -5 ? 1 : 0;
    if (count > 0) {
      received.emplace_back(buffer.begin(), buffer.begin() + count);
    }
  }
  ASSERT_TRUE(received == expected) << received.size() << " of " << expected.size() << " frames";
  std::printf("%zu frames, %d wake-ups, %d of them for the cut header\n", received.size(), wakeUps,
              runOut);
  EXPECT_LE(runOut, 1) << "only the cut header may wake the host without a frame";
  EXPECT_EQ(wakeUps, static_cast<int>(expected.size()) + runOut + 1) << "no other wake-up";
}

TEST_F(ChannelFunctions, WritesPutExactlyTheirBytesOnTheWire) {
  HANDLE channel = Open(ChannelScript());
  Bytes first = kivtest::Pattern(100, 1), second = kivtest::Pattern(37, 2);
  int sent = -77;
  EXPECT_EQ(Write(channel, 1, first.data(), 100, sent), 0u);
  EXPECT_EQ(sent, 100);
  EXPECT_EQ(WriteManaged(channel, 1, second.data(), 37, KivTimeVal{2, 0}, sent), 0u);
  EXPECT_EQ(sent, 37);
  mSimulator->WaitForChannel(
      0, [](const kivsim::ChannelLog &log) { return log.connections.back().written.size() >= 137; },
      5000);
  EXPECT_EQ(kivtest::ToHex(mSimulator->ChannelRecord(0).connections.back().written),
            kivtest::ToHex(kivtest::Join({first, second})));

  int result = -77;
  ASSERT_EQ(CloseTCPSocket(channel, 1, result), 0u);
  EXPECT_EQ(Write(channel, 1, first.data(), 100, sent), 0u);
  EXPECT_EQ(sent, 0) << "a closed channel takes nothing";
  sent = -77;
  EXPECT_EQ(WriteManaged(channel, 1, first.data(), 100, KivTimeVal{1, 0}, sent), 0x0A091C00u);
  EXPECT_EQ(sent, -77);
}

// Every pointer that is no handle of the kind asked for is refused by every function in the
// handle checks; here the kinds the functions do not serve, what is left of the out-parameters,
// and the descriptor before and after close.
TEST_F(ChannelFunctions, KindsTheFunctionsDoNotServeAndClosedHandlesGiveTheirCodes) {
  HANDLE channel = Open(ChannelScript());
  HANDLE udp = OpenUDPSocket(0);
  unsigned char area[4] = {};
  const std::function<UInt32(HANDLE, int, int &)> calls[] = {
      [&](HANDLE h, int kind, int &n) { return Write(h, kind, area, 4, n); },
      [&](HANDLE h, int kind, int &n) {
        return WriteManaged(h, kind, area, 4, {1, 0}, n);
      },
      [&](HANDLE h, int kind, int &n) { return Read(h, kind, area, 4, 0, n); },
      [&](HANDLE h, int kind, int &n) {
        return ReadManaged(h, kind, area, 4, {1, 0}, 0, n);
      }};
  for (UInt32 function = 0x1B; function <= 0x1E; ++function) {
    int count = -77;
    EXPECT_EQ(calls[function - 0x1B](udp, 0, count), 0x0A090004u | function << 8);
    EXPECT_EQ(count, 0) << "kind 0 moved nothing";
    count = -77;
    EXPECT_EQ(calls[function - 0x1B](udp, 1, count), 0x0A090002u | function << 8);
    EXPECT_EQ(count, -77) << "a refused handle leaves the count";
  }
  int result = -77;
  EXPECT_EQ(CloseTCPSocket(udp, 1, result), 0x0A092002u);
  EXPECT_EQ(result, -77);
  EXPECT_EQ(CloseTCPSocket(udp, 0, result), 0u);
  EXPECT_EQ(static_cast<UInt32>(result), 0x0A092004u);
  EXPECT_GE(GetSocketID(udp, 0), 0) << "the UDP socket was not closed";
  ASSERT_EQ(CloseUDPSocket(udp), 0u);
  EXPECT_EQ(static_cast<UInt32>(GetSocketID(udp, 0)), 0x0A0000B4u);
  delete static_cast<KivUDPSocket *>(VerifySocketHandle(udp, 0));

  // A channel's descriptor before and after close; the handle stays valid.
  EXPECT_EQ(GetListenerThreadID(channel), nullptr) << "no listener";
  EXPECT_GE(GetSocketID(channel, 1), 0);
  EXPECT_EQ(CloseTCPSocket(channel, 1, result), 0u);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(static_cast<UInt32>(GetSocketID(channel, 1)), 0xFFFFFFFFu);
  EXPECT_EQ(CloseTCPSocket(channel, 1, result), 0u);
  EXPECT_EQ(result, -1) << "already closed";
  int count = -77;
  EXPECT_EQ(Read(channel, 1, area, 4, 0, count), 0x0A091D00u) << "a read of a closed channel";
}

// The listener's rules are tested on the class; here what the exported functions hand to it.
TEST_F(ChannelFunctions, AListenerThreadHandsOverFramesAndEndsOnClose) {
  HANDLE channel = Open(kivsim::PatternScript(3, 5, 1, false, 50));
  kivtest::CallbackLog log;
  ASSERT_EQ(RegisterReadCallback(channel, &kivtest::CallbackLog::Callback, &log, 1, 0, true, false),
            0u);
  ASSERT_NE(GetListenerThreadID(channel), nullptr);
  const pthread_t thread = *GetListenerThreadID(channel);
  ASSERT_TRUE(kivtest::WaitFor([&] { return log.Count() == 3; }, 5));
  int result = -77;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(CloseTCPSocket(channel, 1, result), 0u);
  ASSERT_TRUE(kivtest::WaitFor([&] { return GetListenerThreadID(channel) == nullptr; }, 3));
  EXPECT_LT(kivtest::SecondsSince(start), 1.5) << "within one poll period";
  EXPECT_EQ(pthread_join(thread, nullptr), 0) << "joinable";
  EXPECT_EQ(log.Text(), "00 01 02 03 04 | 1F 20 21 22 23 | 3E 3F 40 41 42") << "none for Close";
}

TEST_F(ChannelFunctions, AServerSocketMadeThroughItsClassIsServedAsKindTwo) {
  std::unique_ptr<KivTCPServerSocket> server(new KivTCPServerSocket(0));
  HANDLE handle = server.get();
  unsigned char area[16] = {};
  int count = -77;
  EXPECT_EQ(Read(handle, 2, area, 16, 0, count), 0x0A0000C0u) << "no client yet";
  EXPECT_EQ(Write(handle, 2, area, 4, count), 0x0A0000C1u);
  EXPECT_EQ(count, -77);
  ASSERT_EQ(server->Bind() + server->Listen(1), 0);
  sockaddr_in bound = {};
  socklen_t length = sizeof bound;
  ::getsockname(GetSocketID(handle, 2), reinterpret_cast<sockaddr *>(&bound), &length);

  KivTCPClientSocket client("127.0.0.1", ntohs(bound.sin_port));
  ASSERT_EQ(client.Connect(), 0);
  KivSocketAddress from("", 0);
  server->Accept(from);
  Bytes hello = Hex("68 65 6C 6C 6F");
  EXPECT_EQ(Write(handle, 2, hello.data(), 5, count), 0u);
  EXPECT_EQ(count, 5);
  EXPECT_EQ(WriteManaged(handle, 2, hello.data(), 2, KivTimeVal{1, 0}, count), 0u);
  EXPECT_EQ(count, 2);
  EXPECT_EQ(client.RecvAll(area, 7, KivTimeVal{5, 0}, 0), 7);
  EXPECT_EQ(kivtest::ToHex(area, 7), "68 65 6C 6C 6F 68 65");
  client.SendAll(Hex("01 02 03").data(), 3, 0);
  EXPECT_EQ(ReadManaged(handle, 2, area, 16, KivTimeVal{1, 0}, 0, count), 0u);
  EXPECT_EQ(count, 3) << "one plain receive, no frame";

  // The TCP kinds accept the time-out option and leave the receive limit alone, -1 included.
  HANDLE channel = Open(ChannelScript());
  EXPECT_EQ(SetSocketOptions(handle, 2, TIME_OUT, 5) + SetSocketOptions(channel, 1, TIME_OUT, -1),
            0u);
  for (int descriptor : {GetSocketID(handle, 2), GetSocketID(channel, 1)}) {
    timeval limit = {-1, -1};
    length = sizeof limit;
    ::getsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &limit, &length);
    EXPECT_EQ(limit.tv_sec + limit.tv_usec, 0);
  }

  int result = -77;
  EXPECT_EQ(CloseTCPSocket(handle, 2, result), 0u);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(static_cast<UInt32>(GetSocketID(handle, 2)), 0x0A0000B4u);
  client.Close();
  EXPECT_EQ(Read(handle, 2, area, 16, 0, count), 0u) << "the client stays served after close";
  EXPECT_EQ(count, 0) << "and has closed";
  EXPECT_EQ(RevitalizeSocket(handle, 2), 0);
  EXPECT_GE(GetSocketID(handle, 2), 0);
}

} // namespace
