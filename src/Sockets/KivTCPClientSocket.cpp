// The TCP client socket: connect, single and complete sends and receives, readiness waits.
#include "Sockets/KivTCPClientSocket.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <ctime>

#include "CommonFiles/KivHandleRegistry.h"
#include "Exceptions/KivSocketExceptions.h"

// If anything after the base throws, the base's destructor closes the descriptor it made.
KivTCPClientSocket::KivTCPClientSocket(std::string serverIP, int port)
    : KivSocket(TCP), mServerAddress(serverIP, port) {
  mClassID = kKivTCPClientSocketClassID;
}

KivTCPClientSocket::~KivTCPClientSocket() { kiv::ForgetHandle(this, kKivTCPClientSocketClassID); }

void KivTCPClientSocket::SetAddress(std::string serverIP, int port) {
  mServerAddress.SetAddress(serverIP, port);
}

int KivTCPClientSocket::Connect() {
  if (::connect(mSocket, reinterpret_cast<const sockaddr *>(mServerAddress.GetBSDAddress()),
                static_cast<socklen_t>(mServerAddress.GetBSDAddressLength())) == -1) {
    throw KivTCPSocketException(CONNECT_ERROR);
  }
  return 0;
}

int KivTCPClientSocket::Send(const unsigned char *message, int length, int flags) {
  // A negative int would become a huge size_t; refuse it before the platform sees it.
  if (length < 0 || (message == nullptr && length > 0)) {
    throw KivTCPSocketException(CLIENT_SEND_ERROR);
  }
  const ssize_t sent = ::send(mSocket, message, static_cast<size_t>(length), flags | MSG_NOSIGNAL);
  if (sent == -1) {
    throw KivTCPSocketException(CLIENT_SEND_ERROR);
  }
  return static_cast<int>(sent);
}

int KivTCPClientSocket::Recv(void *buffer, int length, unsigned int flags) {
  if (length < 0 || (buffer == nullptr && length > 0)) {
    throw KivTCPSocketException(CLIENT_RECV_ERROR);
  }
  const ssize_t got = ::recv(mSocket, buffer, static_cast<size_t>(length), static_cast<int>(flags));
  if (got == -1) {
    throw KivTCPSocketException(CLIENT_RECV_ERROR);
  }
  return static_cast<int>(got);
}

int KivTCPClientSocket::WaitForReadiness(int descriptor, short events, const KivTimeVal &limit) {
  // poll ignores a negative descriptor and would just sleep; a closed socket is a failed wait.
  if (descriptor < 0) {
    errno = EBADF;
    throw KivTCPSocketException(SELECT_ERROR);
  }
  // Microsecond limits are kept exactly (ppoll takes a timespec); the platform refuses negative
  // or out-of-range values with EINVAL, as it does for select.
  const timespec wait = {limit.tv_sec, static_cast<long>(limit.tv_usec) * 1000};
  pollfd watched = {descriptor, events, 0};
  const int ready = ::ppoll(&watched, 1, &wait, nullptr);
  if (ready == -1) {
    throw KivTCPSocketException(SELECT_ERROR);
  }
  if (ready > 0 && (watched.revents & POLLNVAL) != 0) {
    errno = EBADF;
    throw KivTCPSocketException(SELECT_ERROR);
  }
  return ready > 0 ? 1 : 0;
}

int KivTCPClientSocket::ReceiveAll(int descriptor, unsigned char *buffer, int length,
                                   const KivTimeVal *limit, unsigned int flags) {
  if (length < 0 || (buffer == nullptr && length > 0)) {
    throw KivTCPSocketException(CLIENT_RECV_ERROR);
  }
  // A timed transfer must not block in the transfer itself once the wait said ready: it takes
  // what is there (MSG_DONTWAIT), and a readiness that came to nothing means waiting again.
  const int extra = limit != nullptr ? MSG_DONTWAIT : 0;
  int got = 0;
  while (got < length) {
    if (limit != nullptr && WaitForReadiness(descriptor, POLLIN, *limit) == 0) {
      return -2;
    }
    const ssize_t n = ::recv(descriptor, buffer + got, static_cast<size_t>(length - got),
                             static_cast<int>(flags) | extra);
    if (n == 0) {
      return 0;
    }
    if (n < 0) {
      if (extra != 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        continue;
      }
      throw KivTCPSocketException(CLIENT_RECV_ERROR);
    }
    got += static_cast<int>(n);
  }
  return length;
}

int KivTCPClientSocket::SendAllWithin(const unsigned char *message, int length,
                                      const KivTimeVal *limit, int flags) {
  if (length < 0 || (message == nullptr && length > 0)) {
    throw KivTCPSocketException(CLIENT_SEND_ERROR);
  }
  // As in ReceiveAll: after a wait, a send takes only the room there is, so that a device that
  // stops reading makes the next wait run out instead of blocking the send.
  const int extra = limit != nullptr ? MSG_DONTWAIT : 0;
  int sent = 0;
  while (sent < length) {
    if (limit != nullptr && WaitForReadiness(mSocket, POLLOUT, *limit) == 0) {
      return -2;
    }
    const ssize_t n = ::send(mSocket, message + sent, static_cast<size_t>(length - sent),
                             flags | MSG_NOSIGNAL | extra);
    if (n == 0) {
      return 0;
    }
    if (n < 0) {
      if (extra != 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        continue;
      }
      throw KivTCPSocketException(CLIENT_SEND_ERROR);
    }
    sent += static_cast<int>(n);
  }
  return length;
}

int KivTCPClientSocket::SendAll(const unsigned char *message, int length, int flags) {
  return SendAllWithin(message, length, nullptr, flags);
}

int KivTCPClientSocket::SendAll(const unsigned char *message, int length, KivTimeVal timeout,
                                int flags) {
  return SendAllWithin(message, length, &timeout, flags);
}

int KivTCPClientSocket::RecvAll(unsigned char *buffer, int length, unsigned int flags) {
  return ReceiveAll(mSocket, buffer, length, nullptr, flags);
}

int KivTCPClientSocket::RecvAll(unsigned char *buffer, int length, KivTimeVal timeout,
                                unsigned int flags) {
  return ReceiveAll(mSocket, buffer, length, &timeout, flags);
}
