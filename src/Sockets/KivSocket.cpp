// The socket base of the library and the message hex dumps.
#include "Sockets/KivSocket.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>

#include "CommonFiles/KivHandleRegistry.h"

KivSocket::KivSocket(SocketType type) : mType(type), mSocket(-1), mClassID(0) { GenerateSocket(); }

KivSocket::~KivSocket() {
  // Every concrete socket forgets its own address too; this covers the base's.
  kiv::ForgetHandle(this, mClassID);
  if (mSocket != -1) {
    ::close(mSocket);
  }
}

void KivSocket::GenerateSocket() {
  // Close-on-exec from the start: a host that forks and executes must not hand the child a
  // socket of ours, and setting it later with fcntl would leave a window for a concurrent fork.
  const int kind = (mType == TCP ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC;
  const int made = ::socket(AF_INET, kind, 0);
  if (mSocket != -1) {
    ::close(mSocket);
  }
  mSocket = made;
  if (made == -1) {
    throw KivSocketException(UNKNOWN_ERROR);
  }
}

int KivSocket::Revitalize() {
  if (mSocket == -1) {
    GenerateSocket();
  }
  return 0;
}

int KivSocket::Close() {
  // close(-1) fails with EBADF and returns -1, which is the documented answer for a closed object.
  const int result = ::close(mSocket);
  mSocket = -1;
  return result;
}

int KivSocket::GetSocket() {
  if (mSocket == -1) {
    throw KivSocketException(UNKNOWN_ERROR);
  }
  return mSocket;
}

void KivSocket::SetIntOption(int level, int option, int value, KivSocketError error) {
  if (::setsockopt(mSocket, level, option, &value, sizeof value) == -1) {
    throw KivSocketException(error);
  }
}

// There is no separate error value for the address option; both reuse options report
// REUSE_PORT_ERROR.
int KivSocket::SetReuseAddress() {
  SetIntOption(SOL_SOCKET, SO_REUSEADDR, 1, REUSE_PORT_ERROR);
  return 0;
}

int KivSocket::SetReusePort() {
  SetIntOption(SOL_SOCKET, SO_REUSEPORT, 1, REUSE_PORT_ERROR);
  return 0;
}

int KivSocket::SetBroadcastPermitted() {
  SetIntOption(SOL_SOCKET, SO_BROADCAST, 1, BROADCAST_NOT_PERMITTED_ERROR);
  return 0;
}

int KivSocket::SetBroadcastPermittedOff() {
  SetIntOption(SOL_SOCKET, SO_BROADCAST, 0, BROADCAST_NOT_PERMITTED_ERROR);
  return 0;
}

int KivSocket::SetNoDelay() {
  SetIntOption(IPPROTO_TCP, TCP_NODELAY, 1, NODELAY_NOT_PERMITTED_ERROR);
  return 0;
}

bool KivSocket::IsGeneratingAnError() {
  int pending = 0;
  socklen_t length = sizeof pending;
  if (::getsockopt(mSocket, SOL_SOCKET, SO_ERROR, &pending, &length) == -1) {
    throw KivSocketException(GETSOCKOPT_FAILED);
  }
  return pending != 0;
}

namespace {

// The bytes of a dump, twenty to a line.
void DumpBytes(const unsigned char *message, int length) {
  if (message == nullptr) {
    return;
  }
  for (int i = 0; i < length; ++i) {
    std::printf("0x%02x ", message[i]);
    if ((i + 1) % 20 == 0) {
      std::printf("\n");
    }
  }
}

} // namespace

void DumpHexMessage2(unsigned char *message, int length) {
  std::printf("DUMP LENGTH:%d\n", length);
  DumpBytes(message, length);
  std::printf("\n");
}

void DumpHexMessage3(unsigned char *message, int length) {
  std::printf("\x1b[0;31mDUMP LENGTH:%d\n", length);
  DumpBytes(message, length);
  std::printf("\x1b[0m\n");
}
