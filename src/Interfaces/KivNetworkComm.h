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

#include "KivNetworkCommVersion.h"
#include "Common/KivTypes.h"
#include "Common/Constants/KivCommunicationConstants.h"
#include "Common/Tracer/KivTracer.h"
#include "CommonFiles/KivNetBuffer.h"
#include "Sockets/KivHBN3TCPSocket.h"
#include "Sockets/KivSocket.h"
#include "Sockets/KivSocketAddress.h"
#include "Sockets/KivTCPServerSocket.h"
#include "Sockets/KivUDPSocket.h"

// Exported debug level: starts at 0; the library itself never reads or writes it.
extern "C" KIV_EXPORT int mDebugLevel;

// The version of the library that is running, e.g. "1.0.0": compare it with
// KIVNETWORKCOMM_VERSION (the headers the host was built with) to detect a mismatch. A static
// text owned by the library; never null.
KIV_EXTERN_C const char *GetKivNetworkCommVersion();

// ---- Handles and message containers -----------------------------------------------------------

// Handles are checked against the library's record of the objects it made: a null pointer, a
// pointer the library never handed out, a handle of another kind and the handle of an object the
// host has destroyed are all invalid, and nothing behind such a pointer is read.

// A new, empty message container (buffer handle). Owned by the host, who may destroy it through
// the class (after ResetBuffer, to release its storage); the handle is invalid from then on.
// Throws std::bad_alloc when memory is exhausted.
KIV_EXTERN_C HANDLE CreateBuffer();

// The container behind `objHandle` when it is a buffer handle the library made ("buff") and its
// object still lives; otherwise null. Any pointer may be given.
KIV_EXTERN_C KivNetBuffer *VerifyBufferHandle(HANDLE objHandle);

// The header type of the container's message (bytes 0-3, big-endian: 0x48424E33 for "HBN3",
// 0x48435031 for "HCP1"); 0 for a container never filled. 0x0A091101 for an invalid handle.
KIV_EXTERN_C UInt32 GetHeaderType(HANDLE ptrMsg);

// The command of the container's message (bytes 16-19, big-endian); 0 for a container never
// filled or a message shorter than 20 bytes. 0x0A091201 for an invalid handle.
KIV_EXTERN_C UInt32 GetCommandType(HANDLE ptrMsg);

// ---- Message building -------------------------------------------------------------------------
//
// Each function builds one complete wire message and stores it in the container `objHeader`,
// replacing what it held (its header type and command are then read from the new message).
// `iHeaderType` is 0x48424E33 ("HBN3") or 0x48435031 ("HCP1"); both build the same message, the
// value only selects the builder. String and pointer arguments are read, never changed or kept.
//
// Codes: 0 on success; 0x0A09NN01 when `objHeader` is null or not a container; 0x0A09NN00 for any
// other header type or an unexpected failure; 0x0A000000 + the error code of a failure of the
// message layer (e.g. 0x0A0201A3 for a null unique identifier; COPY_ERROR of the member whose copy
// found no memory, 0x0A0805A3 when that is the container being filled). On every failure but the
// last the container is unchanged; the last leaves it empty.
//
// Ownership: the container stays the host's; its new storage is released by the container's own
// operations (ResetBuffer, the next SetBuffer). Nothing else is handed out.

// The 41-byte HCP discovery query. NN 0x05.
KIV_EXTERN_C UInt32 CreateDiscovery(UInt32 iHeaderType, HANDLE objHeader);

// HBN3 ping (24 bytes): port information 0, channel 0, time stamp `iTimeStamp`, command 3.
// NN 0x06.
KIV_EXTERN_C UInt32 CreatePing(UInt32 iHeaderType, UInt32 iTimeStamp, HANDLE objHeader);

// HBN3 status-cache request (24 bytes): the given port information, channel and time stamp,
// command 1. NN 0x07.
KIV_EXTERN_C UInt32 CreateStatusCacheRequest(UInt32 iHeaderType, UInt32 iPortInfo,
                                             UInt32 iChannelID, UInt32 iTimeStamp,
                                             HANDLE objHeader);

