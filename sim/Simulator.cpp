// The simulator's serving thread: one poll loop over every device socket and the group listener;
// the channel end points serve themselves.
#include "sim/Simulator.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <vector>

#include "sim/ChannelServer.h"
#include "sim/DatagramSocket.h"
#include "sim/DeviceProtocol.h"

namespace kivsim {

namespace {

typedef std::chrono::steady_clock Clock;

// The longest a poll waits, so that a lost wake-up still ends the loop soon after Stop.
const int kPollLimitMs = 100;
// Datagrams taken from one socket per round, so that a flood on one cannot starve the others.
const int kReceiveBatch = 64;
const std::size_t kMaxPending = 100000;
const int kMaxDelayMs = 60000;
const int kMaxCopies = 100;
// The burst of answers to a group query pauses this long after every kBurstPace answers. A host
// on the same processor as the simulator then takes in what has come before its receive buffer
// overflows: the kernel's default buffer holds about 166 answers, under a millisecond of the
// burst. On a network the host would not share its processor with the devices. 1,000 answers
// still arrive within about 6 to 7 ms on a busy two-processor host.
const int kBurstPace = 64;
const std::chrono::microseconds kBurstPause(50);

bool ParseAddress(const std::string &text, in_addr &address) {
  return inet_pton(AF_INET, text.c_str(), &address) == 1;
}

bool IsLoopback(const in_addr &address) { return (ntohl(address.s_addr) >> 24) == 127; }

// The faults that change an answer's bytes: garbage in its place, then the cut.
void ApplyFaults(const Faults &faults, int device, Bytes &answer) {
  if (faults.garbage) {
    answer = Garbage(answer.size(), static_cast<std::uint32_t>(device + 1));
  }
  if (faults.truncateTo >= 0 && answer.size() > static_cast<std::size_t>(faults.truncateTo)) {
    answer.resize(static_cast<std::size_t>(faults.truncateTo));
  }
}

// The pipe Stop writes to, so that the loop leaves its wait at once.
class WakePipe {
public:
  WakePipe() {
    if (pipe2(fds_, O_NONBLOCK | O_CLOEXEC) != 0) {
      throw std::system_error(errno, std::generic_category(), "pipe2");
    }
  }
  ~WakePipe() {
    close(fds_[0]);
    close(fds_[1]);
  }
  WakePipe(const WakePipe &) = delete;
  WakePipe &operator=(const WakePipe &) = delete;
  int ReadEnd() const { return fds_[0]; }
  void Wake() {
    const char byte = 1;
    // A full pipe already wakes the loop; the result needs no check.
    if (write(fds_[1], &byte, 1) < 0) {
      return;
    }
  }
  void Drain() {
    char bytes[64];
    while (read(fds_[0], bytes, sizeof bytes) > 0) {
    }
  }

private:
  int fds_[2];
};

// A thread at the lowest priority (nice 19) that runs one job at a time for the serving thread.
// It sends the answers to a group query: the simulated devices stand for machines of their own,
// and on a host with few processors a burst sent at normal priority takes the processor from the
// host that receives it, which then finds its receive buffer overflowed when it runs again.
class BurstSender {
public:
  // Throws std::system_error when the thread cannot be started.
  BurstSender() : thread_([this]() { Loop(); }) {}
  ~BurstSender() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      exit_ = true;
    }
    changed_.notify_all();
    thread_.join();
  }
  BurstSender(const BurstSender &) = delete;
  BurstSender &operator=(const BurstSender &) = delete;

