// A scriptable set of simulated network devices that answer HCP and HBN3 requests over UDP and
// serve HBN3 TCP channels.
#ifndef KIV_SIM_SIMULATOR_H
#define KIV_SIM_SIMULATOR_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "sim/ChannelScript.h"
#include "sim/DeviceRecord.h"
#include "sim/Faults.h"

namespace kivsim {

// Where the simulator listens.
struct SimulatorOptions {
  std::uint16_t hcpPort = 5353; // HCP discovery and configuration; 0: a free port
  std::uint16_t hbn3Port = 0;   // HBN3 requests; 0: a free port; may equal hcpPort
  // Group listener: a query it receives is answered by every device, each from its own address.
  // Empty: none. "0.0.0.0": every address (inside a test's own network namespace, where it takes
  // broadcasts); a loopback address such as 127.0.0.2: one query that all devices answer.
  std::string groupAddress;
  // Devices answer only peers in 127.0.0.0/8 and may only have addresses there, unless this is
  // set. Set it only inside a network namespace the caller made itself.
  bool answerAnyPeer = false;
  // HBN3 TCP channel end points, one per device on its address, all on this port (0: a free
  // port). Made only when channelEnabled is set, so that runs with many devices use few
  // descriptors.
  std::uint16_t channelPort = 0;
  bool channelEnabled = false;
};

// Requests each device has received and answers it has sent since it was added.
struct DeviceCounters {
  unsigned long discovery = 0;
  unsigned long configuration = 0; // every configuration message seen, for this device or not
  unsigned long statusCache = 0;
  unsigned long ping = 0;
  unsigned long hostList = 0;
  unsigned long requestScan = 0;
  unsigned long ignored = 0; // datagrams that are no request
  unsigned long answersSent = 0;
  unsigned long sendFailures = 0;
};

// The devices and the thread that serves them. Each device owns one socket per port, bound to
// its own address, so a unicast request reaches it alone and its answers leave from its address.
// A query to the group listener reaches every device; each answers from its own socket. The
// answers to a group discovery query are built beforehand and leave as one burst (1,000 within
// about 6 to 7 ms) from a thread at the lowest priority that pauses for 50 us after every 64
// answers, so that the host receiving them, which a real network would not make share its
// processors with the devices, keeps its processor and takes them in before its receive buffer
// overflows.
//
// A configuration the device accepts changes its record at once (after the answer has left from
// the old address). Its sockets then move to the new address when that address may be served
// (loopback, or any with answerAnyPeer) and can be bound; otherwise they stay on the old address,
// which BoundAddress() keeps reporting. The group listener serves the device either way.
//
// With channelEnabled each device also listens for HBN3 TCP channels on its address (the one it
// had at Start; a configuration does not move the listener). Every connection reads the host's
// nine-byte open request, answers as the device's ChannelScript says, plays the script's steps
// from the start and records what the host sends; several connections to one device run at once.
//
// All members may be called from any thread; Start and Stop from one thread at a time.
class Simulator {
public:
  explicit Simulator(const SimulatorOptions &options = SimulatorOptions());
  // Stops the thread and closes every socket.
  ~Simulator();
  Simulator(const Simulator &) = delete;
  Simulator &operator=(const Simulator &) = delete;

  // Adds a device and returns its index (0, 1, ...). Throws std::logic_error while running.
  int AddDevice(const DeviceRecord &record);

  int DeviceCount() const;

  // Binds every socket and starts serving. Throws std::invalid_argument for an address that may
  // not be served, std::system_error when a socket cannot be bound (nothing stays open), and
  // std::logic_error when already running.
  void Start();

  // Stops serving within one bounded wait (about 100 ms), drops answers not yet sent, ends every
  // channel connection (whatever its script is doing) and closes every socket. Does nothing when
  // not running. The devices keep their records, scripts and logs; Start serves them again.
  void Stop();

  bool Running() const;

  // The ports served, with free ports resolved; valid after Start.
  std::uint16_t HcpPort() const;
  std::uint16_t Hbn3Port() const;
  // The channel port; 0 unless channelEnabled.
  std::uint16_t ChannelPort() const;

  // A copy of device `index`'s current record (with the addresses a configuration set).
  // Throws std::out_of_range for an unknown index.
  DeviceRecord Device(int index) const;

  // Replaces device `index`'s record. Its sockets stay where they are until the next Start.
  void SetDevice(int index, const DeviceRecord &record);

  // The faults device `index` shows from its next answer on.
  void SetFaults(int index, const Faults &faults);
  Faults GetFaults(int index) const;

  // The address device `index`'s sockets are bound to ("" before Start).
  std::string BoundAddress(int index) const;

  DeviceCounters Counters(int index) const;

  // Device `index`'s channel script for the connections accepted from now on (default: accept,
  // then silence). Throws std::out_of_range for an unknown index.
  void SetChannelScript(int index, const ChannelScript &script);
  ChannelScript GetChannelScript(int index) const;

  // A copy of device `index`'s channel log: connections accepted, and per connection the open
  // request, the bytes written after it and who closed it. Throws std::out_of_range.
  ChannelLog ChannelRecord(int index) const;

  // Waits up to `timeoutMs` until `done` holds for device `index`'s channel log (a connection
  // accepted, bytes arrived, a close seen); the last result of `done`. `done` runs under the
  // simulator's channel lock and must not call the simulator. Throws std::out_of_range.
  bool WaitForChannel(int index, const std::function<bool(const ChannelLog &)> &done,
                      int timeoutMs) const;

private:
  class Engine;
  std::unique_ptr<Engine> engine_;
};

} // namespace kivsim

#endif // KIV_SIM_SIMULATOR_H
