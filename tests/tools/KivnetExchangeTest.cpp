// kivnet's exchanges against simulated devices on loopback, one per command, with no descriptor
// left open afterwards.
#include <gtest/gtest.h>

#include <string>

#include "Interfaces/KivNetworkComm.h"
#include "sim/Simulator.h"
#include "support/DescriptorCheckedTest.h"
#include "support/RecordText.h"
#include "tools/kivnet/Exchange.h"
#include "tools/kivnet/ResultCodes.h"

namespace {

// What a failed exchange says; empty for a success.
std::string Said(const kivnet::Failure &failure) {
  return failure.failed() ? failure.Describe() : "";
}

typedef kivtest::DescriptorCheckedTest KivnetExchange;

// Behind the group listener 127.0.0.2: device 1 at 127.0.0.30, which sends garbage until its
// configuration, and device 2 at 127.0.0.31, which sends every answer three times.
TEST_F(KivnetExchange, EachCommandAgainstSimulatedDevices) {
  try { // parsing an HCP answer reads the host's default interface
    GetHostIPAddress();
  } catch (int) {
    GTEST_SKIP() << "this host has no default IPv4 interface";
  }
  kivsim::Simulator simulator({0, 0, "127.0.0.2", false});
  simulator.AddDevice(kivsim::MakeDeviceRecord(1, "127.0.0.30"));
  simulator.AddDevice(kivsim::MakeDeviceRecord(2, "127.0.0.31"));
  simulator.SetFaults(0, {false, 0, -1, true, false, 1});
  simulator.SetFaults(1, {false, 0, -1, false, false, 3});
  simulator.Start();
  kivnet::CommandLine line;
  line.target = "127.0.0.2";
  line.port = simulator.HcpPort();
  line.waitSeconds = 1;

  kivnet::Discovery found;
  ASSERT_EQ(Said(kivnet::Discover(line, found)), "");
  ASSERT_TRUE(found.devices.size() == 1 && found.unread.size() == 1)
      << found.devices.size() << " device(s), " << found.unread.size() << " unread";
  EXPECT_EQ(std::to_string(found.datagrams) + " " + std::to_string(found.duplicates) + " " +
                found.devices[0].from + " " + found.unread[0].from + " " +
                kivnet::CodeHex(found.unread[0].code),
            "4 2 127.0.0.31 127.0.0.30 0x0A0707A3");
  EXPECT_EQ(kivtest::RecordText(found.devices[0].record), kivtest::RecordText(simulator.Device(1)));

  simulator.SetFaults(0, kivsim::Faults());
  line.mac = "024B49560001";
  line.address = "127.0.0.60";
  line.netmask = "255.255.0.0";
  line.gateway = "127.0.0.1";
  kivnet::ConfigAnswer config;
  ASSERT_EQ(Said(kivnet::SetIp(line, config)), "");
  EXPECT_EQ(config.from + " " + std::to_string(config.record.iResponse) + " " +
                config.record.strIPAddr + " " + simulator.BoundAddress(0),
            "127.0.0.30 0 127.0.0.60 127.0.0.60");

  line.target = "127.0.0.31";
  line.port = simulator.Hbn3Port();
  line.portInfo = 7;
  line.channel = 1;
  kivnet::PingAnswer ping;
  kivnet::StatusAnswer status;
  ASSERT_EQ(Said(kivnet::Ping(line, ping)), "");
  ASSERT_EQ(Said(kivnet::Status(line, status)), "");
  const StatCacheResponse &s = status.status;
  EXPECT_EQ(ping.from + " " + std::to_string(ping.info.iStatus) + " " + status.from + " " +
                std::to_string(s.iPortInfo) + " " + std::to_string(s.iChannelID) + " " +
                s.strAdapterUAA + " " + s.strPrinterID + " " + std::to_string(s.iPayloadLength),
            "127.0.0.31 1 127.0.0.31 7 1 024b49560002 0102 32");
}

} // namespace
