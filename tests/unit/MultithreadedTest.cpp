// The thread registry: numbering, joins, detaches and cancellation.
#include <gtest/gtest.h>

#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "Threads/KivMultithreaded.h"

namespace {

class Counter : public KivMultithreaded {
public:
  void Run() override { ++runs; }
  std::atomic<int> runs{0};
};

TEST(Multithreaded, NumbersStartAtOneAndAreNotReused) {
  Counter counter;
  EXPECT_EQ(counter.RunThread(), 1);
  EXPECT_EQ(counter.RunThread(), 2);
  EXPECT_EQ(counter.JoinThread(1, nullptr), 0);
  EXPECT_EQ(counter.JoinThread(2, nullptr), 0);
  EXPECT_EQ(counter.GetThreadCount(), 0);
  EXPECT_EQ(counter.RunThread(), 3);
  EXPECT_EQ(counter.JoinThread(3, nullptr), 0);
}

TEST(Multithreaded, EachThreadRunsOnceAndIsJoinedWithANullResult) {
  Counter counter;
  const int first = counter.RunThread(), second = counter.RunThread();
  void *result = &counter;
  EXPECT_EQ(counter.JoinThread(first, &result), 0);
  EXPECT_EQ(result, nullptr);
  EXPECT_EQ(counter.JoinThread(second, nullptr), 0);
  EXPECT_EQ(counter.runs.load(), 2);
}

TEST(Multithreaded, DetachedOrUnknownThreadsAreNotFound) {
  Counter counter;
  const int id = counter.RunThread();
  EXPECT_EQ(counter.DetachThread(id), 0);
  EXPECT_EQ(counter.JoinThread(id, nullptr), ESRCH);
  EXPECT_EQ(counter.DetachThread(id), ESRCH);
  EXPECT_EQ(counter.CancelThread(99), ESRCH);
  while (counter.runs.load() < 1) { // the detached thread ends before the object does
    sched_yield();
  }
}

// Waits in a cancellation point until cancelled; bounded at a minute.
class Sleeper : public KivMultithreaded {
public:
  void Run() override {
    for (int i = 0; i < 600; ++i) {
      usleep(100 * 1000);
      TestCancel();
    }
  }
};

TEST(Multithreaded, CancelledThreadIsStillJoined) {
  Sleeper sleeper;
  const int id = sleeper.RunThread();
  EXPECT_EQ(sleeper.CancelThread(id), 0);
  EXPECT_EQ(sleeper.GetThreadCount(), 1);
  void *result = nullptr;
  EXPECT_EQ(sleeper.JoinThread(id, &result), 0);
  EXPECT_EQ(result, PTHREAD_CANCELED);
}

} // namespace
