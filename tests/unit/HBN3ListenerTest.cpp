// The channel's listener: frames to the callback and the idle end, tickle packets as signs of
// life, a callback's false, a closed device, bad headers and socket failures, Close while
// waiting, inside a frame and from the callback, media channels, registration in the calling
// thread, joinable and detached threads, a new registration on a running listener, and no
// thread or descriptor left behind.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Sockets/KivHBN3TCPSocket.h"
#include "support/ChannelPeer.h"
#include "support/DescriptorCheckedTest.h"
#include "support/TestChannel.h"

namespace {

using kivtest::Bytes;
using kivtest::Frame;
using kivtest::FrameHeader;
using kivtest::Hex;
using kivtest::Join;
using kivtest::StreamPair;
using kivtest::TestChannel;
using kivtest::Tickle;
typedef std::chrono::steady_clock Clock;

// One call of the callback.
struct Call {
  bool null;
  int length;
  Bytes bytes;
  pthread_t thread;
  Clock::time_point at;
};

// What the callback saw; `answer` decides its result from the call's number (1, 2, ...).
class Recorder {
public:
  std::function<bool(int number, const Call &call)> answer = [](int, const Call &) { return true; };

  static bool Callback(const unsigned char *data, int length, void *param) {
    Recorder *self = static_cast<Recorder *>(param);
    Call call = {data == nullptr, length, Bytes(), pthread_self(), Clock::now()};
    if (data != nullptr && length > 0) {
      call.bytes.assign(data, data + length);
    }
    std::free(const_cast<unsigned char *>(data)); // the callback owns every block
    int number = 0;
    {
      std::lock_guard<std::mutex> lock(self->mMutex);
      self->mCalls.push_back(call);
      number = static_cast<int>(self->mCalls.size());
    }
    return self->answer(number, call);
  }

