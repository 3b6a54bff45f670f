// The HCP discovery query.
#include "HCP/KivHCPDiscoveryHeader.h"

#include <cstring>

#include "CommonFiles/KivWireBytes.h"
#include "Exceptions/KivWrapperException.h"

namespace {

// Offsets of the query's fields.
constexpr int kOffsetTransID = 0;
constexpr int kOffsetFlags = 2;
constexpr int kOffsetQuestion = 4;
constexpr int kOffsetAnswer = 6;
constexpr int kOffsetAuthority = 8;
constexpr int kOffsetAddRRs = 10;
constexpr int kOffsetFirstLabelLength = 12;
constexpr int kOffsetQueryType = 13;
constexpr int kOffsetSecondLabelLength = 25;
constexpr int kOffsetTransType = 26;
constexpr int kOffsetThirdLabelLength = 30;
constexpr int kOffsetLocalType = 31;
constexpr int kOffsetEndOfName = 36;
constexpr int kOffsetServiceType = 37;
constexpr int kOffsetInetClass = 39;

} // namespace

KivHCPDiscoveryHeader::KivHCPDiscoveryHeader()
    : mTransID(0), mFlags(0), mQuestion(1), mAnswer(0), mAuthority(0), mAddRRs(0),
      mMoreHeader(12), mQuerytype{'_', 'h', 'o', 's', 't', '-', 'c', 'o', 'n', 'f', 'i', 'g'},
      mEot(4), mTranstype{'_', 'u', 'd', 'p'}, mEnquiry(5), mLocaltype{'l', 'o', 'c', 'a', 'l'},
      mServicetype(0x0021), mInetclass(0x0001), mDataHeaderLen(kQueryLength) {}

KivHCPDiscoveryHeader::~KivHCPDiscoveryHeader() = default;

void KivHCPDiscoveryHeader::GetDataHeader(unsigned char *dataHeader, int dataHeaderlen) {
  if (dataHeader == nullptr) {
    throw KivWrapperException(kClassHCPDiscoveryHeader, kFnGetDataHeader, BUFFER_NULL);
  }
  if (dataHeaderlen < kMinimumRoom) {
    throw KivWrapperException(kClassHCPDiscoveryHeader, kFnGetDataHeader, BUFFER_SIZE_ERROR);
  }
  // Rooms of 10 to 40 bytes have always been accepted and left alone; callers that pass them
  // see an unchanged buffer rather than an error.
  if (!kiv::Fits(0, mDataHeaderLen, dataHeaderlen)) {
    return;
  }
  kiv::WriteBE16(dataHeader + kOffsetTransID, mTransID);
  kiv::WriteBE16(dataHeader + kOffsetFlags, mFlags);
  kiv::WriteBE16(dataHeader + kOffsetQuestion, mQuestion);
  kiv::WriteBE16(dataHeader + kOffsetAnswer, mAnswer);
  kiv::WriteBE16(dataHeader + kOffsetAuthority, mAuthority);
  kiv::WriteBE16(dataHeader + kOffsetAddRRs, mAddRRs);
  // Devices are answered with 0x00 here, not the first label's length 12: the byte has always
  // been the high half of that length taken as a 16-bit field, and every deployed copy of the
  // query (the relocation's included) carries it.
  unsigned char lengthField[2];
  kiv::WriteBE16(lengthField, mMoreHeader);
  dataHeader[kOffsetFirstLabelLength] = lengthField[0];
  std::memcpy(dataHeader + kOffsetQueryType, mQuerytype, sizeof(mQuerytype));
  dataHeader[kOffsetSecondLabelLength] = mEot;
  std::memcpy(dataHeader + kOffsetTransType, mTranstype, sizeof(mTranstype));
  dataHeader[kOffsetThirdLabelLength] = mEnquiry;
  std::memcpy(dataHeader + kOffsetLocalType, mLocaltype, sizeof(mLocaltype));
  dataHeader[kOffsetEndOfName] = 0;
  kiv::WriteBE16(dataHeader + kOffsetServiceType, mServicetype);
  kiv::WriteBE16(dataHeader + kOffsetInetClass, mInetclass);
}
