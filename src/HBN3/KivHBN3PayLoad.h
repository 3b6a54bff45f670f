// The structured HBN3 payloads: the host-list entry a host sends and the status-cache answer a
// device returns.
#ifndef KIV_HBN3_KIVHBN3PAYLOAD_H
#define KIV_HBN3_KIVHBN3PAYLOAD_H

#include <memory>
#include <string>

#include "Common/KivTypes.h"
#include "CommonFiles/KivPayload.h"

// Payload of a host-list entry, which offers a device a host name for its list of scan hosts.
// Wire form (big-endian), 18 + name length bytes:
//   0 type (4) | 4 PIN (4 ASCII bytes) | 8 unique ID (6) | 14 code page (2) | 16 name length (2)
//   | 18 name bytes, no terminator.
// The PIN field is "0000" when there is no PIN, else the PIN's first four characters padded with
// zero bytes.
//
// Every failure throws KivWrapperException with class number 0x20000: the constructor 0x100,
// GetDataPayload 0x300. Objects own their name copy and are not copied.
class KIV_EXPORT KivHBN3ScanHostPayLoad : public KivPayload {
public:
  // Function numbers of the throwing members.
  static constexpr UInt32 kFnConstructor = 0x100;
  static constexpr UInt32 kFnGetDataPayload = 0x300;

  // Bytes before the host name.
  static constexpr int kFixedLength = 18;

  // processType: the entry's type; strPinNum: the PIN, empty for none; cUniqueID: six bytes;
  // iCodePage: code page of the name, sent as given.
  // strHostname: a length-prefixed name, or null for none. Its first byte is the number of name
  // bytes that follow (0 to 255), so the caller must provide that byte plus that many bytes;
  // nothing else bounds the read.
  // Throws COPY_ERROR when cUniqueID is null or the name cannot be copied.
  KivHBN3ScanHostPayLoad(UInt32 processType, std::string strPinNum, const unsigned char *cUniqueID,
                         UInt16 iCodePage, const char *strHostname);

  ~KivHBN3ScanHostPayLoad() override;
  KivHBN3ScanHostPayLoad(const KivHBN3ScanHostPayLoad &) = delete;
  KivHBN3ScanHostPayLoad &operator=(const KivHBN3ScanHostPayLoad &) = delete;

  // 18 + the name length.
  int GetPayloadLength() override;

  // Writes the whole wire form into `dataPayload`, a room of `payloadlen` bytes. Throws
  // BUFFER_NULL, BUFFER_SIZE_ERROR (room below GetPayloadLength(); nothing is written).
  void GetDataPayload(unsigned char *dataPayload, int payloadlen) override;

private:
  UInt32 mType;
  unsigned char mUniqueID[6];
  std::string mPinNum;
  UInt16 mCodePage;
  UInt16 mHostNameSize;                       // 0 when there is no name
  std::unique_ptr<unsigned char[]> mHostName; // no terminator; null when there is no name
};

// Payload of a device's answer to a status-cache request (the bytes after the HBN3 header).
// Wire form, 16 + status length bytes:
//   0 adapter MAC (6) | 6 reserved (2) | 8 IPv4 address, network order (4)
//   | 12 status length, big-endian, signed (4) | 16 status bytes.
// Status bytes 26 and 27 form the printer identifier.
//
// An answer whose declared status length does not fit in the bytes that arrived, or is negative,
// is read without status bytes: the fixed fields are kept, IsPayloadSet() is false and
// GetPayloadLength() still tells the declared length.
//
// Every failure throws KivWrapperException with class number 0x30000: the constructor 0x100,
// GetStrAdapterUAA 0x300, GetIPAddressString 0x400, GetDataPayload 0x800. Objects own their status
// copy and are not copied.
class KIV_EXPORT KivHBN3StatusCacheResponsePayload : public KivPayload {
public:
  // Function numbers of the throwing members.
  static constexpr UInt32 kFnConstructor = 0x100;
  static constexpr UInt32 kFnGetStrAdapterUAA = 0x300;
  static constexpr UInt32 kFnGetIPAddressString = 0x400;
  static constexpr UInt32 kFnGetDataPayload = 0x800;

  // Bytes before the status bytes.
  static constexpr int kFixedLength = 16;

  // Reads `length` received bytes. Throws BUFFER_NULL (null data), BUFFER_SIZE_ERROR (fewer than
  // 16 bytes), COPY_ERROR (no memory).
  KivHBN3StatusCacheResponsePayload(const unsigned char *data, int length);

  ~KivHBN3StatusCacheResponsePayload() override;
  KivHBN3StatusCacheResponsePayload(const KivHBN3StatusCacheResponsePayload &) = delete;
  KivHBN3StatusCacheResponsePayload &operator=(const KivHBN3StatusCacheResponsePayload &) = delete;

  // The status length as the answer declares it, even when no status bytes are held (it may then
  // be negative or larger than anything received). GetHeldStatusLength() is the count held.
  int GetPayloadLength() override;

  // Copies the first status bytes held into `dataPayload`: the smaller of `payloadlen` and the
  // count held. Bytes of the room beyond that are left untouched; a room of 0 or less copies
  // nothing. Throws BUFFER_NULL.
  void GetDataPayload(unsigned char *dataPayload, int payloadlen) override;

  // True when the status bytes were taken from a complete answer.
  bool IsPayloadSet() const { return isPayloadSet; }
  // Number of status bytes held: the declared length when IsPayloadSet(), else 0.
  int GetHeldStatusLength() const { return isPayloadSet ? mPayloadLength : 0; }

  // The six adapter MAC bytes, in place (owned by this object).
  unsigned char *GetAdapterUAA() { return mAdapterUAA; }
  // The adapter's IPv4 address as received, in network byte order.
  UInt32 GetIPAddressULong() const { return mIPAddress; }

  // The adapter MAC as twelve lowercase hexadecimal digits, e.g. "0004000a1b2c".
  // Throws COPY_ERROR.
  std::string GetStrAdapterUAA() const;
  // The adapter address in dotted decimal form, e.g. "192.168.1.20". Throws COPY_ERROR.
  std::string GetIPAddressString() const;
  // Status bytes 26 and 27 as four lowercase hexadecimal digits, e.g. "4f0a"; the empty string
  // when fewer than 28 status bytes are held.
  std::string GetPrinterID() const;

private:
  bool isPayloadSet;
  unsigned char mAdapterUAA[6];
  unsigned char mReserved[2];
  std::unique_ptr<unsigned char[]> mPayload; // null when no status bytes are held
  UInt32 mIPAddress;                         // network byte order
  int mPayloadLength;                        // declared status length
};

#endif // KIV_HBN3_KIVHBN3PAYLOAD_H
