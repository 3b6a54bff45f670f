// The message builder for HBN3 and HCP.
#include "Asm_Deasm/KivHBN3Assembler.h"

#include <cstdint>
#include <cstring>
#include <utility>

#include "Common/Constants/KivCommunicationConstants.h"
#include "CommonFiles/KivOwnedBlock.h"
#include "CommonFiles/KivWireBytes.h"
#include "Exceptions/KivWrapperException.h"
#include "HBN3/KivHBN3Header.h"
#include "HBN3/KivHBN3PayLoad.h"
#include "HCP/KivHCPConfigHeader.h"
#include "HCP/KivHCPDiscoveryHeader.h"

namespace {

// The block a message of `length` bytes is written into, zero-filled so that no byte a wire class
// leaves alone carries stale memory. It becomes the returned container's storage as it is, so the
// message is written once and never copied; no memory for it is the container's COPY_ERROR, as
// storing a message would report it.
kiv::OwnedBlock MessageBlock(int length) {
  const size_t size = static_cast<size_t>(length);
  kiv::OwnedBlock block = kiv::NewBlock(size, kClassNetBuffer, KivNetBuffer::kFnSetBuffer);
  std::memset(block.get(), 0, size);
  return block;
}

// A new container holding `block` of `length` bytes; its storage is the caller's to release.
KivNetBuffer Store(kiv::OwnedBlock block, int length) {
  KivNetBuffer buffer;
  // A message of no bytes leaves the container empty, as storing no bytes does.
  if (length > 0) {
    buffer.AdoptBlock(std::move(block), length);
  }
  return buffer;
}

// The whole message of an HBN3 header, with the payload it holds.
KivNetBuffer StoreHBN3(KivHBN3Header &header) {
  const int length = kHBN3HeaderLength + header.GetPayloadSize();
  kiv::OwnedBlock message = MessageBlock(length);
  header.GetDataStream(message.get(), length);
  return Store(std::move(message), length);
}

} // namespace

KivHBN3Assembler::~KivHBN3Assembler() = default;

KivNetBuffer KivHBN3Assembler::CreateDiscover() {
  KivHCPDiscoveryHeader query;
  const int length = query.GetHeaderLength();
  kiv::OwnedBlock message = MessageBlock(length);
  query.GetDataHeader(message.get(), length);
  return Store(std::move(message), length);
}

KivNetBuffer KivHBN3Assembler::CreatePing(UInt32 iTimeStamp) {
  KivHBN3Header header(kHeaderTypeHBN3, 0, kChannelPing, iTimeStamp, kCmdPing);
  return StoreHBN3(header);
}

KivNetBuffer KivHBN3Assembler::CreateStatusCacheRequest(UInt32 iPortInfo, UInt32 iChannelID,
                                                        UInt32 iTimeStamp) {
  KivHBN3Header header(kHeaderTypeHBN3, iPortInfo, iChannelID, iTimeStamp, kCmdStatusCacheRequest);
  return StoreHBN3(header);
}

KivNetBuffer KivHBN3Assembler::CreateHostListEntry(bool /*bPwdFlag*/, int iType, UInt32 iPortInfo,
                                                   UInt32 iTimeStamp, char *strHostname,
                                                   std::string strPinNum, unsigned char *cUniqueID,
                                                   UInt16 iCodePage) {
  // The type is carried as the caller's bits; a negative int keeps its two's-complement form.
  KivHBN3ScanHostPayLoad payload(static_cast<UInt32>(iType), std::move(strPinNum), cUniqueID,
                                 iCodePage, strHostname);
  KivHBN3Header header(kHeaderTypeHBN3, iPortInfo, kChannelScan, iTimeStamp, kCmdHostListEntry,
                       payload);
  return StoreHBN3(header);
}

KivNetBuffer KivHBN3Assembler::CreateRequestScan(bool /*bPwdFlag*/, UInt32 iPortInfo,
                                                 UInt32 iTimeStamp, UInt64 iHIDRep) {
  // The header holds no payload: it only declares the 8 report bytes written after it here.
  KivHBN3Header header(kHeaderTypeHBN3, iPortInfo, kChannelScan, iTimeStamp, kCmdRequestScan);
  header.SetDataLength(kHBN3ReportLength);
  kiv::OwnedBlock message = MessageBlock(kRequestScanLength);
  header.GetDataHeader(message.get(), kHBN3HeaderLength);
  kiv::WriteLE64(message.get() + kHBN3HeaderLength, iHIDRep);
  return Store(std::move(message), kRequestScanLength);
}

KivNetBuffer KivHBN3Assembler::CreateRequestScanReply(bool /*bPwdFlag*/, UInt32 iPortInfo,
                                                      UInt32 iTimeStamp) {
  KivHBN3Header header(kHeaderTypeHBN3, iPortInfo, kChannelScan, iTimeStamp, kCmdRequestScanReply);
  return StoreHBN3(header);
}

KivNetBuffer KivHBN3Assembler::CreateIPConfig(std::string strDestMacAddress,
                                              std::string /*strSrcMacAddress*/,
                                              std::string /*strSrcIPAddress*/,
                                              std::string strDestIPAddress, std::string strPassword,
                                              std::string strNetMask, std::string strGateway) {
  // The record comes first: address texts of any length are the caller's, and one too long for
  // the working area is refused by the room check before the host is asked anything.
  KivHCPConfigText text(strDestIPAddress.c_str(), strNetMask.c_str(), strGateway.c_str());
  unsigned char record[kConfigTextRoom];
  int recordLength = 0;
  text.GetHCPConfigText(record, &recordLength, kConfigTextRoom);

  KivHCPConfigHeader header;
  header.SetDestIP(reinterpret_cast<const unsigned char *>(strDestIPAddress.c_str()));
  header.SetDestUAA(reinterpret_cast<const unsigned char *>(strDestMacAddress.c_str()));
  // A length beyond 32 bits must not wrap to a small one; the header refuses anything above
  // 65535 bytes.
  const UInt32 passwordLength =
      strPassword.size() > UINT32_MAX ? UINT32_MAX : static_cast<UInt32>(strPassword.size());
  header.SetEncryptedPassword(reinterpret_cast<const unsigned char *>(strPassword.data()),
                              passwordLength);
  header.SetConfigTextRecord(record, static_cast<UInt32>(recordLength));

  const int length = header.GetHeaderLength();
  kiv::OwnedBlock message = MessageBlock(length);
  header.GetDataHeader(message.get(), length);
  return Store(std::move(message), length);
}
