// The HBN3 channel's class: the frame header's bytes, the open handshake's answer in pieces and
// silence, frame reads (tickle packets, header pieces kept, bad tags, negative and huge lengths
// without allocation, closes, wait limits), raw writes, close, and one reader at a time.
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "Exceptions/KivWrapperException.h"
#include "Sockets/KivHBN3TCPSocket.h"
#include "support/ChannelPeer.h"
#include "support/DescriptorCheckedTest.h"
#include "support/LargeAllocations.h"
#include "support/TestChannel.h"

namespace {

using kivtest::Bytes;
using kivtest::Frame;
using kivtest::FrameHeader;
using kivtest::Hex;
using kivtest::Join;
using kivtest::StreamPair;
using kivtest::TestChannel;
using kivtest::Tickle;

typedef kivtest::DescriptorCheckedTest HBN3Channel;

// The content of a container.
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

// A channel on one end of a stream pair, with a container the reads fill.
struct PairedChannel {
  StreamPair pair;
  TestChannel channel;
  KivNetBuffer box;
  KivNetBufferStorageGuard release{box};
  PairedChannel() { channel.Adopt(pair.TakeHost()); }
};

TEST(HBN3FrameHeader, ReadsAndWritesItsNineBytes) {
  const unsigned char wire[] = {0x48, 0x42, 0x4E, 0x33, 0x7F, 0x00, 0x00, 0x02, 0x58};
  const KivHBN3TCPHeader header = KivHBN3TCPHeader::FromBytes(wire);
  EXPECT_EQ(header.mProtocol, 0x48424E33u);
  EXPECT_EQ(header.mDummy, 0x7F);
  EXPECT_EQ(header.mPayloadLength, 600);
  unsigned char back[9] = {};
  header.ToBytes(back);
  EXPECT_EQ(kivtest::ToHex(back, 9), "48 42 4E 33 7F 00 00 02 58");

  const unsigned char negative[] = {0x48, 0x42, 0x4E, 0x33, 0x00, 0xFF, 0xFF, 0xFF, 0xFE};
  EXPECT_EQ(KivHBN3TCPHeader::FromBytes(negative).mPayloadLength, -2);
  EXPECT_EQ(kHBN3MaxFramePayloadLength, 64 * 1024 * 1024);
}

// Every interface and every refused answer are checked through OpenTCPSocket against the device
// simulator; here what needs a peer of the test's own or a shorter wait.
TEST_F(HBN3Channel, OpenTakesAnAnswerInPiecesAndGivesUpOnSilence) {
  const struct {
    const char *name;
    KivEndPointInterface endPoint;
    const char *request;
    std::function<void(kivtest::LoopbackPeer &)> answer;
    int result;
  } cases[] = {
      {"media, answer in pieces", kMediaInterface, "48 42 4E 33 00 00 00 00 08",
       [](kivtest::LoopbackPeer &p) {
         p.Send(Hex("48 42 4E"));
         std::this_thread::sleep_for(std::chrono::milliseconds(20));
         p.Send(Hex("33 00 00 00 00 00"));
       },
       9},
      {"outside the enumeration", KivEndPointInterface(7), "48 42 4E 33 00 00 00 00 02",
       [](kivtest::LoopbackPeer &p) { p.Send(Hex("48 42 4E 33 00 00 00 00 00")); }, 9},
      {"silent", kScanInterface, "48 42 4E 33 00 00 00 00 02", [](kivtest::LoopbackPeer &) {}, -1},
  };
  for (const auto &c : cases) {
    kivtest::LoopbackPeer peer;
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
  kivtest::LoopbackPeer peer;
  TestChannel nowhere(kScanInterface, [] { return kivtest::LoopbackPeer().Port(); }());
  EXPECT_TRUE(ThrowsPlain([&] { nowhere.Open(); })) << "nothing listening";

  TestChannel channel(kHIDInterface, 1);
  ASSERT_EQ(channel.Close(), 0);
  std::thread device([&] {
    if (peer.Accept()) {
      peer.Receive(9);
      peer.Send(Hex("48 42 4E 33 00 00 00 00 00"));
    }
  });
  EXPECT_EQ(channel.Open("127.0.0.1", peer.Port(), kPrintInterface), 9);
  device.join();
  EXPECT_EQ(channel.GetEndPointInterface(), kPrintInterface);
  EXPECT_NE(channel.GetSocket(), -1) << "a new descriptor";
}

TEST_F(HBN3Channel, ReadSkipsTicklePacketsAndReadsThePayloadWhole) {
  PairedChannel c;
  c.pair.Send(Join({Tickle(), Tickle(), Hex("48 42 4E 33 00 00 00 00 03 41 42 43")}));
  EXPECT_EQ(c.channel.Read(c.box, 0), 3);
  EXPECT_EQ(Content(c.box), "41 42 43");
  EXPECT_EQ(c.box.GetHeaderType(), 0u) << "a payload shorter than a header type";

  const Bytes big = kivtest::Pattern(200000, 3); // more than one receive's worth
  std::thread device([&] { c.pair.Send(Frame(big)); });
  EXPECT_EQ(c.channel.Read(c.box, KivTimeVal{5, 0}, 0), 200000);
  device.join();
  EXPECT_TRUE(Content(c.box) == kivtest::ToHex(big));
}

// Each row: what the device sends (then closes), the tickle limit, the result, the container
// afterwards (it starts as "EE EE"), and whether the read may allocate a large block.
TEST_F(HBN3Channel, ReadResultsForEveryKindOfStream) {
  const struct {
    const char *name;
    Bytes stream;
    int maxTickles;
    int result;
    const char *content;
  } cases[] = {
      {"tag HBN1", Join({FrameHeader(3, "HBN1"), Hex("41 42 43")}), 0, -2, "EE EE"},
      {"negative length", FrameHeader(-1), 0, -2, "EE EE"},
      {"most negative length", FrameHeader(-2147483648LL), 0, -2, "EE EE"},
      {"one above 64 MiB", FrameHeader(64 * 1024 * 1024 + 1), 0, -2, "EE EE"},
      {"largest length", FrameHeader(0x7FFFFFFF), 0, -2, "EE EE"},
      {"closed inside the header", Hex("48 42 4E 33"), 0, 0, "EE EE"},
      {"closed before anything", Bytes(), 0, 0, "EE EE"},
      {"closed inside the payload", Join({FrameHeader(10), Hex("01 02 03")}), 0, 0, ""},
      {"64 MiB is allowed", Join({FrameHeader(64 * 1024 * 1024), Hex("01")}), 0, 0, ""},
      {"two tickles, limit two", Join({Tickle(), Tickle(), Frame(Hex("41"))}), 2, -5, "EE EE"},
      {"two tickles, limit three", Join({Tickle(), Tickle(), Frame(Hex("41"))}), 3, 1, "41"},
      {"many tickles, no limit",
       Join({Tickle(), Tickle(), Tickle(), Tickle(), Tickle(), Frame(Hex("42"))}), -1, 1, "42"},
  };
  ASSERT_TRUE(kivtest::LargeAllocationsAreCounted());
  for (const auto &c : cases) {
    PairedChannel p;
    p.box.SetBuffer(Hex("EE EE").data(), 2);
    p.pair.Send(c.stream);
    p.pair.CloseDevice();
    const long largeBefore = kivtest::LargeAllocations();
    EXPECT_EQ(p.channel.Read(p.box, c.maxTickles), c.result) << c.name;
    EXPECT_EQ(Content(p.box), c.content) << c.name;
    if (c.result == -2) {
      EXPECT_EQ(kivtest::LargeAllocations(), largeBefore) << c.name << ": nothing reserved";
    }
  }
}

TEST_F(HBN3Channel, TimedReadRunsOutAndKeepsTheHeaderBytesThatCame) {
  PairedChannel c;
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(c.channel.Read(c.box, KivTimeVal{0, 300000}, 0), -5);
  EXPECT_GE(kivtest::SecondsSince(start), 0.25);

  const Bytes frame = Frame(Hex("0A 0B 0C 0D"));
  c.pair.Send(Bytes(frame.begin(), frame.begin() + 5));
  EXPECT_EQ(c.channel.Read(c.box, KivTimeVal{0, 50000}, 0), -5);
  EXPECT_EQ(Content(c.box), "");
  c.pair.Send(Bytes(frame.begin() + 5, frame.end()));
  EXPECT_EQ(c.channel.Read(c.box, KivTimeVal{1, 0}, 0), 4) << "the stream stays in step";
  EXPECT_EQ(Content(c.box), "0A 0B 0C 0D");
}

TEST_F(HBN3Channel, WritesSendExactlyTheBytesGiven) {
  PairedChannel c;
  Bytes hundred = kivtest::Pattern(100, 9);
  EXPECT_EQ(c.channel.Write(hundred.data(), 100), 100);
  EXPECT_EQ(kivtest::ToHex(c.pair.Drain()), kivtest::ToHex(hundred)) << "no header in front";
  EXPECT_EQ(c.channel.Write(hundred.data(), 7, KivTimeVal{1, 0}), 7);
  EXPECT_EQ(kivtest::ToHex(c.pair.Drain()),
            kivtest::ToHex(Bytes(hundred.begin(), hundred.begin() + 7)));
  EXPECT_EQ(c.channel.Write(hundred.data(), -1), 0) << "refused, not thrown";

  // A device that reads nothing: the timed write runs out.
  std::vector<unsigned char> flood(16 * 1024 * 1024, 0x33);
  EXPECT_EQ(c.channel.Write(flood.data(), static_cast<int>(flood.size()), KivTimeVal{0, 100000}),
            -5);

  ASSERT_EQ(c.channel.Close(), 0);
  EXPECT_EQ(c.channel.Write(hundred.data(), 100), 0);
  EXPECT_TRUE(ThrowsPlain([&] { c.channel.Write(hundred.data(), 100, KivTimeVal{1, 0}); }));
}

TEST_F(HBN3Channel, CloseForgetsTheDescriptorAndReadsThenFailPlainly) {
  PairedChannel c;
  EXPECT_EQ(c.channel.Close(), 0);
  EXPECT_EQ(c.channel.GetSocket(), -1);
  EXPECT_EQ(c.channel.Close(), -1) << "already closed";
  unsigned char byte = 0;
  EXPECT_EQ(::recv(c.pair.Device(), &byte, 1, 0), 0) << "the device sees the connection end";
  EXPECT_TRUE(ThrowsPlain([&] { c.channel.Read(c.box, 0); }));
  EXPECT_TRUE(ThrowsPlain([&] { c.channel.Read(c.box, KivTimeVal{1, 0}, 0); }));
}

TEST_F(HBN3Channel, ASecondReaderIsRefusedWhileOneReads) {
  PairedChannel c;
  // Either may find the other in the slot first; the reader tries again until it is in.
  std::atomic<int> first{-99};
  std::thread reader([&] {
    for (int attempt = 0; attempt < 500 && first.load() == -99; ++attempt) {
      try {
        first = c.channel.Read(c.box, KivTimeVal{10, 0}, 0);
      } catch (const KivExceptions &) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    }
  });
  KivNetBuffer other;
  bool refused = false;
  for (int attempt = 0; attempt < 200 && !refused; ++attempt) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10)); // room for the reader to get in
    refused = ThrowsPlain([&] { c.channel.Read(other, KivTimeVal{0, 1000}, 0); });
  }
  c.pair.Send(Frame(Hex("5A")));
  reader.join();
  EXPECT_TRUE(refused);
  EXPECT_EQ(first.load(), 1) << "the first reader got the frame";
  other.ResetBuffer();
}

} // namespace
