// Device ends for the channel tests, written with plain sockets.
#include "support/ChannelPeer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <iterator>
#include <stdexcept>
#include <thread>

namespace kivtest {

namespace {

int Milliseconds(double seconds) { return static_cast<int>(seconds * 1000); }

// Waits for `descriptor` to become readable until `deadline`; false when time ran out.
bool Readable(int descriptor, std::chrono::steady_clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
      deadline - std::chrono::steady_clock::now());
  if (left.count() < 0) {
    return false;
  }
  pollfd watched = {descriptor, POLLIN, 0};
  return ::poll(&watched, 1, static_cast<int>(left.count())) > 0;
}

void SendAllOf(int descriptor, const unsigned char *data, size_t size) {
  size_t sent = 0;
  while (sent < size) {
    const ssize_t n = ::send(descriptor, data + sent, size - sent, MSG_NOSIGNAL);
    if (n <= 0) {
      throw std::runtime_error("peer: send failed");
    }
    sent += static_cast<size_t>(n);
  }
}

} // namespace

Bytes FrameHeader(long long length, const std::string &tag) {
  Bytes header(tag.begin(), tag.end());
  header.resize(4);
  header.push_back(0);
  const unsigned long long value = static_cast<unsigned long long>(length);
  for (int shift = 24; shift >= 0; shift -= 8) {
    header.push_back(static_cast<unsigned char>(value >> shift));
  }
  return header;
}

Bytes Frame(const Bytes &payload) {
  return Join({FrameHeader(static_cast<long long>(payload.size())), payload});
}

Bytes Pattern(size_t count, int seed) {
  Bytes bytes(count);
  for (size_t i = 0; i < count; ++i) {
    bytes[i] = static_cast<unsigned char>(
        (i * 7 + (i >> 8) * 13 + static_cast<size_t>(seed) * 31 + 1) & 0xFF);
  }
  return bytes;
}

LoopbackPeer::LoopbackPeer() {
  mListener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (mListener == -1 ||
      ::bind(mListener, reinterpret_cast<sockaddr *>(&address), sizeof address) == -1 ||
      ::listen(mListener, 4) == -1 ||
      ::getsockname(mListener, reinterpret_cast<sockaddr *>(&address), &length) == -1) {
    if (mListener != -1) {
      ::close(mListener);
    }
    throw std::runtime_error("peer: cannot listen on loopback");
  }
  mPort = ntohs(address.sin_port);
}

LoopbackPeer::~LoopbackPeer() {
  CloseConnection();
  StopListening();
}

bool LoopbackPeer::Accept(double seconds) {
  CloseConnection();
  pollfd watched = {mListener, POLLIN, 0};
  if (mListener == -1 || ::poll(&watched, 1, Milliseconds(seconds)) <= 0) {
    return false;
  }
  mConnection = ::accept4(mListener, nullptr, nullptr, SOCK_CLOEXEC);
  return mConnection != -1;
}

Bytes LoopbackPeer::Receive(size_t count, double seconds) {
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(Milliseconds(seconds));
  Bytes got;
  unsigned char chunk[4096];
  while (got.size() < count && Readable(mConnection, deadline)) {
    const size_t want = std::min(sizeof chunk, count - got.size());
    const ssize_t n = ::recv(mConnection, chunk, want, 0);
    if (n <= 0) {
      break;
    }
    got.insert(got.end(), chunk, chunk + n);
  }
  return got;
}

Bytes LoopbackPeer::ReceiveUntilClosed(double seconds) {
  return Receive(static_cast<size_t>(-1), seconds);
}

void LoopbackPeer::Send(const Bytes &bytes) { SendAllOf(mConnection, bytes.data(), bytes.size()); }

void LoopbackPeer::CloseConnection() {
  if (mConnection != -1) {
    ::close(mConnection);
    mConnection = -1;
  }
}

void LoopbackPeer::ResetConnection() {
  if (mConnection != -1) {
    const linger abort = {1, 0}; // close at once with a reset
    ::setsockopt(mConnection, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
  }
  CloseConnection();
}

void LoopbackPeer::StopListening() {
  if (mListener != -1) {
    ::close(mListener);
    mListener = -1;
  }
}

StreamPair::StreamPair() {
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == -1) {
    throw std::runtime_error("cannot make a stream pair");
  }
  mHost = ends[0];
  mDevice = ends[1];
}

StreamPair::~StreamPair() {
  if (mHost != -1) {
    ::close(mHost);
  }
  CloseDevice();
}

int StreamPair::TakeHost() {
  const int host = mHost;
  mHost = -1;
  return host;
}

void StreamPair::Send(const Bytes &bytes) { SendAllOf(mDevice, bytes.data(), bytes.size()); }

void StreamPair::SendSplit(const Bytes &bytes, std::initializer_list<size_t> splits,
                           std::chrono::milliseconds pause) {
  size_t from = 0;
  for (size_t split : splits) {
    SendAllOf(mDevice, bytes.data() + from, split - from);
    from = split;
    std::this_thread::sleep_for(pause);
  }
  SendAllOf(mDevice, bytes.data() + from, bytes.size() - from);
}

Bytes StreamPair::Drain() {
  Bytes got;
  unsigned char chunk[4096];
  for (;;) {
    const ssize_t n = ::recv(mDevice, chunk, sizeof chunk, MSG_DONTWAIT);
    if (n <= 0) {
      return got;
    }
    got.insert(got.end(), chunk, chunk + n);
  }
}

void StreamPair::CloseDevice() {
  if (mDevice != -1) {
    ::close(mDevice);
    mDevice = -1;
  }
}

int CountThreads() {
  std::error_code error;
  std::filesystem::directory_iterator tasks("/proc/self/task", error);
  return error ? -1 : static_cast<int>(std::distance(tasks, std::filesystem::directory_iterator()));
}

int CountThreadsBeforeATest() {
  std::thread([] {}).join();
  return CountThreads();
}

bool WaitFor(const std::function<bool()> &condition, double seconds) {
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(Milliseconds(seconds));
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

} // namespace kivtest
