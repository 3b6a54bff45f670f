// The simulated devices' HBN3 TCP channel end points, driven by a raw loopback client: answers to
// the open request, script bytes on the wire, the record of what the host wrote, and Stop.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "sim/Simulator.h"
#include "support/DescriptorCheckedTest.h"
#include "support/TestSupport.h"

namespace {

using namespace kivtest;

const std::string kAddresses[2] = {"127.0.0.30", "127.0.0.31"};
const Bytes kScanRequest = Hex("48424E33 00 00000002");
const Bytes kPrintRequest = Hex("48424E33 00 00000001");
const Bytes kHidRequest = Hex("48424E33 00 00000004");
const Bytes kMediaRequest = Hex("48424E33 00 00000008");
const Bytes kAccepted = Hex("48424E33 00 00000000");
const Bytes kTickle = kAccepted;

// Pattern frame k as the device must send it, written here from the rule: payload byte i is
// (k * 31 + i) & 0xFF.
Bytes Pattern(int k, int size) {
  Bytes payload(static_cast<size_t>(size));
  for (int i = 0; i < size; ++i) {
    payload[static_cast<size_t>(i)] = static_cast<unsigned char>((k * 31 + i) & 0xFF);
  }
  return payload;
}
Bytes PatternFrame(int k, int size) {
  const Bytes length = {static_cast<unsigned char>(size >> 24),
                        static_cast<unsigned char>(size >> 16),
                        static_cast<unsigned char>(size >> 8), static_cast<unsigned char>(size)};
  return Join({Hex("48424E33 00"), length, Pattern(k, size)});
}

// The host's side of one channel connection, with plain blocking sockets.
class Client {
public:
  Client(const std::string &address, std::uint16_t port) {
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in to{AF_INET, htons(port), {inet_addr(address.c_str())}, {}};
    EXPECT_EQ(connect(fd_, reinterpret_cast<const sockaddr *>(&to), sizeof to), 0)
        << address << ":" << port;
  }
  ~Client() { close(fd_); }
  Client(const Client &) = delete;
  Client &operator=(const Client &) = delete;

