// Fuzzes the HBN3 channel's frame reader: arbitrary bytes from a device, fed through a stream
// pair and closed, are read with the untimed Read, the timed Read and the listener; each must
// give exactly the frames, counts and callbacks that an independent reading of the bytes gives,
// and touch no memory outside its buffers.
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "CommonFiles/KivNetBuffer.h"
#include "Sockets/KivHBN3TCPSocket.h"

namespace {

typedef std::vector<unsigned char> Bytes;

// Stops the run with a crash report when an oracle does not hold.
void Require(bool condition) {
  if (!condition) {
    __builtin_trap();
  }
}

// One outcome as the host sees it: a payload, or a count without one (0, -2, -5), or for the
// listener a failure report (null, n).
struct Outcome {
  int count;
  Bytes payload;
  bool null;
  bool operator==(const Outcome &other) const {
    return count == other.count && payload == other.payload && null == other.null;
  }
};

// The stream read independently of the library: frame by frame, nine-byte headers "HBN3" with a
// big-endian signed length; what a reader must report. `maxTickles` above 0 turns that many
// tickle packets in a row into -5 (reads); the listener skips them all and reports bad headers as
// (null, 1) where reads report -2. Both end at the end of the stream.
std::vector<Outcome> Expected(const Bytes &stream, int maxTickles, bool listener) {
  std::vector<Outcome> outcomes;
  size_t at = 0;
  int tickles = 0;
  for (;;) {
    if (stream.size() - at < 9) {
      outcomes.push_back({0, Bytes(), false});
      return outcomes;
    }
    const unsigned char *h = stream.data() + at;
    at += 9;
    const bool tagged = h[0] == 'H' && h[1] == 'B' && h[2] == 'N' && h[3] == '3';
    const int32_t length = static_cast<int32_t>((uint32_t(h[5]) << 24) | (uint32_t(h[6]) << 16) |
                                                (uint32_t(h[7]) << 8) | uint32_t(h[8]));
    if (tagged && length == 0) {
      if (!listener && maxTickles > 0 && ++tickles >= maxTickles) {
        outcomes.push_back({-5, Bytes(), false});
        tickles = 0;
      }
      continue;
    }
    tickles = 0;
    if (!tagged || length < 0 || length > kHBN3MaxFramePayloadLength) {
      outcomes.push_back(listener ? Outcome{1, Bytes(), true} : Outcome{-2, Bytes(), false});
      continue;
    }
    if (stream.size() - at < static_cast<size_t>(length)) {
      outcomes.push_back({0, Bytes(), false}); // closed inside the payload
      return outcomes;
    }
    outcomes.push_back({length,
                        Bytes(stream.begin() + static_cast<long>(at),
                              stream.begin() + static_cast<long>(at) + length),
                        false});
    at += static_cast<size_t>(length);
  }
}

// A channel around one end of a stream pair whose other end has sent the bytes and closed.
class FedChannel : public KivHBN3TCPSocket {
public:
  explicit FedChannel(const Bytes &stream) : KivHBN3TCPSocket("127.0.0.1", 9, kScanInterface) {
    int ends[2];
    Require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0);
    size_t sent = 0;
    while (sent < stream.size()) {
      const ssize_t n = ::send(ends[1], stream.data() + sent, stream.size() - sent, 0);
      Require(n > 0);
      sent += static_cast<size_t>(n);
    }
    ::close(ends[1]);
    AdoptConnectedSocket(ends[0]);
  }
};

// Reads frames into a container until the stream ends.
std::vector<Outcome> ReadAll(const Bytes &stream, int maxTickles, bool timed) {
  FedChannel channel(stream);
  std::vector<Outcome> outcomes;
  KivNetBuffer box;
  KivNetBufferStorageGuard release(box);
  for (int reads = 0; reads < 4096; ++reads) {
    const int count =
        timed ? channel.Read(box, KivTimeVal{0, 0}, maxTickles) : channel.Read(box, maxTickles);
    Bytes payload;
    if (count > 0) {
      Require(box.GetBufferLength() == count);
      payload.assign(box.GetBufferRef(), box.GetBufferRef() + count);
    }
    outcomes.push_back({count, payload, false});
    if (count == 0) {
      break;
    }
  }
  return outcomes;
}

std::vector<Outcome> gHeard;

// Keeps what the listener hands over and stops at the end of the stream.
bool Listen(const unsigned char *data, int length, void *) {
  Outcome heard = {length, Bytes(), data == nullptr};
  if (data != nullptr && length > 0) {
    heard.payload.assign(data, data + length);
  }
  std::free(const_cast<unsigned char *>(data));
  gHeard.push_back(heard);
  return !(data != nullptr && length == 0) && gHeard.size() < 4096;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1 || size > 16384) {
    return 0;
  }
  // The first byte chooses the tickle limit of the reads (-1 to 2); the rest is the stream.
  const int maxTickles = static_cast<int>(data[0] % 4) - 1;
  const Bytes stream(data + 1, data + size);

  const std::vector<Outcome> reads = Expected(stream, maxTickles, false);
  Require(ReadAll(stream, maxTickles, false) == reads);
  Require(ReadAll(stream, maxTickles, true) == reads);

  FedChannel channel(stream);
  gHeard.clear();
  channel.RegisterReadCallback(&Listen, nullptr, 0, 1000, false, false);
  Require(gHeard == Expected(stream, 0, true));
  return 0;
}
