// Exceptions of the socket layer: the base for option and descriptor failures, and its UDP and
// TCP branches.
#ifndef KIV_EXCEPTIONS_KIVSOCKETEXCEPTIONS_H
#define KIV_EXCEPTIONS_KIVSOCKETEXCEPTIONS_H

#include <string>

#include "Common/Exceptions/KivExceptions.h"
#include "Common/KivTypes.h"

// What went wrong in the socket layer. At the boundary each becomes 0x0A0000B0 + value.
enum KivSocketError : UInt32 {
  REUSE_PORT_ERROR = 1,              // SO_REUSEADDR or SO_REUSEPORT could not be set
  BROADCAST_NOT_PERMITTED_ERROR = 2, // SO_BROADCAST could not be switched
  NODELAY_NOT_PERMITTED_ERROR = 3,   // TCP_NODELAY could not be set
  UNKNOWN_ERROR = 4,                 // no descriptor could be made, or the object holds none
  BIND_UDP_ERROR = 5,
  RECVFROM_ERROR = 6, // also a receive time-out
  SENDTO_ERROR = 7,
  UNKNOWN_UDP_ERROR = 8,
  CONNECT_ERROR = 9,
  CLIENT_RECV_ERROR = 10,
  CLIENT_SEND_ERROR = 11,
  UNKNOWN_TCP_ERROR = 12,
  BIND_TCP_ERROR = 13,
  LISTEN_ERROR = 14,
  ACCEPT_ERROR = 15,
  SERVER_RECV_ERROR = 16,
  SERVER_SEND_ERROR = 17,
  GETSOCKOPT_FAILED = 18, // reading SO_ERROR or setting the receive time-out failed
  SELECT_ERROR = 19,      // a readiness wait failed
};

class KIV_EXPORT KivSocketException : public KivExceptions {
public:
  // UNKNOWN_ERROR.
  KivSocketException();
  explicit KivSocketException(KivSocketError error);
  KivSocketException(const KivSocketException &other) = default;
  KivSocketException &operator=(const KivSocketException &other) = default;

  // The name for this class's own errors ("KivSocketException.ReusePort", ...), or
  // "KivSocketException.Unknown".
  std::string GetExceptionName() const override;
  // Writes the name through perror to standard error.
  void Dump() const override;
  ~KivSocketException() override;
  virtual void SetError(KivSocketError error);

  // error + 0xB0 (0xB1 to 0xC3); the same for the UDP and TCP branches.
  UInt32 GetErrorCode() const;
  KivSocketError GetErrorType() const { return mError; }

private:
  KivSocketError mError;
};

class KIV_EXPORT KivUDPSocketException : public KivSocketException {
public:
  explicit KivUDPSocketException(KivSocketError error);
  std::string GetExceptionName() const override;
  ~KivUDPSocketException() override;
};

class KIV_EXPORT KivTCPSocketException : public KivSocketException {
public:
  explicit KivTCPSocketException(KivSocketError error);
  std::string GetExceptionName() const override;
  ~KivTCPSocketException() override;
};

#endif // KIV_EXCEPTIONS_KIVSOCKETEXCEPTIONS_H
