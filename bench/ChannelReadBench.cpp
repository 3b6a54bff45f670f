// Channel read benchmark: CPU per GB of the HBN3 channel's read paths against a raw receive loop
// and a plain frame reader, all over the same loopback stream in one process.
//
// Run: cmake -DKIV_BUILD_BENCHMARKS=ON ... && build/.../bench/KivChannelReadBench [--help]
//
// How it measures
// - A sender thread of this process plays the device on 127.0.0.1: it accepts one connection per
//   measurement, answers the open request with a bare header (length 0), then sends N frames of
//   one payload size as fast as the receiver takes them and closes. The frames are built once
//   per size into a block of about 1 MiB of back-to-back frames, sent again and again with large
//   sends, so the sender costs little and its CPU never lands on the receiving thread.
// - CPU is the receiving thread's own CPU clock (CLOCK_THREAD_CPUTIME_ID): the main thread for the
//   raw loop, the plain reader, Read and ReadManaged, from after the open handshake to the end of
//   the stream; for the listener, the listener thread's clock read by the callback when the
//   stream has ended (the thread's whole life until then: every read, every block handed over,
//   the callback's count and free()). The sender's thread and the kernel work charged to it are
//   not counted.
// - GB means 10^9 payload bytes delivered into the host's hands. The raw loop delivers no
//   frames; it is charged per GB of the payload its stream carries, so its ratio to another path
//   is the ratio of their CPU times over the same stream.
// - Receives are counted by this program's own definitions of recv, recvfrom, recvmsg and read
//   (and waits by select, poll and their kin), which count per thread and call the C library's
//   through dlsym(RTLD_NEXT). The executable exports them, so the shared library's calls bind to
//   them too.
// - Every path and size runs once per run, the paths in a rotated order each run, so drift on a
//   shared machine hits them alike; the table shows medians over the runs, and the ratios are
//   medians of the ratios taken within each run.
// Nothing leaves 127.0.0.1; every wait is bounded (a measurement that takes over 5 minutes ends
// the program); threads and descriptors end with each measurement.
#include <arpa/inet.h>
#include <dlfcn.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Interfaces/KivNetworkComm.h"

// ---- Receive and wait counters -----------------------------------------------------------------
// Defined in the executable so that every call in the process, the shared library's included,
// comes here first. Each thread counts its own.

namespace {

thread_local std::uint64_t tReceives = 0;
thread_local std::uint64_t tWaits = 0;

template <typename Function> Function NextDefinition(const char *name) {
  void *found = dlsym(RTLD_NEXT, name);
  if (found == nullptr) {
    std::fprintf(stderr, "KivChannelReadBench: no %s in the C library\n", name);
    std::abort();
  }
  return reinterpret_cast<Function>(found);
}

} // namespace

extern "C" ssize_t recv(int fd, void *buffer, size_t length, int flags) {
  static const auto next = NextDefinition<ssize_t (*)(int, void *, size_t, int)>("recv");
  ++tReceives;
  return next(fd, buffer, length, flags);
}

extern "C" ssize_t recvfrom(int fd, void *buffer, size_t length, int flags, sockaddr *from,
                            socklen_t *fromLength) {
  static const auto next =
      NextDefinition<ssize_t (*)(int, void *, size_t, int, sockaddr *, socklen_t *)>("recvfrom");
  ++tReceives;
  return next(fd, buffer, length, flags, from, fromLength);
}

extern "C" ssize_t recvmsg(int fd, msghdr *message, int flags) {
  static const auto next = NextDefinition<ssize_t (*)(int, msghdr *, int)>("recvmsg");
  ++tReceives;
  return next(fd, message, flags);
}

extern "C" ssize_t read(int fd, void *buffer, size_t length) {
  static const auto next = NextDefinition<ssize_t (*)(int, void *, size_t)>("read");
  ++tReceives;
  return next(fd, buffer, length);
}

extern "C" int select(int count, fd_set *readable, fd_set *writable, fd_set *failed,
                      timeval *limit) {
  static const auto next =
      NextDefinition<int (*)(int, fd_set *, fd_set *, fd_set *, timeval *)>("select");
  ++tWaits;
  return next(count, readable, writable, failed, limit);
}

extern "C" int poll(pollfd *fds, nfds_t count, int limitMs) {
  static const auto next = NextDefinition<int (*)(pollfd *, nfds_t, int)>("poll");
  ++tWaits;
  return next(fds, count, limitMs);
}

extern "C" int ppoll(pollfd *fds, nfds_t count, const timespec *limit, const sigset_t *mask) {
  static const auto next =
      NextDefinition<int (*)(pollfd *, nfds_t, const timespec *, const sigset_t *)>("ppoll");
  ++tWaits;
  return next(fds, count, limit, mask);
}

extern "C" int pselect(int count, fd_set *readable, fd_set *writable, fd_set *failed,
                       const timespec *limit, const sigset_t *mask) {
  static const auto next = NextDefinition<int (*)(int, fd_set *, fd_set *, fd_set *,
                                                  const timespec *, const sigset_t *)>("pselect");
  ++tWaits;
  return next(count, readable, writable, failed, limit, mask);
}

