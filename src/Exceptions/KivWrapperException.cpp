// Error names and codes of the message-layer exception.
#include "Exceptions/KivWrapperException.h"

#include <cstdio>

KivWrapperException::KivWrapperException(UInt32 errorClass, UInt32 errorFunc, KivWrapperError error)
    : m_errorType(error), mClassFunc(errorClass + errorFunc) {}

KivWrapperException::~KivWrapperException() = default;

std::string KivWrapperException::GetExceptionName() const {
  // The texts are the ones hosts already match on: value 2 is deliberately "Unknown Error" and
  // "Invalid Buffer Size" belongs to value 8.
  switch (m_errorType) {
  case BUFFER_NULL:
    return "Buffer passed is null";
  case MESSAGE_OBJ_NULL:
    return "KivNetMessage Container is null";
  case INVALID_HDR_TYPE:
    return "Invalid Header Type";
  case BUFFER_ERROR:
    return "Invalid Buffer Size";
  default:
    return "Unknown Error";
  }
}

void KivWrapperException::Dump() const { std::perror(GetExceptionName().c_str()); }

void KivWrapperException::SetError(KivWrapperError error) { m_errorType = error; }

std::string KivWrapperException::GetError() const { return std::string(); }

UInt32 KivWrapperException::GetErrorCode() const {
  return static_cast<UInt32>(m_errorType) + 0xA0u + mClassFunc;
}
