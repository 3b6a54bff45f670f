// The socket base where the exported functions cannot reach it: a concrete socket whose constructor
// throws after the base made its descriptor leaves nothing open.
#include <gtest/gtest.h>

#include <stdexcept>

#include "Sockets/KivSocket.h"
#include "support/DescriptorCheckedTest.h"

namespace {

// A concrete socket whose constructor fails after the base made its descriptor.
class FailingSocket : public KivSocket {
public:
  static int sLastDescriptor;
  FailingSocket() : KivSocket(UDP) {
    sLastDescriptor = mSocket;
    throw std::runtime_error("constructor failed after the base");
  }
};
int FailingSocket::sLastDescriptor = -1;

typedef kivtest::DescriptorCheckedTest UdpSocket;

TEST_F(UdpSocket, ConstructorThatThrowsLeavesNothingOpen) {
  EXPECT_THROW(FailingSocket(), std::runtime_error);
  // The fixture finds the descriptor the base made still open if the base leaks it.
  EXPECT_NE(FailingSocket::sLastDescriptor, -1) << "the base made a descriptor first";
}

} // namespace
