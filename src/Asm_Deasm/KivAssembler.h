// The abstract message builder: one operation per request the library can send.
#ifndef KIV_ASM_DEASM_KIVASSEMBLER_H
#define KIV_ASM_DEASM_KIVASSEMBLER_H

#include <string>

#include "Common/KivTypes.h"
#include "CommonFiles/KivNetBuffer.h"

// Every operation returns the finished message in a container by value; the caller releases its
// storage (ResetBuffer, or a KivNetBufferStorageGuard). Builders keep no state between calls.
// Failures of the wire classes pass through as KivWrapperException with their own numbers.
class KIV_EXPORT KivAssembler {
public:
  virtual ~KivAssembler();

  // The 41-byte HCP discovery query.
  virtual KivNetBuffer CreateDiscover() = 0;
  // HBN3 ping: port information 0, channel 0, command 3, 24 bytes.
  virtual KivNetBuffer CreatePing(UInt32 iTimeStamp) = 0;
  // HBN3 status-cache request: command 1, 24 bytes.
  virtual KivNetBuffer CreateStatusCacheRequest(UInt32 iPortInfo, UInt32 iChannelID,
                                                UInt32 iTimeStamp) = 0;
  // HBN3 host-list entry: channel 2, command 4, with the host-list payload. `strHostname` is
  // length-prefixed (first byte the name's length) or null; `cUniqueID` points to six bytes.
  virtual KivNetBuffer CreateHostListEntry(bool bPwdFlag, int iType, UInt32 iPortInfo,
                                           UInt32 iTimeStamp, char *strHostname,
                                           std::string strPinNum, unsigned char *cUniqueID,
                                           UInt16 iCodePage) = 0;
  // HBN3 request scan: channel 2, command 5, the 8 report bytes least significant first.
  virtual KivNetBuffer CreateRequestScan(bool bPwdFlag, UInt32 iPortInfo, UInt32 iTimeStamp,
                                         UInt64 iHIDRep) = 0;
  // HBN3 request-scan reply: channel 2, command 0x80000005, 24 bytes.
  virtual KivNetBuffer CreateRequestScanReply(bool bPwdFlag, UInt32 iPortInfo,
                                              UInt32 iTimeStamp) = 0;
  // HCP configuration message for the device `strDestMacAddress` (12 hex digits).
  virtual KivNetBuffer CreateIPConfig(std::string strDestMacAddress, std::string strSrcMacAddress,
                                      std::string strSrcIPAddress, std::string strDestIPAddress,
                                      std::string strPassword, std::string strNetMask,
                                      std::string strGateway) = 0;
};

#endif // KIV_ASM_DEASM_KIVASSEMBLER_H
