// The thread registry: numbering, joins, detaches and cancellation.
#include <gtest/gtest.h>

#include <atomic>
#include <sched.h>
#include <unistd.h>

#include <cerrno>

#include "Threads/KivMultithreaded.h"

namespace {

class Counter : public KivMultithreaded {
public:
  void Run() override { ++runs; }
  std::atomic<int> runs{0};
};

TEST(Multithreaded, NumbersStartAtOneAndEachThreadRunsOnce) {
  Counter counter;
  const int first = counter.RunThread();
  const int second = counter.RunThread();
  EXPECT_EQ(first, 1);
  EXPECT_EQ(second, 2);
  EXPECT_EQ(counter.GetThreadCount(), 2);
  void *result = reinterpret_cast<void *>(1);
  EXPECT_EQ(counter.JoinThread(first, &result), 0);
  EXPECT_EQ(result, nullptr);
  EXPECT_EQ(counter.JoinThread(second, nullptr), 0);
  EXPECT_EQ(counter.runs.load(), 2);
  EXPECT_EQ(counter.GetThreadCount(), 0);
  EXPECT_EQ(counter.RunThread(), 3) << "numbers are not reused";
  EXPECT_EQ(counter.JoinThread(3, nullptr), 0);
}

TEST(Multithreaded, JoinAndDetachRemoveTheEntry) {
  Counter counter;
  const int id = counter.RunThread();
  EXPECT_EQ(counter.DetachThread(id), 0);
  EXPECT_EQ(counter.GetThreadCount(), 0);
  EXPECT_EQ(counter.JoinThread(id, nullptr), ESRCH);
  EXPECT_EQ(counter.DetachThread(id), ESRCH);
  EXPECT_EQ(counter.CancelThread(99), ESRCH);
  // Let the detached thread finish before the object goes away.
  while (counter.runs.load() == 0) {
    sched_yield();
  }
}

// Waits in a cancellation point until cancelled.
class Sleeper : public KivMultithreaded {
public:
  void Run() override {
    for (int i = 0; i < 600; ++i) { // bounded: at most a minute
      usleep(100 * 1000);
      TestCancel();
    }
  }
};

TEST(Multithreaded, CancelStopsAThreadThatJoinThenCollects) {
  Sleeper sleeper;
  const int id = sleeper.RunThread();
  EXPECT_EQ(sleeper.CancelThread(id), 0);
  EXPECT_EQ(sleeper.GetThreadCount(), 1) << "a cancelled thread is still joined";
  void *result = nullptr;
  EXPECT_EQ(sleeper.JoinThread(id, &result), 0);
  EXPECT_EQ(result, PTHREAD_CANCELED);
}

TEST(Multithreaded, CancelTypeAndStateReportThePreviousValue) {
  Counter counter;
  int old = -1;
  EXPECT_EQ(counter.SetCancelState(PTHREAD_CANCEL_DISABLE, &old), 0);
  EXPECT_EQ(old, PTHREAD_CANCEL_ENABLE);
  EXPECT_EQ(counter.SetCancelState(PTHREAD_CANCEL_ENABLE, &old), 0);
  EXPECT_EQ(old, PTHREAD_CANCEL_DISABLE);
  EXPECT_EQ(counter.SetCancelType(PTHREAD_CANCEL_DEFERRED, &old), 0);
  EXPECT_EQ(old, PTHREAD_CANCEL_DEFERRED);
  EXPECT_EQ(counter.SetCancelType(12345, &old), EINVAL);
  EXPECT_EQ(counter.TestCancel(), 0);
}

} // namespace
