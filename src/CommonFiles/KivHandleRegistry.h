// The live handles of the library: every object the library made for its host, by address and
// class identifier, so the boundary can tell a handle from any other pointer without reading it.
#ifndef KIV_COMMONFILES_KIVHANDLEREGISTRY_H
#define KIV_COMMONFILES_KIVHANDLEREGISTRY_H

#include "Common/KivTypes.h"

namespace kiv {

// Why a registry: a handle is an untyped pointer, and reading a class identifier through a
// pointer of unknown kind reads memory that was never written for that purpose (padding of
// another class, a released block, a host's own object). The registry answers from its own
// records instead; the object behind a pointer is touched only once the registry has said it is
// a live object of the kind asked for.
//
// Entries are made where the library hands an object to its host (the creating exported
// functions; the TCP server socket's constructor, since hosts make those through the class) and
// removed by the destructors of every handle class, so a destroyed object's address is no handle
// any more, and an address reused by a new object is a handle only if the library registered the
// new object, with its own kind.
//
// All three are safe to call from any thread; each holds one process-wide lock for a lookup.

// Records `object` as a live handle with class identifier `classID`, replacing what was recorded
// for that address. Throws std::bad_alloc when the record cannot be made.
void RegisterHandle(const void *object, UInt32 classID);

// Removes the record of `object` if it is recorded with class identifier `classID`; nothing
// happens otherwise (an address never recorded, null, or a member that shares its address with
// an object of another kind).
void ForgetHandle(const void *object, UInt32 classID) noexcept;

// True when `object` is recorded as a live handle with class identifier `classID`.
bool IsHandleOfKind(const void *object, UInt32 classID) noexcept;

} // namespace kiv

#endif // KIV_COMMONFILES_KIVHANDLEREGISTRY_H
