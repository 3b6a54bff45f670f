// Discovery burst probe: how many answers to one HCP discovery query reach a host, and when.
//
// Sends the query (built with CreateDiscovery) to a loopback address where many simulated devices
// answer at once (kivsim --listen), and drains the answers without parsing them, in three ways:
// - library: through the exported functions, as a host does (OpenUDPSocket, BindUDPSocket,
//   SetSocketOptions TIME_OUT, SendTo, RecvFrom), with the kernel's default receive buffer;
// - plain: recvfrom on a socket of this program with the kernel's default receive buffer;
// - large: the same with a 16 MiB receive buffer (forced when permitted) and the kernel's arrival
//   time stamps, which tells how the devices' answers are spread in time.
// Each prints the datagrams received, the distinct senders, the draining thread's CPU time per
// datagram and the arrival of the first and last answer after the query left. Only 127.0.0.0/8 is
// used; every wait is bounded.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "Interfaces/KivNetworkComm.h"

namespace {

constexpr int kLargeBuffer = 16 * 1024 * 1024;

double Now() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now); // the clock of the kernel's arrival stamps
  return double(now.tv_sec) + double(now.tv_nsec) * 1e-9;
}

struct Outcome {
  int datagrams = 0;
  std::set<std::string> senders;
  double sent = 0;
  double first = 0;
  double last = 0;
  long bytes = 0;
  int receiveBuffer = 0;
  double cpuStart = 0; // the draining thread's CPU clock when the query left
  double cpuEnd = 0;   // and when the last datagram was taken
};

double ThreadCpu() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return double(now.tv_sec) + double(now.tv_nsec) * 1e-9;
}

void Arrived(Outcome &outcome, const std::string &sender, double when, long bytes) {
  if (outcome.datagrams == 0) {
    outcome.first = when;
  }
  outcome.last = std::max(outcome.last, when);
  outcome.cpuEnd = ThreadCpu();
  ++outcome.datagrams;
  outcome.bytes += bytes;
  outcome.senders.insert(sender);
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

// Through the exported functions: one RecvFrom per datagram until `expect` came or a one-second
// receive time-out passed (or `waitSeconds` in all).
bool DrainLibrary(const std::string &to, int port, int expect, int waitSeconds, Outcome &outcome) {
  HANDLE udp = OpenUDPSocket(0);
  std::string target = to;
  std::string any;
  HANDLE where = CreateSocketAddress(target, port);
  HANDLE from = CreateSocketAddress(any, 0);
  HANDLE query = CreateBuffer();
  HANDLE answer = CreateBuffer();
  int count = 0;
  bool ok = udp != nullptr && query != nullptr && answer != nullptr && where != nullptr &&
            from != nullptr && CreateDiscovery(kHeaderTypeHCP1, query) == 0 &&
            BindUDPSocket(udp) == 0 && SetSocketOptions(udp, 0, TIME_OUT, 1) == 0;
  if (ok) {
    const int fd = GetSocketID(udp, 0);
    socklen_t length = sizeof outcome.receiveBuffer;
    getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &outcome.receiveBuffer, &length);
    outcome.sent = Now();
    outcome.cpuStart = ThreadCpu();
    ok = SendTo(udp, where, query, 0, count) == 0;
  }
  while (ok && outcome.datagrams < expect && Now() - outcome.sent < waitSeconds) {
    if (RecvFrom(udp, from, answer, 0, count) != 0) {
      break; // a quiet second
    }
    std::string sender;
    int senderPort = 0;
    GetAddressPort(from, &sender, &senderPort);
    Arrived(outcome, sender, Now(), count);
  }
  if (udp != nullptr) {
    CloseUDPSocket(udp);
    delete static_cast<KivUDPSocket *>(VerifySocketHandle(udp, 0));
  }
  for (HANDLE container : {query, answer}) {
    if (container != nullptr) {
      VerifyBufferHandle(container)->ResetBuffer();
      delete VerifyBufferHandle(container);
    }
  }
  delete VerifySockAddressHandle(where);
  delete VerifySockAddressHandle(from);
  return ok;
}

