// The host's own network presence (default IPv4 interface, hardware addresses, host name) and the
// conversions of MAC and address texts.
#ifndef KIV_HELPERFILES_KIVNETHELPERUTILS_H
#define KIV_HELPERFILES_KIVNETHELPERUTILS_H

#include <string>

#include "Common/KivTypes.h"
#include "HelperFiles/KivHostPlatform.h"

// Six bytes of hardware address; the full declaration is in <net/ethernet.h>.
struct ether_addr;

// A snapshot of the default IPv4 interface taken at construction; the getters answer from it.
// Cheap and short-lived: make one, ask, discard. Copies are member-wise and share the platform.
// Not for use by two threads at once (ConvertCharStrToHexVal writes the object's digit memory).
//
// Every address is a 32-bit IPv4 address in network byte order, as the platform gives it.
class KIV_EXPORT KivNetHelperUtils {
public:
  // Number of characters of a MAC text: 12 hexadecimal digits, no separators.
  static constexpr int kMacTextLength = 12;
  // Number of bytes of a hardware address.
  static constexpr int kMacLength = 6;
  // What GetLongFromIP gives for text that is not an address (255.255.255.255).
  static constexpr unsigned long kInvalidAddress = 0xFFFFFFFFul;

  // Snapshot of the default interface through the current platform (the Linux one unless a test
  // has set an override, see kiv::SetHostPlatformOverride).
  // Throws the int -1 when the host has no default IPv4 interface.
  KivNetHelperUtils();

  // The same through `platform`, which must outlive the object. Throws the int -1 likewise.
  explicit KivNetHelperUtils(const kiv::KivHostPlatform &platform);

  // The hardware address of the first interface, in the system's order, whose name of n
  // characters equals the first n characters of `device` (so "eth0" is found for "eth0" and for
  // "eth0.100"). Ownership: the result is a new 6-byte block that the caller releases with free().
  // Returns null for a null `device`, when no interface matches, when the interface list cannot
  // be read or when there is no memory.
  ether_addr *GetHostMACAddress(const char *device) const;

  UInt32 GetHostIPAddress() const { return mInfo.fAddress; }
  UInt32 GetHostNetMask() const { return mInfo.fNetmask; }
  UInt32 GetHostBroadcastAddress() const { return mInfo.fBroadcastAddr; }
  UInt32 GetHostGateway() const { return mInfo.fDefaultGatewayAddr; }

  // The same four addresses as dotted decimal text (at most 15 characters).
  std::string GetHostIPAddressString() const;
  std::string GetHostNetMaskString() const;
  std::string GetHostBroadcastAddressString() const;
  std::string GetHostGatewayString() const;

  // The host name (at most 255 characters), or the empty string when the system gives none.
  std::string GetHostname() const;

  // The address written in `ip` as dotted text, in network byte order (10.1.2.3 is the bytes
  // 0A 01 02 03 in memory). Text that is not an address gives kInvalidAddress.
  unsigned long GetLongFromIP(const std::string &ip) const;

  // Converts a MAC text of 12 characters to 6 bytes: "0"-"9" are the digits 0-9 and "A"-"Z" the
  // digits 10-35 (uppercase only); byte j is (digit 2j << 4 | digit 2j+1) kept to 8 bits, so
  // "0004AC1F2B3C" gives 00 04 AC 1F 2B 3C. The digits are kept in the object: a character that is
  // not a digit (a lowercase letter, a separator) takes the digit this object's previous
  // conversion left at its position, or 0 on a fresh object. Reading stops at a terminator: a
  // text shorter than 12 characters (or null) has the digit 0 at every position it lacks.
  // `arrMacAddress` receives 6 bytes; a null one makes the call do nothing.
  void ConvertCharStrToHexVal(const char *destMac, unsigned char *arrMacAddress);

  // The same conversion without the object's memory: a character that is not a digit, and every
  // position a short or null text lacks, has the digit 0. `val` receives 6 bytes; a null one makes
  // the call do nothing.
  void GetExactHexValOfString(const char *destMac, UInt8 *val) const;

  // The conversion of GetExactHexValOfString for callers without a host interface: it needs no
  // snapshot (device relocation converts the MAC texts devices report with it).
  static void ConvertMacText(const char *destMac, UInt8 *val);

private:
  const kiv::KivHostPlatform *mPlatform;
  kiv::KivInterfaceInfo mInfo;
  UInt8 mTempMacAddr_val[kMacTextLength];
};

#endif // KIV_HELPERFILES_KIVNETHELPERUTILS_H
