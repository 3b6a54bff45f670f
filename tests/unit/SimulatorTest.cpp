// The device simulator's wire shapes and fault switches, spoken to over loopback with raw sockets
// and raw bytes; the library's own discovery tests lean on everything else it does.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <poll.h>

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "sim/DatagramSocket.h"
#include "sim/DeviceProtocol.h"
#include "sim/Simulator.h"
#include "support/TestSupport.h"

namespace {

using namespace kivtest;

// The host's discovery query (transaction identifier 1234), byte 12 as hosts send it (00).
const Bytes kQuery = Hex("1234 0000 0001 0000 0000 0000 00 5F686F73742D636F6E666967 04 5F756470"
                         "05 6C6F63616C 00 0021 0001");
const Bytes kPing = Hex("48424E33 00000001 00000000 00000007 00000003 00000000");
const Bytes kPingReply = Hex("48424E33 00000001 00000000 00000007 80000003 00000000");
const std::string kAddress = "127.0.0.20";

// `text` after its length in `width` big-endian bytes.
Bytes Sized(int width, const Bytes &text) {
  Bytes out;
  for (int shift = 8 * (width - 1); shift >= 0; shift -= 8) {
    out.push_back(static_cast<unsigned char>(text.size() >> shift));
  }
  return Join({out, text});
}

// The items of `list` ("|" ends each), each after its one-byte length, all after their length in
// `width` bytes.
Bytes Items(int width, const std::string &list) {
  Bytes items;
  for (std::size_t at = 0, end; (end = list.find('|', at)) != std::string::npos; at = end + 1) {
    items = Join({items, Sized(1, Text(list.substr(at, end - at)))});
  }
  return Sized(width, items);
}

// The discovery answer of the fixture's device, announcing the universal MAC address `mac` and
// the address and net mask items `addressItems`.
Bytes DiscoveryAnswer(const std::string &mac, const std::string &addressItems =
                                                  "IPADDRESS=127.0.0.20|IPNETMASK=255.0.0.0|") {
  return Join(
      {Hex("1234 8400 0000 0001 0000 0000 10 6B69762D303234623439353630303031"
           "0C 5F686F73742D636F6E666967 04 5F756470 05 6C6F63616C 00 0010 0001 00000078"),
       Items(2, addressItems +
                    "IPGATEWAY=127.0.0.1|"
                    "PASSWORDSET=true|IPNAME=\"kivsim-1\"|MACLAA=\"000000000000\"|MACUAA=\"" +
                    mac +
                    "\"|ADAPTERTYPE=\"ethernet\"|IPADDRSOURCE=\"static\"|OEMBYTE=\"0\"|"
                    "ADAPTERNAME=\"KivSim adapter 1\"|STRID=1 \"KivSim Printer 1\"|"
                    "STRID=2 \"Scanner 'Y'\"|PRINTERVIDPID=1 \"FFFF:0001\"|"
                    "PRINTERVIDPID=2 \"0002:0003\"|CPDATTACHED=1 1|CPDATTACHED=2 0|")});
}

// The host's side, a UDP socket on 127.0.0.1, and device 1 at 127.0.0.20 with a password, a
// detached second port and a numbered status block.
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
  void Send(std::uint16_t port, const Bytes &bytes) {
    const sockaddr_in to{AF_INET, htons(port), {inet_addr(kAddress.c_str())}, {}};
    EXPECT_TRUE(peer.SendTo(bytes.data(), bytes.size(), to));
  }
  // The next answer as hex, which must come from the device's own address; "" when none came
  // within `waitMs`.
  std::string Receive(int waitMs = 2000) {
    unsigned char bytes[65536];
    pollfd entry{peer.Descriptor(), POLLIN, 0};
    sockaddr_in from{};
    const long count =
        poll(&entry, 1, waitMs) == 1 ? peer.ReceiveFrom(bytes, sizeof bytes, from) : -1;
    EXPECT_TRUE(count < 0 || from.sin_addr.s_addr == inet_addr(kAddress.c_str()));
    return ToHex(bytes, count > 0 ? static_cast<int>(count) : 0);
  }
  kivsim::Simulator simulator{kivsim::SimulatorOptions{0, 0, "", false}}; // on free ports
  kivsim::DatagramSocket peer{"127.0.0.1", 0};
};

// One request to the device and the answers it must send, in order (none: empty).
struct Exchange {
  std::uint16_t port;
  Bytes request, answer;
};

