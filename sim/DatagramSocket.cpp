// The simulator's UDP sockets.
#include "sim/DatagramSocket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace kivsim {

namespace {

std::system_error SocketError(const std::string &what) {
  return std::system_error(errno, std::generic_category(), what);
}

} // namespace

DatagramSocket::DatagramSocket(const std::string &address, std::uint16_t port, Bind bind) {
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_port = htons(port);
  if (address.empty() || address == "0.0.0.0") {
    local.sin_addr.s_addr = htonl(INADDR_ANY);
  } else if (inet_pton(AF_INET, address.c_str(), &local.sin_addr) != 1) {
    throw std::system_error(EINVAL, std::generic_category(), "not an IPv4 address: " + address);
  }
  descriptor_ = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (descriptor_ < 0) {
    throw SocketError("socket");
  }
  const int on = 1;
  const int off = 0;
  const bool shared = bind == Bind::kShared;
  // A listener on every address must not take multicast the host's other sockets joined; the
  // simulator answers loopback peers only, but it should not even see such traffic. A port the
  // kernel chooses for a socket with SO_REUSEADDR may be one another such socket holds, so an
  // exclusive bind sets the option only once the port is its own.
  if (setsockopt(descriptor_, IPPROTO_IP, IP_MULTICAST_ALL, &off, sizeof off) != 0 ||
      (shared && setsockopt(descriptor_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) ||
      ::bind(descriptor_, reinterpret_cast<const sockaddr *>(&local), sizeof local) != 0 ||
      (!shared && setsockopt(descriptor_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0)) {
    const std::system_error error = SocketError("bind " + address + ":" + std::to_string(port));
    close(descriptor_);
    descriptor_ = -1;
    throw error;
  }
}

DatagramSocket::~DatagramSocket() {
  if (descriptor_ >= 0) {
    close(descriptor_);
  }
}

std::uint16_t DatagramSocket::LocalPort() const {
  sockaddr_in local{};
  socklen_t size = sizeof local;
  if (getsockname(descriptor_, reinterpret_cast<sockaddr *>(&local), &size) != 0) {
    return 0;
  }
  return ntohs(local.sin_port);
}

long DatagramSocket::ReceiveFrom(std::uint8_t *buffer, std::size_t size, sockaddr_in &peer) {
  socklen_t peerSize = sizeof peer;
  const ssize_t count =
      recvfrom(descriptor_, buffer, size, 0, reinterpret_cast<sockaddr *>(&peer), &peerSize);
  if (count < 0 || peerSize != sizeof peer || peer.sin_family != AF_INET) {
    return -1;
  }
  return static_cast<long>(count);
}

bool DatagramSocket::SendTo(const std::uint8_t *data, std::size_t size, const sockaddr_in &peer) {
  const ssize_t sent = sendto(descriptor_, data, size, MSG_NOSIGNAL,
                              reinterpret_cast<const sockaddr *>(&peer), sizeof peer);
  return sent == static_cast<ssize_t>(size);
}

} // namespace kivsim
