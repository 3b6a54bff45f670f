// The HCP configuration message and its text record.
#include "HCP/KivHCPConfigHeader.h"

#include <climits>
#include <cstring>
#include <utility>

#include "Common/Constants/KivCommunicationConstants.h"
#include "CommonFiles/KivOwnedBlock.h"
#include "CommonFiles/KivWireBytes.h"
#include "Exceptions/KivWrapperException.h"
#include "HelperFiles/KivNetHelperUtils.h"

namespace {

// Keys of the record's three lines, each with its separating space.
constexpr char kKeyIPAddress[] = "IPADDRESS ";
constexpr char kKeyIPNetMask[] = "IPNETMASK ";
constexpr char kKeyIPGateway[] = "IPGATEWAY ";
constexpr size_t kKeyLength = sizeof(kKeyIPAddress) - 1;
constexpr unsigned char kEndOfLine = 0x0A;

// Offsets of the message's fixed fields.
constexpr int kOffsetIdentifier = 0;
constexpr int kOffsetVersion = 4;
constexpr int kOffsetDestMac = 6;
constexpr int kOffsetSourceMac = 12;
constexpr int kOffsetSourceIP = 18;
constexpr int kOffsetDestIP = 22;
constexpr int kOffsetCommand = 26;
constexpr int kOffsetPasswordLength = 28;
constexpr int kOffsetPassword = 30;
// The record's length, a 32-bit field after the password.
constexpr int kRecordLengthSize = 4;

constexpr UInt16 kDefaultVersion = 1;

// Writes one line (key, value, end of line) at `out`; returns the position after it.
unsigned char *WriteLine(unsigned char *out, const char *key, const std::string &value) {
  std::memcpy(out, key, kKeyLength);
  out += kKeyLength;
  std::memcpy(out, value.data(), value.size());
  out += value.size();
  *out = kEndOfLine;
  return out + 1;
}

} // namespace

// ---- KivHCPConfigText ---------------------------------------------------------------------------

KivHCPConfigText::KivHCPConfigText() = default;

KivHCPConfigText::KivHCPConfigText(const char *ipAddress, const char *ipNetMask,
                                   const char *ipGateway) {
  SetIPAddress(ipAddress);
  SetIPNetMask(ipNetMask);
  SetIPGateWay(ipGateway);
}

void KivHCPConfigText::CleanUp() {
  mIPAdress.clear();
  mIPNetMask.clear();
  mIPGateway.clear();
}

void KivHCPConfigText::SetIPAddress(const char *ipAddress) {
  if (ipAddress != nullptr) {
    mIPAdress = ipAddress;
  }
}

void KivHCPConfigText::SetIPNetMask(const char *ipNetmask) {
  if (ipNetmask != nullptr) {
    mIPNetMask = ipNetmask;
  }
}

void KivHCPConfigText::SetIPGateWay(const char *ipGateWay) {
  if (ipGateWay != nullptr) {
    mIPGateway = ipGateWay;
  }
}

size_t KivHCPConfigText::GetRecordLength() const {
  return 3 * (kKeyLength + 1) + mIPAdress.size() + mIPNetMask.size() + mIPGateway.size();
}

void KivHCPConfigText::GetHCPConfigText(unsigned char *container, int *len, int room) {
  if (container == nullptr || len == nullptr) {
    throw KivWrapperException(kClassHCPConfigText, kFnGetHCPConfigText, BUFFER_NULL);
  }
  // The values are the caller's texts of any length; a record that does not fit is refused
  // whole, so the room is never overrun and never left half written.
  const size_t length = GetRecordLength();
  if (length > static_cast<size_t>(INT_MAX) ||
      !kiv::Fits(0, static_cast<long long>(length), room)) {
    throw KivWrapperException(kClassHCPConfigText, kFnGetHCPConfigText, COPY_ERROR);
  }
  unsigned char *out = container;
  out = WriteLine(out, kKeyIPAddress, mIPAdress);
  out = WriteLine(out, kKeyIPNetMask, mIPNetMask);
  WriteLine(out, kKeyIPGateway, mIPGateway);
  *len = static_cast<int>(length);
}

void KivHCPConfigText::GetHCPConfigText(unsigned char *container, int *len) {
  GetHCPConfigText(container, len, kDefaultRoom);
}

// ---- KivHCPConfigHeader -------------------------------------------------------------------------

KivHCPConfigHeader::KivHCPConfigHeader() : KivHCPConfigHeader(kHeaderTypeHCP1, kDefaultVersion) {}

KivHCPConfigHeader::KivHCPConfigHeader(UInt32 hcpID, UInt16 version)
    : mHCPIdentifier(hcpID), mVersion(version), mMacDestAddr(), mMacSourceAddr(), mSourceIP(0),
      mDestIP(0), mCommand(kHCPConfigCommand), mPasswordLength(0), mTxtRecordLegth(0) {
  Init();
}

KivHCPConfigHeader::~KivHCPConfigHeader() = default;

void KivHCPConfigHeader::SetHCPConfigIDwithVersion(UInt32 hcpID, UInt16 version) {
  mHCPIdentifier = hcpID;
  mVersion = version;
}

