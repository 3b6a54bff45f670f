// The message container.
#include "CommonFiles/KivNetBuffer.h"

#include <climits>
#include <cstring>

#include "Common/Constants/KivCommunicationConstants.h"
#include "CommonFiles/KivHandleRegistry.h"
#include "CommonFiles/KivOwnedBlock.h"
#include "CommonFiles/KivWireBytes.h"
#include "Exceptions/KivWrapperException.h"

namespace {

[[noreturn]] void Fail(UInt32 function, KivWrapperError error) {
  throw KivWrapperException(kClassNetBuffer, function, error);
}

size_t Size(int length) { return static_cast<size_t>(length); }

} // namespace

KivNetBuffer::KivNetBuffer()
    : mBuffer(nullptr), mBufferLength(0), mHeader(0), mCommand(0), mClassID(kKivNetBufferClassID) {}

KivNetBuffer::~KivNetBuffer() { kiv::ForgetHandle(this, kKivNetBufferClassID); }

int KivNetBuffer::SetBuffer(const unsigned char *buffer, int length) {
  if (buffer == nullptr) {
    Fail(kFnSetBuffer, BUFFER_NULL);
  }
  if (length < 0) {
    Fail(kFnSetBuffer, BUFFER_SIZE_ERROR);
  }
  if (length == 0) {
    ResetBuffer();
    return 0;
  }
  // The source may lie in the block being replaced (the container's own bytes, or a copy that
  // shares them), so it is copied before that block is released.
  kiv::OwnedBlock block;
  try {
    block = kiv::CopyToBlock(buffer, Size(length), kClassNetBuffer, kFnSetBuffer);
  } catch (const KivWrapperException &) {
    // The container is left empty: never a pointer to released storage.
    ResetBuffer();
    throw;
  }
  ResetBuffer();
  Hold(block.release(), length);
  return mBufferLength;
}

int KivNetBuffer::GetBuffer(unsigned char *buffer, int length) const {
  if (buffer == nullptr) {
    Fail(kFnGetBuffer, BUFFER_NULL);
  }
  if (mBufferLength > length) {
    Fail(kFnGetBuffer, BUFFER_SIZE_ERROR);
  }
  if (mBufferLength > 0) {
    std::memcpy(buffer, mBuffer, Size(mBufferLength));
  }
  return mBufferLength;
}

int KivNetBuffer::ExtractFromBuffer(unsigned char *buffer, int length) {
  if (buffer == nullptr) {
    Fail(kFnExtractFromBuffer, BUFFER_NULL);
  }
  if (length < 0) {
    Fail(kFnExtractFromBuffer, BUFFER_SIZE_ERROR);
  }
  if (mBuffer == nullptr || length == 0) {
    return 0;
  }
  if (mBufferLength <= length) {
    const int moved = mBufferLength;
    std::memcpy(buffer, mBuffer, Size(moved));
    ResetBuffer();
    return moved;
  }
  // Copy the remainder first, so a failure leaves the content as it was.
  const int remaining = mBufferLength - length;
  kiv::OwnedBlock rest =
      kiv::CopyToBlock(mBuffer + length, Size(remaining), kClassNetBuffer, kFnExtractFromBuffer);
  std::memcpy(buffer, mBuffer, Size(length));
  delete[] mBuffer;
  mBuffer = rest.release();
  mBufferLength = remaining;
  return length;
}

int KivNetBuffer::InsertIntoBuffer(const unsigned char *buffer, int length) {
  if (buffer == nullptr) {
    Fail(kFnInsertIntoBuffer, BUFFER_NULL);
  }
  // The stored length is an int: a sum beyond INT_MAX could not be held.
  if (length < 0 || (mBufferLength > 0 && length > INT_MAX - mBufferLength)) {
    Fail(kFnInsertIntoBuffer, BUFFER_SIZE_ERROR);
  }
  if (mBuffer != nullptr) {
    const int total = mBufferLength + length;
    kiv::OwnedBlock block = kiv::NewBlock(Size(total), kClassNetBuffer, kFnInsertIntoBuffer);
    std::memcpy(block.get(), mBuffer, Size(mBufferLength));
    if (length > 0) {
      std::memcpy(block.get() + mBufferLength, buffer, Size(length));
    }
    delete[] mBuffer;
    mBuffer = block.release();
    mBufferLength = total;
    return 0;
  }
  if (length > 0) {
    mBuffer =
        kiv::CopyToBlock(buffer, Size(length), kClassNetBuffer, kFnInsertIntoBuffer).release();
  }
  // Keeps the invariant: no block exactly when no bytes.
  mBufferLength = length;
  return mBufferLength;
}

void KivNetBuffer::ResetBuffer() {
  delete[] mBuffer;
  mBuffer = nullptr;
  mBufferLength = 0;
}

void KivNetBuffer::AdoptBlock(kiv::OwnedBlock block, int length) {
  if (!block) {
    Fail(kFnSetBuffer, BUFFER_NULL);
  }
  if (length < 1) {
    Fail(kFnSetBuffer, BUFFER_SIZE_ERROR);
  }
  ResetBuffer();
  Hold(block.release(), length);
}

void KivNetBuffer::TakeBuffer(KivNetBuffer &source) {
  if (source.mBuffer == nullptr) {
    Fail(kFnSetBuffer, BUFFER_NULL);
  }
  unsigned char *const block = source.mBuffer;
  const int length = source.mBufferLength;
  source.mBuffer = nullptr;
  source.mBufferLength = 0;
  // A copy of this container shares its block: that block is kept, not released.
  if (block != mBuffer) {
    ResetBuffer();
  }
  Hold(block, length);
}

void KivNetBuffer::Hold(unsigned char *block, int length) {
  mBuffer = block;
  mBufferLength = length;
  // A message too short to hold a field records 0 for it rather than reading past its end.
  mHeader = kiv::ReadBE32At(mBuffer, length, kHBN3OffsetTag);
  mCommand = kiv::ReadBE32At(mBuffer, length, kHBN3OffsetCommand);
}

void *KivNetBuffer::GetHeaderContainer(UInt32 &iType) const {
  iType = mHeader;
  return nullptr;
}
