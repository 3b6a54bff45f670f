// The host-list entry and status-cache answer payloads.
#include "HBN3/KivHBN3PayLoad.h"

#include <cstring>
#include <utility>

#include "CommonFiles/KivOwnedBlock.h"
#include "CommonFiles/KivWireBytes.h"
#include "Exceptions/KivWrapperException.h"

namespace {

// Host-list payload offsets.
constexpr int kOffType = 0;
constexpr int kOffPin = 4;
constexpr int kPinLength = 4;
constexpr int kOffUniqueID = 8;
constexpr int kUniqueIDLength = 6;
constexpr int kOffCodePage = 14;
constexpr int kOffNameLength = 16;

// Status-cache payload offsets.
constexpr int kOffAdapterUAA = 0;
constexpr int kAdapterUAALength = 6;
constexpr int kOffReserved = 6;
constexpr int kReservedLength = 2;
constexpr int kOffIPAddress = 8;
constexpr int kOffStatusLength = 12;
constexpr int kPrinterIDOffset = 26; // within the status bytes

} // namespace

// ---- KivHBN3ScanHostPayLoad ----

KivHBN3ScanHostPayLoad::KivHBN3ScanHostPayLoad(UInt32 processType, std::string strPinNum,
                                               const unsigned char *cUniqueID, UInt16 iCodePage,
                                               const char *strHostname)
    : mType(processType), mUniqueID(), mPinNum(std::move(strPinNum)), mCodePage(iCodePage),
      mHostNameSize(0), mHostName() {
  if (cUniqueID == nullptr) {
    throw KivWrapperException(kClassHBN3ScanHostPayLoad, kFnConstructor, COPY_ERROR);
  }
  std::memcpy(mUniqueID, cUniqueID, kUniqueIDLength);
  if (strHostname == nullptr) {
    return;
  }
  // The count byte is unsigned: a name of 200 bytes is 200, never a negative size.
  const UInt16 size = static_cast<unsigned char>(strHostname[0]);
  if (size == 0) {
    return;
  }
  mHostName = kiv::CopyToBlock(strHostname + 1, size, kClassHBN3ScanHostPayLoad, kFnConstructor);
  mHostNameSize = size;
}

KivHBN3ScanHostPayLoad::~KivHBN3ScanHostPayLoad() = default;

int KivHBN3ScanHostPayLoad::GetPayloadLength() { return kFixedLength + mHostNameSize; }

void KivHBN3ScanHostPayLoad::GetDataPayload(unsigned char *dataPayload, int payloadlen) {
  if (dataPayload == nullptr) {
    throw KivWrapperException(kClassHBN3ScanHostPayLoad, kFnGetDataPayload, BUFFER_NULL);
  }
  // The whole payload or nothing: a room that holds the fixed part but not the name is refused
  // before a byte is written.
  if (!kiv::Fits(0, GetPayloadLength(), payloadlen)) {
    throw KivWrapperException(kClassHBN3ScanHostPayLoad, kFnGetDataPayload, BUFFER_SIZE_ERROR);
  }
  unsigned char pin[kPinLength] = {'0', '0', '0', '0'};
  if (!mPinNum.empty()) {
    const size_t count = mPinNum.size() < sizeof pin ? mPinNum.size() : sizeof pin;
    std::memset(pin, 0, sizeof pin);
    std::memcpy(pin, mPinNum.data(), count);
  }
  kiv::WriteBE32(dataPayload + kOffType, mType);
  std::memcpy(dataPayload + kOffPin, pin, kPinLength);
  std::memcpy(dataPayload + kOffUniqueID, mUniqueID, kUniqueIDLength);
  kiv::WriteBE16(dataPayload + kOffCodePage, mCodePage);
  kiv::WriteBE16(dataPayload + kOffNameLength, mHostNameSize);
  if (mHostNameSize > 0) {
    std::memcpy(dataPayload + kFixedLength, mHostName.get(), mHostNameSize);
  }
}

// ---- KivHBN3StatusCacheResponsePayload ----

KivHBN3StatusCacheResponsePayload::KivHBN3StatusCacheResponsePayload(const unsigned char *data,
                                                                     int length)
    : isPayloadSet(false), mAdapterUAA(), mReserved(), mPayload(), mIPAddress(0),
      mPayloadLength(0) {
  if (data == nullptr) {
    throw KivWrapperException(kClassHBN3StatusCacheResponsePayload, kFnConstructor, BUFFER_NULL);
  }
  if (length < kFixedLength) {
    throw KivWrapperException(kClassHBN3StatusCacheResponsePayload, kFnConstructor,
                              BUFFER_SIZE_ERROR);
  }
  std::memcpy(mAdapterUAA, data + kOffAdapterUAA, kAdapterUAALength);
  std::memcpy(mReserved, data + kOffReserved, kReservedLength);
  // The address stays in network order, exactly as it arrived.
  mIPAddress = kiv::ReadNetworkOrder32(data + kOffIPAddress);
  mPayloadLength = static_cast<int>(kiv::ReadBE32(data + kOffStatusLength));

  // A declared length that is negative or runs past the bytes that arrived describes no complete
  // answer: the status is left out, and the length is never used as a size.
  if (!kiv::Fits(kFixedLength, mPayloadLength, length)) {
    return;
  }
  if (mPayloadLength > 0) {
    mPayload = kiv::CopyToBlock(data + kFixedLength, static_cast<size_t>(mPayloadLength),
                                kClassHBN3StatusCacheResponsePayload, kFnConstructor);
  }
  isPayloadSet = true;
}

KivHBN3StatusCacheResponsePayload::~KivHBN3StatusCacheResponsePayload() = default;

int KivHBN3StatusCacheResponsePayload::GetPayloadLength() { return mPayloadLength; }

void KivHBN3StatusCacheResponsePayload::GetDataPayload(unsigned char *dataPayload, int payloadlen) {
  if (dataPayload == nullptr) {
    throw KivWrapperException(kClassHBN3StatusCacheResponsePayload, kFnGetDataPayload, BUFFER_NULL);
  }
  // The room may be larger than what is held (the declared length of a cut answer): only held
  // bytes are read.
  const int held = GetHeldStatusLength();
  const int count = payloadlen < held ? payloadlen : held;
  if (count > 0) {
    std::memcpy(dataPayload, mPayload.get(), static_cast<size_t>(count));
  }
}

std::string KivHBN3StatusCacheResponsePayload::GetStrAdapterUAA() const {
  try {
    char text[2 * kAdapterUAALength];
    return std::string(text, kiv::WriteLowerHex(text, mAdapterUAA, kAdapterUAALength));
  } catch (...) {
    throw KivWrapperException(kClassHBN3StatusCacheResponsePayload, kFnGetStrAdapterUAA,
                              COPY_ERROR);
  }
}

std::string KivHBN3StatusCacheResponsePayload::GetIPAddressString() const {
  try {
    // Network order: the first octet of the dotted form is the first byte in memory.
    char text[sizeof "255.255.255.255"];
    return std::string(text, kiv::WriteDottedQuad(text, mIPAddress));
  } catch (...) {
    throw KivWrapperException(kClassHBN3StatusCacheResponsePayload, kFnGetIPAddressString,
                              COPY_ERROR);
  }
}

std::string KivHBN3StatusCacheResponsePayload::GetPrinterID() const {
  if (!kiv::Fits(kPrinterIDOffset, 2, GetHeldStatusLength())) {
    return std::string();
  }
  char text[4];
  return std::string(text, kiv::WriteLowerHex(text, mPayload.get() + kPrinterIDOffset, 2));
}
