// The shared call frame: code layout and the translation of each exception family.
#include <gtest/gtest.h>

#include <new>
#include <stdexcept>

#include "Interfaces/KivCallFrame.h"

using namespace kiv::frame;

namespace {

TEST(CallFrame, InterfaceCodesCarryFunctionAndKind) {
  EXPECT_EQ(InterfaceCode(kFnGetHeaderType, kKindBadBuffer), 0x0A091101u);
  EXPECT_EQ(InterfaceCode(kFnCreateDiscovery, kKindGeneral), 0x0A090500u);
  EXPECT_EQ(InterfaceCode(kFnCreateIPConfig, kKindBadBuffer), 0x0A090B01u);
  EXPECT_EQ(InterfaceCode(kFnSetSocketOptions, kKindUnsupported), 0x0A091704u);
  EXPECT_EQ(InterfaceCode(kFnGetAddressPort, kKindBadAddress), 0x0A091903u);
  EXPECT_EQ(InterfaceCode(kFnRevitalizeSocket, kKindBadSocket), 0x0A092602u);
  EXPECT_EQ(InterfaceCode(kFnParseRequestScan, kKindGeneral), 0x0A093500u);
}

// A test-only operation that ends in each way an exported function's operation can end.
enum class Outcome { Success, Value, Wrapper, Udp, Tcp, Socket, Root, Std, Alloc, Int };

UInt32 Operation(Outcome outcome) {
  switch (outcome) {
  case Outcome::Success:
    return 0;
  case Outcome::Value:
    return 42;
  case Outcome::Wrapper:
    throw KivWrapperException(0x80000, 0x500, BUFFER_NULL);
  case Outcome::Udp:
    throw KivUDPSocketException(BIND_UDP_ERROR);
  case Outcome::Tcp:
    throw KivTCPSocketException(SELECT_ERROR);
  case Outcome::Socket:
    throw KivSocketException();
  case Outcome::Root:
    throw KivExceptions();
  case Outcome::Std:
    throw std::runtime_error("unexpected");
  case Outcome::Alloc:
    throw std::bad_alloc();
  case Outcome::Int:
    throw -1;
  }
  return 0;
}

struct FrameCase {
  Outcome outcome;
  UInt32 wrapperFamily; // result in a function that translates KivWrapperException
  UInt32 socketFamily;  // ... KivSocketException
  UInt32 catchAllOnly;  // ... only a catch-all
};

TEST(CallFrame, EachFamilyIsTranslatedOnlyWhereItBelongs) {
  const FrameCase cases[] = {
      {Outcome::Success, 0, 0, 0},
      {Outcome::Value, 42, 42, 42},
      {Outcome::Wrapper, 0x0A0805A1, 0x0A091500, 0x0A091500},
      {Outcome::Udp, 0x0A091500, 0x0A0000B5, 0x0A091500},
      {Outcome::Tcp, 0x0A091500, 0x0A0000C3, 0x0A091500},
      {Outcome::Socket, 0x0A091500, 0x0A0000B4, 0x0A091500},
      {Outcome::Root, 0x0A091500, 0x0A091500, 0x0A091500},
      {Outcome::Std, 0x0A091500, 0x0A091500, 0x0A091500},
      {Outcome::Alloc, 0x0A091500, 0x0A091500, 0x0A091500},
      {Outcome::Int, 0x0A091500, 0x0A091500, 0x0A091500},
  };
  for (const FrameCase &c : cases) {
    const auto op = [&] { return Operation(c.outcome); };
    EXPECT_EQ(Guarded<KivWrapperException>(kFnRecvFrom, op), c.wrapperFamily);
    EXPECT_EQ(Guarded<KivSocketException>(kFnRecvFrom, op), c.socketFamily);
    EXPECT_EQ(Guarded<NoFamily>(kFnRecvFrom, op), c.catchAllOnly);
  }
}

TEST(CallFrame, ContainerSizeFailureInASocketFunctionIsKindZero) {
  const auto op = []() -> UInt32 { throw KivWrapperException(0x80000, 0x400, BUFFER_SIZE_ERROR); };
  EXPECT_EQ(Guarded<KivSocketException>(kFnRead, op), 0x0A091D00u);
  EXPECT_EQ(Guarded<KivWrapperException>(kFnRead, op), 0x0A0804A2u);
}

TEST(CallFrame, HandleCreationGivesNullOnlyForItsFamily) {
  static int made = 7;
  EXPECT_EQ(HandleOrNull<KivSocketException>([] { return &made; }), &made);
  EXPECT_EQ(HandleOrNull<KivSocketException>(
                []() -> int * { throw KivUDPSocketException(BIND_UDP_ERROR); }),
            nullptr)
      << "a subclass of the family counts";
  EXPECT_THROW(HandleOrNull<KivSocketException>([]() -> int * { throw std::bad_alloc(); }),
               std::bad_alloc);
  EXPECT_THROW(HandleOrNull<KivSocketException>([]() -> int * { throw KivExceptions(); }),
               KivExceptions);
}

} // namespace
