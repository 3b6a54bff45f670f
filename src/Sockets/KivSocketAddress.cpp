// IPv4 address text and port, and their conversion to and from the platform form.
#include "Sockets/KivSocketAddress.h"

#include <arpa/inet.h>

#include <cstring>
#include <utility>

#include "CommonFiles/KivHandleRegistry.h"

static_assert(sizeof(sockaddr_in) == 16, "system calls are given the address length 16");

namespace {

// The keyword of the limited broadcast address; compared exactly, case included.
const char kBroadcastText[] = "BROADCAST";

} // namespace

KivSocketAddress::KivSocketAddress(std::string ip, int port)
    : mClassID(kKivSocketAddressClassID), mIPAddress(std::move(ip)),
      mPort(static_cast<UInt16>(port)), mAddress() {}

KivSocketAddress::~KivSocketAddress() { kiv::ForgetHandle(this, kKivSocketAddressClassID); }

void KivSocketAddress::SetAddress(std::string ip, int port) {
  mIPAddress = std::move(ip);
  mPort = static_cast<UInt16>(port);
}

void KivSocketAddress::SetIPAddress(std::string ip) { mIPAddress = std::move(ip); }

void KivSocketAddress::SetPort(int port) { mPort = static_cast<UInt16>(port); }

sockaddr_in *KivSocketAddress::GetBSDAddress() {
  std::memset(&mAddress, 0, sizeof mAddress);
  mAddress.sin_family = AF_INET;
  mAddress.sin_port = htons(mPort);
  if (mIPAddress.empty()) {
    mAddress.sin_addr.s_addr = htonl(INADDR_ANY);
  } else if (mIPAddress == kBroadcastText) {
    mAddress.sin_addr.s_addr = htonl(INADDR_BROADCAST);
  } else {
    // inet_addr answers INADDR_NONE (255.255.255.255) for text it cannot read; that value is
    // kept rather than refused, so a bad text never throws.
    mAddress.sin_addr.s_addr = inet_addr(mIPAddress.c_str());
  }
  return &mAddress;
}

int KivSocketAddress::GetBSDAddressLength() const { return static_cast<int>(sizeof(sockaddr_in)); }

void KivSocketAddress::SetBSDAddress(const sockaddr_in *address) {
  if (address == nullptr) {
    return;
  }
  std::memcpy(&mAddress, address, sizeof mAddress);
  // inet_ntop rather than inet_ntoa: no shared static buffer between threads.
  char text[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &mAddress.sin_addr, text, sizeof text);
  mIPAddress = text;
  mPort = ntohs(mAddress.sin_port);
}