  std::vector<Call> Calls() {
    std::lock_guard<std::mutex> lock(mMutex);
    return mCalls;
  }
  size_t Count() { return Calls().size(); }
  // The calls as text: "41 42" for a payload, "closed" for length 0, "null/N" for a failure.
  std::string Text() {
    std::string text;
    for (const Call &c : Calls()) {
      text += text.empty() ? "" : " | ";
      text += c.null ? "null/" + std::to_string(c.length)
                     : (c.length == 0 ? "closed" : kivtest::ToHex(c.bytes));
    }
    return text;
  }

private:
  std::mutex mMutex;
  std::vector<Call> mCalls;
};

// A channel on a stream pair, with its recorder. A test that joins its listener sends nothing
// before Start: the thread's identifier is known only while it runs.
struct Listened {
  StreamPair pair;
  TestChannel channel;
  Recorder recorder;
  explicit Listened(KivEndPointInterface endPoint = kScanInterface) : channel(endPoint) {
    channel.Adopt(pair.TakeHost());
  }
  // Starts a joinable listener thread with a poll period of `micros` and returns its thread.
  pthread_t Start(long long micros) {
    EXPECT_EQ(channel.RegisterReadCallback(&Recorder::Callback, &recorder,
                                           static_cast<int>(micros / 1000000),
                                           static_cast<int>(micros % 1000000), true, false),
              0);
    pthread_t *thread = channel.GetListenerThreadID();
    EXPECT_NE(thread, nullptr) << "the thread is known as soon as registration returns";
    return thread != nullptr ? *thread : pthread_self();
  }
  bool Ended(double seconds = 10) {
    return kivtest::WaitFor([&] { return channel.GetListenerThreadID() == nullptr; }, seconds);
  }
};

void Join(pthread_t thread) {
  void *result = &thread;
  EXPECT_EQ(pthread_join(thread, &result), 0);
  EXPECT_EQ(result, nullptr);
}

// Every test ends with the threads and descriptors it began with.
class HBN3Listener : public kivtest::DescriptorCheckedTest {
protected:
  void SetUp() override {
    kivtest::DescriptorCheckedTest::SetUp();
    mThreads = kivtest::CountThreadsBeforeATest();
  }
  void TearDown() override {
    EXPECT_TRUE(kivtest::WaitFor([&] { return kivtest::CountThreads() == mThreads; }, 5))
        << "a thread was left running";
    kivtest::DescriptorCheckedTest::TearDown();
  }

private:
  int mThreads = 0;
};

// Four channels side by side, poll period 1 s: three frames then silence; silent from the
// start; one tickle packet after 3 s then silence; tickle packets every 300 ms until closed.
TEST_F(HBN3Listener, IdleEndsAfterTwentySecondsWithoutAFrameAndTicklePacketsKeepItAlive) {
  Listened frames, silent, oneTickle, tickling;
  frames.pair.Send(Join({Frame(Hex("01")), Frame(Hex("02 02")), Frame(Hex("03 03 03"))}));
  const Clock::time_point start = Clock::now();
  pthread_t threads[] = {frames.Start(1000000), silent.Start(1000000), oneTickle.Start(1000000),
                         tickling.Start(1000000)};
  std::atomic<bool> stop{false};
  std::thread device([&] {
    for (int tick = 0; tick < 100 && !stop.load(); ++tick) { // at most 30 s
      if (tick == 10) {
        oneTickle.pair.Send(Tickle());
      }
      tickling.pair.Send(Tickle());
      std::this_thread::sleep_for(std::chrono::milliseconds(300));
    }
  });

  ASSERT_TRUE(frames.Ended(30) && silent.Ended(5) && oneTickle.Ended(10));
  const double tickledAt = 3.0; // the tenth pass of the device
  EXPECT_TRUE(tickling.channel.GetListenerThreadID() != nullptr) << "kept alive by tickles";
  EXPECT_EQ(tickling.recorder.Count(), 0u);
  const auto closedAt = Clock::now();
  EXPECT_EQ(tickling.channel.Close(), 0);
  EXPECT_TRUE(tickling.Ended(2));
  const double closing = kivtest::SecondsSince(closedAt);
  stop = true;
  device.join();
  for (pthread_t thread : threads) {
    Join(thread);
  }

  EXPECT_EQ(frames.recorder.Text(), "01 | 02 02 | 03 03 03 | null/1");
  const std::vector<Call> calls = frames.recorder.Calls();
  const double idle = std::chrono::duration<double>(calls[3].at - calls[2].at).count();
  EXPECT_GT(idle, 20.0);
  EXPECT_LT(idle, 23.0) << "at most one poll period (and a margin) after 20 s";
  const double silentEnd =
      std::chrono::duration<double>(silent.recorder.Calls().at(0).at - start).count();
  EXPECT_EQ(silent.recorder.Text(), "null/1");
  EXPECT_GT(silentEnd, 20.0) << "counted from the start of listening";
  EXPECT_LT(silentEnd, 23.0);
  EXPECT_EQ(oneTickle.recorder.Text(), "null/1") << "a tickle packet makes no callback";
  const double tickleEnd =
      std::chrono::duration<double>(oneTickle.recorder.Calls().at(0).at - start).count();
  EXPECT_GT(tickleEnd, tickledAt + 20.0) << "the tickle packet restarted the idle time";
  EXPECT_LT(tickleEnd, tickledAt + 24.0);
  EXPECT_EQ(tickling.recorder.Count(), 0u) << "Close makes no callback";
  EXPECT_LT(closing, 1.5) << "within one poll period";
  std::printf("idle end after %.2f s, silent %.2f s, tickle at %.1f s then %.2f s, close %.3f s\n",
              idle, silentEnd, tickledAt, tickleEnd, closing);
}

TEST_F(HBN3Listener, ACallbackAnsweringFalseStopsAtOnce) {
  Listened l;
  l.recorder.answer = [](int, const Call &) { return false; };
  const pthread_t thread = l.Start(3000000);
  const auto start = Clock::now();
  l.pair.Send(Join({Frame(Hex("AA")), Frame(Hex("BB"))}));
  ASSERT_TRUE(l.Ended());
  EXPECT_LT(kivtest::SecondsSince(start), 2.0) << "no further poll";
  Join(thread);
  EXPECT_EQ(l.recorder.Text(), "AA");
  EXPECT_EQ(l.channel.GetListenerThreadID(), nullptr);
}

TEST_F(HBN3Listener, AClosedDeviceIsReportedUntilTheCallbackAnswersFalse) {
  Listened l;
  l.recorder.answer = [](int number, const Call &) { return number < 4; };
  const pthread_t thread = l.Start(3000000);
  l.pair.Send(Frame(Hex("01 02")));
  l.pair.CloseDevice();
  ASSERT_TRUE(l.Ended());
  Join(thread);
  EXPECT_EQ(l.recorder.Text(), "01 02 | closed | closed | closed");
  for (const Call &c : l.recorder.Calls()) {
    EXPECT_FALSE(c.null) << "the end of the stream comes in a block of its own";
  }
}

TEST_F(HBN3Listener, BadHeadersAndOversizedLengthsAreReportedAndTheListenerGoesOn) {
  Listened l;
  l.recorder.answer = [](int, const Call &c) { return c.null || c.length > 0; };
  const pthread_t thread = l.Start(1000000);
  l.pair.Send(Join({FrameHeader(2, "HBN1"), Frame(Hex("C1")), FrameHeader(-7), Frame(Hex("C2")),
                    FrameHeader(0x7FFFFFFF), Frame(Hex("C3"))}));
  l.pair.CloseDevice();
  ASSERT_TRUE(l.Ended());
  Join(thread);
  EXPECT_EQ(l.recorder.Text(), "null/1 | C1 | null/1 | C2 | null/1 | C3 | closed");
}

TEST_F(HBN3Listener, ASocketFailureIsReportedAsMinusFour) {
  kivtest::LoopbackPeer peer;
  const int host = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in to = {};
  to.sin_family = AF_INET;
  to.sin_port = htons(static_cast<uint16_t>(peer.Port()));
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(::connect(host, reinterpret_cast<sockaddr *>(&to), sizeof to), 0);
  ASSERT_TRUE(peer.Accept());
  TestChannel channel;
  channel.Adopt(host);
  Recorder recorder;
  recorder.answer = [](int, const Call &c) { return c.null || c.length > 0; };
  ASSERT_EQ(channel.RegisterReadCallback(&Recorder::Callback, &recorder, 1, 0, true, false), 0);
  const pthread_t thread = *channel.GetListenerThreadID();
  peer.Send(Frame(Hex("D1")));
  peer.ResetConnection();
  ASSERT_TRUE(kivtest::WaitFor([&] { return channel.GetListenerThreadID() == nullptr; }, 10));
  Join(thread);
  // The reset may come before or after the frame is read; either way it is a failure (-4) of
  // the socket, followed by the end of the stream.
  const std::string text = recorder.Text();
  EXPECT_TRUE(text == "null/-4 | closed" || text == "D1 | null/-4 | closed") << text;
}

TEST_F(HBN3Listener, CloseEndsAWaitingListenerWithoutAFurtherCallback) {
  Listened l;
  l.pair.Send(Frame(Hex("E1")));
  const pthread_t thread = l.Start(3000000);
  ASSERT_TRUE(kivtest::WaitFor([&] { return l.recorder.Count() == 1; }, 5));
  std::this_thread::sleep_for(std::chrono::milliseconds(100)); // waiting in its poll now
  const auto start = Clock::now();
  EXPECT_EQ(l.channel.Close(), 0);
  EXPECT_EQ(l.channel.GetSocket(), -1) << "at once, whatever the listener does";
  ASSERT_TRUE(l.Ended(5));
  EXPECT_LT(kivtest::SecondsSince(start), 3.5) << "within one poll period";
  Join(thread);
  EXPECT_EQ(l.recorder.Text(), "E1");
}

TEST_F(HBN3Listener, CloseEndsAListenerBlockedInsideAFrame) {
  Listened l;
  l.pair.Send(Join({FrameHeader(100), kivtest::Pattern(10)}));
  const pthread_t thread = l.Start(1000000);
  std::this_thread::sleep_for(std::chrono::milliseconds(300)); // inside the payload now
  const auto start = Clock::now();
  EXPECT_EQ(l.channel.Close(), 0);
  ASSERT_TRUE(l.Ended(5));
  EXPECT_LT(kivtest::SecondsSince(start), 1.5) << "within one poll period";
  Join(thread);
  EXPECT_EQ(l.recorder.Count(), 0u) << "no callback for the cut frame or the closed stream";
}

TEST_F(HBN3Listener, CloseFromTheCallbackIsNotUndoneByItsTrue) {
  Listened l;
  l.recorder.answer = [&](int, const Call &) {
    l.channel.Close();
    return true;
  };
  const pthread_t thread = l.Start(1000000);
  l.pair.Send(Join({Frame(Hex("F1")), Frame(Hex("F2")), Frame(Hex("F3"))}));
  ASSERT_TRUE(l.Ended());
  Join(thread);
  EXPECT_EQ(l.recorder.Text(), "F1");
}

TEST_F(HBN3Listener, AMediaChannelGetsNoListenerThreadButOneInTheCallingThread) {
  Listened media(kMediaInterface);
  media.pair.Send(Join({Frame(Hex("0D")), Frame(Hex("0E"))}));
  EXPECT_EQ(media.channel.RegisterReadCallback(&Recorder::Callback, &media.recorder, 0, 200000,
                                               true, false),
            0);
  EXPECT_EQ(media.channel.GetListenerThreadID(), nullptr);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(media.recorder.Count(), 0u) << "no callback from a thread";

  media.recorder.answer = [](int number, const Call &) { return number < 2; };
  EXPECT_EQ(media.channel.RegisterReadCallback(&Recorder::Callback, &media.recorder, 0, 200000,
                                               false, false),
            0);
  EXPECT_EQ(media.recorder.Text(), "0D | 0E");
}

TEST_F(HBN3Listener, RegistrationInTheCallingThreadReturnsWhenTheListenerHasEnded) {
  Listened l;
  l.recorder.answer = [](int, const Call &) { return false; };
  l.pair.Send(Frame(Hex("9A 9B")));
  EXPECT_EQ(l.channel.RegisterReadCallback(&Recorder::Callback, &l.recorder, 3, 0, false, false),
            0);
  ASSERT_EQ(l.recorder.Text(), "9A 9B");
  EXPECT_TRUE(pthread_equal(l.recorder.Calls()[0].thread, pthread_self()));
  EXPECT_EQ(l.channel.GetListenerThreadID(), nullptr);

  // Once closed, neither kind of registration listens any more.
  Listened closed;
  closed.pair.Send(Frame(Hex("01")));
  ASSERT_EQ(closed.channel.Close(), 0);
  EXPECT_EQ(closed.channel.RegisterReadCallback(&Recorder::Callback, &closed.recorder, 0, 1000,
                                                false, false),
            0);
  EXPECT_EQ(closed.channel.RegisterReadCallback(&Recorder::Callback, &closed.recorder, 0, 1000,
                                                true, false),
            0);
  EXPECT_EQ(closed.channel.GetListenerThreadID(), nullptr);
  EXPECT_EQ(closed.recorder.Count(), 0u);
}

TEST_F(HBN3Listener, JoinableAndDetachedThreadsAreMadeAsAsked) {
  for (bool detached : {false, true}) {
    Listened l;
    ASSERT_EQ(
        l.channel.RegisterReadCallback(&Recorder::Callback, &l.recorder, 0, 200000, true, detached),
        0);
    pthread_t *thread = l.channel.GetListenerThreadID();
    ASSERT_NE(thread, nullptr);
    const pthread_t id = *thread;
    pthread_attr_t attributes;
    int state = -1;
    ASSERT_EQ(pthread_getattr_np(id, &attributes), 0);
    pthread_attr_getdetachstate(&attributes, &state);
    pthread_attr_destroy(&attributes);
    EXPECT_EQ(state, detached ? PTHREAD_CREATE_DETACHED : PTHREAD_CREATE_JOINABLE);
    l.channel.Close();
    ASSERT_TRUE(l.Ended());
    if (!detached) {
      Join(id);
    }
  }
}

TEST_F(HBN3Listener, ANewRegistrationChangesTheRunningListener) {
  Listened l;
  Recorder second;
  const pthread_t thread = l.Start(100000);
  l.pair.Send(Frame(Hex("01")));
  ASSERT_TRUE(kivtest::WaitFor([&] { return l.recorder.Count() == 1; }, 5));
  EXPECT_EQ(l.channel.RegisterReadCallback(&Recorder::Callback, &second, 0, 100000, true, false),
            0);
  EXPECT_TRUE(pthread_equal(*l.channel.GetListenerThreadID(), thread)) << "no second thread";
  l.pair.Send(Frame(Hex("02")));
  ASSERT_TRUE(kivtest::WaitFor([&] { return second.Count() == 1; }, 5));
  EXPECT_EQ(l.channel.RegisterReadCallback(nullptr, nullptr, 0, 100000, true, false), 0);
  ASSERT_TRUE(l.Ended(2)) << "a null callback stops it at its next pass";
  Join(thread);
  EXPECT_EQ(l.recorder.Text() + " / " + second.Text(), "01 / 02");
}

} // namespace
