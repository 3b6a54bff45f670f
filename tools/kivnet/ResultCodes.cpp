// Readable text for the library's result codes. The tables repeat the numbers the library
// documents for its functions, classes and errors; tests/tools/KivnetResultCodesTest.cpp checks
// each code family against the library's own constants.
#include "tools/kivnet/ResultCodes.h"

#include <cstdio>

namespace kivnet {

namespace {

struct Named {
  UInt32 number;
  const char *name;
};

// Exported code-returning functions by their number NN (bits 15-8 of 0x0A09NNKK).
const Named kFunctions[] = {
    {0x05, "CreateDiscovery"},
    {0x06, "CreatePing"},
    {0x07, "CreateStatusCacheRequest"},
    {0x08, "CreateHostListEntry"},
    {0x09, "CreateRequestScan"},
    {0x0A, "CreateRequestScanReply"},
    {0x0B, "CreateIPConfig"},
    {0x0C, "ParseHCPResponse"},
    {0x0D, "ParsePingResponse"},
    {0x0E, "ParseRequestScanResponse"},
    {0x0F, "ParseHostListEntryResponse"},
    {0x10, "ParseStatusCacheResponse"},
    {0x11, "GetHeaderType"},
    {0x12, "GetCommandType"},
    {0x14, "SendTo"},
    {0x15, "RecvFrom"},
    {0x16, "CloseUDPSocket"},
    {0x17, "SetSocketOptions"},
    {0x18, "BindUDPSocket"},
    {0x19, "GetAddressPort"},
    {0x1B, "Write"},
    {0x1C, "WriteManaged"},
    {0x1D, "Read"},
    {0x1E, "ReadManaged"},
    {0x1F, "RegisterReadCallback"},
    {0x20, "CloseTCPSocket"},
    {0x21, "GetSocketID"},
    {0x26, "RevitalizeSocket"},
    {0x35, "ParseRequestScan"},
};

// Failure kinds KK of the interface layer.
const char *const kKinds[] = {
    "general failure (no builder or parser for the header type, or an unexpected exception)",
    "invalid buffer handle",
    "invalid socket handle",
    "invalid address handle",
    "socket kind or option not served by this function",
};

// Message-layer classes by their number (bits 23-16).
const Named kClasses[] = {
    {0x01, "KivHBN3Header"},
    {0x02, "KivHBN3ScanHostPayLoad"},
    {0x03, "KivHBN3StatusCacheResponsePayload"},
    {0x04, "KivHCPConfigHeader"},
    {0x05, "KivHCPConfigText"},
    {0x06, "KivHCPDiscoveryHeader"},
    {0x07, "KivHBN3Disassembler"},
    {0x08, "KivNetBuffer"},
};

// Throwing members of the message-layer classes: class number, function number (bits 15-8).
struct Member {
  UInt32 classNumber;
  UInt32 function;
  const char *name;
};
const Member kMembers[] = {
    {0x01, 0x05, "SetDataHeader"},
    {0x01, 0x06, "GetDataHeader"},
    {0x01, 0x09, "GetPayload"},
    {0x02, 0x01, "KivHBN3ScanHostPayLoad"},
    {0x02, 0x03, "GetDataPayload"},
    {0x03, 0x01, "KivHBN3StatusCacheResponsePayload"},
    {0x03, 0x03, "GetStrAdapterUAA"},
    {0x03, 0x04, "GetIPAddressString"},
    {0x03, 0x08, "GetDataPayload"},
    {0x04, 0x05, "GetDataHeader"},
    {0x04, 0x07, "SetDestUAA"},
    {0x04, 0x09, "SetEncryptedPassword"},
    {0x04, 0x0A, "SetConfigTextRecord"},
    {0x05, 0x07, "GetHCPConfigText"},
    {0x06, 0x01, "GetDataHeader"},
    {0x07, 0x04, "SetMessage"},
    {0x07, 0x07, "ParseHCPResponse"},
    {0x07, 0x08, "ParseStatusCacheResponse"},
    {0x07, 0x09, "ParseHostListEntryResponse"},
    {0x07, 0x0A, "ParsePingResponse"},
    {0x07, 0x0B, "ParseRequestScanResponse"},
    {0x07, 0x0C, "ParseRequestScan"},
    {0x07, 0x0D, "copyData"},
    {0x08, 0x04, "GetBuffer"},
    {0x08, 0x05, "SetBuffer"},
    {0x08, 0x0B, "ExtractFromBuffer"},
    {0x08, 0x0C, "InsertIntoBuffer"},
};

// Message-layer errors by value (bits 7-0 minus 0xA0).
const char *const kWrapperErrors[] = {
    nullptr,
    "BUFFER_NULL, a null buffer",
    "BUFFER_SIZE_ERROR, a room or message too small for the layout",
    "COPY_ERROR, a copy failed or the message could not be parsed",
    "PARSE_ERROR, the message could not be parsed",
    "MESSAGE_OBJ_NULL, no message object",
    "INVALID_HDR_TYPE, invalid header type",
    "INVALID_RESPONSE, invalid response",
    "BUFFER_ERROR, buffer error",
};

// Socket-layer errors by value (bits 7-0 minus 0xB0).
const char *const kSocketErrors[] = {
    nullptr,
    "REUSE_PORT_ERROR, address or port reuse refused",
    "BROADCAST_NOT_PERMITTED_ERROR, broadcast switch refused",
    "NODELAY_NOT_PERMITTED_ERROR, no-delay refused",
    "UNKNOWN_ERROR, no descriptor could be made, or the socket is closed",
    "BIND_UDP_ERROR, the UDP bind failed",
    "RECVFROM_ERROR, the receive failed or timed out",
    "SENDTO_ERROR, the send failed",
    "UNKNOWN_UDP_ERROR, UDP failure",
    "CONNECT_ERROR, the connection failed",
    "CLIENT_RECV_ERROR, receive on a channel failed",
    "CLIENT_SEND_ERROR, send on a channel failed",
    "UNKNOWN_TCP_ERROR, TCP failure",
    "BIND_TCP_ERROR, the TCP bind failed",
    "LISTEN_ERROR, listen failed",
    "ACCEPT_ERROR, accept failed",
    "SERVER_RECV_ERROR, receive on a server socket failed",
    "SERVER_SEND_ERROR, send on a server socket failed",
    "GETSOCKOPT_FAILED, a socket option could not be read or set",
    "SELECT_ERROR, a readiness wait failed",
};

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
  if (kind >= sizeof kKinds / sizeof kKinds[0]) {
    return name + ": failure kind " + Hex2(kind) + " (unknown)";
  }
  return name + ": " + kKinds[kind];
}

std::string DescribeWrapperCode(UInt32 code) {
  const UInt32 classNumber = (code >> 16) & 0xFF;
  const UInt32 function = (code >> 8) & 0xFF;
  const UInt32 error = code & 0xFF;
  const char *className = Find(kClasses, classNumber);
  if (className == nullptr || error <= 0xA0 || error - 0xA0 >= 9) {
    return kNotACode;
  }
  std::string where = className;
  const char *member = nullptr;
  for (const Member &entry : kMembers) {
    if (entry.classNumber == classNumber && entry.function == function) {
      member = entry.name;
    }
  }
  where += member != nullptr ? std::string("::") + member : " function " + Hex2(function);
  return where + ": " + kWrapperErrors[error - 0xA0];
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
  if ((code & 0xFFFF0000u) == 0x0A090000u) {
    return DescribeInterfaceCode(code);
  }
  const UInt32 source = (code >> 16) & 0xFF;
  if ((code & 0xFF000000u) != 0x0A000000u) {
    return kNotACode;
  }
  if (source >= 0x01 && source <= 0x08) {
    return DescribeWrapperCode(code);
  }
  const UInt32 error = code & 0xFF;
  if (source == 0x00 && (code & 0xFF00u) == 0 && error > 0xB0 &&
      error - 0xB0 < sizeof kSocketErrors / sizeof kSocketErrors[0]) {
    return std::string("socket layer: ") + kSocketErrors[error - 0xB0];
  }
  return kNotACode;
}

} // namespace kivnet
