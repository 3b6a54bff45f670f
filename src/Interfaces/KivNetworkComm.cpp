// The exported functions. Each code-returning function validates its handles, then runs its
// operation through the shared call frame (KivCallFrame.h); none has a try/catch of its own.
#include "Interfaces/KivNetworkComm.h"

#include <memory>

#include "Interfaces/KivCallFrame.h"

using namespace kiv::frame;

int mDebugLevel = 0;

// ---- Handles and message containers -----------------------------------------------------------

HANDLE CreateBuffer() { return new KivNetBuffer(); }

KivNetBuffer *VerifyBufferHandle(HANDLE objHandle) {
  KivNetBuffer *buffer = static_cast<KivNetBuffer *>(objHandle);
  if (buffer == nullptr || buffer->getClassID() != kKivNetBufferClassID) {
    return nullptr;
  }
  return buffer;
}

UInt32 GetHeaderType(HANDLE ptrMsg) {
  const KivNetBuffer *buffer = VerifyBufferHandle(ptrMsg);
  return buffer != nullptr ? buffer->GetHeaderType()
                           : InterfaceCode(kFnGetHeaderType, kKindBadBuffer);
}

UInt32 GetCommandType(HANDLE ptrMsg) {
  const KivNetBuffer *buffer = VerifyBufferHandle(ptrMsg);
  return buffer != nullptr ? buffer->GetCommandType()
                           : InterfaceCode(kFnGetCommandType, kKindBadBuffer);
}

// ---- Message building -------------------------------------------------------------------------

// ---- Message parsing and records --------------------------------------------------------------

// ---- UDP sockets and addresses ----------------------------------------------------------------

namespace {

// The class identifier each socket kind (0, 1, 2) must carry.
const UInt32 kSocketClassIDs[] = {kKivUDPSocketClassID, kKivTCPClientSocketClassID,
                                  kKivTCPServerSocketClassID};

// The UDP socket behind a handle of kind 0, or null.
KivUDPSocket *VerifyUDPSocketHandle(HANDLE objHandle) {
  return static_cast<KivUDPSocket *>(VerifySocketHandle(objHandle, kSocketKindUDP));
}

// Size of the receive area of RecvFrom: the largest datagram a host receives whole.
constexpr int kReceiveAreaSize = 1024;

} // namespace

HANDLE OpenUDPSocket(int iPort) {
  return HandleOrNull<KivSocketException>([&]() { return new KivUDPSocket(iPort); });
}

UInt32 BindUDPSocket(HANDLE objHandle) {
  KivUDPSocket *socket = VerifyUDPSocketHandle(objHandle);
  if (socket == nullptr) {
    return InterfaceCode(kFnBindUDPSocket, kKindBadSocket);
  }
  return Guarded<KivSocketException>(kFnBindUDPSocket, [&]() -> UInt32 { return socket->Bind(); });
}

UInt32 SetSocketOptions(HANDLE objHandle, int iSocketType, SOCKET_OPTIONS iOptionType,
                        int iTimeOut) {
  KivSocket *socket = VerifySocketHandle(objHandle, iSocketType);
  if (socket == nullptr) {
    return InterfaceCode(kFnSetSocketOptions, kKindBadSocket);
  }
  if (iOptionType > TIME_OUT) {
    return InterfaceCode(kFnSetSocketOptions, kKindUnsupported);
  }
  // A negative time-out would make every receive return at once; refused before anything changes.
  if (iOptionType == TIME_OUT && iSocketType == kSocketKindUDP && iTimeOut < 0) {
    return InterfaceCode(kFnSetSocketOptions, kKindUnsupported);
  }
  return Guarded<KivSocketException>(kFnSetSocketOptions, [&]() -> UInt32 {
    switch (iOptionType) {
    case REUSE_ADDRESS:
      return socket->SetReuseAddress();
    case REUSE_PORT:
      return socket->SetReusePort();
    case BROADCAST_PERMITTED:
      return socket->SetBroadcastPermitted();
    case BROADCAST_PERMITTED_OFF:
      return socket->SetBroadcastPermittedOff();
    case NO_DELAY:
      return socket->SetNoDelay();
    case TIME_OUT:
      // The TCP sockets bound their waits per call (the managed reads and writes), so the option
      // only has a meaning for the datagram socket.
      if (iSocketType == kSocketKindUDP) {
        return static_cast<KivUDPSocket *>(socket)->SetTimeOut(iTimeOut);
      }
      return 0;
    }
    return InterfaceCode(kFnSetSocketOptions, kKindUnsupported);
  });
}

