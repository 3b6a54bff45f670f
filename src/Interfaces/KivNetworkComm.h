// The exported interface of KivNetworkComm: handles, message building and parsing, sockets, and
// host information. Every function has C linkage (an unmangled name) and C++ parameter types.
//
// Result codes (UInt32): 0 is success. A failure found by the interface layer is 0x0A09NNKK, NN
// the function's number and KK the kind: 00 general (no builder or parser for the header type,
// or an unexpected exception), 01 bad buffer handle, 02 bad socket handle, 03 bad address handle,
// 04 a socket kind or option this function does not serve. A failure raised inside the library
// is 0x0A000000 + the exception's code: 0x0A01xxxx to 0x0A08xxxx from the message layer (class
// number, function number, 0xA1-0xA8), 0x0A0000B1 to 0x0A0000C3 from the socket layer.
//
// Ownership: every handle is allocated by the library and belongs to the host from then on; no
// exported function releases one.
#ifndef KIV_INTERFACES_KIVNETWORKCOMM_H
#define KIV_INTERFACES_KIVNETWORKCOMM_H

#include <string>

#include "Common/KivTypes.h"
#include "Common/Constants/KivCommunicationConstants.h"
#include "Common/Tracer/KivTracer.h"
#include "CommonFiles/KivNetBuffer.h"

// Exported debug level: starts at 0; the library itself never reads or writes it.
extern "C" KIV_EXPORT int mDebugLevel;

// ---- Handles and message containers -----------------------------------------------------------

// A new, empty message container (buffer handle). Owned by the host. Throws std::bad_alloc when
// memory is exhausted.
KIV_EXTERN_C HANDLE CreateBuffer();

// The container behind `objHandle` when it is not null and carries the class identifier "buff";
// otherwise null. Pass only handles made by the library, or null.
KIV_EXTERN_C KivNetBuffer *VerifyBufferHandle(HANDLE objHandle);

// The header type of the container's message (bytes 0-3, big-endian: 0x48424E33 for "HBN3",
// 0x48435031 for "HCP1"); 0 for a container never filled. 0x0A091101 for an invalid handle.
KIV_EXTERN_C UInt32 GetHeaderType(HANDLE ptrMsg);

// The command of the container's message (bytes 16-19, big-endian); 0 for a container never
// filled or a message shorter than 20 bytes. 0x0A091201 for an invalid handle.
KIV_EXTERN_C UInt32 GetCommandType(HANDLE ptrMsg);

// ---- Message building -------------------------------------------------------------------------

// ---- Message parsing and records --------------------------------------------------------------

// ---- UDP sockets and addresses ----------------------------------------------------------------

#endif // KIV_INTERFACES_KIVNETWORKCOMM_H
