// The device simulator, spoken to over loopback with raw sockets and raw bytes: its answers,
// its configuration handling, its faults, group queries and its stop.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "sim/DeviceProtocol.h"
#include "sim/Simulator.h"
#include "support/TestSupport.h"

using kivtest::Bytes;
using kivtest::Hex;
using kivtest::Join;
using kivtest::Text;
using kivtest::ToHex;

namespace {

typedef std::chrono::steady_clock Clock;

// The host's discovery query, byte 12 included as hosts send it (00).
const Bytes kQuery = Hex("0000 0000 0001 0000 0000 0000 00 5F686F73742D636F6E666967 04 5F756470"
                         "05 6C6F63616C 00 0021 0001");

struct Datagram {
  Bytes bytes;
  std::string from;
  std::uint16_t port = 0;
};

// The host's side: a UDP socket on 127.0.0.1 with a large receive buffer.
class Peer {
public:
  Peer() {
    fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0) {
      throw std::runtime_error("socket");
    }
    const int size = 4 * 1024 * 1024;
    setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    sockaddr_in local = Address("127.0.0.1", 0);
    if (bind(fd_, reinterpret_cast<sockaddr *>(&local), sizeof local) != 0) {
      close(fd_);
      throw std::runtime_error("bind");
    }
  }
  ~Peer() { close(fd_); }
  Peer(const Peer &) = delete;
  Peer &operator=(const Peer &) = delete;

  static sockaddr_in Address(const std::string &text, std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    inet_pton(AF_INET, text.c_str(), &address.sin_addr);
    return address;
  }

  void Send(const std::string &address, std::uint16_t port, const Bytes &bytes) {
    const sockaddr_in to = Address(address, port);
    ASSERT_EQ(sendto(fd_, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr *>(&to),
                     sizeof to),
              static_cast<ssize_t>(bytes.size()));
  }

  // The next datagram, or nothing within `waitMs`.
  std::optional<Datagram> Receive(int waitMs = 2000) {
    pollfd entry{fd_, POLLIN, 0};
    if (poll(&entry, 1, waitMs) <= 0) {
      return std::nullopt;
    }
    Datagram datagram;
    datagram.bytes.resize(65536);
    sockaddr_in from{};
    socklen_t size = sizeof from;
    const ssize_t count = recvfrom(fd_, datagram.bytes.data(), datagram.bytes.size(), 0,
                                   reinterpret_cast<sockaddr *>(&from), &size);
    if (count < 0) {
      return std::nullopt;
    }
    datagram.bytes.resize(static_cast<std::size_t>(count));
    char text[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &from.sin_addr, text, sizeof text);
    datagram.from = text;
    datagram.port = ntohs(from.sin_port);
    return datagram;
  }

private:
  int fd_ = -1;
};

// The TXT items of a discovery answer, without their length bytes; checks the DNS framing.
std::vector<std::string> Items(const Bytes &answer) {
  std::vector<std::string> items;
  std::size_t at = 12;
  while (at < answer.size() && answer[at] != 0) {
    at += 1 + answer[at];
  }
  at += 1 + 10; // end of name, type, class, TTL, data length
  EXPECT_LE(at, answer.size());
  if (at > answer.size()) {
    return items;
  }
  EXPECT_EQ(static_cast<std::size_t>((answer[at - 2] << 8) | answer[at - 1]), answer.size() - at)
      << "data length covers the items exactly";
  while (at < answer.size()) {
    const std::size_t size = answer[at];
    EXPECT_LE(at + 1 + size, answer.size());
    items.emplace_back(answer.begin() + static_cast<std::ptrdiff_t>(at + 1),
                       answer.begin() +
                           static_cast<std::ptrdiff_t>(std::min(at + 1 + size, answer.size())));
    at += 1 + size;
  }
  return items;
}

bool Contains(const Bytes &bytes, const std::string &text) {
  return std::string(bytes.begin(), bytes.end()).find(text) != std::string::npos;
}

