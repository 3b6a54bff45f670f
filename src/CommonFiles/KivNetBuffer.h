// The message container: one wire message on the heap, with its header type and command.
#ifndef KIV_COMMONFILES_KIVNETBUFFER_H
#define KIV_COMMONFILES_KIVNETBUFFER_H

#include "Common/KivTypes.h"
#include "CommonFiles/KivOwnedBlock.h"

// Class identifier of a container, "buff"; the boundary validates buffer handles by it.
constexpr UInt32 kKivNetBufferClassID = 0x62756666;

// Holds one message. Storing bytes (SetBuffer) also records the message's header type (bytes 0-3)
// and command (bytes 16-19), both big-endian; a message too short for a field records 0 for it.
//
// Ownership: the container's own operations release its storage (ResetBuffer, SetBuffer before
// replacing, an ExtractFromBuffer that drains it). Destroying a container does NOT release it,
// and a copy shares the block with the original: exactly one holder releases it, by ResetBuffer.
// Within the library a KivNetBufferStorageGuard does that on every path.
//
// Every failure throws KivWrapperException with class number 0x80000 and the member's function
// number: GetBuffer 0x400, SetBuffer 0x500, ExtractFromBuffer 0xB00, InsertIntoBuffer 0xC00.
// A negative length is refused with BUFFER_SIZE_ERROR before anything changes.
class KIV_EXPORT KivNetBuffer {
public:
  // Function numbers of the throwing members.
  static constexpr UInt32 kFnGetBuffer = 0x400;
  static constexpr UInt32 kFnSetBuffer = 0x500;
  static constexpr UInt32 kFnExtractFromBuffer = 0xB00;
  static constexpr UInt32 kFnInsertIntoBuffer = 0xC00;

  // An empty container: no bytes, header type and command 0.
  KivNetBuffer();
  // A copy shares the block (see Ownership above) and is not a handle, whatever the original is.
  KivNetBuffer(const KivNetBuffer &) = default;
  KivNetBuffer &operator=(const KivNetBuffer &) = default;
  // Stops the container being a handle; does not release the storage (see Ownership above).
  ~KivNetBuffer();

  // Replaces the content with a copy of `length` bytes of `buffer`; returns the new length.
  // Length 0 empties the container and keeps the header type and command.
  // Throws BUFFER_NULL (null buffer), BUFFER_SIZE_ERROR (negative length), COPY_ERROR (no memory;
  // the container is then empty).
  int SetBuffer(const unsigned char *buffer, int length);

  // Copies the whole content into `buffer` of capacity `length`; returns the count copied. The
  // message never arrives in part: a smaller capacity throws BUFFER_SIZE_ERROR.
  int GetBuffer(unsigned char *buffer, int length) const;

  // Moves up to `length` bytes from the front into `buffer`; returns the count moved.
  // Throws BUFFER_NULL, BUFFER_SIZE_ERROR (negative length), COPY_ERROR (the content is then
  // left unchanged).
  int ExtractFromBuffer(unsigned char *buffer, int length);

  // Appends `length` bytes of `buffer`. Returns 0 after appending to existing content, and the
  // new length after filling an empty container. Header type and command are not changed.
  // Throws BUFFER_NULL, BUFFER_SIZE_ERROR (negative length), COPY_ERROR.
  int InsertIntoBuffer(const unsigned char *buffer, int length);

  // Releases the storage and empties the container; header type and command stay.
  void ResetBuffer();

  // Replaces the content with `block`, which holds exactly `length` bytes and which the container
  // takes over: nothing is copied. The header type and command are read from the bytes as
  // SetBuffer reads them. For a builder that writes a message straight into the block that will
  // hold it (take the block with kiv::NewBlock and the numbers of SetBuffer, so that no memory for
  // it gives SetBuffer's COPY_ERROR, as storing the message would).
  // Throws BUFFER_NULL of SetBuffer (null block) or BUFFER_SIZE_ERROR (`length` below 1); the
  // block is then released and the container is unchanged.
  void AdoptBlock(kiv::OwnedBlock block, int length);

  // Moves the message of `source` into this container without copying it: the storage of this
  // container is released, `source`'s block becomes this container's, and `source` is left empty
  // (its header type and command stay). The header type and command are read from the bytes as
  // SetBuffer reads them.
  // Throws BUFFER_NULL of SetBuffer when `source` is empty, as SetBuffer refuses a message with no
  // bytes to copy; both containers are then unchanged.
  void TakeBuffer(KivNetBuffer &source);

  const unsigned char *GetBufferRef() const { return mBuffer; }
  int GetBufferLength() const { return mBufferLength; }
  UInt32 GetHeaderType() const { return mHeader; }
  UInt32 GetCommandType() const { return mCommand; }
  UInt32 getClassID() const { return mClassID; }

  // Stores the header type into `iType`; returns a null pointer.
  void *GetHeaderContainer(UInt32 &iType) const;

private:
  // Makes `block` of `length` bytes the content and reads the header type and command from it;
  // the caller has released the previous storage.
  void Hold(unsigned char *block, int length);

  unsigned char *mBuffer;
  int mBufferLength;
  UInt32 mHeader;
  UInt32 mCommand;
  UInt32 mClassID;
};

// Releases a container's storage when it leaves scope; used for the library's temporaries.
class KivNetBufferStorageGuard {
public:
  explicit KivNetBufferStorageGuard(KivNetBuffer &buffer) : mBuffer(buffer) {}
  ~KivNetBufferStorageGuard() { mBuffer.ResetBuffer(); }
  KivNetBufferStorageGuard(const KivNetBufferStorageGuard &) = delete;
  KivNetBufferStorageGuard &operator=(const KivNetBufferStorageGuard &) = delete;

private:
  KivNetBuffer &mBuffer;
};

#endif // KIV_COMMONFILES_KIVNETBUFFER_H