UInt32 SendTo(HANDLE objHandle, HANDLE ptrSocketAddr, HANDLE ptrMsg, unsigned int flags,
              int &iMsgSent) {
  KivUDPSocket *socket = VerifyUDPSocketHandle(objHandle);
  if (socket == nullptr) {
    return InterfaceCode(kFnSendTo, kKindBadSocket);
  }
  const KivNetBuffer *message = VerifyBufferHandle(ptrMsg);
  if (message == nullptr) {
    return InterfaceCode(kFnSendTo, kKindBadBuffer);
  }
  // The address is checked as well: a foreign handle read as an address would send to whatever
  // its bytes happen to say.
  const KivSocketAddress *target = VerifySockAddressHandle(ptrSocketAddr);
  if (target == nullptr) {
    return InterfaceCode(kFnSendTo, kKindBadAddress);
  }
  return Guarded<KivSocketException>(kFnSendTo, [&]() -> UInt32 {
    KivSocketAddress destination(*target);
    iMsgSent =
        socket->SendTo(destination, message->GetBufferRef(), message->GetBufferLength(), flags);
    return 0;
  });
}

UInt32 RecvFrom(HANDLE objHandle, HANDLE ptrSocketAddr, HANDLE ptrMsg, unsigned int flags,
                int &iMsgRecv) {
  (void)flags; // the receive is always made without flags
  KivUDPSocket *socket = VerifyUDPSocketHandle(objHandle);
  if (socket == nullptr) {
    return InterfaceCode(kFnRecvFrom, kKindBadSocket);
  }
  KivNetBuffer *message = VerifyBufferHandle(ptrMsg);
  if (message == nullptr) {
    return InterfaceCode(kFnRecvFrom, kKindBadBuffer);
  }
  KivSocketAddress *sender = VerifySockAddressHandle(ptrSocketAddr);
  if (sender == nullptr) {
    return InterfaceCode(kFnRecvFrom, kKindBadAddress);
  }
  return Guarded<KivSocketException>(kFnRecvFrom, [&]() -> UInt32 {
    std::unique_ptr<unsigned char[]> area(new unsigned char[kReceiveAreaSize]);
    KivSocketAddress from("", 0);
    const int count = socket->RecvFrom(from, area.get(), kReceiveAreaSize, 0);
    iMsgRecv = count;
    sender->SetAddress(from.GetIPAddress(), from.GetPort());
    message->SetBuffer(area.get(), count);
    return 0;
  });
}

UInt32 CloseUDPSocket(HANDLE objHandle) {
  KivUDPSocket *socket = VerifyUDPSocketHandle(objHandle);
  if (socket == nullptr) {
    return InterfaceCode(kFnCloseUDPSocket, kKindBadSocket);
  }
  return Guarded<NoFamily>(kFnCloseUDPSocket,
                           [&]() -> UInt32 { return static_cast<UInt32>(socket->Close()); });
}

int RevitalizeSocket(HANDLE objHandle, int iType) {
  KivSocket *socket = VerifySocketHandle(objHandle, iType);
  if (socket == nullptr) {
    return static_cast<int>(InterfaceCode(kFnRevitalizeSocket, kKindBadSocket));
  }
  return static_cast<int>(Guarded<KivSocketException>(kFnRevitalizeSocket, [&]() -> UInt32 {
    if (iType == kSocketKindTCPChannel) {
      return 0; // a channel makes its own descriptor when it opens
    }
    return static_cast<UInt32>(socket->Revitalize());
  }));
}

HANDLE CreateSocketAddress(std::string &strAddress, int iPort) {
  return new KivSocketAddress(strAddress, iPort);
}

UInt32 GetAddressPort(HANDLE objHandle, std::string *strAddress, int *iPort) {
  const KivSocketAddress *address = VerifySockAddressHandle(objHandle);
  if (address == nullptr) {
    return InterfaceCode(kFnGetAddressPort, kKindBadAddress);
  }
  return Guarded<NoFamily>(kFnGetAddressPort, [&]() -> UInt32 {
    if (strAddress != nullptr) {
      *strAddress = address->GetIPAddress();
    }
    if (iPort != nullptr) {
      *iPort = address->GetPort();
    }
    return 0;
  });
}

KivSocketAddress *VerifySockAddressHandle(HANDLE objHandle) {
  KivSocketAddress *address = static_cast<KivSocketAddress *>(objHandle);
  if (address == nullptr || address->getClassID() != kKivSocketAddressClassID) {
    return nullptr;
  }
  return address;
}

KivSocket *VerifySocketHandle(HANDLE objHandle, int iType) {
  // The kind and the null test come first: the class identifier is read only from a handle that
  // may be a socket.
  if (iType < kSocketKindUDP || iType > kSocketKindTCPServer || objHandle == nullptr) {
    return nullptr;
  }
  KivSocket *socket = static_cast<KivSocket *>(objHandle);
  return socket->getClassID() == kSocketClassIDs[iType] ? socket : nullptr;
}