// With a socket of this program, bound to 127.0.0.1; `large` asks for a big receive buffer and
// the kernel's arrival stamps.
bool DrainPlain(const std::string &to, int port, int expect, int waitSeconds, bool large,
                Outcome &outcome) {
  const std::vector<unsigned char> query = Query();
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0 || query.empty()) {
    if (fd >= 0) {
      close(fd);
    }
    return false;
  }
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  sockaddr_in target{};
  target.sin_family = AF_INET;
  target.sin_port = htons(static_cast<uint16_t>(port));
  const timeval quiet{1, 0};
  const int on = 1;
  bool ok = inet_pton(AF_INET, to.c_str(), &target.sin_addr) == 1 &&
            (ntohl(target.sin_addr.s_addr) >> 24) == 127 &&
            bind(fd, reinterpret_cast<sockaddr *>(&local), sizeof local) == 0 &&
            setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &quiet, sizeof quiet) == 0;
  if (ok && large) {
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &kLargeBuffer, sizeof kLargeBuffer) != 0) {
      setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &kLargeBuffer, sizeof kLargeBuffer);
    }
    setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on);
  }
  socklen_t length = sizeof outcome.receiveBuffer;
  getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &outcome.receiveBuffer, &length);
  if (ok) {
    outcome.sent = Now();
    outcome.cpuStart = ThreadCpu();
    ok = sendto(fd, query.data(), query.size(), 0, reinterpret_cast<sockaddr *>(&target),
                sizeof target) == ssize_t(query.size());
  }
  while (ok && outcome.datagrams < expect && Now() - outcome.sent < waitSeconds) {
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
    const ssize_t count = recvmsg(fd, &message, 0);
    if (count < 0) {
      break; // a quiet second
    }
    double when = Now();
    for (cmsghdr *item = CMSG_FIRSTHDR(&message); item != nullptr;
         item = CMSG_NXTHDR(&message, item)) {
      if (item->cmsg_level == SOL_SOCKET && item->cmsg_type == SCM_TIMESTAMPNS) {
        timespec stamp{};
        std::memcpy(&stamp, CMSG_DATA(item), sizeof stamp);
        when = double(stamp.tv_sec) + double(stamp.tv_nsec) * 1e-9;
      }
    }
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &peer.sin_addr, text, sizeof text);
    Arrived(outcome, text, when, count);
  }
  close(fd);
  return ok;
}

const char kUsage[] =
    "usage: KivDiscoveryBurst --to ADDRESS --port P [--expect N] [--wait S] [--runs R]\n"
    "Sends one HCP discovery query per run and way (library, plain, large) to ADDRESS (in\n"
    "127.0.0.0/8, e.g. a kivsim group listener) and counts the answers, without parsing them.\n"
    "  --expect N  answers awaited (default 1000); a drain stops when N came\n"
    "  --wait S    longest drain, seconds (default 3); a quiet second also ends it\n"
    "  --runs R    queries per way (default 3)\n";

} // namespace

int main(int argc, char **argv) {
  std::string to;
  int port = 0;
  int expect = 1000;
  int waitSeconds = 3;
  int runs = 3;
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
    } else if (option == "--wait") {
      waitSeconds = std::atoi(value);
    } else if (option == "--runs") {
      runs = std::atoi(value);
    } else {
      std::fputs(kUsage, stderr);
      return 2;
    }
  }
  in_addr address{};
  if (inet_pton(AF_INET, to.c_str(), &address) != 1 || (ntohl(address.s_addr) >> 24) != 127 ||
      port < 1 || port > 65535 || expect < 1 || expect > 100000 || waitSeconds < 1 ||
      waitSeconds > 60 || runs < 1 || runs > 100) {
    std::fputs(kUsage, stderr);
    return 2;
  }

  const char *const ways[] = {"library", "plain", "large"};
  std::string counts[3];
  bool failed = false;
  for (int run = 0; run < runs; ++run) {
    for (int way = 0; way < 3; ++way) {
      Outcome outcome;
      const bool ok = way == 0 ? DrainLibrary(to, port, expect, waitSeconds, outcome)
                               : DrainPlain(to, port, expect, waitSeconds, way == 2, outcome);
      if (!ok) {
        std::fprintf(stderr, "KivDiscoveryBurst: %s: the query could not be sent\n", ways[way]);
        failed = true;
        continue;
      }
      counts[way] += " " + std::to_string(outcome.senders.size());
      if (outcome.datagrams == 0) {
        outcome.first = outcome.last = outcome.sent;
        outcome.cpuEnd = outcome.cpuStart;
      }
      const double n = outcome.datagrams > 0 ? outcome.datagrams : 1;
      std::printf("%-8s receive buffer %8d: %4d datagram(s) from %4zu device(s) of %d, %4.0f "
                  "bytes and %4.1f us CPU each; first %.2f ms, last %.2f ms after the query\n",
                  ways[way], outcome.receiveBuffer, outcome.datagrams, outcome.senders.size(),
                  expect, double(outcome.bytes) / n, (outcome.cpuEnd - outcome.cpuStart) * 1e6 / n,
                  (outcome.first - outcome.sent) * 1e3, (outcome.last - outcome.sent) * 1e3);
    }
  }
  for (int way = 0; way < 3; ++way) {
    std::printf("%-8s devices heard:%s (of %d)\n", ways[way], counts[way].c_str(), expect);
  }
  return failed ? 1 : 0;
}
