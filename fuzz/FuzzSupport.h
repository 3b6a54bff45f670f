// Set-up shared by the fuzz targets: for the messages a fixed host and a container holding the
// input; for the HBN3 channel a reading of its stream independent of the library, and channels fed
// with a stream.
#ifndef KIV_FUZZ_FUZZSUPPORT_H
#define KIV_FUZZ_FUZZSUPPORT_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <utility>
#include <vector>

#include "../tests/support/FakeHostPlatform.h"
#include "CommonFiles/KivNetBuffer.h"
#include "Sockets/KivHBN3TCPSocket.h"

namespace kivfuzz {

// Stops the run with a crash report when an oracle does not hold.
inline void Require(bool condition) {
  if (!condition) {
    __builtin_trap();
  }
}

// Runs `body` on a container holding exactly the input, on a host with a default interface (so
// the MAC conversion of HCP answers never depends on the machine).
template <class Body> int WithMessage(const uint8_t *data, size_t size, Body &&body) {
  static kivtest::FakeHostPlatform platform("192.168.1.10", "255.255.255.0", "192.168.1.1");
  static kiv::HostPlatformOverrideScope scope(platform);
  static const unsigned char kNothing = 0;
  if (size > static_cast<size_t>(INT_MAX)) {
    return 0;
  }
  KivNetBuffer container;
  KivNetBufferStorageGuard guard(container);
  container.SetBuffer(size > 0 ? data : &kNothing, static_cast<int>(size));
  body(container);
  return 0;
}

typedef std::vector<unsigned char> Bytes;

// What a host must see next when it reads a channel: a count, and where the payload lies in the
// stream when one is handed over; `special` for a frame lost for the caller's buffer (reads) or
// a null block (listener).
struct ChannelOutcome {
  int count;
  size_t at;
  bool payload;
  bool special;
};

// The stream read independently of the library: frame by frame, nine-byte headers "HBN3" with a
// big-endian signed length of at most 64 MiB. `maxTickles` above 0 turns that many tickle packets
// in a row into -5 (reads); `capacity` is the caller's buffer (-1: none, payloads only counted).
// The listener skips every tickle packet and reports bad headers as (null, 1) where reads give
// -2. Both end at the end of the stream.
inline std::vector<ChannelOutcome> ExpectedOutcomes(const Bytes &stream, int maxTickles,
                                                    int capacity, bool listener) {
  std::vector<ChannelOutcome> outcomes;
  size_t at = 0;
  int tickles = 0;
  while (stream.size() - at >= 9) {
    const unsigned char *h = stream.data() + at;
    at += 9;
    const bool tagged = std::memcmp(h, "HBN3", 4) == 0;
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
    if (!tagged || length < 0 || length > 64 * 1024 * 1024) {
      outcomes.push_back(listener ? ChannelOutcome{1, 0, false, true}
                                  : ChannelOutcome{-2, 0, false, false});
    } else if (stream.size() - at < static_cast<size_t>(length)) {
      break; // closed inside the payload
    } else if (!listener && capacity >= 0 && length > capacity) {
      outcomes.push_back({0, 0, false, true}); // lost
      at += static_cast<size_t>(length);
    } else {
      outcomes.push_back({length, at, listener || capacity >= 0, false});
      at += static_cast<size_t>(length);
    }
  }
  outcomes.push_back({0, 0, false, false});
  return outcomes;
}

// Checks each outcome the library gives against the next expected one.
class ChannelChecker {
public:
  ChannelChecker(const Bytes &stream, std::vector<ChannelOutcome> expected)
      : mStream(stream), mExpected(std::move(expected)) {}
  void Next(int count, const unsigned char *payload, bool special) {
    Require(mNext < mExpected.size());
    const ChannelOutcome &wanted = mExpected[mNext++];
    Require(count == wanted.count && special == wanted.special);
    Require((payload != nullptr) == wanted.payload);
    Require(!wanted.payload ||
            std::memcmp(payload, mStream.data() + wanted.at, static_cast<size_t>(count)) == 0);
  }
  bool Done() const { return mNext == mExpected.size(); }

private:
  const Bytes &mStream;
  std::vector<ChannelOutcome> mExpected;
  size_t mNext = 0;
};

// A channel on the host end of a connection whose device end sends `stream` and closes: an
// AF_UNIX pair filled before the first read, or loopback TCP fed by a thread while it reads.
class FedChannel : public KivHBN3TCPSocket {
public:
  FedChannel(const Bytes &stream, bool tcp) : KivHBN3TCPSocket("127.0.0.1", 9, kScanInterface) {
    int ends[2] = {-1, -1};
    if (tcp) {
      static const int listening = Listening();
      sockaddr_in address = {};
      socklen_t length = sizeof address;
      ends[0] = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
      Require(ends[0] != -1 &&
              ::getsockname(listening, reinterpret_cast<sockaddr *>(&address), &length) == 0 &&
              ::connect(ends[0], reinterpret_cast<sockaddr *>(&address), sizeof address) == 0);
      ends[1] = ::accept4(listening, nullptr, nullptr, SOCK_CLOEXEC);
    } else {
      Require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0);
    }
    Require(ends[1] != -1);
    AdoptConnectedSocket(ends[0]);
    mDevice = std::thread([device = ends[1], &stream] {
      for (size_t sent = 0; sent < stream.size();) {
        const ssize_t n = ::send(device, stream.data() + sent, stream.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) {
          break; // the host went away first
        }
        sent += static_cast<size_t>(n);
      }
      ::close(device);
    });
    if (!tcp) {
      mDevice.join(); // the pair holds the whole stream before the first read
    }
  }
  ~FedChannel() {
    Close(); // a device still sending finds the connection gone
    if (mDevice.joinable()) {
      mDevice.join();
    }
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

// Reads `stream` into a container to its end, with `limit` on each wait (null: none).
inline void ReadBoxAll(const Bytes &stream, bool tcp, int maxTickles, const KivTimeVal *limit) {
  ChannelChecker check(stream, ExpectedOutcomes(stream, maxTickles, INT_MAX, false));
  FedChannel channel(stream, tcp);
  KivNetBuffer box;
  KivNetBufferStorageGuard release(box);
  while (!check.Done()) {
    const int count =
        limit != nullptr ? channel.Read(box, *limit, maxTickles) : channel.Read(box, maxTickles);
    Require(count <= 0 || box.GetBufferLength() == count);
    check.Next(count, count > 0 ? box.GetBufferRef() : nullptr, false);
  }
}

// Checks what the listener hands over and stops it at the end of the stream.
inline bool CheckHeard(const unsigned char *data, int length, void *param) {
  ChannelChecker &check = *static_cast<ChannelChecker *>(param);
  check.Next(length, length > 0 ? data : nullptr, data == nullptr);
  std::free(const_cast<unsigned char *>(data));
  return !check.Done();
}

// Listens to `stream` in the calling thread to its end.
inline void ListenAll(const Bytes &stream, bool tcp) {
  ChannelChecker check(stream, ExpectedOutcomes(stream, 0, INT_MAX, true));
  FedChannel channel(stream, tcp);
  channel.RegisterReadCallback(&CheckHeard, &check, 0, 1000, false, false);
  Require(check.Done());
}

} // namespace kivfuzz

#endif // KIV_FUZZ_FUZZSUPPORT_H
