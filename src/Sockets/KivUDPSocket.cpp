// The UDP socket: bind, single-datagram send and receive, receive time-out.
#include "Sockets/KivUDPSocket.h"

#include <sys/socket.h>
#include <sys/time.h>

#include "CommonFiles/KivHandleRegistry.h"
#include "Exceptions/KivSocketExceptions.h"

KivUDPSocket::KivUDPSocket() : KivUDPSocket(0) {}

// If anything after the base throws, the base's destructor closes the descriptor it made.
KivUDPSocket::KivUDPSocket(int port) : KivSocket(UDP), mHostAddress("", port) {
  mClassID = kKivUDPSocketClassID;
}

KivUDPSocket::~KivUDPSocket() { kiv::ForgetHandle(this, kKivUDPSocketClassID); }

int KivUDPSocket::Bind() {
  if (::bind(mSocket, reinterpret_cast<const sockaddr *>(mHostAddress.GetBSDAddress()),
             static_cast<socklen_t>(mHostAddress.GetBSDAddressLength())) == -1) {
    throw KivUDPSocketException(BIND_UDP_ERROR);
  }
  return 0;
}

int KivUDPSocket::SendTo(KivSocketAddress &address, const void *message, int length,
                         unsigned int flags) {
  // A negative int would become a huge size_t; refuse it before the platform sees it.
  if (length < 0 || (message == nullptr && length > 0)) {
    throw KivUDPSocketException(SENDTO_ERROR);
  }
  const ssize_t sent =
      ::sendto(mSocket, message, static_cast<size_t>(length), static_cast<int>(flags),
               reinterpret_cast<const sockaddr *>(address.GetBSDAddress()),
               static_cast<socklen_t>(address.GetBSDAddressLength()));
  if (sent == -1) {
    throw KivUDPSocketException(SENDTO_ERROR);
  }
  return static_cast<int>(sent);
}

int KivUDPSocket::RecvFrom(KivSocketAddress &address, void *message, int length,
                           unsigned int flags) {
  if (length < 0 || (message == nullptr && length > 0)) {
    throw KivUDPSocketException(RECVFROM_ERROR);
  }
  sockaddr_in sender = {};
  socklen_t senderLength = sizeof sender;
  const ssize_t received =
      ::recvfrom(mSocket, message, static_cast<size_t>(length), static_cast<int>(flags),
                 reinterpret_cast<sockaddr *>(&sender), &senderLength);
  if (received == -1) {
    throw KivUDPSocketException(RECVFROM_ERROR);
  }
  address.SetBSDAddress(&sender);
  return static_cast<int>(received);
}

int KivUDPSocket::SetTimeOut(int seconds) {
  // The platform reads a negative time as "do not wait at all"; that is never what a caller of a
  // whole-second time-out means, so it is refused like a failed setsockopt.
  if (seconds < 0) {
    throw KivSocketException(GETSOCKOPT_FAILED);
  }
  timeval limit = {};
  limit.tv_sec = seconds;
  limit.tv_usec = 0;
  if (::setsockopt(mSocket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) == -1) {
    throw KivSocketException(GETSOCKOPT_FAILED);
  }
  return 0;
}
