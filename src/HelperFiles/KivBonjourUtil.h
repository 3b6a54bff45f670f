// Finding a device again by its MAC address: the remembered address, the driver's address, then
// every web server DNS-SD finds, each confirmed by an HCP MAC query.
#ifndef KIV_HELPERFILES_KIVBONJOURUTIL_H
#define KIV_HELPERFILES_KIVBONJOURUTIL_H

#include <pthread.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "Common/KivTypes.h"
#include "HelperFiles/KivDeviceStore.h"
#include "HelperFiles/KivServiceBrowser.h"

// Length of the relocation query.
constexpr int kRelocationQueryLength = 41;

// The relocation query, sent to UDP port 5353 of a candidate address: the HCP discovery query
// (an mDNS-shaped question for _host-config._udp.local, type SRV, class IN), byte for byte.
extern const unsigned char gBuffCommand[kRelocationQueryLength];

// One device relocation (or MAC query). The relocation state is process-wide: the MAC being
// looked for, the address the last answering device reported, and the found and still-browsing
// flags. Relocations and MAC queries of one process are therefore serialised: a call made while
// another runs on another thread waits for it to finish.
//
// MAC texts: a device reports its universal MAC as 12 uppercase hexadecimal digits with the bits
// of each byte reversed (MACUAA="00200048F13D"); the relocation form is 12 lowercase digits in
// ordinary bit order without separators (000400128fbc). The driver's MAC text is compared with
// that form character for character, so an uppercase text or one with separators never matches.
//
// No member throws, and no failure of DNS-SD or of the device store leaves one: they count as
// "not found" or are ignored.
class KIV_EXPORT KivNetBonjourUtil {
public:
  // UDP port of the devices' HCP service, where the MAC query goes.
  static constexpr UInt16 kHCPPort = 5353;
  // Seconds each MAC check of a relocation waits for the answer.
  static constexpr int kCheckSeconds = 2;
  // Milliseconds a found service may take to resolve. The Avahi daemon itself gives up on a
  // resolution after 5 s; a service on the link resolves in well under a second, usually from the
  // daemon's cache. The callback holds the browsing lock meanwhile, so this bounds how long a
  // stop can wait on top of a running check.
  static constexpr int kResolveWaitMs = 5000;
  // Longest address text a device may report; a longer one is refused (not found).
  static constexpr std::size_t kMaxAddressLength = 15;
  // Room the caller's address buffer must have: the address and its terminator.
  static constexpr std::size_t kAddressBufferSize = 16;
  // The service type browsed for: web servers, which the devices announce.
  static const char kBrowsedServiceType[];

  // A relocation with the library's device store (KivFileDeviceStore::DefaultPath(), read when
  // the object is made) and the Avahi browser. No browse thread, no browser yet.
  KivNetBonjourUtil();
  // The same with another store and browser factory; `store` must outlive the object, and the
  // factory is called on the browse thread.
  KivNetBonjourUtil(kiv::KivDeviceStore &store, kiv::KivServiceBrowserFactory browserFactory);
  // Stops and joins a browse thread still running (only after a failure inside a relocation).
  ~KivNetBonjourUtil();
  KivNetBonjourUtil(const KivNetBonjourUtil &) = delete;
  KivNetBonjourUtil &operator=(const KivNetBonjourUtil &) = delete;

  // Finds the device whose MAC text (relocation form) is `macAddress`, trying in turn: the
  // address the device store remembers for it, the address in `ipAddress`, then every
  // "_http._tcp" service a DNS-SD browse finds within `timeout` seconds. Each candidate is
  // confirmed by a MAC query with a 2-second wait. On success the address the device reported
  // is written to the store and, with its terminator, into `ipAddress` (at most 16 bytes), and
  // the result is true. False for a null argument or when the device is not confirmed (the buffer
  // is then unchanged). `ipAddress` is read up to its terminator or 16 bytes.
  //
  // Blocks for up to 4 s of checks, then `timeout` seconds of browsing (0: the browse is started
  // and stopped at once), then the end of a check already running (resolution up to 5 s and 2 s
  // for the answer). Starts one browse thread and joins it before returning.
  bool resolveNewIPAddress(char *ipAddress, const char *macAddress, UInt32 timeout);