  // Runs `job` on the thread and returns when it is done; the job bounds its own time.
  void Run(const std::function<void()> &job) {
    std::unique_lock<std::mutex> lock(mutex_);
    job_ = &job;
    changed_.notify_all();
    changed_.wait(lock, [this]() { return job_ == nullptr; });
  }

private:
  void Loop() {
    // Only this thread: on Linux each thread has a nice value of its own. A host that refuses
    // leaves it at the process's priority.
    setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), 19);
    // The pauses in a burst are short: no timer slack stretches them (50 us by default).
    prctl(PR_SET_TIMERSLACK, 1000UL, 0UL, 0UL, 0UL);
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      changed_.wait(lock, [this]() { return exit_ || job_ != nullptr; });
      if (exit_) {
        return;
      }
      const std::function<void()> *job = job_;
      lock.unlock();
      (*job)();
      lock.lock();
      job_ = nullptr;
      changed_.notify_all();
    }
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  const std::function<void()> *job_ = nullptr;
  bool exit_ = false;
  std::thread thread_; // last: it starts once the members above exist
};

} // namespace

class Simulator::Engine {
public:
  explicit Engine(const SimulatorOptions &options) : options_(options) {}
  ~Engine() { Stop(); }

  int AddDevice(const DeviceRecord &record) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (running_) {
      throw std::logic_error("devices are added before Start");
    }
    devices_.push_back(std::make_unique<DeviceState>());
    devices_.back()->record = record;
    channels_.AddDevice();
    return static_cast<int>(devices_.size() - 1);
  }

  int DeviceCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int>(devices_.size());
  }

  void Start();
  void Stop();

  bool Running() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return running_;
  }
  std::uint16_t HcpPort() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return hcpPort_;
  }
  std::uint16_t Hbn3Port() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return hbn3Port_;
  }

  DeviceRecord Device(int index) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return At(index).record;
  }
  void SetDevice(int index, const DeviceRecord &record) {
    std::lock_guard<std::mutex> lock(mutex_);
    At(index).record = record;
    At(index).answerStale = true;
  }
  void SetFaults(int index, const Faults &faults) {
    std::lock_guard<std::mutex> lock(mutex_);
    At(index).faults = faults;
    At(index).answerStale = true;
  }
  Faults GetFaults(int index) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return At(index).faults;
  }
  std::string BoundAddress(int index) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return At(index).boundAddress;
  }
  DeviceCounters Counters(int index) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return At(index).counters;
  }
  ChannelServer &Channels() { return channels_; }
  const ChannelServer &Channels() const { return channels_; }

private:
  // Shared fields are guarded by mutex_; `sockets` and `discoveryAnswer` belong to the serving
  // thread while it runs and to Start and Stop otherwise.
  struct DeviceState {
    DeviceRecord record;
    Faults faults;
    DeviceCounters counters;
    std::string boundAddress;
    bool answerStale = true; // the record or the faults changed since discoveryAnswer was built
    std::map<std::uint16_t, std::shared_ptr<DatagramSocket>> sockets; // by port
    // The discovery answer as the device's faults make it, built once per change of record or
    // faults (under mutex_), so that a query only writes its transaction identifier into it.
    Bytes discoveryAnswer;
  };
  // One device's part of the answer to a group discovery query.
  struct Outgoing {
    int device;
    DatagramSocket *socket;
    int copies;
    int sent;
    int failed;
  };
  // A socket the loop polls: a device's (device >= 0) or the group listener's (-1).
  struct Source {
    int device;
    std::uint16_t port;
    std::shared_ptr<DatagramSocket> socket;
  };
  // A delayed answer. It holds its socket, so it leaves from the address the device had when the
  // request came, even if the device has moved since.
  struct Pending {
    Clock::time_point due;
    int device;
    int copies;
    std::shared_ptr<DatagramSocket> socket;
    sockaddr_in peer;
    Bytes bytes;
  };

  DeviceState &At(int index) const {
    if (index < 0 || static_cast<std::size_t>(index) >= devices_.size()) {
      throw std::out_of_range("no device " + std::to_string(index));
    }
    return *devices_[static_cast<std::size_t>(index)];
  }

  bool MayServe(const in_addr &address) const {
    return options_.answerAnyPeer || IsLoopback(address);
  }

  void OpenSockets();
  void CloseSockets();
  void Run();
  void Serve();
  void Receive(const Source &source, std::uint8_t *buffer, std::size_t size);
  const Bytes &DiscoveryAnswerOf(int device, std::uint16_t id);
  void AnswerGroupDiscovery(std::uint16_t port, std::uint16_t id, const sockaddr_in &peer);
  bool SendBurst(const sockaddr_in &peer);
  void HandleForDevice(int device, std::uint16_t port, const std::uint8_t *data, std::size_t length,
                       const sockaddr_in &peer);
  void SendNow(int device, DatagramSocket &socket, const sockaddr_in &peer, const Bytes &bytes,
               int copies);
  void SendDue();
  void Rebind(int device);

  const SimulatorOptions options_;
  mutable std::mutex mutex_;
  std::vector<std::unique_ptr<DeviceState>> devices_;
  bool running_ = false;
  std::uint16_t hcpPort_ = 0;
  std::uint16_t hbn3Port_ = 0;

  // Owned by Start/Stop, and read by the serving thread while it runs.
  std::vector<Source> groupSources_;
  std::vector<std::unique_ptr<DatagramSocket>> reservations_;
  std::unique_ptr<WakePipe> wake_;
  std::unique_ptr<BurstSender> burstSender_; // with a group listener
  std::thread thread_;
  std::atomic<bool> stopping_{false};
  ChannelServer channels_;

  // The serving thread's own.
  std::vector<Pending> pending_;
  std::vector<Outgoing> burst_;
  bool sourcesChanged_ = false;
};