extern "C" int epoll_wait(int fd, epoll_event *events, int count, int limitMs) {
  static const auto next = NextDefinition<int (*)(int, epoll_event *, int, int)>("epoll_wait");
  ++tWaits;
  return next(fd, events, count, limitMs);
}

namespace {

// ---- Settings ----------------------------------------------------------------------------------

constexpr int kHeaderLength = 9;
constexpr std::size_t kCallerBufferSize = 256 * 1024; // the raw loop's buffer and the caller's
constexpr std::size_t kChunkTarget = 1024 * 1024;     // bytes of frames the sender sends at once
constexpr int kIoLimitSeconds = 30;                   // any single wait of the sender or a reader
constexpr int kListenerLimitSeconds = 120;            // a whole listener measurement
constexpr int kMeasurementLimitSeconds = 300;         // any measurement: then the program ends

const unsigned char kScanOpenRequest[kHeaderLength] = {'H', 'B', 'N', '3', 0, 0, 0, 0, 2};

enum Path { kRaw, kPlain, kRead, kReadManaged, kListener, kPathCount };
const char *const kPathNames[kPathCount] = {"raw", "plain", "Read", "ReadManaged", "listener"};
const char *const kPathTitles[kPathCount] = {"raw recv loop", "plain reader", "Read", "ReadManaged",
                                             "listener"};

const int kFrameSizes[] = {65536, 4096, 64};
constexpr int kSizeCount = 3;

std::string SizeLabel(int size) {
  if (size % 1024 == 0) {
    return std::to_string(size / 1024) + " KiB";
  }
  return std::to_string(size) + " B";
}

double ThreadCpuSeconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return double(now.tv_sec) + double(now.tv_nsec) * 1e-9;
}

void WriteBE32(unsigned char *p, std::uint32_t value) {
  p[0] = static_cast<unsigned char>(value >> 24);
  p[1] = static_cast<unsigned char>(value >> 16);
  p[2] = static_cast<unsigned char>(value >> 8);
  p[3] = static_cast<unsigned char>(value);
}

std::int32_t ReadBE32(const unsigned char *p) {
  return static_cast<std::int32_t>((std::uint32_t(p[0]) << 24) | (std::uint32_t(p[1]) << 16) |
                                   (std::uint32_t(p[2]) << 8) | std::uint32_t(p[3]));
}

// Keeps the compiler from dropping stores into a buffer nobody reads afterwards.
void Touch(const void *p) { asm volatile("" : : "r"(p) : "memory"); }

// ---- Descriptors and plain socket helpers ------------------------------------------------------

class Descriptor {
public:
  Descriptor() = default;
  explicit Descriptor(int fd) : mFd(fd) {}
  Descriptor(Descriptor &&other) noexcept : mFd(other.Release()) {}
  Descriptor &operator=(Descriptor &&other) noexcept {
    Reset(other.Release());
    return *this;
  }
  Descriptor(const Descriptor &) = delete;
  Descriptor &operator=(const Descriptor &) = delete;
  ~Descriptor() { Reset(-1); }
  int Get() const { return mFd; }
  int Release() {
    const int fd = mFd;
    mFd = -1;
    return fd;
  }
  void Reset(int fd) {
    if (mFd >= 0) {
      close(mFd);
    }
    mFd = fd;
  }

private:
  int mFd = -1;
};