  // The MAC text (relocation form) of the device answering at `ipAddress` within `timeout`
  // seconds, or "". Also records the address the device reported, for a relocation's use.
  std::string queryMACAddress(std::string ipAddress, UInt32 timeout);

  // True when the device at `ipAddress` reports exactly `macAddress` within `timeout` seconds;
  // mNewIPAddress then holds the address it reported. Otherwise mNewIPAddress is emptied.
  static bool checkMACAddress(std::string ipAddress, std::string macAddress, int timeout);

  // Sends the relocation query to UDP port 5353 of `ipAddress` (dotted text; other text is
  // taken as 255.255.255.255, the broadcast address, as inet_addr gives it) from a socket bound to
  // any address and an ephemeral port with broadcast allowed, waits at most `timeout` seconds
  // (below 0: 0) for the first datagram, from any sender, and returns the MAC text it carries in
  // relocation form ("" when nothing usable came). The reported address goes to mNewIPAddress
  // ("" when the answer lacks one). Nothing is stored when no datagram came.
  static std::string getMACAddressByHCP(std::string ipAddress, int timeout);

  // The MAC text of an answer: the 12 characters that follow `MACUAA="`, in relocation form; ""
  // when the answer has no MACUAA or fewer than 12 characters after the opening quote.
  static std::string extractMACAddress(const unsigned char *buffData, int buffLen);

  // The address text of an answer: from 10 bytes after the first "IPADDRESS" to 2 bytes before
  // the first "IPNETMASK" (leaving out the separator and the next item's length byte). "" when
  // either key is missing, IPNETMASK starts fewer than 11 bytes after IPADDRESS, or the text is
  // longer than 15 characters.
  static std::string extractIPAddress(const unsigned char *buffData, int buffLen);

  // Relocation form of a MAC text as a device sends it: the first 12 characters read as digits
  // ("0"-"9" are 0-9, "A"-"Z" are 10-35, anything else and missing characters are 0), paired into
  // 6 bytes (high digit << 4 | low digit, kept to 8 bits), each byte's bits reversed, written as
  // 12 lowercase hexadecimal digits. Needs no interface data.
  static std::string getConvertedMACAddress(const std::string &rawMACAdd);

  // The body of the browse thread: creates the browser and searches for "_http._tcp" services
  // in the default domains until the relocation stops it. Does nothing when the relocation has
  // already stopped browsing.
  void browseBonjour();

  // Thread entry: runs browseBonjour on `self` (a KivNetBonjourUtil). Returns null.
  static void *browseBonjourStatic(void *self);

  // Called on the browse thread for each service found: under the browsing lock, and only while
  // still browsing, resolves the service (at most kResolveWaitMs), checks its first IPv4 address
  // by its MAC, and on a match sets the found flag and stops accepting services.
  static void bonjourBrowserClientCallBack(kiv::KivServiceBrowser *browser, UInt32 flags,
                                           const kiv::KivBrowsedService *domainOrService, int error,
                                           void *info);

  // Stores `valueString` (a dotted IPv4 address) for `keyString` in the device store; failures
  // are not reported.
  void setDriverProperty(const std::string &keyString, const std::string &valueString);

  // The address stored for `keyString`, or "" (also for a stored value that is not a dotted IPv4
  // address of at most 15 characters, or a store that cannot be read).
  std::string getDriverProperty(const std::string &keyString);

protected:
  // Stops the search and joins the browse thread when one runs; the caller has cleared
  // mStillBrowsing.
  void stopBrowsing();

  static std::string mMACAddress;   // the MAC being looked for, as the driver gave it
  static std::string mNewIPAddress; // address reported by the last answer; "" after a failed check
  static std::atomic<bool> mPrinterFound; // the last check, or a check of the browse, confirmed it
  pthread_t mBonjourBrowse;               // the browse thread, while mBrowseStarted
  bool mBrowseStarted;
  static std::atomic<bool> mStillBrowsing; // the browse accepts services
  static std::mutex mBrowsingLock;         // the callback's work against the stop of the browse
  std::unique_ptr<kiv::KivServiceBrowser> mBrowserRef; // under mBrowsingLock; null when none

private:
  std::unique_ptr<kiv::KivDeviceStore> mOwnStore;
  kiv::KivDeviceStore *mStore;
  kiv::KivServiceBrowserFactory mBrowserFactory;
};

#endif // KIV_HELPERFILES_KIVBONJOURUTIL_H
