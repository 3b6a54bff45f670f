// The one place where wire fields are read and written: big-endian 16/32-bit access, the bounds
// test every wire class uses before it touches a byte, and the text forms of received bytes.
#ifndef KIV_COMMONFILES_KIVWIREBYTES_H
#define KIV_COMMONFILES_KIVWIREBYTES_H

#include <cstddef>
#include <cstring>

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

// IPv4 addresses are held as the platform gives them, in network order, and travel in that order:
// their four bytes are copied as they lie in memory, first octet first, never converted.
// Writes such an address; the caller has checked the room.
inline void WriteNetworkOrder32(unsigned char *p, UInt32 networkOrder) {
  std::memcpy(p, &networkOrder, sizeof networkOrder);
}

// Reads such an address; the caller has checked that offset + 4 <= length.
inline UInt32 ReadNetworkOrder32(const unsigned char *p) {
  UInt32 networkOrder = 0;
  std::memcpy(&networkOrder, p, sizeof networkOrder);
  return networkOrder;
}

// The 8-byte report of an HBN3 scan request is the one field that is not big-endian: it travels
// least significant byte first. Written and read byte by byte, so every host agrees.
inline void WriteLE64(unsigned char *p, UInt64 v) {
  for (int i = 0; i < 8; ++i) {
    p[i] = static_cast<unsigned char>(v >> (8 * i));
  }
}

// Reads a little-endian 64-bit field; the caller has checked that offset + 8 <= length.
inline UInt64 ReadLE64(const unsigned char *p) {
  UInt64 v = 0;
  for (int i = 7; i >= 0; --i) {
    v = (v << 8) | p[i];
  }
  return v;
}

// Reads a big-endian 32-bit field at `offset` of a block of `length` bytes, or `fallback` when
// the field does not lie inside the block.
inline UInt32 ReadBE32At(const unsigned char *data, int length, int offset, UInt32 fallback = 0) {
  return (data != nullptr && Fits(offset, 4, length)) ? ReadBE32(data + offset) : fallback;
}

// Writes `count` bytes as two lowercase hexadecimal digits each, as "%02x" prints them, at `out`;
// returns the position after them. The caller has room for 2 * count characters.
inline char *WriteLowerHex(char *out, const unsigned char *bytes, size_t count) {
  static const char kDigits[] = "0123456789abcdef";
  for (size_t i = 0; i < count; ++i) {
    *out++ = kDigits[bytes[i] >> 4];
    *out++ = kDigits[bytes[i] & 0x0F];
  }
  return out;
}

// Writes an address in network order as dotted decimal text, as "%u.%u.%u.%u" prints its four
// bytes in memory order, at `out`; returns the position after it. The caller has room for 15
// characters.
inline char *WriteDottedQuad(char *out, UInt32 networkOrder) {
  unsigned char octets[4];
  std::memcpy(octets, &networkOrder, sizeof octets);
  for (int i = 0; i < 4; ++i) {
    if (i > 0) {
      *out++ = '.';
    }
    const unsigned value = octets[i];
    if (value >= 100) {
      *out++ = static_cast<char>('0' + value / 100);
    }
    if (value >= 10) {
      *out++ = static_cast<char>('0' + value / 10 % 10);
    }
    *out++ = static_cast<char>('0' + value % 10);
  }
  return out;
}

} // namespace kiv

#endif // KIV_COMMONFILES_KIVWIREBYTES_H
