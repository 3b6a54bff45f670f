// kivnet's exchanges against simulated devices on loopback: discovery through a group listener,
// unreadable and repeated answers, ping, status, configuration, silence, and no descriptor left
// open.
#include <gtest/gtest.h>

#include <string>

#include "Interfaces/KivNetworkComm.h"
#include "sim/Simulator.h"
#include "support/TestSupport.h"
#include "tools/kivnet/Exchange.h"

namespace {

using kivnet::CommandLine;

const char kGroup[] = "127.0.0.2";
const char kBase[] = "127.0.0.30";

bool HostHasDefaultInterface() {
  try {
    GetHostIPAddress();
    return true;
  } catch (int) {
    return false;
  }
}

class KivnetExchange : public testing::Test {
protected:
  void SetUp() override {
    // Parsing an HCP answer reads the host's default interface.
    if (!HostHasDefaultInterface()) {
      GTEST_SKIP() << "this host has no default IPv4 interface";
    }
    descriptorsBefore = kivtest::CountOpenDescriptors();
    kivsim::SimulatorOptions options;
    options.hcpPort = 0;
    options.hbn3Port = 0;
    options.groupAddress = kGroup;
    simulator.reset(new kivsim::Simulator(options));
    for (int n = 1; n <= 3; ++n) {
      simulator->AddDevice(kivsim::MakeDeviceRecord(n, kivsim::AddressAfter(kBase, n - 1)));
    }
  }
  void TearDown() override {
    if (simulator) {
      simulator.reset();
      EXPECT_EQ(kivtest::CountOpenDescriptors(), descriptorsBefore);
    }
  }

  CommandLine Line(kivnet::Command command, const std::string &target, int port) {
    CommandLine line;
    line.command = command;
    line.target = target;
    line.port = port;
    line.waitSeconds = 1;
    return line;
  }

