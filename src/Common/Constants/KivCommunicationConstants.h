// The vocabulary of the two device protocols: header tags, command codes, channel numbers,
// end-point interfaces with their open requests, and the parsed result records.
#ifndef KIV_COMMON_CONSTANTS_KIVCOMMUNICATIONCONSTANTS_H
#define KIV_COMMON_CONSTANTS_KIVCOMMUNICATIONCONSTANTS_H

#include <string>
#include <vector>

#include "Common/KivTypes.h"

// Text constants. Each translation unit holds its own copy (internal linkage).
static const std::string kStrPortInfo_USB0 = ".USB0";
static const std::string kStrPortInfo_USB1 = ".USB1";
static const std::string kStrPortInfo_USB2 = ".USB2";
static const std::string kStrPortInfo_USB3 = ".USB3";
static const std::string kHBN1HeaderString = "HBN1";
static const std::string kHBN3HeaderString = "HBN3";
static const std::string kHCPHeaderString = "HCP1";
static const std::string kQueryHeaderString = "QUERY";

// Header types: the four tag characters read as a big-endian number. They select the builder and
// the parser; no other value is accepted.
constexpr UInt32 kHeaderTypeHBN3 = 0x48424E33; // "HBN3", every HBN3 message
constexpr UInt32 kHeaderTypeHCP1 = 0x48435031; // "HCP1", the HCP configuration message

// HBN3 header layout: six big-endian 32-bit fields, then the payload. The container, the header
// class and the answer parser all read these offsets from here.
constexpr int kHBN3FieldLength = 4;       // every header field is a 32-bit number
constexpr int kHBN3HeaderLength = 24;     // the payload starts here
constexpr int kHBN3OffsetTag = 0;         // "HBN3", the header type
constexpr int kHBN3OffsetPortInfo = 4;    // port information
constexpr int kHBN3OffsetChannel = 8;     // channel number
constexpr int kHBN3OffsetTimeStamp = 12;  // time stamp
constexpr int kHBN3OffsetCommand = 16;    // command code
constexpr int kHBN3OffsetDataLength = 20; // number of payload bytes
constexpr int kHBN3OffsetPayload = kHBN3HeaderLength;

// The payload of a scan request: the 8-byte report, least significant byte first.
constexpr int kHBN3ReportLength = 8;

// HCP message layout as a parser reads it: an "HCP1" message carries its command after the 24
// bytes of identifier, version and addresses (not at 16), and a configuration answer the device's
// result byte at 26.
constexpr int kHCPOffsetCommand = 24;
constexpr int kHCPOffsetResult = 26;

// HBN3 command codes (bytes 16-19 of the header). A reply carries its request's code with bit 31.
constexpr UInt32 kCmdStatusCacheRequest = 1;
constexpr UInt32 kCmdPing = 3;
constexpr UInt32 kCmdHostListEntry = 4;
constexpr UInt32 kCmdRequestScan = 5;
constexpr UInt32 kCmdReplyFlag = 0x80000000;
constexpr UInt32 kCmdPingReply = 0x80000003;
constexpr UInt32 kCmdRequestScanReply = 0x80000005;

// The HCP command carried in a configuration message (a 16-bit field).
constexpr UInt16 kHCPConfigCommand = 1;

// Answer kind given to the HCP parser: an answer to the discovery query. Any other value means an
// answer to a configuration message.
constexpr UInt32 kHCPDiscoveryResponse = 0x80000006;

// Channel numbers the builders put in the header (a status-cache request carries the caller's).
constexpr UInt32 kChannelPing = 0;
constexpr UInt32 kChannelScan = 2;

// The end-point interfaces of a device that an HBN3 TCP channel can open.
enum KivEndPointInterface : UInt32 {
  kScanInterface = 0,
  kHIDInterface = 1,
  kPrintInterface = 2,
  kMediaInterface = 3,
};

// Open requests of the HBN3 TCP channel: "HBN3", a zero byte and the big-endian interface code.
// Nine bytes each; byte arrays, not strings (no terminator).
constexpr int kHBN3InterfaceTagLength = 9;
static const unsigned char kHBN3PrintInterface[kHBN3InterfaceTagLength] = {
    0x48, 0x42, 0x4E, 0x33, 0x00, 0x00, 0x00, 0x00, 0x01};