// HBN3 host-list entry (24 + 18 + name length bytes): channel 2, command 4, and the payload type
// `iType`, the PIN `strPinNum` (its first four characters; "0000" when empty), the six bytes at
// `cUniqueID`, the code page `iCodePage` and the name. `strHostname` is length-prefixed: its first
// byte is the number of name bytes that follow, and the caller provides them all; null sends no
// name. A null `cUniqueID` gives 0x0A0201A3. `bPwdFlag` is not used. NN 0x08.
KIV_EXTERN_C UInt32 CreateHostListEntry(UInt32 iHeaderType, bool bPwdFlag, int iType,
                                        UInt32 iPortInfo, UInt32 iTimeStamp, char *strHostname,
                                        std::string &strPinNum, unsigned char *cUniqueID,
                                        UInt16 iCodePage, HANDLE objHeader);

// HBN3 request scan (32 bytes): channel 2, command 5, data length 8, then `iHIDRep` least
// significant byte first. `bPwdFlag` is not used. NN 0x09.
KIV_EXTERN_C UInt32 CreateRequestScan(UInt32 iHeaderType, bool bPwdFlag, UInt32 iPortInfo,
                                      UInt32 iTimeStamp, UInt64 iHIDRep, HANDLE objHeader);

// HBN3 request-scan reply (24 bytes): channel 2, command 0x80000005. `bPwdFlag` is not used.
// NN 0x0A.
KIV_EXTERN_C UInt32 CreateRequestScanReply(UInt32 iHeaderType, bool bPwdFlag, UInt32 iPortInfo,
                                           UInt32 iTimeStamp, HANDLE objHeader);

// HCP configuration message (34 + password length + record length bytes) that gives the device
// with the MAC text `strDestMacAddress` (12 hexadecimal digits) the address `strDestIPAddress`,
// the mask `strNetMask` and the gateway `strGateway`, behind the password bytes `strPassword`
// (sent as given). The source MAC is zero and the source address is the host's default IPv4
// address: `strSrcMacAddress` and `strSrcIPAddress` are not used. Further codes: 0x0A0507A3 when
// the three address texts together exceed 991 characters, 0x0A0409A3 for a password above 65535
// bytes, 0x0A090B00 when the host has no default IPv4 interface. NN 0x0B.
KIV_EXTERN_C UInt32 CreateIPConfig(UInt32 iHeaderType, std::string &strDestMacAddress,
                                   std::string &strSrcMacAddress, std::string &strSrcIPAddress,
                                   std::string &strDestIPAddress, std::string &strPassword,
                                   std::string &strNetMask, std::string &strGateway,
                                   HANDLE objHeader);

// ---- Message parsing and records --------------------------------------------------------------
//
// Each function reads the message held by the container `ptrMsg` as one kind of answer and
// copies the parsed values into the caller's record. It does not check that the message is of
// that kind (ask GetHeaderType and GetCommandType first). `iHeaderType` is 0x48424E33 ("HBN3") or
// 0x48435031 ("HCP1"); both select the same parser. The container is only read: it holds the same
// message afterwards and can be parsed again.
//
// Codes: 0 on success; 0x0A09NN01 when `ptrMsg` is null or not a container; 0x0A09NN00 for any
// other header type or an unexpected failure (e.g. memory exhausted while the record is filled);
// 0x0A000000 + the parser's error code when the message cannot be parsed (0x0A0707A3 to
// 0x0A070CA3 by answer kind, see each function; 0x0A0704A3 when there is no memory for the
// parser's copy of the message).
//
// The record is written only on success, and then only in the fields listed for the function;
// every other field keeps the caller's value. Records belong to the caller; the library keeps no
// reference to them or to the container.

