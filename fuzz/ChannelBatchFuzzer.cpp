// Fuzzes the HBN3 channel's batched reads over loopback TCP: the input describes a stream of
// frames of chosen sizes (around the reader's copy and its copied-payload limit), tickle packets,
// bad headers and raw bytes, which a device thread sends while the channel reads it with the
// caller's-buffer form (of a chosen capacity, or none), the container form and the listener.
// Each must give exactly what an independent reading of the bytes gives, however the stream is
// cut into the reader's batches by its arrival.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "FuzzSupport.h"
#include "Sockets/KivHBN3FrameReader.h"

namespace {

using kivfuzz::Bytes;
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

void Append(Bytes &stream, const Bytes &bytes) {
  stream.insert(stream.end(), bytes.begin(), bytes.end());
}

// A frame header with `tag`, a dummy byte that is not examined, and `length`.
Bytes Header(uint32_t length, const char *tag = "HBN3") {
  Bytes header(tag, tag + 4);
  header.push_back(0x5A);
  for (int shift = 24; shift >= 0; shift -= 8) {
    header.push_back(static_cast<unsigned char>(length >> shift));
  }
  return header;
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

// Reads `stream` into the caller's buffer of `capacity` bytes (-1: none) to its end, every other
// read with a limit.
void ReadIntoAll(const Bytes &stream, int maxTickles, int capacity) {
  kivfuzz::ChannelChecker check(stream,
                                kivfuzz::ExpectedOutcomes(stream, maxTickles, capacity, false));
  kivfuzz::FedChannel channel(stream, true);
  std::vector<unsigned char> buffer(capacity > 0 ? static_cast<size_t>(capacity) : 1);
  const KivTimeVal patient = {10, 0}; // bytes on their way come long before
  for (int reads = 0; !check.Done(); ++reads) {
    try {
      const int count = channel.ReadInto(capacity >= 0 ? buffer.data() : nullptr, capacity,
                                         (reads & 1) != 0 ? &patient : nullptr, maxTickles);
      check.Next(count, count > 0 && capacity >= 0 ? buffer.data() : nullptr, false);
    } catch (const KivExceptions &) {
      check.Next(0, nullptr, true); // lost for the buffer
    }
  }
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
    kivfuzz::ReadBoxAll(stream, true, maxTickles, nullptr);
  } else {
    kivfuzz::ListenAll(stream, true);
  }
  return 0;
}
