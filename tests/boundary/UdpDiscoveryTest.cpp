// Discovery, device conversations and configuration end to end on loopback, through the
// exported functions only, against simulated devices: several devices behind a group listener,
// ping, status, host list and scan request, a configuration followed by a new discovery, the
// faults a device can show, and two hundred devices answering one query.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "Interfaces/KivNetworkComm.h"
#include "sim/Simulator.h"
#include "support/DescriptorCheckedTest.h"
#include "support/ScopedContainer.h"

namespace {

using kivtest::Bytes;
using kivtest::ScopedContainer;

constexpr UInt32 kHBN3 = 0x48424E33;
constexpr UInt32 kHCP1 = 0x48435031;
constexpr UInt32 kDiscoveryAnswer = 0x80000006;
constexpr UInt32 kHcpParseFailed = 0x0A0707A3;
const char kGroup[] = "127.0.0.2";
const char kBase[] = "127.0.0.40";

struct Datagram {
  std::string from;
  Bytes bytes;
};

// A discovery answer parsed: the code of the parse, then the record's fields, as one line of text.
std::string Parsed(const Bytes &bytes) {
  ScopedContainer box;
  box.Fill(bytes);
  KivNetRecord r;
  const UInt32 code = ParseHCPResponse(kHCP1, box.handle(), kDiscoveryAnswer, r);
  std::string text = std::to_string(code) + "|" + r.strIPAddr + "|" + r.strIPNetMask + "|" +
                     r.strIPGateway + "|" + r.strIPName + "|" + r.strMacUaa + "|" + r.strMacLaa +
                     "|" + r.strAdapterType + "|" + r.strAdapterName + "|" + r.strIPAddrSrc + "|" +
                     r.strOEMByte + "|" + r.strPwdSet;
  for (const DeviceSpecific &port : r.vecDeviceSpecific) {
    text += "|" + std::to_string(port.iFlag) + " " + std::to_string(port.iPortInfo) + " " +
            port.strCPDAttached + " " + port.strProdID + " " + port.strPrintrVidPid;
  }
  return text;
}

// What Parsed gives for the discovery answer of device `d`.
std::string Announced(const kivsim::DeviceRecord &d) {
  char mac[16];
  std::snprintf(mac, sizeof mac, "ET%02x%02x%02x%02x%02x%02x", d.mac[0], d.mac[1], d.mac[2],
                d.mac[3], d.mac[4], d.mac[5]);
  std::string text = "0|" + d.ipAddress + "|" + d.netmask + "|" + d.gateway + "|" + d.ipName + "|" +
                     mac + "|" + d.macLaa + "|" + d.adapterType + "|" + d.adapterName + "|" +
                     d.addressSource + "|" + d.oemByte + "|" + (d.passwordSet ? "TRUE" : "FALSE");
  for (const kivsim::PortRecord &port : d.ports) {
    const std::string number = std::to_string(port.number);
    text += "|1 " + number + " " + number + " 1 " + port.productText + " " + port.vidPidText;
  }
  return text;
}

// The host side, made of exported functions only (a bound UDP socket whose receives wait at most
// one second, released through its class at the end), and devices on 127.0.0.40 and up behind a
// group listener on 127.0.0.2, on free ports. Parsing an HCP answer reads the host's default
// interface, so a host without one skips.
class UdpDiscovery : public kivtest::DescriptorCheckedTest {
protected:
  UdpDiscovery() : mSocket(OpenUDPSocket(0)), mFrom(CreateSocketAddress(mText, 0)) {
    EXPECT_EQ(BindUDPSocket(mSocket), 0u);
    EXPECT_EQ(SetSocketOptions(mSocket, kSocketKindUDP, TIME_OUT, 1), 0u);
    kivsim::SimulatorOptions options;
    options.hcpPort = 0;
    options.groupAddress = kGroup;
    simulator.reset(new kivsim::Simulator(options));
  }
  ~UdpDiscovery() override {
    CloseUDPSocket(mSocket);
    delete static_cast<KivUDPSocket *>(VerifySocketHandle(mSocket, kSocketKindUDP));
    delete VerifySockAddressHandle(mFrom);
  }
  void SetUp() override {
    try {
      GetHostIPAddress();
    } catch (int) {
      GTEST_SKIP() << "this host has no default IPv4 interface";
    }
    kivtest::DescriptorCheckedTest::SetUp();
  }
  void TearDown() override {
    if (!IsSkipped()) {
      simulator->Stop();
      kivtest::DescriptorCheckedTest::TearDown();
    }
  }

