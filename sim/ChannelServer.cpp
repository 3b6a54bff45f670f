// The simulated devices' HBN3 TCP channel end points.
//
// Every socket is non-blocking and every wait is a poll that also watches the stop pipe, so Stop
// ends a connection whatever it is doing: waiting for the open request, pausing, sending to a
// host that no longer reads, or keeping silent.
#include "sim/ChannelServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <system_error>

namespace kivsim {

namespace {

typedef std::chrono::steady_clock Clock;
typedef std::vector<unsigned char> Bytes;

// The longest single wait, so that a lost wake-up still ends a thread soon after Stop.
const int kPollLimitMs = 100;
// The gap between the bytes of a step sent byte by byte: long enough that each byte leaves in
// its own segment, short enough for frames of a few hundred bytes.
const int kByteGapMs = 2;
const int kMaxPauseMs = 600000;
const std::size_t kRequestSize = 9;
const std::size_t kMaxKeptBytes = std::size_t(16) << 20;
// Connections served at once over all devices; later ones are closed at once.
const std::size_t kMaxConnections = 256;
const int kBacklog = 64;

std::system_error SocketError(const std::string &what) {
  return std::system_error(errno, std::generic_category(), what);
}

bool IsLoopback(const in_addr &address) { return (ntohl(address.s_addr) >> 24) == 127; }

// A TCP socket bound to `address` ("": every address) and `port`. With `reuse` the address may be
// shared with the simulator's other sockets (and a port in TIME_WAIT taken again); without it the
// port (0: the kernel's choice) is one no other socket holds, and sharing is allowed afterwards.
OwnedDescriptor BoundStream(const std::string &address, std::uint16_t port, bool reuse) {
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_port = htons(port);
  if (address.empty()) {
    local.sin_addr.s_addr = htonl(INADDR_ANY);
  } else if (inet_pton(AF_INET, address.c_str(), &local.sin_addr) != 1) {
    throw std::system_error(EINVAL, std::generic_category(), "not an IPv4 address: " + address);
  }
  OwnedDescriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (socket.Get() < 0) {
    throw SocketError("socket");
  }
  const int on = 1;
  if ((reuse && setsockopt(socket.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) ||
      bind(socket.Get(), reinterpret_cast<const sockaddr *>(&local), sizeof local) != 0 ||
      (!reuse && setsockopt(socket.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0)) {
    throw SocketError("bind " + (address.empty() ? "*" : address) + ":" + std::to_string(port));
  }
  return socket;
}

std::uint16_t LocalPort(int socket) {
  sockaddr_in local{};
  socklen_t size = sizeof local;
  if (getsockname(socket, reinterpret_cast<sockaddr *>(&local), &size) != 0) {
    throw SocketError("getsockname");
  }
  return ntohs(local.sin_port);
}

} // namespace

OwnedDescriptor &OwnedDescriptor::operator=(OwnedDescriptor &&other) noexcept {
  if (this != &other) {
    Reset(other.Release());
  }
  return *this;
}

void OwnedDescriptor::Reset(int descriptor) {
  if (descriptor_ >= 0) {
    close(descriptor_);
  }
  descriptor_ = descriptor;
}

// One connection: the open request, the answer, the script; the host's bytes are taken and
// recorded whenever the device waits, so a host that writes while the device sends never stalls.
class ChannelServer::Conversation {
public:
  Conversation(ChannelServer &server, int device, std::size_t slot, OwnedDescriptor socket,
               std::shared_ptr<const ChannelScript> script)
      : server_(server), device_(device), slot_(slot), socket_(std::move(socket)),
        script_(std::move(script)) {}

  void Run() {
    try {
      Converse();
    } catch (const std::exception &) {
      // Out of memory while recording: the connection ends like one the device closed.
      deviceClosed_ = socket_.Get() >= 0;
    }
    socket_.Reset();
    {
      std::lock_guard<std::mutex> lock(server_.mutex_);
      ChannelConnectionLog &log = Log();
      log.hostClosed = hostClosed_;
      log.deviceClosed = deviceClosed_;
      log.finished = true;
    }
    server_.changed_.notify_all();
  }

private:
  ChannelConnectionLog &Log() {
    return server_.devices_[static_cast<std::size_t>(device_)]->log.connections[slot_];
  }

  void Converse() {
    while (request_.size() < kRequestSize) {
      if (!Wait(Clock::time_point::max(), false)) {
        return;
      }
    }
    if (!IsOpenRequest(request_.data())) {
      CloseByDevice(); // a device drops a connection that names no interface it has
      return;
    }
    if (!Send(HandshakeAnswer(*script_), false)) {
      return;
    }
    if (script_->handshake == ChannelScript::kCloseAfterFour) {
      CloseByDevice();
      return;
    }
    if (script_->handshake == ChannelScript::kAccept) {
      for (const ChannelStep &step : script_->steps) {
        switch (step.kind) {
        case ChannelStep::kFrame:
        case ChannelStep::kTickle:
        case ChannelStep::kRaw:
          if (!Send(StepBytes(step), step.byteByByte)) {
            return;
          }
          break;
        case ChannelStep::kPause:
          if (!Pause(std::clamp(step.pauseMs, 0, kMaxPauseMs))) {
            return;
          }
          break;
        case ChannelStep::kClose:
          CloseByDevice();
          return;
        case ChannelStep::kSilence:
          Silence();
          return;
        }
      }
    }
    Silence();
  }

  // Waits until `deadline`, until the socket takes data (`forWrite`) or until host bytes came,
  // taking them. False when the connection is over: Stop, the host closed it, or it failed.
  bool Wait(Clock::time_point deadline, bool forWrite) {
    for (;;) {
      if (server_.stopping_.load()) {
        return false;
      }
      int timeout = kPollLimitMs;
      if (deadline != Clock::time_point::max()) {
        const auto left = deadline - Clock::now();
        if (left <= Clock::duration::zero()) {
          return true;
        }
        const long long ms = std::chrono::ceil<std::chrono::milliseconds>(left).count();
        timeout = static_cast<int>(std::min<long long>(ms, kPollLimitMs));
      }
      pollfd fds[2] = {{socket_.Get(), static_cast<short>(POLLIN | (forWrite ? POLLOUT : 0)), 0},
                       {server_.stopRead_.Get(), POLLIN, 0}};
      const int ready = poll(fds, 2, timeout);
      if (ready < 0) {
        if (errno == EINTR) {
          continue;
        }
        return false;
      }
      if (fds[1].revents != 0) {
        return false;
      }
      if ((fds[0].revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
        const bool took = Take();
        if (hostClosed_) {
          return false;
        }
        if (took) {
          return true;
        }
      }
      if (forWrite && (fds[0].revents & POLLOUT) != 0) {
        return true;
      }
    }
  }

  // Takes what the host has sent; true when bytes came. An end of stream or a reset marks the
  // host closed.
  bool Take() {
    unsigned char buffer[16384];
    bool took = false;
    for (int round = 0; round < 64; ++round) {
      const ssize_t count = recv(socket_.Get(), buffer, sizeof buffer, MSG_DONTWAIT);
      if (count > 0) {
        Record(buffer, static_cast<std::size_t>(count));
        took = true;
        continue;
      }
      if (count < 0 && errno == EINTR) {
        continue;
      }
      if (count == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) {
        hostClosed_ = true;
      }
      break;
    }
    return took;
  }

  void Record(const unsigned char *data, std::size_t size) {
    const std::size_t toRequest = std::min(size, kRequestSize - request_.size());
    request_.insert(request_.end(), data, data + toRequest);
    {
      std::lock_guard<std::mutex> lock(server_.mutex_);
      ChannelConnectionLog &log = Log();
      log.openRequest = request_;
      const std::size_t rest = size - toRequest;
      const std::size_t keep = std::min(rest, kMaxKeptBytes - log.written.size());
      log.written.insert(log.written.end(), data + toRequest, data + toRequest + keep);
      log.writtenCount += rest;
    }
    server_.changed_.notify_all();
  }

  bool Send(const Bytes &bytes, bool byteByByte) {
    if (!byteByByte) {
      return SendAll(bytes.data(), bytes.size());
    }
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      if (i > 0 && !Pause(kByteGapMs)) {
        return false;
      }
      if (!SendAll(&bytes[i], 1)) {
        return false;
      }
    }
    return true;
  }

  bool SendAll(const unsigned char *data, std::size_t size) {
    while (size > 0) {
      if (server_.stopping_.load()) {
        return false;
      }
      const ssize_t sent = send(socket_.Get(), data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (sent > 0) {
        data += sent;
        size -= static_cast<std::size_t>(sent);
      } else if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        // A host that does not read holds the device here until it reads, closes, or Stop.
        if (!Wait(Clock::time_point::max(), true)) {
          return false;
        }
      } else if (sent < 0 && errno == EINTR) {
        continue;
      } else {
        hostClosed_ = true; // EPIPE or a reset: the host is gone
        return false;
      }
    }
    return true;
  }

  bool Pause(int milliseconds) {
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(milliseconds);
    while (Clock::now() < deadline) {
      if (!Wait(deadline, false)) {
        return false;
      }
    }
    return true;
  }

  void Silence() {
    while (Wait(Clock::time_point::max(), false)) {
    }
  }

  void CloseByDevice() {
    // Taking what the host sent first makes the close an orderly one (unread bytes would turn it
    // into a reset, which may cost the host the bytes it has not read yet).
    Take();
    deviceClosed_ = !hostClosed_;
    socket_.Reset();
  }

  ChannelServer &server_;
  const int device_;
  const std::size_t slot_;
  OwnedDescriptor socket_;
  const std::shared_ptr<const ChannelScript> script_;
  Bytes request_;
  bool hostClosed_ = false;
  bool deviceClosed_ = false;
};

ChannelServer::ChannelServer() = default;

ChannelServer::~ChannelServer() { Stop(); }

void ChannelServer::AddDevice() {
  std::lock_guard<std::mutex> lock(mutex_);
  devices_.push_back(std::make_unique<Device>());
}

ChannelServer::Device &ChannelServer::At(int index) const {
  if (index < 0 || static_cast<std::size_t>(index) >= devices_.size()) {
    throw std::out_of_range("no device " + std::to_string(index));
  }
  return *devices_[static_cast<std::size_t>(index)];
}

void ChannelServer::SetScript(int index, const ChannelScript &script) {
  std::lock_guard<std::mutex> lock(mutex_);
  At(index).script = std::make_shared<const ChannelScript>(script);
}

ChannelScript ChannelServer::Script(int index) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return *At(index).script;
}

ChannelLog ChannelServer::Record(int index) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return At(index).log;
}

bool ChannelServer::WaitFor(int index, const std::function<bool(const ChannelLog &)> &done,
                            int timeoutMs) const {
  std::unique_lock<std::mutex> lock(mutex_);
  const Device &device = At(index);
  return changed_.wait_for(lock, std::chrono::milliseconds(std::max(timeoutMs, 0)),
                           [&]() { return done(device.log); });
}

std::uint16_t ChannelServer::Port() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return port_;
}

