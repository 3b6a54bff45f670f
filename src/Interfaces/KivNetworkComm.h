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
#include "Sockets/KivSocket.h"
#include "Sockets/KivSocketAddress.h"
#include "Sockets/KivUDPSocket.h"

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
//
// Socket kinds (the `iType` argument of the functions that take any socket handle): 0 UDP socket
// ("udps"), 1 HBN3 TCP channel ("tcpC"), 2 TCP server socket ("tcpS"). Any other kind makes every
// handle invalid (kind 02). Socket handles are checked before buffer handles, and buffer handles
// before address handles; the first bad one ends the call with nothing changed.
//
// Ownership: UDP socket and address handles are allocated by the library and belong to the host;
// no function here releases one. CloseUDPSocket closes the descriptor and keeps the object. A
// host that wants the memory back deletes the object through its class (KivUDPSocket,
// KivSocketAddress), after closing.

constexpr int kSocketKindUDP = 0;
constexpr int kSocketKindTCPChannel = 1;
constexpr int kSocketKindTCPServer = 2;

// The option argument of SetSocketOptions.
enum SOCKET_OPTIONS : UInt32 {
  REUSE_ADDRESS = 0,           // SO_REUSEADDR on
  REUSE_PORT = 1,              // SO_REUSEPORT on
  BROADCAST_PERMITTED = 2,     // SO_BROADCAST on
  BROADCAST_PERMITTED_OFF = 3, // SO_BROADCAST off
  NO_DELAY = 4,                // TCP_NODELAY on (stream sockets only)
  TIME_OUT = 5,                // receive time-out of a UDP socket, in whole seconds
};

// A new UDP socket (kind 0) that will bind any local address and `iPort` (0: a port the platform
// picks at bind). Its descriptor is open and close-on-exec; nothing is bound and no option set.
// Returns null when no descriptor can be made (nothing is left allocated or open). Owned by the
// host. Throws std::bad_alloc when memory is exhausted.
KIV_EXTERN_C HANDLE OpenUDPSocket(int iPort);

// Binds the UDP socket to its port. 0; 0x0A091802 invalid UDP handle; 0x0A0000B5 the bind failed
// (port taken without a reuse option, or the socket is closed); 0x0A091800 other failure.
KIV_EXTERN_C UInt32 BindUDPSocket(HANDLE objHandle);

// Sets one option on a socket of kind `iSocketType` (0, 1 or 2). TIME_OUT applies `iTimeOut`
// seconds as the receive time-out of a UDP socket (0 removes it; it bounds every following
// RecvFrom); on TCP handles (kinds 1 and 2) TIME_OUT is accepted and has no effect, and
// `iTimeOut` is read only for TIME_OUT on a UDP socket. Codes: 0; 0x0A091702 handle invalid for
// the kind; 0x0A091704 option above 5, or TIME_OUT with a negative `iTimeOut` on a UDP socket;
// 0x0A0000B1 reuse option refused; 0x0A0000B2 broadcast switch refused; 0x0A0000B3 no-delay
// refused (always on a UDP socket); 0x0A0000C2 time-out refused (a closed socket);
// 0x0A091700 other failure.
KIV_EXTERN_C UInt32 SetSocketOptions(HANDLE objHandle, int iSocketType, SOCKET_OPTIONS iOptionType,
                                     int iTimeOut);

// Sends the container's whole stored message as one datagram with `flags` to the address. Writes
// `iMsgSent` (bytes sent) on success only. Codes: 0; 0x0A091402 invalid UDP handle; 0x0A091401
// invalid buffer handle; 0x0A091403 invalid address handle; 0x0A0000B7 the send failed (a closed
// socket, or "BROADCAST" without BROADCAST_PERMITTED); 0x0A091400 other failure. Nothing is sent
// unless all three handles are valid. The container and the address stay the host's.
KIV_EXTERN_C UInt32 SendTo(HANDLE objHandle, HANDLE ptrSocketAddr, HANDLE ptrMsg,
                           unsigned int flags, int &iMsgSent);

// Receives one datagram (at most 1024 bytes; a longer one is cut to its first 1024 and the rest
// lost). Blocks until one arrives, or until the socket's receive time-out passes. `flags` is not
// applied. On success writes `iMsgRecv` (the count), the sender's text and port into the address
// (its class identifier unchanged) and the bytes into the container, which also reads their
// header type and command. Codes: 0; 0x0A091502 invalid UDP handle; 0x0A091501 invalid buffer
// handle; 0x0A091503 invalid address handle; 0x0A0000B6 the receive failed or timed out, with
// nothing written; 0x0A091500 other failure. The receive area belongs to the call.
KIV_EXTERN_C UInt32 RecvFrom(HANDLE objHandle, HANDLE ptrSocketAddr, HANDLE ptrMsg,
                             unsigned int flags, int &iMsgRecv);

// Closes the UDP socket's descriptor and keeps the object: the handle stays valid and
// RevitalizeSocket can give it a new descriptor. Returns the platform's close result: 0, or
// 0xFFFFFFFF when it was already closed; 0x0A091602 invalid UDP handle; 0x0A091600 other failure.
KIV_EXTERN_C UInt32 CloseUDPSocket(HANDLE objHandle);

// Gives a closed socket of kind 0 (UDP) or 2 (TCP server) a new descriptor of its type; an open
// one is left as it is. Kind 1 (TCP channel) is left alone: opening a channel makes its own
// descriptor. A revived UDP socket is unbound and has no options. Returns 0; 0x0A092602 handle
// invalid for the kind; 0x0A0000B4 no descriptor could be made (the handle stays closed);
// 0x0A092600 other failure.
KIV_EXTERN_C int RevitalizeSocket(HANDLE objHandle, int iType);

// A new address of the text `strAddress` (stored unchanged: dotted decimal, "" for any local
// address, "BROADCAST" for 255.255.255.255; converted only when used) and `iPort` (kept as its
// low 16 bits). Owned by the host. Throws std::bad_alloc when memory is exhausted.
KIV_EXTERN_C HANDLE CreateSocketAddress(std::string &strAddress, int iPort);

// Copies the address text into `*strAddress` and the port (0 to 65535) into `*iPort`; a null
// pointer is skipped. Codes: 0; 0x0A091903 invalid address handle; 0x0A091900 other failure.
KIV_EXTERN_C UInt32 GetAddressPort(HANDLE objHandle, std::string *strAddress, int *iPort);

// The address behind `objHandle` when it is not null and carries the class identifier "sock";
// otherwise null. Pass only handles made by the library, or null.
KIV_EXTERN_C KivSocketAddress *VerifySockAddressHandle(HANDLE objHandle);

// The socket behind `objHandle` when `iType` is 0, 1 or 2, the handle is not null and its class
// identifier is the one of that kind ("udps", "tcpC", "tcpS"); otherwise null. Pass only handles
// made by the library, or null.
KIV_EXTERN_C KivSocket *VerifySocketHandle(HANDLE objHandle, int iType);

#endif // KIV_INTERFACES_KIVNETWORKCOMM_H
