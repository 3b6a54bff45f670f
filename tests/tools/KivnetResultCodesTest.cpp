// kivnet's result-code texts: every code family decoded, unknown values named as such, and the
// tool's tables held against the library's own numbers so that they cannot drift apart.
#include <gtest/gtest.h>

#include <string>

#include "Asm_Deasm/KivHBN3Disassembler.h"
#include "CommonFiles/KivNetBuffer.h"
#include "Exceptions/KivSocketExceptions.h"
#include "Exceptions/KivWrapperException.h"
#include "HBN3/KivHBN3Header.h"
#include "HBN3/KivHBN3PayLoad.h"
#include "HCP/KivHCPConfigHeader.h"
#include "HCP/KivHCPDiscoveryHeader.h"
#include "Interfaces/KivCallFrame.h"
#include "tools/kivnet/ResultCodes.h"

namespace {

using kivnet::CodeHex;
using kivnet::DescribeCode;
using kivnet::FunctionName;

TEST(KivnetResultCodes, EveryFamilyDecodes) {
  const struct {
    UInt32 code;
    const char *text;
  } cases[] = {
      {0, "success"},
      // Interface layer: function and kind.
      {0x0A091401, "SendTo: invalid buffer handle"},
      {0x0A091502, "RecvFrom: invalid socket handle"},
      {0x0A091903, "GetAddressPort: invalid address handle"},
      {0x0A091704, "SetSocketOptions: socket kind or option not served by this function"},
      {0x0A090500, "CreateDiscovery: general failure (no builder or parser for the header type, "
                   "or an unexpected exception)"},
      {0x0A093501, "ParseRequestScan: invalid buffer handle"},
      {0x0A091305, "function 0x13 (unknown): failure kind 0x05 (unknown)"},
      // Message layer: class, member, error.
      {0x0A0707A3, "KivHBN3Disassembler::ParseHCPResponse: COPY_ERROR, a copy failed or the "
                   "message could not be parsed"},
      {0x0A0805A1, "KivNetBuffer::SetBuffer: BUFFER_NULL, a null buffer"},
      {0x0A0201A3, "KivHBN3ScanHostPayLoad::KivHBN3ScanHostPayLoad: COPY_ERROR, a copy failed or "
                   "the message could not be parsed"},
      {0x0A0507A2, "KivHCPConfigText::GetHCPConfigText: BUFFER_SIZE_ERROR, a room or message too "
                   "small for the layout"},
      {0x0A080EA8, "KivNetBuffer function 0x0E: BUFFER_ERROR, buffer error"},
      // Socket layer.
      {0x0A0000B6, "socket layer: RECVFROM_ERROR, the receive failed or timed out"},
      {0x0A0000B1, "socket layer: REUSE_PORT_ERROR, address or port reuse refused"},
      {0x0A0000C3, "socket layer: SELECT_ERROR, a readiness wait failed"},
      // Not codes of this library.
      {0x0A0000C4, "not a KivNetworkComm result code"},
      {0x0A0000B0, "not a KivNetworkComm result code"},
      {0x0A0001B6, "not a KivNetworkComm result code"},
      {0x0A0707A9, "not a KivNetworkComm result code"},
      {0x0A0707A0, "not a KivNetworkComm result code"},
      {0x0A0A0000, "not a KivNetworkComm result code"},
      {0x0B091401, "not a KivNetworkComm result code"},
      {0xFFFFFFFF, "not a KivNetworkComm result code"},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(DescribeCode(c.code), c.text) << CodeHex(c.code);
  }
}

TEST(KivnetResultCodes, HexIsEightUppercaseDigits) {
  EXPECT_EQ(CodeHex(0x0A0000B6), "0x0A0000B6");
  EXPECT_EQ(CodeHex(0), "0x00000000");
  EXPECT_EQ(CodeHex(0xFFFFFFFF), "0xFFFFFFFF");
}

TEST(KivnetResultCodes, FunctionNamesMatchTheLibrarysNumbers) {
  using namespace kiv::frame;
  const struct {
    FunctionNumber number;
    const char *name;
  } functions[] = {
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
  for (const auto &f : functions) {
    EXPECT_EQ(FunctionName(f.number), f.name);
  }
  for (UInt32 unused : {0x01u, 0x04u, 0x13u, 0x1Au, 0x22u, 0x25u, 0x27u, 0x34u, 0x36u}) {
    EXPECT_EQ(FunctionName(unused), "") << unused;
  }
}

// Each member the tool names, by the code the library itself makes for it.
TEST(KivnetResultCodes, MemberNamesMatchTheLibrarysExceptions) {
  const struct {
    KivWrapperClassNumber classNumber;
    UInt32 function;
    const char *where;
  } members[] = {
      {kClassHBN3Header, KivHBN3Header::kFnSetDataHeader, "KivHBN3Header::SetDataHeader"},
      {kClassHBN3Header, KivHBN3Header::kFnGetDataHeader, "KivHBN3Header::GetDataHeader"},
      {kClassHBN3Header, KivHBN3Header::kFnGetPayload, "KivHBN3Header::GetPayload"},
      {kClassHBN3ScanHostPayLoad, KivHBN3ScanHostPayLoad::kFnConstructor,
       "KivHBN3ScanHostPayLoad::KivHBN3ScanHostPayLoad"},
      {kClassHBN3ScanHostPayLoad, KivHBN3ScanHostPayLoad::kFnGetDataPayload,
       "KivHBN3ScanHostPayLoad::GetDataPayload"},
      {kClassHBN3StatusCacheResponsePayload, KivHBN3StatusCacheResponsePayload::kFnConstructor,
       "KivHBN3StatusCacheResponsePayload::KivHBN3StatusCacheResponsePayload"},
      {kClassHBN3StatusCacheResponsePayload, KivHBN3StatusCacheResponsePayload::kFnGetStrAdapterUAA,
       "KivHBN3StatusCacheResponsePayload::GetStrAdapterUAA"},
      {kClassHBN3StatusCacheResponsePayload,
       KivHBN3StatusCacheResponsePayload::kFnGetIPAddressString,
       "KivHBN3StatusCacheResponsePayload::GetIPAddressString"},
      {kClassHBN3StatusCacheResponsePayload, KivHBN3StatusCacheResponsePayload::kFnGetDataPayload,
       "KivHBN3StatusCacheResponsePayload::GetDataPayload"},
      {kClassHCPConfigHeader, KivHCPConfigHeader::kFnGetDataHeader,
       "KivHCPConfigHeader::GetDataHeader"},
      {kClassHCPConfigHeader, KivHCPConfigHeader::kFnSetDestUAA, "KivHCPConfigHeader::SetDestUAA"},
      {kClassHCPConfigHeader, KivHCPConfigHeader::kFnSetEncryptedPassword,
       "KivHCPConfigHeader::SetEncryptedPassword"},
      {kClassHCPConfigHeader, KivHCPConfigHeader::kFnSetConfigTextRecord,
       "KivHCPConfigHeader::SetConfigTextRecord"},
      {kClassHCPConfigText, KivHCPConfigText::kFnGetHCPConfigText,
       "KivHCPConfigText::GetHCPConfigText"},
      {kClassHCPDiscoveryHeader, KivHCPDiscoveryHeader::kFnGetDataHeader,
       "KivHCPDiscoveryHeader::GetDataHeader"},
      {kClassHBN3Disassembler, KivHBN3Disassembler::kFnSetMessage,
       "KivHBN3Disassembler::SetMessage"},
      {kClassHBN3Disassembler, KivHBN3Disassembler::kFnParseHCPResponse,
       "KivHBN3Disassembler::ParseHCPResponse"},
      {kClassHBN3Disassembler, KivHBN3Disassembler::kFnParseStatusCacheResponse,
       "KivHBN3Disassembler::ParseStatusCacheResponse"},
      {kClassHBN3Disassembler, KivHBN3Disassembler::kFnParseHostListEntryResponse,
       "KivHBN3Disassembler::ParseHostListEntryResponse"},
      {kClassHBN3Disassembler, KivHBN3Disassembler::kFnParsePingResponse,
       "KivHBN3Disassembler::ParsePingResponse"},
      {kClassHBN3Disassembler, KivHBN3Disassembler::kFnParseRequestScanResponse,
       "KivHBN3Disassembler::ParseRequestScanResponse"},
      {kClassHBN3Disassembler, KivHBN3Disassembler::kFnParseRequestScan,
       "KivHBN3Disassembler::ParseRequestScan"},
      {kClassHBN3Disassembler, KivHBN3Disassembler::kFnCopyData, "KivHBN3Disassembler::copyData"},
      {kClassNetBuffer, KivNetBuffer::kFnGetBuffer, "KivNetBuffer::GetBuffer"},
      {kClassNetBuffer, KivNetBuffer::kFnSetBuffer, "KivNetBuffer::SetBuffer"},
      {kClassNetBuffer, KivNetBuffer::kFnExtractFromBuffer, "KivNetBuffer::ExtractFromBuffer"},
      {kClassNetBuffer, KivNetBuffer::kFnInsertIntoBuffer, "KivNetBuffer::InsertIntoBuffer"},
  };
  for (const auto &m : members) {
    const UInt32 code =
        0x0A000000 + KivWrapperException(m.classNumber, m.function, COPY_ERROR).GetErrorCode();
    EXPECT_EQ(DescribeCode(code),
              std::string(m.where) +
                  ": COPY_ERROR, a copy failed or the message could not be parsed")
        << CodeHex(code);
  }
}

TEST(KivnetResultCodes, SocketErrorNamesMatchTheLibrarysValues) {
  const struct {
    KivSocketError error;
    const char *name;
  } errors[] = {
      {REUSE_PORT_ERROR, "REUSE_PORT_ERROR"},
      {BROADCAST_NOT_PERMITTED_ERROR, "BROADCAST_NOT_PERMITTED_ERROR"},
      {NODELAY_NOT_PERMITTED_ERROR, "NODELAY_NOT_PERMITTED_ERROR"},
      {UNKNOWN_ERROR, "UNKNOWN_ERROR"},
      {BIND_UDP_ERROR, "BIND_UDP_ERROR"},
      {RECVFROM_ERROR, "RECVFROM_ERROR"},
      {SENDTO_ERROR, "SENDTO_ERROR"},
      {UNKNOWN_UDP_ERROR, "UNKNOWN_UDP_ERROR"},
      {CONNECT_ERROR, "CONNECT_ERROR"},
      {CLIENT_RECV_ERROR, "CLIENT_RECV_ERROR"},
      {CLIENT_SEND_ERROR, "CLIENT_SEND_ERROR"},
      {UNKNOWN_TCP_ERROR, "UNKNOWN_TCP_ERROR"},
      {BIND_TCP_ERROR, "BIND_TCP_ERROR"},
      {LISTEN_ERROR, "LISTEN_ERROR"},
      {ACCEPT_ERROR, "ACCEPT_ERROR"},
      {SERVER_RECV_ERROR, "SERVER_RECV_ERROR"},
      {SERVER_SEND_ERROR, "SERVER_SEND_ERROR"},
      {GETSOCKOPT_FAILED, "GETSOCKOPT_FAILED"},
      {SELECT_ERROR, "SELECT_ERROR"},
  };
  for (const auto &e : errors) {
    const UInt32 code = 0x0A000000 + KivSocketException(e.error).GetErrorCode();
    EXPECT_EQ(DescribeCode(code).rfind(std::string("socket layer: ") + e.name + ", ", 0), 0u)
        << CodeHex(code) << " " << DescribeCode(code);
  }
}

} // namespace
