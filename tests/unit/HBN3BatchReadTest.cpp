// The channel's batched reads, over TCP and over a stream pair: frames cut by the end of a peek
// (in the payload, in the header, exactly at a frame's end), a header arriving in parts, large
// payloads among small ones, a frame too large for the caller's buffer, a bad header inside a
// batch, the stream consuming exactly what was handed out, a host waiting on the descriptor
// between reads, and the listener stopping or closed in the middle of a batch.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "Sockets/KivHBN3FrameReader.h"
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
using kivtest::Pattern;
using kivtest::TestChannel;
using kivtest::Tickle;

constexpr int kCopy = kiv::KivHBN3FrameReader::kCopyCapacity;
constexpr int kCopiedLimit = kiv::KivHBN3FrameReader::kCopiedPayloadLimit;

// A connected stream whose device end the test writes: TCP over loopback, or an AF_UNIX pair.
// Both ends have buffers of several MiB (the limits a privileged test may set), so a test can
// have a whole stream waiting in the host's end before the first read, and the reader's first
// peek sees a full copy.
class Stream {
public:
  explicit Stream(bool tcp) {
    if (!tcp) {
      int ends[2];
      EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
      mHost = ends[0];
      mDevice = ends[1];
      Enlarge(mDevice, SO_SNDBUFFORCE, SO_SNDBUF);
      return;
    }
    kivtest::LoopbackPeer listening;
    mHost = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    Enlarge(mHost, SO_RCVBUFFORCE, SO_RCVBUF); // before connect: it sets the window scale
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(listening.Port()));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::connect(mHost, reinterpret_cast<sockaddr *>(&to), sizeof to), 0);
    EXPECT_TRUE(listening.Accept());
    mDevice = ::dup(listening.Connection()); // the peer closes its own when it goes
    Enlarge(mDevice, SO_SNDBUFFORCE, SO_SNDBUF);
  }
  ~Stream() {
    Finish();
    for (int descriptor : {mHost, mDevice}) {
      if (descriptor != -1) {
        ::close(descriptor);
      }
    }
  }
  Stream(const Stream &) = delete;
  Stream &operator=(const Stream &) = delete;

  // The host end, given away (the channel closes it from now on).
  int TakeHost() {
    const int host = mHost;
    mHost = -1;
    mHostSeen = host;
    return host;
  }
  // Sends `bytes` from a thread of its own (a stream larger than the buffers does not block the
  // test); Finish waits for it.
  void Send(const Bytes &bytes) {
    Finish();
    mSender = std::thread([this, bytes] {
      size_t sent = 0;
      while (sent < bytes.size()) {
        const ssize_t n = ::send(mDevice, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) {
          return;
        }
        sent += static_cast<size_t>(n);
      }
    });
  }
  // Sends `bytes` and waits until all of them are waiting in the host's end.
  void SendWaiting(const Bytes &bytes) {
    const int before = Waiting();
    Send(bytes);
    EXPECT_TRUE(
        kivtest::WaitFor([&] { return Waiting() == before + static_cast<int>(bytes.size()); }, 10))
        << "only " << Waiting() << " bytes came";
    Finish();
  }
  void Finish() {
    if (mSender.joinable()) {
      mSender.join();
    }
  }
  void CloseDevice() {
    Finish();
    ::shutdown(mDevice, SHUT_WR);
  }
  // Bytes waiting in the host's end, not yet consumed by any reader.
  int Waiting() const {
    int waiting = -1;
    ::ioctl(mHost != -1 ? mHost : mHostSeen, FIONREAD, &waiting);
    return waiting;
  }

private:
  static void Enlarge(int descriptor, int forced, int plain) {
    const int big = 8 * 1024 * 1024;
    if (::setsockopt(descriptor, SOL_SOCKET, forced, &big, sizeof big) != 0) {
      ::setsockopt(descriptor, SOL_SOCKET, plain, &big, sizeof big);
    }
  }

  int mHost = -1;
  int mHostSeen = -1; // the host end after the channel took it (only asked how much waits)
  int mDevice = -1;
  std::thread mSender;
};

