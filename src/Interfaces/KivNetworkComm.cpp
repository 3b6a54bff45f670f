// The exported functions. Each code-returning function validates its handles, then runs its
// operation through the shared call frame (KivCallFrame.h); none has a try/catch of its own.
#include "Interfaces/KivNetworkComm.h"

#include "Interfaces/KivCallFrame.h"

using namespace kiv::frame;

int mDebugLevel = 0;

// ---- Handles and message containers -----------------------------------------------------------

HANDLE CreateBuffer() { return new KivNetBuffer(); }

KivNetBuffer *VerifyBufferHandle(HANDLE objHandle) {
  KivNetBuffer *buffer = static_cast<KivNetBuffer *>(objHandle);
  if (buffer == nullptr || buffer->getClassID() != kKivNetBufferClassID) {
    return nullptr;
  }
  return buffer;
}

UInt32 GetHeaderType(HANDLE ptrMsg) {
  const KivNetBuffer *buffer = VerifyBufferHandle(ptrMsg);
  return buffer != nullptr ? buffer->GetHeaderType()
                           : InterfaceCode(kFnGetHeaderType, kKindBadBuffer);
}

UInt32 GetCommandType(HANDLE ptrMsg) {
  const KivNetBuffer *buffer = VerifyBufferHandle(ptrMsg);
  return buffer != nullptr ? buffer->GetCommandType()
                           : InterfaceCode(kFnGetCommandType, kKindBadBuffer);
}

// ---- Message building -------------------------------------------------------------------------

// ---- Message parsing and records --------------------------------------------------------------

// ---- UDP sockets and addresses ----------------------------------------------------------------
