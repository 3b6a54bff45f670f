// Error names and codes of the socket-layer exceptions.
#include "Exceptions/KivSocketExceptions.h"

#include <cstdio>

KivSocketException::KivSocketException() : mError(UNKNOWN_ERROR) {}

KivSocketException::KivSocketException(KivSocketError error) : mError(error) {}

KivSocketException::~KivSocketException() = default;

std::string KivSocketException::GetExceptionName() const {
  // Each class names only its own errors; everything else is "Unknown" of that class.
  switch (mError) {
  case REUSE_PORT_ERROR:
    return "KivSocketException.ReusePort";
  case BROADCAST_NOT_PERMITTED_ERROR:
    return "KivSocketException.BroadcastNotPermitted";
  case NODELAY_NOT_PERMITTED_ERROR:
    return "KivSocketException.NoDelayNotPermitted";
  case GETSOCKOPT_FAILED:
    return "KivSocketException.GetSockOpt";
  default:
    return "KivSocketException.Unknown";
  }
}

void KivSocketException::Dump() const { std::perror(GetExceptionName().c_str()); }

void KivSocketException::SetError(KivSocketError error) { mError = error; }

UInt32 KivSocketException::GetErrorCode() const { return static_cast<UInt32>(mError) + 0xB0u; }

KivUDPSocketException::KivUDPSocketException(KivSocketError error) : KivSocketException() {
  SetError(error);
}

KivUDPSocketException::~KivUDPSocketException() = default;

std::string KivUDPSocketException::GetExceptionName() const {
  switch (GetErrorType()) {
  case BIND_UDP_ERROR:
    return "KivUDPSocketException.Bind";
  case RECVFROM_ERROR:
    return "KivUDPSocketException.RecvFrom";
  case SENDTO_ERROR:
    return "KivUDPSocketException.SendTo";
  default:
    return "KivUDPSocketException.Unknown";
  }
}

KivTCPSocketException::KivTCPSocketException(KivSocketError error) : KivSocketException() {
  SetError(error);
}

KivTCPSocketException::~KivTCPSocketException() = default;

std::string KivTCPSocketException::GetExceptionName() const {
  // SELECT_ERROR has no name of its own: it is reported as "KivTCPSocketException.Unknown".
  switch (GetErrorType()) {
  case CONNECT_ERROR:
    return "KivTCPSocketException.Connect";
  case CLIENT_RECV_ERROR:
    return "KivTCPSocketException.Recv-Client";
  case CLIENT_SEND_ERROR:
    return "KivTCPSocketException.Send-Client";
  case BIND_TCP_ERROR:
    return "KivTCPSocketException.Bind";
  case LISTEN_ERROR:
    return "KivTCPSocketException.Listen";
  case ACCEPT_ERROR:
    return "KivTCPSocketException.Accept";
  case SERVER_RECV_ERROR:
    return "KivTCPSocketException.Recv-Server";
  case SERVER_SEND_ERROR:
    return "KivTCPSocketException.Send-Server";
  default:
    return "KivTCPSocketException.Unknown";
  }
}