// A device with every field set to something the tests can spell out.
kivsim::DeviceRecord TestRecord(const std::string &address) {
  kivsim::DeviceRecord record;
  record.ipAddress = address;
  record.netmask = "255.255.255.0";
  record.gateway = "127.0.0.1";
  record.ipName = "Printer-One";
  record.mac = {0x00, 0x04, 0x00, 0x0A, 0x1B, 0x2C};
  record.macLaa = "000000000000";
  record.adapterType = "Ethernet";
  record.adapterName = "Office Adapter";
  record.addressSource = "DHCP";
  record.oemByte = "7";
  record.password = "secret";
  record.passwordSet = true;
  record.ports = {{1, true, "Model X", "VID_0001&PID_0002"}, {2, false, "Scanner Y", "0002:0003"}};
  for (int i = 0; i < 30; ++i) {
    record.status.push_back(static_cast<std::uint8_t>(i));
  }
  record.printerId = 0x12AB;
  record.hostListStatus = 2;
  return record;
}

// A configuration message for MAC 00 04 00 0A 1B 2C from 127.0.0.1 to 127.0.0.99.
Bytes ConfigMessage(const Bytes &mac, const std::string &password, const std::string &text) {
  const std::uint16_t p = static_cast<std::uint16_t>(password.size());
  const std::uint32_t t = static_cast<std::uint32_t>(text.size());
  return Join({Hex("48435031 0001"), mac, Hex("000000000000 7F000001 7F000063 0001"),
               Bytes{static_cast<std::uint8_t>(p >> 8), static_cast<std::uint8_t>(p)},
               Text(password),
               Bytes{static_cast<std::uint8_t>(t >> 24), static_cast<std::uint8_t>(t >> 16),
                     static_cast<std::uint8_t>(t >> 8), static_cast<std::uint8_t>(t)},
               Text(text)});
}

const Bytes kMac = Hex("00 04 00 0A 1B 2C");
const std::string kNewAddresses =
    "IPADDRESS 127.0.0.99\nIPNETMASK 255.255.0.0\nIPGATEWAY 127.0.0.1\n";

// One device at 127.0.0.20 on free ports, HCP and HBN3 apart.
class SimulatorTest : public testing::Test {
protected:
  SimulatorTest() : simulator(Options()) {
    simulator.AddDevice(TestRecord(kAddress));
    simulator.Start();
  }

  static kivsim::SimulatorOptions Options() {
    kivsim::SimulatorOptions options;
    options.hcpPort = 0;
    options.hbn3Port = 0;
    return options;
  }

  std::optional<Datagram> AskHbn3(const Bytes &request) {
    peer.Send(kAddress, simulator.Hbn3Port(), request);
    return peer.Receive();
  }

  const std::string kAddress = "127.0.0.20";
  kivsim::Simulator simulator;
  Peer peer;
};

TEST(SimulatorProtocol, ReversedMacTextReversesTheBitsOfEachByte) {
  const struct {
    const char *mac;
    const char *text;
  } table[] = {
      {"00 04 00 0A 1B 2C", "00200050D834"},
      {"01 80 FF 7F 10 08", "8001FFFE0810"},
      {"00 04 00 12 8F BC", "00200048F13D"},
  };
  for (const auto &row : table) {
    EXPECT_EQ(kivsim::ReversedMacText(Hex(row.mac).data()), row.text) << row.mac;
  }
}

TEST(SimulatorProtocol, ClassifiesRequestsByTheirBytes) {
  Bytes withLabelLength = kQuery;
  withLabelLength[12] = 0x0C;
  Bytes otherService = kQuery;
  otherService[14] = 'x';
  const struct {
    Bytes bytes;
    kivsim::RequestKind kind;
  } table[] = {
      {kQuery, kivsim::RequestKind::kDiscovery},
      {withLabelLength, kivsim::RequestKind::kDiscovery},
      {Bytes(kQuery.begin(), kQuery.end() - 1), kivsim::RequestKind::kUnknown},
      {otherService, kivsim::RequestKind::kUnknown},
      {Text("HCP1"), kivsim::RequestKind::kConfiguration},
      {Hex("48424E33 00000000 00000000 00000000 00000001 00000000"),
       kivsim::RequestKind::kStatusCache},
      {Hex("48424E33 00000000 00000000 00000000 00000003 00000000"), kivsim::RequestKind::kPing},
      {Hex("48424E33 00000000 00000000 00000000 00000004 00000000"),
       kivsim::RequestKind::kHostList},
      {Hex("48424E33 00000000 00000000 00000000 00000005 00000000"),
       kivsim::RequestKind::kRequestScan},
      {Hex("48424E33 00000000 00000000 00000000 80000003 00000000"), kivsim::RequestKind::kUnknown},
      {Hex("48424E33 00000000 00000000 00000000 00000003 0000"), kivsim::RequestKind::kUnknown},
      {Bytes(), kivsim::RequestKind::kUnknown},
  };
  for (const auto &row : table) {
    EXPECT_EQ(kivsim::Classify(row.bytes.data(), row.bytes.size()), row.kind) << ToHex(row.bytes);
  }
}

