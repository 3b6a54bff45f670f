// The parser of HBN3 answers, device scan requests and HCP answers.
#ifndef KIV_ASM_DEASM_KIVHBN3DISASSEMBLER_H
#define KIV_ASM_DEASM_KIVHBN3DISASSEMBLER_H

#include <memory>
#include <string>
#include <string_view>

#include "Asm_Deasm/KivDisassembler.h"

// Holds its own copy of one received message (any length, from any peer) and reads the answer
// its caller asks for. No operation reads outside the held bytes: a message too short for the
// fields an operation reads fails with COPY_ERROR and that operation's function number.
// Every failure is a KivWrapperException with class number 0x70000.
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
  // A field the message is too short for reads as 0; the parse operations refuse such messages.
  // Throws BUFFER_NULL (null container) or COPY_ERROR (no memory for the copy) of 0x400; after a
  // failure the earlier message is still held.
  void SetMessage(KivNetBuffer *msgObject) override;
  UInt32 GetHeaderType() override { return mHeaderType; }
  UInt32 GetCommandType() override { return mCommand; }

  // Reads an HCP answer into `recDiscovered` (strings replaced, device entries appended). `iType`
  // 0x80000006: a discovery answer; any other value: a configuration answer, whose result byte
  // (byte 26) goes to iResponse and whose addresses are read only when it is 0. Returns 0; every
  // failure (a required key missing, a cut-off value, a configuration answer shorter than 27
  // bytes, no default interface for the MAC conversion of a discovery answer) throws COPY_ERROR of
  // 0x700, and the record may then hold some new fields.
  UInt32 ParseHCPResponse(UInt32 iType, KivNetRecord &recDiscovered) override;
  // The answer to a status-cache request. A cut-short answer (declared status length beyond the
  // bytes, or negative) gives no status bytes: empty strPayload, iPayloadLength 0, empty
  // strPrinterID; fewer than 28 status bytes give an empty strPrinterID. Throws COPY_ERROR of
  // 0x800 for every failure, a message shorter than 40 bytes included.
  StatCacheResponse ParseStatusCacheResponse() override;
  // Port information, channel, and bytes 24-27 as iStatus. Throws COPY_ERROR of 0x900 below 28
  // bytes.
  HBNResponseInfo ParseHostListEntryResponse() override;
  // Port information, channel; iStatus 1 for the ping reply command 0x80000003, else 0. Throws
  // COPY_ERROR of 0xA00 below 20 bytes.
  HBNResponseInfo ParsePingResponse() override;
  // As ParsePingResponse for the request-scan reply command 0x80000005; 0xB00 below 20 bytes.
  HBNResponseInfo ParseRequestScanResponse() override;
  // A device's scan request: port information, channel, time stamp, and bytes 24-31 as iReport in
  // memory order (iStatus 0). Throws COPY_ERROR of 0xC00 below 32 bytes.
  HBNResponseInfo ParseRequestScan() override;

  // At most iLen - 1 characters of `strObject` from position `iIndex` (fewer when it ends first);
  // iLen 0 gives the empty text. Throws COPY_ERROR of 0xD00 for a negative iLen or an iIndex
  // that is negative or beyond the end.
  std::string copyData(std::string strObject, int iLen, int iIndex);
  // The value of a KEY=value item starting at `iIndex` of the held message, by the item value
  // rules (quoted text, or a run that stops before an uppercase letter, after 31 bytes, at the
  // end of the message, and in address mode before anything but digits and '.'). `strStream` is
  // the held message as text. Throws COPY_ERROR of 0xD00 for a quoted value without its closing
  // quote and for an iIndex outside 0 to the message length (at the length the value is empty).
  std::string getValue(std::string strStream, int iIndex);
  // The same value with the held message itself as the text (what the HCP parser reads), without
  // a copy of the message. Throws as getValue.
  std::string getValue(int iIndex);
  // Switches address mode of getValue.
  void isAddress(bool bAddress) { mAddressState = bAddress; }

private:
  // ParseHCPResponse without its boundary: may throw anything.
  UInt32 ReadHCPAnswer(UInt32 iType, KivNetRecord &rec);
  // copyData and getValue on a text they only read.
  static std::string CopyText(std::string_view text, int iLen, int iIndex);
  std::string ValueIn(std::string_view text, int iIndex);
  // The held message as text.
  std::string_view HeldText() const;

  UInt32 mHeaderType;
  UInt32 mCommand;
  int mLength;
  std::unique_ptr<unsigned char[]> mDataStream; // null before the first message
  bool mAddressState;
};

#endif // KIV_ASM_DEASM_KIVHBN3DISASSEMBLER_H
