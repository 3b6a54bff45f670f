// The exported channel functions through the shared library, against a simulated device's
// channel end point on loopback: the open request of every interface and each refused answer,
// reads (tickle packets, a frame too large for the buffer, a frame split at every byte boundary,
// bad tags and lengths, a close inside a frame, silence), the bytes writes put on the wire, the
// listener, a server socket made through its class, and the codes of every kind and bad handle.
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Interfaces/KivNetworkComm.h"
#include "sim/Simulator.h"
#include "support/ChannelPeer.h"
#include "support/DescriptorCheckedTest.h"
#include "support/ScopedContainer.h"

namespace {

using kivsim::ChannelScript;
using kivsim::ChannelStep;
using kivtest::Bytes;
using kivtest::Hex;
using kivtest::Join;

const char kDevice[] = "127.0.0.60";

// What a listener's callback received, as text ("closed" for length 0, "null/N" for a failure).
struct Received {
  std::mutex mutex;
  std::vector<std::string> calls;
  std::atomic<int> answerFalseAt{0}; // the call that answers false (0: none)

  static bool Callback(const unsigned char *data, int length, void *param) {
    Received *self = static_cast<Received *>(param);
    std::string text = data == nullptr ? "null/" + std::to_string(length)
                                       : (length == 0 ? "closed" : kivtest::ToHex(data, length));
    std::free(const_cast<unsigned char *>(data)); // the callback owns the block
    std::lock_guard<std::mutex> lock(self->mutex);
    self->calls.push_back(text);
    return static_cast<int>(self->calls.size()) != self->answerFalseAt.load();
  }
  size_t Count() {
    std::lock_guard<std::mutex> lock(mutex);
    return calls.size();
  }
  std::string Text() {
    std::lock_guard<std::mutex> lock(mutex);
    std::string text;
    for (const std::string &call : calls) {
      text += (text.empty() ? "" : " | ") + call;
    }
    return text;
  }
};

// One simulated device with a channel end point on a free port. Channels opened through the
// fixture are released when the test ends (the library never releases them).
class ChannelFunctions : public kivtest::DescriptorCheckedTest {
protected:
  void SetUp() override {
    kivtest::DescriptorCheckedTest::SetUp();
    mThreads = kivtest::CountThreadsBeforeATest();
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
    mSimulator->Stop();
    mSimulator.reset();
    EXPECT_TRUE(kivtest::WaitFor([&] { return kivtest::CountThreads() == mThreads; }, 5))
        << "a thread was left running";
    kivtest::DescriptorCheckedTest::TearDown();
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
  static ChannelScript Steps(std::vector<ChannelStep> steps) {
    ChannelScript script;
    script.steps = std::move(steps);
    return script;
  }
  // What the host wrote on the device's last connection, once `count` bytes have come.
  Bytes Written(size_t count) {
    mSimulator->WaitForChannel(
        0,
        [&](const kivsim::ChannelLog &log) {
          return !log.connections.empty() && log.connections.back().written.size() >= count;
        },
        5000);
    return mSimulator->ChannelRecord(0).connections.back().written;
  }

  std::unique_ptr<kivsim::Simulator> mSimulator;
  std::vector<HANDLE> mChannels;

private:
  int mThreads = 0;
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

  for (ChannelScript::Handshake fault :
       {ChannelScript::kNonZeroLength, ChannelScript::kWrongTag, ChannelScript::kCloseAfterFour}) {
    ChannelScript refusing;
    refusing.handshake = fault;
    int result = -77;
    EXPECT_EQ(Open(refusing, kScanInterface, result), nullptr) << fault;
    EXPECT_EQ(result, -1) << fault;
  }
  // The refused channels were closed by the library: the device saw each end.
  EXPECT_TRUE(mSimulator->WaitForChannel(
      0,
      [](const kivsim::ChannelLog &log) {
        return log.connections.size() == 7 && log.connections[4].finished &&
               log.connections[5].finished;
      },
      5000));

  int untouched = -77;
  std::string nowhere = "127.0.0.61"; // no end point there
  EXPECT_EQ(OpenTCPSocket(nowhere, mSimulator->ChannelPort(), kScanInterface, untouched), nullptr);
  EXPECT_EQ(untouched, -77);
}

TEST_F(ChannelFunctions, ReadsSkipTicklesAndLoseOnlyAFrameTooLargeForTheBuffer) {
  const Bytes six = kivsim::PatternPayload(0, 600), three = kivsim::PatternPayload(1, 300);
  HANDLE channel =
      Open(Steps({kivsim::TickleStep(), kivsim::TickleStep(), kivsim::TickleStep(),
                  kivsim::FrameStep(six), kivsim::TickleStep(), kivsim::FrameStep(three),
                  kivsim::FrameStep(Hex("77")), kivsim::SilenceStep()}));
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

  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(ReadManaged(channel, 1, buffer.data(), 512, KivTimeVal{2, 0}, 0, count), 0u);
  EXPECT_EQ(count, -5) << "silence";
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

TEST_F(ChannelFunctions, BadFramesAndClosesGiveTheirCounts) {
  const struct {
    kivsim::ChannelFault fault;
    int count;
  } cases[] = {{kivsim::ChannelFault::kBadTag, -2},
               {kivsim::ChannelFault::kNegativeLength, -2},
               {kivsim::ChannelFault::kHugeLength, -2},
               {kivsim::ChannelFault::kCloseMidFrame, 0}};
  for (const auto &c : cases) {
    ChannelScript script = kivsim::PatternScript(1, 20);
    kivsim::AppendChannelFault(script, c.fault, c.fault == kivsim::ChannelFault::kBadTag);
    HANDLE channel = Open(script);
    unsigned char buffer[128];
    int count = -77;
    EXPECT_EQ(Read(channel, 1, buffer, 128, 0, count), 0u);
    EXPECT_EQ(count, 20);
    EXPECT_EQ(ReadManaged(channel, 1, buffer, 128, KivTimeVal{5, 0}, 0, count), 0u);
    EXPECT_EQ(count, c.count) << static_cast<int>(c.fault);
  }
  int count = -77;
  unsigned char buffer[8];
  EXPECT_EQ(Read(mChannels.back(), 1, buffer, 8, 0, count), 0u);
  EXPECT_EQ(count, 0) << "a closed device stays closed";
}

TEST_F(ChannelFunctions, WritesPutExactlyTheirBytesOnTheWire) {
  HANDLE channel = Open(ChannelScript());
  Bytes first = kivtest::Pattern(100, 1), second = kivtest::Pattern(37, 2);
  int sent = -77;
  EXPECT_EQ(Write(channel, 1, first.data(), 100, sent), 0u);
  EXPECT_EQ(sent, 100);
  EXPECT_EQ(WriteManaged(channel, 1, second.data(), 37, KivTimeVal{2, 0}, sent), 0u);
  EXPECT_EQ(sent, 37);
  EXPECT_EQ(kivtest::ToHex(Written(137)), kivtest::ToHex(Join({first, second})));

  int result = -77;
  ASSERT_EQ(CloseTCPSocket(channel, 1, result), 0u);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(Write(channel, 1, first.data(), 100, sent), 0u);
  EXPECT_EQ(sent, 0) << "a closed channel takes nothing";
  sent = -77;
  EXPECT_EQ(WriteManaged(channel, 1, first.data(), 100, KivTimeVal{1, 0}, sent), 0x0A091C00u);
  EXPECT_EQ(sent, -77);
}

TEST_F(ChannelFunctions, EveryFunctionGivesItsCodeForABadHandleOrKind) {
  HANDLE channel = Open(ChannelScript());
  HANDLE udp = OpenUDPSocket(0);
  kivtest::ScopedContainer box;
  HANDLE container = box.handle();
  unsigned char area[4] = {};
  int count = -77, result = -77;
  const struct {
    HANDLE handle;
    int kind;
    UInt32 code; // 0: the kind is 0 on a valid UDP handle
  } cases[] = {{nullptr, 1, 0x02}, {udp, 1, 0x02},      {channel, 0, 0x02},   {channel, 2, 0x02},
               {channel, 3, 0x02}, {channel, -1, 0x02}, {container, 1, 0x02}, {udp, 0, 0x04}};
  for (const auto &c : cases) {
    const std::string row = "kind " + std::to_string(c.kind) + " code " + std::to_string(c.code);
    const int expectedCount = c.code == 0x04 ? 0 : -77;
    count = -77;
    EXPECT_EQ(Write(c.handle, c.kind, area, 4, count), 0x0A091B00u | c.code) << row;
    EXPECT_EQ(count, expectedCount) << row;
    count = -77;
    EXPECT_EQ(WriteManaged(c.handle, c.kind, area, 4, KivTimeVal{1, 0}, count),
              0x0A091C00u | c.code)
        << row;
    EXPECT_EQ(count, expectedCount) << row;
    count = -77;
    EXPECT_EQ(Read(c.handle, c.kind, area, 4, 0, count), 0x0A091D00u | c.code) << row;
    EXPECT_EQ(count, expectedCount) << row;
    count = -77;
    EXPECT_EQ(ReadManaged(c.handle, c.kind, area, 4, KivTimeVal{1, 0}, 0, count),
              0x0A091E00u | c.code)
        << row;
    EXPECT_EQ(count, expectedCount) << row;
    if (c.code == 0x02) {
      EXPECT_EQ(static_cast<UInt32>(GetSocketID(c.handle, c.kind)), 0x0A092102u) << row;
      EXPECT_EQ(CloseTCPSocket(c.handle, c.kind, result), 0x0A092002u) << row;
      EXPECT_EQ(result, -77) << row;
    }
  }
  // Only a channel has a listener.
  for (HANDLE notAChannel : {static_cast<HANDLE>(nullptr), udp, container}) {
    EXPECT_EQ(RegisterReadCallback(notAChannel, &Received::Callback, nullptr, 1, 0, true, false),
              0x0A091F02u);
    EXPECT_EQ(GetListenerThreadID(notAChannel), nullptr);
  }
  EXPECT_EQ(GetListenerThreadID(channel), nullptr) << "no listener yet";

  // A UDP handle given to the TCP close with its own kind: 04 in the result, nothing closed.
  EXPECT_EQ(CloseTCPSocket(udp, 0, result), 0u);
  EXPECT_EQ(static_cast<UInt32>(result), 0x0A092004u);
  EXPECT_GE(GetSocketID(udp, 0), 0);
  ASSERT_EQ(CloseUDPSocket(udp), 0u);
  EXPECT_EQ(static_cast<UInt32>(GetSocketID(udp, 0)), 0x0A0000B4u);
  delete static_cast<KivUDPSocket *>(VerifySocketHandle(udp, 0));

  // A channel's descriptor before and after close; the handle stays valid.
  EXPECT_GE(GetSocketID(channel, 1), 0);
  EXPECT_EQ(CloseTCPSocket(channel, 1, result), 0u);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(static_cast<UInt32>(GetSocketID(channel, 1)), 0xFFFFFFFFu);
  EXPECT_EQ(CloseTCPSocket(channel, 1, result), 0u);
  EXPECT_EQ(result, -1) << "already closed";
  EXPECT_EQ(Read(channel, 1, area, 4, 0, count), 0x0A091D00u) << "a read of a closed channel";
}

TEST_F(ChannelFunctions, AListenerHandsOverFramesAndEndsOnClose) {
  ChannelScript script = kivsim::PatternScript(3, 5, 1, false, 50);
  HANDLE channel = Open(script);
  Received received;
  ASSERT_EQ(RegisterReadCallback(channel, &Received::Callback, &received, 1, 0, true, false), 0u);
  pthread_t *listener = GetListenerThreadID(channel);
  ASSERT_NE(listener, nullptr);
  const pthread_t thread = *listener;
  ASSERT_TRUE(kivtest::WaitFor([&] { return received.Count() == 3; }, 5));
  int result = -77;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(CloseTCPSocket(channel, 1, result), 0u);
  ASSERT_TRUE(kivtest::WaitFor([&] { return GetListenerThreadID(channel) == nullptr; }, 3));
  EXPECT_LT(kivtest::SecondsSince(start), 1.5) << "within one poll period";
  void *joined = &result;
  EXPECT_EQ(pthread_join(thread, &joined), 0);
  EXPECT_EQ(joined, nullptr);
  EXPECT_EQ(received.Text(), kivtest::ToHex(kivsim::PatternPayload(0, 5)) + " | " +
                                 kivtest::ToHex(kivsim::PatternPayload(1, 5)) + " | " +
                                 kivtest::ToHex(kivsim::PatternPayload(2, 5)));
  EXPECT_EQ(RegisterReadCallback(channel, &Received::Callback, &received, 1, 0, true, false), 0u);
  EXPECT_EQ(GetListenerThreadID(channel), nullptr) << "none on a closed channel";

  // In the calling thread, detached or not does not matter: it returns when the listener ends.
  ChannelScript closing = kivsim::PatternScript(1, 3);
  closing.steps.push_back(kivsim::CloseStep());
  HANDLE other = Open(closing);
  Received inThread;
  inThread.answerFalseAt = 3;
  EXPECT_EQ(RegisterReadCallback(other, &Received::Callback, &inThread, 1, 0, false, true), 0u);
  EXPECT_EQ(inThread.Text(), "00 01 02 | closed | closed");

  // A detached listener on a media channel: no thread, no callback.
  int opened = -77;
  HANDLE media = Open(kivsim::PatternScript(2, 4), kMediaInterface, opened);
  Received none;
  EXPECT_EQ(RegisterReadCallback(media, &Received::Callback, &none, 0, 100000, true, true), 0u);
  EXPECT_EQ(GetListenerThreadID(media), nullptr);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(none.Text(), "");
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
  timeval limit = {-1, -1};
  length = sizeof limit;
  ::getsockopt(GetSocketID(handle, 2), SOL_SOCKET, SO_RCVTIMEO, &limit, &length);
  EXPECT_EQ(limit.tv_sec + limit.tv_usec, 0);
  ::getsockopt(GetSocketID(channel, 1), SOL_SOCKET, SO_RCVTIMEO, &limit, &length);
  EXPECT_EQ(limit.tv_sec + limit.tv_usec, 0);

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