// The HBN3 status, host-list and scan answers.
TEST_F(SimulatorTest, Hbn3AnswersAreByteExact) {
  const std::uint16_t hbn3 = simulator.Hbn3Port();
  const Exchange table[] = {
      {hbn3, Hex("48424E33 00000001 00000005 00000009 00000001 00000000"),
       Hex("48424E33 00000001 00000005 00000009 80000001 0000002E 024B49560001 0000 7F000014 "
           "0000001E"
           "000102030405060708090A0B0C0D0E0F10111213141516171819 0101 1C1D")},
      {hbn3,
       Hex("48424E33 00000002 00000002 0000000B 00000004 00000016"
           "00000001 31323334 001122334455 04E4 0004 484F5354"),
       Hex("48424E33 00000002 00000002 0000000B 80000004 00000004 00000002")},
      {hbn3, Hex("48424E33 00000001 00000002 00000002 00000005 00000008 0807060504030201"),
       Hex("48424E33 00000001 00000002 00000002 80000005 00000000")},
  };
  for (const auto &row : table) {
    Send(row.port, row.request);
    EXPECT_EQ(Receive(), ToHex(row.answer)) << ToHex(row.request);
  }
}

// Configurations: one for another device's MAC address is ignored, a wrong password refused (01),
// the right one accepted (00), which moves the device and its sockets.
TEST_F(SimulatorTest, AnAcceptedConfigurationMovesTheDevice) {
  const auto configuration = [](const char *mac, const char *password) {
    return Join(
        {Hex(std::string("48435031 0001") + mac + "A1A2A3A4A5A6 7F000001 7F000063 0001"),
         Sized(2, Text(password)),
         Sized(4, Text("IPADDRESS 127.0.0.99\nIPNETMASK 255.255.0.0\nIPGATEWAY 127.0.0.1\n"))});
  };
  const auto result = [](const char *code, const char *items) {
    return Join(
        {Hex(std::string("48435031 0001 024B49560001 A1A2A3A4A5A6 7F000014 0000 8001") + code),
         Items(4, items)});
  };
  const std::uint16_t hcp = simulator.HcpPort();
  const Exchange table[] = {
      {hcp, configuration("024B49560002", "secret"), {}},
      {hcp, configuration("024B49560001", "guess"),
       result("01000000", "IPADDRESS=127.0.0.20|IPNETMASK=255.0.0.0|IPGATEWAY=127.0.0.1|")},
      {hcp, configuration("024B49560001", "secret"),
       result("00000000", "IPADDRESS=127.0.0.99|IPNETMASK=255.255.0.0|IPGATEWAY=127.0.0.1|")},
  };
  for (const auto &row : table) {
    Send(row.port, row.request);
    EXPECT_EQ(Receive(row.answer.empty() ? 300 : 2000), ToHex(row.answer)) << ToHex(row.request);
  }
  EXPECT_EQ(simulator.Device(0).ipAddress + " " + simulator.BoundAddress(0),
            "127.0.0.99 127.0.0.99");
}

// The discovery answer carries the MAC address with the bits of each byte reversed.
TEST_F(SimulatorTest, DiscoveryAnswerIsByteExact) {
  Send(simulator.HcpPort(), kQuery);
  EXPECT_EQ(Receive(), ToHex(DiscoveryAnswer("40D2926A0080")));
  EXPECT_EQ(Receive(200), "") << "nothing more";
}

TEST_F(SimulatorTest, EachFaultSwitchShowsItsFault) {
  const struct {
    const char *name;
    kivsim::Faults faults; // silent, delay ms, cut to, garbage, wrong MAC, copies
    const Bytes &request;
    std::vector<Bytes> answers;
  } table[] = {
      {"silent", {true, 0, -1, false, false, 1}, kPing, {}},
      {"cut", {false, 0, 10, false, false, 1}, kPing, {Hex("48424E33 00000001 0000")}},
      {"copies", {false, 0, -1, false, false, 3}, kPing, {kPingReply, kPingReply, kPingReply}},
      // The last byte inverted (FE), its bits reversed.
      {"wrong MAC", {false, 0, -1, false, true, 1}, kQuery, {DiscoveryAnswer("40D2926A007F")}},
  };
  for (const auto &row : table) {
    simulator.SetFaults(0, row.faults);
    Send(row.request == kQuery ? simulator.HcpPort() : simulator.Hbn3Port(), row.request);
    for (const Bytes &expected : row.answers) {
      EXPECT_EQ(Receive(), ToHex(expected)) << row.name;
    }
    EXPECT_EQ(Receive(200), "") << row.name << ": nothing more";
  }

  simulator.SetFaults(0, {false, 0, -1, true, false, 1});
  Send(simulator.Hbn3Port(), kPing);
  // As long as the answer (24 bytes, 71 characters as hex), and never taken for a message.
  const std::string garbage = Receive();
  EXPECT_EQ(garbage.substr(0, 3) + std::to_string(garbage.size()), "FF 71");
}