void KivHCPConfigHeader::Init() {
  // The snapshot comes first: if the host has no default interface, nothing has changed yet.
  std::unique_ptr<KivNetHelperUtils> helper(new KivNetHelperUtils());
  mDestIP = 0;
  mCommand = kHCPConfigCommand;
  std::memset(mMacDestAddr, 0, sizeof(mMacDestAddr));
  std::memset(mMacSourceAddr, 0, sizeof(mMacSourceAddr));
  mPasswordLength = 0;
  mEncryptedPassword.reset();
  mTxtRecordLegth = 0;
  mConfigTextRecord.reset();
  mKivNetHelper = std::move(helper);
  mSourceIP = mKivNetHelper->GetHostIPAddress();
}

void KivHCPConfigHeader::HostCurrentIPAddr() { mSourceIP = mKivNetHelper->GetHostIPAddress(); }

void KivHCPConfigHeader::SetDestUAA(const unsigned char *destMac) {
  mKivNetHelper->GetExactHexValOfString(reinterpret_cast<const char *>(destMac), mMacDestAddr);
}

void KivHCPConfigHeader::SetDestIP(const unsigned char *destIP) {
  if (destIP == nullptr) {
    mDestIP = static_cast<UInt32>(KivNetHelperUtils::kInvalidAddress);
    return;
  }
  mDestIP = static_cast<UInt32>(
      mKivNetHelper->GetLongFromIP(std::string(reinterpret_cast<const char *>(destIP))));
}

void KivHCPConfigHeader::SetEncryptedPassword(const unsigned char *password, UInt32 passwordlen) {
  // A longer password would go out with a wrong 16-bit length and desynchronise the device's
  // reading of the record that follows it.
  if (passwordlen > kMaxPasswordLength || (passwordlen != 0 && password == nullptr)) {
    throw KivWrapperException(kClassHCPConfigHeader, kFnSetEncryptedPassword, COPY_ERROR);
  }
  kiv::OwnedBlock copy;
  if (passwordlen != 0) {
    copy = kiv::CopyToBlock(password, passwordlen, kClassHCPConfigHeader, kFnSetEncryptedPassword);
  }
  mEncryptedPassword = std::move(copy);
  mPasswordLength = static_cast<UInt16>(passwordlen);
}

void KivHCPConfigHeader::SetConfigTextRecord(const unsigned char *configtxtrec,
                                             UInt32 configtxtreclen) {
  // GetHeaderLength is an int; the longest password must still fit beside the record.
  const UInt32 longest = static_cast<UInt32>(INT_MAX) - kFixedLength - kMaxPasswordLength;
  if (configtxtreclen > longest || (configtxtreclen != 0 && configtxtrec == nullptr)) {
    throw KivWrapperException(kClassHCPConfigHeader, kFnSetConfigTextRecord, COPY_ERROR);
  }
  kiv::OwnedBlock copy;
  if (configtxtreclen != 0) {
    copy = kiv::CopyToBlock(configtxtrec, configtxtreclen, kClassHCPConfigHeader,
                            kFnSetConfigTextRecord);
  }
  mConfigTextRecord = std::move(copy);
  mTxtRecordLegth = configtxtreclen;
}

int KivHCPConfigHeader::GetHeaderLength() const {
  return kFixedLength + mPasswordLength + static_cast<int>(mTxtRecordLegth);
}

void KivHCPConfigHeader::GetDataHeader(unsigned char *dataHeader, int dataHeaderlen) {
  if (dataHeader == nullptr) {
    throw KivWrapperException(kClassHCPConfigHeader, kFnGetDataHeader, BUFFER_NULL);
  }
  if (dataHeaderlen < kMinimumRoom || !kiv::Fits(0, GetHeaderLength(), dataHeaderlen)) {
    throw KivWrapperException(kClassHCPConfigHeader, kFnGetDataHeader, BUFFER_SIZE_ERROR);
  }
  kiv::WriteBE32(dataHeader + kOffsetIdentifier, mHCPIdentifier);
  kiv::WriteBE16(dataHeader + kOffsetVersion, mVersion);
  std::memcpy(dataHeader + kOffsetDestMac, mMacDestAddr, sizeof(mMacDestAddr));
  std::memcpy(dataHeader + kOffsetSourceMac, mMacSourceAddr, sizeof(mMacSourceAddr));
  kiv::WriteNetworkOrder32(dataHeader + kOffsetSourceIP, mSourceIP);
  kiv::WriteNetworkOrder32(dataHeader + kOffsetDestIP, mDestIP);
  kiv::WriteBE16(dataHeader + kOffsetCommand, mCommand);
  kiv::WriteBE16(dataHeader + kOffsetPasswordLength, mPasswordLength);
  if (mPasswordLength != 0) {
    std::memcpy(dataHeader + kOffsetPassword, mEncryptedPassword.get(), mPasswordLength);
  }
  const int recordLengthOffset = kOffsetPassword + mPasswordLength;
  kiv::WriteBE32(dataHeader + recordLengthOffset, mTxtRecordLegth);
  if (mTxtRecordLegth != 0) {
    std::memcpy(dataHeader + recordLengthOffset + kRecordLengthSize, mConfigTextRecord.get(),
                mTxtRecordLegth);
  }
}
