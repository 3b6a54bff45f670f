// An IPv4 address as text plus a 16-bit port: what sockets bind, send to, receive from and
// connect to, and the object behind an address handle.
#ifndef KIV_SOCKETS_KIVSOCKETADDRESS_H
#define KIV_SOCKETS_KIVSOCKETADDRESS_H

#include <netinet/in.h>

#include <string>

#include "Common/KivTypes.h"

// Class identifier of an address, "sock"; the boundary validates address handles by it.
constexpr UInt32 kKivSocketAddressClassID = 0x736f636b;

// The text and port are the value; the platform form is rebuilt from them by every GetBSDAddress
// and filled from the platform by SetBSDAddress. Address texts: dotted decimal, "" for any local
// address, exactly "BROADCAST" for 255.255.255.255. Never throws except std::bad_alloc from its
// strings. Plain value: copies carry all four fields.
class KIV_EXPORT KivSocketAddress {
public:
  // `port` is kept as its low 16 bits (70000 becomes 4464). The platform form starts zeroed.
  KivSocketAddress(std::string ip, int port);
  // A copy is not a handle, whatever the original is.
  KivSocketAddress(const KivSocketAddress &) = default;
  KivSocketAddress &operator=(const KivSocketAddress &) = default;
  // Stops the address being a handle.
  ~KivSocketAddress();

  std::string GetIPAddress() const { return mIPAddress; }
  int GetPort() const { return mPort; }

  // These change the text and/or port only (port truncated to 16 bits); the class identifier and
  // the platform form are left as they are.
  void SetAddress(std::string ip, int port);
  void SetIPAddress(std::string ip);
  void SetPort(int port);

  // Rebuilds the platform form from the text and port and returns it; the pointer stays valid
  // while the object lives and is not changed. "" gives 0.0.0.0, "BROADCAST" 255.255.255.255,
  // other text is read as dotted decimal, and text that does not parse (lower-case "broadcast"
  // among it) also gives 255.255.255.255.
  sockaddr_in *GetBSDAddress();

  // 16, the length every system call is given with the platform form.
  int GetBSDAddressLength() const;

  // Records a peer from the platform: copies the 16 bytes and sets the text (dotted decimal) and
  // the port (host order) from them. A null pointer changes nothing.
  void SetBSDAddress(const sockaddr_in *address);

  UInt32 getClassID() const { return mClassID; }

private:
  UInt32 mClassID;
  std::string mIPAddress;
  UInt16 mPort;
  sockaddr_in mAddress;
};

#endif // KIV_SOCKETS_KIVSOCKETADDRESS_H
