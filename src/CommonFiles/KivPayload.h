// Abstract base of the HBN3 payloads: what a header needs to copy a payload into a message.
#ifndef KIV_COMMONFILES_KIVPAYLOAD_H
#define KIV_COMMONFILES_KIVPAYLOAD_H

#include "Common/KivTypes.h"

class KIV_EXPORT KivPayload {
public:
  virtual ~KivPayload();

  // Writes the payload's wire form into `dataPayload`, a room of `payloadlen` bytes. Throws
  // KivWrapperException with the class's numbers.
  virtual void GetDataPayload(unsigned char *dataPayload, int payloadlen) = 0;

  // The number of bytes GetDataPayload writes.
  virtual int GetPayloadLength() = 0;
};

#endif // KIV_COMMONFILES_KIVPAYLOAD_H
