// A scripted UDP peer on a loopback address: answers every datagram with fixed bytes, for the
// answers a simulated device does not make (missing items, oversized values, empty datagrams).
#ifndef KIV_TESTS_SUPPORT_SCRIPTEDRESPONDER_H
#define KIV_TESTS_SUPPORT_SCRIPTEDRESPONDER_H

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/TestSupport.h"

namespace kivtest {

// Listens on `address`:`port` (a 127.0.0.0/8 address; SO_REUSEADDR, like the simulator) and
// answers each datagram from a loopback peer with the scripted answer, after the scripted delay.
// Peers outside 127.0.0.0/8 are ignored. Answers at most 1000 datagrams, then stays silent.
class ScriptedResponder {
public:
  // Throws std::system_error when the address cannot be bound and std::invalid_argument for an
  // address outside 127.0.0.0/8.
  ScriptedResponder(const std::string &address, std::uint16_t port, Bytes answer, int delayMs = 0);
  // Stops the thread (within about 50 ms, or after a running delay) and closes the socket.
  ~ScriptedResponder();
  ScriptedResponder(const ScriptedResponder &) = delete;
  ScriptedResponder &operator=(const ScriptedResponder &) = delete;

  // Datagrams received so far, in order.
  std::vector<Bytes> Received() const;

private:
  void Serve();

  int mFd = -1;
  Bytes mAnswer;
  int mDelayMs;
  std::atomic<bool> mStop{false};
  mutable std::mutex mLock;
  std::vector<Bytes> mReceived;
  std::thread mThread;
};

// An HCP discovery answer made of these KEY=value items, each after its length byte, behind a
// 12-byte answer header: the layout a device uses.
Bytes HcpAnswer(const std::vector<std::string> &items);

} // namespace kivtest

#endif // KIV_TESTS_SUPPORT_SCRIPTEDRESPONDER_H
