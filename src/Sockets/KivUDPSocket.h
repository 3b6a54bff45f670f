// The datagram socket behind a UDP handle: bound to a local port, sends and receives single
// datagrams to and from addresses.
#ifndef KIV_SOCKETS_KIVUDPSOCKET_H
#define KIV_SOCKETS_KIVUDPSOCKET_H

#include "Common/KivTypes.h"
#include "Sockets/KivSocket.h"
#include "Sockets/KivSocketAddress.h"

// A UDP socket on any local address and a chosen port. The descriptor is made at construction;
// nothing is bound and no option is set until asked. Failures throw at once and never change the
// class identifier or the local address, so a socket whose descriptor was closed can be given a
// new one (Revitalize) and bound again.
class KIV_EXPORT KivUDPSocket : public KivSocket {
public:
  // Port 0: the platform picks an ephemeral port at Bind.
  KivUDPSocket();
  // Throws KivSocketException UNKNOWN_ERROR when no descriptor can be made; nothing stays open.
  explicit KivUDPSocket(int port);
  // Stops the object being a handle and closes the descriptor if one is held.
  ~KivUDPSocket();

  // The port to bind (as given, not the one the platform picked for port 0); SetPort takes effect
  // at the next Bind.
  int GetPort() const { return mHostAddress.GetPort(); }
  void SetPort(int port) { mHostAddress.SetPort(port); }

  // Binds any local address and the port; returns 0. Throws KivUDPSocketException BIND_UDP_ERROR.
  int Bind();

  // Sends `length` bytes of `message` as one datagram with `flags` to `address`; returns the count
  // the platform took (0 for an empty datagram). Sending to "BROADCAST" needs
  // SetBroadcastPermitted first. Throws KivUDPSocketException SENDTO_ERROR on failure, also for a
  // negative length or a null message with a positive length.
  int SendTo(KivSocketAddress &address, const void *message, int length, unsigned int flags);

  // Receives one datagram into `message` (at most `length` bytes; the rest of a longer datagram
  // is lost), `flags` passed through; returns the count (with MSG_TRUNC the platform reports the
  // datagram's full length instead). Records the sender in `address`. Throws KivUDPSocketException
  // RECVFROM_ERROR on failure, a receive time-out included, and for a negative length or a null
  // area with a positive length; `address` is then unchanged.
  int RecvFrom(KivSocketAddress &address, void *message, int length, unsigned int flags);

  // Sets the receive time-out to `seconds` whole seconds (0 removes it); returns 0. Throws
  // KivSocketException GETSOCKOPT_FAILED when the platform refuses, and for a negative value.
  int SetTimeOut(int seconds);

private:
  KivSocketAddress mHostAddress; // always the empty text (any local address) and the port
};

#endif // KIV_SOCKETS_KIVUDPSOCKET_H