void ChannelServer::Start(const std::vector<std::string> &addresses, std::uint16_t port,
                          bool answerAnyPeer) {
  if (acceptor_.joinable()) {
    throw std::logic_error("the channel end points are already open");
  }
  try {
    int fds[2];
    if (pipe2(fds, O_NONBLOCK | O_CLOEXEC) != 0) {
      throw SocketError("pipe2");
    }
    stopRead_.Reset(fds[0]);
    stopWrite_.Reset(fds[1]);
    if (port == 0) {
      reservation_ = BoundStream("", 0, false);
      port = LocalPort(reservation_.Get());
    }
    for (const std::string &address : addresses) {
      listeners_.push_back(BoundStream(address, port, true));
      if (listen(listeners_.back().Get(), kBacklog) != 0) {
        throw SocketError("listen " + address + ":" + std::to_string(port));
      }
    }
    {
      std::lock_guard<std::mutex> lock(mutex_);
      port_ = port;
      answerAnyPeer_ = answerAnyPeer;
    }
    stopping_ = false;
    acceptor_ = std::thread([this]() { Accept(); });
  } catch (...) {
    listeners_.clear();
    reservation_.Reset();
    stopRead_.Reset();
    stopWrite_.Reset();
    throw;
  }
}

void ChannelServer::Stop() {
  if (!acceptor_.joinable()) {
    return;
  }
  stopping_ = true;
  const unsigned char byte = 1;
  if (write(stopWrite_.Get(), &byte, 1) < 0) {
    // The pipe is new and holds nothing else; should the byte not go, the flag ends every wait
    // within one poll period.
  }
  acceptor_.join();
  listeners_.clear();
  reservation_.Reset();
  stopRead_.Reset();
  stopWrite_.Reset();
}

