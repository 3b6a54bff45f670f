// The message container.
#include "CommonFiles/KivNetBuffer.h"

#include <cstring>
#include <new>

#include "CommonFiles/KivHandleRegistry.h"
#include "CommonFiles/KivWireBytes.h"
#include "Exceptions/KivWrapperException.h"

namespace {

[[noreturn]] void Fail(UInt32 function, KivWrapperError error) {
  throw KivWrapperException(kClassNetBuffer, function, error);
}

// Allocates `length` bytes (length > 0) or throws COPY_ERROR of `function`.
unsigned char *Allocate(int length, UInt32 function) {
  unsigned char *block = new (std::nothrow) unsigned char[static_cast<size_t>(length)];
  if (block == nullptr) {
    Fail(function, COPY_ERROR);
  }
  return block;
}

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
  unsigned char *block = new (std::nothrow) unsigned char[static_cast<size_t>(length)];
  if (block == nullptr) {
    // The container is left empty: never a pointer to released storage.
    ResetBuffer();
    Fail(kFnSetBuffer, COPY_ERROR);
  }
  std::memcpy(block, buffer, static_cast<size_t>(length));
  ResetBuffer();
  mBuffer = block;
  mBufferLength = length;
  // A message too short to hold a field records 0 for it rather than reading past its end.
  mHeader = kiv::ReadBE32At(block, length, 0);
  mCommand = kiv::ReadBE32At(block, length, 16);
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
    std::memcpy(buffer, mBuffer, static_cast<size_t>(mBufferLength));
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
    std::memcpy(buffer, mBuffer, static_cast<size_t>(moved));
    ResetBuffer();
    return moved;
  }
  // Allocate the remainder first, so a failure leaves the content as it was.
  const int remaining = mBufferLength - length;
  unsigned char *rest = Allocate(remaining, kFnExtractFromBuffer);
  std::memcpy(buffer, mBuffer, static_cast<size_t>(length));
  std::memcpy(rest, mBuffer + length, static_cast<size_t>(remaining));
  delete[] mBuffer;
  mBuffer = rest;
  mBufferLength = remaining;
  return length;
}

int KivNetBuffer::InsertIntoBuffer(const unsigned char *buffer, int length) {
  if (buffer == nullptr) {
    Fail(kFnInsertIntoBuffer, BUFFER_NULL);
  }
  if (length < 0 || (mBufferLength > 0 && length > 0x7FFFFFFF - mBufferLength)) {
    Fail(kFnInsertIntoBuffer, BUFFER_SIZE_ERROR);
  }
  if (mBuffer != nullptr) {
    const int total = mBufferLength + length;
    unsigned char *block = Allocate(total, kFnInsertIntoBuffer);
    std::memcpy(block, mBuffer, static_cast<size_t>(mBufferLength));
    if (length > 0) {
      std::memcpy(block + mBufferLength, buffer, static_cast<size_t>(length));
    }
    delete[] mBuffer;
    mBuffer = block;
    mBufferLength = total;
    return 0;
  }
  if (length > 0) {
    unsigned char *block = Allocate(length, kFnInsertIntoBuffer);
    std::memcpy(block, buffer, static_cast<size_t>(length));
    mBuffer = block;
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

void *KivNetBuffer::GetHeaderContainer(UInt32 &iType) const {
  iType = mHeader;
  return nullptr;
}
