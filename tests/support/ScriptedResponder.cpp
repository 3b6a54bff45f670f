// The scripted loopback UDP peer of the relocation tests.
#include "support/ScriptedResponder.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <system_error>

namespace kivtest {

namespace {
constexpr int kMaxAnswers = 1000;
bool IsLoopback(const in_addr &address) { return (ntohl(address.s_addr) >> 24) == 127; }
} // namespace

ScriptedResponder::ScriptedResponder(const std::string &address, std::uint16_t port, Bytes answer,
                                     int delayMs)
    : mAnswer(std::move(answer)), mDelayMs(delayMs) {
  sockaddr_in local = {};
  local.sin_family = AF_INET;
  local.sin_port = htons(port);
  if (inet_pton(AF_INET, address.c_str(), &local.sin_addr) != 1 || !IsLoopback(local.sin_addr)) {
    throw std::invalid_argument("not a loopback address: " + address);
  }
  mFd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  if (mFd < 0 || setsockopt(mFd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
      bind(mFd, reinterpret_cast<const sockaddr *>(&local), sizeof local) != 0) {
    const std::system_error error(errno, std::generic_category(),
                                  "bind " + address + ":" + std::to_string(port));
    if (mFd >= 0) {
      close(mFd);
    }
    throw error;
  }
  mThread = std::thread(&ScriptedResponder::Serve, this);
}

ScriptedResponder::~ScriptedResponder() {
  mStop = true;
  mThread.join();
  close(mFd);
}

std::vector<Bytes> ScriptedResponder::Received() const {
  const std::lock_guard<std::mutex> lock(mLock);
  return mReceived;
}

void ScriptedResponder::Serve() {
  int answered = 0;
  while (!mStop) {
    pollfd wait = {mFd, POLLIN, 0};
    if (poll(&wait, 1, 50) <= 0) {
      continue;
    }
    unsigned char datagram[2048];
    sockaddr_in peer = {};
    socklen_t peerLength = sizeof peer;
    const ssize_t got = recvfrom(mFd, datagram, sizeof datagram, 0,
                                 reinterpret_cast<sockaddr *>(&peer), &peerLength);
    if (got < 0 || !IsLoopback(peer.sin_addr)) {
      continue;
    }
    {
      const std::lock_guard<std::mutex> lock(mLock);
      mReceived.emplace_back(datagram, datagram + got);
    }
    if (answered >= kMaxAnswers) {
      continue;
    }
    ++answered;
    // The delay is slept in short steps so that destruction is never held up for long.
    const auto due = std::chrono::steady_clock::now() + std::chrono::milliseconds(mDelayMs);
    while (!mStop && std::chrono::steady_clock::now() < due) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    sendto(mFd, mAnswer.data(), mAnswer.size(), 0, reinterpret_cast<const sockaddr *>(&peer),
           peerLength);
  }
}

Bytes HcpAnswer(const std::vector<std::string> &items) {
  Bytes answer = Hex("00 00 84 00 00 00 00 01 00 00 00 00");
  for (const std::string &item : items) {
    answer.push_back(static_cast<unsigned char>(item.size()));
    answer.insert(answer.end(), item.begin(), item.end());
  }
  return answer;
}

} // namespace kivtest
