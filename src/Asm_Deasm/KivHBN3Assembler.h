// The message builder for HBN3 and HCP: every request the library sends, as finished wire bytes.
#ifndef KIV_ASM_DEASM_KIVHBN3ASSEMBLER_H
#define KIV_ASM_DEASM_KIVHBN3ASSEMBLER_H

#include <string>

#include "Asm_Deasm/KivAssembler.h"
#include "Common/Constants/KivCommunicationConstants.h"

// Builds each message with the wire classes (KivHBN3Header with its payloads, the HCP discovery
// query, the HCP configuration message) and returns it in a new container. Holds no state: one
// object builds any number of messages. The HBN3 tag is always "HBN3"; time stamps, port
// information, channels other than the fixed ones, names, PINs and identifiers are the caller's.
//
// Each message is written once, straight into the block the returned container holds; no memory
// for that block is the container's COPY_ERROR (0x80500 + 3), as storing the message would give.
//
// Ownership: the returned container's storage belongs to the caller, who releases it
// (ResetBuffer or a KivNetBufferStorageGuard), or moves it into a container of its own with
// KivNetBuffer::TakeBuffer.
//
// Nothing is caught: a KivWrapperException of a wire class or of the container passes to the
// caller with that class's numbers, and CreateIPConfig passes on the int -1 of the host
// information when the host has no default IPv4 interface. Temporaries are released on every path.
class KIV_EXPORT KivHBN3Assembler : public KivAssembler {
public:
  // Room given to the configuration message's text record; a longer record is refused.
  static constexpr int kConfigTextRoom = 1024;
  // Length of a request scan: the header and the 8 report bytes.
  static constexpr int kRequestScanLength = kHBN3HeaderLength + kHBN3ReportLength;

  KivHBN3Assembler() = default;
  ~KivHBN3Assembler() override;

  // The 41-byte HCP discovery query.
  KivNetBuffer CreateDiscover() override;

  // HBN3 ping: port information 0, channel 0, command 3, no payload (24 bytes).
  KivNetBuffer CreatePing(UInt32 iTimeStamp) override;

  // HBN3 status-cache request: the caller's port information and channel, command 1 (24 bytes).
  KivNetBuffer CreateStatusCacheRequest(UInt32 iPortInfo, UInt32 iChannelID,
                                        UInt32 iTimeStamp) override;

  // HBN3 host-list entry: channel 2, command 4, then the host-list payload (24 + 18 + name length
  // bytes). `strHostname` is length-prefixed (its first byte the number of name bytes that follow)
  // or null for no name; `cUniqueID` points to six bytes (null throws COPY_ERROR of the payload,
  // 0x20100). `bPwdFlag` is not used.
  KivNetBuffer CreateHostListEntry(bool bPwdFlag, int iType, UInt32 iPortInfo, UInt32 iTimeStamp,
                                   char *strHostname, std::string strPinNum,
                                   unsigned char *cUniqueID, UInt16 iCodePage) override;

  // HBN3 request scan: channel 2, command 5, data length 8, then the report's eight bytes as the
  // 64-bit value lies in memory on a little-endian host, least significant byte first, on every
  // host (32 bytes). `bPwdFlag` is not used.
  KivNetBuffer CreateRequestScan(bool bPwdFlag, UInt32 iPortInfo, UInt32 iTimeStamp,
                                 UInt64 iHIDRep) override;

  // HBN3 request-scan reply: channel 2, command 0x80000005, no payload (24 bytes). `bPwdFlag` is
  // not used.
  KivNetBuffer CreateRequestScanReply(bool bPwdFlag, UInt32 iPortInfo, UInt32 iTimeStamp) override;

  // HCP configuration message (34 + password length + record length bytes) for the device whose
  // MAC text is `strDestMacAddress` (12 hexadecimal digits) and which is to take the address
  // `strDestIPAddress` (also the message's destination address), `strNetMask` and `strGateway`.
  // The password bytes are sent unchanged. The source MAC is zero and the source address the
  // host's own: `strSrcMacAddress` and `strSrcIPAddress` are not used.
  // Throws COPY_ERROR of the text record (0x50700) when the record would exceed kConfigTextRoom
  // bytes, COPY_ERROR of SetEncryptedPassword (0x40900) for a password above 65535 bytes, and the
  // int -1 when the host has no default IPv4 interface.
  KivNetBuffer CreateIPConfig(std::string strDestMacAddress, std::string strSrcMacAddress,
                              std::string strSrcIPAddress, std::string strDestIPAddress,
                              std::string strPassword, std::string strNetMask,
                              std::string strGateway) override;
};

#endif // KIV_ASM_DEASM_KIVHBN3ASSEMBLER_H
