// The channel's batched reads, over TCP and over a stream pair: frames cut by the end of a peek
// (in the payload, in the header, exactly at a frame's end), a header arriving in parts, large
// payloads among small ones, a frame too large for the caller's buffer, a bad header inside a
// batch, a frame cut by the device's close, and a listener stopped in the middle of a batch: the
// stream gives up exactly what was handed out.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "Sockets/KivHBN3FrameReader.h"
#include "support/LargeAllocations.h"
#include "support/TestChannel.h"

namespace {

using kivtest::Bytes;
using kivtest::ChannelOnStream;
using kivtest::Frame;
using kivtest::FrameHeader;
using kivtest::Join;
using kivtest::Pattern;
using kivtest::TestChannel;

constexpr int kCopy = kiv::KivHBN3FrameReader::kCopyCapacity;
constexpr int kCopiedLimit = kiv::KivHBN3FrameReader::kCopiedPayloadLimit;

// Payloads of the given sizes, each a pattern of its own.
std::vector<Bytes> Payloads(const std::vector<size_t> &sizes) {
  std::vector<Bytes> payloads;
  for (size_t i = 0; i < sizes.size(); ++i) {
    payloads.push_back(Pattern(sizes[i], static_cast<int>(i)));
  }
  return payloads;
}

Bytes FramesOf(const std::vector<Bytes> &payloads) {
  Bytes stream;
  for (const Bytes &payload : payloads) {
    const Bytes frame = Frame(payload);
    stream.insert(stream.end(), frame.begin(), frame.end());
  }
  return stream;
}

// Reads with the container form.
int ReadBox(TestChannel &channel, Bytes &payload, const KivTimeVal *limit) {
  KivNetBuffer box;
  KivNetBufferStorageGuard release(box);
  const int count = limit != nullptr ? channel.Read(box, *limit, 0) : channel.Read(box, 0);
  payload.assign(box.GetBufferRef(), box.GetBufferRef() + box.GetBufferLength());
  return count;
}

// Reads with the caller's-buffer form (the one behind the exported Read and ReadManaged).
int ReadBuffer(TestChannel &channel, Bytes &payload, const KivTimeVal *limit) {
  std::vector<unsigned char> buffer(512 * 1024, 0xEE);
  const int count = channel.ReadInto(buffer.data(), static_cast<int>(buffer.size()), limit, 0);
  payload.assign(buffer.begin(), buffer.begin() + std::max(count, 0));
  return count;
}

const struct {
  const char *name;
  std::function<int(TestChannel &, Bytes &, const KivTimeVal *)> read;
} kForms[] = {{"container", ReadBox}, {"caller's buffer", ReadBuffer}};

// Over TCP (true) and over a stream pair (false): the two ways the reader consumes.
class HBN3BatchRead : public kivtest::ThreadCheckedTest,
                      public ::testing::WithParamInterface<bool> {};

INSTANTIATE_TEST_SUITE_P(Streams, HBN3BatchRead, ::testing::Values(true, false),
                         [](const ::testing::TestParamInfo<bool> &stream) {
                           return std::string(stream.param ? "Tcp" : "StreamPair");
                         });

// Streams waiting whole before the first read, so the first peek is a full copy and its end
// falls where each row puts it. Every form and the listener get every frame, in order, whole.
TEST_P(HBN3BatchRead, FramesCutByTheEndOfACopyComeWhole) {
  // Sizes of payloads that fill exactly `bytes` of stream with frames of about `each`, then more.
  auto filling = [](size_t bytes, size_t each, std::initializer_list<size_t> more) {
    std::vector<size_t> sizes;
    for (; bytes >= 2 * (each + 9); bytes -= each + 9) {
      sizes.push_back(each);
    }
    sizes.push_back(bytes - 9);
    sizes.insert(sizes.end(), more);
    return sizes;
  };
  const struct {
    const char *name;
    std::vector<size_t> sizes;
  } rows[] = {
      {"a payload across the end", filling(kCopy - 500, 1000, {3000, 64, 64})},
      {"a header across the end", filling(kCopy - 4, 1000, {700, 64})},
      {"a frame ends with the copy", filling(kCopy, 1000, {700, 64})},
      {"small frames of 64 bytes", std::vector<size_t>(6000, 64)},
      {"large after small", {64, 64, 200000, 64, kCopiedLimit + 1, kCopiedLimit, 3, 150000, 1}},
      {"a frame larger than the copy first", {300000, 64, 64}},
  };
  for (const auto &row : rows) {
    const std::vector<Bytes> payloads = Payloads(row.sizes);
    for (const auto &form : kForms) {
      const std::string where = std::string(row.name) + ", " + form.name;
      ChannelOnStream c(GetParam());
      c.device.SendWaiting(FramesOf(payloads));
      for (size_t i = 0; i < payloads.size(); ++i) {
        Bytes payload;
        ASSERT_EQ(form.read(c.channel, payload, nullptr), static_cast<int>(payloads[i].size()))
            << where << ", frame " << i;
        ASSERT_TRUE(payload == payloads[i]) << where << ", frame " << i;
      }
      EXPECT_EQ(c.device.Waiting(), 0) << where << ": all consumed";
      c.device.CloseDevice();
      Bytes none;
      EXPECT_EQ(form.read(c.channel, none, nullptr), 0) << where;
    }

    ChannelOnStream c(GetParam());
    c.device.SendWaiting(FramesOf(payloads));
    c.device.CloseDevice();
    kivtest::CallbackLog log;
    log.answer = [](int, const kivtest::ListenerCall &call) { return call.text != "closed"; };
    EXPECT_EQ(
        c.channel.RegisterReadCallback(&kivtest::CallbackLog::Callback, &log, 1, 0, false, false),
        0);
    EXPECT_TRUE(log.Payloads() == payloads) << row.name << ": the listener";
    EXPECT_EQ(log.Count(), payloads.size() + 1) << row.name << ": then the end of the stream";
  }
}

// A header that comes in parts: the reads before it hand out the frames that came whole; a timed
// read then runs out (-5) and the part is kept; the frame comes whole when the rest arrives.
TEST_P(HBN3BatchRead, AHeaderArrivingInPartsIsKeptAcrossARunOutWait) {
  const std::vector<Bytes> payloads = Payloads({10, 20, 5000, 7});
  const Bytes stream = FramesOf(payloads);
  const long cut = static_cast<long>(stream.size()) - (7 + 9) + 5; // five bytes into the last
  const KivTimeVal brief = {0, 50000};
  for (const auto &form : kForms) {
    ChannelOnStream c(GetParam());
    c.device.SendWaiting(Bytes(stream.begin(), stream.begin() + cut));
    Bytes payload;
    for (size_t i = 0; i < 3; ++i) {
      ASSERT_EQ(form.read(c.channel, payload, &brief), static_cast<int>(payloads[i].size()))
          << form.name;
      EXPECT_TRUE(payload == payloads[i]) << form.name << ", frame " << i;
    }
    EXPECT_EQ(form.read(c.channel, payload, &brief), -5) << form.name;
    EXPECT_EQ(form.read(c.channel, payload, &brief), -5) << form.name << ", again";
    c.device.SendWaiting(Bytes(stream.begin() + cut, stream.end()));
    EXPECT_EQ(form.read(c.channel, payload, &brief), 7) << form.name;
    EXPECT_TRUE(payload == payloads[3]) << form.name;
    EXPECT_EQ(c.device.Waiting(), 0) << form.name;
  }
}

// A bad header inside a batch gives -2 after the frames before it, and only its nine bytes are
// consumed: what follows is read as the next header. The frames handed out leave the stream once
// the batch is used up, and nothing else does: a frame sent afterwards is read whole.
TEST_P(HBN3BatchRead, ABadHeaderInsideABatchConsumesExactlyItsNineBytes) {
  const Bytes p100 = Pattern(100, 1), p30 = Pattern(30, 2), p40 = Pattern(40, 3), p5 = Pattern(5);
  const Bytes bad = FrameHeader(30, "HBN1"); // its "length" would swallow the next frame
  for (const auto &form : kForms) {
    ChannelOnStream c(GetParam());
    auto expect = [&](int count, const Bytes &payload) {
      Bytes got;
      EXPECT_EQ(form.read(c.channel, got, nullptr), count) << form.name;
      EXPECT_TRUE(got == payload) << form.name << ", " << count;
    };
    c.device.SendWaiting(
        Join({Frame(p100), Frame(p30), bad, Frame(p40), FrameHeader(-9), Frame(p5)}));
    expect(100, p100);
    expect(30, p30);
    expect(-2, {});
    expect(40, p40);
    expect(-2, {});
    expect(5, p5);
    EXPECT_EQ(c.device.Waiting(), 0) << form.name << ": the batch used up, all of it consumed";

    // A batch that ends with the bad header: its nine bytes go, the next frame stays whole.
    c.device.SendWaiting(Join({Frame(p100), FrameHeader(7, "XBN3")}));
    expect(100, p100);
    EXPECT_EQ(c.device.Waiting(), 100 + 9 + 9) << form.name << ": nothing consumed yet";
    expect(-2, {});
    EXPECT_EQ(c.device.Waiting(), 0) << form.name;
    c.device.SendWaiting(Frame(p30));
    expect(30, p30);
  }
}

// A frame too large for the caller's buffer, among frames that fit, whether it is in the copy
// or above the copied size: lost, with nothing allocated for it, and the next read gets the
// frame after it; the buffer holds nothing of it.
TEST_P(HBN3BatchRead, AFrameTooLargeForTheBufferIsConsumedWithoutAllocating) {
  ChannelOnStream c(GetParam());
  c.device.Send(Join({Frame(Pattern(10, 1)), Frame(Pattern(600, 2)), Frame(Pattern(11, 3)),
                      Frame(Pattern(3 * 1024 * 1024, 5)), Frame(Pattern(12, 4)),
                      Frame(Pattern(13, 6)), Frame(Pattern(70000, 7)), Frame(Pattern(14, 8))}));
  std::vector<unsigned char> buffer(512, 0xEE);
  auto read = [&]() { return c.channel.ReadInto(buffer.data(), 512, nullptr, 0); };
  EXPECT_EQ(read(), 10);
  buffer.assign(512, 0xEE);
  EXPECT_THROW(read(), KivExceptions) << "600 into 512";
  EXPECT_EQ(buffer[0], 0xEE);
  EXPECT_EQ(read(), 11);
  EXPECT_EQ(kivtest::ToHex(buffer.data(), 11), kivtest::ToHex(Pattern(11, 3)));
  buffer.assign(512, 0xEE);
  ASSERT_TRUE(kivtest::LargeAllocationsAreCounted());
  const long largeBefore = kivtest::LargeAllocations();
  EXPECT_THROW(read(), KivExceptions) << "3 MiB into 512";
  EXPECT_EQ(kivtest::LargeAllocations(), largeBefore) << "nothing reserved for the lost frame";
  EXPECT_EQ(buffer[0], 0xEE);
  EXPECT_EQ(read(), 12);
  EXPECT_EQ(kivtest::ToHex(buffer.data(), 12), kivtest::ToHex(Pattern(12, 4)));
  EXPECT_EQ(c.channel.ReadInto(nullptr, 0, nullptr, 0), 13) << "no buffer: read and dropped";
  EXPECT_EQ(c.channel.ReadInto(nullptr, 0, nullptr, 0), 70000);
  EXPECT_EQ(read(), 14);
  c.device.Finish();
  EXPECT_EQ(c.device.Waiting(), 0);
}

// A device that closes inside a frame: the read reports the close (0) and the caller's buffer
// holds nothing of the cut frame, whether it was small, above the copied size, or above the
// copy; the frames before it come whole.
TEST_P(HBN3BatchRead, AFrameCutByTheDevicesCloseLeavesTheCallersBufferUntouched) {
  for (size_t size : {size_t(100), size_t(kCopiedLimit + 5000), size_t(kCopy + 5000)}) {
    ChannelOnStream c(GetParam());
    const Bytes whole = Frame(Pattern(size, 9));
    c.device.SendWaiting(Join({Frame(Pattern(20, 1)), Bytes(whole.begin(), whole.end() - 10)}));
    c.device.CloseDevice();
    std::vector<unsigned char> buffer(kCopy + 8192, 0xEE);
    const int capacity = static_cast<int>(buffer.size());
    EXPECT_EQ(c.channel.ReadInto(buffer.data(), capacity, nullptr, 0), 20) << size;
    buffer.assign(buffer.size(), 0xEE);
    EXPECT_EQ(c.channel.ReadInto(buffer.data(), capacity, nullptr, 0), 0) << size;
    EXPECT_EQ(std::count(buffer.begin(), buffer.end(), 0xEE), static_cast<long>(buffer.size()))
        << size << ": the buffer is written only with a whole frame";
  }
}

// A listener whose callback says stop in the middle of a batch has consumed the frames it handed
// out and no other: a read afterwards gets the next one.
TEST_P(HBN3BatchRead, AListenerStoppedInsideABatchLeavesTheRestForTheNextReader) {
  const std::vector<Bytes> payloads = Payloads({10, 11, 12, 40000, 13, 14});
  ChannelOnStream c(GetParam());
  c.device.SendWaiting(FramesOf(payloads));
  kivtest::CallbackLog log;
  log.answer = [](int number, const kivtest::ListenerCall &) { return number < 2; };
  EXPECT_EQ(
      c.channel.RegisterReadCallback(&kivtest::CallbackLog::Callback, &log, 1, 0, false, false), 0);
  ASSERT_EQ(log.Count(), 2u);
  EXPECT_EQ(
      c.device.Waiting(),
      static_cast<int>(FramesOf(std::vector<Bytes>(payloads.begin() + 2, payloads.end())).size()));
  for (size_t i = 2; i < payloads.size(); ++i) {
    Bytes payload;
    ASSERT_EQ(ReadBox(c.channel, payload, nullptr), static_cast<int>(payloads[i].size()));
    EXPECT_TRUE(payload == payloads[i]) << "frame " << i;
  }
}

} // namespace
