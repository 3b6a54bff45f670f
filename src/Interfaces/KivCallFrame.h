// The call frame shared by every code-returning exported function: function numbers, the
// 0x0A09NNKK codes, handle validation and the guarded region that turns exceptions into codes.
#ifndef KIV_INTERFACES_KIVCALLFRAME_H
#define KIV_INTERFACES_KIVCALLFRAME_H

#include <utility>

#include "Common/KivTypes.h"
#include "Exceptions/KivSocketExceptions.h"
#include "Exceptions/KivWrapperException.h"

namespace kiv {
namespace frame {

// The number (NN) of each code-returning exported function; it sits in bits 15-8 of the codes
// the interface layer makes for that function.
enum FunctionNumber : UInt32 {
  kFnCreateDiscovery = 0x05,
  kFnCreatePing = 0x06,
  kFnCreateStatusCacheRequest = 0x07,
  kFnCreateHostListEntry = 0x08,
  kFnCreateRequestScan = 0x09,
  kFnCreateRequestScanReply = 0x0A,
  kFnCreateIPConfig = 0x0B,
  kFnParseHCPResponse = 0x0C,
  kFnParsePingResponse = 0x0D,
  kFnParseRequestScanResponse = 0x0E,
  kFnParseHostListEntryResponse = 0x0F,
  kFnParseStatusCacheResponse = 0x10,
  kFnGetHeaderType = 0x11,
  kFnGetCommandType = 0x12,
  kFnSendTo = 0x14,
  kFnRecvFrom = 0x15,
  kFnCloseUDPSocket = 0x16,
  kFnSetSocketOptions = 0x17,
  kFnBindUDPSocket = 0x18,
  kFnGetAddressPort = 0x19,
  kFnWrite = 0x1B,
  kFnWriteManaged = 0x1C,
  kFnRead = 0x1D,
  kFnReadManaged = 0x1E,
  kFnRegisterReadCallback = 0x1F,
  kFnCloseTCPSocket = 0x20,
  kFnGetSocketID = 0x21,
  kFnRevitalizeSocket = 0x26,
  kFnParseRequestScan = 0x35,
};

// The kind of an interface-layer failure (KK, bits 7-0).
enum FailureKind : UInt32 {
  kKindGeneral = 0x00,     // no builder or parser for the header type, or an unexpected exception
  kKindBadBuffer = 0x01,   // null, or not a message container
  kKindBadSocket = 0x02,   // null, wrong class for the socket kind, or kind not 0, 1 or 2
  kKindBadAddress = 0x03,  // null, or not an address
  kKindUnsupported = 0x04, // a well-formed socket kind or option this function does not serve
};

constexpr UInt32 kInterfaceCodeBase = 0x0A090000;
constexpr UInt32 kExceptionCodeBase = 0x0A000000;

// The code 0x0A09NNKK of a failure found by the interface layer.
constexpr UInt32 InterfaceCode(FunctionNumber function, FailureKind kind) {
  return kInterfaceCodeBase | (static_cast<UInt32>(function) << 8) | static_cast<UInt32>(kind);
}

// Used as the translated family of a function that has only a catch-all.
struct NoFamily {
  UInt32 GetErrorCode() const { return 0; }
};

// Runs `operation` (returning a UInt32 result) inside the guard of `function`. An exception of
// `Family` (KivWrapperException, KivSocketException with its subclasses, or NoFamily) becomes
// 0x0A000000 + its GetErrorCode(); anything else becomes kind 00 of the function.
template <class Family, class Operation>
UInt32 Guarded(FunctionNumber function, Operation &&operation) noexcept {
  try {
    return std::forward<Operation>(operation)();
  } catch (const Family &caught) {
    return kExceptionCodeBase + caught.GetErrorCode();
  } catch (...) {
    return InterfaceCode(function, kKindGeneral);
  }
}

// The frame of a handle-creating function: runs `make` (which returns the new object) and gives
// null when an exception of `Family` leaves it; an object whose constructor threw has already been
// released by then. Any other exception, std::bad_alloc among them, leaves the function as it is.
template <class Family, class Make>
auto HandleOrNull(Make &&make) -> decltype(std::forward<Make>(make)()) {
  try {
    return std::forward<Make>(make)();
  } catch (const Family &) {
    return nullptr;
  }
}

} // namespace frame
} // namespace kiv

#endif // KIV_INTERFACES_KIVCALLFRAME_H
