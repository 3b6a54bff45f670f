// The exported functions. Each code-returning function validates its handles, then runs its
// operation through the shared call frame (KivCallFrame.h); none has a try/catch of its own.
#include "Interfaces/KivNetworkComm.h"

#include <climits>
#include <memory>
#include <type_traits>
#include <utility>

#include "Asm_Deasm/KivAssembler.h"
#include "Asm_Deasm/KivDisassembler.h"
#include "Asm_Deasm/KivHBN3Assembler.h"
#include "Asm_Deasm/KivHBN3Disassembler.h"
#include "CommonFiles/KivAsm_DeasmFactory.h"
#include "CommonFiles/KivHandleRegistry.h"
#include "HelperFiles/KivBonjourUtil.h"
#include "HelperFiles/KivNetHelperUtils.h"
#include "Interfaces/KivCallFrame.h"

using namespace kiv::frame;

int mDebugLevel = 0;

// ---- Handles and message containers -----------------------------------------------------------

namespace {

// Hands a new object to the host as a handle with class identifier `classID`: from now on the
// handle checks accept it. If the record cannot be made the object is released and the
// std::bad_alloc leaves as from the allocation itself.
template <class Object> HANDLE HandOver(Object *object, UInt32 classID) {
  std::unique_ptr<Object> owned(object);
  kiv::RegisterHandle(static_cast<HANDLE>(object), classID);
  return owned.release();
}

// The object behind `objHandle` when the library made it as a handle with class identifier
// `classID` and it still lives; otherwise null. Nothing behind the pointer is read to decide.
template <class Object> Object *LiveHandle(HANDLE objHandle, UInt32 classID) {
  return kiv::IsHandleOfKind(objHandle, classID) ? static_cast<Object *>(objHandle) : nullptr;
}

} // namespace

HANDLE CreateBuffer() { return HandOver(new KivNetBuffer(), kKivNetBufferClassID); }

