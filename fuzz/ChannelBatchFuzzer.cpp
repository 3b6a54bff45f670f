// Fuzzes the HBN3 channel's batched reads over loopback TCP: the input describes a stream of
// frames of chosen sizes (around the reader's copy and its copied-payload limit), tickle packets,
// bad headers and raw bytes, which a device thread sends while the channel reads it with the
// caller's-buffer form (of a chosen capacity, or none), the container form and the listener.
// Each must give exactly what an independent reading of the bytes gives, however the stream is
// cut into the reader's batches by its arrival.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "CommonFiles/KivNetBuffer.h"
#include "Common/Exceptions/KivExceptions.h"
#include "Sockets/KivHBN3FrameReader.h"
#include "Sockets/KivHBN3TCPSocket.h"

namespace {

typedef std::vector<unsigned char> Bytes;

void Require(bool condition) {
  if (!condition) {
    __builtin_trap();
  }
}

constexpr int kCopy = kiv::KivHBN3FrameReader::kCopyCapacity;
constexpr int kLimit = kiv::KivHBN3FrameReader::kCopiedPayloadLimit;

// Payload sizes an operation may choose: small ones, and the edges of the copied-payload limit
// and of the copy itself.
const int kSizes[32] = {1,     2,          7,          8,      9,          10,         63,
                        64,    65,         100,        255,    1000,       4087,       4096,
                        8192,  kLimit - 9, kLimit - 1, kLimit, kLimit + 1, kLimit + 9, 40000,
                        65527, 65536,      65537,      100000, kCopy - 18, kCopy - 9,  kCopy - 1,
                        kCopy, kCopy + 1,  kCopy + 9,  300000};

// Capacities of the caller's buffer; -1 stands for no buffer.
const int kCapacities[8] = {-1, 0, 1, 64, 1000, kLimit, 70000, 400000};

constexpr size_t kMaxStream = 2 * 1024 * 1024;
// More outcomes than a stream of kMaxStream bytes can give (one per nine bytes at most).
constexpr int kMaxOutcomes = 1 << 20;

void Append(Bytes &stream, const Bytes &bytes) {
  stream.insert(stream.end(), bytes.begin(), bytes.end());
}

Bytes Header(uint32_t length, const char *tag = "HBN3") {
  return {static_cast<unsigned char>(tag[0]),
          static_cast<unsigned char>(tag[1]),
          static_cast<unsigned char>(tag[2]),
          static_cast<unsigned char>(tag[3]),
          0x5A,
          static_cast<unsigned char>(length >> 24),
          static_cast<unsigned char>(length >> 16),
          static_cast<unsigned char>(length >> 8),
          static_cast<unsigned char>(length)};
}

// Bytes that differ at every offset within 251, made once: payloads are slices of it, so
// building a stream costs little besides the copy.
const Bytes &Pattern() {
  static const Bytes pattern = [] {
    Bytes bytes(static_cast<size_t>(300000 + 256));
    for (size_t b = 0; b < bytes.size(); ++b) {
      bytes[b] = static_cast<unsigned char>(b * 7 + (b >> 9));
    }
    return bytes;
  }();
  return pattern;
}

// The stream an input describes: one operation per byte (after the first), the top three bits
// the kind, the low five the size; raw bytes take the input's following bytes as they are.
Bytes StreamOf(const uint8_t *ops, size_t count) {
  Bytes stream;
  for (size_t i = 0; i < count && stream.size() < kMaxStream; ++i) {
    const int size = kSizes[ops[i] & 31];
    switch (ops[i] >> 5) {
    case 0:
    case 1:
    case 2: { // a data frame, its payload a slice of the pattern that differs between frames
      Append(stream, Header(static_cast<uint32_t>(size)));
      const Bytes &pattern = Pattern();
      const long from = static_cast<long>((i * 29) % 251);
      stream.insert(stream.end(), pattern.begin() + from, pattern.begin() + from + size);
      break;
    }
    case 3: // a tickle packet
      Append(stream, Header(0));
      break;
    case 4: // a bad tag, its length not followed by a payload
      Append(stream, Header(static_cast<uint32_t>(size), "HBN1"));
      break;
    case 5: // a negative or too large length
      Append(stream, Header((ops[i] & 1) != 0 ? 0x80000000u - static_cast<uint32_t>(size)
                                              : 0x04000001u + static_cast<uint32_t>(size)));
      break;
    case 6: { // raw bytes: the next (size % 16) input bytes
      const size_t take = std::min(count - i - 1, static_cast<size_t>(size % 16));
      stream.insert(stream.end(), ops + i + 1, ops + i + 1 + take);
      i += take;
      break;
    }
    default: { // the first bytes of a frame header: the stream may end inside it
      const Bytes header = Header(static_cast<uint32_t>(size));
      Append(stream, Bytes(header.begin(), header.begin() + (size % 9)));
      break;
    }
    }
  }
  return stream;
}

// One outcome as the host sees it: a count, with the payload at `at` in the stream when one is
// handed over; "lost" for a frame too large for the caller's buffer; for the listener a failure
// report (null, n).
struct Outcome {
  int count;
  size_t at;    // where the payload lies in the stream (count > 0 and a payload handed over)
  bool payload; // a payload is handed over
  bool special; // lost (reads), a null block (listener)
};

// The stream read independently of the library. `capacity` -1: no buffer (counts only);
// `listener`: bad headers are (null, 1), tickles skipped, no tickle limit.
std::vector<Outcome> Expected(const Bytes &stream, int maxTickles, int capacity, bool listener) {
  std::vector<Outcome> outcomes;
  outcomes.reserve(stream.size() / 9 + 2);
  size_t at = 0;
  int tickles = 0;
  for (;;) {
    if (stream.size() - at < 9) {
      outcomes.push_back({0, 0, false, false});
      return outcomes;
    }
    const unsigned char *h = stream.data() + at;
    at += 9;
    const bool tagged = h[0] == 'H' && h[1] == 'B' && h[2] == 'N' && h[3] == '3';
    const int32_t length = static_cast<int32_t>((uint32_t(h[5]) << 24) | (uint32_t(h[6]) << 16) |
                                                (uint32_t(h[7]) << 8) | uint32_t(h[8]));
    if (tagged && length == 0) {
      if (!listener && maxTickles > 0 && ++tickles >= maxTickles) {
        outcomes.push_back({-5, 0, false, false});
        tickles = 0;
      }
      continue;
    }
    tickles = 0;
    if (!tagged || length < 0 || length > kHBN3MaxFramePayloadLength) {
      outcomes.push_back(listener ? Outcome{1, 0, false, true} : Outcome{-2, 0, false, false});
      continue;
    }
    if (stream.size() - at < static_cast<size_t>(length)) {
      outcomes.push_back({0, 0, false, false}); // closed inside the payload
      return outcomes;
    }
    if (!listener && capacity >= 0 && length > capacity) {
      outcomes.push_back({0, 0, false, true}); // lost
    } else {
      outcomes.push_back({length, at, listener || capacity >= 0, false});
    }
    at += static_cast<size_t>(length);
  }
}

// Checks one outcome the library gave against the next expected one.
class Checker {
public:
  Checker(const Bytes &stream, std::vector<Outcome> expected)
      : mStream(stream), mExpected(std::move(expected)) {}
  void Next(int count, const unsigned char *payload, bool special) {
    Require(mNext < mExpected.size());
    const Outcome &wanted = mExpected[mNext++];
    Require(count == wanted.count && special == wanted.special);
    Require((payload != nullptr) == wanted.payload);
    if (wanted.payload) {
      Require(std::memcmp(payload, mStream.data() + wanted.at, static_cast<size_t>(count)) == 0);
    }
  }
  bool Done() const { return mNext == mExpected.size(); }

private:
  const Bytes &mStream;
  std::vector<Outcome> mExpected;
  size_t mNext = 0;
};

// A channel on the host end of a fresh loopback connection whose device end a thread feeds with
// the stream and then closes.
class FedChannel : public KivHBN3TCPSocket {
public:
  explicit FedChannel(const Bytes &stream) : KivHBN3TCPSocket("127.0.0.1", 9, kScanInterface) {
    static const int listening = Listening();
    const int host = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    Require(host != -1 &&
            ::getsockname(listening, reinterpret_cast<sockaddr *>(&address), &length) == 0);
    Require(::connect(host, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0);
    const int device = ::accept4(listening, nullptr, nullptr, SOCK_CLOEXEC);
    Require(device != -1);
    AdoptConnectedSocket(host);
    mDevice = std::thread([device, &stream] {
      size_t sent = 0;
      while (sent < stream.size()) {
        const ssize_t n = ::send(device, stream.data() + sent, stream.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) {
          break; // the host went away first
        }
        sent += static_cast<size_t>(n);
      }
      ::close(device);
    });
  }
  ~FedChannel() {
    Close(); // a device still sending finds the connection gone
    mDevice.join();
  }

private:
  static int Listening() {
    const int listening = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    Require(listening != -1 &&
            ::bind(listening, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 &&
            ::listen(listening, 4) == 0);
    return listening;
  }

  std::thread mDevice;
};

void ReadIntoAll(const Bytes &stream, int maxTickles, int capacity) {
  Checker check(stream, Expected(stream, maxTickles, capacity, false));
  FedChannel channel(stream);
  std::vector<unsigned char> buffer(capacity > 0 ? static_cast<size_t>(capacity) : 1);
  const KivTimeVal patient = {10, 0}; // bytes on their way come long before
  for (int reads = 0; !check.Done() && reads < kMaxOutcomes; ++reads) {
    int count = 0;
    try {
      count = channel.ReadInto(capacity >= 0 ? buffer.data() : nullptr, capacity,
                               (reads & 1) != 0 ? &patient : nullptr, maxTickles);
    } catch (const KivExceptions &) {
      check.Next(0, nullptr, true);
      continue;
    }
    check.Next(count, count > 0 && capacity >= 0 ? buffer.data() : nullptr, false);
  }
  Require(check.Done());
}

void ReadBoxAll(const Bytes &stream, int maxTickles) {
  Checker check(stream, Expected(stream, maxTickles, INT_MAX, false));
  FedChannel channel(stream);
  KivNetBuffer box;
  KivNetBufferStorageGuard release(box);
  for (int reads = 0; !check.Done() && reads < kMaxOutcomes; ++reads) {
    const int count = channel.Read(box, maxTickles);
    Require(count <= 0 || box.GetBufferLength() == count);
    check.Next(count, count > 0 ? box.GetBufferRef() : nullptr, false);
  }
  Require(check.Done());
}

// Checks what the listener hands over and stops it at the end of the stream.
bool Listen(const unsigned char *data, int length, void *param) {
  Checker &check = *static_cast<Checker *>(param);
  check.Next(length, length > 0 ? data : nullptr, data == nullptr);
  std::free(const_cast<unsigned char *>(data));
  return !check.Done();
}

void ListenAll(const Bytes &stream) {
  Checker check(stream, Expected(stream, 0, INT_MAX, true));
  FedChannel channel(stream);
  channel.RegisterReadCallback(&Listen, &check, 0, 1000, false, false);
  Require(check.Done());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1 || size > 4096) {
    return 0;
  }
  // The first byte: the tickle limit of the reads (-1 to 2) and the caller's buffer capacity.
  const int maxTickles = static_cast<int>(data[0] % 4) - 1;
  const int capacity = kCapacities[(data[0] >> 2) % 8];
  const Bytes stream = StreamOf(data + 1, size - 1);

  ReadIntoAll(stream, maxTickles, capacity);
  if ((data[0] & 0x20) != 0) {
    ReadBoxAll(stream, maxTickles);
  } else {
    ListenAll(stream);
  }
  return 0;
}