TEST_F(SimulatorTest, DiscoveryAnswerIsADnsTxtRecordOfTheDeviceItems) {
  Bytes query = kQuery;
  query[0] = 0x12; // the transaction identifier comes back
  query[1] = 0x34;
  peer.Send(kAddress, simulator.HcpPort(), query);
  const std::optional<Datagram> answer = peer.Receive();
  ASSERT_TRUE(answer.has_value());
  EXPECT_EQ(answer->from, kAddress);
  EXPECT_EQ(answer->port, simulator.HcpPort());

  const Bytes head = Hex("1234 8400 0000 0001 0000 0000"
                         "10 6B69762D303030343030306131623263" // kiv-0004000a1b2c
                         "0C 5F686F73742D636F6E666967 04 5F756470 05 6C6F63616C 00"
                         "0010 0001 00000078 016D"); // 17 items, 348 bytes, 17 length bytes
  ASSERT_GE(answer->bytes.size(), head.size());
  EXPECT_EQ(ToHex(Bytes(answer->bytes.begin(), answer->bytes.begin() + head.size())), ToHex(head));
  const std::vector<std::string> expected = {
      "IPADDRESS=127.0.0.20",
      "IPNETMASK=255.255.255.0",
      "IPGATEWAY=127.0.0.1",
      "PASSWORDSET=true",
      "IPNAME=\"Printer-One\"",
      "MACLAA=\"000000000000\"",
      "MACUAA=\"00200050D834\"",
      "ADAPTERTYPE=\"Ethernet\"",
      "IPADDRSOURCE=\"DHCP\"",
      "OEMBYTE=\"7\"",
      "ADAPTERNAME=\"Office Adapter\"",
      "STRID=1 \"Model X\"",
      "STRID=2 \"Scanner Y\"",
      "PRINTERVIDPID=1 \"VID_0001&PID_0002\"",
      "PRINTERVIDPID=2 \"0002:0003\"",
      "CPDATTACHED=1 1",
      "CPDATTACHED=2 0",
  };
  EXPECT_EQ(Items(answer->bytes), expected);
  EXPECT_EQ(simulator.Counters(0).discovery, 1u);
  EXPECT_EQ(simulator.Counters(0).answersSent, 1u);
}

TEST_F(SimulatorTest, AnythingButTheQueryOnTheHcpPortIsIgnored) {
  peer.Send(kAddress, simulator.HcpPort(), Bytes(kQuery.begin(), kQuery.begin() + 40));
  peer.Send(kAddress, simulator.HcpPort(), Text("hello"));
  peer.Send(kAddress, simulator.HcpPort(), Bytes());
  EXPECT_FALSE(peer.Receive(300).has_value());
  EXPECT_EQ(simulator.Counters(0).ignored, 3u);
}

TEST_F(SimulatorTest, AcceptedConfigurationMovesTheDevice) {
  peer.Send(kAddress, simulator.HcpPort(), ConfigMessage(kMac, "secret", kNewAddresses));
  const std::optional<Datagram> answer = peer.Receive();
  ASSERT_TRUE(answer.has_value());
  EXPECT_EQ(answer->from, kAddress) << "the answer leaves from the old address";
  EXPECT_EQ(ToHex(answer->bytes),
            ToHex(Join({Hex("48435031 0001 0004000A1B2C"
                            "000000000000 7F000014 0000 8001 00 00 0000 0000003F"),
                        Hex("14"), Text("IPADDRESS=127.0.0.99"), Hex("15"),
                        Text("IPNETMASK=255.255.0.0"), Hex("13"), Text("IPGATEWAY=127.0.0.1")})));

  const kivsim::DeviceRecord record = simulator.Device(0);
  EXPECT_EQ(record.ipAddress, "127.0.0.99");
  EXPECT_EQ(record.netmask, "255.255.0.0");
  EXPECT_EQ(record.gateway, "127.0.0.1");
  EXPECT_EQ(simulator.BoundAddress(0), "127.0.0.99");

  peer.Send(kAddress, simulator.HcpPort(), kQuery);
  EXPECT_FALSE(peer.Receive(300).has_value()) << "nothing serves the old address";
  peer.Send("127.0.0.99", simulator.HcpPort(), kQuery);
  const std::optional<Datagram> discovery = peer.Receive();
  ASSERT_TRUE(discovery.has_value());
  EXPECT_EQ(discovery->from, "127.0.0.99");
  const std::vector<std::string> items = Items(discovery->bytes);
  ASSERT_GE(items.size(), 3u);
  EXPECT_EQ(items[0], "IPADDRESS=127.0.0.99");
  EXPECT_EQ(items[1], "IPNETMASK=255.255.0.0");
  peer.Send("127.0.0.99", simulator.Hbn3Port(),
            Hex("48424E33 00000000 00000000 00000001 00000003 00000000"));
  EXPECT_TRUE(peer.Receive().has_value()) << "the HBN3 socket moved too";
}