void SetLimits(int fd) {
  timeval limit{kIoLimitSeconds, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

// Sends all `length` bytes; false on any failure, a send time-out among them.
bool SendAll(int fd, const unsigned char *data, std::size_t length) {
  while (length > 0) {
    const ssize_t sent = send(fd, data, length, MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) {
      continue;
    }
    if (sent <= 0) {
      return false;
    }
    data += sent;
    length -= static_cast<std::size_t>(sent);
  }
  return true;
}

// Receives exactly `length` bytes: `length`, fewer when the peer closed first, -1 on a failure.
long RecvAll(int fd, unsigned char *data, std::size_t length) {
  std::size_t got = 0;
  while (got < length) {
    const ssize_t count = recv(fd, data + got, length - got, 0);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count < 0) {
      return -1;
    }
    if (count == 0) {
      break;
    }
    got += static_cast<std::size_t>(count);
  }
  return static_cast<long>(got);
}

// ---- The stream --------------------------------------------------------------------------------

// `frames` frames of `payload` bytes: a block of whole frames, sent as often as needed, the last
// time only in part.
struct Stream {
  Stream(int payloadSize, std::uint64_t frameCount) : payload(payloadSize), frames(frameCount) {
    const std::size_t frameBytes = kHeaderLength + std::size_t(payload);
    const std::size_t perChunk = std::max<std::size_t>(1, kChunkTarget / frameBytes);
    chunk.resize(perChunk * frameBytes);
    for (std::size_t f = 0; f < perChunk; ++f) {
      unsigned char *frame = chunk.data() + f * frameBytes;
      std::memcpy(frame, "HBN3", 4);
      frame[4] = 0;
      WriteBE32(frame + 5, static_cast<std::uint32_t>(payload));
      for (int i = 0; i < payload; ++i) {
        frame[kHeaderLength + i] = static_cast<unsigned char>(f * 31 + std::size_t(i));
      }
    }
  }
  std::uint64_t Bytes() const { return frames * (kHeaderLength + std::uint64_t(payload)); }
  std::uint64_t PayloadBytes() const { return frames * std::uint64_t(payload); }

  int payload;
  std::uint64_t frames;
  std::vector<unsigned char> chunk;
};

// ---- The sender --------------------------------------------------------------------------------

// Plays the device: one listening socket on 127.0.0.1, and per measurement a thread that takes
// one connection, answers its open request and sends the stream.
class Sender {
public:
  Sender() : mListening(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (mListening.Get() < 0 ||
        bind(mListening.Get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
        listen(mListening.Get(), 4) != 0 ||
        getsockname(mListening.Get(), reinterpret_cast<sockaddr *>(&address), &length) != 0) {
      std::perror("KivChannelReadBench: cannot listen on 127.0.0.1");
      std::exit(1);
    }
    mPort = ntohs(address.sin_port);
  }
  ~Sender() { Finish(); }
  Sender(const Sender &) = delete;
  Sender &operator=(const Sender &) = delete;

  int Port() const { return mPort; }

  // Runs the sender thread on processor `cpu` only (-1: anywhere).
  void Pin(int cpu) { mCpu = cpu; }

  void Start(const Stream &stream) {
    Finish();
    mFailure.clear();
    mThread = std::thread([this, &stream] {
      if (mCpu >= 0) {
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(mCpu, &one);
        pthread_setaffinity_np(pthread_self(), sizeof one, &one);
      }
      mFailure = Serve(stream);
    });
  }

  // Waits for the sender thread; an empty text when it sent the whole stream.
  std::string Finish() {
    if (mThread.joinable()) {
      mThread.join();
    }
    return mFailure;
  }

private:
  std::string Serve(const Stream &stream) {
    pollfd waiting{mListening.Get(), POLLIN, 0};
    if (poll(&waiting, 1, kIoLimitSeconds * 1000) != 1) {
      return "no connection came";
    }
    Descriptor connection(accept4(mListening.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (connection.Get() < 0) {
      return "accept failed";
    }
    SetLimits(connection.Get());
    unsigned char request[kHeaderLength];
    if (RecvAll(connection.Get(), request, kHeaderLength) != kHeaderLength ||
        std::memcmp(request, "HBN3", 4) != 0) {
      return "no open request";
    }
    const unsigned char answer[kHeaderLength] = {'H', 'B', 'N', '3', 0, 0, 0, 0, 0};
    if (!SendAll(connection.Get(), answer, kHeaderLength)) {
      return "the open answer could not be sent";
    }
    std::uint64_t remaining = stream.Bytes();
    while (remaining > 0) {
      const std::size_t now = std::size_t(std::min<std::uint64_t>(remaining, stream.chunk.size()));
      if (!SendAll(connection.Get(), stream.chunk.data(), now)) {
        return "the receiver stopped taking the stream";
      }
      remaining -= now;
    }
    shutdown(connection.Get(), SHUT_WR);
    return std::string();
  }

  Descriptor mListening;
  int mPort = 0;
  int mCpu = -1;
  std::thread mThread;
  std::string mFailure;
};

// ---- One measurement ---------------------------------------------------------------------------

struct Sample {
  bool ok = false;
  std::string failure;
  double cpuSeconds = 0;
  std::uint64_t frames = 0;
  std::uint64_t payloadBytes = 0;
  std::uint64_t receives = 0;
  std::uint64_t waits = 0;
};

// Counters and clock of the measuring thread between Begin and End.
struct ThreadMeter {
  void Begin() {
    cpu = ThreadCpuSeconds();
    receives = tReceives;
    waits = tWaits;
  }
  void End(Sample &sample) const {
    sample.cpuSeconds = ThreadCpuSeconds() - cpu;
    sample.receives = tReceives - receives;
    sample.waits = tWaits - waits;
  }
  double cpu = 0;
  std::uint64_t receives = 0;
  std::uint64_t waits = 0;
};

// The reference paths' own connection: connect, open request, bare header back.
Descriptor OpenReference(int port, std::string &failure) {
  Descriptor fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  const int on = 1;
  unsigned char answer[kHeaderLength];
  if (fd.Get() < 0 ||
      connect(fd.Get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
    failure = "connect failed";
    return Descriptor();
  }
  setsockopt(fd.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  SetLimits(fd.Get());
  if (!SendAll(fd.Get(), kScanOpenRequest, kHeaderLength) ||
      RecvAll(fd.Get(), answer, kHeaderLength) != kHeaderLength ||
      std::memcmp(answer, "HBN3", 4) != 0 || ReadBE32(answer + 5) != 0) {
    failure = "the open handshake failed";
    return Descriptor();
  }
  return fd;
}

// The CPU floor: receive the stream into one big buffer until it ends, looking at nothing.
Sample RunRaw(int port, const Stream &stream, unsigned char *buffer) {
  Sample sample;
  Descriptor fd = OpenReference(port, sample.failure);
  if (fd.Get() < 0) {
    return sample;
  }
  ThreadMeter meter;
  meter.Begin();
  std::uint64_t total = 0;
  ssize_t count = 0;
  while ((count = recv(fd.Get(), buffer, kCallerBufferSize, 0)) > 0) {
    total += std::uint64_t(count);
  }
  meter.End(sample);
  Touch(buffer);
  if (count < 0 || total != stream.Bytes()) {
    sample.failure = "the raw loop got " + std::to_string(total) + " bytes";
    return sample;
  }
  sample.frames = stream.frames;
  sample.payloadBytes = stream.PayloadBytes();
  sample.ok = true;
  return sample;
}

// A message container the way a plain reader keeps one: a heap block that each store replaces.
class PlainContainer {
public:
  void Set(const unsigned char *data, std::size_t length) {
    std::unique_ptr<unsigned char[]> fresh(new unsigned char[length]);
    std::memcpy(fresh.get(), data, length);
    mBlock = std::move(fresh);
    mLength = length;
  }
  void Reset() {
    mBlock.reset();
    mLength = 0;
  }
  const unsigned char *Data() const { return mBlock.get(); }
  std::size_t Length() const { return mLength; }

private:
  std::unique_ptr<unsigned char[]> mBlock;
  std::size_t mLength = 0;
};

// The plain reader: a receive for the header, a new block and a receive for the payload, a copy
// into the container, another into the caller's buffer.
Sample RunPlain(int port, const Stream &stream, unsigned char *buffer) {
  Sample sample;
  Descriptor fd = OpenReference(port, sample.failure);
  if (fd.Get() < 0) {
    return sample;
  }
  PlainContainer container;
  ThreadMeter meter;
  meter.Begin();
  while (sample.frames <= stream.frames) {
    unsigned char header[kHeaderLength];
    const long got = RecvAll(fd.Get(), header, kHeaderLength);
    if (got == 0) {
      break;
    }
    const std::int32_t length = got == kHeaderLength ? ReadBE32(header + 5) : -1;
    if (std::memcmp(header, "HBN3", 4) != 0 || length < 0 ||
        std::size_t(length) > kCallerBufferSize) {
      sample.failure = "the plain reader found a bad header";
      break;
    }
    if (length == 0) {
      continue;
    }
    std::unique_ptr<unsigned char[]> block(new unsigned char[std::size_t(length)]);
    if (RecvAll(fd.Get(), block.get(), std::size_t(length)) != length) {
      sample.failure = "the stream ended inside a frame";
      break;
    }
    container.Set(block.get(), std::size_t(length));
    std::memcpy(buffer, container.Data(), container.Length());
    container.Reset();
    ++sample.frames;
    sample.payloadBytes += std::uint64_t(length);
  }
  meter.End(sample);
  Touch(buffer);
  sample.ok = sample.failure.empty() && sample.frames == stream.frames &&
              sample.payloadBytes == stream.PayloadBytes();
  if (!sample.ok && sample.failure.empty()) {
    sample.failure = "the plain reader got " + std::to_string(sample.frames) + " frames";
  }
  return sample;
}

#ifdef KIV_BENCH_CHANNEL

// Opens a channel through the exported function, as a driver does.
HANDLE OpenChannel(int port, std::string &failure) {
  std::string ip = "127.0.0.1";
  int result = 0;
  HANDLE channel = OpenTCPSocket(ip, port, kScanInterface, result);
  if (channel == nullptr) {
    failure = "OpenTCPSocket failed (" + std::to_string(result) + ")";
  }
  return channel;
}

void CloseChannel(HANDLE channel) {
  int result = 0;
  CloseTCPSocket(channel, 1, result);
}

// Read or ReadManaged into the caller's buffer, frame after frame, until the device closes.
Sample RunRead(int port, const Stream &stream, unsigned char *buffer, bool managed) {
  Sample sample;
  HANDLE channel = OpenChannel(port, sample.failure);
  if (channel == nullptr) {
    return sample;
  }
  const KivTimeVal limit{kIoLimitSeconds, 0};
  ThreadMeter meter;
  meter.Begin();
  while (sample.frames <= stream.frames) {
    int count = 0;
    const UInt32 code =
        managed ? ReadManaged(channel, 1, buffer, int(kCallerBufferSize), limit, 0, count)
                : Read(channel, 1, buffer, int(kCallerBufferSize), 0, count);
    if (code != 0 || count < 0) {
      char text[80];
      std::snprintf(text, sizeof text, "%s returned 0x%08X, count %d",
                    managed ? "ReadManaged" : "Read", code, count);
      sample.failure = text;
      break;
    }
    if (count == 0) {
      break;
    }
    ++sample.frames;
    sample.payloadBytes += std::uint64_t(count);
  }
  meter.End(sample);
  Touch(buffer);
  CloseChannel(channel);
  sample.ok = sample.failure.empty() && sample.frames == stream.frames &&
              sample.payloadBytes == stream.PayloadBytes();
  if (!sample.ok && sample.failure.empty()) {
    sample.failure = "got " + std::to_string(sample.frames) + " frames";
  }
  return sample;
}

// What the listener's callback keeps: counts of the payloads, and at the end the listener
// thread's CPU clock and counters.
struct ListenerTally {
  std::uint64_t frames = 0;
  std::uint64_t payloadBytes = 0;
  double cpuSeconds = 0;
  std::uint64_t receives = 0;
  std::uint64_t waits = 0;
  int endLength = 0;
  bool endData = false;
  pthread_t thread{};
  std::mutex mutex;
  std::condition_variable ended;
  bool done = false;
};

// Counts each payload and frees its block, as a host does; the first call without a payload (the
// device closed, or a failure) reads the listener thread's clock and stops the listener.
bool CountPayload(const unsigned char *data, int length, void *param) {
  ListenerTally &tally = *static_cast<ListenerTally *>(param);
  if (data != nullptr && length > 0) {
    ++tally.frames;
    tally.payloadBytes += std::uint64_t(length);
    std::free(const_cast<unsigned char *>(data));
    return true;
  }
  tally.cpuSeconds = ThreadCpuSeconds();
  tally.receives = tReceives;
  tally.waits = tWaits;
  std::free(const_cast<unsigned char *>(data));
  std::lock_guard<std::mutex> lock(tally.mutex);
  tally.endLength = length;
  tally.endData = data != nullptr;
  tally.thread = pthread_self();
  tally.done = true;
  tally.ended.notify_all();
  return false;
}

// A threaded, joinable listener with a callback that counts and frees.
Sample RunListener(int port, const Stream &stream) {
  Sample sample;
  HANDLE channel = OpenChannel(port, sample.failure);
  if (channel == nullptr) {
    return sample;
  }
  ListenerTally tally;
  const UInt32 code = RegisterReadCallback(channel, CountPayload, &tally, 3, 0, true, false);
  bool done = false;
  if (code == 0) {
    std::unique_lock<std::mutex> lock(tally.mutex);
    done = tally.ended.wait_for(lock, std::chrono::seconds(kListenerLimitSeconds),
                                [&] { return tally.done; });
  }
  if (done) {
    pthread_join(tally.thread, nullptr);
    CloseChannel(channel);
  } else {
    // Stop a listener that never finished; it ends within one poll period of the close.
    pthread_t *running = GetListenerThreadID(channel);
    const pthread_t thread = running != nullptr ? *running : pthread_t{};
    CloseChannel(channel);
    if (running != nullptr) {
      pthread_join(thread, nullptr);
    }
    char text[80];
    std::snprintf(text, sizeof text, "the listener did not finish (registration 0x%08X)", code);
    sample.failure = text;
    return sample;
  }
  sample.cpuSeconds = tally.cpuSeconds;
  sample.receives = tally.receives;
  sample.waits = tally.waits;
  sample.frames = tally.frames;
  sample.payloadBytes = tally.payloadBytes;
  if (!tally.endData || tally.endLength != 0) {
    sample.failure = "the listener ended with (" + std::string(tally.endData ? "block" : "null") +
                     ", " + std::to_string(tally.endLength) + ")";
  } else if (sample.frames != stream.frames || sample.payloadBytes != stream.PayloadBytes()) {
    sample.failure = "the callback got " + std::to_string(sample.frames) + " frames";
  }
  sample.ok = sample.failure.empty();
  return sample;
}

#endif // KIV_BENCH_CHANNEL

bool PathBuilt(int path) {
#ifdef KIV_BENCH_CHANNEL
  (void)path;
  return true;
#else
  return path == kRaw || path == kPlain;
#endif
}

// A read of the library that never returns would hold the program forever: the alarm ends it.
void OnAlarm(int) {
  static const char text[] = "KivChannelReadBench: a measurement took too long; stopping\n";
  (void)!write(STDERR_FILENO, text, sizeof text - 1);
  _exit(1);
}

Sample Measure(Sender &sender, int path, const Stream &stream, unsigned char *buffer) {
  alarm(kMeasurementLimitSeconds);
  sender.Start(stream);
  Sample sample;
  switch (path) {
  case kRaw:
    sample = RunRaw(sender.Port(), stream, buffer);
    break;
  case kPlain:
    sample = RunPlain(sender.Port(), stream, buffer);
    break;
#ifdef KIV_BENCH_CHANNEL
  case kRead:
    sample = RunRead(sender.Port(), stream, buffer, false);
    break;
  case kReadManaged:
    sample = RunRead(sender.Port(), stream, buffer, true);
    break;
  case kListener:
    sample = RunListener(sender.Port(), stream);
    break;
#endif
  default:
    sample.failure = "not built";
    break;
  }
  const std::string sent = sender.Finish();
  alarm(0);
  if (sample.ok && !sent.empty()) {
    sample.ok = false;
    sample.failure = "sender: " + sent;
  }
  return sample;
}

// ---- Goals and the table -----------------------------------------------------------------------

// A row's goal: CPU per GB at most `cpuRatio` times the raw loop's, and/or frames per CPU second
// at least `fpsRatio` times the plain reader's (0: no such bound).
struct Goal {
  double cpuRatio;
  double fpsRatio;
};

Goal GoalOf(int path, int size) {
  if (path == kRead || path == kReadManaged) {
    return size == 65536 ? Goal{1.1, 0} : size == 4096 ? Goal{1.6, 0} : Goal{0, 1.8};
  }
  if (path == kListener) {
    return size == 65536 ? Goal{1.1, 0} : size == 4096 ? Goal{1.5, 0} : Goal{4.0, 15.0};
  }
  return Goal{0, 0};
}

std::string GoalText(const Goal &goal) {
  char text[64] = "reference";
  if (goal.cpuRatio > 0 && goal.fpsRatio > 0) {
    std::snprintf(text, sizeof text, "f/s >= %.1fx plain, CPU <= %.1fx raw", goal.fpsRatio,
                  goal.cpuRatio);
  } else if (goal.cpuRatio > 0) {
    std::snprintf(text, sizeof text, "CPU <= %.1fx raw", goal.cpuRatio);
  } else if (goal.fpsRatio > 0) {
    std::snprintf(text, sizeof text, "f/s >= %.1fx plain", goal.fpsRatio);
  }
  return text;
}

double Median(std::vector<double> values) {
  if (values.empty()) {
    return 0;
  }
  std::sort(values.begin(), values.end());
  const std::size_t middle = values.size() / 2;
  return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

struct Options {
  // Nine short runs rather than five long ones: on a busy machine the cost of a path drifts
  // between measurements, and more runs steady the medians.
  int runs = 9;
  double megabytes[kSizeCount] = {256, 64, 8}; // per frame size: about equal times per path
  bool only[kPathCount][kSizeCount] = {};
  bool onlyGiven = false;
  bool samples = false; // print every measurement as it is made
  bool pin = false;     // the sender on one processor, the receiving threads on another
};

const char kUsage[] =
    "usage: KivChannelReadBench [--runs N] [--megabytes M] [--only ROW]... [--samples] [--pin]\n"
    "Measures the HBN3 channel's read paths (Read, ReadManaged, the listener) against a raw\n"
    "receive loop and a plain frame reader over one loopback stream per path, size and run.\n"
    "\n"
    "  --runs N        runs, each path and size once per run; medians are shown (default 9)\n"
    "  --megabytes M   payload megabytes per path, size and run (default 256 for 64 KiB\n"
    "                  frames, 64 for 4 KiB, 8 for 64 B)\n"
    "  --only ROW      measure only ROW: a path (raw, plain, Read, ReadManaged, listener), a\n"
    "                  frame size (64K, 4K, 64) or both (listener/64); may be repeated. The raw\n"
    "                  loop and the plain reader of the chosen sizes always run (the ratios need\n"
    "                  them).\n";

// Marks the rows `text` names ("Read", "4K", "listener/64"); false when it names none.
bool SelectRows(const std::string &text, Options &options) {
  const std::size_t slash = text.find('/');
  const std::string pathText = text.substr(0, slash);
  const std::string sizeText = slash == std::string::npos ? "" : text.substr(slash + 1);
  auto sizeIndex = [](const std::string &name) {
    if (name == "64K" || name == "64k" || name == "65536") {
      return 0;
    }
    if (name == "4K" || name == "4k" || name == "4096") {
      return 1;
    }
    if (name == "64") {
      return 2;
    }
    return -1;
  };
  int path = -1;
  for (int p = 0; p < kPathCount; ++p) {
    if (strcasecmp(pathText.c_str(), kPathNames[p]) == 0) {
      path = p;
    }
  }
  int size = -1;
  if (path < 0 && slash == std::string::npos) {
    size = sizeIndex(pathText); // a size alone
    if (size < 0) {
      return false;
    }
  } else if (path < 0 || (slash != std::string::npos && (size = sizeIndex(sizeText)) < 0)) {
    return false;
  }
  for (int p = 0; p < kPathCount; ++p) {
    for (int s = 0; s < kSizeCount; ++s) {
      if ((path < 0 || p == path) && (size < 0 || s == size)) {
        options.only[p][s] = true;
      }
    }
  }
  options.onlyGiven = true;
  return true;
}

bool ParseOptions(int argc, char **argv, Options &options) {
  for (int i = 1; i < argc; ++i) {
    const std::string option = argv[i];
    if (option == "--help" || option == "-h") {
      std::fputs(kUsage, stdout);
      std::exit(0);
    }
    if (option == "--samples" || option == "--pin") {
      (option == "--pin" ? options.pin : options.samples) = true;
      continue;
    }
    if (i + 1 >= argc) {
      return false;
    }
    const char *value = argv[++i];
    char *end = nullptr;
    if (option == "--runs") {
      const long runs = std::strtol(value, &end, 10);
      if (*end != '\0' || runs < 1 || runs > 100) {
        return false;
      }
      options.runs = int(runs);
    } else if (option == "--megabytes") {
      const double megabytes = std::strtod(value, &end);
      if (*end != '\0' || !(megabytes >= 0.01 && megabytes <= 100000)) {
        return false;
      }
      std::fill(std::begin(options.megabytes), std::end(options.megabytes), megabytes);
    } else if (option == "--only") {
      if (!SelectRows(value, options)) {
        return false;
      }
    } else {
      return false;
    }
  }
  if (!options.onlyGiven) {
    for (auto &row : options.only) {
      std::fill(std::begin(row), std::end(row), true);
    }
  }
  // The references of every size measured.
  for (int s = 0; s < kSizeCount; ++s) {
    bool any = false;
    for (int p = 0; p < kPathCount; ++p) {
      any = any || options.only[p][s];
    }
    options.only[kRaw][s] = options.only[kRaw][s] || any;
    options.only[kPlain][s] = options.only[kPlain][s] || any;
  }
  return true;
}

std::string Thousands(double value) {
  const std::string digits = std::to_string(static_cast<unsigned long long>(value + 0.5));
  std::string out;
  for (std::size_t i = 0; i < digits.size(); ++i) {
    if (i > 0 && (digits.size() - i) % 3 == 0) {
      out += ',';
    }
    out += digits[i];
  }
  return out;
}

// Puts the sender on the first processor this process may use and the calling thread (and so
// every listener it starts, which inherits its set) on the second. False without two.
bool PinThreads(Sender &sender) {
  cpu_set_t allowed;
  CPU_ZERO(&allowed);
  std::vector<int> cpus;
  if (sched_getaffinity(0, sizeof allowed, &allowed) == 0) {
    for (int cpu = 0; cpu < CPU_SETSIZE && cpus.size() < 2; ++cpu) {
      if (CPU_ISSET(cpu, &allowed)) {
        cpus.push_back(cpu);
      }
    }
  }
  if (cpus.size() < 2) {
    return false;
  }
  cpu_set_t receiving;
  CPU_ZERO(&receiving);
  CPU_SET(cpus[1], &receiving);
  sender.Pin(cpus[0]);
  return sched_setaffinity(0, sizeof receiving, &receiving) == 0;
}

// Every measurement: samples[path][size][run].
struct Results {
  std::vector<Sample> samples[kPathCount][kSizeCount];
  bool failed = false;
};

void RunAll(const Options &options, Sender &sender, Results &results) {
  std::unique_ptr<unsigned char[]> buffer(new unsigned char[kCallerBufferSize]);
  std::memset(buffer.get(), 0, kCallerBufferSize);
  for (int s = 0; s < kSizeCount; ++s) {
    const int size = kFrameSizes[s];
    const auto frames = std::max<std::uint64_t>(
        1, static_cast<std::uint64_t>(options.megabytes[s] * 1e6 / size + 0.5));
    const Stream stream(size, frames);
    for (int run = 0; run < options.runs; ++run) {
      for (int k = 0; k < kPathCount; ++k) {
        const int path = (k + run) % kPathCount; // a rotated order in each run
        if (!options.only[path][s] || !PathBuilt(path)) {
          continue;
        }
        Sample sample = Measure(sender, path, stream, buffer.get());
        if (!sample.ok) {
          std::fprintf(stderr, "KivChannelReadBench: %s, %s, run %d: %s\n", kPathTitles[path],
                       SizeLabel(size).c_str(), run + 1, sample.failure.c_str());
          results.failed = true;
        } else if (options.samples) {
          std::printf("sample: %-13s %-7s run %2d: %8.4f s CPU, %9.4f s/GB, %8.4f recv/frame, "
                      "%8.4f waits/frame\n",
                      kPathTitles[path], SizeLabel(size).c_str(), run + 1, sample.cpuSeconds,
                      sample.cpuSeconds / (double(sample.payloadBytes) / 1e9),
                      double(sample.receives) / double(sample.frames),
                      double(sample.waits) / double(sample.frames));
        }
        results.samples[path][s].push_back(std::move(sample));
      }
    }
  }
}

// One row of the table; false when the receives of the path were not counted.
bool PrintRow(const Results &results, int path, int s) {
  const int size = kFrameSizes[s];
  const Goal goal = GoalOf(path, size);
  if (!PathBuilt(path)) {
    std::printf("%-13s %-7s %s\n", kPathTitles[path], SizeLabel(size).c_str(),
                "not built: the library has no channel functions");
    return true;
  }
  std::vector<double> cpuPerGB, framesPerSecond, receives, waits, cpuRatio, fpsRatio;
  const std::vector<Sample> &runs = results.samples[path][s];
  for (std::size_t run = 0; run < runs.size(); ++run) {
    const Sample &sample = runs[run];
    const Sample &raw = results.samples[kRaw][s][run];
    const Sample &plain = results.samples[kPlain][s][run];
    if (!sample.ok || !raw.ok || !plain.ok || sample.cpuSeconds <= 0) {
      continue;
    }
    const double perGB = sample.cpuSeconds / (double(sample.payloadBytes) / 1e9);
    const double fps = double(sample.frames) / sample.cpuSeconds;
    cpuPerGB.push_back(perGB);
    framesPerSecond.push_back(fps);
    receives.push_back(double(sample.receives) / double(sample.frames));
    waits.push_back(double(sample.waits) / double(sample.frames));
    cpuRatio.push_back(perGB / (raw.cpuSeconds / (double(raw.payloadBytes) / 1e9)));
    fpsRatio.push_back(fps / (double(plain.frames) / plain.cpuSeconds));
  }
  if (cpuPerGB.empty()) {
    std::printf("%-13s %-7s %s\n", kPathTitles[path], SizeLabel(size).c_str(), "no complete run");
    return true;
  }
  const double cpu = Median(cpuRatio);
  const double fps = Median(fpsRatio);
  const char *met = "-";
  if (goal.cpuRatio > 0 || goal.fpsRatio > 0) {
    const bool ok = (goal.cpuRatio <= 0 || cpu <= goal.cpuRatio) &&
                    (goal.fpsRatio <= 0 || fps >= goal.fpsRatio);
    met = ok ? "yes" : "NO";
  }
  const bool counted = Median(receives) > 0;
  char receivesText[16] = "n/a";
  if (counted) {
    std::snprintf(receivesText, sizeof receivesText, "%.3g", Median(receives));
  }
  // The spread of the ratio the goal reads, over the runs.
  const std::vector<double> &deciding = goal.fpsRatio > 0 ? fpsRatio : cpuRatio;
  char rangeText[32];
  std::snprintf(rangeText, sizeof rangeText, "%.2f-%.2f",
                *std::min_element(deciding.begin(), deciding.end()),
                *std::max_element(deciding.begin(), deciding.end()));
  std::printf("%-13s %-7s %9.3f %13s %8s %8.3g %8.2f %9.2f %13s  %-36s %s\n", kPathTitles[path],
              SizeLabel(size).c_str(), Median(cpuPerGB), Thousands(Median(framesPerSecond)).c_str(),
              receivesText, Median(waits), cpu, fps, rangeText, GoalText(goal).c_str(), met);
  return counted;
}

void PrintTable(const Options &options, const Results &results, double elapsed) {
  std::printf("Channel read benchmark: loopback TCP; payload per path and run %g MB (64 KiB "
              "frames), %g MB (4 KiB), %g MB (64 B); median of %d run(s); %.0f s in all\n",
              options.megabytes[0], options.megabytes[1], options.megabytes[2], options.runs,
              elapsed);
  std::printf("CPU: the receiving thread's CPU time (the listener thread's for the listener) per "
              "10^9 payload bytes delivered\n\n");
  std::printf("%-13s %-7s %9s %13s %8s %8s %8s %9s %13s  %-36s %s\n", "path", "frames", "CPU s/GB",
              "frames/CPU s", "recv/fr", "wait/fr", "CPU/raw", "f/s/plain", "range", "goal", "met");
  bool counted = true;
  for (int s = 0; s < kSizeCount; ++s) {
    for (int path = 0; path < kPathCount; ++path) {
      if (options.only[path][s]) {
        counted = PrintRow(results, path, s) && counted;
      }
    }
  }
  std::printf("\nCPU/raw, f/s/plain: medians of the ratios within each run; range: the lowest and "
              "highest of the ratio the goal reads (f/s/plain for a frames goal, else CPU/raw)\n");
  if (!counted) {
    std::printf("recv/fr n/a: no receive was counted on that thread (the counters did not see "
                "the library's calls)\n");
  }
}

} // namespace

int main(int argc, char **argv) {
  Options options;
  if (!ParseOptions(argc, argv, options)) {
    std::fprintf(stderr, "%s", kUsage);
    return 2;
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  signal(SIGALRM, OnAlarm);

  Sender sender;
  if (options.pin && !PinThreads(sender)) {
    std::fprintf(stderr, "KivChannelReadBench: --pin needs two processors\n");
    return 2;
  }
  Results results;
  const auto started = std::chrono::steady_clock::now();
  RunAll(options, sender, results);
  const double elapsed =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  PrintTable(options, results, elapsed);
  return results.failed ? 1 : 0;
}
