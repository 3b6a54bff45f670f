// A bound, non-blocking UDP socket of the simulator, closed by its destructor.
#ifndef KIV_SIM_DATAGRAMSOCKET_H
#define KIV_SIM_DATAGRAMSOCKET_H

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace kivsim {

class DatagramSocket {
public:
  // How the bind treats other sockets on the same port.
  enum class Bind {
    kShared,   // SO_REUSEADDR before the bind: shares the port with other such sockets
    kExclusive // SO_REUSEADDR only after the bind: the port chosen (or given) is used by no
               // other socket at that moment, yet later sockets of the simulator may share it
  };

  // Opens a UDP socket and binds it to `address` ("" or "0.0.0.0": every address) and `port`
  // (0: a free port). Throws std::system_error when the socket cannot be made or bound; nothing
  // stays open then.
  DatagramSocket(const std::string &address, std::uint16_t port, Bind bind = Bind::kShared);
  ~DatagramSocket();
  DatagramSocket(const DatagramSocket &) = delete;
  DatagramSocket &operator=(const DatagramSocket &) = delete;

  int Descriptor() const { return descriptor_; }

  // The port the socket is bound to.
  std::uint16_t LocalPort() const;

  // One waiting datagram into `buffer` (cut to `size`) with its sender in `peer`; the number of
  // bytes, or -1 when nothing is waiting or the receive failed.
  long ReceiveFrom(std::uint8_t *buffer, std::size_t size, sockaddr_in &peer);

  // Sends one datagram to `peer`; false when it could not leave (full buffer, no route).
  bool SendTo(const std::uint8_t *data, std::size_t size, const sockaddr_in &peer);

private:
  int descriptor_ = -1;
};

} // namespace kivsim

#endif // KIV_SIM_DATAGRAMSOCKET_H
