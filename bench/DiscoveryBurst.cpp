// Discovery burst probe: how many answers to one HCP discovery query reach a host, when they
// come, and what taking each one in costs.
//
// Sends the query (built with CreateDiscovery) to a loopback address where many simulated devices
// answer at once (kivsim --listen) and takes the answers in without parsing them, in three ways:
// - burst: a socket of this program with a large receive buffer (forced when permitted) and the
//   kernel's arrival stamps, left alone until the burst is over and drained afterwards, so the
//   stamps show how the devices spread their answers, undisturbed by a receiver;
// - library: kivnet's receive loop through the exported functions (OpenUDPSocket, BindUDPSocket,
//   SetSocketOptions TIME_OUT, SendTo, RecvFrom, GetAddressPort) with the kernel's default
//   receive buffer: a poll on GetSocketID's descriptor, then RecvFrom while FIONREAD on the
//   descriptor reports another datagram; with the longest gap between two receives, the longest
//   run of receives without a wait, and the kernel's count of datagrams it dropped on the socket
//   (from /proc/net/udp);
// - plain: the same loop with recvmsg on a socket of this program with the default buffer and the
//   kernel's arrival stamps, which tell how long a datagram waited in the buffer, and the
//   kernel's drop count.
// Then, apart from the devices, what one receive costs: a thread of this program fills a socket
// with as many datagrams of the answers' size as the default buffer holds, and the draining
// thread's CPU time per datagram is measured for plain recvfrom, RecvFrom alone, and kivnet's
// receive step (RecvFrom, GetAddressPort, FIONREAD), alternately in one run; and how many such
// datagrams the default buffer holds. Only 127.0.0.0/8 is used; every wait is bounded.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "Interfaces/KivNetworkComm.h"

