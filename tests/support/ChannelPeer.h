// Device ends for the channel tests, written with plain sockets: a loopback TCP peer that accepts
// one connection, a connected stream pair, HBN3 frames built from their bytes, thread counting.
#ifndef KIV_TESTS_SUPPORT_CHANNELPEER_H
#define KIV_TESTS_SUPPORT_CHANNELPEER_H

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>

#include "support/TestSupport.h"

namespace kivtest {

// An HBN3 frame header with `length` (written here byte by byte, not with the library's classes)
// and the frame made of it and `payload`.
Bytes FrameHeader(long long length, const std::string &tag = "HBN3");
Bytes Frame(const Bytes &payload);
inline Bytes Tickle() { return FrameHeader(0); }

// `count` bytes of a pattern that differs at every offset and between `seed`s.
Bytes Pattern(size_t count, int seed = 0);

// A listening socket on 127.0.0.1 and a free port, and the one connection it accepts. Every wait
// is bounded (10 s unless told), so a test that goes wrong fails instead of hanging.
class LoopbackPeer {
public:
  LoopbackPeer();
  ~LoopbackPeer();
  LoopbackPeer(const LoopbackPeer &) = delete;
  LoopbackPeer &operator=(const LoopbackPeer &) = delete;

  int Port() const { return mPort; }
  // Accepts the next connection (closing the one held before); false when none came in time.
  bool Accept(double seconds = 10);
  // Up to `count` bytes, as many as arrive within `seconds` (fewer when the host closes).
  Bytes Receive(size_t count, double seconds = 10);
  // Everything the host sends until it closes, or until `seconds` pass.
  Bytes ReceiveUntilClosed(double seconds = 10);
  // Sends all of `bytes` on the connection.
  void Send(const Bytes &bytes);
  // Closes the connection in order (FIN), or with a reset (RST).
  void CloseConnection();
  void ResetConnection();
  // Stops listening, so a new connection is refused.
  void StopListening();
  int Connection() const { return mConnection; }

private:
  int mListener = -1;
  int mConnection = -1;
  int mPort = 0;
};

// A connected AF_UNIX stream pair: `host` for the channel, `device` for the test. Both
// descriptors are closed at the end unless taken.
class StreamPair {
public:
  StreamPair();
  ~StreamPair();
  StreamPair(const StreamPair &) = delete;
  StreamPair &operator=(const StreamPair &) = delete;

  // The host end, given away (the channel closes it from now on).
  int TakeHost();
  int Device() const { return mDevice; }
  void Send(const Bytes &bytes);
  // Sends `bytes` in pieces at the offsets `splits`, pausing `pause` between them.
  void SendSplit(const Bytes &bytes, std::initializer_list<size_t> splits,
                 std::chrono::milliseconds pause);
  // Everything waiting on the device end (without waiting).
  Bytes Drain();
  void CloseDevice();

private:
  int mHost = -1;
  int mDevice = -1;
};

// Number of threads in this process.
int CountThreads();

// The same, once any helper thread a runtime starts with the first thread of the process (the
// ThreadSanitizer's, for one) is there: take the count a test starts with this way.
int CountThreadsBeforeATest();

// Waits up to `seconds` for `condition`; true when it held.
bool WaitFor(const std::function<bool()> &condition, double seconds);

// Seconds since `start`.
double SecondsSince(std::chrono::steady_clock::time_point start);

} // namespace kivtest

#endif // KIV_TESTS_SUPPORT_CHANNELPEER_H
