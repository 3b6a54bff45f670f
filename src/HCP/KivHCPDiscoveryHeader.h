// The HCP discovery query: the one fixed datagram that asks HCP devices to describe themselves.
#ifndef KIV_HCP_KIVHCPDISCOVERYHEADER_H
#define KIV_HCP_KIVHCPDISCOVERYHEADER_H

#include "Common/KivTypes.h"
#include "CommonFiles/KivPortHeader.h"

// A question shaped like a multicast-DNS query for _host-config._udp.local, type SRV, class IN.
// Every object writes the same 41 bytes; there is nothing to set.
//
// Failures throw KivWrapperException with class number 0x60000 and function number 0x100.
class KIV_EXPORT KivHCPDiscoveryHeader : public KivPortHeader {
public:
  // Function number of GetDataHeader.
  static constexpr UInt32 kFnGetDataHeader = 0x100;
  // Length of the query on the wire.
  static constexpr int kQueryLength = 41;
  // Rooms below this are refused; rooms from it up to kQueryLength - 1 are left untouched.
  static constexpr int kMinimumRoom = 10;

  KivHCPDiscoveryHeader();
  ~KivHCPDiscoveryHeader() override;

  // Always 41.
  int GetHeaderLength() const { return mDataHeaderLen; }

  // Writes the 41-byte query at the start of `dataHeader`, a room of `dataHeaderlen` bytes, and
  // touches nothing after it. A room of 10 to 40 bytes is left as it was, without an error.
  // Throws BUFFER_NULL (null room) and BUFFER_SIZE_ERROR (room below 10 bytes).
  void GetDataHeader(unsigned char *dataHeader, int dataHeaderlen) override;

private:
  UInt16 mTransID;
  UInt16 mFlags;
  UInt16 mQuestion;
  UInt16 mAnswer;
  UInt16 mAuthority;
  UInt16 mAddRRs;
  UInt8 mMoreHeader;
  char mQuerytype[12];
  UInt8 mEot;
  char mTranstype[4];
  UInt8 mEnquiry;
  char mLocaltype[5];
  UInt16 mServicetype;
  UInt16 mInetclass;
  int mDataHeaderLen;
};

#endif // KIV_HCP_KIVHCPDISCOVERYHEADER_H