  kivsim::DeviceRecord Add() {
    const int n = simulator->DeviceCount() + 1;
    return kivsim::MakeDeviceRecord(n, kivsim::AddressAfter(kBase, n - 1));
  }

  int IndexOf(const std::string &address) const {
    for (int i = 0; i < simulator->DeviceCount(); ++i) {
      if (simulator->Device(i).ipAddress == address) {
        return i;
      }
    }
    throw std::runtime_error("an answer from " + address);
  }

  void Send(std::string address, int port, const ScopedContainer &message) {
    HANDLE to = CreateSocketAddress(address, port);
    int sent = -1;
    EXPECT_EQ(SendTo(mSocket, to, message.handle(), 0, sent), 0u);
    delete VerifySockAddressHandle(to);
  }

  void Discover() {
    ScopedContainer query;
    ASSERT_EQ(CreateDiscovery(kHCP1, query.handle()), 0u);
    Send(kGroup, simulator->HcpPort(), query);
  }

  // Receives until `count` datagrams arrived or `seconds` passed, keeping only the bytes so that
  // the socket is drained as fast as answers come; every failed receive must be a time-out.
  std::vector<Datagram> Collect(std::size_t count, int seconds) {
    std::vector<Datagram> arrived;
    ScopedContainer box;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (arrived.size() < count && std::chrono::steady_clock::now() < deadline) {
      int received = 0;
      const UInt32 code = RecvFrom(mSocket, mFrom, box.handle(), 0, received);
      if (code == 0) {
        arrived.push_back({VerifySockAddressHandle(mFrom)->GetIPAddress(), box.bytes()});
      } else {
        EXPECT_EQ(code, 0x0A0000B6u);
        ++timeOuts;
      }
    }
    return arrived;
  }

  // Sends `request` to `address` and puts the one answer, which must come from there, in `answer`.
  void Ask(const std::string &address, int port, const ScopedContainer &request,
           ScopedContainer &answer) {
    Send(address, port, request);
    const std::vector<Datagram> answers = Collect(1, 5);
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(answers[0].from, address);
    answer.Fill(answers[0].bytes);
  }

  // Sends one discovery query to the group; every device answers once, from its own address,
  // with a record that describes it.
  void ExpectEveryDeviceDiscovered(int seconds) {
    Discover();
    const std::vector<Datagram> answers = Collect(simulator->DeviceCount(), seconds);
    ASSERT_EQ(answers.size(), static_cast<std::size_t>(simulator->DeviceCount()));
    std::set<int> seen;
    for (const Datagram &answer : answers) {
      const int index = IndexOf(answer.from);
      EXPECT_TRUE(seen.insert(index).second) << "two answers from " << answer.from;
      EXPECT_EQ(Parsed(answer.bytes), Announced(simulator->Device(index)));
    }
  }

