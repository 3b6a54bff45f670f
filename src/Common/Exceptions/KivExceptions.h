// Root of the library's exception family: every failure of the message and socket layers is one.
#ifndef KIV_COMMON_EXCEPTIONS_KIVEXCEPTIONS_H
#define KIV_COMMON_EXCEPTIONS_KIVEXCEPTIONS_H

#include <cstdio>
#include <string>

#include "Common/KivTypes.h"

// Base of KivWrapperException (message layer) and KivSocketException (socket layer). Thrown on its
// own, as a plain object without an error number, by the framed TCP channel. Thrown by value,
// caught by reference.
class KIV_EXPORT KivExceptions {
public:
  KivExceptions() = default;
  KivExceptions(const KivExceptions &) = default;
  KivExceptions &operator=(const KivExceptions &) = default;

  // The name of the exception; "KivException" for the root.
  virtual std::string GetExceptionName() const { return "KivException"; }

  // Prints "Exception in Class <name>" and a newline on standard output.
  virtual void Dump() const { std::printf("Exception in Class %s\n", GetExceptionName().c_str()); }

  virtual ~KivExceptions() = default;
};

#endif // KIV_COMMON_EXCEPTIONS_KIVEXCEPTIONS_H