// Reads an HCP answer into `DeviceRec`. `iType` 0x80000006 reads the answer to the discovery
// query; any other value reads the answer to a configuration message, whose result byte is
// stored in `DeviceRec.iResponse` (a discovery answer leaves iResponse as it was). Writes the
// fourteen strings (strIPAddr, strIPNetMask, strIPGateway, strIPName, strMacLaa, strMacUaa,
// strAdapterType, strIPAddrSrc, strOEMByte, strPwdSet, strProdID, strAdapterName, strCPDAttached,
// strPrintrVidPid) and replaces the device list `vecDeviceSpecific` as a whole with the parsed
// ports. A configuration answer carries only the three addresses, and none when its result byte
// is not 0: the strings and the device list it lacks are written empty. `iPortInfo` is never
// written. 0x0A0707A3 when a required item is missing or cut off. NN 0x0C.
KIV_EXTERN_C UInt32 ParseHCPResponse(UInt32 iHeaderType, HANDLE ptrMsg, UInt32 iType,
                                     KivNetRecord &DeviceRec);

// Reads a ping answer: writes iPortInfo, iChannelID and iStatus (1 for a ping reply, command
// 0x80000003, else 0). 0x0A070AA3 for a message shorter than 20 bytes. NN 0x0D.
KIV_EXTERN_C UInt32 ParsePingResponse(UInt32 iHeaderType, HANDLE ptrMsg,
                                      HBNResponseInfo &responseInfo);

// Reads a request-scan answer: writes iPortInfo, iChannelID and iStatus (1 for a request-scan
// reply, command 0x80000005, else 0). 0x0A070BA3 for a message shorter than 20 bytes. NN 0x0E.
KIV_EXTERN_C UInt32 ParseRequestScanResponse(UInt32 iHeaderType, HANDLE ptrMsg,
                                             HBNResponseInfo &responseInfo);

// Reads a host-list answer: writes iPortInfo, iChannelID and iStatus (the first four payload
// bytes, bytes 24-27, as a number). 0x0A0709A3 for a message shorter than 28 bytes. NN 0x0F.
KIV_EXTERN_C UInt32 ParseHostListEntryResponse(UInt32 iHeaderType, HANDLE ptrMsg,
                                               HBNResponseInfo &responseInfo);

// Reads a status-cache answer: writes all eight fields of `statResponse` (iReserved 0,
// strPayload exactly iPayloadLength status bytes). 0x0A0708A3 for an answer shorter than 40
// bytes. NN 0x10.
KIV_EXTERN_C UInt32 ParseStatusCacheResponse(UInt32 iHeaderType, HANDLE ptrMsg,
                                             StatCacheResponse &statResponse);

// Reads a scan request sent by a device: writes iPortInfo, iChannelID, iTimeStamp and iReport
// (bytes 24-31, least significant byte first). 0x0A070CA3 for a message shorter than 32 bytes.
// NN 0x35.
KIV_EXTERN_C UInt32 ParseRequestScan(UInt32 iHeaderType, HANDLE ptrMsg,
                                     HBNResponseInfo &responseInfo);

// A new status-cache record: strings empty, numbers 0. Returns it as a handle; pass `*record` to
// ParseStatusCacheResponse. Owned by the host (the library never releases it; it was made with
// new StatCacheResponse). Throws std::bad_alloc when memory is exhausted.
KIV_EXTERN_C HANDLE CreateStatCacheResponse();

// A new HCP device record: strings and device list empty, numbers 0. Returns it as a handle; pass
// `*record` to ParseHCPResponse. Owned by the host (the library never releases it; it was made
// with new KivNetRecord). Throws std::bad_alloc when memory is exhausted.
KIV_EXTERN_C HANDLE CreateKivNetRecord();

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

// The address behind `objHandle` when it is an address handle the library made ("sock") and its
// object still lives; otherwise null. Any pointer may be given: nothing behind a pointer that is
// not such a handle is read.
KIV_EXTERN_C KivSocketAddress *VerifySockAddressHandle(HANDLE objHandle);

// The socket behind `objHandle` when `iType` is 0, 1 or 2 and the handle is a socket of that kind
// ("udps", "tcpC", "tcpS") that the library made (or, for kind 2, that a host made through the
// class) and whose object still lives; otherwise null. Any pointer may be given.
KIV_EXTERN_C KivSocket *VerifySocketHandle(HANDLE objHandle, int iType);

