// Discovery and configuration end to end on loopback, through the exported functions only,
// against simulated devices behind a group listener: two hundred devices answering one query, a
// configuration followed by a new discovery, and the faults a device can show.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Interfaces/KivNetworkComm.h"
#include "sim/Simulator.h"
#include "support/DescriptorCheckedTest.h"
#include "support/RecordText.h"
#include "support/ScopedContainer.h"

namespace {

using kivtest::Bytes;
using kivtest::ScopedContainer;

constexpr UInt32 kHCP1 = 0x48435031;
const char kGroup[] = "127.0.0.2";

typedef std::pair<std::string, Bytes> Datagram; // the sender's address and the bytes

// A discovery answer parsed: the parse's code, then the record.
std::string Parsed(const Bytes &bytes) {
  ScopedContainer box;
  box.Fill(bytes);
  KivNetRecord record;
  const UInt32 code = ParseHCPResponse(kHCP1, box.handle(), 0x80000006, record);
  return std::to_string(code) + "|" + kivtest::RecordText(record);
}

// Devices on 127.0.0.40 and up behind a group listener on 127.0.0.2, on free ports, and the host
// side made of exported functions only. Parsing an HCP answer reads the host's default
// interface, so a host without one skips.
class UdpDiscovery : public kivtest::DescriptorCheckedTest {
protected:
  void SetUp() override {
    kivtest::DescriptorCheckedTest::SetUp();
    try {
      GetHostIPAddress();
    } catch (int) {
      GTEST_SKIP() << "this host has no default IPv4 interface";
    }
  }
  void TearDown() override {
    simulator.Stop();
    kivtest::DescriptorCheckedTest::TearDown();
  }

  void AddDevices(int count) {
    for (int n = 1; n <= count; ++n) {
      simulator.AddDevice(kivsim::MakeDeviceRecord(n, kivsim::AddressAfter("127.0.0.40", n - 1)));
    }
  }

  // Sends `message` from a new bound socket whose receives wait at most one second to `address`
  // (the group listener's HCP port unless told) and receives until `count` datagrams came or
  // `seconds` passed, keeping only the bytes so that the socket is drained as fast as answers
  // come; every failed receive must be a time-out. The test releases the handles through their
  // classes.
  std::vector<Datagram> Exchange(const ScopedContainer &message, std::size_t count, int seconds,
                                 std::string address = kGroup, int port = -1) {
    std::string any;
    const std::unique_ptr<KivUDPSocket> socket(static_cast<KivUDPSocket *>(OpenUDPSocket(0)));
    const std::unique_ptr<KivSocketAddress> from(
        static_cast<KivSocketAddress *>(CreateSocketAddress(any, 0))),
        to(static_cast<KivSocketAddress *>(
            CreateSocketAddress(address, port < 0 ? simulator.HcpPort() : port)));
    ScopedContainer box;
    int bytes = -1;
    EXPECT_TRUE(BindUDPSocket(socket.get()) == 0 &&
                SetSocketOptions(socket.get(), kSocketKindUDP, TIME_OUT, 1) == 0 &&
                SendTo(socket.get(), to.get(), message.handle(), 0, bytes) == 0);
    std::vector<Datagram> arrived;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (arrived.size() < count && std::chrono::steady_clock::now() < deadline) {
      const UInt32 code = RecvFrom(socket.get(), from.get(), box.handle(), 0, bytes);
      EXPECT_TRUE(code == 0 || code == 0x0A0000B6u) << code; // a time-out
      if (code == 0) {
        arrived.push_back({from->GetIPAddress(), box.bytes()});
      }
    }
    return arrived;
  }

  std::vector<Datagram> Discover(std::size_t count, int seconds) {
    CreateDiscovery(kHCP1, query.handle());
    return Exchange(query, count, seconds);
  }

  // Every device answers one group query once, from its own address, with its record.
  void ExpectEveryDeviceDiscovered(int seconds) {
    std::map<std::string, std::string> expected, parsed;
    for (int i = 0; i < simulator.DeviceCount(); ++i) {
      expected[simulator.Device(i).ipAddress] = "0|" + kivtest::RecordText(simulator.Device(i));
    }
    for (const auto &[from, bytes] : Discover(expected.size(), seconds)) {
      EXPECT_TRUE(parsed.emplace(from, Parsed(bytes)).second) << "two answers from " << from;
    }
    EXPECT_EQ(parsed, expected);
  }