// The address items a device leaves out of its discovery answer, or announces with another text.
TEST_F(SimulatorTest, AddressItemsCanBeLeftOutOrAnnouncedWithAnotherText) {
  const kivsim::DeviceRecord plain = simulator.Device(0);
  const struct {
    bool address, netmask;
    const char *text, *items;
  } announced[] = {
      {false, true, "", "IPNETMASK=255.0.0.0|"},
      {true, false, "", "IPADDRESS=127.0.0.20|"},
      {true, true, "127.000.000.020.1234", "IPADDRESS=127.000.000.020.1234|IPNETMASK=255.0.0.0|"},
  };
  for (const auto &row : announced) {
    kivsim::DeviceRecord record = plain;
    record.announceIpAddress = row.address;
    record.announceNetmask = row.netmask;
    record.announcedIpAddress = row.text;
    simulator.SetDevice(0, record);
    Send(simulator.HcpPort(), kQuery);
    EXPECT_EQ(Receive(), ToHex(DiscoveryAnswer("40D2926A0080", row.items))) << row.items;
  }
}

// Stop drops an answer still waiting and returns within its bounded wait.
TEST_F(SimulatorTest, StopDropsTheLateAnswers) {
  simulator.SetFaults(0, {false, 30000, -1, false, false, 1});
  Send(simulator.Hbn3Port(), kPing);
  EXPECT_EQ(Receive(200), "");
  const auto start = std::chrono::steady_clock::now();
  simulator.Stop();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
  EXPECT_EQ(Receive(100), "") << "the waiting answer is dropped";
}

// A query to the group listener is answered by every device from its own address with the
// query's transaction identifier, and a record or faults changed while the simulator runs show in
// the next answer (a cut to one byte keeps the identifier's first byte). Each device counts the
// query and its answers.
TEST(SimulatorGroup, EveryDeviceAnswersWithTheQuerysIdentifierAndItsCurrentRecord) {
  kivsim::Simulator group{kivsim::SimulatorOptions{0, 0, "127.0.8.2", false}};
  for (int n = 1; n <= 3; ++n) {
    group.AddDevice(kivsim::MakeDeviceRecord(n, kivsim::AddressAfter("127.0.8.10", n - 1)));
  }
  group.Start();
  kivsim::DatagramSocket host{"127.0.0.1", 0};
  // The answers to `query` by sender, `count` of them, then nothing more for 200 ms.
  const auto ask = [&](const Bytes &query, int count) {
    const sockaddr_in to{AF_INET, htons(group.HcpPort()), {inet_addr("127.0.8.2")}, {}};
    EXPECT_TRUE(host.SendTo(query.data(), query.size(), to));
    std::map<std::string, std::vector<std::string>> answers;
    for (int i = 0; i <= count; ++i) {
      unsigned char bytes[2048];
      sockaddr_in from{};
      pollfd entry{host.Descriptor(), POLLIN, 0};
      const long length = poll(&entry, 1, i < count ? 2000 : 200) == 1
                              ? host.ReceiveFrom(bytes, sizeof bytes, from)
                              : -1;
      if (length >= 0) {
        answers[inet_ntoa(from.sin_addr)].push_back(ToHex(bytes, static_cast<int>(length)));
      }
    }
    return answers;
  };
  const auto answer = [&](int device, std::uint16_t id, bool wrongMac) {
    return ToHex(kivsim::DiscoveryAnswer(group.Device(device), id, wrongMac));
  };

  std::map<std::string, std::vector<std::string>> expected = {
      {"127.0.8.10", {answer(0, 0x1234, false)}},
      {"127.0.8.11", {answer(1, 0x1234, false)}},
      {"127.0.8.12", {answer(2, 0x1234, false)}}};
  EXPECT_EQ(ask(kQuery, 3), expected);

  kivsim::DeviceRecord renamed = group.Device(1);
  renamed.ipName = "renamed";
  group.SetDevice(1, renamed);
  group.SetFaults(0, {false, 0, 1, false, false, 1});
  group.SetFaults(2, {false, 0, -1, false, true, 2});
  Bytes query = kQuery;
  query[0] = 0xAB;
  query[1] = 0x42;
  expected = {{"127.0.8.10", {"AB"}},
              {"127.0.8.11", {answer(1, 0xAB42, false)}},
              {"127.0.8.12", {answer(2, 0xAB42, true), answer(2, 0xAB42, true)}}};
  EXPECT_EQ(ask(query, 4), expected);
  EXPECT_NE(expected["127.0.8.11"][0].find(ToHex(Text("renamed"))), std::string::npos);
  std::string counted;
  for (int i = 0; i < 3; ++i) {
    counted += std::to_string(group.Counters(i).discovery) + "/" +
               std::to_string(group.Counters(i).answersSent) + " ";
  }
  EXPECT_EQ(counted, "2/2 2/2 2/3 ");
}

} // namespace