void Simulator::Engine::Start() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (running_) {
      throw std::logic_error("the simulator is already running");
    }
    for (const std::unique_ptr<DeviceState> &device : devices_) {
      in_addr address{};
      if (!ParseAddress(device->record.ipAddress, address) || !MayServe(address)) {
        throw std::invalid_argument("device address not served: " + device->record.ipAddress);
      }
    }
    if (!options_.groupAddress.empty()) {
      in_addr address{};
      if (!ParseAddress(options_.groupAddress, address) ||
          (address.s_addr != htonl(INADDR_ANY) && !MayServe(address))) {
        throw std::invalid_argument("group address not served: " + options_.groupAddress);
      }
    }
    // Every answer to the first query is ready before it comes.
    for (std::size_t i = 0; i < devices_.size(); ++i) {
      DiscoveryAnswerOf(static_cast<int>(i), 0);
    }
    // Set before the thread exists: from here on no device may be added under its feet.
    running_ = true;
  }
  try {
    OpenSockets();
    if (options_.channelEnabled) {
      std::vector<std::string> addresses;
      {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const std::unique_ptr<DeviceState> &device : devices_) {
          addresses.push_back(device->record.ipAddress);
        }
      }
      channels_.Start(addresses, options_.channelPort, options_.answerAnyPeer);
    }
    wake_ = std::make_unique<WakePipe>();
    if (!options_.groupAddress.empty()) {
      burstSender_ = std::make_unique<BurstSender>();
    }
    stopping_ = false;
    sourcesChanged_ = true;
    thread_ = std::thread([this]() { Run(); });
  } catch (...) {
    channels_.Stop();
    CloseSockets();
    burstSender_.reset();
    wake_.reset();
    std::lock_guard<std::mutex> lock(mutex_);
    running_ = false;
    throw;
  }
}

void Simulator::Engine::Stop() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!running_) {
      return;
    }
  }
  stopping_ = true;
  wake_->Wake();
  channels_.Stop();
  thread_.join();
  burstSender_.reset();
  pending_.clear();
  CloseSockets();
  wake_.reset();
  std::lock_guard<std::mutex> lock(mutex_);
  running_ = false;
}