// ---- HBN3 TCP channels ------------------------------------------------------------------------
//
// A channel (socket kind 1, class identifier "tcpC") is a TCP connection to one end-point
// interface of a device: OpenTCPSocket connects and makes the interface's open handshake; the
// device then sends frames (a nine-byte header "HBN3", a byte, a big-endian length, then the
// payload), which the host reads with Read/ReadManaged or has pushed to a callback by a listener
// (RegisterReadCallback); the host writes raw bytes with Write/WriteManaged. The read and write
// functions also serve a TCP server socket (kind 2, "tcpS") that the host made through its class
// (KivTCPServerSocket): they then make one plain receive or send on its current client.
//
// Counts. The `int&` count of a read or write carries the channel's outcomes; the function's
// result is then 0: a byte count; 0 the device closed (read) or took nothing (write); -2 a frame
// header without "HBN3", or announcing a negative length or one above
// kHBN3MaxFramePayloadLength (64 MiB; nothing is allocated for it); -5 a wait limit passed.
// Tickle packets (frames of length 0) are skipped by every read.
//
// Codes. 0x0A09NN02: the handle is null or not of the kind `iType` (which must be 0, 1 or 2);
// 0x0A09NN04: a valid UDP handle (kind 0) given to a channel function; 0x0A0000B0 + error: a
// socket-layer failure of a kind-2 socket (0x0A0000C0 receive, 0x0A0000C1 send, 0x0A0000B4 no
// descriptor); 0x0A09NN00: any other failure, every failure of a channel (its socket errors are
// not carried on) and a frame too large for the caller's buffer among them. On a code the count
// is left as it was, except where stated.
//
// Ownership. Channel handles are never released: no function here (or anywhere in the library)
// frees one, and a closed channel stays a valid handle for the life of the process, so a
// listener still running can finish on it. A host that opens many channels keeps them all. The
// payload blocks a listener hands to the callback are allocated with malloc and belong to the
// callback, which releases each with free().
//
// Threads. No function here takes a lock. Write, WriteManaged and CloseTCPSocket may be called
// while the channel's listener runs; Read and ReadManaged must not (only one reader at a time: a
// read that finds another one running fails with kind 00).

// Opens a channel to the device at `ip` (dotted decimal), TCP port `usbEndPoint`, interface
// `endPointInterface` (kScanInterface, kHIDInterface, kPrintInterface, kMediaInterface; any other
// value opens the scan interface). Connects (no limit of the library's own), sends the nine-byte
// open request and waits up to 60 s for the answer, a frame header "HBN3" of length 0. Returns
// the new channel and sets `iResult` to 9. A missing or wrong answer (a non-zero length, another
// tag, silence, a device that closes first): null and `iResult` -1. When the descriptor cannot
// be made or the connection fails (nothing listening): null, `iResult` unchanged. Nothing stays
// open or allocated when null is returned. The channel belongs to the host and is never
// released. Throws std::bad_alloc when memory is exhausted.
KIV_EXTERN_C HANDLE OpenTCPSocket(std::string &ip, int usbEndPoint,
                                  KivEndPointInterface endPointInterface, int &iResult);

// Writes `length` bytes of `msg` (a length above INT_MAX writes nothing). Kind 1: all bytes as
// given, no frame header added; `iMsgSent` = `length`, or 0 when the device took nothing or any
// failure occurred. Kind 2: one send to the current client; `iMsgSent` = the count taken.
// Kind 0: `iMsgSent` = 0 and 0x0A091B04. Codes: 0; 0x0A091B02; 0x0A091B04; 0x0A0000C1 (kind-2
// send failed, no client); 0x0A091B00.
KIV_EXTERN_C UInt32 Write(HANDLE objHandle, int iType, unsigned char *msg, unsigned int length,
                          int &iMsgSent);

// As Write, but kind 1 waits at most `timeout` for writability before each send: `iMsgSent` =
// `length`, 0, or -5 when a wait ran out. Kind 2 sends without a limit. Codes: 0; 0x0A091C02;
// 0x0A091C04 (with `iMsgSent` = 0); 0x0A0000C1; 0x0A091C00 (a channel failure; `iMsgSent`
// unchanged).
KIV_EXTERN_C UInt32 WriteManaged(HANDLE objHandle, int iType, unsigned char *msg,
                                 unsigned int length, KivTimeVal timeout, int &iMsgSent);

