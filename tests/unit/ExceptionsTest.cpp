// Names and codes of the exception family where they are not what a reader would guess, and the
// call frame that turns each family into the result of an exported function.
#include <gtest/gtest.h>

#include <functional>
#include <new>

#include "Common/Exceptions/KivExceptions.h"
#include "Exceptions/KivSocketExceptions.h"
#include "Exceptions/KivWrapperException.h"
#include "Interfaces/KivCallFrame.h"

using namespace kiv::frame;

namespace {

TEST(Exceptions, WrapperNamesByValue) {
  std::string names;
  for (int value = 1; value <= 9; ++value) {
    names += KivWrapperException(0x80000, 0x500, static_cast<KivWrapperError>(value))
                 .GetExceptionName() +
             "|";
  }
  // Value 2 is "Unknown Error"; "Invalid Buffer Size" belongs to value 8.
  EXPECT_EQ(names, "Buffer passed is null|Unknown Error|Unknown Error|Unknown Error|"
                   "KivNetMessage Container is null|Invalid Header Type|Unknown Error|"
                   "Invalid Buffer Size|Unknown Error|");
}

// Each class names only its own errors: the base with a UDP value and UDP with a TCP value are
// "Unknown", and SELECT_ERROR has no name of its own.
TEST(Exceptions, SocketNamesPerClass) {
  const std::pair<std::string, const char *> cases[] = {
      {KivSocketException(GETSOCKOPT_FAILED).GetExceptionName(), "KivSocketException.GetSockOpt"},
      {KivSocketException(BIND_UDP_ERROR).GetExceptionName(), "KivSocketException.Unknown"},
      {KivUDPSocketException(RECVFROM_ERROR).GetExceptionName(), "KivUDPSocketException.RecvFrom"},
      {KivUDPSocketException(CONNECT_ERROR).GetExceptionName(), "KivUDPSocketException.Unknown"},
      {KivTCPSocketException(CLIENT_RECV_ERROR).GetExceptionName(),
       "KivTCPSocketException.Recv-Client"},
      {KivTCPSocketException(SERVER_SEND_ERROR).GetExceptionName(),
       "KivTCPSocketException.Send-Server"},
      {KivTCPSocketException(SELECT_ERROR).GetExceptionName(), "KivTCPSocketException.Unknown"},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(c.first, c.second);
  }
}

// ---- The call frame ----

TEST(CallFrame, EachFamilyIsTranslatedOnlyWhereItBelongs) {
  const struct {
    const char *name;
    std::function<UInt32()> operation;
    UInt32 wrapperFamily, socketFamily, catchAllOnly; // the result in a frame of each family
  } cases[] = {
      {"value", [] { return 42u; }, 42, 42, 42},
      {"wrapper", []() -> UInt32 { throw KivWrapperException(0x80000, 0x500, BUFFER_NULL); },
       0x0A0805A1, 0x0A091500, 0x0A091500},
      {"UDP", []() -> UInt32 { throw KivUDPSocketException(BIND_UDP_ERROR); }, 0x0A091500,
       0x0A0000B5, 0x0A091500},
      {"TCP", []() -> UInt32 { throw KivTCPSocketException(SELECT_ERROR); }, 0x0A091500, 0x0A0000C3,
       0x0A091500},
      {"socket", []() -> UInt32 { throw KivSocketException(); }, 0x0A091500, 0x0A0000B4,
       0x0A091500},
      {"root", []() -> UInt32 { throw KivExceptions(); }, 0x0A091500, 0x0A091500, 0x0A091500},
      {"bad_alloc", []() -> UInt32 { throw std::bad_alloc(); }, 0x0A091500, 0x0A091500, 0x0A091500},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(Guarded<KivWrapperException>(kFnRecvFrom, c.operation), c.wrapperFamily) << c.name;
    EXPECT_EQ(Guarded<KivSocketException>(kFnRecvFrom, c.operation), c.socketFamily) << c.name;
    EXPECT_EQ(Guarded<NoFamily>(kFnRecvFrom, c.operation), c.catchAllOnly) << c.name;
  }
  // Handle creation gives null only for its own family.
  EXPECT_EQ(HandleOrNull<KivSocketException>(
                []() -> int * { throw KivUDPSocketException(BIND_UDP_ERROR); }),
            nullptr);
  EXPECT_THROW(HandleOrNull<KivSocketException>([]() -> int * { throw std::bad_alloc(); }),
               std::bad_alloc);
}

} // namespace
