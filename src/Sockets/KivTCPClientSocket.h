// The stream socket that connects to one server: single and complete sends and receives, the
// complete ones with an optional wait limit per wait.
#ifndef KIV_SOCKETS_KIVTCPCLIENTSOCKET_H
#define KIV_SOCKETS_KIVTCPCLIENTSOCKET_H

#include <sys/time.h>

#include <string>

#include "Common/KivTypes.h"
#include "Sockets/KivSocket.h"
#include "Sockets/KivSocketAddress.h"

// A wait limit: whole seconds and microseconds (0 to 999999). Every limit of the TCP sockets and
// the HBN3 channel applies to each single wait for readiness, never to a whole transfer.
typedef timeval KivTimeVal;

// A TCP client (class identifier "tcpC"). The descriptor is made at construction; Connect
// connects it to the server address. Every send is made with MSG_NOSIGNAL, so a peer that has
// gone away makes a send fail instead of raising SIGPIPE in the host.
//
// The timed forms wait for readiness with poll, so descriptors above FD_SETSIZE work as well as
// any other. A limit that is negative, or whose microseconds lie outside 0 to 999999, makes the
// wait fail (SELECT_ERROR), as the platform refuses it.
//
// Failures throw KivTCPSocketException with the error named at each operation; nothing is
// retried, and an interrupted call (EINTR) is a failure like any other. A negative length, or a
// null area with a positive length, is refused with the operation's error before the platform
// sees it.
class KIV_EXPORT KivTCPClientSocket : public KivSocket {
public:
  // A stream descriptor for the server `serverIP` (dotted decimal) and `port` (low 16 bits).
  // Throws KivSocketException UNKNOWN_ERROR when no descriptor can be made.
  KivTCPClientSocket(std::string serverIP, int port);
  // Stops the object being a handle and closes the descriptor if one is held.
  ~KivTCPClientSocket();

  // Replaces the server's address and port (used by the next Connect).
  void SetAddress(std::string serverIP, int port);
  std::string GetIPAddress() const { return mServerAddress.GetIPAddress(); }
  int GetPort() const { return mServerAddress.GetPort(); }

  // Connects to the server, blocking with no limit of the library's own; returns 0. Throws
  // CONNECT_ERROR (nothing listening, already connected, a closed object, ...).
  int Connect();

  // One send of at most `length` bytes; returns the count the platform took. Throws
  // CLIENT_SEND_ERROR.
  int Send(const unsigned char *message, int length, int flags);

  // One receive of at most `length` bytes; returns the count, 0 when the peer has closed.
  // Throws CLIENT_RECV_ERROR.
  int Recv(void *buffer, int length, unsigned int flags);

  // Sends all `length` bytes; returns `length`, or 0 when the platform took nothing (bytes sent
  // before are not reported). A zero length makes no system call and returns 0. Throws
  // CLIENT_SEND_ERROR.
  int SendAll(const unsigned char *message, int length, int flags);

  // As SendAll, waiting at most `timeout` for writability before each send; -2 when a wait ran
  // out, whatever part was sent. Throws SELECT_ERROR when a wait fails, CLIENT_SEND_ERROR.
  int SendAll(const unsigned char *message, int length, KivTimeVal timeout, int flags);

  // Receives exactly `length` bytes; returns `length`, or 0 when the peer closed first (bytes
  // received before stay in `buffer` but are not reported). Throws CLIENT_RECV_ERROR.
  int RecvAll(unsigned char *buffer, int length, unsigned int flags);

  // As RecvAll, waiting at most `timeout` for readability before each receive; -2 when a wait
  // ran out, whatever part was received. Throws SELECT_ERROR when a wait fails,
  // CLIENT_RECV_ERROR.
  int RecvAll(unsigned char *buffer, int length, KivTimeVal timeout, unsigned int flags);

protected:
  // Waits until `descriptor` is ready for `events` (POLLIN or POLLOUT) or `limit` passes: 1 ready
  // (an error or hang-up counts as ready: the next receive or send reports it), 0 the limit
  // passed. Throws KivTCPSocketException SELECT_ERROR when the wait fails or the descriptor is
  // not open (errno then says why: EBADF for a closed descriptor).
  static int WaitForReadiness(int descriptor, short events, const KivTimeVal &limit);

  // The complete receive of RecvAll on a given descriptor; `limit` null waits without a limit.
  static int ReceiveAll(int descriptor, unsigned char *buffer, int length, const KivTimeVal *limit,
                        unsigned int flags);

  KivSocketAddress mServerAddress;

private:
  int SendAllWithin(const unsigned char *message, int length, const KivTimeVal *limit, int flags);
};

#endif // KIV_SOCKETS_KIVTCPCLIENTSOCKET_H
