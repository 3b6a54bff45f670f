// Readable text for the library's result codes. Every number comes from the library's public
// headers (function numbers, class and member numbers, error values), so the texts follow the
// library when it changes.
#include "tools/kivnet/ResultCodes.h"

#include <cstdio>

#include "Asm_Deasm/KivHBN3Disassembler.h"
#include "CommonFiles/KivNetBuffer.h"
#include "Exceptions/KivSocketExceptions.h"
#include "Exceptions/KivWrapperException.h"
#include "HBN3/KivHBN3Header.h"
#include "HBN3/KivHBN3PayLoad.h"
#include "HCP/KivHCPConfigHeader.h"
#include "HCP/KivHCPDiscoveryHeader.h"
#include "Interfaces/KivCallFrame.h"

namespace kivnet {

namespace {

using namespace kiv::frame;

struct Named {
  UInt32 number;
  const char *name;
};

// Exported code-returning functions by their number NN (bits 15-8 of 0x0A09NNKK).
const Named kFunctions[] = {
    {kFnCreateDiscovery, "CreateDiscovery"},
    {kFnCreatePing, "CreatePing"},
    {kFnCreateStatusCacheRequest, "CreateStatusCacheRequest"},
    {kFnCreateHostListEntry, "CreateHostListEntry"},
    {kFnCreateRequestScan, "CreateRequestScan"},
    {kFnCreateRequestScanReply, "CreateRequestScanReply"},
    {kFnCreateIPConfig, "CreateIPConfig"},
    {kFnParseHCPResponse, "ParseHCPResponse"},
    {kFnParsePingResponse, "ParsePingResponse"},
    {kFnParseRequestScanResponse, "ParseRequestScanResponse"},
    {kFnParseHostListEntryResponse, "ParseHostListEntryResponse"},
    {kFnParseStatusCacheResponse, "ParseStatusCacheResponse"},
    {kFnGetHeaderType, "GetHeaderType"},
    {kFnGetCommandType, "GetCommandType"},
    {kFnSendTo, "SendTo"},
    {kFnRecvFrom, "RecvFrom"},
    {kFnCloseUDPSocket, "CloseUDPSocket"},
    {kFnSetSocketOptions, "SetSocketOptions"},
    {kFnBindUDPSocket, "BindUDPSocket"},
    {kFnGetAddressPort, "GetAddressPort"},
    {kFnWrite, "Write"},
    {kFnWriteManaged, "WriteManaged"},
    {kFnRead, "Read"},
    {kFnReadManaged, "ReadManaged"},
    {kFnRegisterReadCallback, "RegisterReadCallback"},
    {kFnCloseTCPSocket, "CloseTCPSocket"},
    {kFnGetSocketID, "GetSocketID"},
    {kFnRevitalizeSocket, "RevitalizeSocket"},
    {kFnParseRequestScan, "ParseRequestScan"},
};

// Failure kinds KK of the interface layer.
const Named kKinds[] = {
    {kKindGeneral, "general failure (no builder or parser for the header type, or an unexpected "
                   "exception)"},
    {kKindBadBuffer, "invalid buffer handle"},
    {kKindBadSocket, "invalid socket handle"},
    {kKindBadAddress, "invalid address handle"},
    {kKindUnsupported, "socket kind or option not served by this function"},
};

// What failed in the message layer, by class number + member function number (bits 23-8 of the
// code), said in terms of the message rather than the class that reads or writes it.
const Named kMembers[] = {
    {kClassHBN3Header + KivHBN3Header::kFnConstructor, "an HBN3 message could not be made"},
    {kClassHBN3Header + KivHBN3Header::kFnSetDataHeader, "an HBN3 header could not be read"},
    {kClassHBN3Header + KivHBN3Header::kFnGetDataHeader, "an HBN3 header could not be written"},
    {kClassHBN3Header + KivHBN3Header::kFnGetPayload, "an HBN3 payload could not be written"},
    {kClassHBN3ScanHostPayLoad + KivHBN3ScanHostPayLoad::kFnConstructor,
     "the host-list entry could not be made"},
    {kClassHBN3ScanHostPayLoad + KivHBN3ScanHostPayLoad::kFnGetDataPayload,
     "the host-list entry could not be written"},
    {kClassHBN3StatusCacheResponsePayload + KivHBN3StatusCacheResponsePayload::kFnConstructor,
     "the status answer's payload could not be read"},
    {kClassHBN3StatusCacheResponsePayload + KivHBN3StatusCacheResponsePayload::kFnGetStrAdapterUAA,
     "the status answer's adapter MAC address could not be read"},
    {kClassHBN3StatusCacheResponsePayload +
         KivHBN3StatusCacheResponsePayload::kFnGetIPAddressString,
     "the status answer's adapter address could not be read"},
    {kClassHBN3StatusCacheResponsePayload + KivHBN3StatusCacheResponsePayload::kFnGetDataPayload,
     "the status answer's status bytes could not be read"},
    {kClassHCPConfigHeader + KivHCPConfigHeader::kFnGetDataHeader,
     "the configuration message could not be written"},
    {kClassHCPConfigHeader + KivHCPConfigHeader::kFnSetDestUAA,
     "the configuration message's MAC address could not be set"},
    {kClassHCPConfigHeader + KivHCPConfigHeader::kFnSetEncryptedPassword,
     "the configuration message's password could not be set"},
    {kClassHCPConfigHeader + KivHCPConfigHeader::kFnSetConfigTextRecord,
     "the configuration message's address lines could not be set"},
    {kClassHCPConfigText + KivHCPConfigText::kFnGetHCPConfigText,
     "the configuration message's address lines could not be written"},
    {kClassHCPDiscoveryHeader + KivHCPDiscoveryHeader::kFnGetDataHeader,
     "the discovery query could not be written"},
    {kClassHBN3Disassembler + KivHBN3Disassembler::kFnSetMessage,
     "the received message could not be taken for reading"},
    {kClassHBN3Disassembler + KivHBN3Disassembler::kFnParseHCPResponse,
     "the HCP answer could not be read"},
    {kClassHBN3Disassembler + KivHBN3Disassembler::kFnParseStatusCacheResponse,
     "the status answer could not be read"},
    {kClassHBN3Disassembler + KivHBN3Disassembler::kFnParseHostListEntryResponse,
     "the host-list answer could not be read"},
    {kClassHBN3Disassembler + KivHBN3Disassembler::kFnParsePingResponse,
     "the ping answer could not be read"},
    {kClassHBN3Disassembler + KivHBN3Disassembler::kFnParseRequestScanResponse,
     "the request-scan answer could not be read"},
    {kClassHBN3Disassembler + KivHBN3Disassembler::kFnParseRequestScan,
     "the scan request could not be read"},
    {kClassHBN3Disassembler + KivHBN3Disassembler::kFnCopyData,
     "a value of the HCP answer could not be cut out"},
    {kClassNetBuffer + KivNetBuffer::kFnGetBuffer, "a message container could not be read"},
    {kClassNetBuffer + KivNetBuffer::kFnSetBuffer, "a message container could not be filled"},
    {kClassNetBuffer + KivNetBuffer::kFnExtractFromBuffer,
     "bytes could not be taken from a message container"},
    {kClassNetBuffer + KivNetBuffer::kFnInsertIntoBuffer,
     "bytes could not be added to a message container"},
};

// The class numbers of the message layer, for a member the table above does not know.
const Named kClasses[] = {
    {kClassHBN3Header, "HBN3 header"},
    {kClassHBN3ScanHostPayLoad, "host-list entry"},
    {kClassHBN3StatusCacheResponsePayload, "status answer payload"},
    {kClassHCPConfigHeader, "configuration message"},
    {kClassHCPConfigText, "configuration address lines"},
    {kClassHCPDiscoveryHeader, "discovery query"},
    {kClassHBN3Disassembler, "answer parser"},
    {kClassNetBuffer, "message container"},
};

// Message-layer errors by value (the code's low byte minus 0xA0).
const Named kWrapperErrors[] = {
    {BUFFER_NULL, "BUFFER_NULL"},
    {BUFFER_SIZE_ERROR, "BUFFER_SIZE_ERROR"},
    {COPY_ERROR, "COPY_ERROR"},
    {PARSE_ERROR, "PARSE_ERROR"},
    {MESSAGE_OBJ_NULL, "MESSAGE_OBJ_NULL"},
    {INVALID_HDR_TYPE, "INVALID_HDR_TYPE"},
    {INVALID_RESPONSE, "INVALID_RESPONSE"},
    {BUFFER_ERROR, "BUFFER_ERROR"},
};

// Socket-layer errors by value (the code's low byte minus 0xB0).
const Named kSocketErrors[] = {
    {REUSE_PORT_ERROR, "address or port reuse refused (REUSE_PORT_ERROR)"},
    {BROADCAST_NOT_PERMITTED_ERROR, "broadcast switch refused (BROADCAST_NOT_PERMITTED_ERROR)"},
    {NODELAY_NOT_PERMITTED_ERROR, "no-delay refused (NODELAY_NOT_PERMITTED_ERROR)"},
    {UNKNOWN_ERROR, "no descriptor could be made, or the socket is closed (UNKNOWN_ERROR)"},
    {BIND_UDP_ERROR, "the UDP bind failed (BIND_UDP_ERROR)"},
    {RECVFROM_ERROR, "the receive failed or timed out (RECVFROM_ERROR)"},
    {SENDTO_ERROR, "the send failed (SENDTO_ERROR)"},
    {UNKNOWN_UDP_ERROR, "UDP failure (UNKNOWN_UDP_ERROR)"},
    {CONNECT_ERROR, "the connection failed (CONNECT_ERROR)"},
    {CLIENT_RECV_ERROR, "receive on a channel failed (CLIENT_RECV_ERROR)"},
    {CLIENT_SEND_ERROR, "send on a channel failed (CLIENT_SEND_ERROR)"},
    {UNKNOWN_TCP_ERROR, "TCP failure (UNKNOWN_TCP_ERROR)"},
    {BIND_TCP_ERROR, "the TCP bind failed (BIND_TCP_ERROR)"},
    {LISTEN_ERROR, "listen failed (LISTEN_ERROR)"},
    {ACCEPT_ERROR, "accept failed (ACCEPT_ERROR)"},
    {SERVER_RECV_ERROR, "receive on a server socket failed (SERVER_RECV_ERROR)"},
    {SERVER_SEND_ERROR, "send on a server socket failed (SERVER_SEND_ERROR)"},
    {GETSOCKOPT_FAILED, "a socket option could not be read or set (GETSOCKOPT_FAILED)"},
    {SELECT_ERROR, "a readiness wait failed (SELECT_ERROR)"},
};

// Offsets of the error values in a code's low byte.
constexpr UInt32 kWrapperErrorBase = 0xA0;
constexpr UInt32 kSocketErrorBase = 0xB0;

template <std::size_t N> const char *Find(const Named (&table)[N], UInt32 number) {
  for (const Named &entry : table) {
    if (entry.number == number) {
      return entry.name;
    }
  }
  return nullptr;
}

std::string Hex2(UInt32 value) {
  char text[8];
  std::snprintf(text, sizeof text, "0x%02X", static_cast<unsigned>(value & 0xFF));
  return text;
}

const char *const kNotACode = "not a KivNetworkComm result code";

std::string DescribeInterfaceCode(UInt32 code) {
  const UInt32 function = (code >> 8) & 0xFF;
  const UInt32 kind = code & 0xFF;
  std::string name = FunctionName(function);
  if (name.empty()) {
    name = "function " + Hex2(function) + " (unknown)";
  }
  const char *meaning = Find(kKinds, kind);
  if (meaning == nullptr) {
    return name + ": failure kind " + Hex2(kind) + " (unknown)";
  }
  return name + ": " + meaning;
}

std::string DescribeWrapperCode(UInt32 code) {
  const UInt32 classNumber = code & 0x00FF0000u;
  const UInt32 member = code & 0x00FFFF00u;
  const UInt32 low = code & 0xFF;
  const char *className = Find(kClasses, classNumber);
  const char *error =
      low > kWrapperErrorBase ? Find(kWrapperErrors, low - kWrapperErrorBase) : nullptr;
  if (className == nullptr || error == nullptr) {
    return kNotACode;
  }
  const char *what = Find(kMembers, member);
  const std::string where =
      what != nullptr ? what
                      : std::string(className) + " function " + Hex2(member >> 8) + " failed";
  return where + " (" + error + ")";
}

} // namespace

std::string CodeHex(UInt32 code) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(code));
  return text;
}

std::string FunctionName(UInt32 number) {
  const char *name = Find(kFunctions, number);
  return name != nullptr ? name : "";
}

std::string DescribeCode(UInt32 code) {
  if (code == 0) {
    return "success";
  }
  if ((code & 0xFFFF0000u) == kInterfaceCodeBase) {
    return DescribeInterfaceCode(code);
  }
  if ((code & 0xFF000000u) != kExceptionCodeBase) {
    return kNotACode;
  }
  const UInt32 source = (code >> 16) & 0xFF;
  if (source != 0) {
    return DescribeWrapperCode(code);
  }
  const UInt32 low = code & 0xFF;
  const char *error = (code & 0xFF00u) == 0 && low > kSocketErrorBase
                          ? Find(kSocketErrors, low - kSocketErrorBase)
                          : nullptr;
  return error != nullptr ? error : kNotACode;
}

} // namespace kivnet
