// The socket base of the library (descriptor, kind, class identifier, standard options) and the
// message hex dumps.
#ifndef KIV_SOCKETS_KIVSOCKET_H
#define KIV_SOCKETS_KIVSOCKET_H

#include "Common/KivTypes.h"
#include "Exceptions/KivSocketExceptions.h"

// Class identifiers of the concrete sockets (four characters, the first in the most significant
// byte). The boundary tells socket handles apart by this field alone.
constexpr UInt32 kKivUDPSocketClassID = 0x75647073;       // "udps": KivUDPSocket
constexpr UInt32 kKivTCPClientSocketClassID = 0x74637043; // "tcpC": TCP client, HBN3 channel
constexpr UInt32 kKivTCPServerSocketClassID = 0x74637053; // "tcpS": TCP server

// The kind of descriptor a socket object makes.
enum SocketType : UInt32 {
  UDP = 0, // datagram
  TCP = 1, // stream
};

// An IPv4 socket descriptor owned by an object. The concrete socket classes derive from it and set
// the class identifier; the base has no virtual operations, so it is neither constructed nor
// destroyed on its own (protected constructor and destructor): a socket is destroyed through its
// concrete class.
//
// Life cycle: the descriptor is made at construction, closed by Close (the object stays usable),
// made anew by Revitalize or GenerateSocket, and closed at destruction if still open. Every
// descriptor is close-on-exec, so a host that forks does not hand its sockets to the child.
//
// Failures throw KivSocketException; none changes the descriptor except as stated.
class KIV_EXPORT KivSocket {
public:
  KivSocket(const KivSocket &) = delete;
  KivSocket &operator=(const KivSocket &) = delete;

  // Makes a descriptor of the current type (stream for TCP, datagram otherwise). A descriptor
  // already held is closed first, so none is lost. Throws KivSocketException UNKNOWN_ERROR when
  // the platform refuses; the object then holds none.
  void GenerateSocket();

  // Makes a new descriptor if the object holds none; returns 0. Throws as GenerateSocket.
  int Revitalize();

  // Closes the descriptor and forgets it; returns the platform's result: 0, or -1 when the object
  // held no descriptor. The object stays usable.
  int Close();

  // The descriptor. Throws KivSocketException UNKNOWN_ERROR when the object holds none.
  int GetSocket();

  void SetType(SocketType type) { mType = type; }
  SocketType GetType() const { return mType; }
  UInt32 getClassID() const { return mClassID; }

  // Standard options; each returns 0 or throws KivSocketException with the error given.
  int SetReuseAddress();          // SO_REUSEADDR on; REUSE_PORT_ERROR
  int SetReusePort();             // SO_REUSEPORT on; REUSE_PORT_ERROR
  int SetBroadcastPermitted();    // SO_BROADCAST on; BROADCAST_NOT_PERMITTED_ERROR
  int SetBroadcastPermittedOff(); // SO_BROADCAST off; BROADCAST_NOT_PERMITTED_ERROR
  int SetNoDelay();               // TCP_NODELAY on (streams only); NODELAY_NOT_PERMITTED_ERROR

  // Reads and clears the pending socket error (SO_ERROR); true when one was pending.
  // Throws KivSocketException GETSOCKOPT_FAILED when it cannot be read.
  bool IsGeneratingAnError();

protected:
  // Stores the type and makes the descriptor at once (throws as GenerateSocket). The concrete
  // class sets mClassID; if its constructor throws afterwards, this base's destructor closes the
  // descriptor before the exception leaves.
  explicit KivSocket(SocketType type);
  // Stops the object being a handle and closes the descriptor if one is held.
  ~KivSocket();

  SocketType mType;
  int mSocket;     // -1 when the object holds no descriptor
  UInt32 mClassID; // set by the concrete class, never changed afterwards

private:
  // Sets an int option on the descriptor; throws KivSocketException `error` on failure.
  void SetIntOption(int level, int option, int value, KivSocketError error);
};

// Prints "DUMP LENGTH:<n>", then every byte as "0x%02x " with a newline after every 20th byte,
// then one more newline. Standard output. A length of 0 or less prints the header and a newline.
KIV_EXPORT void DumpHexMessage2(unsigned char *message, int length);

// The same dump in red: the header starts with ESC "[0;31m" and the dump ends with ESC "[0m" and
// a newline instead of the extra newline.
KIV_EXPORT void DumpHexMessage3(unsigned char *message, int length);

#endif // KIV_SOCKETS_KIVSOCKET_H