TEST_F(SimulatorTest, DeviceMovedBeyondLoopbackKeepsServingWhereItWas) {
  peer.Send(kAddress, simulator.HcpPort(),
            ConfigMessage(kMac, "secret",
                          "IPADDRESS 10.1.2.3\nIPNETMASK 255.0.0.0\nIPGATEWAY 10.0.0.1\n"));
  const std::optional<Datagram> answer = peer.Receive();
  ASSERT_TRUE(answer.has_value());
  ASSERT_GT(answer->bytes.size(), 26u);
  EXPECT_EQ(answer->bytes[26], 0);
  EXPECT_EQ(simulator.Device(0).ipAddress, "10.1.2.3");
  EXPECT_EQ(simulator.BoundAddress(0), kAddress);
  peer.Send(kAddress, simulator.HcpPort(), kQuery);
  const std::optional<Datagram> discovery = peer.Receive();
  ASSERT_TRUE(discovery.has_value());
  EXPECT_EQ(discovery->from, kAddress);
  const std::vector<std::string> items = Items(discovery->bytes);
  ASSERT_GE(items.size(), 3u);
  EXPECT_EQ(items[0], "IPADDRESS=10.1.2.3");
  EXPECT_EQ(items[2], "IPGATEWAY=10.0.0.1");
}

TEST_F(SimulatorTest, RefusedConfigurationsKeepTheRecord) {
  const struct {
    const char *name;
    std::string password;
    std::string text;
    std::uint8_t result;
  } table[] = {
      {"wrong password", "guess", kNewAddresses, 1},
      {"no password", "", kNewAddresses, 1},
      {"address is no address", "secret",
       "IPADDRESS 127.0.0.999\nIPNETMASK 255.255.0.0\nIPGATEWAY 127.0.0.1\n", 2},
      {"gateway line missing", "secret", "IPADDRESS 127.0.0.99\nIPNETMASK 255.255.0.0\n", 2},
  };
  for (const auto &row : table) {
    peer.Send(kAddress, simulator.HcpPort(), ConfigMessage(kMac, row.password, row.text));
    const std::optional<Datagram> answer = peer.Receive();
    ASSERT_TRUE(answer.has_value()) << row.name;
    ASSERT_GT(answer->bytes.size(), 34u) << row.name;
    EXPECT_EQ(ToHex(Bytes(answer->bytes.begin(), answer->bytes.begin() + 26)),
              ToHex(Hex("48435031 0001 0004000A1B2C 000000000000 7F000014 0000 8001")))
        << row.name;
    EXPECT_EQ(answer->bytes[26], row.result) << row.name;
    EXPECT_TRUE(Contains(answer->bytes, "IPADDRESS=127.0.0.20")) << "current address: " << row.name;
    EXPECT_EQ(simulator.Device(0).ipAddress, kAddress) << row.name;
  }
  EXPECT_EQ(simulator.BoundAddress(0), kAddress);
}

