// The 24-byte HBN3 message header with its owned payload copy: written to and read from bytes.
#ifndef KIV_HBN3_KIVHBN3HEADER_H
#define KIV_HBN3_KIVHBN3HEADER_H

#include <memory>

#include "Common/KivTypes.h"
#include "CommonFiles/KivPayload.h"
#include "CommonFiles/KivPortHeader.h"

// An HBN3 header: six big-endian 32-bit fields (tag, port information, channel, time stamp,
// command, data length) followed on the wire by `data length` payload bytes. The header writes
// what it holds and reads what it is given; it compares no field.
//
// Ownership: the header owns its payload copy and releases it when destroyed. Headers are not
// copied.
//
// Every failure throws KivWrapperException with class number 0x10000 and the member's function
// number: the constructor from a payload 0x100, SetDataHeader 0x500, GetDataHeader 0x600,
// GetPayload 0x900.
class KIV_EXPORT KivHBN3Header : public KivPortHeader {
public:
  // Function numbers of the throwing members.
  static constexpr UInt32 kFnConstructor = 0x100;
  static constexpr UInt32 kFnSetDataHeader = 0x500;
  static constexpr UInt32 kFnGetDataHeader = 0x600;
  static constexpr UInt32 kFnGetPayload = 0x900;

  // A header without payload (data length 0).
  KivHBN3Header(UInt32 hbna_id, UInt32 portInfo, UInt32 channelID, UInt32 timeStamp,
                UInt32 command);

  // A header carrying a copy of `payload`'s wire form; the data length is the payload's
  // GetPayloadLength(). The payload object stays the caller's. Exceptions of the payload's
  // operations pass to the caller; no memory for the copy throws COPY_ERROR of 0x100. A payload
  // that states a negative length contributes nothing: the header then has data length 0 and no
  // payload.
  KivHBN3Header(UInt32 hbna_id, UInt32 portInfo, UInt32 channelID, UInt32 timeStamp, UInt32 command,
                KivPayload &payload);

  // A header read from `messageSize` bytes of `message` with SetDataHeader; its exceptions pass
  // to the caller.
  KivHBN3Header(const unsigned char *message, int messageSize);

  ~KivHBN3Header() override;
  KivHBN3Header(const KivHBN3Header &) = delete;
  KivHBN3Header &operator=(const KivHBN3Header &) = delete;

  // Reads the six fields and a copy of the payload from a whole message of `messageSize` bytes.
  // Throws BUFFER_NULL (null message), BUFFER_SIZE_ERROR (fewer than 24 bytes, or fewer than
  // 24 + the declared data length), COPY_ERROR (no memory). On failure the header keeps what it
  // held before.
  void SetDataHeader(const unsigned char *message, int messageSize);

  // Writes the 24 header bytes, nothing beyond. Throws BUFFER_NULL, BUFFER_SIZE_ERROR (room for
  // fewer than 24 bytes).
  void GetDataHeader(unsigned char *dataHeader, int dataHeaderlen) override;

  // Writes the whole message: header, then the payload bytes held. When 24 + the data length does
  // not fit in `dataStreamlen`, returns without writing or throwing. A null buffer with enough
  // room throws BUFFER_NULL of GetDataHeader.
  void GetDataStream(unsigned char *dataStream, int dataStreamlen);

  // Writes the payload bytes held at offset 24 of `dataPayload`. `dataPayloadlen` is the room
  // from offset 24 on, so the caller's block must be at least 24 + dataPayloadlen bytes.
  // At most the data length is written; when the data length was raised with SetDataLength
  // beyond the bytes held, only the bytes held are written. Throws BUFFER_NULL,
  // BUFFER_SIZE_ERROR (data length greater than the room).
  void GetPayload(unsigned char *dataPayload, int dataPayloadlen) const;

  // The declared data length.
  int GetPayloadSize() const { return static_cast<int>(mDataLength); }
  // True when the declared data length is not 0, whether or not payload bytes are held.
  bool HasPayload() const { return mDataLength != 0; }
  // Sets the declared data length only; the payload held is not touched. For builders that write
  // the payload bytes after the header themselves.
  void SetDataLength(int iDataLength) { mDataLength = static_cast<UInt32>(iDataLength); }

  UInt32 GetHeaderType() const { return mHBN_id; }
  UInt32 GetCommand() const { return mCommand; }
  UInt32 GetPortInfo() const { return mPortInfo; }
  UInt32 GetChannelID() const { return mChannelID; }
  UInt32 GetTimeStamp() const { return mTimeStamp; }

private:
  UInt32 mHBN_id;
  UInt32 mPortInfo;
  UInt32 mChannelID;
  UInt32 mTimeStamp;
  UInt32 mCommand;
  UInt32 mDataLength;
  std::unique_ptr<unsigned char[]> mPayload; // null when no payload bytes are held
  int mPayloadSize;                          // bytes held in mPayload; may differ from mDataLength
};

#endif // KIV_HBN3_KIVHBN3HEADER_H
