// kivnet's exchanges against simulated devices on loopback, one per command, with no descriptor
// left open afterwards.
#include <gtest/gtest.h>

#include <string>

#include "Interfaces/KivNetworkComm.h"
#include "sim/Simulator.h"
#include "support/TestSupport.h"
#include "tools/kivnet/Exchange.h"

namespace {

using kivsim::AddressAfter;

kivnet::CommandLine Line(const std::string &target, int port) {
  kivnet::CommandLine line;
  line.target = target;
  line.port = port;
  line.waitSeconds = 1;
  return line;
}

// Devices 1-3 at 127.0.0.30-32 behind the group listener 127.0.0.2: device 1 silent, device 2
// sending garbage, device 3 every answer three times.
TEST(KivnetExchange, EachCommandAgainstSimulatedDevices) {
  try { // parsing an HCP answer reads the host's default interface
    GetHostIPAddress();
  } catch (int) {
    GTEST_SKIP() << "this host has no default IPv4 interface";
  }
  const int descriptorsBefore = kivtest::CountOpenDescriptors();
  {
    kivsim::SimulatorOptions options;
    options.hcpPort = 0;
    options.groupAddress = "127.0.0.2";
    kivsim::Simulator simulator(options);
    for (int n = 1; n <= 3; ++n) {
      kivsim::DeviceRecord record = kivsim::MakeDeviceRecord(n, AddressAfter("127.0.0.30", n - 1));
      record.password = "s3cret";
      record.passwordSet = n == 2;
      simulator.AddDevice(record);
    }
    simulator.SetFaults(0, {true, 0, -1, false, false, 1});
    simulator.SetFaults(1, {false, 0, -1, true, false, 1});
    simulator.SetFaults(2, {false, 0, -1, false, false, 3});
    simulator.Start();
    const int hcp = simulator.HcpPort(), hbn3 = simulator.Hbn3Port();

    kivnet::Discovery discovery;
    kivnet::Failure failure = kivnet::Discover(Line("127.0.0.2", hcp), discovery);
    ASSERT_FALSE(failure.failed()) << failure.Describe();
    EXPECT_EQ(discovery.datagrams, 4);
    EXPECT_EQ(discovery.duplicates, 2);
    ASSERT_EQ(discovery.devices.size(), 1u);
    const KivNetRecord &found = discovery.devices[0].record;
    EXPECT_EQ(discovery.devices[0].from + " " + found.strIPAddr + " " + found.strMacUaa + " " +
                  found.vecDeviceSpecific.at(0).strProdID,
              "127.0.0.32 127.0.0.32 ET024b49560003 KivSim Printer 3");
    ASSERT_EQ(discovery.unread.size(), 1u);
    EXPECT_EQ(discovery.unread[0].from, "127.0.0.31");
    EXPECT_EQ(discovery.unread[0].code, 0x0A0707A3u);
    EXPECT_GE(discovery.seconds, 1.0) << "collects for the whole wait";

    kivnet::PingAnswer ping;
    failure = kivnet::Ping(Line("127.0.0.32", hbn3), ping);
    ASSERT_FALSE(failure.failed()) << failure.Describe();
    EXPECT_EQ(ping.from + " " + std::to_string(ping.info.iStatus), "127.0.0.32 1");
    failure = kivnet::Ping(Line("127.0.0.30", hbn3), ping);
    EXPECT_EQ(failure.Describe(), "no answer from 127.0.0.30:" + std::to_string(hbn3) +
                                      " within 1 s: RecvFrom returned 0x0A0000B6 (socket layer: "
                                      "RECVFROM_ERROR, the receive failed or timed out)");

    kivnet::CommandLine line = Line("127.0.0.32", hbn3);
    line.portInfo = 7;
    line.channel = 1;
    kivnet::StatusAnswer status;
    failure = kivnet::Status(line, status);
    ASSERT_FALSE(failure.failed()) << failure.Describe();
    const StatCacheResponse &s = status.status;
    EXPECT_EQ(std::to_string(s.iPortInfo) + " " + std::to_string(s.iChannelID) + " " +
                  s.strAdapterUAA + " " + s.strAdapterIPAddr + " " + s.strPrinterID + " " +
                  std::to_string(s.iPayloadLength),
              "7 1 024b49560003 127.0.0.32 0103 32");

    simulator.SetFaults(1, kivsim::Faults()); // device 2 has a password
    line = Line("127.0.0.2", hcp);
    line.mac = "024B49560002";
    line.address = "127.0.0.60";
    line.netmask = "255.255.0.0";
    line.gateway = "127.0.0.1";
    line.password = "s3cret";
    kivnet::ConfigAnswer config;
    failure = kivnet::SetIp(line, config);
    ASSERT_FALSE(failure.failed()) << failure.Describe();
    EXPECT_EQ(config.from + " " + std::to_string(config.record.iResponse) + " " +
                  config.record.strIPAddr + " " + config.record.strIPNetMask,
              "127.0.0.31 0 127.0.0.60 255.255.0.0");
    EXPECT_EQ(simulator.BoundAddress(1), "127.0.0.60");
  }
  EXPECT_EQ(kivtest::CountOpenDescriptors(), descriptorsBefore);
}

} // namespace
