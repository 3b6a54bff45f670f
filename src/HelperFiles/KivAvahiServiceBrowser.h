// DNS service discovery on Linux: browse and resolve through the Avahi daemon.
#ifndef KIV_HELPERFILES_KIVAVAHISERVICEBROWSER_H
#define KIV_HELPERFILES_KIVAVAHISERVICEBROWSER_H

#include <memory>

#include "HelperFiles/KivServiceBrowser.h"

namespace kiv {

// A browser that asks the host's avahi-daemon over the D-Bus system bus (the bus named by
// DBUS_SYSTEM_BUS_ADDRESS, else the standard socket). It browses over IPv4 mDNS and resolves to
// IPv4 addresses only; the search runs an Avahi simple poll loop on the calling thread, which
// StopSearch wakes through a descriptor of its own, so a stop from another thread never touches
// Avahi. Where no daemon answers, SearchForServices returns false at once. Never throws; a
// failure of Avahi or D-Bus ends the search.
//
// D-Bus calls made while connecting, creating the browser and creating a resolver are answered
// by the local daemons; a bus that accepts calls but never answers holds them up to libdbus's
// reply limit (25 s).
std::unique_ptr<KivServiceBrowser> MakeAvahiServiceBrowser();

} // namespace kiv

#endif // KIV_HELPERFILES_KIVAVAHISERVICEBROWSER_H
