// The HBN3 message header.
#include "HBN3/KivHBN3Header.h"

#include <cstring>
#include <utility>

#include "Common/Constants/KivCommunicationConstants.h"
#include "CommonFiles/KivOwnedBlock.h"
#include "CommonFiles/KivWireBytes.h"
#include "Exceptions/KivWrapperException.h"

namespace {

[[noreturn]] void Fail(UInt32 function, KivWrapperError error) {
  throw KivWrapperException(kClassHBN3Header, function, error);
}

} // namespace

KivHBN3Header::KivHBN3Header(UInt32 hbna_id, UInt32 portInfo, UInt32 channelID, UInt32 timeStamp,
                             UInt32 command)
    : mHBN_id(hbna_id), mPortInfo(portInfo), mChannelID(channelID), mTimeStamp(timeStamp),
      mCommand(command), mDataLength(0), mPayload(), mPayloadSize(0) {}

KivHBN3Header::KivHBN3Header(UInt32 hbna_id, UInt32 portInfo, UInt32 channelID, UInt32 timeStamp,
                             UInt32 command, KivPayload &payload)
    : KivHBN3Header(hbna_id, portInfo, channelID, timeStamp, command) {
  const int length = payload.GetPayloadLength();
  if (length <= 0) {
    // A negative length is never an allocation count; such a payload has nothing to carry.
    return;
  }
  // Zero-filled, so a payload that writes fewer bytes than it states leaves no stale memory in
  // the message. The block is released here if the payload throws.
  const size_t size = static_cast<size_t>(length);
  kiv::OwnedBlock block = kiv::NewBlock(size, kClassHBN3Header, kFnConstructor);
  std::memset(block.get(), 0, size);
  payload.GetDataPayload(block.get(), length);
  mPayload = std::move(block);
  mPayloadSize = length;
  mDataLength = static_cast<UInt32>(length);
}

KivHBN3Header::KivHBN3Header(const unsigned char *message, int messageSize)
    : KivHBN3Header(0, 0, 0, 0, 0) {
  SetDataHeader(message, messageSize);
}

KivHBN3Header::~KivHBN3Header() = default;

void KivHBN3Header::SetDataHeader(const unsigned char *message, int messageSize) {
  if (message == nullptr) {
    Fail(kFnSetDataHeader, BUFFER_NULL);
  }
  if (messageSize < kHBN3HeaderLength) {
    Fail(kFnSetDataHeader, BUFFER_SIZE_ERROR);
  }
  // The declared length comes from the peer: it is checked against the bytes that arrived before
  // it sizes anything, so a lying length neither reads past the message nor allocates more than
  // the message holds.
  const UInt32 dataLength = kiv::ReadBE32(message + kHBN3OffsetDataLength);
  if (!kiv::Fits(kHBN3HeaderLength, dataLength, messageSize)) {
    Fail(kFnSetDataHeader, BUFFER_SIZE_ERROR);
  }
  kiv::OwnedBlock block;
  if (dataLength > 0) {
    block = kiv::CopyToBlock(message + kHBN3HeaderLength, dataLength, kClassHBN3Header,
                             kFnSetDataHeader);
  }
  // Nothing below can fail: the header changes all at once or not at all.
  mHBN_id = kiv::ReadBE32(message + kHBN3OffsetTag);
  mPortInfo = kiv::ReadBE32(message + kHBN3OffsetPortInfo);
  mChannelID = kiv::ReadBE32(message + kHBN3OffsetChannel);
  mTimeStamp = kiv::ReadBE32(message + kHBN3OffsetTimeStamp);
  mCommand = kiv::ReadBE32(message + kHBN3OffsetCommand);
  mDataLength = dataLength;
  mPayload = std::move(block);
  mPayloadSize = static_cast<int>(dataLength);
}

void KivHBN3Header::GetDataHeader(unsigned char *dataHeader, int dataHeaderlen) {
  if (dataHeader == nullptr) {
    Fail(kFnGetDataHeader, BUFFER_NULL);
  }
  if (dataHeaderlen < kHBN3HeaderLength) {
    Fail(kFnGetDataHeader, BUFFER_SIZE_ERROR);
  }
  kiv::WriteBE32(dataHeader + kHBN3OffsetTag, mHBN_id);
  kiv::WriteBE32(dataHeader + kHBN3OffsetPortInfo, mPortInfo);
  kiv::WriteBE32(dataHeader + kHBN3OffsetChannel, mChannelID);
  kiv::WriteBE32(dataHeader + kHBN3OffsetTimeStamp, mTimeStamp);
  kiv::WriteBE32(dataHeader + kHBN3OffsetCommand, mCommand);
  kiv::WriteBE32(dataHeader + kHBN3OffsetDataLength, mDataLength);
}

void KivHBN3Header::GetDataStream(unsigned char *dataStream, int dataStreamlen) {
  // A short room is answered by writing nothing, not by an exception: builders size the room
  // from GetPayloadSize() and callers rely on the silence.
  if (!kiv::Fits(kHBN3HeaderLength, mDataLength, dataStreamlen)) {
    return;
  }
  GetDataHeader(dataStream, kHBN3HeaderLength);
  if (mPayload != nullptr) {
    GetPayload(dataStream, static_cast<int>(mDataLength));
  }
}

void KivHBN3Header::GetPayload(unsigned char *dataPayload, int dataPayloadlen) const {
  if (dataPayload == nullptr) {
    Fail(kFnGetPayload, BUFFER_NULL);
  }
  if (!kiv::Fits(0, mDataLength, dataPayloadlen)) {
    Fail(kFnGetPayload, BUFFER_SIZE_ERROR);
  }
  // SetDataLength may state more than is held; only held bytes are ever read.
  const long long count =
      mPayloadSize < static_cast<long long>(mDataLength) ? mPayloadSize : mDataLength;
  if (count > 0) {
    std::memcpy(dataPayload + kHBN3HeaderLength, mPayload.get(), static_cast<size_t>(count));
  }
}
