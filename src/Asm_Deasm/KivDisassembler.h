// The abstract message parser: classification of a received message and one operation per answer.
#ifndef KIV_ASM_DEASM_KIVDISASSEMBLER_H
#define KIV_ASM_DEASM_KIVDISASSEMBLER_H

#include "Common/Constants/KivCommunicationConstants.h"
#include "Common/KivTypes.h"
#include "CommonFiles/KivNetBuffer.h"

// A parser holds its own copy of one received message. The parse operations do not check that
// the message is of the kind they parse: the caller picks the one that fits the answer it expects.
// Failures are KivWrapperException.
class KIV_EXPORT KivDisassembler {
public:
  virtual ~KivDisassembler();

  // Takes a copy of the container's message and reads its header type and command.
  virtual void SetMessage(KivNetBuffer *msgObject) = 0;
  virtual UInt32 GetHeaderType() = 0;
  virtual UInt32 GetCommandType() = 0;
  // Fills `recDiscovered` from an HCP answer; `iType` 0x80000006 means a discovery answer, any
  // other value a configuration answer. Returns 0; failures are thrown.
  virtual UInt32 ParseHCPResponse(UInt32 iType, KivNetRecord &recDiscovered) = 0;
  virtual StatCacheResponse ParseStatusCacheResponse() = 0;
  virtual HBNResponseInfo ParseHostListEntryResponse() = 0;
  virtual HBNResponseInfo ParsePingResponse() = 0;
  virtual HBNResponseInfo ParseRequestScanResponse() = 0;
  virtual HBNResponseInfo ParseRequestScan() = 0;
};

#endif // KIV_ASM_DEASM_KIVDISASSEMBLER_H
