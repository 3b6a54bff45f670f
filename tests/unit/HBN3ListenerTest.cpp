// The channel's listener: frames to the callback and the idle end, tickle packets as signs of
// life, a callback's false, a closed device, a socket failure, Close inside a frame and from the
// callback (Close while waiting: ChannelFunctionsTest), media channels, registration in the calling
// thread, joinable and detached threads, a new registration on a running listener, no thread or
// descriptor left.
#include <gtest/gtest.h>

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "support/TestChannel.h"

namespace {

using kivtest::Frame;
using kivtest::Hex;
using kivtest::Join;
using kivtest::ListenerCall;
typedef std::chrono::steady_clock Clock;
typedef kivtest::ThreadCheckedTest HBN3Listener;

// A channel on a stream pair, with the log of its callback. A test that joins its listener sends
// nothing before Start: the thread's identifier is known only while it runs.
struct Listened : kivtest::ChannelOnStream {
  kivtest::CallbackLog log;
  explicit Listened(KivEndPointInterface endPoint = kScanInterface)
      : ChannelOnStream(false, endPoint) {}
  // Starts a joinable listener thread with a poll period of `micros` and returns its thread.
  pthread_t Start(int micros) {
    EXPECT_EQ(channel.RegisterReadCallback(&kivtest::CallbackLog::Callback, &log, micros / 1000000,
                                           micros % 1000000, true, false),
              0);
    pthread_t *thread = channel.GetListenerThreadID();
    EXPECT_NE(thread, nullptr) << "the thread is known as soon as registration returns";
    return thread != nullptr ? *thread : pthread_self();
  }
  bool Ended(double seconds = 10) {
    return kivtest::WaitFor([&] { return channel.GetListenerThreadID() == nullptr; }, seconds);
  }
};

void JoinListener(pthread_t thread) {
  void *result = &thread;
  EXPECT_EQ(pthread_join(thread, &result), 0);
  EXPECT_EQ(result, nullptr);
}

double Between(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double>(to - from).count();
}

// Four channels side by side, poll period 1 s: three frames then silence; silent from the
// start; one tickle packet after 3 s then silence; tickle packets every 300 ms until closed.
TEST_F(HBN3Listener, IdleEndsAfterTwentySecondsWithoutAFrameAndTicklePacketsKeepItAlive) {
  Listened frames, silent, oneTickle, tickling;
  frames.device.Send(Join({Frame(Hex("01")), Frame(Hex("02 02")), Frame(Hex("03 03 03"))}));
  const Clock::time_point start = Clock::now();
  const pthread_t threads[] = {frames.Start(1000000), silent.Start(1000000),
                               oneTickle.Start(1000000), tickling.Start(1000000)};
  std::atomic<bool> stop{false};
  std::thread device([&] {
    for (int tick = 0; tick < 100 && !stop.load(); ++tick) { // at most 30 s
      if (tick == 10) {
        oneTickle.device.Send(kivtest::Tickle()); // at 3 s
      }
      tickling.device.Send(kivtest::Tickle());
      std::this_thread::sleep_for(std::chrono::milliseconds(300));
    }
  });

  ASSERT_TRUE(frames.Ended(30) && silent.Ended(5) && oneTickle.Ended(10));
  EXPECT_TRUE(tickling.channel.GetListenerThreadID() != nullptr) << "kept alive by tickles";
  const auto closedAt = Clock::now();
  EXPECT_EQ(tickling.channel.Close(), 0);
  EXPECT_TRUE(tickling.Ended(2));
  const double closing = kivtest::SecondsSince(closedAt);
  stop = true;
  device.join();
  for (pthread_t thread : threads) {
    JoinListener(thread);
  }

  EXPECT_EQ(frames.log.Text(), "01 | 02 02 | 03 03 03 | null/1");
  const double idle = Between(frames.log.Calls().at(2).at, frames.log.Calls().at(3).at);
  EXPECT_GT(idle, 20.0);
  EXPECT_LT(idle, 23.0) << "at most one poll period (and a margin) after 20 s";
  EXPECT_EQ(silent.log.Text(), "null/1");
  const double silentEnd = Between(start, silent.log.Calls().at(0).at);
  EXPECT_GT(silentEnd, 20.0) << "counted from the start of listening";
  EXPECT_LT(silentEnd, 23.0);
  EXPECT_EQ(oneTickle.log.Text(), "null/1") << "a tickle packet makes no callback";
  const double tickleEnd = Between(start, oneTickle.log.Calls().at(0).at);
  EXPECT_GT(tickleEnd, 3.0 + 20.0) << "the tickle packet restarted the idle time";
  EXPECT_LT(tickleEnd, 3.0 + 24.0);
  EXPECT_EQ(tickling.log.Count(), 0u) << "neither tickles nor Close make a callback";
  EXPECT_LT(closing, 1.5) << "within one poll period";
  std::printf("idle end after %.2f s, silent %.2f s, tickle at 3 s then %.2f s, close %.3f s\n",
              idle, silentEnd, tickleEnd, closing);
}

TEST_F(HBN3Listener, ACallbackAnsweringFalseStopsAtOnce) {
  Listened l;
  l.log.answer = [](int, const ListenerCall &) { return false; };
  const pthread_t thread = l.Start(3000000);
  const auto start = Clock::now();
  l.device.Send(Join({Frame(Hex("AA")), Frame(Hex("BB"))}));
  ASSERT_TRUE(l.Ended());
  EXPECT_LT(kivtest::SecondsSince(start), 2.0) << "no further poll";
  JoinListener(thread);
  EXPECT_EQ(l.log.Text(), "AA");
}

TEST_F(HBN3Listener, AClosedDeviceIsReportedUntilTheCallbackAnswersFalse) {
  Listened l;
  l.log.answer = [](int number, const ListenerCall &) { return number < 4; };
  const pthread_t thread = l.Start(3000000);
  l.device.Send(Frame(Hex("01 02")));
  l.device.CloseDevice();
  ASSERT_TRUE(l.Ended());
  JoinListener(thread);
  // "closed" is a block of length 0, not a null one.
  EXPECT_EQ(l.log.Text(), "01 02 | closed | closed | closed");
}

TEST_F(HBN3Listener, ASocketFailureIsReportedAsMinusFour) {
  kivtest::ChannelOnStream c(true);
  kivtest::CallbackLog log;
  log.answer = [](int, const ListenerCall &call) { return call.text != "closed"; };
  ASSERT_EQ(
      c.channel.RegisterReadCallback(&kivtest::CallbackLog::Callback, &log, 1, 0, true, false), 0);
  const pthread_t thread = *c.channel.GetListenerThreadID();
  c.device.Send(Frame(Hex("D1")));
  c.device.ResetDevice();
  ASSERT_TRUE(kivtest::WaitFor([&] { return c.channel.GetListenerThreadID() == nullptr; }, 10));
  JoinListener(thread);
  // The reset may come before or after the frame is read; either way it is a failure (-4) of
  // the socket, followed by the end of the stream.
  const std::string text = log.Text();
  EXPECT_TRUE(text == "null/-4 | closed" || text == "D1 | null/-4 | closed") << text;
}

TEST_F(HBN3Listener, CloseEndsAListenerBlockedInsideAFrame) {
  Listened l;
  l.device.Send(Join({kivtest::FrameHeader(100), kivtest::Pattern(10)}));
  const pthread_t thread = l.Start(1000000);
  std::this_thread::sleep_for(std::chrono::milliseconds(300)); // inside the payload now
  const auto start = Clock::now();
  EXPECT_EQ(l.channel.Close(), 0);
  ASSERT_TRUE(l.Ended(5));
  EXPECT_LT(kivtest::SecondsSince(start), 1.5) << "within one poll period";
  JoinListener(thread);
  EXPECT_EQ(l.log.Count(), 0u) << "no callback for the cut frame or the closed stream";
}

// The frames after the first wait in the reader's batch: Close must stop them all the same.
TEST_F(HBN3Listener, CloseFromTheCallbackIsNotUndoneByItsTrue) {
  Listened l;
  l.log.answer = [&](int, const ListenerCall &) {
    l.channel.Close();
    return true;
  };
  const pthread_t thread = l.Start(1000000);
  l.device.Send(Join({Frame(Hex("F1")), Frame(Hex("F2")), Frame(Hex("F3"))}));
  ASSERT_TRUE(l.Ended());
  JoinListener(thread);
  EXPECT_EQ(l.log.Text(), "F1");
}

TEST_F(HBN3Listener, AMediaChannelGetsNoListenerThreadButOneInTheCallingThread) {
  Listened media(kMediaInterface);
  media.device.Send(Join({Frame(Hex("0D")), Frame(Hex("0E"))}));
  EXPECT_EQ(media.channel.RegisterReadCallback(&kivtest::CallbackLog::Callback, &media.log, 0,
                                               200000, true, false),
            0);
  EXPECT_EQ(media.channel.GetListenerThreadID(), nullptr);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(media.log.Count(), 0u) << "no callback from a thread";

  media.log.answer = [](int number, const ListenerCall &) { return number < 2; };
  EXPECT_EQ(media.channel.RegisterReadCallback(&kivtest::CallbackLog::Callback, &media.log, 0,
                                               200000, false, false),
            0);
  EXPECT_EQ(media.log.Text(), "0D | 0E");
}

TEST_F(HBN3Listener, RegistrationInTheCallingThreadReturnsWhenTheListenerHasEnded) {
  Listened l;
  l.log.answer = [](int, const ListenerCall &) { return false; };
  l.device.Send(Frame(Hex("9A 9B")));
  EXPECT_EQ(
      l.channel.RegisterReadCallback(&kivtest::CallbackLog::Callback, &l.log, 3, 0, false, false),
      0);
  ASSERT_EQ(l.log.Text(), "9A 9B");
  EXPECT_TRUE(pthread_equal(l.log.Calls()[0].thread, pthread_self()));
  EXPECT_EQ(l.channel.GetListenerThreadID(), nullptr);

  // Once closed, neither kind of registration listens any more.
  Listened closed;
  closed.device.Send(Frame(Hex("01")));
  ASSERT_EQ(closed.channel.Close(), 0);
  for (bool threaded : {false, true}) {
    EXPECT_EQ(closed.channel.RegisterReadCallback(&kivtest::CallbackLog::Callback, &closed.log, 0,
                                                  1000, threaded, false),
              0);
  }
  EXPECT_EQ(closed.channel.GetListenerThreadID(), nullptr);
  EXPECT_EQ(closed.log.Count(), 0u);
}

TEST_F(HBN3Listener, JoinableAndDetachedThreadsAreMadeAsAsked) {
  for (bool detached : {false, true}) {
    Listened l;
    ASSERT_EQ(l.channel.RegisterReadCallback(&kivtest::CallbackLog::Callback, &l.log, 0, 200000,
                                             true, detached),
              0);
    ASSERT_NE(l.channel.GetListenerThreadID(), nullptr);
    const pthread_t id = *l.channel.GetListenerThreadID();
    pthread_attr_t attributes;
    int state = -1;
    ASSERT_EQ(pthread_getattr_np(id, &attributes), 0);
    pthread_attr_getdetachstate(&attributes, &state);
    pthread_attr_destroy(&attributes);
    EXPECT_EQ(state, detached ? PTHREAD_CREATE_DETACHED : PTHREAD_CREATE_JOINABLE);
    l.channel.Close();
    ASSERT_TRUE(l.Ended());
    if (!detached) {
      JoinListener(id);
    }
  }
}

TEST_F(HBN3Listener, ANewRegistrationChangesTheRunningListener) {
  Listened l;
  kivtest::CallbackLog second;
  const pthread_t thread = l.Start(100000);
  l.device.Send(Frame(Hex("01")));
  ASSERT_TRUE(kivtest::WaitFor([&] { return l.log.Count() == 1; }, 5));
  EXPECT_EQ(l.channel.RegisterReadCallback(&kivtest::CallbackLog::Callback, &second, 0, 100000,
                                           true, false),
            0);
  EXPECT_TRUE(pthread_equal(*l.channel.GetListenerThreadID(), thread)) << "no second thread";
  l.device.Send(Frame(Hex("02")));
  ASSERT_TRUE(kivtest::WaitFor([&] { return second.Count() == 1; }, 5));
  EXPECT_EQ(l.channel.RegisterReadCallback(nullptr, nullptr, 0, 100000, true, false), 0);
  ASSERT_TRUE(l.Ended(2)) << "a null callback stops it at its next pass";
  JoinListener(thread);
  EXPECT_EQ(l.log.Text() + " / " + second.Text(), "01 / 02");
}

} // namespace
