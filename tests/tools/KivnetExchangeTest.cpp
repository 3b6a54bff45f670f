// kivnet's exchanges against simulated devices and scripted peers on loopback: each command, the
// wait kept to its tenths, unreadable and cut answers reported as such, and answers from the
// wrong sender or for another device passed over. No descriptor is left open afterwards.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "Interfaces/KivNetworkComm.h"
#include "sim/DeviceProtocol.h"
#include "sim/Simulator.h"
#include "support/DescriptorCheckedTest.h"
#include "support/RecordText.h"
#include "tools/kivnet/Exchange.h"
#include "tools/kivnet/ResultCodes.h"

namespace {

typedef std::vector<std::uint8_t> Bytes;

// What a failed exchange says; empty for a success.
std::string Said(const kivnet::Failure &failure) {
  return failure.failed() ? failure.Describe() : "";
}

bool HostHasDefaultInterface() {
  try { // parsing an HCP answer reads the host's default interface
    GetHostIPAddress();
    return true;
  } catch (int) {
    return false;
  }
}

class KivnetExchange : public kivtest::DescriptorCheckedTest {
protected:
  // A simulator with one device at 127.0.7.20 (its ports free ones) and a line aimed at it.
  void StartOneDevice(const kivsim::Faults &faults, bool hbn3) {
    mSimulator.reset(new kivsim::Simulator({0, 0, "", false}));
    mSimulator->AddDevice(kivsim::MakeDeviceRecord(1, "127.0.7.20"));
    mSimulator->SetFaults(0, faults);
    mSimulator->Start();
    mLine.target = "127.0.7.20";
    mLine.port = hbn3 ? mSimulator->Hbn3Port() : mSimulator->HcpPort();
  }
  void TearDown() override {
    mSimulator.reset();
    kivtest::DescriptorCheckedTest::TearDown();
  }