  std::unique_ptr<kivsim::Simulator> simulator;
  int timeOuts = 0;

private:
  std::string mText;
  HANDLE mSocket;
  HANDLE mFrom;
};

TEST_F(UdpDiscovery, GroupDiscoveryFindsEveryDeviceAgainAfterAConfigurationMovedOne) {
  simulator->AddDevice(Add());
  simulator->AddDevice(Add());
  kivsim::DeviceRecord other = Add();
  other.ports.push_back(kivsim::PortRecord{4, true, "Office Jet-like 3000 series", "04F9:0333"});
  other.netmask = "255.255.255.0";
  other.password = "s3cret";
  other.passwordSet = true;
  simulator->AddDevice(other);
  simulator->Start();
  ExpectEveryDeviceDiscovered(5);

  // A wrong password is refused and the device stays; the right one moves it.
  ScopedContainer message, answer;
  for (std::string password : {"nope", "s3cret"}) {
    SCOPED_TRACE(password);
    std::string mac = "024B49560003", address = "127.0.0.70", netmask = "255.255.0.0",
                gateway = "127.0.0.1", unused;
    ASSERT_EQ(CreateIPConfig(kHCP1, mac, unused, unused, address, password, netmask, gateway,
                             message.handle()),
              0u);
    Ask(other.ipAddress, simulator->HcpPort(), message, answer);
    KivNetRecord outcome;
    ASSERT_EQ(ParseHCPResponse(kHCP1, answer.handle(), 1, outcome), 0u);
    EXPECT_EQ(outcome.iResponse == 0, password == "s3cret");
  }
  ASSERT_EQ(simulator->Device(2).ipAddress, "127.0.0.70");
  ASSERT_EQ(simulator->Device(2).netmask, "255.255.0.0");
  ExpectEveryDeviceDiscovered(5);
}

TEST_F(UdpDiscovery, PingStatusHostListAndScanRequestOfOneDevice) {
  kivsim::DeviceRecord device = Add();
  device.hostListStatus = 0x01020304;
  simulator->AddDevice(device);
  simulator->Start();
  const int port = simulator->Hbn3Port();
  ScopedContainer request, answer;

  ASSERT_EQ(CreatePing(kHBN3, 0x1234, request.handle()), 0u);
  Ask(device.ipAddress, port, request, answer);
  HBNResponseInfo pong, listed, scanned;
  EXPECT_EQ(ParsePingResponse(kHBN3, answer.handle(), pong), 0u);
  EXPECT_EQ(pong.iStatus, 1u);

  ASSERT_EQ(CreateStatusCacheRequest(kHBN3, 3, 1, 99, request.handle()), 0u);
  Ask(device.ipAddress, port, request, answer);
  StatCacheResponse cache;
  EXPECT_EQ(ParseStatusCacheResponse(kHBN3, answer.handle(), cache), 0u);
  EXPECT_EQ(cache.iPortInfo, 3u);
  EXPECT_EQ(cache.strAdapterIPAddr, device.ipAddress);
  EXPECT_EQ(cache.strPayload.size(), 32u);

  std::string pin = "1234";
  unsigned char id[6] = {1, 2, 3, 4, 5, 6};
  char name[] = "\x04host";
  ASSERT_EQ(CreateHostListEntry(kHBN3, false, 1, 2, 77, name, pin, id, 0, request.handle()), 0u);
  Ask(device.ipAddress, port, request, answer);
  EXPECT_EQ(ParseHostListEntryResponse(kHBN3, answer.handle(), listed), 0u);
  EXPECT_EQ(listed.iStatus, 0x01020304u);

  ASSERT_EQ(CreateRequestScan(kHBN3, false, 5, 78, 0x0807060504030201ull, request.handle()), 0u);
  Ask(device.ipAddress, port, request, answer);
  EXPECT_EQ(ParseRequestScanResponse(kHBN3, answer.handle(), scanned), 0u);
  EXPECT_EQ(scanned.iStatus, 1u);
  EXPECT_EQ(scanned.iPortInfo, 5u);
}

// One group query to devices that each show one fault: every answer that comes either parses or
// gives the parse code, a late one comes after a timed-out receive, a silent device sends nothing.
TEST_F(UdpDiscovery, FaultyDevicesGiveAClearCodeOrNothing) {
  kivsim::Faults faults[6];
  faults[0].garbage = true;
  faults[1].wrongMac = true;
  faults[2].truncateTo = 11;
  faults[3].truncateTo = 60;
  faults[4].delayMs = 1500;
  faults[5].silent = true;
  for (int i = 0; i < 6; ++i) {
    simulator->AddDevice(Add());
    simulator->SetFaults(i, faults[i]);
  }
  simulator->Start();
  Discover();
  std::vector<Datagram> answers = Collect(5, 6);
  ASSERT_EQ(answers.size(), 5u);
  EXPECT_EQ(answers.back().from, simulator->Device(4).ipAddress) << "the late answer comes last";
  EXPECT_GE(timeOuts, 1);
  EXPECT_TRUE(Collect(1, 1).empty()) << "the silent device";
  // A refused answer gives the parse code and leaves the record empty.
  const std::string refused = std::to_string(kHcpParseFailed) + "|||||||||||";
  for (const Datagram &answer : answers) {
    const int index = IndexOf(answer.from);
    kivsim::DeviceRecord device = simulator->Device(index);
    device.mac[5] ^= faults[index].wrongMac ? 0xFF : 0;
    const bool whole = faults[index].truncateTo < 0 && !faults[index].garbage;
    EXPECT_EQ(Parsed(answer.bytes), whole ? Announced(device) : refused) << answer.from;
  }
}

// Devices that answer at once put all 200 answers (about 1.3 KB of receive buffer each on
// loopback) into the host's socket within milliseconds; the default buffer holds about 166 and
// SO_RCVBUF cannot be set through the exported functions. So the devices spread their answers
// over 0.4 s, as on a real network; the host drains as fast as they come and parses afterwards.
TEST_F(UdpDiscovery, TwoHundredDevicesAnswerOneQueryAndEveryRecordParses) {
  for (int i = 0; i < 200; ++i) {
    simulator->AddDevice(Add());
    kivsim::Faults spread;
    spread.delayMs = (i % 100) * 4; // 100 pairs, 4 ms apart
    simulator->SetFaults(i, spread);
  }
  simulator->Start();
  ExpectEveryDeviceDiscovered(20);
}

} // namespace
