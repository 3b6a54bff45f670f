// The seam between the host-information logic and the operating system: the default IPv4
// interface, address text and the interfaces' hardware addresses. Internal to the library.
#ifndef KIV_HELPERFILES_KIVHOSTPLATFORM_H
#define KIV_HELPERFILES_KIVHOSTPLATFORM_H

#include <string>
#include <vector>

#include "Common/KivTypes.h"

namespace kiv {

// The host's default IPv4 interface. Every address is an IPv4 address as it lies in a
// `struct in_addr`: network byte order in memory (192.168.1.1 is the bytes C0 A8 01 01).
struct KivInterfaceInfo {
  UInt32 fAddress = 0;            // the interface's own address
  UInt32 fNetmask = 0;            // its net mask
  UInt32 fBroadcastAddr = 0;      // the subnet's broadcast address
  UInt32 fDefaultGatewayAddr = 0; // the default route's gateway; 0 for a route without one
};

// One network interface and its hardware address.
struct KivLinkAddress {
  std::string name;                        // interface name, e.g. "eth0"
  UInt8 hwAddress[6] = {0, 0, 0, 0, 0, 0}; // first 6 bytes of the hardware address, zero-padded
};

// What the host-information logic needs of the operating system. The library uses one Linux
// implementation (LinuxHostPlatform()); tests hand the logic a fake.
class KivHostPlatform {
public:
  virtual ~KivHostPlatform() = default;

  // Fills `info` with the default IPv4 interface's configuration. Returns false when the host has
  // none (no default route, or no IPv4 address on the route's interface); `info` may then
  // be partly filled.
  virtual bool GetDefaultInterface(KivInterfaceInfo &info) const = 0;

  // `address` (network byte order) as dotted decimal text, at most 15 characters.
  virtual std::string AddressToText(UInt32 address) const = 0;

  // Replaces `list` with every interface that has a hardware address, in the system's order.
  // Returns false when the system's interface list cannot be read.
  virtual bool GetLinkAddresses(std::vector<KivLinkAddress> &list) const = 0;
};

// The platform the library's own objects use: the override when one is set, otherwise the
// Linux platform.
const KivHostPlatform &CurrentHostPlatform();

// Test hook, process-wide: every KivNetHelperUtils made without an explicit platform (and so every
// class that makes one itself, such as the HCP configuration header) uses `platform` until the
// override is cleared with nullptr. Returns the override it replaces. The caller keeps `platform`
// alive while it is set. Not for production use: meant to be set and cleared by one test at a
// time, around code that runs on the test's own thread.
const KivHostPlatform *SetHostPlatformOverride(const KivHostPlatform *platform);

// Sets the override for the lifetime of a scope and puts the previous one back on every exit
// path, so scopes nest.
class HostPlatformOverrideScope {
public:
  explicit HostPlatformOverrideScope(const KivHostPlatform &platform)
      : mPrevious(SetHostPlatformOverride(&platform)) {}
  ~HostPlatformOverrideScope() { SetHostPlatformOverride(mPrevious); }
  HostPlatformOverrideScope(const HostPlatformOverrideScope &) = delete;
  HostPlatformOverrideScope &operator=(const HostPlatformOverrideScope &) = delete;

private:
  const KivHostPlatform *mPrevious;
};

} // namespace kiv

#endif // KIV_HELPERFILES_KIVHOSTPLATFORM_H