  std::unique_ptr<kivsim::Simulator> mSimulator;
  kivnet::CommandLine mLine;
};

// Behind the group listener 127.0.0.2: device 1 at 127.0.0.30, which sends garbage until its
// configuration, and device 2 at 127.0.0.31, which sends every answer three times.
TEST_F(KivnetExchange, EachCommandAgainstSimulatedDevices) {
  if (!HostHasDefaultInterface()) {
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
  line.waitTenths = 5;

  struct Heard : kivnet::DiscoveryListener {
    void Found(const kivnet::FoundDevice &device) override { found += device.from + " "; }
    void Unread(const kivnet::UnreadAnswer &answer) override { unread += answer.from + " "; }
    std::string found, unread;
  } heard;
  kivnet::Discovery found;
  ASSERT_EQ(Said(kivnet::Discover(line, found, &heard)), "");
  ASSERT_TRUE(found.devices.size() == 1 && found.unread.size() == 1)
      << found.devices.size() << " device(s), " << found.unread.size() << " unread";
  EXPECT_EQ(std::to_string(found.datagrams) + " " + std::to_string(found.duplicates) + " " +
                found.devices[0].from + " " + found.unread[0].from + " " +
                kivnet::CodeHex(found.unread[0].code),
            "4 2 127.0.0.31 127.0.0.30 0x0A0707A3");
  EXPECT_EQ(heard.found + "/ " + heard.unread, "127.0.0.31 / 127.0.0.30 ");
  EXPECT_EQ(kivtest::RecordText(found.devices[0].record), kivtest::RecordText(simulator.Device(1)));

  simulator.SetFaults(0, kivsim::Faults());
  line.target = "127.0.0.30";
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

// Two devices, the second answering 0.3 s late: each is handed on as it answers, not at the
// end, and the wait of 0.5 s ends when it should, not a whole second later because a receive
// time-out restarted with the answer.
TEST_F(KivnetExchange, DevicesAreListedAsTheyAnswerAndTheWaitEndsOnTime) {
  if (!HostHasDefaultInterface()) {
    GTEST_SKIP() << "this host has no default IPv4 interface";
  }
  kivsim::Simulator simulator({0, 0, "127.0.7.30", false});
  simulator.AddDevice(kivsim::MakeDeviceRecord(1, "127.0.7.31"));
  simulator.AddDevice(kivsim::MakeDeviceRecord(2, "127.0.7.32"));
  kivsim::Faults late;
  late.delayMs = 300;
  simulator.SetFaults(1, late);
  simulator.Start();
  mLine.target = "127.0.7.30";
  mLine.port = simulator.HcpPort();
  mLine.waitTenths = 5;
  struct Heard : kivnet::DiscoveryListener {
    void Found(const kivnet::FoundDevice &device) override {
      devices += device.from + " ";
      seconds.push_back(
          std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    void Unread(const kivnet::UnreadAnswer &) override {}
    std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    std::string devices;
    std::vector<double> seconds;
  } heard;
  kivnet::Discovery found;
  ASSERT_EQ(Said(kivnet::Discover(mLine, found, &heard)), "");
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - heard.start).count();
  ASSERT_EQ(heard.devices, "127.0.7.31 127.0.7.32 ");
  EXPECT_LT(heard.seconds[0], heard.seconds[1] - 0.1); // the first did not wait for the second
  EXPECT_GE(seconds, 0.5);
  EXPECT_LT(seconds, 1.2); // generous; a restarted whole-second time-out ends at 1.3 s
}

// A device that answers with something unreadable is reported as such, never as silent.
TEST_F(KivnetExchange, UnreadableAndCutAnswersAreReportedAsSuch) {
  kivsim::Faults garbage, short10, short30, short50, silent;
  garbage.garbage = true;
  short10.truncateTo = 10;
  short30.truncateTo = 30;
  short50.truncateTo = 50;
  silent.silent = true;
  const struct {
    bool status; // status request, else ping
    kivsim::Faults faults;
    kivnet::FailureKind kind;
    const char *said;
  } cases[] = {
      {false, garbage, kivnet::FailureKind::kUnreadable,
       "no ping reply could be read: 127.0.7.20 sent 24 bytes that are no HBN3 message"},
      {false, short10, kivnet::FailureKind::kUnreadable,
       "no ping reply could be read: 127.0.7.20 sent 10 bytes, fewer than an HBN3 header's 24"},
      {true, garbage, kivnet::FailureKind::kUnreadable,
       "no status answer could be read: 127.0.7.20 sent 72 bytes that are no HBN3 message"},
      {true, short30, kivnet::FailureKind::kUnreadable,
       "the status answer from 127.0.7.20 could not be read (30 bytes): "
       "ParseStatusCacheResponse returned 0x0A0708A3: the status answer could not be read "
       "(COPY_ERROR)"},
      {true, short50, kivnet::FailureKind::kCutShort,
       "the status answer from 127.0.7.20 was cut short: it declares 32 status bytes and 10 "
       "arrived"},
      {false, silent, kivnet::FailureKind::kNoAnswer, "no ping reply from 127.0.7.20:"},
  };
  for (const auto &c : cases) {
    StartOneDevice(c.faults, true);
    mLine.waitTenths = 3;
    kivnet::PingAnswer ping;
    kivnet::StatusAnswer status;
    const kivnet::Failure failure =
        c.status ? kivnet::Status(mLine, status) : kivnet::Ping(mLine, ping);
    EXPECT_EQ(failure.kind, c.kind) << Said(failure);
    EXPECT_EQ(Said(failure).substr(0, std::string(c.said).size()), c.said);
    mSimulator.reset();
  }
}

// ---- Scripted peers: exact datagrams from chosen loopback addresses ----------------------------

// A UDP socket bound to `address` (a free port) that receives and sends whole datagrams.
class Peer {
public:
  explicit Peer(const char *address) : mSocket(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in self = {};
    self.sin_family = AF_INET;
    inet_pton(AF_INET, address, &self.sin_addr);
    socklen_t length = sizeof self;
    mBound = bind(mSocket, reinterpret_cast<sockaddr *>(&self), length) == 0 &&
             getsockname(mSocket, reinterpret_cast<sockaddr *>(&self), &length) == 0;
    mPort = ntohs(self.sin_port);
  }
  ~Peer() { close(mSocket); }
  Peer(const Peer &) = delete;
  Peer &operator=(const Peer &) = delete;
  bool Bound() const { return mBound; }
  int Port() const { return mPort; }

  // The next datagram within 5 s (its sender in `from`), or nothing.
  Bytes Receive(sockaddr_in &from) {
    pollfd watched = {mSocket, POLLIN, 0};
    if (poll(&watched, 1, 5000) != 1) {
      return Bytes();
    }
    Bytes data(2048);
    socklen_t length = sizeof from;
    const ssize_t n = recvfrom(mSocket, data.data(), data.size(), 0,
                               reinterpret_cast<sockaddr *>(&from), &length);
    data.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
    return data;
  }

  void Send(const Bytes &data, const sockaddr_in &to) {
    sendto(mSocket, data.data(), data.size(), 0, reinterpret_cast<const sockaddr *>(&to),
           sizeof to);
  }

private:
  int mSocket;
  bool mBound = false;
  int mPort = 0;
};

void PutBE32(Bytes &out, std::uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8) {
    out.push_back(static_cast<std::uint8_t>(value >> shift));
  }
}

// An HBN3 answer: header with `command` and the payload length, then the payload.
Bytes Hbn3Answer(std::uint32_t command, const Bytes &payload) {
  Bytes out = {'H', 'B', 'N', '3'};
  PutBE32(out, 0);       // port information
  PutBE32(out, 0);       // channel
  PutBE32(out, 1234);    // time stamp
  PutBE32(out, command); // the request's command with the reply bit
  PutBE32(out, static_cast<std::uint32_t>(payload.size()));
  out.insert(out.end(), payload.begin(), payload.end());
  return out;
}

// A status-answer payload declaring `declared` status bytes and carrying `carried` of them.
Bytes StatusPayload(std::uint32_t declared, std::size_t carried) {
  Bytes out = {0x02, 0x4B, 0x49, 0x56, 0x00, 0x07, 0, 0, 127, 0, 7, 21};
  PutBE32(out, declared);
  out.resize(out.size() + carried, 0x5A);
  return out;
}

// A configuration answer naming `mac` with result byte `result` and the three address items,
// each a length byte and KEY=value.
Bytes ConfigAnswer(const Bytes &mac, std::uint8_t result) {
  Bytes out = {'H', 'C', 'P', '1', 0x00, 0x01};
  out.insert(out.end(), mac.begin(), mac.end());
  out.resize(out.size() + 6 + 4 + 2, 0);
  out.insert(out.end(), {0x80, 0x01, result, 0x00, 0x00, 0x00});
  Bytes items;
  for (const std::string item :
       {"IPADDRESS=127.0.7.60", "IPNETMASK=255.0.0.0", "IPGATEWAY=127.0.0.1"}) {
    items.push_back(static_cast<std::uint8_t>(item.size()));
    items.insert(items.end(), item.begin(), item.end());
  }
  PutBE32(out, static_cast<std::uint32_t>(items.size()));
  out.insert(out.end(), items.begin(), items.end());
  return out;
}

class KivnetScriptedPeers : public kivtest::DescriptorCheckedTest {};

// kivnet pings the device at 127.0.7.1; a reply from 127.0.7.2 and an empty datagram from the
// device itself come first. Only a whole reply from the device counts; without one, the empty
// datagram is reported as unreadable, not taken as the reply.
TEST_F(KivnetScriptedPeers, PingTakesOnlyAWholeReplyFromTheAskedDevice) {
  for (bool deviceReplies : {true, false}) {
    Peer device("127.0.7.1"), stray("127.0.7.2");
    ASSERT_TRUE(device.Bound() && stray.Bound());
    kivnet::CommandLine line;
    line.target = "127.0.7.1";
    line.port = device.Port();
    line.waitTenths = deviceReplies ? 50 : 5;
    kivnet::PingAnswer answer;
    auto pinging = std::async(std::launch::async, [&] { return kivnet::Ping(line, answer); });
    sockaddr_in kivnet = {};
    const Bytes ping = device.Receive(kivnet);
    ASSERT_EQ(ping.size(), 24u);
    stray.Send(Hbn3Answer(0x80000003, {}), kivnet);
    device.Send({}, kivnet);
    if (deviceReplies) {
      device.Send(Hbn3Answer(0x80000003, {}), kivnet);
    }
    const kivnet::Failure failure = pinging.get();
    if (deviceReplies) {
      EXPECT_EQ(Said(failure), "");
      EXPECT_EQ(answer.from + " " + std::to_string(answer.info.iStatus), "127.0.7.1 1");
    } else {
      EXPECT_EQ(Said(failure), "no ping reply could be read: 127.0.7.1 sent 0 bytes, fewer than "
                               "an HBN3 header's 24");
    }
  }
}

// A status answer of exactly the receive limit is flagged as possibly cut; one that declares more
// status bytes than arrived is cut short.
TEST_F(KivnetScriptedPeers, StatusAnswerAtTheReceiveLimit) {
  const struct {
    std::uint32_t declared;
    const char *said;
  } cases[] = {
      {1024 - 40, ""},
      {2000, "the status answer from 127.0.7.3 was cut short: it declares 2000 status bytes and "
             "984 arrived (the receive limit is 1024 bytes)"},
  };
  for (const auto &c : cases) {
    Peer device("127.0.7.3");
    ASSERT_TRUE(device.Bound());
    kivnet::CommandLine line;
    line.target = "127.0.7.3";
    line.port = device.Port();
    line.waitTenths = 50;
    kivnet::StatusAnswer answer;
    auto asking = std::async(std::launch::async, [&] { return kivnet::Status(line, answer); });
    sockaddr_in kivnet = {};
    ASSERT_EQ(device.Receive(kivnet).size(), 24u);
    device.Send(Hbn3Answer(0x80000001, StatusPayload(c.declared, 1024 - 40)), kivnet);
    const kivnet::Failure failure = asking.get();
    EXPECT_EQ(Said(failure), c.said);
    if (!failure.failed()) {
      EXPECT_TRUE(answer.possiblyCut);
      EXPECT_EQ(answer.status.iPayloadLength, 1024 - 40);
    }
  }
}

// set-ip sent to 127.0.7.4 for the MAC 02:4B:49:56:00:07: an answer naming that MAC from
// 127.0.7.5, an unreadable datagram and an answer naming another MAC from the device are passed
// over; the device's own answer is taken. The new address is taken as a sender too.
TEST_F(KivnetScriptedPeers, SetIpTakesTheAnswerThatNamesTheMacFromTheAskedDevice) {
  if (!HostHasDefaultInterface()) {
    GTEST_SKIP() << "this host has no default IPv4 interface"; // the message carries its address
  }
  const Bytes mac = {0x02, 0x4B, 0x49, 0x56, 0x00, 0x07};
  const Bytes otherMac = {0x02, 0x4B, 0x49, 0x56, 0x00, 0x08};
  for (const char *answering : {"127.0.7.4", "127.0.7.60"}) {
    Peer device("127.0.7.4"), stray("127.0.7.5"), moved("127.0.7.60");
    ASSERT_TRUE(device.Bound() && stray.Bound() && moved.Bound());
    kivnet::CommandLine line;
    line.target = "127.0.7.4";
    line.port = device.Port();
    line.waitTenths = 50;
    line.mac = "024B49560007";
    line.address = "127.0.7.60";
    line.netmask = "255.0.0.0";
    line.gateway = "127.0.0.1";
    kivnet::ConfigAnswer answer;
    auto configuring = std::async(std::launch::async, [&] { return kivnet::SetIp(line, answer); });
    sockaddr_in kivnet = {};
    const Bytes request = device.Receive(kivnet);
    ASSERT_GE(request.size(), 34u);
    EXPECT_EQ(Bytes(request.begin() + 6, request.begin() + 12), mac);
    stray.Send(ConfigAnswer(mac, 0), kivnet);
    device.Send({0xFF, 0x00, 0x01}, kivnet);
    device.Send(ConfigAnswer(otherMac, 0), kivnet);
    (std::string(answering) == "127.0.7.4" ? device : moved).Send(ConfigAnswer(mac, 0), kivnet);
    EXPECT_EQ(Said(configuring.get()), "");
    EXPECT_EQ(answer.from + " " + answer.record.strIPAddr, std::string(answering) + " 127.0.7.60");
  }
}

// Discovery answered by one scripted peer in two rounds, each sent at once and taken in before
// any is parsed: a run of receives ends at an empty datagram (which the descriptor reports as no
// bytes) and the next wait takes it; every datagram is parsed from the bytes it brought, also
// when its container held an earlier one; a repeated answer is counted, not listed.
TEST_F(KivnetScriptedPeers, DiscoveryReadsEveryDatagramOfARunFromItsOwnBytes) {
  if (!HostHasDefaultInterface()) {
    GTEST_SKIP() << "this host has no default IPv4 interface";
  }
  Peer peer("127.0.7.6");
  ASSERT_TRUE(peer.Bound());
  kivnet::CommandLine line;
  line.target = "127.0.7.6";
  line.port = peer.Port();
  line.waitTenths = 10;
  kivnet::Discovery found;
  auto discovering =
      std::async(std::launch::async, [&] { return kivnet::Discover(line, found, nullptr); });
  sockaddr_in kivnet = {};
  const Bytes query = peer.Receive(kivnet);
  ASSERT_EQ(query.size(), 41u);
  const auto answer = [&](int number) {
    return kivsim::DiscoveryAnswer(
        kivsim::MakeDeviceRecord(number, "127.0.7." + std::to_string(40 + number)),
        static_cast<std::uint16_t>((query[0] << 8) | query[1]), false);
  };
  for (const Bytes &datagram : {answer(1), Bytes(), answer(2), Bytes{0xFF, 0x00, 0x01}}) {
    peer.Send(datagram, kivnet);
  }
  // Parsed after 50 ms without arrivals: the second round reuses the containers of the first.
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  for (const Bytes &datagram : {answer(3), answer(1), answer(4)}) {
    peer.Send(datagram, kivnet);
  }
  ASSERT_EQ(Said(discovering.get()), "");
  std::string listed, unread;
  for (const kivnet::FoundDevice &device : found.devices) {
    listed += device.record.strIPAddr + "/" + device.record.strMacUaa + " ";
  }
  for (const kivnet::UnreadAnswer &datagram : found.unread) {
    unread += std::to_string(datagram.length) + " ";
  }
  EXPECT_EQ(listed, "127.0.7.41/ET024b49560001 127.0.7.42/ET024b49560002 127.0.7.43/ET024b49560003 "
                    "127.0.7.44/ET024b49560004 ");
  EXPECT_EQ(unread + std::to_string(found.datagrams) + " " + std::to_string(found.duplicates),
            "0 3 7 1");
}

} // namespace
