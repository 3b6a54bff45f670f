// The exported functions. Each code-returning function validates its handles, then runs its
// operation through the shared call frame (KivCallFrame.h); none has a try/catch of its own.
#include "Interfaces/KivNetworkComm.h"

#include <memory>
#include <utility>

#include "Asm_Deasm/KivAssembler.h"
#include "Asm_Deasm/KivDisassembler.h"
#include "CommonFiles/KivAsm_DeasmFactory.h"
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

namespace {

// The frame shared by the building functions: `build` makes the message with the builder and
// returns it in a container of its own, whose bytes then replace the caller's container.
template <class Build>
UInt32 BuildInto(FunctionNumber function, UInt32 iHeaderType, HANDLE objHeader, Build &&build) {
  KivNetBuffer *target = VerifyBufferHandle(objHeader);
  if (target == nullptr) {
    return InterfaceCode(function, kKindBadBuffer);
  }
  // Outside the guard on purpose: a failed allocation of the builder is the host's
  // std::bad_alloc, not a result code.
  std::unique_ptr<KivAssembler> builder(KivAsm_DeasmFactory::CreateAssembler(iHeaderType));
  if (!builder) {
    return InterfaceCode(function, kKindGeneral);
  }
  return Guarded<KivWrapperException>(function, [&]() -> UInt32 {
    KivNetBuffer message = build(*builder);
    KivNetBufferStorageGuard release(message);
    // The caller's container is touched only here, once the whole message exists. An empty
    // message has no block and is refused by SetBuffer as BUFFER_NULL.
    target->SetBuffer(message.GetBufferRef(), message.GetBufferLength());
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
  return Guarded<KivWrapperException>(function, [&]() -> UInt32 {
    std::unique_ptr<KivDisassembler> parser(
        KivAsm_DeasmFactory::CreateDisassembler(iHeaderType, message));
    if (!parser) {
      return InterfaceCode(function, kKindGeneral);
    }
    return parse(std::move(parser));
  });
}

// Replaces `record` with `updated` without a step that can fail, so a failure while the fields
// were being copied (memory for a string) leaves the caller's record as it was.
template <class Record> UInt32 Commit(Record &record, Record &updated) {
  record = std::move(updated);
  return 0;
}

// The three fields every HBN3 answer parser fills.
UInt32 CopyResponse(const HBNResponseInfo &parsed, HBNResponseInfo &responseInfo) {
  HBNResponseInfo updated = responseInfo;
  updated.iPortInfo = parsed.iPortInfo;
  updated.iChannelID = parsed.iChannelID;
  updated.iStatus = parsed.iStatus;
  return Commit(responseInfo, updated);
}

} // namespace

UInt32 ParseHCPResponse(UInt32 iHeaderType, HANDLE ptrMsg, UInt32 iType, KivNetRecord &DeviceRec) {
  return ParseFrom(kFnParseHCPResponse, iHeaderType, ptrMsg,
                   [&](std::unique_ptr<KivDisassembler> parser) -> UInt32 {
                     KivNetRecord parsed;
                     const UInt32 result = parser->ParseHCPResponse(iType, parsed);
                     parser.reset();
                     if (result != 0) {
                       return result;
                     }
                     KivNetRecord updated = DeviceRec;
                     // Only a configuration answer has a result byte; after a discovery answer
                     // the caller's value stays.
                     if (iType != kHCPDiscoveryResponse) {
                       updated.iResponse = parsed.iResponse;
                     }
                     updated.strIPAddr = parsed.strIPAddr;
                     updated.strIPNetMask = parsed.strIPNetMask;
                     updated.strIPGateway = parsed.strIPGateway;
                     updated.strIPName = parsed.strIPName;
                     updated.strMacLaa = parsed.strMacLaa;
                     updated.strMacUaa = parsed.strMacUaa;
                     updated.strAdapterType = parsed.strAdapterType;
                     updated.strIPAddrSrc = parsed.strIPAddrSrc;
                     updated.strOEMByte = parsed.strOEMByte;
                     updated.strPwdSet = parsed.strPwdSet;
                     updated.strProdID = parsed.strProdID;
                     updated.strAdapterName = parsed.strAdapterName;
                     updated.strCPDAttached = parsed.strCPDAttached;
                     updated.strPrintrVidPid = parsed.strPrintrVidPid;
                     updated.vecDeviceSpecific = parsed.vecDeviceSpecific;
                     return Commit(DeviceRec, updated);
                   });
}

UInt32 ParsePingResponse(UInt32 iHeaderType, HANDLE ptrMsg, HBNResponseInfo &responseInfo) {
  return ParseFrom(kFnParsePingResponse, iHeaderType, ptrMsg,
                   [&](std::unique_ptr<KivDisassembler> parser) {
                     const HBNResponseInfo parsed = parser->ParsePingResponse();
                     parser.reset();
                     return CopyResponse(parsed, responseInfo);
                   });
}

UInt32 ParseRequestScanResponse(UInt32 iHeaderType, HANDLE ptrMsg, HBNResponseInfo &responseInfo) {
  return ParseFrom(kFnParseRequestScanResponse, iHeaderType, ptrMsg,
                   [&](std::unique_ptr<KivDisassembler> parser) {
                     const HBNResponseInfo parsed = parser->ParseRequestScanResponse();
                     parser.reset();
                     return CopyResponse(parsed, responseInfo);
                   });
}

UInt32 ParseHostListEntryResponse(UInt32 iHeaderType, HANDLE ptrMsg,
                                  HBNResponseInfo &responseInfo) {
  return ParseFrom(kFnParseHostListEntryResponse, iHeaderType, ptrMsg,
                   [&](std::unique_ptr<KivDisassembler> parser) {
                     const HBNResponseInfo parsed = parser->ParseHostListEntryResponse();
                     parser.reset();
                     return CopyResponse(parsed, responseInfo);
                   });
}

UInt32 ParseStatusCacheResponse(UInt32 iHeaderType, HANDLE ptrMsg,
                                StatCacheResponse &statResponse) {
  return ParseFrom(kFnParseStatusCacheResponse, iHeaderType, ptrMsg,
                   [&](std::unique_ptr<KivDisassembler> parser) {
                     StatCacheResponse parsed = parser->ParseStatusCacheResponse();
                     parser.reset();
                     StatCacheResponse updated = statResponse;
                     updated.iPortInfo = parsed.iPortInfo;
                     updated.iChannelID = parsed.iChannelID;
                     updated.strAdapterUAA = parsed.strAdapterUAA;
                     updated.iReserved = parsed.iReserved;
                     updated.strAdapterIPAddr = parsed.strAdapterIPAddr;
                     updated.strPrinterID = parsed.strPrinterID;
                     updated.iPayloadLength = parsed.iPayloadLength;
                     updated.strPayload = parsed.strPayload;
                     return Commit(statResponse, updated);
                   });
}

UInt32 ParseRequestScan(UInt32 iHeaderType, HANDLE ptrMsg, HBNResponseInfo &responseInfo) {
  return ParseFrom(kFnParseRequestScan, iHeaderType, ptrMsg,
                   [&](std::unique_ptr<KivDisassembler> parser) {
                     const HBNResponseInfo parsed = parser->ParseRequestScan();
                     parser.reset();
                     HBNResponseInfo updated = responseInfo;
                     updated.iPortInfo = parsed.iPortInfo;
                     updated.iChannelID = parsed.iChannelID;
                     updated.iReport = parsed.iReport;
                     updated.iTimeStamp = parsed.iTimeStamp;
                     return Commit(responseInfo, updated);
                   });
}

HANDLE CreateStatCacheResponse() { return new StatCacheResponse(); }

HANDLE CreateKivNetRecord() { return new KivNetRecord(); }

// ---- UDP sockets and addresses ----------------------------------------------------------------