// Kind 1: reads one data frame, waiting without a limit, and copies its payload into `buffer`
// (capacity `length`); with `buffer` null the frame is read and dropped. `maxTicklePackets` above
// 0: after that many tickle packets in a row without a data frame, `iMsgRecv` is -5 as if a limit
// had passed; 0 or less skips any number. `iMsgRecv` = the payload length, 0 (the device closed),
// -2 or -5. A frame larger than `length` is consumed and lost: 0x0A091D00, `iMsgRecv` unchanged,
// and the next Read gets the following frame. `buffer` is written only when a whole frame came.
// Kind 2: one receive of at most `length` bytes from the current client; `iMsgRecv` = the count
// (0 when it closed). Kind 0: `iMsgRecv` = 0 and 0x0A091D04. Codes: 0; 0x0A091D02; 0x0A091D04;
// 0x0A0000C0 (kind-2 receive failed, no client); 0x0A091D00.
KIV_EXTERN_C UInt32 Read(HANDLE objHandle, int iType, unsigned char *buffer, int length,
                         int maxTicklePackets, int &iMsgRecv);

// As Read, but kind 1 waits at most `timeout` for each piece of a frame header (`iMsgRecv` = -5
// when a wait ran out; header bytes that came are kept for the next read); a payload, once its
// header has come, is read without a limit. Kind 2 receives without a limit. Codes: 0;
// 0x0A091E02; 0x0A091E04; 0x0A0000C0; 0x0A091E00.
KIV_EXTERN_C UInt32 ReadManaged(HANDLE objHandle, int iType, unsigned char *buffer, int length,
                                KivTimeVal timeout, int maxTicklePackets, int &iMsgRecv);

// Registers `callback` (see KivSocketReadCallback) with `anyObject` on the channel (kind 1) and a
// poll period of `numSecs` s + `numUSecs` us. With `runInSeparateThread` it starts a listener
// thread (detached when `isDetached`) and returns at once; without, the listener runs in the
// calling thread and the function returns when it has ended. The listener passes each frame's
// payload to the callback (a malloc'ed block the callback frees), length 0 while the device has
// closed, (null, -4) for a socket failure, (null, 1) for a bad frame header or any other failure,
// and (null, 1) once when it ends after more than 20 s without a frame or tickle packet (counted
// from the start of listening until the first frame). It ends when the callback answers false,
// after CloseTCPSocket (within one poll period, with no further callback, even in the middle of
// a frame), when a null callback is registered, and at the idle end. A tickle packet restarts
// the idle time without a callback. No thread is started for a closed channel, for a null
// callback, on a media-interface channel (kMediaInterface: no callback is ever made), or while a
// listener runs (it takes up the new callback, parameter and period). A joinable listener must be
// joined by the host (GetListenerThreadID), before it lets go of `anyObject`. Codes: 0;
// 0x0A091F02 (not a channel); 0x0A091F00.
KIV_EXTERN_C UInt32 RegisterReadCallback(HANDLE objHandle, KivSocketReadCallback callback,
                                         void *anyObject, int numSecs, int numUSecs,
                                         bool runInSeparateThread, bool isDetached);

// The listener thread's identifier of a channel whose listener thread is running (valid as long
// as the channel lives; a joinable listener may be joined through it), otherwise null (also for a
// handle that is not a channel).
KIV_EXTERN_C pthread_t *GetListenerThreadID(HANDLE objHandle);

// The descriptor of a socket of kind `iType`: for kinds 0 and 2 the open descriptor, and
// 0x0A0000B4 when the socket is closed; for kind 1 (HBN3 channel) the descriptor as it is, -1
// after CloseTCPSocket. 0x0A092102 for a handle invalid for the kind; 0x0A092100 other failure. A
// result is a descriptor or a code, told apart by the top byte 0x0A, which no descriptor reaches.
// The descriptor stays the library's: wait on it (poll, select), never read, write or close it.
// A channel's reads look at the frames waiting with one peek and take each frame's bytes out of
// the descriptor only once it has been read, so a host that waits on the descriptor and then
// calls ReadManaged never misses a frame and never waits for one that has already arrived; once
// it has read every frame that came, the descriptor is quiet. It may be woken by the first bytes
// of a frame header whose rest has not come: ReadManaged then takes them and gets the frame, or
// -5 when its limit passes first. Reading the descriptor itself between calls is not supported:
// it would take bytes the channel has already seen and lose the stream's frame boundaries.
KIV_EXTERN_C int GetSocketID(HANDLE objHandle, int iType);