  std::unique_ptr<kivsim::Simulator> simulator;
  int descriptorsBefore = 0;
};

TEST_F(KivnetExchange, DiscoversEveryDeviceThroughTheGroupListener) {
  simulator->Start();
  kivnet::Discovery discovery;
  const kivnet::Failure failure =
      kivnet::Discover(Line(kivnet::Command::kDiscover, kGroup, simulator->HcpPort()), discovery);
  ASSERT_FALSE(failure.failed()) << failure.Describe();
  ASSERT_EQ(discovery.devices.size(), 3u);
  EXPECT_TRUE(discovery.unread.empty());
  EXPECT_EQ(discovery.datagrams, 3);
  for (int n = 1; n <= 3; ++n) {
    bool found = false;
    for (const kivnet::FoundDevice &device : discovery.devices) {
      if (device.record.strIPName == "kivsim-" + std::to_string(n)) {
        found = true;
        EXPECT_EQ(device.from, kivsim::AddressAfter(kBase, n - 1));
        EXPECT_EQ(device.record.strIPAddr, device.from);
        EXPECT_EQ(device.record.strMacUaa, "ET024b495600" + std::string("0") + std::to_string(n));
        ASSERT_EQ(device.record.vecDeviceSpecific.size(), 1u);
        EXPECT_EQ(device.record.vecDeviceSpecific[0].strProdID,
                  "KivSim Printer " + std::to_string(n));
      }
    }
    EXPECT_TRUE(found) << "kivsim-" << n;
  }
  EXPECT_GE(discovery.seconds, 1.0) << "collects for the whole wait";
  EXPECT_LT(discovery.seconds, 10.0);
}

TEST_F(KivnetExchange, UnreadableAndRepeatedAnswersAreReportedNotFatal) {
  kivsim::Faults garbage;
  garbage.garbage = true;
  simulator->SetFaults(1, garbage);
  kivsim::Faults copies;
  copies.copies = 3;
  simulator->SetFaults(2, copies);
  simulator->Start();
  kivnet::Discovery discovery;
  const kivnet::Failure failure =
      kivnet::Discover(Line(kivnet::Command::kDiscover, kGroup, simulator->HcpPort()), discovery);
  ASSERT_FALSE(failure.failed()) << failure.Describe();
  EXPECT_EQ(discovery.devices.size(), 2u);
  EXPECT_EQ(discovery.duplicates, 2);
  EXPECT_EQ(discovery.datagrams, 5);
  ASSERT_EQ(discovery.unread.size(), 1u);
  EXPECT_EQ(discovery.unread[0].from, kivsim::AddressAfter(kBase, 1));
  EXPECT_EQ(discovery.unread[0].code, 0x0A0707A3u);
}

TEST_F(KivnetExchange, PingAndStatusOfOneDevice) {
  simulator->Start();
  const std::string device = kivsim::AddressAfter(kBase, 2);
  kivnet::PingAnswer ping;
  kivnet::Failure failure =
      kivnet::Ping(Line(kivnet::Command::kPing, device, simulator->Hbn3Port()), ping);
  ASSERT_FALSE(failure.failed()) << failure.Describe();
  EXPECT_EQ(ping.from, device);
  EXPECT_EQ(ping.fromPort, simulator->Hbn3Port());
  EXPECT_EQ(ping.info.iStatus, 1u);

  CommandLine line = Line(kivnet::Command::kStatus, device, simulator->Hbn3Port());
  line.portInfo = 7;
  line.channel = 1;
  kivnet::StatusAnswer status;
  failure = kivnet::Status(line, status);
  ASSERT_FALSE(failure.failed()) << failure.Describe();
  EXPECT_EQ(status.status.iPortInfo, 7u);
  EXPECT_EQ(status.status.iChannelID, 1u);
  EXPECT_EQ(status.status.strAdapterUAA, "024b49560003");
  EXPECT_EQ(status.status.strAdapterIPAddr, device);
  EXPECT_EQ(status.status.strPrinterID, "0103");
  EXPECT_EQ(status.status.iPayloadLength, 32);
}

TEST_F(KivnetExchange, SilenceIsATimeOutWithTheLibrarysCode) {
  kivsim::Faults silent;
  silent.silent = true;
  simulator->SetFaults(0, silent);
  simulator->Start();
  kivnet::PingAnswer ping;
  const kivnet::Failure failure =
      kivnet::Ping(Line(kivnet::Command::kPing, kBase, simulator->Hbn3Port()), ping);
  ASSERT_TRUE(failure.failed());
  EXPECT_EQ(failure.function, "RecvFrom");
  EXPECT_EQ(failure.code, 0x0A0000B6u);
  EXPECT_EQ(failure.Describe(),
            "no answer from " + std::string(kBase) + ":" + std::to_string(simulator->Hbn3Port()) +
                " within 1 s: RecvFrom returned 0x0A0000B6 (socket layer: RECVFROM_ERROR, the "
                "receive failed or timed out)");
}

TEST_F(KivnetExchange, ConfigurationMovesTheDeviceOrIsRefused) {
  kivsim::DeviceRecord guarded = simulator->Device(1);
  guarded.password = "s3cret";
  guarded.passwordSet = true;
  simulator->SetDevice(1, guarded);
  simulator->Start();

  CommandLine line =
      Line(kivnet::Command::kSetIp, kivsim::AddressAfter(kBase, 1), simulator->HcpPort());
  line.mac = "024B49560002";
  line.address = "127.0.0.60";
  line.netmask = "255.255.0.0";
  line.gateway = "127.0.0.1";
  line.password = "wrong";
  kivnet::ConfigAnswer refused;
  kivnet::Failure failure = kivnet::SetIp(line, refused);
  ASSERT_FALSE(failure.failed()) << failure.Describe();
  EXPECT_NE(refused.record.iResponse, 0);
  EXPECT_EQ(simulator->Device(1).ipAddress, kivsim::AddressAfter(kBase, 1));

  line.password = "s3cret";
  kivnet::ConfigAnswer accepted;
  failure = kivnet::SetIp(line, accepted);
  ASSERT_FALSE(failure.failed()) << failure.Describe();
  EXPECT_EQ(accepted.record.iResponse, 0);
  EXPECT_EQ(accepted.record.strIPAddr, "127.0.0.60");
  EXPECT_EQ(accepted.record.strIPNetMask, "255.255.0.0");
  EXPECT_EQ(simulator->Device(1).ipAddress, "127.0.0.60");
  EXPECT_EQ(simulator->BoundAddress(1), "127.0.0.60");

  // A message for a MAC no device has gets no answer.
  line.mac = "0000000000AA";
  kivnet::ConfigAnswer nobody;
  failure = kivnet::SetIp(line, nobody);
  EXPECT_EQ(failure.code, 0x0A0000B6u) << failure.Describe();
}

} // namespace
