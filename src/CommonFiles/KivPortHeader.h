// Abstract base of every wire header: the HBN3 header and the two HCP messages.
#ifndef KIV_COMMONFILES_KIVPORTHEADER_H
#define KIV_COMMONFILES_KIVPORTHEADER_H

#include "Common/KivTypes.h"

class KIV_EXPORT KivPortHeader {
public:
  virtual ~KivPortHeader();

  // Writes the header's wire form into `dataHeader`, a room of `dataHeaderlen` bytes. Throws
  // KivWrapperException (BUFFER_NULL, BUFFER_SIZE_ERROR, COPY_ERROR) with the class's numbers.
  virtual void GetDataHeader(unsigned char *dataHeader, int dataHeaderlen) = 0;
};

#endif // KIV_COMMONFILES_KIVPORTHEADER_H