KivNetBuffer *VerifyBufferHandle(HANDLE objHandle) {
  return LiveHandle<KivNetBuffer>(objHandle, kKivNetBufferClassID);
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

namespace {

// The frame shared by the building functions: `build` makes the message with the builder and
// returns it in a container of its own, whose block then becomes the caller's container's content.
template <class Build>
UInt32 BuildInto(FunctionNumber function, UInt32 iHeaderType, HANDLE objHeader, Build &&build) {
  KivNetBuffer *target = VerifyBufferHandle(objHeader);
  if (target == nullptr) {
    return InterfaceCode(function, kKindBadBuffer);
  }
  if (!KivAsm_DeasmFactory::IsKnownHeaderType(iHeaderType)) {
    return InterfaceCode(function, kKindGeneral);
  }
  // The builder the factory makes for both header types, held here rather than on the heap: it
  // keeps no state and is gone when this function returns.
  KivHBN3Assembler builder;
  return Guarded<KivWrapperException>(function, [&]() -> UInt32 {
    KivNetBuffer message = build(static_cast<KivAssembler &>(builder));
    KivNetBufferStorageGuard release(message);
    // The caller's container is touched only here, once the whole message exists, and takes the
    // message's block as it is: the message is not copied again. An empty message has no block
    // and is refused as SetBuffer refuses it, BUFFER_NULL.
    target->TakeBuffer(message);
    return 0;
  });
}

} // namespace

UInt32 CreateDiscovery(UInt32 iHeaderType, HANDLE objHeader) {
  return BuildInto(kFnCreateDiscovery, iHeaderType, objHeader,
                   [](KivAssembler &builder) { return builder.CreateDiscover(); });
}

UInt32 CreatePing(UInt32 iHeaderType, UInt32 iTimeStamp, HANDLE objHeader) {
  return BuildInto(kFnCreatePing, iHeaderType, objHeader,
                   [&](KivAssembler &builder) { return builder.CreatePing(iTimeStamp); });
}

UInt32 CreateStatusCacheRequest(UInt32 iHeaderType, UInt32 iPortInfo, UInt32 iChannelID,
                                UInt32 iTimeStamp, HANDLE objHeader) {
  return BuildInto(kFnCreateStatusCacheRequest, iHeaderType, objHeader, [&](KivAssembler &builder) {
    return builder.CreateStatusCacheRequest(iPortInfo, iChannelID, iTimeStamp);
  });
}

UInt32 CreateHostListEntry(UInt32 iHeaderType, bool bPwdFlag, int iType, UInt32 iPortInfo,
                           UInt32 iTimeStamp, char *strHostname, std::string &strPinNum,
                           unsigned char *cUniqueID, UInt16 iCodePage, HANDLE objHeader) {
  // The builder takes the PIN by value: it gets a copy and the caller's string stays as it is.
  return BuildInto(kFnCreateHostListEntry, iHeaderType, objHeader, [&](KivAssembler &builder) {
    return builder.CreateHostListEntry(bPwdFlag, iType, iPortInfo, iTimeStamp, strHostname,
                                       strPinNum, cUniqueID, iCodePage);
  });
}

UInt32 CreateRequestScan(UInt32 iHeaderType, bool bPwdFlag, UInt32 iPortInfo, UInt32 iTimeStamp,
                         UInt64 iHIDRep, HANDLE objHeader) {
  return BuildInto(kFnCreateRequestScan, iHeaderType, objHeader, [&](KivAssembler &builder) {
    return builder.CreateRequestScan(bPwdFlag, iPortInfo, iTimeStamp, iHIDRep);
  });
}

UInt32 CreateRequestScanReply(UInt32 iHeaderType, bool bPwdFlag, UInt32 iPortInfo,
                              UInt32 iTimeStamp, HANDLE objHeader) {
  return BuildInto(kFnCreateRequestScanReply, iHeaderType, objHeader, [&](KivAssembler &builder) {
    return builder.CreateRequestScanReply(bPwdFlag, iPortInfo, iTimeStamp);
  });
}

UInt32 CreateIPConfig(UInt32 iHeaderType, std::string &strDestMacAddress,
                      std::string &strSrcMacAddress, std::string &strSrcIPAddress,
                      std::string &strDestIPAddress, std::string &strPassword,
                      std::string &strNetMask, std::string &strGateway, HANDLE objHeader) {
  // By-value parameters: the builder works on copies of the seven strings.
  return BuildInto(kFnCreateIPConfig, iHeaderType, objHeader, [&](KivAssembler &builder) {
    return builder.CreateIPConfig(strDestMacAddress, strSrcMacAddress, strSrcIPAddress,
                                  strDestIPAddress, strPassword, strNetMask, strGateway);
  });
}

// ---- Message parsing and records --------------------------------------------------------------

namespace {

// The frame shared by the parsing functions: `parse` reads the message with a parser that holds
// its own copy of it and updates the caller's record.
template <class Parse>
UInt32 ParseFrom(FunctionNumber function, UInt32 iHeaderType, HANDLE ptrMsg, Parse &&parse) {
  KivNetBuffer *message = VerifyBufferHandle(ptrMsg);
  if (message == nullptr) {
    return InterfaceCode(function, kKindBadBuffer);
  }
  if (!KivAsm_DeasmFactory::IsKnownHeaderType(iHeaderType)) {
    return InterfaceCode(function, kKindGeneral);
  }
  return Guarded<KivWrapperException>(function, [&]() -> UInt32 {
    // The parser the factory makes for both header types, held here rather than on the heap; it
    // and its copy of the message are gone when this function returns.
    KivHBN3Disassembler parser;
    parser.SetMessage(message);
    return parse(static_cast<KivDisassembler &>(parser));
  });
}

// Runs the parser's `operation` and writes its result into the caller's `record` with `copy`,
// which writes exactly the fields that function fills and cannot fail, so a failure leaves the
// caller's record as it was.
template <class Record, class Parsed, class Copy>
UInt32 ParseInto(FunctionNumber function, UInt32 iHeaderType, HANDLE ptrMsg,
                 Parsed (KivDisassembler::*operation)(), Record &record, Copy copy) {
  return ParseFrom(function, iHeaderType, ptrMsg, [&](KivDisassembler &parser) -> UInt32 {
    Parsed parsed = (parser.*operation)();
    copy(parsed, record);
    return 0;
  });
}

// The three fields every HBN3 answer parser fills.
void CopyResponse(HBNResponseInfo &parsed, HBNResponseInfo &record) noexcept {
  record.iPortInfo = parsed.iPortInfo;
  record.iChannelID = parsed.iChannelID;
  record.iStatus = parsed.iStatus;
}

// The four fields the parser of a device's scan request fills; its status is not one of them.
void CopyScanRequest(HBNResponseInfo &parsed, HBNResponseInfo &record) noexcept {
  record.iPortInfo = parsed.iPortInfo;
  record.iChannelID = parsed.iChannelID;
  record.iReport = parsed.iReport;
  record.iTimeStamp = parsed.iTimeStamp;
}

// Every field of the status record is the parser's: the parsed strings move into the caller's
// record rather than being copied.
static_assert(std::is_nothrow_move_assignable<StatCacheResponse>::value,
              "a status record is handed over without a step that can fail");
void CopyStatus(StatCacheResponse &parsed, StatCacheResponse &record) noexcept {
  record = std::move(parsed);
}

// What the HCP parser gives a host: the fourteen strings and the device entries of a fresh record
// (those it does not fill are empty), which replace the host's, and for a configuration answer
// (`iType` other than the discovery answer) the device's result byte. After a discovery answer
// the host's iResponse stays; iPortInfo always does. The parsed record takes those two from the
// host's and then moves into it whole, so no string or entry is copied.
static_assert(std::is_nothrow_move_assignable<KivNetRecord>::value,
              "a device record is handed over without a step that can fail");
void CopyNetRecord(KivNetRecord &parsed, UInt32 iType, KivNetRecord &record) noexcept {
  if (iType == kHCPDiscoveryResponse) {
    parsed.iResponse = record.iResponse;
  }
  parsed.iPortInfo = record.iPortInfo;
  record = std::move(parsed);
}

} // namespace

UInt32 ParseHCPResponse(UInt32 iHeaderType, HANDLE ptrMsg, UInt32 iType, KivNetRecord &DeviceRec) {
  return ParseFrom(kFnParseHCPResponse, iHeaderType, ptrMsg,
                   [&](KivDisassembler &parser) -> UInt32 {
                     KivNetRecord parsed;
                     const UInt32 result = parser.ParseHCPResponse(iType, parsed);
                     if (result != 0) {
                       return result;
                     }
                     CopyNetRecord(parsed, iType, DeviceRec);
                     return 0;
                   });
}

UInt32 ParsePingResponse(UInt32 iHeaderType, HANDLE ptrMsg, HBNResponseInfo &responseInfo) {
  return ParseInto(kFnParsePingResponse, iHeaderType, ptrMsg, &KivDisassembler::ParsePingResponse,
                   responseInfo, CopyResponse);
}

UInt32 ParseRequestScanResponse(UInt32 iHeaderType, HANDLE ptrMsg, HBNResponseInfo &responseInfo) {
  return ParseInto(kFnParseRequestScanResponse, iHeaderType, ptrMsg,
                   &KivDisassembler::ParseRequestScanResponse, responseInfo, CopyResponse);
}

UInt32 ParseHostListEntryResponse(UInt32 iHeaderType, HANDLE ptrMsg,
                                  HBNResponseInfo &responseInfo) {
  return ParseInto(kFnParseHostListEntryResponse, iHeaderType, ptrMsg,
                   &KivDisassembler::ParseHostListEntryResponse, responseInfo, CopyResponse);
}

UInt32 ParseStatusCacheResponse(UInt32 iHeaderType, HANDLE ptrMsg,
                                StatCacheResponse &statResponse) {
  return ParseInto(kFnParseStatusCacheResponse, iHeaderType, ptrMsg,
                   &KivDisassembler::ParseStatusCacheResponse, statResponse, CopyStatus);
}

UInt32 ParseRequestScan(UInt32 iHeaderType, HANDLE ptrMsg, HBNResponseInfo &responseInfo) {
  return ParseInto(kFnParseRequestScan, iHeaderType, ptrMsg, &KivDisassembler::ParseRequestScan,
                   responseInfo, CopyScanRequest);
}

HANDLE CreateStatCacheResponse() { return new StatCacheResponse(); }

HANDLE CreateKivNetRecord() { return new KivNetRecord(); }

// ---- UDP sockets and addresses ----------------------------------------------------------------

namespace {

// The UDP socket behind a handle of kind 0, or null.
KivUDPSocket *VerifyUDPSocketHandle(HANDLE objHandle) {
  return static_cast<KivUDPSocket *>(VerifySocketHandle(objHandle, kSocketKindUDP));
}

// Size of the receive area of RecvFrom: the largest datagram a host receives whole.
constexpr int kReceiveAreaSize = 1024;

} // namespace

HANDLE OpenUDPSocket(int iPort) {
  return HandleOrNull<KivSocketException>(
      [&]() { return HandOver(new KivUDPSocket(iPort), kKivUDPSocketClassID); });
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
  return HandOver(new KivSocketAddress(strAddress, iPort), kKivSocketAddressClassID);
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
  return LiveHandle<KivSocketAddress>(objHandle, kKivSocketAddressClassID);
}

KivSocket *VerifySocketHandle(HANDLE objHandle, int iType) {
  // Each kind is converted from the handle to its own class first and only then to the base, so
  // the result is right wherever the base lies within the object.
  switch (iType) {
  case kSocketKindUDP:
    return LiveHandle<KivUDPSocket>(objHandle, kKivUDPSocketClassID);
  case kSocketKindTCPChannel:
    // Only OpenTCPSocket records "tcpC" handles, so a kind-1 handle is always a channel (a plain
    // TCP client a host made through its class is no handle).
    return LiveHandle<KivHBN3TCPSocket>(objHandle, kKivTCPClientSocketClassID);
  case kSocketKindTCPServer:
    return LiveHandle<KivTCPServerSocket>(objHandle, kKivTCPServerSocketClassID);
  default:
    return nullptr;
  }
}

// ---- HBN3 TCP channels ------------------------------------------------------------------------

namespace {

// The channel behind a handle of kind 1, or null.
KivHBN3TCPSocket *VerifyChannelHandle(HANDLE objHandle) {
  return static_cast<KivHBN3TCPSocket *>(VerifySocketHandle(objHandle, kSocketKindTCPChannel));
}

// A server socket's descriptors are ints; a length beyond them is refused by the server itself.
int AsLength(unsigned int length) {
  return length > static_cast<unsigned int>(INT_MAX) ? -1 : static_cast<int>(length);
}

// One frame of a channel into the caller's buffer: the payload goes straight there, and only a
// whole frame that fits is written. A frame that does not fit has been consumed all the same
// (the channel throws, which the call frame reports as kind 00).
int ReadChannelFrame(KivHBN3TCPSocket &channel, unsigned char *buffer, int length,
                     KivTimeVal *timeout, int maxTicklePackets) {
  return channel.ReadInto(buffer, length, timeout, maxTicklePackets);
}

// The read functions' shared frame: kind 1 reads a frame (with `timeout`, or none), kind 2 one
// receive from the server's current client.
UInt32 ReadFrom(FunctionNumber function, HANDLE objHandle, int iType, unsigned char *buffer,
                int length, KivTimeVal *timeout, int maxTicklePackets, int &iMsgRecv) {
  KivSocket *socket = VerifySocketHandle(objHandle, iType);
  if (socket == nullptr) {
    return InterfaceCode(function, kKindBadSocket);
  }
  if (iType == kSocketKindUDP) {
    iMsgRecv = 0;
    return InterfaceCode(function, kKindUnsupported);
  }
  return Guarded<KivSocketException>(function, [&]() -> UInt32 {
    if (iType == kSocketKindTCPChannel) {
      iMsgRecv = ReadChannelFrame(*static_cast<KivHBN3TCPSocket *>(socket), buffer, length, timeout,
                                  maxTicklePackets);
    } else {
      iMsgRecv = static_cast<KivTCPServerSocket *>(socket)->Recv(buffer, length, 0);
    }
    return 0;
  });
}

// The write functions' shared frame: kind 1 writes through the channel (with `timeout`, or
// none), kind 2 makes one send to the server's current client.
UInt32 WriteTo(FunctionNumber function, HANDLE objHandle, int iType, unsigned char *msg,
               unsigned int length, KivTimeVal *timeout, int &iMsgSent) {
  KivSocket *socket = VerifySocketHandle(objHandle, iType);
  if (socket == nullptr) {
    return InterfaceCode(function, kKindBadSocket);
  }
  if (iType == kSocketKindUDP) {
    iMsgSent = 0;
    return InterfaceCode(function, kKindUnsupported);
  }
  return Guarded<KivSocketException>(function, [&]() -> UInt32 {
    if (iType == kSocketKindTCPChannel) {
      KivHBN3TCPSocket *channel = static_cast<KivHBN3TCPSocket *>(socket);
      iMsgSent = timeout != nullptr ? channel->Write(msg, AsLength(length), *timeout)
                                    : channel->Write(msg, AsLength(length));
    } else {
      iMsgSent = static_cast<KivTCPServerSocket *>(socket)->Send(msg, AsLength(length), 0);
    }
    return 0;
  });
}

} // namespace

HANDLE OpenTCPSocket(std::string &ip, int usbEndPoint, KivEndPointInterface endPointInterface,
                     int &iResult) {
  // Every failure of the socket layer, the channel's own among them, gives null; the channel is
  // closed and released on every path that does not return it.
  return HandleOrNull<KivExceptions>([&]() -> HANDLE {
    std::unique_ptr<KivHBN3TCPSocket> channel(
        new KivHBN3TCPSocket(ip, usbEndPoint, endPointInterface));
    iResult = channel->Open();
    if (iResult == kHBN3OpenRefused) {
      return nullptr;
    }
    return HandOver(channel.release(), kKivTCPClientSocketClassID);
  });
}

UInt32 Write(HANDLE objHandle, int iType, unsigned char *msg, unsigned int length, int &iMsgSent) {
  return WriteTo(kFnWrite, objHandle, iType, msg, length, nullptr, iMsgSent);
}

UInt32 WriteManaged(HANDLE objHandle, int iType, unsigned char *msg, unsigned int length,
                    KivTimeVal timeout, int &iMsgSent) {
  return WriteTo(kFnWriteManaged, objHandle, iType, msg, length, &timeout, iMsgSent);
}

UInt32 Read(HANDLE objHandle, int iType, unsigned char *buffer, int length, int maxTicklePackets,
            int &iMsgRecv) {
  return ReadFrom(kFnRead, objHandle, iType, buffer, length, nullptr, maxTicklePackets, iMsgRecv);
}

UInt32 ReadManaged(HANDLE objHandle, int iType, unsigned char *buffer, int length,
                   KivTimeVal timeout, int maxTicklePackets, int &iMsgRecv) {
  return ReadFrom(kFnReadManaged, objHandle, iType, buffer, length, &timeout, maxTicklePackets,
                  iMsgRecv);
}

UInt32 RegisterReadCallback(HANDLE objHandle, KivSocketReadCallback callback, void *anyObject,
                            int numSecs, int numUSecs, bool runInSeparateThread, bool isDetached) {
  KivHBN3TCPSocket *channel = VerifyChannelHandle(objHandle);
  if (channel == nullptr) {
    return InterfaceCode(kFnRegisterReadCallback, kKindBadSocket);
  }
  return Guarded<NoFamily>(kFnRegisterReadCallback, [&]() -> UInt32 {
    return static_cast<UInt32>(channel->RegisterReadCallback(callback, anyObject, numSecs, numUSecs,
                                                             runInSeparateThread, isDetached));
  });
}

pthread_t *GetListenerThreadID(HANDLE objHandle) {
  KivHBN3TCPSocket *channel = VerifyChannelHandle(objHandle);
  return channel != nullptr ? channel->GetListenerThreadID() : nullptr;
}

int GetSocketID(HANDLE objHandle, int iType) {
  KivSocket *socket = VerifySocketHandle(objHandle, iType);
  if (socket == nullptr) {
    return static_cast<int>(InterfaceCode(kFnGetSocketID, kKindBadSocket));
  }
  return static_cast<int>(Guarded<KivSocketException>(kFnGetSocketID, [&]() -> UInt32 {
    if (iType == kSocketKindTCPChannel) {
      return static_cast<UInt32>(static_cast<KivHBN3TCPSocket *>(socket)->GetSocket());
    }
    // The checked descriptor: a closed socket is the socket layer's UNKNOWN_ERROR, 0x0A0000B4.
    return static_cast<UInt32>(socket->GetSocket());
  }));
}

UInt32 CloseTCPSocket(HANDLE objHandle, int iType, int &iResult) {
  KivSocket *socket = VerifySocketHandle(objHandle, iType);
  if (socket == nullptr) {
    return InterfaceCode(kFnCloseTCPSocket, kKindBadSocket);
  }
  return Guarded<KivSocketException>(kFnCloseTCPSocket, [&]() -> UInt32 {
    if (iType == kSocketKindUDP) {
      iResult = static_cast<int>(InterfaceCode(kFnCloseTCPSocket, kKindUnsupported));
    } else if (iType == kSocketKindTCPChannel) {
      iResult = static_cast<KivHBN3TCPSocket *>(socket)->Close();
    } else {
      iResult = socket->Close(); // the listening descriptor; the current client stays open
    }
    return 0;
  });
}

// ---- Host information -------------------------------------------------------------------------
//
// Thin by intent: each makes its own snapshot object, asks once and lets the int -1 of a host
// without a default interface reach the caller, as the header states. No call frame: these
// functions report no codes.

ether_addr *GetHostMACAddress(const char *device) {
  return KivNetHelperUtils().GetHostMACAddress(device);
}

UInt32 GetHostIPAddress() { return KivNetHelperUtils().GetHostIPAddress(); }

UInt32 GetHostBroadcastAddress() { return KivNetHelperUtils().GetHostBroadcastAddress(); }

UInt32 GetHostGateway() { return KivNetHelperUtils().GetHostGateway(); }

UInt32 GetHostNetMask() { return KivNetHelperUtils().GetHostNetMask(); }

std::string GetHostIPAddressString() { return KivNetHelperUtils().GetHostIPAddressString(); }

std::string GetHostBroadcastAddressString() {
  return KivNetHelperUtils().GetHostBroadcastAddressString();
}

std::string GetHostGatewayString() { return KivNetHelperUtils().GetHostGatewayString(); }

std::string GetHostNetMaskString() { return KivNetHelperUtils().GetHostNetMaskString(); }

std::string GetHostname() { return KivNetHelperUtils().GetHostname(); }

unsigned long GetLongFromIP(std::string &ip) {
  const std::string copy = ip;
  return KivNetHelperUtils().GetLongFromIP(copy);
}

bool IsBroadcastAddress(std::string &strAddress) {
  // A plain text comparison: a host that writes the address differently gets false.
  return strAddress == GetHostBroadcastAddressString();
}

void ConvertCharStrToHexVal(const char *destMac, unsigned char *arrMacAddress) {
  // A fresh object each call, so a character that is not a digit never inherits one from an
  // earlier conversion: it is 0.
  KivNetHelperUtils().ConvertCharStrToHexVal(destMac, arrMacAddress);
}

void GetExactHexValOfString(const char *destMac, UInt8 *val) {
  KivNetHelperUtils().GetExactHexValOfString(destMac, val);
}

// ---- Device relocation and debugger entry points ------------------------------------------------
//
// Thin as the host functions, but these report every failure as "not found": even the memory for
// the relocation object failing to come is caught, so nothing leaves them.

bool ResolveNewIPAddress(char *ipAddress, const char *macAddress, UInt16 timeout) {
  try {
    KivNetBonjourUtil relocation;
    return relocation.resolveNewIPAddress(ipAddress, macAddress, timeout);
  } catch (...) {
    return false;
  }
}

std::string QueryMACAddressByHCP(std::string &ipAddress, UInt16 timeout) {
  try {
    KivNetBonjourUtil relocation;
    return relocation.queryMACAddress(ipAddress, timeout);
  } catch (...) {
    return std::string();
  }
}

void InitializeDebugger(int, CFStringRef, std::string &, int) {}

UInt32 SendDebugMessage(int, const char *, ...) { return 0; }

UInt32 SendDebugPacket(int, unsigned char *, int) { return 0; }

void StopDebugger() {}