void Simulator::Engine::OpenSockets() {
  // One port, or two when HBN3 is served apart from HCP (two free ports are two ports).
  std::vector<std::uint16_t> requested{options_.hcpPort};
  if (options_.hbn3Port != options_.hcpPort || options_.hbn3Port == 0) {
    requested.push_back(options_.hbn3Port);
  }
  std::vector<std::uint16_t> resolved;
  for (std::uint16_t port : requested) {
    if (port == 0) {
      // A free port on every address, held for the simulator's life, so that no other program
      // (or parallel test) that later asks for a free port is given it.
      const bool wildcardGroup = options_.groupAddress == "0.0.0.0";
      auto first = std::make_unique<DatagramSocket>("", 0, DatagramSocket::Bind::kExclusive);
      port = first->LocalPort();
      if (wildcardGroup) {
        groupSources_.push_back(Source{-1, port, std::shared_ptr<DatagramSocket>(first.release())});
      } else {
        reservations_.push_back(std::move(first));
      }
    }
    if (!options_.groupAddress.empty() &&
        (groupSources_.empty() || groupSources_.back().port != port)) {
      groupSources_.push_back(
          Source{-1, port, std::make_shared<DatagramSocket>(options_.groupAddress, port)});
    }
    std::lock_guard<std::mutex> lock(mutex_);
    for (const std::unique_ptr<DeviceState> &device : devices_) {
      device->sockets[port] = std::make_shared<DatagramSocket>(device->record.ipAddress, port);
      device->boundAddress = device->record.ipAddress;
    }
    resolved.push_back(port);
  }
  std::lock_guard<std::mutex> lock(mutex_);
  hcpPort_ = resolved.front();
  hbn3Port_ = resolved.back();
}

void Simulator::Engine::CloseSockets() {
  groupSources_.clear();
  reservations_.clear();
  std::lock_guard<std::mutex> lock(mutex_);
  for (const std::unique_ptr<DeviceState> &device : devices_) {
    device->sockets.clear();
    device->boundAddress.clear();
  }
}

void Simulator::Engine::Run() {
  try {
    Serve();
  } catch (const std::exception &e) {
    // Out of memory, most likely; the devices fall silent, which the caller sees as time-outs.
    std::fprintf(stderr, "kivsim: serving stopped: %s\n", e.what());
  }
}

void Simulator::Engine::Serve() {
  std::vector<Source> sources;
  std::vector<pollfd> fds;
  std::vector<std::uint8_t> buffer(65536);
  while (!stopping_.load()) {
    if (sourcesChanged_) {
      sourcesChanged_ = false;
      sources = groupSources_;
      for (std::size_t i = 0; i < devices_.size(); ++i) {
        for (const auto &entry : devices_[i]->sockets) {
          sources.push_back(Source{static_cast<int>(i), entry.first, entry.second});
        }
      }
      fds.assign(1, pollfd{wake_->ReadEnd(), POLLIN, 0});
      for (const Source &source : sources) {
        fds.push_back(pollfd{source.socket->Descriptor(), POLLIN, 0});
      }
    }
    int timeout = kPollLimitMs;
    if (!pending_.empty()) {
      const Clock::time_point due =
          std::min_element(pending_.begin(), pending_.end(),
                           [](const Pending &a, const Pending &b) { return a.due < b.due; })
              ->due;
      const auto wait =
          std::chrono::duration_cast<std::chrono::milliseconds>(due - Clock::now()).count() + 1;
      timeout = static_cast<int>(std::max<long long>(0, std::min<long long>(wait, timeout)));
    }
    const int ready = poll(fds.data(), fds.size(), timeout);
    if (ready < 0 && errno != EINTR) {
      break; // nothing to wait on is left that could work; Stop still joins
    }
    if (ready > 0) {
      if ((fds[0].revents & POLLIN) != 0) {
        wake_->Drain();
      }
      for (std::size_t i = 1; i < fds.size() && !stopping_.load(); ++i) {
        if ((fds[i].revents & POLLIN) != 0) {
          Receive(sources[i - 1], buffer.data(), buffer.size());
        }
      }
    }
    SendDue();
  }
}

