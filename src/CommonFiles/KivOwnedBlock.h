// The one way the message layer takes a heap block of its own: allocation and copy in one checked
// place, with one failure when memory runs out.
#ifndef KIV_COMMONFILES_KIVOWNEDBLOCK_H
#define KIV_COMMONFILES_KIVOWNEDBLOCK_H

#include <cstddef>
#include <cstring>
#include <memory>
#include <new>

#include "Common/KivTypes.h"
#include "Exceptions/KivWrapperException.h"

namespace kiv {

// A heap block of bytes that its holder owns and releases.
typedef std::unique_ptr<unsigned char[]> OwnedBlock;

// Exhausted memory. Every block the message layer keeps (a container's message, a header's or a
// payload's copy, a parser's copy of a message, the password and the text record of a
// configuration message) is taken through the two functions below, and an allocator that has no
// memory left is reported in exactly one way: as COPY_ERROR of the member that needed the block
// (its class number `errorClass` and function number `errorFunc`), the same code as any other
// copy that could not be made. std::bad_alloc never leaves the message layer from these blocks,
// so a host sees the member's code for it (0x0A000000 + class + function + 0xA3), not the general
// code of the exported function. The member's state is left as its own documentation says for a
// failed copy.

// A new block of `length` bytes, not initialised. A length of 0 still gives a block (a valid
// pointer to no bytes). Throws KivWrapperException (errorClass, errorFunc, COPY_ERROR) when no
// memory is left.
inline OwnedBlock NewBlock(size_t length, UInt32 errorClass, UInt32 errorFunc) {
  OwnedBlock block(new (std::nothrow) unsigned char[length]);
  if (!block) {
    throw KivWrapperException(errorClass, errorFunc, COPY_ERROR);
  }
  return block;
}

// A new block holding a copy of the `length` bytes at `source`, which may be null only when
// `length` is 0. Throws as NewBlock.
inline OwnedBlock CopyToBlock(const void *source, size_t length, UInt32 errorClass,
                              UInt32 errorFunc) {
  OwnedBlock block = NewBlock(length, errorClass, errorFunc);
  if (length > 0) {
    std::memcpy(block.get(), source, length);
  }
  return block;
}

} // namespace kiv

#endif // KIV_COMMONFILES_KIVOWNEDBLOCK_H
