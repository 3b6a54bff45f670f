// The registry of live handles: an address is a handle of exactly the kind last recorded for it,
// until an object of that kind forgets it; records made and removed from several threads at once
// stay consistent.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "CommonFiles/KivHandleRegistry.h"

namespace {

constexpr UInt32 kBuff = 0x62756666, kUdps = 0x75647073;

TEST(HandleRegistry, AnAddressIsAHandleOfTheKindLastRecordedForIt) {
  int object = 0;
  EXPECT_FALSE(kiv::IsHandleOfKind(&object, kBuff)) << "never recorded";
  kiv::RegisterHandle(&object, kBuff);
  EXPECT_TRUE(kiv::IsHandleOfKind(&object, kBuff));
  EXPECT_FALSE(kiv::IsHandleOfKind(&object, kUdps));
  // The container is destroyed and a socket is made at the same address.
  kiv::ForgetHandle(&object, kBuff);
  EXPECT_FALSE(kiv::IsHandleOfKind(&object, kBuff));
  kiv::RegisterHandle(&object, kUdps);
  EXPECT_FALSE(kiv::IsHandleOfKind(&object, kBuff));
  EXPECT_TRUE(kiv::IsHandleOfKind(&object, kUdps));
  kiv::ForgetHandle(&object, kUdps);
  EXPECT_FALSE(kiv::IsHandleOfKind(nullptr, 0));
}

TEST(HandleRegistry, AnObjectOfAnotherKindAtTheSameAddressDoesNotForgetTheHandle) {
  int object = 0;
  kiv::RegisterHandle(&object, kUdps);
  kiv::ForgetHandle(&object, kBuff); // e.g. a member at the start of the socket
  EXPECT_TRUE(kiv::IsHandleOfKind(&object, kUdps));
  kiv::ForgetHandle(&object, kUdps);
  EXPECT_FALSE(kiv::IsHandleOfKind(&object, kUdps));
}

TEST(HandleRegistry, ThreadsRecordingTheirOwnHandlesSeeOnlyTheirOwn) {
  constexpr int kThreads = 4, kObjects = 200;
  std::vector<int> objects(kThreads * kObjects);
  std::vector<std::thread> threads;
  std::vector<int> wrong(kThreads, 0);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int round = 0; round < 20; ++round) {
        for (int i = 0; i < kObjects; ++i) {
          kiv::RegisterHandle(&objects[t * kObjects + i], kBuff + UInt32(t));
        }
        for (int i = 0; i < kObjects; ++i) {
          const int *object = &objects[t * kObjects + i];
          wrong[t] += !kiv::IsHandleOfKind(object, kBuff + UInt32(t));
          kiv::ForgetHandle(object, kBuff + UInt32(t));
          wrong[t] += kiv::IsHandleOfKind(object, kBuff + UInt32(t));
        }
      }
    });
  }
  for (std::thread &thread : threads) {
    thread.join();
  }
  EXPECT_EQ(wrong, std::vector<int>(kThreads, 0));
}

} // namespace
