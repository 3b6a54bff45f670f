// The TCP server socket: binds a local port, listens, accepts one client at a time and talks to
// it. The exported channel read and write functions serve it as socket kind 2.
#ifndef KIV_SOCKETS_KIVTCPSERVERSOCKET_H
#define KIV_SOCKETS_KIVTCPSERVERSOCKET_H

#include "Common/KivTypes.h"
#include "Sockets/KivSocket.h"
#include "Sockets/KivSocketAddress.h"

// A TCP server on any local address (class identifier "tcpS"). No exported function creates one:
// a host makes it through this class (new KivTCPServerSocket(port)), and the object is then a
// valid socket handle of kind 2 for Write, WriteManaged, Read, ReadManaged, GetSocketID,
// CloseTCPSocket, SetSocketOptions and RevitalizeSocket, until it is destroyed.
//
// The listening descriptor is made at construction and is close-on-exec, as is every accepted
// client. Every send is made with MSG_NOSIGNAL (a client that has gone away makes the send fail
// instead of raising SIGPIPE). Failures throw KivTCPSocketException with the error named at each
// operation; a negative length, or a null area with a positive length, is refused with it too.
class KIV_EXPORT KivTCPServerSocket : public KivSocket {
public:
  // Port 0: the platform picks one at Bind.
  KivTCPServerSocket();
  // Throws KivSocketException UNKNOWN_ERROR when no descriptor can be made, std::bad_alloc when
  // memory runs out; nothing stays open then.
  explicit KivTCPServerSocket(int listenPort);
  // Stops the object being a handle, closes the current client's descriptor, then the listening
  // one.
  ~KivTCPServerSocket();

  // The port to bind (as given; 0 stays 0 after the platform picked one); SetPort takes effect at
  // the next Bind.
  void SetPort(int listenPort) { mServerAddress.SetPort(listenPort); }
  int GetPort() const { return mServerAddress.GetPort(); }

  // Binds any local address and the port; returns 0. Throws BIND_TCP_ERROR.
  int Bind();

  // Starts listening with `backlog`; returns 0. Throws LISTEN_ERROR.
  int Listen(int backlog);

  // Waits for a client and accepts it; returns its descriptor, which becomes the current client.
  // The client held before is NOT closed: it stays the caller's to close. Records the client's
  // address and port in `clientAddress`. Throws ACCEPT_ERROR.
  int Accept(KivSocketAddress &clientAddress);

  // One send to `clientSocket`; returns the count taken. Throws SERVER_SEND_ERROR.
  int Send(int clientSocket, const void *message, int length, int flags);
  // One receive from `clientSocket`; returns the count, 0 at the client's orderly close. Throws
  // SERVER_RECV_ERROR.
  int Recv(int clientSocket, void *buffer, int length, unsigned int flags);

  // The same with the current client (descriptor -1 before the first Accept: the platform
  // refuses, and the operation throws).
  int Send(const void *message, int length, int flags);
  int Recv(void *buffer, int length, unsigned int flags);

  // The current client's descriptor, -1 before the first Accept.
  int GetClientSocket() const { return mClientSocket; }

protected:
  KivSocketAddress mServerAddress; // the empty text (any local address) and the listening port
  int mClientSocket;               // the last accepted client; -1 before the first Accept
};

#endif // KIV_SOCKETS_KIVTCPSERVERSOCKET_H
