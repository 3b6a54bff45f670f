// Exception of the message layer: building, parsing and the message container.
#ifndef KIV_EXCEPTIONS_KIVWRAPPEREXCEPTION_H
#define KIV_EXCEPTIONS_KIVWRAPPEREXCEPTION_H

#include <string>

#include "Common/Exceptions/KivExceptions.h"
#include "Common/KivTypes.h"

// What went wrong in the message layer. Values 5 to 8 are named but no member throws them.
enum KivWrapperError : UInt32 {
  BUFFER_NULL = 1,       // a null source or destination buffer
  BUFFER_SIZE_ERROR = 2, // a room or message too small for the layout
  COPY_ERROR = 3,        // an allocation or copy failed, or a parse could not complete
  PARSE_ERROR = 4,       // used inside the HCP parser; leaves it as COPY_ERROR
  MESSAGE_OBJ_NULL = 5,
  INVALID_HDR_TYPE = 6,
  INVALID_RESPONSE = 7,
  BUFFER_ERROR = 8,
};

// Class numbers of the message-layer classes; each throwing member adds its function number
// (a multiple of 0x100) so that the code tells exactly which member failed.
enum KivWrapperClassNumber : UInt32 {
  kClassHBN3Header = 0x10000,
  kClassHBN3ScanHostPayLoad = 0x20000,
  kClassHBN3StatusCacheResponsePayload = 0x30000,
  kClassHCPConfigHeader = 0x40000,
  kClassHCPConfigText = 0x50000,
  kClassHCPDiscoveryHeader = 0x60000,
  kClassHBN3Disassembler = 0x70000,
  kClassNetBuffer = 0x80000,
};

class KIV_EXPORT KivWrapperException : public KivExceptions {
public:
  // errorClass: the throwing class's number (0x10000 to 0x80000); errorFunc: the member's
  // function number (0x100 to 0xD00); error: what went wrong.
  KivWrapperException(UInt32 errorClass, UInt32 errorFunc, KivWrapperError error);
  KivWrapperException(const KivWrapperException &other) = default;
  KivWrapperException &operator=(const KivWrapperException &other) = default;

  // The name of the error ("Buffer passed is null", "Invalid Buffer Size", ...).
  std::string GetExceptionName() const override;
  // Writes the name through perror to standard error.
  void Dump() const override;
  ~KivWrapperException() override;
  virtual void SetError(KivWrapperError error);

  // Always the empty string; kept for hosts that call it.
  std::string GetError() const;
  // error + 0xA0 + class number + function number, e.g. 0x805A1 for (0x80000, 0x500, BUFFER_NULL).
  UInt32 GetErrorCode() const;

  KivWrapperError GetErrorType() const { return m_errorType; }
  UInt32 GetClassFunc() const { return mClassFunc; }

private:
  KivWrapperError m_errorType;
  UInt32 mClassFunc;
};

#endif // KIV_EXCEPTIONS_KIVWRAPPEREXCEPTION_H
