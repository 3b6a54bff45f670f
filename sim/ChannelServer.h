// The simulated devices' HBN3 TCP channel end points: one listener per device, one thread per
// connection playing the device's channel script and recording what the host sends.
#ifndef KIV_SIM_CHANNELSERVER_H
#define KIV_SIM_CHANNELSERVER_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "sim/ChannelScript.h"

namespace kivsim {

// A descriptor owned by its holder and closed by the destructor; -1 holds none.
class OwnedDescriptor {
public:
  explicit OwnedDescriptor(int descriptor = -1) : descriptor_(descriptor) {}
  ~OwnedDescriptor() { Reset(); }
  OwnedDescriptor(OwnedDescriptor &&other) noexcept : descriptor_(other.Release()) {}
  OwnedDescriptor &operator=(OwnedDescriptor &&other) noexcept;
  OwnedDescriptor(const OwnedDescriptor &) = delete;
  OwnedDescriptor &operator=(const OwnedDescriptor &) = delete;
  int Get() const { return descriptor_; }
  int Release() {
    const int descriptor = descriptor_;
    descriptor_ = -1;
    return descriptor;
  }
  void Reset(int descriptor = -1);

private:
  int descriptor_;
};

// Each device's script and log live from AddDevice on; listeners and threads only between Start
// and Stop. Every member may be called from any thread; Start and Stop from one at a time.
class ChannelServer {
public:
  ChannelServer();
  // Stops: ends every connection and joins every thread.
  ~ChannelServer();
  ChannelServer(const ChannelServer &) = delete;
  ChannelServer &operator=(const ChannelServer &) = delete;

  // Adds a device with the default script (accept, then silence) and an empty log.
  void AddDevice();

  // Device `index`'s script for the connections accepted from now on. Throws std::out_of_range.
  void SetScript(int index, const ChannelScript &script);
  ChannelScript Script(int index) const;

  // A copy of device `index`'s log. Throws std::out_of_range.
  ChannelLog Record(int index) const;

  // Waits until `done` holds for device `index`'s log or `timeoutMs` has passed; the result of
  // `done` at the end. `done` runs under the server's lock and must not call the server.
  bool WaitFor(int index, const std::function<bool(const ChannelLog &)> &done, int timeoutMs) const;

  // Listens on `addresses[i]` for device i, all on `port` (0: one free port for all, held on
  // every address while running so no other program is given it), and starts accepting.
  // Connections from outside 127.0.0.0/8 are closed at once unless `answerAnyPeer`, and so are
  // connections beyond 256 served at once.
  // Throws std::system_error when a listener cannot be made (nothing stays open then).
  void Start(const std::vector<std::string> &addresses, std::uint16_t port, bool answerAnyPeer);

  // Ends every connection (mid-pause, mid-send or silent alike) and joins every thread; returns
  // within about one poll period. Does nothing when not running.
  void Stop();

  // The port listened on; valid after Start (kept after Stop), 0 before.
  std::uint16_t Port() const;

private:
  class Conversation;
  struct Device {
    // Shared with the connections playing it, so that a large script is held once.
    std::shared_ptr<const ChannelScript> script = std::make_shared<const ChannelScript>();
    ChannelLog log;
  };
  struct Connection {
    std::thread thread;
    std::atomic<bool> done{false};
  };

  Device &At(int index) const;
  void Accept();
  void AcceptFrom(int device, int listener);
  void Reap(bool all);

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<std::unique_ptr<Device>> devices_;
  std::uint16_t port_ = 0;
  bool answerAnyPeer_ = false;

  // Owned by Start and Stop, read by the accepting thread while it runs.
  std::vector<OwnedDescriptor> listeners_; // by device
  OwnedDescriptor reservation_;
  // Written once by Stop and never drained, so that it wakes every wait at once and for good.
  OwnedDescriptor stopRead_, stopWrite_;
  std::atomic<bool> stopping_{false};
  std::thread acceptor_;
  // The accepting thread's own.
  std::list<Connection> connections_;
};

} // namespace kivsim

#endif // KIV_SIM_CHANNELSERVER_H