void Simulator::Engine::Receive(const Source &source, std::uint8_t *buffer, std::size_t size) {
  for (int i = 0; i < kReceiveBatch; ++i) {
    sockaddr_in peer{};
    const long count = source.socket->ReceiveFrom(buffer, size, peer);
    if (count < 0) {
      return;
    }
    if (!MayServe(peer.sin_addr)) {
      continue; // never answer beyond loopback unless told to
    }
    const std::size_t length = static_cast<std::size_t>(count);
    if (source.device >= 0) {
      const auto &sockets = devices_[static_cast<std::size_t>(source.device)]->sockets;
      const auto current = sockets.find(source.port);
      if (current == sockets.end() || current->second != source.socket) {
        continue; // the device has moved away from this address; the socket closes soon
      }
      HandleForDevice(source.device, source.port, buffer, length, peer);
    } else if (Classify(buffer, length) == RequestKind::kDiscovery) {
      AnswerGroupDiscovery(source.port, static_cast<std::uint16_t>((buffer[0] << 8) | buffer[1]),
                           peer);
    } else {
      for (std::size_t device = 0; device < devices_.size(); ++device) {
        HandleForDevice(static_cast<int>(device), source.port, buffer, length, peer);
      }
    }
  }
}

// Called under mutex_ (or before the serving thread runs).
const Bytes &Simulator::Engine::DiscoveryAnswerOf(int device, std::uint16_t id) {
  DeviceState &state = *devices_[static_cast<std::size_t>(device)];
  if (state.answerStale) {
    state.discoveryAnswer = DiscoveryAnswer(state.record, 0, state.faults.wrongMac);
    ApplyFaults(state.faults, device, state.discoveryAnswer);
    state.answerStale = false;
  }
  // The transaction identifier leads the answer; garbage has none, and a cut answer keeps what
  // is left of it.
  Bytes &answer = state.discoveryAnswer;
  if (!state.faults.garbage) {
    if (!answer.empty()) {
      answer[0] = static_cast<std::uint8_t>(id >> 8);
    }
    if (answer.size() > 1) {
      answer[1] = static_cast<std::uint8_t>(id & 0xFF);
    }
  }
  return answer;
}

void Simulator::Engine::AnswerGroupDiscovery(std::uint16_t port, std::uint16_t id,
                                             const sockaddr_in &peer) {
  // Every device's answer is ready and none is built, copied or locked for while the answers
  // leave: they leave one after the other as fast as the sockets take them, like the answers of
  // many devices on one segment, which all come within a few milliseconds. They leave from the
  // burst thread, which yields the processor to the host that receives them, and with a short
  // pause after every kBurstPace of them.
  burst_.clear();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (std::size_t i = 0; i < devices_.size(); ++i) {
      const int device = static_cast<int>(i);
      DeviceState &state = *devices_[i];
      ++state.counters.discovery;
      const Bytes &answer = DiscoveryAnswerOf(device, id);
      const auto found = state.sockets.find(port);
      if (found == state.sockets.end() || answer.empty() || state.faults.silent) {
        continue;
      }
      const int copies = std::clamp(state.faults.copies, 1, kMaxCopies);
      const int delay = std::clamp(state.faults.delayMs, 0, kMaxDelayMs);
      if (delay > 0) {
        if (pending_.size() < kMaxPending) {
          pending_.push_back(Pending{Clock::now() + std::chrono::milliseconds(delay), device,
                                     copies, found->second, peer, answer});
        }
        continue;
      }
      // Counted before the answer leaves, so that a peer holding it sees it counted; what does
      // not leave is taken back afterwards.
      state.counters.answersSent += static_cast<unsigned long>(copies);
      burst_.push_back(Outgoing{device, found->second.get(), copies, 0, 0});
    }
  }
  if (burst_.empty()) {
    return;
  }
  bool complete = true;
  if (burstSender_ != nullptr) {
    burstSender_->Run([&]() { complete = SendBurst(peer); });
  } else {
    complete = SendBurst(peer);
  }
  if (complete) {
    return;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  for (const Outgoing &out : burst_) {
    DeviceCounters &counters = devices_[static_cast<std::size_t>(out.device)]->counters;
    counters.answersSent -= static_cast<unsigned long>(out.copies - out.sent);
    counters.sendFailures += static_cast<unsigned long>(out.failed);
  }
}

