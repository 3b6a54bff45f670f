// Basic integer types, the untyped handle and the export marker shared by every public header.
#ifndef KIV_COMMON_KIVTYPES_H
#define KIV_COMMON_KIVTYPES_H

// The exported declarations use C++17 (std::string parameters, inline constants); the host picks
// its own standard, 17 or later.
#if !defined(__cplusplus) || __cplusplus < 201703L
#error "KivNetworkComm headers need C++17 or later: compile the host with -std=c++17 (or newer)"
#endif

#include <cstdint>

typedef std::uint8_t UInt8;
typedef std::uint16_t UInt16;
typedef std::uint32_t UInt32;
typedef std::uint64_t UInt64;

// An object of the library named across the boundary (container, record, address, socket).
// Handles are allocated by the library and belong to the host once returned.
typedef void *HANDLE;

// The library is built with hidden visibility; only what carries KIV_EXPORT is visible to hosts.
#if defined(KIVNETWORKCOMM_BUILDING)
#define KIV_EXPORT __attribute__((visibility("default")))
#else
#define KIV_EXPORT
#endif

// Exported functions have C linkage (unmangled names) but keep the C++ types of their signatures.
#define KIV_EXTERN_C extern "C" KIV_EXPORT

#endif // KIV_COMMON_KIVTYPES_H