// Frames with payloads of the given sizes, each a pattern of its own.
std::vector<Bytes> Payloads(const std::vector<size_t> &sizes, int seed = 0) {
  std::vector<Bytes> payloads;
  for (size_t i = 0; i < sizes.size(); ++i) {
    payloads.push_back(Pattern(sizes[i], seed + static_cast<int>(i)));
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
int ReadBox(TestChannel &channel, Bytes &payload, const KivTimeVal *limit = nullptr) {
  KivNetBuffer box;
  KivNetBufferStorageGuard release(box);
  const int count = limit != nullptr ? channel.Read(box, *limit, 0) : channel.Read(box, 0);
  payload.assign(box.GetBufferRef(), box.GetBufferRef() + box.GetBufferLength());
  return count;
}

// Reads with the caller's-buffer form (the one behind the exported Read and ReadManaged).
int ReadBuffer(TestChannel &channel, Bytes &payload, const KivTimeVal *limit = nullptr) {
  std::vector<unsigned char> buffer(512 * 1024, 0xEE);
  const int count = channel.ReadInto(buffer.data(), static_cast<int>(buffer.size()), limit, 0);
  payload.assign(buffer.begin(), buffer.begin() + std::max(count, 0));
  return count;
}

typedef std::function<int(TestChannel &, Bytes &, const KivTimeVal *)> ReadForm;

struct FormCase {
  const char *name;
  ReadForm read;
};
const FormCase kForms[] = {{"container", ReadBox}, {"caller's buffer", ReadBuffer}};

// What a listener's callback received: payloads, "closed", "null/N".
struct Heard {
  std::mutex mutex;
  std::vector<std::string> calls;
  std::vector<Bytes> payloads;
  std::function<bool(size_t)> answer = [](size_t) { return true; };
  std::atomic<int> started{0};
  std::function<void()> during = [] {};

  static bool Callback(const unsigned char *data, int length, void *param) {
    Heard *self = static_cast<Heard *>(param);
    self->started++;
    self->during();
    size_t number = 0;
    {
      std::lock_guard<std::mutex> lock(self->mutex);
      if (data != nullptr && length > 0) {
        self->payloads.emplace_back(data, data + length);
        self->calls.push_back("frame");
      } else {
        self->calls.push_back(data == nullptr ? "null/" + std::to_string(length) : "closed");
      }
      number = self->calls.size();
    }
    std::free(const_cast<unsigned char *>(data));
    return self->answer(number);
  }
  std::string Last() {
    std::lock_guard<std::mutex> lock(mutex);
    return calls.empty() ? "" : calls.back();
  }
};

// Over TCP (true) and over a stream pair (false): the two ways the reader consumes.
class HBN3BatchRead : public kivtest::DescriptorCheckedTest,
                      public ::testing::WithParamInterface<bool> {};

INSTANTIATE_TEST_SUITE_P(Streams, HBN3BatchRead, ::testing::Values(true, false),
                         [](const ::testing::TestParamInfo<bool> &stream) {
                           return std::string(stream.param ? "Tcp" : "StreamPair");
                         });

// Streams waiting whole before the first read, so the first peek is a full copy and its end
// falls where each row puts it: inside a payload, inside a header, at a frame's end; with
// large payloads among small ones. Every form reads every frame, in order, byte for byte.
TEST_P(HBN3BatchRead, FramesCutByTheEndOfACopyComeWhole) {
  // Sizes of payloads that fill exactly `bytes` of stream with frames of about `each`.
  auto filling = [](size_t bytes, size_t each) {
    std::vector<size_t> sizes;
    while (bytes >= 2 * (each + 9)) {
      sizes.push_back(each);
      bytes -= each + 9;
    }
    sizes.push_back(bytes - 9);
    return sizes;
  };
  auto then = [](std::vector<size_t> sizes, std::initializer_list<size_t> more) {
    sizes.insert(sizes.end(), more);
    return sizes;
  };
  const struct {
    const char *name;
    std::vector<size_t> sizes;
  } rows[] = {
      {"a payload across the end", then(filling(kCopy - 500, 1000), {3000, 64, 64})},
      {"a header across the end", then(filling(kCopy - 4, 1000), {700, 64})},
      {"a frame ends with the copy", then(filling(kCopy, 1000), {700, 64})},
      {"small frames of 64 bytes", std::vector<size_t>(6000, 64)},
      {"large after small", {64, 64, 200000, 64, kCopiedLimit + 1, kCopiedLimit, 3, 150000, 1}},
      {"a frame larger than the copy first", {300000, 64, 64}},
  };
  for (const auto &row : rows) {
    const std::vector<Bytes> payloads = Payloads(row.sizes);
    for (const FormCase &form : kForms) {
      Stream stream(GetParam());
      TestChannel channel;
      channel.Adopt(stream.TakeHost());
      stream.SendWaiting(FramesOf(payloads));
      for (size_t i = 0; i < payloads.size(); ++i) {
        Bytes payload;
        ASSERT_EQ(form.read(channel, payload, nullptr), static_cast<int>(payloads[i].size()))
            << row.name << ", " << form.name << ", frame " << i;
        ASSERT_TRUE(payload == payloads[i]) << row.name << ", " << form.name << ", frame " << i;
      }
      EXPECT_EQ(stream.Waiting(), 0) << row.name << ", " << form.name << ": all consumed";
      stream.CloseDevice();
      Bytes none;
      EXPECT_EQ(form.read(channel, none, nullptr), 0) << row.name << ", " << form.name;
    }

    // The listener: the same frames, then the end of the stream.
    Stream stream(GetParam());
    TestChannel channel;
    channel.Adopt(stream.TakeHost());
    stream.SendWaiting(FramesOf(payloads));
    stream.CloseDevice();
    Heard heard;
    heard.answer = [&](size_t number) { return number <= payloads.size(); };
    EXPECT_EQ(channel.RegisterReadCallback(&Heard::Callback, &heard, 1, 0, false, false), 0);
    EXPECT_TRUE(heard.payloads == payloads) << row.name << ": the listener";
    EXPECT_EQ(heard.Last(), "closed") << row.name;
  }
}

// A header that comes in parts: the reads before it hand out the frames that came whole; a timed
// read then runs out (-5) and the part is kept; the frame comes whole when the rest arrives.
TEST_P(HBN3BatchRead, AHeaderArrivingInPartsIsKeptAcrossARunOutWait) {
  const std::vector<Bytes> payloads = Payloads({10, 20, 5000, 7});
  const Bytes stream = FramesOf(payloads);
  const size_t cut = stream.size() - (7 + 9) + 5; // five bytes into the last header
  for (const FormCase &form : kForms) {
    Stream peer(GetParam());
    TestChannel channel;
    channel.Adopt(peer.TakeHost());
    peer.SendWaiting(Bytes(stream.begin(), stream.begin() + static_cast<long>(cut)));
    const KivTimeVal brief = {0, 50000};
    for (size_t i = 0; i < 3; ++i) {
      Bytes payload;
      ASSERT_EQ(form.read(channel, payload, &brief), static_cast<int>(payloads[i].size()))
          << form.name;
      EXPECT_TRUE(payload == payloads[i]) << form.name << ", frame " << i;
    }
    Bytes payload;
    EXPECT_EQ(form.read(channel, payload, &brief), -5) << form.name;
    EXPECT_EQ(form.read(channel, payload, &brief), -5) << form.name << ", again";
    peer.SendWaiting(Bytes(stream.begin() + static_cast<long>(cut), stream.end()));
    EXPECT_EQ(form.read(channel, payload, &brief), 7) << form.name;
    EXPECT_TRUE(payload == payloads[3]) << form.name;
    EXPECT_EQ(peer.Waiting(), 0) << form.name;
  }
}

// A bad header inside a batch gives -2 after the frames before it, and only its nine bytes are
// consumed: what follows is read as the next header. The frames handed out leave the stream once
// the batch is used up, and nothing else does: a frame sent afterwards is read whole.
TEST_P(HBN3BatchRead, ABadHeaderInsideABatchConsumesExactlyItsNineBytes) {
  const Bytes first = Frame(Pattern(100, 1)), second = Frame(Pattern(30, 2));
  const Bytes third = Frame(Pattern(40, 3)), fourth = Frame(Pattern(5, 4));
  const Bytes bad = FrameHeader(30, "HBN1"); // its "length" would swallow the next frame
  for (const FormCase &form : kForms) {
    Stream peer(GetParam());
    TestChannel channel;
    channel.Adopt(peer.TakeHost());
    peer.SendWaiting(Join({first, second, bad, third, FrameHeader(-9), fourth}));
    Bytes payload;
    EXPECT_EQ(form.read(channel, payload, nullptr), 100) << form.name;
    EXPECT_EQ(form.read(channel, payload, nullptr), 30) << form.name;
    EXPECT_EQ(form.read(channel, payload, nullptr), -2) << form.name;
    EXPECT_EQ(form.read(channel, payload, nullptr), 40) << form.name;
    EXPECT_TRUE(payload == Pattern(40, 3)) << form.name;
    EXPECT_EQ(form.read(channel, payload, nullptr), -2) << form.name << ": negative length";
    EXPECT_EQ(form.read(channel, payload, nullptr), 5) << form.name;
    EXPECT_EQ(peer.Waiting(), 0) << form.name << ": the batch used up, all of it consumed";

    // A batch that ends with the bad header: its nine bytes go, the next frame stays whole.
    peer.SendWaiting(Join({first, FrameHeader(7, "XBN3")}));
    EXPECT_EQ(form.read(channel, payload, nullptr), 100) << form.name;
    EXPECT_EQ(peer.Waiting(), static_cast<int>(first.size() + 9)) << form.name << ": not yet";
    EXPECT_EQ(form.read(channel, payload, nullptr), -2) << form.name;
    EXPECT_EQ(peer.Waiting(), 0) << form.name;
    peer.SendWaiting(second);
    EXPECT_EQ(form.read(channel, payload, nullptr), 30) << form.name;
    EXPECT_TRUE(payload == Pattern(30, 2)) << form.name;
  }
}

// A frame too large for the caller's buffer, among frames that fit, whether it is in the copy
// or above the copied size: lost, with nothing allocated for it, and the next read gets the
// frame after it; the buffer holds nothing of it.
TEST_P(HBN3BatchRead, AFrameTooLargeForTheBufferIsConsumedWithoutAllocating) {
  Stream peer(GetParam());
  TestChannel channel;
  channel.Adopt(peer.TakeHost());
  const Bytes huge = Pattern(3 * 1024 * 1024, 5);
  peer.Send(Join({Frame(Pattern(10, 1)), Frame(Pattern(600, 2)), Frame(Pattern(11, 3)), Frame(huge),
                  Frame(Pattern(12, 4)), Frame(Pattern(13, 6)), Frame(Pattern(70000, 7)),
                  Frame(Pattern(14, 8))}));
  std::vector<unsigned char> buffer(512, 0xEE);
  auto read = [&]() { return channel.ReadInto(buffer.data(), 512, nullptr, 0); };
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
  EXPECT_EQ(channel.ReadInto(nullptr, 0, nullptr, 0), 13) << "no buffer: read and dropped";
  EXPECT_EQ(channel.ReadInto(nullptr, 0, nullptr, 0), 70000);
  EXPECT_EQ(read(), 14);
  peer.Finish();
  EXPECT_EQ(peer.Waiting(), 0);
}

// A device that closes inside a frame: the read reports the close (0) and the caller's buffer
// holds nothing of the cut frame, whether it was small, above the copied size, or above the
// copy; the frames before it come whole.
TEST_P(HBN3BatchRead, AFrameCutByTheDevicesCloseLeavesTheCallersBufferUntouched) {
  for (size_t size : {size_t(100), size_t(kCopiedLimit + 5000), size_t(kCopy + 5000)}) {
    Stream peer(GetParam());
    TestChannel channel;
    channel.Adopt(peer.TakeHost());
    const Bytes whole = Frame(Pattern(size, 9));
    peer.SendWaiting(Join({Frame(Pattern(20, 1)), Bytes(whole.begin(), whole.end() - 10)}));
    peer.CloseDevice();
    std::vector<unsigned char> buffer(kCopy + 8192, 0xEE);
    const int capacity = static_cast<int>(buffer.size());
    EXPECT_EQ(channel.ReadInto(buffer.data(), capacity, nullptr, 0), 20) << size;
    buffer.assign(buffer.size(), 0xEE);
    EXPECT_EQ(channel.ReadInto(buffer.data(), capacity, nullptr, 0), 0) << size;
    EXPECT_EQ(std::count(buffer.begin(), buffer.end(), 0xEE), static_cast<long>(buffer.size()))
        << size << ": the buffer is written only with a whole frame";
  }
}

// A host that waits on the descriptor between reads: it is woken while frames it has not read
// are waiting, every read after a wake gets a frame, and once it has read them all the
// descriptor is quiet (nothing read is left in the stream).
TEST_P(HBN3BatchRead, AHostWaitingOnTheDescriptorIsWokenByEveryFrameAndOnlyByThem) {
  Stream peer(GetParam());
  TestChannel channel;
  channel.Adopt(peer.TakeHost());
  const int descriptor = channel.GetSocket();
  auto readable = [&](int milliseconds) {
    pollfd watched = {descriptor, POLLIN, 0};
    return ::poll(&watched, 1, milliseconds) == 1;
  };
  const KivTimeVal none = {0, 0};
  for (const std::vector<size_t> &burst :
       {std::vector<size_t>(300, 64), std::vector<size_t>{5, 70000, 6, 40000, 7},
        std::vector<size_t>(2000, 200)}) {
    const std::vector<Bytes> payloads = Payloads(burst, static_cast<int>(burst.size()));
    EXPECT_FALSE(readable(0)) << "quiet before the burst";
    peer.SendWaiting(FramesOf(payloads));
    for (size_t i = 0; i < payloads.size(); ++i) {
      ASSERT_TRUE(readable(0)) << "frame " << i << " has come: the host must not wait for it";
      Bytes payload;
      ASSERT_EQ(ReadBuffer(channel, payload, &none), static_cast<int>(payloads[i].size()))
          << "frame " << i;
      ASSERT_TRUE(payload == payloads[i]) << "frame " << i;
    }
    EXPECT_FALSE(readable(0)) << "every frame read: nothing left to wake the host";
    EXPECT_EQ(peer.Waiting(), 0);
  }
}

// A listener whose callback says stop in the middle of a batch has consumed the frames it handed
// out and no other: a read afterwards gets the next one.
TEST_P(HBN3BatchRead, AListenerStoppedInsideABatchLeavesTheRestForTheNextReader) {
  const std::vector<Bytes> payloads = Payloads({10, 11, 12, 40000, 13, 14});
  Stream peer(GetParam());
  TestChannel channel;
  channel.Adopt(peer.TakeHost());
  peer.SendWaiting(FramesOf(payloads));
  Heard heard;
  heard.answer = [](size_t number) { return number < 2; };
  EXPECT_EQ(channel.RegisterReadCallback(&Heard::Callback, &heard, 1, 0, false, false), 0);
  ASSERT_EQ(heard.payloads.size(), 2u);
  EXPECT_EQ(
      peer.Waiting(),
      static_cast<int>(FramesOf({payloads[2], payloads[3], payloads[4], payloads[5]}).size()));
  for (size_t i = 2; i < payloads.size(); ++i) {
    Bytes payload;
    ASSERT_EQ(ReadBox(channel, payload, nullptr), static_cast<int>(payloads[i].size()));
    EXPECT_TRUE(payload == payloads[i]) << "frame " << i;
  }
  EXPECT_EQ(peer.Waiting(), 0);
}

// Close from another thread while the listener hands out a batch: the callback in progress ends,
// no other call starts, and the listener is gone within a poll period.
TEST_P(HBN3BatchRead, CloseInsideABatchEndsTheListenerWithoutAFurtherCallback) {
  Stream peer(GetParam());
  TestChannel channel;
  channel.Adopt(peer.TakeHost());
  peer.SendWaiting(FramesOf(Payloads(std::vector<size_t>(500, 64))));
  Heard heard;
  heard.during = [] { std::this_thread::sleep_for(std::chrono::milliseconds(20)); };
  ASSERT_EQ(channel.RegisterReadCallback(&Heard::Callback, &heard, 1, 0, true, false), 0);
  const pthread_t thread = *channel.GetListenerThreadID();
  ASSERT_TRUE(kivtest::WaitFor([&] { return heard.started.load() >= 3; }, 10));
  EXPECT_EQ(channel.Close(), 0);
  const int startedByClose = heard.started.load();
  const auto closed = std::chrono::steady_clock::now();
  ASSERT_TRUE(kivtest::WaitFor([&] { return channel.GetListenerThreadID() == nullptr; }, 5));
  EXPECT_LT(kivtest::SecondsSince(closed), 1.5) << "within one poll period";
  pthread_join(thread, nullptr);
  EXPECT_EQ(heard.started.load(), startedByClose) << "no call started after Close";
  EXPECT_LT(heard.started.load(), 500);
  Bytes payload;
  EXPECT_THROW(ReadBox(channel, payload, nullptr), KivExceptions)
      << "a closed channel reads nothing of what the listener had seen";
}

} // namespace
