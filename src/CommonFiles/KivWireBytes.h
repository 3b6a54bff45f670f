// The one place where wire fields are read and written: big-endian 16/32-bit access and the
// bounds test every wire class uses before it touches a byte.
#ifndef KIV_COMMONFILES_KIVWIREBYTES_H
#define KIV_COMMONFILES_KIVWIREBYTES_H

#include "Common/KivTypes.h"

namespace kiv {

// True when `size` bytes starting at `offset` lie inside a block of `length` bytes. Negative
// values never fit, and the test cannot overflow.
constexpr bool Fits(long long offset, long long size, long long length) {
  return offset >= 0 && size >= 0 && length >= 0 && offset <= length && size <= length - offset;
}

// Reads a big-endian 16-bit field; the caller has checked that offset + 2 <= length.
inline UInt16 ReadBE16(const unsigned char *p) {
  return static_cast<UInt16>((UInt16(p[0]) << 8) | UInt16(p[1]));
}

// Reads a big-endian 32-bit field; the caller has checked that offset + 4 <= length.
inline UInt32 ReadBE32(const unsigned char *p) {
  return (UInt32(p[0]) << 24) | (UInt32(p[1]) << 16) | (UInt32(p[2]) << 8) | UInt32(p[3]);
}

// Writes a big-endian 16-bit field; the caller has checked the room.
inline void WriteBE16(unsigned char *p, UInt16 v) {
  p[0] = static_cast<unsigned char>(v >> 8);
  p[1] = static_cast<unsigned char>(v);
}

// Writes a big-endian 32-bit field; the caller has checked the room.
inline void WriteBE32(unsigned char *p, UInt32 v) {
  p[0] = static_cast<unsigned char>(v >> 24);
  p[1] = static_cast<unsigned char>(v >> 16);
  p[2] = static_cast<unsigned char>(v >> 8);
  p[3] = static_cast<unsigned char>(v);
}

// Reads a big-endian 32-bit field at `offset` of a block of `length` bytes, or `fallback` when
// the field does not lie inside the block.
inline UInt32 ReadBE32At(const unsigned char *data, int length, int offset, UInt32 fallback = 0) {
  return (data != nullptr && Fits(offset, 4, length)) ? ReadBE32(data + offset) : fallback;
}

} // namespace kiv

#endif // KIV_COMMONFILES_KIVWIREBYTES_H