TEST_F(SimulatorTest, ConfigurationForAnotherDeviceOrMalformedGetsNoAnswer) {
  const Bytes good = ConfigMessage(kMac, "secret", kNewAddresses);
  Bytes otherCommand = good;
  otherCommand[27] = 2;
  Bytes longerText = good;
  longerText[33 + 6] += 1; // declares one text byte more than arrives
  const Bytes table[] = {
      ConfigMessage(Hex("00 04 00 0A 1B 2D"), "secret", kNewAddresses),
      Bytes(good.begin(), good.begin() + 33),
      otherCommand,
      longerText,
  };
  for (const Bytes &message : table) {
    peer.Send(kAddress, simulator.HcpPort(), message);
  }
  EXPECT_FALSE(peer.Receive(300).has_value());
  EXPECT_EQ(simulator.Device(0).ipAddress, kAddress);
  EXPECT_EQ(simulator.Counters(0).configuration, 4u);
}

TEST_F(SimulatorTest, DeviceWithoutPasswordAcceptsAnyPassword) {
  kivsim::DeviceRecord record = simulator.Device(0);
  record.passwordSet = false;
  simulator.SetDevice(0, record);
  peer.Send(kAddress, simulator.HcpPort(), ConfigMessage(kMac, "anything", kNewAddresses));
  const std::optional<Datagram> answer = peer.Receive();
  ASSERT_TRUE(answer.has_value());
  ASSERT_GT(answer->bytes.size(), 26u);
  EXPECT_EQ(answer->bytes[26], 0);
  EXPECT_EQ(simulator.Device(0).ipAddress, "127.0.0.99");
}

TEST_F(SimulatorTest, Hbn3AnswersAreByteExact) {
  const struct {
    const char *name;
    Bytes request;
    Bytes answer;
  } table[] = {
      {"ping", Hex("48424E33 00000001 00000000 00000007 00000003 00000000"),
       Hex("48424E33 00000001 00000000 00000007 80000003 00000000")},
      {"status cache", Hex("48424E33 00000001 00000005 00000009 00000001 00000000"),
       Hex("48424E33 00000001 00000005 00000009 80000001 0000002E"
           "00 04 00 0A 1B 2C 0000 7F000014 0000001E"
           "00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10 11 12 13 14 15 16 17 18 19"
           "12 AB 1C 1D")},
      {"host-list entry",
       Hex("48424E33 00000002 00000002 0000000B 00000004 00000016"
           "00000001 31323334 001122334455 04E4 0004 484F5354"),
       Hex("48424E33 00000002 00000002 0000000B 80000004 00000004 00000002")},
      {"request scan",
       Hex("48424E33 00000001 00000002 00000002 00000005 00000008 0807060504030201"),
       Hex("48424E33 00000001 00000002 00000002 80000005 00000000")},
  };
  for (const auto &row : table) {
    const std::optional<Datagram> answer = AskHbn3(row.request);
    ASSERT_TRUE(answer.has_value()) << row.name;
    EXPECT_EQ(ToHex(answer->bytes), ToHex(row.answer)) << row.name;
    EXPECT_EQ(answer->from, kAddress) << row.name;
  }
  const kivsim::DeviceCounters counters = simulator.Counters(0);
  EXPECT_EQ(counters.ping, 1u);
  EXPECT_EQ(counters.statusCache, 1u);
  EXPECT_EQ(counters.hostList, 1u);
  EXPECT_EQ(counters.requestScan, 1u);
}

TEST_F(SimulatorTest, ShortStatusBlockHasNoPrinterIdentifierWritten) {
  kivsim::DeviceRecord record = simulator.Device(0);
  record.status = Hex("AA BB");
  simulator.SetDevice(0, record);
  const std::optional<Datagram> answer =
      AskHbn3(Hex("48424E33 00000000 00000000 00000000 00000001 00000000"));
  ASSERT_TRUE(answer.has_value());
  EXPECT_EQ(ToHex(answer->bytes), ToHex(Hex("48424E33 00000000 00000000 00000000 80000001 00000012"
                                            "00 04 00 0A 1B 2C 0000 7F000014 00000002 AA BB")));
}

TEST_F(SimulatorTest, OtherHbn3MessagesGetNoAnswer) {
  peer.Send(kAddress, simulator.Hbn3Port(),
            Hex("48424E33 00000000 00000000 00000000 00000009 00000000"));
  peer.Send(kAddress, simulator.Hbn3Port(),
            Hex("48424E33 00000000 00000000 00000000 80000003 00000000"));
  peer.Send(kAddress, simulator.Hbn3Port(), Hex("48424E33 00000000 00000000"));
  EXPECT_FALSE(peer.Receive(300).has_value());
  EXPECT_EQ(simulator.Counters(0).ignored, 3u);
}

