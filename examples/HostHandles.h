// Owners for the handles a host gets from libKivNetworkComm, shared by the examples.
//
// Every handle the library hands out (container, socket, address) belongs to the host from then
// on: no library function releases one. A host gives them back through their classes; these
// owners do it on every path, so an example can return early without leaking.
#ifndef KIV_EXAMPLES_HOSTHANDLES_H
#define KIV_EXAMPLES_HOSTHANDLES_H

#include <cstdio>
#include <memory>
#include <string>

#include "Interfaces/KivNetworkComm.h"

namespace example {

// A message container keeps its bytes in a block of its own that only ResetBuffer releases.
struct ContainerRelease {
  void operator()(KivNetBuffer *container) const {
    container->ResetBuffer();
    delete container;
  }
};
using Container = std::unique_ptr<KivNetBuffer, ContainerRelease>;
inline Container NewContainer() { return Container(VerifyBufferHandle(CreateBuffer())); }

// Deleting a UDP socket closes its descriptor (null when no descriptor could be made).
using UdpSocket = std::unique_ptr<KivUDPSocket>;
inline UdpSocket NewUdpSocket(int localPort) {
  return UdpSocket(static_cast<KivUDPSocket *>(OpenUDPSocket(localPort)));
}

// An address is a text ("" any local address, "BROADCAST", or dotted decimal) and a port.
using Address = std::unique_ptr<KivSocketAddress>;
inline Address NewAddress(std::string text, int port) {
  return Address(VerifySockAddressHandle(CreateSocketAddress(text, port)));
}

// Every code-returning function gives 0 for success. A failure is worth printing in hex with the
// function's name: 0x0A09NNKK comes from the interface layer (NN the function, KK the kind),
// 0x0A01xxxx-0x0A08xxxx from the message layer, 0x0A0000B1-0x0A0000C3 from the socket layer.
inline bool Succeeded(const char *function, UInt32 code) {
  if (code != 0) {
    std::fprintf(stderr, "%s returned 0x%08X\n", function, static_cast<unsigned>(code));
  }
  return code == 0;
}

} // namespace example

#endif // KIV_EXAMPLES_HOSTHANDLES_H