  kivsim::Simulator simulator{kivsim::SimulatorOptions{0, 0, kGroup, false}}; // on free ports
  ScopedContainer query;
};

// All 200 answers (about 1.3 KB of receive buffer each on loopback) sent at once would overflow
// the host socket's default buffer (about 166 of them), and SO_RCVBUF cannot be set through the
// exported functions. So the devices spread their answers over 0.4 s, as on a real network; the
// host drains as fast as they come and parses afterwards. A configuration moves one device, and
// the next discovery finds it there.
TEST_F(UdpDiscovery, TwoHundredDevicesAnswerAgainAfterAConfigurationMovedOne) {
  AddDevices(200);
  for (int i = 0; i < 200; ++i) {
    simulator.SetFaults(i, {false, (i % 100) * 4, -1, false, false, 1}); // 100 pairs, 4 ms apart
  }
  simulator.Start();
  ExpectEveryDeviceDiscovered(20);

  ScopedContainer message, answer;
  std::string mac = "024B49560003", address = "127.0.0.250", netmask = "255.255.0.0",
              gateway = "127.0.0.1", password, unused;
  CreateIPConfig(kHCP1, mac, unused, unused, address, password, netmask, gateway, message.handle());
  const std::vector<Datagram> answers = Exchange(message, 1, 5, "127.0.0.42");
  ASSERT_EQ(answers.size(), 1u);
  answer.Fill(answers[0].second);
  KivNetRecord outcome;
  EXPECT_EQ(ParseHCPResponse(kHCP1, answer.handle(), 1, outcome), 0u);
  ASSERT_EQ(std::to_string(outcome.iResponse) + " " + simulator.Device(2).ipAddress + " " +
                simulator.Device(2).netmask,
            "0 127.0.0.250 255.255.0.0");
  ExpectEveryDeviceDiscovered(20);
}

// One group query to devices that each show one fault: every answer that comes either parses or
// gives the parse code with an empty record, a late one comes last, a silent device sends nothing.
TEST_F(UdpDiscovery, FaultyDevicesGiveAClearCodeOrNothing) {
  AddDevices(6);
  simulator.SetFaults(0, {false, 0, -1, true, false, 1});     // garbage
  simulator.SetFaults(1, {false, 0, -1, false, true, 1});     // a wrong MAC address
  simulator.SetFaults(2, {false, 0, 11, false, false, 1});    // cut in the header
  simulator.SetFaults(3, {false, 0, 60, false, false, 1});    // cut in the items
  simulator.SetFaults(4, {false, 1500, -1, false, false, 1}); // late
  simulator.SetFaults(5, {true, 0, -1, false, false, 1});     // silent
  simulator.Start();
  const std::vector<Datagram> answers = Discover(6, 4); // waits the whole time: one is silent
  ASSERT_EQ(answers.size(), 5u);
  EXPECT_EQ(answers.back().first, "127.0.0.44") << "the late answer comes last";
  kivsim::DeviceRecord wrongMac = simulator.Device(1);
  wrongMac.mac[5] ^= 0xFF;
  const std::string refused = std::to_string(0x0A0707A3) + "|||||||||||";
  std::map<std::string, std::string> parsed,
      expected = {{"127.0.0.40", refused},
                  {"127.0.0.41", "0|" + kivtest::RecordText(wrongMac)},
                  {"127.0.0.42", refused},
                  {"127.0.0.43", refused},
                  {"127.0.0.44", "0|" + kivtest::RecordText(simulator.Device(4))}};
  for (const auto &[from, bytes] : answers) {
    parsed[from] = Parsed(bytes);
  }
  EXPECT_EQ(parsed, expected);
}

// Each HBN3 request built by the library, answered by a device on its HBN3 port, read back by the
// matching parse function: the answer echoes the request's port information and channel.
TEST_F(UdpDiscovery, HBN3RequestsAreAnsweredAndParsed) {
  AddDevices(1);
  simulator.Start();
  constexpr UInt32 kHBN3 = 0x48424E33;
  char name[] = "\x04HOST";
  std::string pin = "1234";
  unsigned char id[6] = {0, 0x11, 0x22, 0x33, 0x44, 0x55};
  const auto status = [](HANDLE reply, std::string &text) {
    StatCacheResponse record;
    const UInt32 code = ParseStatusCacheResponse(kHBN3, reply, record);
    text = record.strAdapterUAA + " " + record.strAdapterIPAddr + " " + record.strPrinterID + " " +
           std::to_string(record.iPayloadLength) + " " + std::to_string(record.iChannelID);
    return code;
  };
  const auto info = [](UInt32 (*parse)(UInt32, HANDLE, HBNResponseInfo &)) {
    return [parse](HANDLE reply, std::string &text) {
      HBNResponseInfo record;
      const UInt32 code = parse(kHBN3, reply, record);
      text = std::to_string(record.iPortInfo) + " " + std::to_string(record.iChannelID) + " " +
             std::to_string(record.iStatus);
      return code;
    };
  };
  const struct {
    std::function<UInt32(HANDLE)> build;
    std::function<UInt32(HANDLE, std::string &)> parse;
    const char *expected;
  } requests[] = {
      {[](HANDLE m) { return CreatePing(kHBN3, 9, m); }, info(ParsePingResponse), "0 0 1"},
      {[](HANDLE m) { return CreateStatusCacheRequest(kHBN3, 1, 7, 9, m); }, status,
       "024b49560001 127.0.0.40 0101 32 7"},
      {[&](HANDLE m) { return CreateHostListEntry(kHBN3, false, 1, 3, 9, name, pin, id, 1252, m); },
       info(ParseHostListEntryResponse), "3 2 0"},
      {[](HANDLE m) { return CreateRequestScan(kHBN3, false, 3, 9, 0x0102030405060708ull, m); },
       info(ParseRequestScanResponse), "3 2 1"},
  };
  for (const auto &request : requests) {
    ScopedContainer message, reply;
    ASSERT_EQ(request.build(message.handle()), 0u);
    const std::vector<Datagram> answers =
        Exchange(message, 1, 3, "127.0.0.40", simulator.Hbn3Port());
    ASSERT_EQ(answers.size(), 1u) << request.expected;
    reply.Fill(answers[0].second);
    std::string text;
    EXPECT_EQ(request.parse(reply.handle(), text), 0u);
    EXPECT_EQ(text, request.expected);
  }
}

} // namespace
