// Device ends for the channel tests, written with plain sockets.
#include "support/ChannelPeer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <stdexcept>

namespace kivtest {

namespace {

int Milliseconds(double seconds) { return static_cast<int>(seconds * 1000); }

// Waits for `descriptor` to become readable until `deadline`; false when time ran out.
bool Readable(int descriptor, std::chrono::steady_clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
      deadline - std::chrono::steady_clock::now());
  pollfd watched = {descriptor, POLLIN, 0};
  return left.count() >= 0 && ::poll(&watched, 1, static_cast<int>(left.count())) > 0;
}

// Sends all of `bytes`; false when the other end went away first.
bool SendAllOf(int descriptor, const Bytes &bytes) {
  size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t n = ::send(descriptor, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) {
      return false;
    }
    sent += static_cast<size_t>(n);
  }
  return true;
}

void CloseIfOpen(int &descriptor) {
  if (descriptor != -1) {
    ::close(descriptor);
    descriptor = -1;
  }
}

// Makes a buffer of `descriptor` 8 MiB large: forced past the system's limit where the process
// may, else as large as the limit allows.
void Enlarge(int descriptor, int forced, int plain) {
  const int big = 8 * 1024 * 1024;
  if (::setsockopt(descriptor, SOL_SOCKET, forced, &big, sizeof big) != 0) {
    ::setsockopt(descriptor, SOL_SOCKET, plain, &big, sizeof big);
  }
}

} // namespace

Bytes FrameHeader(long long length, const std::string &tag) {
  Bytes header(tag.begin(), tag.end());
  header.resize(4);
  header.push_back(0);
  for (int shift = 24; shift >= 0; shift -= 8) {
    header.push_back(static_cast<unsigned char>(static_cast<unsigned long long>(length) >> shift));
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
    CloseIfOpen(mListener);
    throw std::runtime_error("peer: cannot listen on loopback");
  }
  mPort = ntohs(address.sin_port);
}

LoopbackPeer::~LoopbackPeer() {
  CloseConnection();
  CloseIfOpen(mListener);
}

bool LoopbackPeer::Accept(double seconds) {
  CloseConnection();
  pollfd watched = {mListener, POLLIN, 0};
  if (::poll(&watched, 1, Milliseconds(seconds)) <= 0) {
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
    const ssize_t n = ::recv(mConnection, chunk, std::min(sizeof chunk, count - got.size()), 0);
    if (n <= 0) {
      break;
    }
    got.insert(got.end(), chunk, chunk + n);
  }
  return got;
}

void LoopbackPeer::Send(const Bytes &bytes) {
  if (!SendAllOf(mConnection, bytes)) {
    throw std::runtime_error("peer: send failed");
  }
}

void LoopbackPeer::CloseConnection() { CloseIfOpen(mConnection); }

void LoopbackPeer::ResetConnection() {
  if (mConnection != -1) {
    const linger abort = {1, 0}; // close at once with a reset
    ::setsockopt(mConnection, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
  }
  CloseConnection();
}

DeviceStream::DeviceStream(bool tcp) {
  if (!tcp) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == -1) {
      throw std::runtime_error("cannot make a stream pair");
    }
    mHost = ends[0];
    mDevice = ends[1];
  } else {
    LoopbackPeer listening;
    mHost = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    Enlarge(mHost, SO_RCVBUFFORCE, SO_RCVBUF); // before connect: it sets the window scale
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(listening.Port()));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(mHost, reinterpret_cast<sockaddr *>(&to), sizeof to) != 0 ||
        !listening.Accept()) {
      CloseIfOpen(mHost);
      throw std::runtime_error("cannot connect on loopback");
    }
    mDevice = ::dup(listening.Connection()); // the listener closes its own when it goes
  }
  Enlarge(mDevice, SO_SNDBUFFORCE, SO_SNDBUF);
}

DeviceStream::~DeviceStream() {
  Finish();
  CloseIfOpen(mHost);
  CloseIfOpen(mDevice);
}

int DeviceStream::TakeHost() {
  mHostSeen = mHost;
  mHost = -1;
  return mHostSeen;
}

void DeviceStream::Send(const Bytes &bytes) {
  Finish();
  const int device = mDevice;
  mSender = std::thread([device, bytes] { SendAllOf(device, bytes); });
}

void DeviceStream::SendWaiting(const Bytes &bytes) {
  const int before = Waiting();
  Send(bytes);
  EXPECT_TRUE(WaitFor([&] { return Waiting() == before + static_cast<int>(bytes.size()); }, 10))
      << "only " << Waiting() << " bytes came";
  Finish();
}

void DeviceStream::Finish() {
  if (mSender.joinable()) {
    mSender.join();
  }
}

int DeviceStream::Waiting() const {
  int waiting = -1;
  ::ioctl(mHost != -1 ? mHost : mHostSeen, FIONREAD, &waiting);
  return waiting;
}

void DeviceStream::CloseDevice() {
  Finish();
  ::shutdown(mDevice, SHUT_WR);
}

void DeviceStream::ResetDevice() {
  Finish();
  const linger abort = {1, 0};
  ::setsockopt(mDevice, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
  CloseIfOpen(mDevice);
}

bool CallbackLog::Callback(const unsigned char *data, int length, void *param) {
  CallbackLog *self = static_cast<CallbackLog *>(param);
  ListenerCall call = {data == nullptr ? "null/" + std::to_string(length)
                                       : (length == 0 ? "closed" : ToHex(data, length)),
                       Bytes(), pthread_self(), std::chrono::steady_clock::now()};
  if (data != nullptr && length > 0) {
    call.payload.assign(data, data + length);
  }
  std::free(const_cast<unsigned char *>(data)); // the callback owns every block
  int number = 0;
  {
    std::lock_guard<std::mutex> lock(self->mMutex);
    self->mCalls.push_back(call);
    number = static_cast<int>(self->mCalls.size());
  }
  return self->answer(number, call);
}

std::vector<ListenerCall> CallbackLog::Calls() {
  std::lock_guard<std::mutex> lock(mMutex);
  return mCalls;
}

std::string CallbackLog::Text() {
  std::string text;
  for (const ListenerCall &call : Calls()) {
    text += (text.empty() ? "" : " | ") + call.text;
  }
  return text;
}

std::vector<Bytes> CallbackLog::Payloads() {
  std::vector<Bytes> payloads;
  for (const ListenerCall &call : Calls()) {
    if (!call.payload.empty()) {
      payloads.push_back(call.payload);
    }
  }
  return payloads;
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