const Bytes kPing = Hex("48424E33 00000001 00000000 00000007 00000003 00000000");
const Bytes kPingReply = Hex("48424E33 00000001 00000000 00000007 80000003 00000000");

TEST_F(SimulatorTest, SilentDeviceCountsButDoesNotAnswer) {
  kivsim::Faults faults;
  faults.silent = true;
  simulator.SetFaults(0, faults);
  peer.Send(kAddress, simulator.Hbn3Port(), kPing);
  peer.Send(kAddress, simulator.HcpPort(), kQuery);
  EXPECT_FALSE(peer.Receive(300).has_value());
  EXPECT_EQ(simulator.Counters(0).ping, 1u);
  EXPECT_EQ(simulator.Counters(0).discovery, 1u);
  EXPECT_EQ(simulator.Counters(0).answersSent, 0u);
}

TEST_F(SimulatorTest, LateAnswerArrivesAfterItsDelay) {
  kivsim::Faults faults;
  faults.delayMs = 500;
  simulator.SetFaults(0, faults);
  peer.Send(kAddress, simulator.Hbn3Port(), kPing);
  EXPECT_FALSE(peer.Receive(200).has_value()) << "not before its time";
  const std::optional<Datagram> answer = peer.Receive(5000);
  ASSERT_TRUE(answer.has_value());
  EXPECT_EQ(ToHex(answer->bytes), ToHex(kPingReply));
}

TEST_F(SimulatorTest, TruncatedGarbageAndCopiedAnswers) {
  kivsim::Faults cut10;
  cut10.truncateTo = 10;
  kivsim::Faults cut0;
  cut0.truncateTo = 0;
  kivsim::Faults longCut;
  longCut.truncateTo = 100;
  kivsim::Faults garbage;
  garbage.garbage = true;
  kivsim::Faults copies;
  copies.copies = 3;
  const struct {
    const char *name;
    kivsim::Faults faults;
    std::vector<Bytes> answers;
  } table[] = {
      {"cut to 10", cut10, {Bytes(kPingReply.begin(), kPingReply.begin() + 10)}},
      {"cut to 0", cut0, {Bytes()}},
      {"cut longer than the answer", longCut, {kPingReply}},
      {"three copies", copies, {kPingReply, kPingReply, kPingReply}},
  };
  for (const auto &row : table) {
    simulator.SetFaults(0, row.faults);
    peer.Send(kAddress, simulator.Hbn3Port(), kPing);
    for (const Bytes &expected : row.answers) {
      const std::optional<Datagram> answer = peer.Receive();
      ASSERT_TRUE(answer.has_value()) << row.name;
      EXPECT_EQ(ToHex(answer->bytes), ToHex(expected)) << row.name;
    }
    EXPECT_FALSE(peer.Receive(100).has_value()) << row.name << ": nothing more";
  }

  simulator.SetFaults(0, garbage);
  peer.Send(kAddress, simulator.Hbn3Port(), kPing);
  std::optional<Datagram> answer = peer.Receive();
  ASSERT_TRUE(answer.has_value());
  EXPECT_EQ(answer->bytes.size(), kPingReply.size());
  EXPECT_EQ(answer->bytes[0], 0xFF);
  EXPECT_NE(answer->bytes, kPingReply);
  peer.Send(kAddress, simulator.HcpPort(), kQuery);
  answer = peer.Receive();
  ASSERT_TRUE(answer.has_value());
  EXPECT_FALSE(Contains(answer->bytes, "IPADDRESS=")) << "no item survives";
}

TEST_F(SimulatorTest, WrongMacFaultChangesOnlyTheMacItem) {
  kivsim::Faults faults;
  faults.wrongMac = true;
  simulator.SetFaults(0, faults);
  peer.Send(kAddress, simulator.HcpPort(), kQuery);
  const std::optional<Datagram> answer = peer.Receive();
  ASSERT_TRUE(answer.has_value());
  const std::vector<std::string> items = Items(answer->bytes);
  ASSERT_GE(items.size(), 7u);
  EXPECT_EQ(items[6], "MACUAA=\"00200050D8CB\"") << "last byte 2C inverted is D3, reversed CB";
  EXPECT_EQ(items[0], "IPADDRESS=127.0.0.20");
}

