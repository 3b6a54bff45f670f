// A channel whose connection a test hands in (a device stream or a loopback peer), and whose wait
// for the open answer a test may shorten; for the tests that link the library's internals.
#ifndef KIV_TESTS_SUPPORT_TESTCHANNEL_H
#define KIV_TESTS_SUPPORT_TESTCHANNEL_H

#include "Sockets/KivHBN3TCPSocket.h"
#include "support/ChannelPeer.h"

namespace kivtest {

class TestChannel : public KivHBN3TCPSocket {
public:
  explicit TestChannel(KivEndPointInterface endPoint = kScanInterface, int port = 9)
      : KivHBN3TCPSocket("127.0.0.1", port, endPoint) {}

  // Takes `descriptor` as the channel's connection, as if opened.
  void Adopt(int descriptor) { AdoptConnectedSocket(descriptor); }
  void SetOpenAnswerLimit(KivTimeVal limit) { mOpenAnswerLimit = limit; }
};

// A channel on the host end of a device stream (the channel goes first, so a device still
// sending finds the connection gone).
struct ChannelOnStream {
  DeviceStream device;
  TestChannel channel;
  explicit ChannelOnStream(bool tcp = false, KivEndPointInterface endPoint = kScanInterface)
      : device(tcp), channel(endPoint) {
    channel.Adopt(device.TakeHost());
  }
};

} // namespace kivtest

#endif // KIV_TESTS_SUPPORT_TESTCHANNEL_H
