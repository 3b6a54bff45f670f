// The parser of HBN3 answers, device scan requests and HCP answers.
#ifndef KIV_ASM_DEASM_KIVHBN3DISASSEMBLER_H
#define KIV_ASM_DEASM_KIVHBN3DISASSEMBLER_H

#include <string>

#include "Asm_Deasm/KivDisassembler.h"

// Holds its own copy of one received message (any length, from any peer) and reads the answer
// its caller asks for. No operation reads outside the held bytes: a message too short for the
// fields an operation reads fails with COPY_ERROR and that operation's function number.
// Every failure is a KivWrapperException with class number 0x70000 (the container's own
// exceptions from SetMessage pass through unchanged).
class KIV_EXPORT KivHBN3Disassembler : public KivDisassembler {
public:
  // Function numbers of the throwing members.
  static constexpr UInt32 kFnSetMessage = 0x400;
  static constexpr UInt32 kFnParseHCPResponse = 0x700;
  static constexpr UInt32 kFnParseStatusCacheResponse = 0x800;
  static constexpr UInt32 kFnParseHostListEntryResponse = 0x900;
  static constexpr UInt32 kFnParsePingResponse = 0xA00;
  static constexpr UInt32 kFnParseRequestScanResponse = 0xB00;
  static constexpr UInt32 kFnParseRequestScan = 0xC00;
  static constexpr UInt32 kFnCopyData = 0xD00;

  // No message yet; address mode off.
  KivHBN3Disassembler();
  // Address mode off, then SetMessage(&msgObject).
  explicit KivHBN3Disassembler(KivNetBuffer &msgObject);
  ~KivHBN3Disassembler() override;
  KivHBN3Disassembler(const KivHBN3Disassembler &) = delete;
  KivHBN3Disassembler &operator=(const KivHBN3Disassembler &) = delete;

  // Takes a copy of the container's message; the header type is bytes 0-3, the command bytes
  // 16-19 of an "HBN3" message or bytes 24-27 of an "HCP1" message (other tags keep the command).
  // Throws BUFFER_NULL (null container) or COPY_ERROR of 0x400.
  void SetMessage(KivNetBuffer *msgObject) override;
  UInt32 GetHeaderType() override { return mHeaderType; }
  UInt32 GetCommandType() override { return mCommand; }

  // Reads an HCP answer into `recDiscovered` (strings replaced, device entries appended). `iType`
  // 0x80000006: a discovery answer; any other value: a configuration answer, whose result byte
  // (byte 26) goes to iResponse and whose addresses are read only when it is 0. Returns 0; every
  // failure (a required key missing, a cut-off value, a message too short) throws COPY_ERROR of
  // 0x700.
  UInt32 ParseHCPResponse(UInt32 iType, KivNetRecord &recDiscovered) override;
  StatCacheResponse ParseStatusCacheResponse() override;
  HBNResponseInfo ParseHostListEntryResponse() override;
  HBNResponseInfo ParsePingResponse() override;
  HBNResponseInfo ParseRequestScanResponse() override;
  HBNResponseInfo ParseRequestScan() override;

  // At most iLen - 1 characters of `strObject` from position `iIndex` (fewer when it ends first).
  // Throws COPY_ERROR of 0xD00 for a negative iLen or an iIndex beyond the end.
  std::string copyData(std::string strObject, int iLen, int iIndex);
  // The value of a KEY=value item starting at `iIndex` of the held message, by the item value
  // rules (quoted text, or a run that stops before an uppercase letter, after 31 bytes, at the
  // end of the message, and in address mode before anything but digits and '.'). `strStream` is
  // the held message as text.
  std::string getValue(std::string strStream, int iIndex);
  // Switches address mode of getValue.
  void isAddress(bool bAddress) { mAddressState = bAddress; }

private:
  UInt32 mHeaderType;
  UInt32 mCommand;
  int mLength;
  unsigned char *mDataStream; // owned (array); null before the first message
  bool mAddressState;
};

#endif // KIV_ASM_DEASM_KIVHBN3DISASSEMBLER_H