// Closes a socket of kind 1 or 2 and keeps the object (the handle stays valid). Kind 1: marks the
// channel closed, tells its listener to stop, shuts the connection down and closes the
// descriptor; `iResult` = the close's result (0, or -1 when already closed). Kind 2: closes the
// listening descriptor (the current client stays open); `iResult` = the close's result;
// RevitalizeSocket can give it a new one. Kind 0: `iResult` = 0x0A092004 (as int) and nothing is
// closed. Returns 0 in all these cases; 0x0A092002 for a bad handle or kind (`iResult`
// unchanged); 0x0A092000 for another failure.
KIV_EXTERN_C UInt32 CloseTCPSocket(HANDLE objHandle, int iType, int &iResult);

// ---- Host information -------------------------------------------------------------------------
//
// The host's default IPv4 interface (the interface of the default route with the lowest metric),
// its host name, and the MAC and address text conversions. Each function takes a fresh snapshot
// of the default interface, asks one question and returns the answer itself: no result codes, no
// handles, no state kept between calls, callable from any thread.
//
// Exceptions: every function here, the conversions and IsBroadcastAddress included, throws the
// int -1 when the host has no default IPv4 interface (no default route, or no IPv4 address on its
// interface). Nothing here catches it; a host that may run without a network catches `int`.
//
// Addresses are 32-bit IPv4 addresses in network byte order (192.168.1.1 is the bytes C0 A8 01 01
// in memory); the texts are dotted decimal, at most 15 characters.

// Six bytes of hardware address; the full declaration is in <net/ethernet.h>.
struct ether_addr;

// The hardware address of the first interface whose name of n characters equals the first n
// characters of `device` (so "eth0.100" finds eth0). Null for a null `device`, an unknown name, an
// unreadable interface list or no memory. Ownership: the result is a new 6-byte block that the
// caller releases with free().
KIV_EXTERN_C ether_addr *GetHostMACAddress(const char *device);

// The default interface's address, broadcast address, default gateway and net mask.
KIV_EXTERN_C UInt32 GetHostIPAddress();
KIV_EXTERN_C UInt32 GetHostBroadcastAddress();
KIV_EXTERN_C UInt32 GetHostGateway();
KIV_EXTERN_C UInt32 GetHostNetMask();

// These return std::string with C linkage on purpose (hosts are C++ and link by plain names);
// clang's warning about that is silenced for these declarations only (and QueryMACAddressByHCP).
#if defined(__clang__)
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wreturn-type-c-linkage"
#endif

// The same four addresses as dotted text.
KIV_EXTERN_C std::string GetHostIPAddressString();
KIV_EXTERN_C std::string GetHostBroadcastAddressString();
KIV_EXTERN_C std::string GetHostGatewayString();
KIV_EXTERN_C std::string GetHostNetMaskString();

// The host name (at most 255 characters), or the empty string when the system gives none.
KIV_EXTERN_C std::string GetHostname();

#if defined(__clang__)
#pragma clang diagnostic pop
#endif

// The address written in `ip` as dotted text, in network byte order; 0xFFFFFFFF for text that is
// no address. `ip` is read only.
KIV_EXTERN_C unsigned long GetLongFromIP(std::string &ip);

// True when `strAddress` is, character for character, the text GetHostBroadcastAddressString
// gives. The text is not parsed: "192.168.001.255" is not "192.168.1.255". `strAddress` is read
// only.
KIV_EXTERN_C bool IsBroadcastAddress(std::string &strAddress);