  void Write(const Bytes &bytes) {
    EXPECT_EQ(send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
  }
  // Up to `count` bytes: returns once they came, the device closed (`closed`), or no byte came
  // for `quietMs`. `pieces` counts the receives that brought bytes.
  Bytes Read(std::size_t count, int quietMs = 2000) {
    Bytes bytes;
    while (bytes.size() < count && !closed) {
      pollfd entry{fd_, POLLIN, 0};
      if (poll(&entry, 1, quietMs) != 1) {
        break;
      }
      unsigned char chunk[65536];
      const ssize_t got = recv(fd_, chunk, std::min(sizeof chunk, count - bytes.size()), 0);
      closed = got <= 0;
      if (got > 0) {
        bytes.insert(bytes.end(), chunk, chunk + got);
        ++pieces;
      }
    }
    return bytes;
  }
  bool closed = false;
  int pieces = 0;

private:
  int fd_ = -1;
};

// Two devices with channel end points on a free port; made after the fixture has counted the
// open descriptors and destroyed before it counts again.
class SimulatorChannelTest : public DescriptorCheckedTest {
protected:
  void SetUp() override {
    DescriptorCheckedTest::SetUp();
    kivsim::SimulatorOptions options{0, 0, "", false};
    options.channelEnabled = true;
    simulator = std::make_unique<kivsim::Simulator>(options);
    for (int i = 0; i < 2; ++i) {
      simulator->AddDevice(kivsim::MakeDeviceRecord(i + 1, kAddresses[i]));
    }
    simulator->Start();
  }
  void TearDown() override {
    simulator.reset();
    DescriptorCheckedTest::TearDown();
  }
  std::unique_ptr<Client> Connect(int device) {
    return std::make_unique<Client>(kAddresses[device], simulator->ChannelPort());
  }
  // Waits until device `device` has `count` finished connections.
  bool WaitFinished(int device, std::size_t count) {
    return simulator->WaitForChannel(
        device,
        [count](const kivsim::ChannelLog &log) {
          return std::count_if(log.connections.begin(), log.connections.end(),
                               [](const auto &c) { return c.finished; }) >= long(count);
        },
        5000);
  }
  std::unique_ptr<kivsim::Simulator> simulator;
};

// Every handshake script against a valid request (each interface's request is accepted in the
// tests below), and bad requests, which the device refuses by closing; each is recorded.
TEST_F(SimulatorChannelTest, OpenRequestIsAnsweredAsTheScriptSaysAndRecorded) {
  using Script = kivsim::ChannelScript;
  const struct {
    const char *name;
    Script::Handshake handshake;
    unsigned char dummy;
    Bytes request;
    Bytes answer;
    bool deviceCloses;
  } table[] = {
      {"print, dummy 7F", Script::kAccept, 0x7F, kPrintRequest, Hex("48424E33 7F 00000000"), false},
      {"non-zero length", Script::kNonZeroLength, 0, kScanRequest, Hex("48424E33 00 00000005"),
       false},
      {"wrong tag", Script::kWrongTag, 0, kScanRequest, Hex("48424E31 00 00000000"), false},
      {"silent", Script::kSilent, 0, kPrintRequest, {}, false},
      {"close after four", Script::kCloseAfterFour, 0x7F, kScanRequest, Hex("48424E33"), true},
      {"interface 03", Script::kAccept, 0, Hex("48424E33 00 00000003"), {}, true},
      {"tag HBN1", Script::kAccept, 0, Hex("48424E31 00 00000002"), {}, true},
      {"code 00 01 00 02", Script::kAccept, 0, Hex("48424E33 00 00010002"), {}, true},
  };
  for (const auto &row : table) {
    Script script;
    script.handshake = row.handshake;
    script.answerDummyByte = row.dummy;
    simulator->SetChannelScript(0, script);
    Client client(kAddresses[0], simulator->ChannelPort());
    client.Write(row.request);
    EXPECT_EQ(ToHex(client.Read(9, row.answer.size() == 9 ? 2000 : 300)), ToHex(row.answer))
        << row.name;
    client.Read(1, 100);
    EXPECT_EQ(client.closed, row.deviceCloses) << row.name;
  }
  ASSERT_TRUE(WaitFinished(0, std::size(table)));
  const kivsim::ChannelLog log = simulator->ChannelRecord(0);
  EXPECT_EQ(log.accepted, std::size(table));
  ASSERT_EQ(log.connections.size(), std::size(table));
  for (std::size_t i = 0; i < std::size(table); ++i) {
    const kivsim::ChannelConnectionLog &connection = log.connections[i];
    EXPECT_EQ(ToHex(connection.openRequest), ToHex(table[i].request)) << table[i].name;
    EXPECT_EQ(connection.deviceClosed, table[i].deviceCloses) << table[i].name;
    EXPECT_EQ(connection.hostClosed, !table[i].deviceCloses) << table[i].name;
    EXPECT_EQ(connection.writtenCount, 0u) << table[i].name;
  }
  EXPECT_EQ(simulator->ChannelRecord(1).accepted, 0u) << "the other device saw nothing";
}

// What the builders and hand-made steps put on the wire, byte for byte, whole or one byte per
// segment, up to the device's close or its silence.
TEST_F(SimulatorChannelTest, ScriptBytesArriveExactly) {
  kivsim::ChannelScript halves;
  halves.steps = {kivsim::RawStep(Hex("48424E33 00 00000005 4142")),
                  kivsim::PauseStep(50),
                  kivsim::RawStep(Hex("434445")),
                  kivsim::TickleStep(),
                  kivsim::FrameStep(Hex("01 02 03")),
                  kivsim::CloseStep(),
                  kivsim::FrameStep(Hex("FF"))};
  const auto withFault = [](kivsim::ChannelScript script, kivsim::ChannelFault fault,
                            bool byteByByte) {
    kivsim::AppendChannelFault(script, fault, byteByByte);
    return script;
  };
  const struct {
    const char *name;
    kivsim::ChannelScript script;
    Bytes stream; // after the accepting answer
    bool deviceCloses;
  } table[] = {
      {"frames with tickles, then a bad tag",
       withFault(kivsim::PatternScript(3, 50, 2), kivsim::ChannelFault::kBadTag, false),
       Join({kTickle, kTickle, PatternFrame(0, 50), kTickle, kTickle, PatternFrame(1, 50), kTickle,
             kTickle, PatternFrame(2, 50), Hex("48424E31 00 00000003 414243")}),
       false},
      {"split at every byte, then closed mid-frame",
       withFault(kivsim::PatternScript(2, 5, 1, true, 20), kivsim::ChannelFault::kCloseMidFrame,
                 true),
       Join({kTickle, PatternFrame(0, 5), kTickle, PatternFrame(1, 5), Hex("48424E33 00 00000064"),
             Pattern(2, 40)}),
       true},
      {"negative length", withFault({}, kivsim::ChannelFault::kNegativeLength, false),
       Hex("48424E33 00 FFFFFFFF"), false},
      {"huge length", withFault({}, kivsim::ChannelFault::kHugeLength, false),
       Hex("48424E33 00 7FFFFFFF"), false},
      {"a frame in two halves, a close, and nothing after it", halves,
       Hex("48424E33 00 00000005 4142434445 48424E33 00 00000000 48424E33 00 00000003 010203"),
       true},
  };
  for (const auto &row : table) {
    simulator->SetChannelScript(1, row.script);
    Client client(kAddresses[1], simulator->ChannelPort());
    client.Write(kMediaRequest);
    EXPECT_EQ(ToHex(client.Read(9)), ToHex(kAccepted)) << row.name;
    const int piecesBefore = client.pieces;
    EXPECT_EQ(ToHex(client.Read(row.stream.size())), ToHex(row.stream)) << row.name;
    if (row.script.steps.front().byteByByte) {
      // Sent whole, the steps would come in at most six pieces; byte by byte, 2 ms apart, in
      // about 95 unless the reader falls far behind.
      EXPECT_GT(client.pieces - piecesBefore, 20) << row.name << ": arrived in pieces";
    }
    EXPECT_EQ(ToHex(client.Read(1, 150)), "") << row.name << ": nothing more";
    EXPECT_EQ(client.closed, row.deviceCloses) << row.name;
  }
  EXPECT_EQ(ToHex(kivsim::PatternPayload(3, 4)), "5D 5E 5F 60"); // (3 * 31 + i) & 0xFF
}

// Two connections to one device at once each play the script from its start; what each host
// wrote after its open request (in the same segment or later) is recorded in order, and its
// close is seen.
TEST_F(SimulatorChannelTest, HostBytesAreRecordedPerConnectionAndTheHostsCloseIsSeen) {
  simulator->SetChannelScript(0, kivsim::PatternScript(1, 4));
  const Bytes hundred = Pattern(0, 100);
  std::unique_ptr<Client> first = Connect(0), second = Connect(0);
  first->Write(kScanRequest);
  second->Write(Join({kPrintRequest, Text("XYZ")}));
  for (Client *client : {first.get(), second.get()}) {
    EXPECT_EQ(ToHex(client->Read(22)), ToHex(Join({kAccepted, PatternFrame(0, 4)})));
  }
  first->Write(Bytes(hundred.begin(), hundred.begin() + 30));
  first->Write(Bytes(hundred.begin() + 30, hundred.end()));
  first.reset();
  second.reset();
  ASSERT_TRUE(WaitFinished(0, 2));

  const kivsim::ChannelLog log = simulator->ChannelRecord(0);
  EXPECT_EQ(log.accepted, 2u);
  ASSERT_EQ(log.connections.size(), 2u);
  // Accepted in connect order, but which request came first is the scheduler's choice.
  const bool inOrder = log.connections[0].openRequest == kScanRequest;
  const kivsim::ChannelConnectionLog &scan = log.connections[inOrder ? 0 : 1];
  const kivsim::ChannelConnectionLog &print = log.connections[inOrder ? 1 : 0];
  EXPECT_EQ(ToHex(scan.openRequest), ToHex(kScanRequest));
  EXPECT_EQ(ToHex(scan.written), ToHex(hundred));
  EXPECT_EQ(scan.writtenCount, 100u);
  EXPECT_EQ(ToHex(print.openRequest), ToHex(kPrintRequest));
  EXPECT_EQ(ToHex(print.written), ToHex(Text("XYZ")));
  for (const kivsim::ChannelConnectionLog &connection : log.connections) {
    EXPECT_TRUE(connection.hostClosed && !connection.deviceClosed && connection.finished);
  }
}

// Stop ends a connection waiting for its open request, a silent one, one in a long pause and one
// sending to a host that does not read, all within its bounded wait and with every descriptor
// closed.
TEST_F(SimulatorChannelTest, StopEndsEveryConnectionPromptly) {
  kivsim::ChannelScript silent;
  silent.handshake = kivsim::ChannelScript::kSilent;
  kivsim::ChannelScript flood = kivsim::PatternScript(1, 8 << 20);
  simulator->SetChannelScript(0, silent);
  simulator->SetChannelScript(
      1, kivsim::ChannelScript{kivsim::ChannelScript::kAccept, 0, {kivsim::PauseStep(30000)}});
  std::vector<std::unique_ptr<Client>> clients;
  clients.push_back(Connect(0)); // no open request
  clients.push_back(Connect(0));
  clients.back()->Write(kScanRequest);
  clients.push_back(Connect(1));
  clients.back()->Write(kScanRequest);
  ASSERT_TRUE(simulator->WaitForChannel(
      0, [](const kivsim::ChannelLog &log) { return log.accepted == 2; }, 5000));
  simulator->SetChannelScript(0, flood);
  clients.push_back(Connect(0)); // never reads
  clients.back()->Write(kHidRequest);
  EXPECT_EQ(ToHex(clients[2]->Read(9)), ToHex(kAccepted));
  ASSERT_TRUE(simulator->WaitForChannel(
      0,
      [](const kivsim::ChannelLog &log) {
        return log.connections.size() == 3 && log.connections[2].openRequest.size() == 9;
      },
      5000));

  const auto start = std::chrono::steady_clock::now();
  simulator->Stop();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
  for (int device = 0; device < 2; ++device) {
    for (const kivsim::ChannelConnectionLog &connection :
         simulator->ChannelRecord(device).connections) {
      EXPECT_TRUE(connection.finished && !connection.hostClosed) << device;
    }
  }
  clients[1]->Read(1, 2000);
  EXPECT_TRUE(clients[1]->closed) << "the silent connection is closed";
}

} // namespace