static const unsigned char kHBN3ScanInterface[kHBN3InterfaceTagLength] = {
    0x48, 0x42, 0x4E, 0x33, 0x00, 0x00, 0x00, 0x00, 0x02};
static const unsigned char kHBN3HIDInterface[kHBN3InterfaceTagLength] = {
    0x48, 0x42, 0x4E, 0x33, 0x00, 0x00, 0x00, 0x00, 0x04};
static const unsigned char kHBN3MediaInterface[kHBN3InterfaceTagLength] = {
    0x48, 0x42, 0x4E, 0x33, 0x00, 0x00, 0x00, 0x00, 0x08};

// The open request sent for an interface; any value outside the enumeration opens the scan
// interface.
inline const unsigned char *KivOpenRequestFor(int endPointInterface) {
  switch (endPointInterface) {
  case kHIDInterface:
    return kHBN3HIDInterface;
  case kPrintInterface:
    return kHBN3PrintInterface;
  case kMediaInterface:
    return kHBN3MediaInterface;
  default:
    return kHBN3ScanInterface;
  }
}

// The parsed answer to a status-cache request.
struct StatCacheResponse {
  UInt32 iPortInfo = 0;         // port information of the answer's header
  UInt32 iChannelID = 0;        // channel of the answer's header
  std::string strAdapterUAA;    // adapter MAC, twelve lowercase hexadecimal digits
  int iReserved = 0;            // always 0
  std::string strAdapterIPAddr; // adapter IPv4 address, dotted decimal
  std::string strPrinterID;     // status bytes 26 and 27 as four lowercase hex digits, or empty
  int iPayloadLength = 0;       // number of status bytes in strPayload
  std::string strPayload;       // the status bytes, zero bytes included
};

// The parsed answer to a ping, a host-list entry or a request scan, and a parsed scan request.
struct HBNResponseInfo {
  std::string strIPAddress; // sender's address; the parsers leave it as it is
  UInt32 iPortInfo = 0;     // port information of the header
  UInt32 iChannelID = 0;    // channel of the header
  UInt32 iStatus = 0;       // outcome; its meaning depends on the parser
  UInt64 iReport = 0;       // the 8-byte report of a scan request
  UInt32 iTimeStamp = 0;    // time stamp of the header
};

// One port of a multi-port device, as an HCP discovery answer describes it.
struct DeviceSpecific {
  int iFlag = 0;               // 1: the port is attached and the entry filled; 0: unused
  std::string strProdID;       // the port's product text (its STRID item)
  std::string strOEMByte;      // not filled by the parser
  std::string strCPDAttached;  // the port number text followed by " 1"
  std::string strPrintrVidPid; // the port's vendor/product identifier (its PRINTERVIDPID item)
  int iPortInfo = 0;           // the port number
};

// A device as its HCP answer describes it.
struct KivNetRecord {
  UInt8 iResponse = 0;         // result byte of a configuration answer (byte 26)
  std::string strIPAddr;       // IPADDRESS
  std::string strIPNetMask;    // IPNETMASK
  std::string strIPGateway;    // IPGATEWAY
  std::string strIPName;       // IPNAME
  std::string strMacLaa;       // MACLAA, as received
  std::string strMacUaa;       // MACUAA, as "ET" and 12 lowercase hex digits in canonical bit order
  std::string strAdapterType;  // ADAPTERTYPE
  std::string strIPAddrSrc;    // IPADDRSOURCE
  std::string strOEMByte;      // OEMBYTE
  std::string strPwdSet;       // PASSWORDSET: "TRUE", "FALSE" or empty
  std::string strProdID;       // not filled by the parser (per-port text is in DeviceSpecific)
  std::string strAdapterName;  // ADAPTERNAME
  std::string strCPDAttached;  // not filled by the parser
  std::string strPrintrVidPid; // not filled by the parser
  int iPortInfo = 0;           // not filled by the parser
  std::vector<DeviceSpecific> vecDeviceSpecific; // attached ports, in answer order
};

#endif // KIV_COMMON_CONSTANTS_KIVCOMMUNICATIONCONSTANTS_H