// Converts a MAC text of 12 characters into 6 bytes at `arrMacAddress`: "0"-"9" are the digits
// 0-9 and "A"-"Z" the digits 10-35 (uppercase only), and byte j is (digit 2j << 4 | digit 2j+1)
// kept to 8 bits, so "0004AC1F2B3C" gives 00 04 AC 1F 2B 3C. Any other character, and every
// position a shorter (or null) text lacks, has the digit 0. A null `arrMacAddress` does nothing.
KIV_EXTERN_C void ConvertCharStrToHexVal(const char *destMac, unsigned char *arrMacAddress);

// The same conversion into the 6 bytes at `val`.
KIV_EXTERN_C void GetExactHexValOfString(const char *destMac, UInt8 *val);

// ---- Device relocation and debugger entry points ------------------------------------------------
//
// Finding a device again by its MAC address after its IPv4 address changed, and asking a device
// for its MAC address. Both send the HCP discovery query to UDP port 5353 of a candidate address
// and compare the MAC text of its answer. They share process-wide state: a host must not run two
// of them at the same time (the library serialises them: a call made while another runs waits
// until that one has returned). Neither throws: every failure is reported as "not found".
//
// MAC texts are 12 lowercase hexadecimal digits without separators ("000400128fbc"), the form
// the device's answer is converted to; a text in uppercase or with separators never matches.

// Finds the device whose MAC text is `macAddress` and writes its current dotted address, with the
// terminator, into `ipAddress`. `ipAddress` is the driver's buffer of at least 16 bytes holding
// the address the device last had; it is read up to its terminator (16 bytes at most) and written
// only on success, never beyond 16 bytes. Tried in turn, each confirmed by a MAC query that waits
// 2 s for the answer:
//  1. the address remembered for this MAC in the device store (see the README);
//  2. the address in `ipAddress`;
//  3. every web server ("_http._tcp") that DNS-SD (the Avahi daemon) finds within `timeout`
//     seconds, resolved to its first IPv4 address, one service at a time.
// Returns true when the device was confirmed and reported its address; that address is also
// written to the device store (a store that cannot be written is ignored). False for a null
// argument, when the device is not confirmed, or when its answer lacks a usable address (an
// address text longer than 15 characters is refused); the buffer is then unchanged.
//
// Blocks the calling thread: up to 4 s of checks, then `timeout` seconds of browsing checked once a
// second (0: none), then the end of a check still running (a resolution of up to 5 s and 2 s for
// the answer). Starts one browse thread and joins it before returning. Where no Avahi daemon is
// reachable the browse finds nothing and the call still waits its `timeout`.
//
// Note: text in `ipAddress` that is not a dotted IPv4 address is read as 255.255.255.255 by the
// platform's conversion, so the second query is then broadcast on the local network.
KIV_EXTERN_C bool ResolveNewIPAddress(char *ipAddress, const char *macAddress, UInt16 timeout);

// The MAC text of the device answering the HCP discovery query sent to UDP port 5353 of
// `ipAddress` (dotted text, read only; other text is read as 255.255.255.255 and broadcast), or ""
// when nothing usable answers within `timeout` seconds. Blocks the calling thread up to `timeout`
// seconds. The address the device reported is kept for a relocation's use.
#if defined(__clang__)
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wreturn-type-c-linkage"
#endif
KIV_EXTERN_C std::string QueryMACAddressByHCP(std::string &ipAddress, UInt16 timeout);
#if defined(__clang__)
#pragma clang diagnostic pop
#endif

// The string reference the debugger entry points take, as an opaque pointer: host code that
// passes one keeps its shape. The library never dereferences it.
typedef const struct KivOpaqueCFString *CFStringRef;

// Debugger entry points, kept for hosts that call them: they ignore their arguments, do nothing
// and print nothing. Callable from any thread.
KIV_EXTERN_C void InitializeDebugger(int iTarget, CFStringRef cfPortName, std::string &strFileName,
                                     int iDebugLevel);
// Returns 0.
KIV_EXTERN_C UInt32 SendDebugMessage(int iLevel, const char *format, ...);
// Returns 0; `message` is not read.
KIV_EXTERN_C UInt32 SendDebugPacket(int iLevel, unsigned char *message, int iLength);
KIV_EXTERN_C void StopDebugger();

#endif // KIV_INTERFACES_KIVNETWORKCOMM_H