// Devices 127.0.1.1 to 127.0.1.<count> behind a group listener at `group`.
void AddNumberedDevices(kivsim::Simulator &simulator, int count) {
  for (int n = 1; n <= count; ++n) {
    simulator.AddDevice(kivsim::MakeDeviceRecord(n, kivsim::AddressAfter("127.0.1.1", n - 1)));
  }
}

TEST(SimulatorGroup, TwoHundredDevicesAnswerOneQueryEachFromItsOwnAddress) {
  kivsim::SimulatorOptions options;
  options.hcpPort = 0;
  options.groupAddress = "127.0.0.2";
  kivsim::Simulator simulator(options);
  AddNumberedDevices(simulator, 200);
  simulator.Start();
  Peer peer;
  peer.Send("127.0.0.2", simulator.HcpPort(), kQuery);

  std::set<std::string> senders;
  const Clock::time_point end = Clock::now() + std::chrono::seconds(20);
  while (senders.size() < 200 && Clock::now() < end) {
    const std::optional<Datagram> answer = peer.Receive(2000);
    if (!answer) {
      break;
    }
    const std::vector<std::string> items = Items(answer->bytes);
    ASSERT_FALSE(items.empty());
    EXPECT_EQ(items[0], "IPADDRESS=" + answer->from) << "each answers from its own address";
    EXPECT_TRUE(senders.insert(answer->from).second) << "one answer per device";
  }
  EXPECT_EQ(senders.size(), 200u);
  EXPECT_EQ(senders.count("127.0.1.1"), 1u);
  EXPECT_EQ(senders.count("127.0.1.200"), 1u);
}

TEST(SimulatorGroup, WildcardListenerTakesWhatNoDeviceAddressTakes) {
  kivsim::SimulatorOptions options;
  options.hcpPort = 0;
  options.hbn3Port = 0;
  options.groupAddress = "0.0.0.0";
  kivsim::Simulator simulator(options);
  AddNumberedDevices(simulator, 3);
  simulator.Start();
  Peer peer;

  peer.Send("127.0.1.2", simulator.HcpPort(), kQuery);
  std::optional<Datagram> answer = peer.Receive();
  ASSERT_TRUE(answer.has_value());
  EXPECT_EQ(answer->from, "127.0.1.2");
  EXPECT_FALSE(peer.Receive(200).has_value()) << "a unicast query reaches one device";

  peer.Send("127.0.0.1", simulator.Hbn3Port(), kPing);
  std::set<std::string> senders;
  for (int i = 0; i < 3; ++i) {
    answer = peer.Receive();
    ASSERT_TRUE(answer.has_value());
    EXPECT_EQ(ToHex(answer->bytes), ToHex(kPingReply));
    senders.insert(answer->from);
  }
  EXPECT_EQ(senders, (std::set<std::string>{"127.0.1.1", "127.0.1.2", "127.0.1.3"}));
}

TEST(SimulatorGroup, ConfigurationThroughTheGroupReachesOnlyTheNamedDevice) {
  kivsim::SimulatorOptions options;
  options.hcpPort = 0;
  options.groupAddress = "127.0.0.2";
  kivsim::Simulator simulator(options);
  AddNumberedDevices(simulator, 5);
  simulator.Start();
  Peer peer;
  // Device 3's MAC address is 02 4B 49 56 00 03; it has no password.
  peer.Send("127.0.0.2", simulator.HcpPort(),
            ConfigMessage(Hex("02 4B 49 56 00 03"), "", kNewAddresses));
  const std::optional<Datagram> answer = peer.Receive();
  ASSERT_TRUE(answer.has_value());
  EXPECT_EQ(answer->from, "127.0.1.3");
  ASSERT_GT(answer->bytes.size(), 26u);
  EXPECT_EQ(answer->bytes[26], 0);
  EXPECT_FALSE(peer.Receive(200).has_value());
  EXPECT_EQ(simulator.Device(2).ipAddress, "127.0.0.99");
  EXPECT_EQ(simulator.Device(1).ipAddress, "127.0.1.2");
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(simulator.Counters(i).configuration, 1u) << i;
  }
}

