// The message builder for HBN3 and HCP.
#include "Asm_Deasm/KivHBN3Assembler.h"

#include <cstdint>
#include <vector>

#include "Common/Constants/KivCommunicationConstants.h"
#include "CommonFiles/KivWireBytes.h"
#include "HBN3/KivHBN3Header.h"
#include "HBN3/KivHBN3PayLoad.h"
#include "HCP/KivHCPConfigHeader.h"
#include "HCP/KivHCPDiscoveryHeader.h"

namespace {

typedef std::vector<unsigned char> Bytes;

// A new container holding `message`. The container's copy is the caller's to release; the
// working bytes go with the vector.
KivNetBuffer Store(const Bytes &message) {
  KivNetBuffer buffer;
  buffer.SetBuffer(message.data(), static_cast<int>(message.size()));
  return buffer;
}

// The whole message of an HBN3 header, with the payload it holds.
KivNetBuffer StoreHBN3(KivHBN3Header &header) {
  Bytes message(static_cast<size_t>(kHBN3HeaderLength + header.GetPayloadSize()));
  header.GetDataStream(message.data(), static_cast<int>(message.size()));
  return Store(message);
}

} // namespace

KivHBN3Assembler::~KivHBN3Assembler() = default;

KivNetBuffer KivHBN3Assembler::CreateDiscover() {
  KivHCPDiscoveryHeader query;
  Bytes message(static_cast<size_t>(query.GetHeaderLength()));
  query.GetDataHeader(message.data(), static_cast<int>(message.size()));
  return Store(message);
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
  Bytes message(kRequestScanLength);
  header.GetDataHeader(message.data(), kHBN3HeaderLength);
  kiv::WriteLE64(message.data() + kHBN3HeaderLength, iHIDRep);
  return Store(message);
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
  Bytes record(kConfigTextRoom);
  int recordLength = 0;
  text.GetHCPConfigText(record.data(), &recordLength, kConfigTextRoom);

  KivHCPConfigHeader header;
  header.SetDestIP(reinterpret_cast<const unsigned char *>(strDestIPAddress.c_str()));
  header.SetDestUAA(reinterpret_cast<const unsigned char *>(strDestMacAddress.c_str()));
  // A length beyond 32 bits must not wrap to a small one; the header refuses anything above
  // 65535 bytes.
  const UInt32 passwordLength =
      strPassword.size() > UINT32_MAX ? UINT32_MAX : static_cast<UInt32>(strPassword.size());
  header.SetEncryptedPassword(reinterpret_cast<const unsigned char *>(strPassword.data()),
                              passwordLength);
  header.SetConfigTextRecord(record.data(), static_cast<UInt32>(recordLength));

  Bytes message(static_cast<size_t>(header.GetHeaderLength()));
  header.GetDataHeader(message.data(), static_cast<int>(message.size()));
  return Store(message);
}
