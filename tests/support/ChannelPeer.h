// Device ends for the channel tests, written with plain sockets: HBN3 frames built from their
// bytes, a loopback listener, a connected stream a test writes as the device, a record of what a
// listener's callback was given, and a fixture that checks threads and descriptors.
#ifndef KIV_TESTS_SUPPORT_CHANNELPEER_H
#define KIV_TESTS_SUPPORT_CHANNELPEER_H

#include <pthread.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/DescriptorCheckedTest.h"
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
  void Send(const Bytes &bytes);
  // Closes the connection in order (FIN), or with a reset (RST).
  void CloseConnection();
  void ResetConnection();
  int Connection() const { return mConnection; }

private:
  int mListener = -1;
  int mConnection = -1;
  int mPort = 0;
};

// A connected stream: the host end for a channel, the device end for the test; over loopback TCP
// or an AF_UNIX pair. The device's send buffer (and on TCP the host's receive buffer) is made
// several MiB large where the process may, so a whole test stream can wait in the host's end.
class DeviceStream {
public:
  explicit DeviceStream(bool tcp = false);
  ~DeviceStream();
  DeviceStream(const DeviceStream &) = delete;
  DeviceStream &operator=(const DeviceStream &) = delete;

  // The host end, given away (the channel closes it from now on).
  int TakeHost();
  // Sends `bytes` from a thread of its own, after what was sent before: a stream larger than the
  // buffers does not block the test. Finish waits for it.
  void Send(const Bytes &bytes);
  // Sends `bytes` and waits until all of them are waiting in the host's end.
  void SendWaiting(const Bytes &bytes);
  void Finish();
  // Bytes waiting in the host's end, not yet consumed by any reader.
  int Waiting() const;
  // Ends the device's side in order (the host reads the end of the stream), or with a reset.
  void CloseDevice();
  void ResetDevice();

private:
  int mHost = -1;
  int mHostSeen = -1; // the host end after the channel took it (only asked how much waits)
  int mDevice = -1;
  std::thread mSender;
};

// One call of a listener's callback.
struct ListenerCall {
  std::string text; // "41 42" for a payload, "closed" for length 0, "null/N" for a null block
  Bytes payload;
  pthread_t thread;
  std::chrono::steady_clock::time_point at;
};

// What a listener's callback was given. `answer` decides its result from the call's number (1,
// 2, ...) and the call.
class CallbackLog {
public:
  std::function<bool(int, const ListenerCall &)> answer = [](int, const ListenerCall &) {
    return true;
  };
  // The callback to register, with the log as its parameter; it frees every block it is given.
  static bool Callback(const unsigned char *data, int length, void *param);
  std::vector<ListenerCall> Calls();
  size_t Count() { return Calls().size(); }
  // The calls' texts, joined with " | ".
  std::string Text();
  std::vector<Bytes> Payloads();

private:
  std::mutex mMutex;
  std::vector<ListenerCall> mCalls;
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

// Fails every test that ends with other threads or open descriptors than it began with.
class ThreadCheckedTest : public DescriptorCheckedTest {
protected:
  void SetUp() override {
    DescriptorCheckedTest::SetUp();
    mThreads = CountThreadsBeforeATest();
  }
  void TearDown() override {
    EXPECT_TRUE(WaitFor([&] { return CountThreads() == mThreads; }, 5))
        << "a thread was left running";
    DescriptorCheckedTest::TearDown();
  }

private:
  int mThreads = 0;
};

} // namespace kivtest

#endif // KIV_TESTS_SUPPORT_CHANNELPEER_H
