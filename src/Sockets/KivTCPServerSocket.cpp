// The TCP server socket: bind, listen, accept, and single sends and receives to a client.
#include "Sockets/KivTCPServerSocket.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "CommonFiles/KivHandleRegistry.h"
#include "Exceptions/KivSocketExceptions.h"

KivTCPServerSocket::KivTCPServerSocket() : KivTCPServerSocket(0) {}

// Hosts make server sockets through the class, so the object makes itself a handle (kind 2). If
// that throws, the base's destructor closes the descriptor it made.
KivTCPServerSocket::KivTCPServerSocket(int listenPort)
    : KivSocket(TCP), mServerAddress("", listenPort), mClientSocket(-1) {
  mClassID = kKivTCPServerSocketClassID;
  kiv::RegisterHandle(this, kKivTCPServerSocketClassID);
}

KivTCPServerSocket::~KivTCPServerSocket() {
  kiv::ForgetHandle(this, kKivTCPServerSocketClassID);
  if (mClientSocket != -1) {
    ::close(mClientSocket);
  }
}

int KivTCPServerSocket::Bind() {
  if (::bind(mSocket, reinterpret_cast<const sockaddr *>(mServerAddress.GetBSDAddress()),
             static_cast<socklen_t>(mServerAddress.GetBSDAddressLength())) == -1) {
    throw KivTCPSocketException(BIND_TCP_ERROR);
  }
  return 0;
}

int KivTCPServerSocket::Listen(int backlog) {
  if (::listen(mSocket, backlog) == -1) {
    throw KivTCPSocketException(LISTEN_ERROR);
  }
  return 0;
}

int KivTCPServerSocket::Accept(KivSocketAddress &clientAddress) {
  sockaddr_in client = {};
  socklen_t length = sizeof client;
  // Close-on-exec from the start, like every descriptor the library makes.
  const int accepted =
      ::accept4(mSocket, reinterpret_cast<sockaddr *>(&client), &length, SOCK_CLOEXEC);
  if (accepted == -1) {
    throw KivTCPSocketException(ACCEPT_ERROR);
  }
  mClientSocket = accepted;
  clientAddress.SetBSDAddress(&client);
  return accepted;
}

int KivTCPServerSocket::Send(int clientSocket, const void *message, int length, int flags) {
  if (length < 0 || (message == nullptr && length > 0)) {
    throw KivTCPSocketException(SERVER_SEND_ERROR);
  }
  const ssize_t sent =
      ::send(clientSocket, message, static_cast<size_t>(length), flags | MSG_NOSIGNAL);
  if (sent == -1) {
    throw KivTCPSocketException(SERVER_SEND_ERROR);
  }
  return static_cast<int>(sent);
}

int KivTCPServerSocket::Recv(int clientSocket, void *buffer, int length, unsigned int flags) {
  if (length < 0 || (buffer == nullptr && length > 0)) {
    throw KivTCPSocketException(SERVER_RECV_ERROR);
  }
  const ssize_t got =
      ::recv(clientSocket, buffer, static_cast<size_t>(length), static_cast<int>(flags));
  if (got == -1) {
    throw KivTCPSocketException(SERVER_RECV_ERROR);
  }
  return static_cast<int>(got);
}

int KivTCPServerSocket::Send(const void *message, int length, int flags) {
  return Send(mClientSocket, message, length, flags);
}

int KivTCPServerSocket::Recv(void *buffer, int length, unsigned int flags) {
  return Recv(mClientSocket, buffer, length, flags);
}
