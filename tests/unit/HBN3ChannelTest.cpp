// The HBN3 channel's class: the frame header's bytes, the open handshake (an answer in pieces,
// silence, failures, opening again after Close), what a read leaves in the container for bad and
// cut streams (no memory reserved for a bad length), writes that cannot go, one reader at a time.
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "Exceptions/KivWrapperException.h"
#include "support/LargeAllocations.h"
#include "support/TestChannel.h"

namespace {

using kivtest::Bytes;
using kivtest::FrameHeader;
using kivtest::Hex;
using kivtest::Join;
using kivtest::LoopbackPeer;
using kivtest::TestChannel;

typedef kivtest::DescriptorCheckedTest HBN3Channel;

std::string Content(const KivNetBuffer &box) {
  return kivtest::ToHex(box.GetBufferRef(), box.GetBufferLength());
}

// Whether an operation throws exactly a plain KivExceptions (not one of its branches).
bool ThrowsPlain(const std::function<void()> &operation) {
  try {
    operation();
  } catch (const KivSocketException &) {
    return false;
  } catch (const KivWrapperException &) {
    return false;
  } catch (const KivExceptions &) {
    return true;
  }
  return false;
}

TEST(HBN3FrameHeader, ReadsAndWritesItsNineBytes) {
  const Bytes wire = Hex("48 42 4E 33 7F 00 00 02 58");
  const KivHBN3TCPHeader header = KivHBN3TCPHeader::FromBytes(wire.data());
  EXPECT_EQ(header.mProtocol, 0x48424E33u);
  EXPECT_EQ(header.mPayloadLength, 600);
  unsigned char back[9] = {};
  header.ToBytes(back);
  EXPECT_EQ(kivtest::ToHex(back, 9), kivtest::ToHex(wire));
}

// Every interface and every refused answer are checked through OpenTCPSocket against the device
// simulator; here what needs a peer of the test's own or a shorter wait.
TEST_F(HBN3Channel, OpenTakesAnAnswerInPiecesAndGivesUpOnSilence) {
  const struct {
    const char *name;
    KivEndPointInterface endPoint;
    const char *request;
    std::function<void(LoopbackPeer &)> answer;
    int result;
  } cases[] = {
      {"media, answer in pieces", kMediaInterface, "48 42 4E 33 00 00 00 00 08",
       [](LoopbackPeer &p) {
         p.Send(Hex("48 42 4E"));
         std::this_thread::sleep_for(std::chrono::milliseconds(20));
         p.Send(Hex("33 00 00 00 00 00"));
       },
       9},
      {"outside the enumeration", KivEndPointInterface(7), "48 42 4E 33 00 00 00 00 02",
       [](LoopbackPeer &p) { p.Send(FrameHeader(0)); }, 9},
      {"silent", kScanInterface, "48 42 4E 33 00 00 00 00 02", [](LoopbackPeer &) {}, -1},
  };
  for (const auto &c : cases) {
    LoopbackPeer peer;
    TestChannel channel(c.endPoint, peer.Port());
    channel.SetOpenAnswerLimit(KivTimeVal{0, 300000}); // the silent device, in less than 60 s
    Bytes request;
    std::thread device([&] {
      if (peer.Accept()) {
        request = peer.Receive(9);
        c.answer(peer);
      }
    });
    const int opened = channel.Open();
    device.join();
    EXPECT_EQ(opened, c.result) << c.name;
    EXPECT_EQ(kivtest::ToHex(request), c.request) << c.name;
    int noDelay = 0;
    socklen_t length = sizeof noDelay;
    ::getsockopt(channel.GetSocket(), IPPROTO_TCP, TCP_NODELAY, &noDelay, &length);
    EXPECT_EQ(noDelay, 1) << c.name;
    EXPECT_NE(channel.GetSocket(), -1) << c.name << ": the caller closes a refused channel";
  }
}

TEST_F(HBN3Channel, OpenFailuresAreAPlainExceptionAndCloseThenOpenConnectsAgain) {
  TestChannel nowhere(kScanInterface, [] { return LoopbackPeer().Port(); }());
  EXPECT_TRUE(ThrowsPlain([&] { nowhere.Open(); })) << "nothing listening";

  LoopbackPeer peer;
  TestChannel channel(kHIDInterface, 1);
  ASSERT_EQ(channel.Close(), 0);
  std::thread device([&] {
    if (peer.Accept() && peer.Receive(9) == Hex("48 42 4E 33 00 00 00 00 01")) {
      peer.Send(FrameHeader(0));
    }
  });
  EXPECT_EQ(channel.Open("127.0.0.1", peer.Port(), kPrintInterface), 9) << "a new descriptor";
  device.join();
}

// Each row: what the device sends before it closes, the result, and the container afterwards (it
// starts as "EE EE"). A bad length reserves no memory.
TEST_F(HBN3Channel, ReadLeavesTheContainerAsEachKindOfStreamRequires) {
  const struct {
    const char *name;
    Bytes stream;
    int result;
    const char *content;
  } cases[] = {
      {"tag HBN1", Join({FrameHeader(3, "HBN1"), Hex("41 42 43")}), -2, "EE EE"},
      {"negative length", FrameHeader(-1), -2, "EE EE"},
      {"one above 64 MiB", FrameHeader(64 * 1024 * 1024 + 1), -2, "EE EE"},
      {"64 MiB is allowed", Join({FrameHeader(64 * 1024 * 1024), Hex("01")}), 0, ""},
      {"closed inside the header", Hex("48 42 4E 33"), 0, "EE EE"},
      {"closed inside the payload", Join({FrameHeader(10), Hex("01 02 03")}), 0, ""},
  };
  ASSERT_TRUE(kivtest::LargeAllocationsAreCounted());
  for (const auto &c : cases) {
    kivtest::ChannelOnStream p;
    KivNetBuffer box;
    KivNetBufferStorageGuard release(box);
    box.SetBuffer(Hex("EE EE").data(), 2);
    p.device.Send(c.stream);
    p.device.CloseDevice();
    const long largeBefore = kivtest::LargeAllocations();
    EXPECT_EQ(p.channel.Read(box, 0), c.result) << c.name;
    EXPECT_EQ(Content(box), c.content) << c.name;
    if (c.result == -2) {
      EXPECT_EQ(kivtest::LargeAllocations(), largeBefore) << c.name << ": nothing reserved";
    }
  }
}

// The bytes a write puts on the wire are checked through the exported functions.
TEST_F(HBN3Channel, WritesRefuseANegativeLengthAndRunOutOnADeviceThatReadsNothing) {
  kivtest::ChannelOnStream c;
  std::vector<unsigned char> flood(16 * 1024 * 1024, 0x33);
  EXPECT_EQ(c.channel.Write(flood.data(), -1), 0) << "refused, not thrown";
  EXPECT_EQ(c.channel.Write(flood.data(), static_cast<int>(flood.size()), KivTimeVal{0, 100000}),
            -5);
}

TEST_F(HBN3Channel, ASecondReaderIsRefusedWhileOneReads) {
  kivtest::ChannelOnStream c;
  // Either may find the other in the slot first; the reader tries again until it is in.
  std::atomic<int> first{-99};
  std::thread reader([&] {
    KivNetBuffer box;
    KivNetBufferStorageGuard release(box);
    for (int attempt = 0; attempt < 500 && first.load() == -99; ++attempt) {
      try {
        first = c.channel.Read(box, KivTimeVal{10, 0}, 0);
      } catch (const KivExceptions &) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    }
  });
  KivNetBuffer other;
  KivNetBufferStorageGuard release(other);
  bool refused = false;
  for (int attempt = 0; attempt < 200 && !refused; ++attempt) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10)); // room for the reader to get in
    refused = ThrowsPlain([&] { c.channel.Read(other, KivTimeVal{0, 1000}, 0); });
  }
  c.device.Send(kivtest::Frame(Hex("5A")));
  reader.join();
  EXPECT_TRUE(refused);
  EXPECT_EQ(first.load(), 1) << "the first reader got the frame";
}

} // namespace