TEST(SimulatorLifetime, StopIsPromptWithAnswersPendingAndReleasesEverything) {
  const int before = kivtest::CountOpenDescriptors();
  {
    kivsim::SimulatorOptions options;
    options.hcpPort = 0;
    options.groupAddress = "127.0.0.2";
    kivsim::Simulator simulator(options);
    AddNumberedDevices(simulator, 20);
    kivsim::Faults faults;
    faults.delayMs = 30000;
    for (int i = 0; i < 20; ++i) {
      simulator.SetFaults(i, faults);
    }
    simulator.Start();
    EXPECT_TRUE(simulator.Running());
    Peer peer;
    peer.Send("127.0.0.2", simulator.HcpPort(), kQuery);
    while (simulator.Counters(19).discovery == 0) { // bounded by the test's time-out
      usleep(1000);
    }
    const Clock::time_point start = Clock::now();
    simulator.Stop();
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(2));
    EXPECT_FALSE(simulator.Running());
    EXPECT_FALSE(peer.Receive(100).has_value()) << "pending answers are dropped";
    simulator.Stop(); // twice is harmless

    simulator.Start(); // and it serves again
    simulator.SetFaults(0, kivsim::Faults());
    peer.Send("127.0.1.1", simulator.HcpPort(), kQuery);
    EXPECT_TRUE(peer.Receive().has_value());
  } // the destructor stops it
  EXPECT_EQ(kivtest::CountOpenDescriptors(), before);
}

TEST(SimulatorLifetime, RefusesWhatItMayNotServe) {
  const int before = kivtest::CountOpenDescriptors();
  kivsim::SimulatorOptions options;
  options.hcpPort = 0;
  {
    kivsim::Simulator simulator(options);
    simulator.AddDevice(kivsim::MakeDeviceRecord(1, "192.0.2.1"));
    EXPECT_THROW(simulator.Start(), std::invalid_argument);
    EXPECT_FALSE(simulator.Running());
  }
  {
    kivsim::Simulator simulator(options);
    simulator.AddDevice(kivsim::MakeDeviceRecord(1, "not an address"));
    EXPECT_THROW(simulator.Start(), std::invalid_argument);
  }
  {
    options.groupAddress = "192.0.2.255";
    kivsim::Simulator simulator(options);
    EXPECT_THROW(simulator.Start(), std::invalid_argument);
    options.groupAddress.clear();
  }
  {
    kivsim::Simulator simulator(options);
    simulator.AddDevice(kivsim::MakeDeviceRecord(1, "127.0.1.1"));
    simulator.Start();
    EXPECT_THROW(simulator.Start(), std::logic_error);
    EXPECT_THROW(simulator.AddDevice(kivsim::MakeDeviceRecord(2, "127.0.1.2")), std::logic_error);
    EXPECT_THROW(simulator.Device(1), std::out_of_range);
  }
  EXPECT_EQ(kivtest::CountOpenDescriptors(), before);
}

TEST(SimulatorLifetime, FixedPortThatIsTakenFailsWithNothingLeftOpen) {
  // A socket on every address without SO_REUSEADDR holds its port against any other bind.
  const int holder = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ASSERT_GE(holder, 0);
  sockaddr_in local = Peer::Address("0.0.0.0", 0);
  socklen_t size = sizeof local;
  ASSERT_EQ(bind(holder, reinterpret_cast<sockaddr *>(&local), sizeof local), 0);
  ASSERT_EQ(getsockname(holder, reinterpret_cast<sockaddr *>(&local), &size), 0);
  const int before = kivtest::CountOpenDescriptors();
  {
    kivsim::SimulatorOptions options;
    options.hcpPort = ntohs(local.sin_port);
    kivsim::Simulator simulator(options);
    simulator.AddDevice(kivsim::MakeDeviceRecord(1, "127.0.1.1"));
    EXPECT_THROW(simulator.Start(), std::system_error);
    EXPECT_FALSE(simulator.Running());
  }
  EXPECT_EQ(kivtest::CountOpenDescriptors(), before);
  close(holder);
}

TEST(SimulatorRecords, AddressAfterCountsAcrossOctets) {
  EXPECT_EQ(kivsim::AddressAfter("127.0.0.10", 0), "127.0.0.10");
  EXPECT_EQ(kivsim::AddressAfter("127.0.0.250", 10), "127.0.1.4");
  EXPECT_THROW(kivsim::AddressAfter("255.255.255.255", 1), std::invalid_argument);
  EXPECT_THROW(kivsim::AddressAfter("127.0.0", 1), std::invalid_argument);
}

} // namespace
