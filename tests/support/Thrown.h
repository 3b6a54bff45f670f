// What an operation throws: the code of a KivWrapperException, or the int of a host snapshot.
#ifndef KIV_TESTS_SUPPORT_THROWN_H
#define KIV_TESTS_SUPPORT_THROWN_H

#include <gtest/gtest.h>

#include "Exceptions/KivWrapperException.h"

namespace kivtest {

// The code an operation throws as a KivWrapperException, or 0 when it throws nothing. Any other
// exception escapes and fails the test.
inline UInt32 CodeOf(const std::function<void()> &operation) {
  try {
    operation();
  } catch (const KivWrapperException &e) {
    return e.GetErrorCode();
  }
  return 0;
}

// The int an operation throws (a host without a default interface throws -1), or 0.
inline int IntThrownBy(const std::function<void()> &operation) {
  try {
    operation();
  } catch (int value) {
    return value;
  }
  return 0;
}

// One row of a refusal table: what is tried, and the code it must throw (0: none).
struct Refusal {
  const char *name;
  std::function<void()> operation;
  UInt32 code;
};

// Runs each row and expects its code, naming the row on a mismatch.
inline void ExpectCodes(std::initializer_list<Refusal> refusals) {
  for (const Refusal &r : refusals) {
    const UInt32 code = CodeOf(r.operation);
    EXPECT_EQ(code, r.code) << r.name << std::hex << ": 0x" << code << " for 0x" << r.code;
  }
}

} // namespace kivtest

#endif // KIV_TESTS_SUPPORT_THROWN_H