// Sends burst_ to `peer`; false when an answer did not leave (a failed send, or a stop).
bool Simulator::Engine::SendBurst(const sockaddr_in &peer) {
  bool complete = true;
  int sent = 0;
  for (Outgoing &out : burst_) {
    if (sent >= kBurstPace) {
      sent = 0;
      std::this_thread::sleep_for(kBurstPause);
    }
    if (stopping_.load()) {
      complete = false; // Stop drops the answers not yet sent
      continue;
    }
    const Bytes &answer = devices_[static_cast<std::size_t>(out.device)]->discoveryAnswer;
    for (int i = 0; i < out.copies; ++i) {
      if (out.socket->SendTo(answer.data(), answer.size(), peer)) {
        ++out.sent;
      } else {
        ++out.failed;
      }
    }
    sent += out.copies;
    complete = complete && out.sent == out.copies;
  }
  return complete;
}

void Simulator::Engine::HandleForDevice(int device, std::uint16_t port, const std::uint8_t *data,
                                        std::size_t length, const sockaddr_in &peer) {
  const RequestKind kind = Classify(data, length);
  Bytes answer;
  Faults faults;
  bool faultsApplied = false; // the discovery answer comes with them
  bool moved = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    DeviceState &state = *devices_[static_cast<std::size_t>(device)];
    faults = state.faults;
    DeviceCounters &counters = state.counters;
    switch (kind) {
    case RequestKind::kDiscovery:
      ++counters.discovery;
      answer = DiscoveryAnswerOf(device, static_cast<std::uint16_t>((data[0] << 8) | data[1]));
      faultsApplied = true;
      break;
    case RequestKind::kConfiguration: {
      ++counters.configuration;
      ConfigOutcome outcome = Configure(state.record, data, length);
      if (outcome.answered) {
        answer = std::move(outcome.answer);
        if (outcome.result == kConfigAccepted) {
          state.record.ipAddress = outcome.ipAddress;
          state.record.netmask = outcome.netmask;
          state.record.gateway = outcome.gateway;
          state.answerStale = true;
          moved = true;
        }
      }
      break;
    }
    case RequestKind::kStatusCache:
      ++counters.statusCache;
      answer = Hbn3Answer(state.record, data, length);
      break;
    case RequestKind::kPing:
      ++counters.ping;
      answer = Hbn3Answer(state.record, data, length);
      break;
    case RequestKind::kHostList:
      ++counters.hostList;
      answer = Hbn3Answer(state.record, data, length);
      break;
    case RequestKind::kRequestScan:
      ++counters.requestScan;
      answer = Hbn3Answer(state.record, data, length);
      break;
    case RequestKind::kUnknown:
      ++counters.ignored;
      break;
    }
  }
  // The answer leaves from the socket the request came to, and a device that moves has its new
  // sockets bound before that: a peer holding the answer finds the device at its new address.
  DeviceState &state = *devices_[static_cast<std::size_t>(device)];
  const auto found = state.sockets.find(port);
  if (found == state.sockets.end()) {
    return;
  }
  const std::shared_ptr<DatagramSocket> socket = found->second;
  if (moved) {
    Rebind(device);
  }
  if (answer.empty() || faults.silent) {
    return;
  }
  if (!faultsApplied) {
    ApplyFaults(faults, device, answer);
  }
  const int copies = std::clamp(faults.copies, 1, kMaxCopies);
  const int delay = std::clamp(faults.delayMs, 0, kMaxDelayMs);
  if (delay == 0) {
    SendNow(device, *socket, peer, answer, copies);
  } else if (pending_.size() < kMaxPending) {
    pending_.push_back(Pending{Clock::now() + std::chrono::milliseconds(delay), device, copies,
                               socket, peer, std::move(answer)});
  }
}

