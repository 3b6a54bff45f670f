// The device simulator's wire shapes and fault switches, spoken to over loopback with raw sockets
// and raw bytes; the library's own discovery tests lean on everything else it does.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <set>
#include <string>
#include <vector>

#include "sim/DatagramSocket.h"
#include "sim/Simulator.h"
#include "support/TestSupport.h"

using kivtest::Bytes;
using kivtest::Hex;
using kivtest::Join;
using kivtest::Text;
using kivtest::ToHex;

namespace {

// The host's discovery query (transaction identifier 1234), byte 12 as hosts send it (00).
const Bytes kQuery = Hex("1234 0000 0001 0000 0000 0000 00 5F686F73742D636F6E666967 04 5F756470"
                         "05 6C6F63616C 00 0021 0001");
const Bytes kPing = Hex("48424E33 00000001 00000000 00000007 00000003 00000000");
const Bytes kPingReply = Hex("48424E33 00000001 00000000 00000007 80000003 00000000");
const std::string kAddress = "127.0.0.20";

// The host's side: a UDP socket on 127.0.0.1 with room for many answers.
struct Peer {
  kivsim::DatagramSocket socket{"127.0.0.1", 0};
  std::string from; // the last answer's sender; empty when none came
  Peer() {
    const int size = 4 << 20;
    setsockopt(socket.Descriptor(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
  }
  void Send(const std::string &address, std::uint16_t port, const Bytes &bytes) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    to.sin_addr.s_addr = inet_addr(address.c_str());
    EXPECT_TRUE(socket.SendTo(bytes.data(), bytes.size(), to));
  }
  Bytes Receive(int waitMs = 2000) {
    Bytes bytes(65536);
    pollfd entry{socket.Descriptor(), POLLIN, 0};
    sockaddr_in sender{};
    const long count =
        poll(&entry, 1, waitMs) != 1 ? -1 : socket.ReceiveFrom(bytes.data(), bytes.size(), sender);
    bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    from = count >= 0 ? inet_ntoa(sender.sin_addr) : "";
    return bytes;
  }
};

// The TXT items of a discovery answer, each followed by "|"; checks the data length too.
std::string Items(const Bytes &answer) {
  std::size_t at = 12;
  while (at < answer.size() && answer[at] != 0) {
    at += 1 + answer[at];
  }
  at += 11; // end of name, type, class, TTL, data length
  if (at > answer.size() ||
      static_cast<std::size_t>((answer[at - 2] << 8) | answer[at - 1]) != answer.size() - at) {
    return "framing: " + ToHex(answer);
  }
  std::string items;
  for (; at < answer.size() && at + 1 + answer[at] <= answer.size(); at += 1 + answer[at]) {
    items += std::string(answer.begin() + at + 1, answer.begin() + at + 1 + answer[at]) + "|";
  }
  return items;
}

// `text` after its length in `width` big-endian bytes.
Bytes Sized(int width, const Bytes &text) {
  Bytes out;
  for (int shift = 8 * (width - 1); shift >= 0; shift -= 8) {
    out.push_back(static_cast<unsigned char>(text.size() >> shift));
  }
  return Join({out, text});
}

kivsim::SimulatorOptions Options(const std::string &group) {
  kivsim::SimulatorOptions options;
  options.hcpPort = 0;
  options.groupAddress = group;
  return options;
}

// Device 1 at 127.0.0.20, with a password, a detached second port and a numbered status block.
class SimulatorTest : public testing::Test {
protected:
  void SetUp() override {
    kivsim::DeviceRecord record = kivsim::MakeDeviceRecord(1, kAddress);
    record.password = "secret";
    record.passwordSet = true;
    record.ports.push_back({2, false, "Scanner \"Y\"", "0002:0003"});
    record.status = Hex("000102030405060708090A0B0C0D0E0F101112131415161718191A1B1C1D");
    record.hostListStatus = 2;
    simulator.AddDevice(record);
    simulator.Start();
  }
  kivsim::Simulator simulator{Options("")};
  Peer peer;
};

TEST_F(SimulatorTest, DiscoveryAnswerCarriesTheItemsAndTheBitReversedMac) {
  peer.Send(kAddress, simulator.HcpPort(), kQuery);
  const Bytes answer = peer.Receive();
  EXPECT_EQ(peer.from, kAddress);
  const Bytes head = Hex("1234 8400 0000 0001 0000 0000 10 6B69762D303234623439353630303031"
                         "0C 5F686F73742D636F6E666967 04 5F756470 05 6C6F63616C 00"
                         "0010 0001 00000078");
  ASSERT_GT(answer.size(), head.size());
  EXPECT_EQ(ToHex(Bytes(answer.begin(), answer.begin() + head.size())), ToHex(head));
  EXPECT_EQ(Items(answer),
            "IPADDRESS=127.0.0.20|IPNETMASK=255.0.0.0|IPGATEWAY=127.0.0.1|PASSWORDSET=true|"
            "IPNAME=\"kivsim-1\"|MACLAA=\"000000000000\"|MACUAA=\"40D2926A0080\"|"
            "ADAPTERTYPE=\"ethernet\"|IPADDRSOURCE=\"static\"|OEMBYTE=\"0\"|"
            "ADAPTERNAME=\"KivSim adapter 1\"|STRID=1 \"KivSim Printer 1\"|STRID=2 \"Scanner 'Y'\"|"
            "PRINTERVIDPID=1 \"FFFF:0001\"|PRINTERVIDPID=2 \"0002:0003\"|CPDATTACHED=1 1|"
            "CPDATTACHED=2 0|");
}

TEST_F(SimulatorTest, ConfigurationIsAcceptedRefusedOrIgnoredAndMovesTheDevice) {
  const std::string newAddresses =
      "IPADDRESS 127.0.0.99\nIPNETMASK 255.255.0.0\nIPGATEWAY 127.0.0.1\n";
  const struct {
    const char *name, *mac;
    std::string password, text;
    int result; // -1: no answer
  } table[] = {
      {"another device's MAC", "024B49560002", "secret", newAddresses, -1},
      {"wrong password", "024B49560001", "guess", newAddresses, 1},
      {"no address", "024B49560001", "secret", "IPADDRESS 127.0.0.999\nIPNETMASK 255.0.0.0\n", 2},
      {"accepted", "024B49560001", "secret", newAddresses, 0},
  };
  for (const auto &row : table) {
    peer.Send(
        kAddress, simulator.HcpPort(),
        Join({Hex(std::string("48435031 0001") + row.mac + "A1A2A3A4A5A6 7F000001 7F000063 0001"),
              Sized(2, Text(row.password)), Sized(4, Text(row.text))}));
    const Bytes answer = peer.Receive(row.result < 0 ? 300 : 2000);
    if (row.result < 0) {
      EXPECT_EQ(peer.from, "") << row.name;
      continue;
    }
    const bool accepted = row.result == 0;
    const Bytes items =
        Join({Sized(1, Text(accepted ? "IPADDRESS=127.0.0.99" : "IPADDRESS=127.0.0.20")),
              Sized(1, Text(accepted ? "IPNETMASK=255.255.0.0" : "IPNETMASK=255.0.0.0")),
              Sized(1, Text("IPGATEWAY=127.0.0.1"))});
    EXPECT_EQ(peer.from, kAddress) << row.name;
    EXPECT_EQ(
        ToHex(answer),
        ToHex(Join({Hex("48435031 0001 024B49560001 A1A2A3A4A5A6 7F000014 0000 8001"),
                    Bytes{static_cast<unsigned char>(row.result), 0, 0, 0}, Sized(4, items)})))
        << row.name;
    EXPECT_EQ(simulator.Device(0).ipAddress, accepted ? "127.0.0.99" : kAddress) << row.name;
  }
  EXPECT_EQ(simulator.BoundAddress(0), "127.0.0.99") << "its sockets moved";
}

TEST_F(SimulatorTest, Hbn3AnswersAreByteExact) {
  const struct {
    const char *request, *answer;
  } table[] = {
      {"48424E33 00000001 00000000 00000007 00000003 00000000",
       "48424E33 00000001 00000000 00000007 80000003 00000000"},
      {"48424E33 00000001 00000005 00000009 00000001 00000000",
       "48424E33 00000001 00000005 00000009 80000001 0000002E 024B49560001 0000 7F000014 0000001E"
       "000102030405060708090A0B0C0D0E0F10111213141516171819 0101 1C1D"},
      {"48424E33 00000002 00000002 0000000B 00000004 00000016"
       "00000001 31323334 001122334455 04E4 0004 484F5354",
       "48424E33 00000002 00000002 0000000B 80000004 00000004 00000002"},
      {"48424E33 00000001 00000002 00000002 00000005 00000008 0807060504030201",
       "48424E33 00000001 00000002 00000002 80000005 00000000"},
  };
  for (const auto &row : table) {
    peer.Send(kAddress, simulator.Hbn3Port(), Hex(row.request));
    EXPECT_EQ(ToHex(peer.Receive()), ToHex(Hex(row.answer))) << row.request;
  }
}

TEST_F(SimulatorTest, EachFaultSwitchShapesTheAnswers) {
  const struct {
    const char *name;
    kivsim::Faults faults; // silent, delay ms, cut to, garbage, wrong MAC, copies
    int quietMs;           // nothing arrives this long first
    std::vector<Bytes> answers;
  } table[] = {
      {"silent", {true, 0, -1, false, false, 1}, 0, {}},
      {"late", {false, 500, -1, false, false, 1}, 250, {kPingReply}},
      {"cut",
       {false, 0, 10, false, false, 1},
       0,
       {Bytes(kPingReply.begin(), kPingReply.begin() + 10)}},
      {"copies", {false, 0, -1, false, false, 3}, 0, {kPingReply, kPingReply, kPingReply}},
  };
  for (const auto &row : table) {
    simulator.SetFaults(0, row.faults);
    peer.Send(kAddress, simulator.Hbn3Port(), kPing);
    if (row.quietMs > 0) {
      EXPECT_EQ(ToHex(peer.Receive(row.quietMs)) + peer.from, "") << row.name << ": too early";
    }
    for (const Bytes &expected : row.answers) {
      EXPECT_EQ(ToHex(peer.Receive()), ToHex(expected)) << row.name;
    }
    EXPECT_EQ(ToHex(peer.Receive(200)) + peer.from, "") << row.name << ": nothing more";
  }

  simulator.SetFaults(0, {false, 0, -1, true, false, 1});
  peer.Send(kAddress, simulator.Hbn3Port(), kPing);
  const Bytes garbage = peer.Receive();
  EXPECT_EQ(garbage.size(), kPingReply.size());
  EXPECT_EQ(garbage[0], 0xFF) << ToHex(garbage);

  simulator.SetFaults(0, {false, 0, -1, false, true, 1});
  peer.Send(kAddress, simulator.HcpPort(), kQuery);
  EXPECT_NE(Items(peer.Receive()).find("|MACUAA=\"40D2926A007F\"|ADAPTER"), std::string::npos)
      << "last byte inverted (FE), bits reversed";
}

// One query to the group listener is answered by every device from its own address; Stop then
// drops the answers still waiting and returns within its bounded wait.
TEST(SimulatorGroup, EveryDeviceAnswersOneQueryAndStopIsPrompt) {
  const int before = kivtest::CountOpenDescriptors();
  {
    kivsim::Simulator simulator(Options("127.0.0.2"));
    for (int n = 1; n <= 200; ++n) {
      simulator.AddDevice(kivsim::MakeDeviceRecord(n, kivsim::AddressAfter("127.0.1.1", n - 1)));
    }
    simulator.Start();
    Peer peer;
    peer.Send("127.0.0.2", simulator.HcpPort(), kQuery);
    std::set<std::string> senders;
    for (Bytes answer = peer.Receive(); !peer.from.empty(); answer = peer.Receive(1000)) {
      EXPECT_EQ(Items(answer).rfind("IPADDRESS=" + peer.from + "|", 0), 0u);
      EXPECT_TRUE(senders.insert(peer.from).second) << "one answer per device";
    }
    EXPECT_EQ(senders.size(), 200u);

    for (int i = 0; i < 200; ++i) {
      simulator.SetFaults(i, {false, 30000, -1, false, false, 1});
    }
    peer.Send("127.0.0.2", simulator.HcpPort(), kQuery);
    for (int i = 0; i < 5000 && simulator.Counters(199).discovery < 2; ++i) {
      usleep(1000);
    }
    const auto start = std::chrono::steady_clock::now();
    simulator.Stop();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_EQ(ToHex(peer.Receive(100)) + peer.from, "") << "pending answers are dropped";
  }
  EXPECT_EQ(kivtest::CountOpenDescriptors(), before);
}

} // namespace