namespace {

constexpr int kLargeBuffer = 16 * 1024 * 1024;
// A drain ends after this long without a datagram.
constexpr int kQuietMs = 300;
// The undisturbed burst is drained this long after the query.
constexpr int kBurstSettleMs = 500;
// Receive-cost rounds; each fills the socket with at most this many datagrams.
constexpr int kCostRounds = 300;
constexpr int kMaxFill = 1000;

double Seconds(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return double(now.tv_sec) + double(now.tv_nsec) * 1e-9;
}
double Now() { return Seconds(CLOCK_REALTIME); } // the clock of the kernel's arrival stamps
double ThreadCpu() { return Seconds(CLOCK_THREAD_CPUTIME_ID); }

double Median(std::vector<double> values) {
  if (values.empty()) {
    return 0;
  }
  std::sort(values.begin(), values.end());
  const std::size_t middle = values.size() / 2;
  return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

// The discovery query's bytes, as the library builds them.
std::vector<unsigned char> Query() {
  HANDLE container = CreateBuffer();
  std::vector<unsigned char> bytes;
  if (container != nullptr && CreateDiscovery(kHeaderTypeHCP1, container) == 0) {
    const KivNetBuffer &buffer = *VerifyBufferHandle(container);
    bytes.assign(buffer.GetBufferRef(), buffer.GetBufferRef() + buffer.GetBufferLength());
  }
  if (container != nullptr) {
    VerifyBufferHandle(container)->ResetBuffer();
    delete VerifyBufferHandle(container);
  }
  return bytes;
}

// A UDP socket of this program bound to 127.0.0.1 on a free port, closed on destruction.
class PlainSocket {
public:
  explicit PlainSocket(int receiveBuffer = 0) : mFd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    mOk = mFd >= 0 && bind(mFd, reinterpret_cast<sockaddr *>(&local), sizeof local) == 0;
    if (mOk && receiveBuffer > 0 &&
        setsockopt(mFd, SOL_SOCKET, SO_RCVBUFFORCE, &receiveBuffer, sizeof receiveBuffer) != 0) {
      setsockopt(mFd, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    }
  }
  ~PlainSocket() {
    if (mFd >= 0) {
      close(mFd);
    }
  }
  PlainSocket(const PlainSocket &) = delete;
  PlainSocket &operator=(const PlainSocket &) = delete;
  bool Ok() const { return mOk; }
  int Fd() const { return mFd; }
  int ReceiveBuffer() const {
    int size = 0;
    socklen_t length = sizeof size;
    getsockopt(mFd, SOL_SOCKET, SO_RCVBUF, &size, &length);
    return size;
  }
  bool SendTo(const std::vector<unsigned char> &bytes, const sockaddr_in &to) const {
    return sendto(mFd, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr *>(&to),
                  sizeof to) == ssize_t(bytes.size());
  }

private:
  int mFd;
  bool mOk = false;
};

// The library's side of a host: a bound UDP socket with a one-second receive time-out, an
// address and a container, released through their classes as the library's hosts do.
class LibrarySocket {
public:
  LibrarySocket() : mUdp(OpenUDPSocket(0)) {
    std::string any;
    mFrom = CreateSocketAddress(any, 0);
    mArea = CreateBuffer();
    mOk = mUdp != nullptr && mFrom != nullptr && mArea != nullptr && BindUDPSocket(mUdp) == 0 &&
          SetSocketOptions(mUdp, kSocketKindUDP, TIME_OUT, 1) == 0;
    mFd = mOk ? GetSocketID(mUdp, kSocketKindUDP) : -1;
    mOk = mOk && mFd >= 0 && (static_cast<unsigned>(mFd) >> 24) != 0x0A;
  }
  ~LibrarySocket() {
    if (mUdp != nullptr) {
      CloseUDPSocket(mUdp);
      delete static_cast<KivUDPSocket *>(VerifySocketHandle(mUdp, kSocketKindUDP));
    }
    if (mArea != nullptr) {
      VerifyBufferHandle(mArea)->ResetBuffer();
      delete VerifyBufferHandle(mArea);
    }
    delete VerifySockAddressHandle(mFrom);
  }
  LibrarySocket(const LibrarySocket &) = delete;
  LibrarySocket &operator=(const LibrarySocket &) = delete;
  bool Ok() const { return mOk; }
  // The descriptor, only waited on and queried (poll, FIONREAD, getsockname, getsockopt).
  int Fd() const { return mFd; }
  int Port() const {
    sockaddr_in local{};
    socklen_t length = sizeof local;
    return getsockname(mFd, reinterpret_cast<sockaddr *>(&local), &length) == 0
               ? ntohs(local.sin_port)
               : 0;
  }
  bool Send(const std::string &to, int port) {
    std::string target = to;
    HANDLE where = CreateSocketAddress(target, port);
    HANDLE query = CreateBuffer();
    int sent = 0;
    const bool ok = where != nullptr && query != nullptr &&
                    CreateDiscovery(kHeaderTypeHCP1, query) == 0 &&
                    SendTo(mUdp, where, query, 0, sent) == 0;
    if (query != nullptr) {
      VerifyBufferHandle(query)->ResetBuffer();
      delete VerifyBufferHandle(query);
    }
    delete VerifySockAddressHandle(where);
    return ok;
  }
  // One RecvFrom; the count, or -1.
  int Receive() {
    int count = 0;
    return RecvFrom(mUdp, mFrom, mArea, 0, count) == 0 ? count : -1;
  }
  // The sender of the last datagram received, as kivnet takes it.
  void Sender(std::string &address, int &port) const { GetAddressPort(mFrom, &address, &port); }

private:
  HANDLE mUdp;
  HANDLE mFrom = nullptr;
  HANDLE mArea = nullptr;
  int mFd = -1;
  bool mOk = false;
};

// Whether another datagram waits: FIONREAD gives the size of the next one.
bool AnotherWaiting(int fd) {
  int next = 0;
  return ioctl(fd, FIONREAD, &next) == 0 && next > 0;
}

bool WaitReadable(int fd, int ms) {
  pollfd watched = {fd, POLLIN, 0};
  return poll(&watched, 1, ms) > 0;
}

// The kernel's count of datagrams dropped on the IPv4 UDP socket bound to `port` (any address or
// 127.0.0.1), from /proc/net/udp; -1 when not found.
long KernelDrops(int port) {
  std::ifstream table("/proc/net/udp");
  std::string line;
  char wanted[8];
  std::snprintf(wanted, sizeof wanted, ":%04X", port);
  std::getline(table, line); // the heading
  while (std::getline(table, line)) {
    std::istringstream fields(line);
    std::string slot, local, last, field;
    fields >> slot >> local;
    if (local.size() < 5 || local.compare(local.size() - 5, 5, wanted) != 0) {
      continue;
    }
    while (fields >> field) {
      last = field;
    }
    return std::strtol(last.c_str(), nullptr, 10);
  }
  return -1;
}

// What one drain of the devices' answers brought.
struct Drain {
  int datagrams = 0;
  std::set<std::string> senders;
  long bytes = 0;
  double sent = 0;                // when the query left (CLOCK_REALTIME)
  std::vector<double> arrivals;   // kernel stamps, where the way has them
  std::vector<double> receives;   // when each receive returned
  double longestWaitInBuffer = 0; // receive time minus kernel stamp, where the way has them
  int longestRun = 0;             // datagrams taken after one wait, without waiting again
  double cpuPerDatagram = 0;      // the draining thread's CPU time per datagram, seconds
  long drops = -1;                // the kernel's count for the socket, where known
  int receiveBuffer = 0;
};

double LongestGap(const std::vector<double> &times) {
  double longest = 0;
  for (std::size_t i = 1; i < times.size(); ++i) {
    longest = std::max(longest, times[i] - times[i - 1]);
  }
  return longest;
}

// One recvmsg without waiting; the count or -1, with the kernel's stamp where the socket gives it.
ssize_t ReceiveStamped(int fd, std::string &sender, double &stamp) {
  unsigned char data[2048];
  char control[256];
  sockaddr_in peer{};
  iovec part{data, sizeof data};
  msghdr message{};
  message.msg_name = &peer;
  message.msg_namelen = sizeof peer;
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  const ssize_t count = recvmsg(fd, &message, MSG_DONTWAIT);
  if (count < 0) {
    return count;
  }
  for (cmsghdr *item = CMSG_FIRSTHDR(&message); item != nullptr;
       item = CMSG_NXTHDR(&message, item)) {
    if (item->cmsg_level == SOL_SOCKET && item->cmsg_type == SCM_TIMESTAMPNS) {
      timespec when{};
      std::memcpy(&when, CMSG_DATA(item), sizeof when);
      stamp = double(when.tv_sec) + double(when.tv_nsec) * 1e-9;
    }
  }
  char text[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &peer.sin_addr, text, sizeof text);
  sender = text;
  return count;
}

// burst: a large buffer left alone until the answers are all in, then drained.
bool DrainUndisturbed(const sockaddr_in &target, const std::vector<unsigned char> &query,
                      Drain &drain) {
  PlainSocket socket(kLargeBuffer);
  const int on = 1;
  if (!socket.Ok() || setsockopt(socket.Fd(), SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on) != 0) {
    return false;
  }
  drain.receiveBuffer = socket.ReceiveBuffer();
  drain.sent = Now();
  if (!socket.SendTo(query, target)) {
    return false;
  }
  usleep(kBurstSettleMs * 1000);
  for (;;) {
    std::string sender;
    double stamp = 0;
    const ssize_t count = ReceiveStamped(socket.Fd(), sender, stamp);
    if (count < 0) {
      break;
    }
    ++drain.datagrams;
    drain.bytes += count;
    drain.senders.insert(sender);
    drain.arrivals.push_back(stamp);
  }
  std::sort(drain.arrivals.begin(), drain.arrivals.end());
  return true;
}

// library: kivnet's loop through the exported functions, the default buffer.
bool DrainLibrary(const std::string &to, int port, int expect, Drain &drain) {
  LibrarySocket socket;
  if (!socket.Ok()) {
    return false;
  }
  socklen_t length = sizeof drain.receiveBuffer;
  getsockopt(socket.Fd(), SOL_SOCKET, SO_RCVBUF, &drain.receiveBuffer, &length);
  const long dropsBefore = KernelDrops(socket.Port());
  drain.sent = Now();
  const double cpuStart = ThreadCpu();
  double cpuEnd = cpuStart;
  if (!socket.Send(to, port)) {
    return false;
  }
  std::string sender;
  int senderPort = 0;
  while (drain.datagrams < expect && WaitReadable(socket.Fd(), kQuietMs)) {
    int run = 0;
    do {
      const int count = socket.Receive();
      if (count < 0) {
        break;
      }
      socket.Sender(sender, senderPort);
      drain.receives.push_back(Now());
      ++drain.datagrams;
      ++run;
      drain.bytes += count;
      drain.senders.insert(sender);
    } while (AnotherWaiting(socket.Fd()));
    cpuEnd = ThreadCpu();
    drain.longestRun = std::max(drain.longestRun, run);
  }
  const long dropsAfter = KernelDrops(socket.Port());
  if (dropsBefore >= 0 && dropsAfter >= 0) {
    drain.drops = dropsAfter - dropsBefore;
  }
  drain.cpuPerDatagram = (cpuEnd - cpuStart) / std::max(1, drain.datagrams);
  return true;
}

// plain: the same loop with recvmsg on a socket of this program, the default buffer.
bool DrainPlain(const sockaddr_in &target, const std::vector<unsigned char> &query, int expect,
                Drain &drain) {
  PlainSocket socket;
  const int on = 1;
  if (!socket.Ok() || setsockopt(socket.Fd(), SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on) != 0) {
    return false;
  }
  drain.receiveBuffer = socket.ReceiveBuffer();
  sockaddr_in local{};
  socklen_t length = sizeof local;
  getsockname(socket.Fd(), reinterpret_cast<sockaddr *>(&local), &length);
  const long dropsBefore = KernelDrops(ntohs(local.sin_port));
  drain.sent = Now();
  const double cpuStart = ThreadCpu();
  double cpuEnd = cpuStart;
  if (!socket.SendTo(query, target)) {
    return false;
  }
  while (drain.datagrams < expect && WaitReadable(socket.Fd(), kQuietMs)) {
    int run = 0;
    for (;;) {
      std::string sender;
      double stamp = 0;
      const ssize_t count = ReceiveStamped(socket.Fd(), sender, stamp);
      if (count < 0) {
        break;
      }
      const double now = Now();
      drain.receives.push_back(now);
      drain.arrivals.push_back(stamp);
      drain.longestWaitInBuffer = std::max(drain.longestWaitInBuffer, now - stamp);
      ++drain.datagrams;
      ++run;
      drain.bytes += count;
      drain.senders.insert(sender);
    }
    cpuEnd = ThreadCpu();
    drain.longestRun = std::max(drain.longestRun, run);
  }
  const long dropsAfter = KernelDrops(ntohs(local.sin_port));
  if (dropsBefore >= 0 && dropsAfter >= 0) {
    drain.drops = dropsAfter - dropsBefore;
  }
  drain.cpuPerDatagram = (cpuEnd - cpuStart) / std::max(1, drain.datagrams);
  return true;
}

// How many datagrams of `size` bytes a socket with the default receive buffer holds.
int BufferCapacity(std::size_t size) {
  PlainSocket receiver, sender;
  if (!receiver.Ok() || !sender.Ok()) {
    return -1;
  }
  sockaddr_in to{};
  socklen_t length = sizeof to;
  getsockname(receiver.Fd(), reinterpret_cast<sockaddr *>(&to), &length);
  const std::vector<unsigned char> datagram(size, 0x5A);
  for (int i = 0; i < kMaxFill; ++i) {
    sender.SendTo(datagram, to);
  }
  int held = 0;
  unsigned char data[2048];
  while (recv(receiver.Fd(), data, sizeof data, MSG_DONTWAIT) >= 0) {
    ++held;
  }
  return held;
}

// The draining thread's CPU time per datagram of each receive way over the same fills, in
// microseconds (medians of the rounds).
struct Costs {
  double plain = 0;   // recvfrom without waiting
  double library = 0; // RecvFrom
  double step = 0;    // RecvFrom, GetAddressPort, FIONREAD: kivnet's receive step
  double poll = 0;    // RecvFrom, GetAddressPort, poll with no wait: the step with a poll instead
};

bool MeasureCosts(std::size_t size, int fill, Costs &costs) {
  PlainSocket sender, plain;
  LibrarySocket library;
  if (!sender.Ok() || !plain.Ok() || !library.Ok() || fill < 1) {
    return false;
  }
  sockaddr_in toPlain{};
  socklen_t length = sizeof toPlain;
  getsockname(plain.Fd(), reinterpret_cast<sockaddr *>(&toPlain), &length);
  sockaddr_in toLibrary{};
  toLibrary.sin_family = AF_INET;
  toLibrary.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  toLibrary.sin_port = htons(static_cast<uint16_t>(library.Port()));
  const std::vector<unsigned char> datagram(size, 0x5A);
  std::string address;
  int senderPort = 0;
  std::vector<double> samples[4];
  for (int round = 0; round < kCostRounds; ++round) {
    for (int way = 0; way < 4; ++way) {
      const sockaddr_in &to = way == 0 ? toPlain : toLibrary;
      for (int i = 0; i < fill; ++i) {
        sender.SendTo(datagram, to);
      }
      int taken = 0;
      const double start = ThreadCpu();
      if (way == 0) {
        unsigned char data[2048];
        sockaddr_in peer{};
        for (;;) {
          socklen_t peerLength = sizeof peer;
          if (recvfrom(plain.Fd(), data, sizeof data, MSG_DONTWAIT,
                       reinterpret_cast<sockaddr *>(&peer), &peerLength) < 0) {
            break;
          }
          ++taken;
        }
      } else if (way == 1) {
        // Every datagram is in the buffer already (loopback delivers within the send).
        for (int i = 0; i < fill && library.Receive() >= 0; ++i) {
          ++taken;
        }
      } else {
        do {
          if (library.Receive() < 0) {
            break;
          }
          library.Sender(address, senderPort);
          ++taken;
        } while (way == 2 ? AnotherWaiting(library.Fd()) : WaitReadable(library.Fd(), 0));
      }
      const double spent = ThreadCpu() - start;
      if (taken != fill) {
        return false; // the fill did not all arrive: the figures would not compare
      }
      samples[way].push_back(spent * 1e6 / fill);
    }
  }
  costs.plain = Median(samples[0]);
  costs.library = Median(samples[1]);
  costs.step = Median(samples[2]);
  costs.poll = Median(samples[3]);
  return true;
}

const char kUsage[] =
    "usage: KivDiscoveryBurst --to ADDRESS --port P [--expect N] [--runs R]\n"
    "Sends one HCP discovery query per run and way (burst, library, plain) to ADDRESS (in\n"
    "127.0.0.0/8, e.g. a kivsim group listener) and counts the answers without parsing them,\n"
    "then measures what one receive costs and how many answers the default buffer holds.\n"
    "  --expect N  answers awaited (default 1000); a drain stops when N came or after 0.3 s quiet\n"
    "  --runs R    queries per way (default 5)\n";

std::string Counts(const std::vector<double> &values) {
  std::string text;
  for (double value : values) {
    text += " " + std::to_string(static_cast<long>(value));
  }
  return text;
}

} // namespace

int main(int argc, char **argv) {
  std::string to;
  int port = 0;
  int expect = 1000;
  int runs = 5;
  for (int i = 1; i < argc; ++i) {
    const std::string option = argv[i];
    if (option == "--help" || option == "-h") {
      std::fputs(kUsage, stdout);
      return 0;
    }
    if (i + 1 >= argc) {
      std::fputs(kUsage, stderr);
      return 2;
    }
    const char *value = argv[++i];
    if (option == "--to") {
      to = value;
    } else if (option == "--port") {
      port = std::atoi(value);
    } else if (option == "--expect") {
      expect = std::atoi(value);
    } else if (option == "--runs") {
      runs = std::atoi(value);
    } else {
      std::fputs(kUsage, stderr);
      return 2;
    }
  }
  sockaddr_in target{};
  target.sin_family = AF_INET;
  target.sin_port = htons(static_cast<uint16_t>(port));
  if (inet_pton(AF_INET, to.c_str(), &target.sin_addr) != 1 ||
      (ntohl(target.sin_addr.s_addr) >> 24) != 127 || port < 1 || port > 65535 || expect < 1 ||
      expect > 100000 || runs < 1 || runs > 100) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  const std::vector<unsigned char> query = Query();
  if (query.empty()) {
    std::fputs("KivDiscoveryBurst: the query could not be built\n", stderr);
    return 1;
  }

  std::vector<double> spreads, spacings, libraryHeard, plainHeard, gaps, waits, sizes, firsts,
      burstEnds, longestRuns;
  bool failed = false;
  for (int run = 1; run <= runs; ++run) {
    Drain burst, library, plain;
    if (!DrainUndisturbed(target, query, burst) || !DrainLibrary(to, port, expect, library) ||
        !DrainPlain(target, query, expect, plain)) {
      std::fputs("KivDiscoveryBurst: a query could not be sent\n", stderr);
      failed = true;
      break;
    }
    const std::vector<double> &a = burst.arrivals;
    const double spread = a.empty() ? 0 : a.back() - a.front();
    std::vector<double> spacing;
    for (std::size_t i = 1; i < a.size(); ++i) {
      spacing.push_back(a[i] - a[i - 1]);
    }
    spreads.push_back(spread * 1e3);
    burstEnds.push_back(a.empty() ? 0 : (a.back() - burst.sent) * 1e3);
    spacings.push_back(Median(spacing) * 1e6);
    sizes.push_back(double(burst.bytes) / std::max(1, burst.datagrams));
    std::printf("run %d\n", run);
    std::printf("  burst    buffer %8d: %4zu of %d devices; first %.2f ms after the query, spread "
                "%.2f ms (first to last arrival), spacing median %.1f us, longest %.3f ms\n",
                burst.receiveBuffer, burst.senders.size(), expect,
                a.empty() ? 0 : (a.front() - burst.sent) * 1e3, spread * 1e3, Median(spacing) * 1e6,
                LongestGap(a) * 1e3);
    libraryHeard.push_back(double(library.senders.size()));
    firsts.push_back(library.receives.empty() ? 1e9
                                              : (library.receives.front() - library.sent) * 1e3);
    longestRuns.push_back(library.longestRun);
    gaps.push_back(LongestGap(library.receives) * 1e3);
    std::printf("  library  buffer %8d: %4zu of %d devices (kernel drops %ld); first receive "
                "%.2f ms after the query, longest gap between receives %.3f ms, longest run %d; "
                "%.2f us CPU per datagram\n",
                library.receiveBuffer, library.senders.size(), expect, library.drops,
                library.receives.empty() ? 0 : (library.receives.front() - library.sent) * 1e3,
                LongestGap(library.receives) * 1e3, library.longestRun,
                library.cpuPerDatagram * 1e6);
    plainHeard.push_back(double(plain.senders.size()));
    waits.push_back(plain.longestWaitInBuffer * 1e3);
    std::printf("  plain    buffer %8d: %4zu of %d devices (kernel drops %ld); longest gap "
                "between receives %.3f ms, longest run %d, longest wait in the buffer %.3f ms; "
                "%.2f us CPU per datagram\n",
                plain.receiveBuffer, plain.senders.size(), expect, plain.drops,
                LongestGap(plain.receives) * 1e3, plain.longestRun, plain.longestWaitInBuffer * 1e3,
                plain.cpuPerDatagram * 1e6);
    std::fflush(stdout);
  }
  if (failed) {
    return 1;
  }

  const std::size_t size = static_cast<std::size_t>(Median(sizes) + 0.5);
  const int capacity = BufferCapacity(size > 0 ? size : 370);
  Costs costs;
  const bool costed = MeasureCosts(size > 0 ? size : 370, std::min(capacity, 128), costs);
  std::printf("summary\n");
  std::printf("  burst: spread median %.2f ms (runs:", Median(spreads));
  for (double spread : spreads) {
    std::printf(" %.2f", spread);
  }
  std::printf("), arrival spacing median %.1f us\n", Median(spacings));
  int complete = 0, late = 0, full = 0;
  for (std::size_t i = 0; i < libraryHeard.size(); ++i) {
    complete += libraryHeard[i] >= expect ? 1 : 0;
    late += firsts[i] >= Median(burstEnds) ? 1 : 0;
  }
  std::printf("  library: devices heard%s, median %.0f of %d, %d of %zu runs complete; longest "
              "gap between receives median %.2f ms\n",
              Counts(libraryHeard).c_str(), Median(libraryHeard), expect, complete,
              libraryHeard.size(), Median(gaps));
  std::printf("  plain: devices heard%s, median %.0f of %d; longest wait in the buffer median "
              "%.2f ms\n",
              Counts(plainHeard).c_str(), Median(plainHeard), expect, Median(waits));
  std::printf("  default receive buffer: holds %d datagrams of %zu bytes, %.2f ms of the burst "
              "at its median spacing\n",
              capacity, size, capacity * Median(spacings) * 1e-3);
  for (double run : longestRuns) {
    full += run >= capacity ? 1 : 0;
  }
  std::printf("  library: the buffer was full (a run of %d receives without a wait) in %d of %zu "
              "runs; the receiving thread first ran after the burst's median end (%.2f ms after "
              "the query) in %d\n",
              capacity, full, longestRuns.size(), Median(burstEnds), late);
  if (costed) {
    std::printf("  receive cost, CPU per datagram (median of %d rounds of %d): recvfrom %.2f us, "
                "RecvFrom %.2f us (%.2fx), kivnet's step RecvFrom+GetAddressPort+FIONREAD %.2f "
                "us (%.2fx), with poll instead of FIONREAD %.2f us (%.2fx)\n",
                kCostRounds, std::min(capacity, 128), costs.plain, costs.library,
                costs.library / costs.plain, costs.step, costs.step / costs.plain, costs.poll,
                costs.poll / costs.plain);
    const double share = costs.step / std::max(1e-9, Median(spacings));
    std::printf("  kivnet's step takes %.0f%% of the burst's median spacing: %s\n", 100 * share,
                share < 1 ? "the receive keeps pace with the burst while its thread runs"
                          : "the receive alone cannot keep pace with the burst");
  } else {
    std::printf("  receive cost: not measured (a fill did not arrive whole)\n");
  }
  return 0;
}