void Simulator::Engine::SendNow(int device, DatagramSocket &socket, const sockaddr_in &peer,
                                const Bytes &bytes, int copies) {
  // Counted under the lock taken before the first datagram leaves, so a peer that has the
  // answer and then reads the counters sees it counted.
  std::lock_guard<std::mutex> lock(mutex_);
  unsigned long sent = 0;
  for (int i = 0; i < copies; ++i) {
    if (socket.SendTo(bytes.data(), bytes.size(), peer)) {
      ++sent;
    }
  }
  DeviceCounters &counters = devices_[static_cast<std::size_t>(device)]->counters;
  counters.answersSent += sent;
  counters.sendFailures += static_cast<unsigned long>(copies) - sent;
}

void Simulator::Engine::SendDue() {
  const Clock::time_point now = Clock::now();
  std::vector<Pending> due;
  for (auto it = pending_.begin(); it != pending_.end();) {
    if (it->due <= now) {
      due.push_back(std::move(*it));
      it = pending_.erase(it);
    } else {
      ++it;
    }
  }
  for (const Pending &answer : due) {
    SendNow(answer.device, *answer.socket, answer.peer, answer.bytes, answer.copies);
  }
}

void Simulator::Engine::Rebind(int device) {
  DeviceState &state = *devices_[static_cast<std::size_t>(device)];
  std::string address;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    address = state.record.ipAddress;
  }
  in_addr parsed{};
  if (!ParseAddress(address, parsed) || !MayServe(parsed)) {
    return; // an address beyond loopback: the device keeps serving where it is
  }
  std::map<std::uint16_t, std::shared_ptr<DatagramSocket>> moved;
  try {
    for (const auto &entry : state.sockets) {
      moved[entry.first] = std::make_shared<DatagramSocket>(address, entry.first);
    }
  } catch (const std::system_error &) {
    return; // the address cannot be bound here: the device keeps its old sockets
  }
  // The old sockets live on in the loop's source list and in delayed answers until those are
  // done with them.
  state.sockets.swap(moved);
  sourcesChanged_ = true;
  std::lock_guard<std::mutex> lock(mutex_);
  state.boundAddress = address;
}

Simulator::Simulator(const SimulatorOptions &options)
    : engine_(std::make_unique<Engine>(options)) {}

Simulator::~Simulator() = default;

int Simulator::AddDevice(const DeviceRecord &record) { return engine_->AddDevice(record); }
int Simulator::DeviceCount() const { return engine_->DeviceCount(); }
void Simulator::Start() { engine_->Start(); }
void Simulator::Stop() { engine_->Stop(); }
bool Simulator::Running() const { return engine_->Running(); }
std::uint16_t Simulator::HcpPort() const { return engine_->HcpPort(); }
std::uint16_t Simulator::Hbn3Port() const { return engine_->Hbn3Port(); }
std::uint16_t Simulator::ChannelPort() const { return engine_->Channels().Port(); }
DeviceRecord Simulator::Device(int index) const { return engine_->Device(index); }
void Simulator::SetDevice(int index, const DeviceRecord &record) {
  engine_->SetDevice(index, record);
}
void Simulator::SetFaults(int index, const Faults &faults) { engine_->SetFaults(index, faults); }
Faults Simulator::GetFaults(int index) const { return engine_->GetFaults(index); }
std::string Simulator::BoundAddress(int index) const { return engine_->BoundAddress(index); }
DeviceCounters Simulator::Counters(int index) const { return engine_->Counters(index); }
void Simulator::SetChannelScript(int index, const ChannelScript &script) {
  engine_->Channels().SetScript(index, script);
}
ChannelScript Simulator::GetChannelScript(int index) const {
  return engine_->Channels().Script(index);
}
ChannelLog Simulator::ChannelRecord(int index) const { return engine_->Channels().Record(index); }
bool Simulator::WaitForChannel(int index, const std::function<bool(const ChannelLog &)> &done,
                               int timeoutMs) const {
  return engine_->Channels().WaitFor(index, done, timeoutMs);
}

} // namespace kivsim
