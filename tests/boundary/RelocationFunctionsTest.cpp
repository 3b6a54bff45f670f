// The relocation, MAC query and debugger entry points through the shared library, against
// simulated devices and scripted peers on loopback, with the device store in a scratch file and
// no DNS-SD daemon reachable.
#include <gtest/gtest.h>

#include <stdlib.h>
#include <sys/stat.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "Interfaces/KivNetworkComm.h"
#include "sim/Simulator.h"
#include "support/AddressBuffer.h"
#include "support/DescriptorCheckedTest.h"
#include "support/ScriptedResponder.h"

namespace {

namespace fs = std::filesystem;
using kivtest::HcpAnswer;
using kivtest::ScriptedResponder;
using Clock = std::chrono::steady_clock;

// The browse must never reach a DNS-SD daemon of this machine, which would query the real
// network: the system bus is pointed at nothing before any test runs.
const bool kNoSystemBus =
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/kivnetworkcomm-test-bus", 1) == 0;

const char kStoreHeader[] = "org.kivnetworkcomm.KivNetworkComm device store 1\n";

std::string SimMac(int n) {
  char text[13];
  std::snprintf(text, sizeof text, "024b495600%02x", n);
  return text;
}

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Loopback addresses 127.0.10.50 to 127.0.10.99 belong to this file, each to one test. The store
// is a file in a scratch folder named by KIVNET_DEVICE_STORE. The caller's buffer has 16 bytes
// and a guard area behind them.
class RelocationFunctions : public kivtest::DescriptorCheckedTest,
                            protected kivtest::AddressBuffer {
protected:
  void SetUp() override {
    ASSERT_TRUE(kNoSystemBus);
    char pattern[] = "/tmp/kiv-relocation-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    folder = pattern;
    store = folder + "/devices";
    setenv("KIVNET_DEVICE_STORE", store.c_str(), 1);
    kivtest::DescriptorCheckedTest::SetUp();
  }
  void TearDown() override {
    kivtest::DescriptorCheckedTest::TearDown();
    unsetenv("KIVNET_DEVICE_STORE");
    fs::remove_all(folder);
  }

  std::string StoreText() const {
    std::ifstream in(store);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
  }

  std::string folder, store;
};

// A peer that answers with another device's MAC at once, so a check of its address fails fast.
kivtest::Bytes OtherDevice() {
  return HcpAnswer({"IPADDRESS=127.0.0.99", "IPNETMASK=255.0.0.0", "MACUAA=\"FFFFFFFFFFFF\""});
}

TEST_F(RelocationFunctions, ADeviceAtTheDriversAddressIsConfirmedAndRemembered) {
  kivsim::Simulator simulator({5353, 0, "", false});
  simulator.AddDevice(kivsim::MakeDeviceRecord(50, "127.0.10.50"));
  simulator.Start();
  Hold("127.0.10.50");
  EXPECT_TRUE(ResolveNewIPAddress(buffer, SimMac(50).c_str(), 10));
  EXPECT_EQ(Held(), "127.0.10.50");
  EXPECT_TRUE(GuardIntact());
  EXPECT_EQ(StoreText(), std::string(kStoreHeader) + SimMac(50) + " 127.0.10.50\n");
  EXPECT_EQ(simulator.Counters(0).discovery, 1u);
  simulator.Stop();
}

TEST_F(RelocationFunctions, TheRememberedAddressFindsADeviceTheDriverLost) {
  kivsim::Simulator simulator({5353, 0, "", false});
  simulator.AddDevice(kivsim::MakeDeviceRecord(51, "127.0.10.51"));
  simulator.Start();
  ScriptedResponder stale("127.0.10.52", 5353, OtherDevice());
  std::ofstream(store) << kStoreHeader << SimMac(51) << " 127.0.10.51\n";
  Hold("127.0.10.52");
  EXPECT_TRUE(ResolveNewIPAddress(buffer, SimMac(51).c_str(), 10));
  EXPECT_EQ(Held(), "127.0.10.51");
  EXPECT_TRUE(GuardIntact());
  EXPECT_EQ(stale.Received().size(), 0u);
  simulator.Stop();
}

TEST_F(RelocationFunctions, AMacInUppercaseOrWithSeparatorsNeverMatches) {
  kivsim::Simulator simulator({5353, 0, "", false});
  simulator.AddDevice(kivsim::MakeDeviceRecord(53, "127.0.10.53"));
  simulator.Start();
  for (const char *mac : {"024B49560035", "02:4b:49:56:00:35", "02-4b-49-56-00-35", ""}) {
    Hold("127.0.10.53");
    EXPECT_FALSE(ResolveNewIPAddress(buffer, mac, 1)) << mac;
    EXPECT_EQ(Held(), "127.0.10.53");
    EXPECT_TRUE(GuardIntact());
  }
  EXPECT_FALSE(fs::exists(store)) << "nothing found, nothing written";
  simulator.Stop();
}

TEST_F(RelocationFunctions, AnAnswerWithoutAUsableAddressCountsAsNotFound) {
  const std::string mac = "MACUAA=\"00200048F13D\"";
  const kivtest::Bytes answers[] = {
      HcpAnswer({"IPNETMASK=255.0.0.0", mac}),                           // no IPADDRESS
      HcpAnswer({"IPADDRESS=127.0.10.54", mac}),                         // no IPNETMASK
      HcpAnswer({"IPADDRESS=12345678901234567890", "IPNETMASK=x", mac}), // 20 characters
  };
  for (const kivtest::Bytes &answer : answers) {
    ScriptedResponder device("127.0.10.54", 5353, answer);
    Hold("127.0.10.54");
    EXPECT_FALSE(ResolveNewIPAddress(buffer, "000400128fbc", 0)) << kivtest::ToHex(answer);
    EXPECT_EQ(Held(), "127.0.10.54");
    EXPECT_TRUE(GuardIntact());
  }
  EXPECT_FALSE(fs::exists(store));
}

TEST_F(RelocationFunctions, TheLongestAddressFillsExactlySixteenBytes) {
  ScriptedResponder device("127.0.10.55", 5353,
                           HcpAnswer({"IPADDRESS=192.168.100.123", "IPNETMASK=255.255.255.0",
                                      "MACUAA=\"00200048F13D\""}));
  Hold("127.0.10.55");
  EXPECT_TRUE(ResolveNewIPAddress(buffer, "000400128fbc", 0));
  EXPECT_EQ(std::string(buffer, 16), std::string("192.168.100.123\0", 16));
  EXPECT_TRUE(GuardIntact());
  EXPECT_EQ(StoreText(), std::string(kStoreHeader) + "000400128fbc 192.168.100.123\n");
}

TEST_F(RelocationFunctions, NullArgumentsAreRefusedAtOnce) {
  Hold("127.0.10.56");
  const Clock::time_point start = Clock::now();
  EXPECT_FALSE(ResolveNewIPAddress(nullptr, "000400128fbc", 10));
  EXPECT_FALSE(ResolveNewIPAddress(buffer, nullptr, 10));
  EXPECT_LT(SecondsSince(start), 1.0);
  EXPECT_EQ(Held(), "127.0.10.56");
  EXPECT_TRUE(GuardIntact());
}

TEST_F(RelocationFunctions, WithNobodyAnsweringTheCallEndsAfterTheChecksAndItsTimeOut) {
  // A stale store entry and a driver's address where nothing listens: two full 2-second checks,
  // then the browse, which finds no DNS-SD daemon, for the whole time-out.
  std::ofstream(store) << kStoreHeader << SimMac(57) << " 127.0.10.57\n";
  Hold("127.0.10.58");
  Clock::time_point start = Clock::now();
  EXPECT_FALSE(ResolveNewIPAddress(buffer, SimMac(57).c_str(), 0));
  const double checks = SecondsSince(start);
  EXPECT_GE(checks, 3.9);
  EXPECT_LT(checks, 9.0);
  std::remove(store.c_str());
  start = Clock::now();
  EXPECT_FALSE(ResolveNewIPAddress(buffer, SimMac(57).c_str(), 2));
  EXPECT_GE(SecondsSince(start), 3.9) << "one check, then two seconds of browsing";
  EXPECT_LT(SecondsSince(start), 9.0);
  EXPECT_EQ(Held(), "127.0.10.58");
  EXPECT_TRUE(GuardIntact());
}

TEST_F(RelocationFunctions, QueryMACAddressByHCPGivesTheDevicesMacOrNothing) {
  kivsim::Simulator simulator({5353, 0, "", false});
  simulator.AddDevice(kivsim::MakeDeviceRecord(60, "127.0.10.60"));
  simulator.Start();
  std::string address = "127.0.10.60";
  EXPECT_EQ(QueryMACAddressByHCP(address, 2), SimMac(60));
  EXPECT_EQ(address, "127.0.10.60");
  std::string nobody = "127.0.10.61";
  const Clock::time_point start = Clock::now();
  EXPECT_EQ(QueryMACAddressByHCP(nobody, 1), "");
  EXPECT_GE(SecondsSince(start), 0.9);
  EXPECT_LT(SecondsSince(start), 5.0);
  simulator.Stop();
}

TEST(DebuggerEntryPoints, DoNothingAndReturnZero) {
  std::string file = "debug.log";
  unsigned char packet[4] = {1, 2, 3, 4};
  const std::string printed = kivtest::CaptureStdout([&] {
    InitializeDebugger(1, nullptr, file, 5);
    EXPECT_EQ(SendDebugMessage(1, "%s %d", "text", 7), 0u);
    EXPECT_EQ(SendDebugPacket(1, packet, 4), 0u);
    EXPECT_EQ(SendDebugPacket(1, nullptr, -1), 0u);
    StopDebugger();
  });
  EXPECT_EQ(printed, "");
  EXPECT_EQ(file, "debug.log");
}

} // namespace