void ChannelServer::Accept() {
  std::vector<pollfd> fds{pollfd{stopRead_.Get(), POLLIN, 0}};
  for (const OwnedDescriptor &listener : listeners_) {
    fds.push_back(pollfd{listener.Get(), POLLIN, 0});
  }
  while (!stopping_.load()) {
    const int ready = poll(fds.data(), fds.size(), kPollLimitMs);
    if (ready < 0 && errno != EINTR) {
      break;
    }
    if (ready > 0) {
      if (fds[0].revents != 0) {
        break;
      }
      for (std::size_t i = 1; i < fds.size(); ++i) {
        if ((fds[i].revents & POLLIN) != 0) {
          AcceptFrom(static_cast<int>(i - 1), fds[i].fd);
        }
      }
    }
    Reap(false);
  }
  Reap(true);
}

void ChannelServer::AcceptFrom(int device, int listener) {
  for (int round = 0; round < 16; ++round) {
    sockaddr_in peer{};
    socklen_t size = sizeof peer;
    OwnedDescriptor socket(accept4(listener, reinterpret_cast<sockaddr *>(&peer), &size,
                                   SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (socket.Get() < 0) {
      return; // nothing waiting, or a connection that was reset before it was taken
    }
    if ((!answerAnyPeer_ && !IsLoopback(peer.sin_addr)) || connections_.size() >= kMaxConnections) {
      continue;
    }
    // Each step's bytes leave as soon as they are sent, so a split frame reaches the host split.
    const int on = 1;
    setsockopt(socket.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    std::shared_ptr<const ChannelScript> script;
    std::size_t slot = 0;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      Device &state = At(device);
      script = state.script;
      ++state.log.accepted;
      state.log.connections.emplace_back();
      slot = state.log.connections.size() - 1;
    }
    changed_.notify_all();
    auto conversation =
        std::make_unique<Conversation>(*this, device, slot, std::move(socket), std::move(script));
    connections_.emplace_back();
    Connection &connection = connections_.back();
    try {
      connection.thread = std::thread([&connection, talk = std::move(conversation)]() {
        talk->Run();
        connection.done = true;
      });
    } catch (const std::system_error &) {
      connections_.pop_back(); // no thread: the connection closes with its conversation
      std::lock_guard<std::mutex> lock(mutex_);
      At(device).log.connections[slot].finished = true;
    }
  }
}

void ChannelServer::Reap(bool all) {
  for (auto it = connections_.begin(); it != connections_.end();) {
    if (all || it->done.load()) {
      it->thread.join();
      it = connections_.erase(it);
    } else {
      ++it;
    }
  }
}

} // namespace kivsim
