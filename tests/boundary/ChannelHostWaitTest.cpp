// A host that waits on a channel's descriptor (GetSocketID) and calls ReadManaged whenever it is
// readable, against a simulated device that sends bursts of frames with pauses between them, a
// frame header cut by a pause, and a large frame: every frame comes, in order, and every wake-up
// but the one for the cut header brings a frame.
#include <gtest/gtest.h>

#include <poll.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "Interfaces/KivNetworkComm.h"
#include "sim/Simulator.h"
#include "support/ChannelPeer.h"
#include "support/DescriptorCheckedTest.h"

namespace {

using kivsim::ChannelScript;
using kivtest::Bytes;

const char kDevice[] = "127.0.0.62";

class ChannelHostWait : public kivtest::DescriptorCheckedTest {
protected:
  void SetUp() override {
    kivtest::DescriptorCheckedTest::SetUp();
    kivsim::SimulatorOptions options;
    options.hcpPort = 0;
    options.channelEnabled = true;
    mSimulator.reset(new kivsim::Simulator(options));
    mSimulator->AddDevice(kivsim::MakeDeviceRecord(1, kDevice));
    mSimulator->Start();
  }
  void TearDown() override {
    if (mChannel != nullptr) {
      delete static_cast<KivHBN3TCPSocket *>(VerifySocketHandle(mChannel, 1));
    }
    mSimulator->Stop();
    mSimulator.reset();
    kivtest::DescriptorCheckedTest::TearDown();
  }

  std::unique_ptr<kivsim::Simulator> mSimulator;
  HANDLE mChannel = nullptr;
};

TEST_F(ChannelHostWait, EveryWakeUpBringsAFrameAndNoFrameIsMissed) {
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
  // A frame whose header is cut by a pause: the host is woken by its first five bytes.
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
  mSimulator->SetChannelScript(0, script);

  std::string address = kDevice;
  int opened = -77;
  mChannel = OpenTCPSocket(address, mSimulator->ChannelPort(), kScanInterface, opened);
  ASSERT_NE(mChannel, nullptr);
  const int descriptor = GetSocketID(mChannel, 1);
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
    ASSERT_EQ(ReadManaged(mChannel, 1, buffer.data(), static_cast<int>(buffer.size()),
                          KivTimeVal{0, 0}, 0, count),
              0u);
    if (count == 0) {
      break; // the device closed
    }
    if (count == -5) {
      ++runOut;
      continue;
    }
    ASSERT_GT(count, 0);
    received.emplace_back(buffer.begin(), buffer.begin() + count);
  }
  ASSERT_EQ(received.size(), expected.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    ASSERT_TRUE(received[i] == expected[i]) << "frame " << i;
  }
  std::printf("%zu frames, %d wake-ups, %d of them for the cut header\n", received.size(), wakeUps,
              runOut);
  EXPECT_LE(runOut, 1) << "only the cut header may wake the host without a frame";
  EXPECT_EQ(wakeUps, static_cast<int>(expected.size()) + runOut + 1) << "no other wake-up";
}

} // namespace
