// Device relocation: HCP MAC queries to candidate addresses, the device store, and the DNS-SD
// browse thread with its stop.
#include "HelperFiles/KivBonjourUtil.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

#include "CommonFiles/KivUniqueFd.h"
#include "HelperFiles/KivAvahiServiceBrowser.h"
#include "HelperFiles/KivFileDeviceStore.h"
#include "HelperFiles/KivNetHelperUtils.h"

const unsigned char gBuffCommand[kRelocationQueryLength] = {
    0x00, 0x00,                         // transaction identifier
    0x00, 0x00,                         // flags
    0x00, 0x01,                         // one question
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, // no other records
    0x00, // first label length byte: 0, exactly as the discovery query sends it
    '_',  'h',  'o',  's',  't',  '-',  'c', 'o', 'n', 'f', 'i', 'g', // first label
    0x04, '_',  'u',  'd',  'p',                                      // second label
    0x05, 'l',  'o',  'c',  'a',  'l',                                // third label
    0x00,                                                             // end of name
    0x00, 0x21,                                                       // type SRV
    0x00, 0x01,                                                       // class IN
};

const char KivNetBonjourUtil::kBrowsedServiceType[] = "_http._tcp";

std::string KivNetBonjourUtil::mMACAddress;
std::string KivNetBonjourUtil::mNewIPAddress;
std::atomic<bool> KivNetBonjourUtil::mPrinterFound{false};
std::atomic<bool> KivNetBonjourUtil::mStillBrowsing{false};
std::mutex KivNetBonjourUtil::mBrowsingLock;

namespace {

// Relocations and MAC queries share the static state above; this keeps a second one, made on
// another thread, waiting until the first has returned.
std::mutex gCallGate;

// Largest datagram read of an answer.
constexpr int kAnswerRoom = 1024;

// Waits until `fd` is readable or `seconds` have passed (a signal does not shorten the wait).
bool WaitReadable(int fd, int seconds) {
  using Clock = std::chrono::steady_clock;
  const long long totalMs = seconds > 0 ? static_cast<long long>(seconds) * 1000 : 0;
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(totalMs);
  for (;;) {
    const long long left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd wait = {fd, POLLIN, 0};
    const int ready =
        poll(&wait, 1, static_cast<int>(std::max(0LL, std::min<long long>(left, INT_MAX))));
    if (ready > 0) {
      return true;
    }
    if (ready == 0 && left <= 0) {
      return false;
    }
    if (ready < 0 && errno != EINTR) {
      return false;
    }
  }
}

// Position of the first `key` in the answer bytes (which may hold zeros), or -1.
int FindKey(const unsigned char *data, int length, const char *key) {
  const std::size_t keyLength = std::strlen(key);
  const unsigned char *end = data + length;
  const unsigned char *found = std::search(data, end, key, key + keyLength);
  return found == end ? -1 : static_cast<int>(found - data);
}

UInt8 ReverseBits(UInt8 byte) {
  UInt8 reversed = 0;
  for (int bit = 0; bit < 8; ++bit) {
    if (byte & (1u << bit)) {
      reversed = static_cast<UInt8>(reversed | (0x80u >> bit));
    }
  }
  return reversed;
}

} // namespace

KivNetBonjourUtil::KivNetBonjourUtil()
    : mBonjourBrowse(), mBrowseStarted(false),
      mOwnStore(new kiv::KivFileDeviceStore(kiv::KivFileDeviceStore::DefaultPath())),
      mStore(mOwnStore.get()), mBrowserFactory(kiv::MakeAvahiServiceBrowser) {}

KivNetBonjourUtil::KivNetBonjourUtil(kiv::KivDeviceStore &store,
                                     kiv::KivServiceBrowserFactory browserFactory)
    : mBonjourBrowse(), mBrowseStarted(false), mStore(&store),
      mBrowserFactory(std::move(browserFactory)) {}

KivNetBonjourUtil::~KivNetBonjourUtil() {
  if (mBrowseStarted) {
    mStillBrowsing = false;
    stopBrowsing();
  }
}

std::string KivNetBonjourUtil::getConvertedMACAddress(const std::string &rawMACAdd) {
  try {
    // The digits of KivNetHelperUtils::ConvertCharStrToHexVal on a fresh object, without its
    // snapshot of the default interface, so a host without one can still relocate.
    UInt8 bytes[KivNetHelperUtils::kMacLength];
    KivNetHelperUtils::ConvertMacText(rawMACAdd.c_str(), bytes);
    for (UInt8 &byte : bytes) {
      byte = ReverseBits(byte);
    }
    char text[13];
    std::snprintf(text, sizeof text, "%02x%02x%02x%02x%02x%02x", bytes[0], bytes[1], bytes[2],
                  bytes[3], bytes[4], bytes[5]);
    return text;
  } catch (...) {
    return std::string();
  }
}

std::string KivNetBonjourUtil::extractMACAddress(const unsigned char *buffData, int buffLen) {
  if (buffData == nullptr || buffLen <= 0) {
    return std::string();
  }
  const int key = FindKey(buffData, buffLen, "MACUAA");
  // MACUAA=" and then 12 digit characters, all inside the answer.
  if (key < 0 || buffLen - key < 8 + 12) {
    return std::string();
  }
  try {
    return getConvertedMACAddress(
        std::string(reinterpret_cast<const char *>(buffData) + key + 8, 12));
  } catch (...) {
    return std::string();
  }
}

std::string KivNetBonjourUtil::extractIPAddress(const unsigned char *buffData, int buffLen) {
  if (buffData == nullptr || buffLen <= 0) {
    return std::string();
  }
  const int address = FindKey(buffData, buffLen, "IPADDRESS");
  const int netmask = FindKey(buffData, buffLen, "IPNETMASK");
  // The text runs from past "IPADDRESS=" to before the length byte of the IPNETMASK item.
  if (address < 0 || netmask < 0 || netmask - address < 11) {
    return std::string();
  }
  const std::size_t length = static_cast<std::size_t>(netmask - address - 11);
  if (length > kMaxAddressLength) {
    return std::string(); // would not fit the driver's 16 bytes: refused, not cut
  }
  try {
    return std::string(reinterpret_cast<const char *>(buffData) + address + 10, length);
  } catch (...) {
    return std::string();
  }
}

std::string KivNetBonjourUtil::getMACAddressByHCP(std::string ipAddress, int timeout) {
  const kiv::UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (socket.Get() < 0) {
    return std::string();
  }
  sockaddr_in local = {};
  local.sin_family = AF_INET;
  local.sin_addr.s_addr = htonl(INADDR_ANY);
  local.sin_port = 0;
  const int on = 1;
  // Neither result is checked: sendto binds an unbound socket itself, and only a query to the
  // broadcast address needs the option.
  (void)bind(socket.Get(), reinterpret_cast<const sockaddr *>(&local), sizeof local);
  (void)setsockopt(socket.Get(), SOL_SOCKET, SO_BROADCAST, &on, sizeof on);

  sockaddr_in device = {};
  device.sin_family = AF_INET;
  device.sin_addr.s_addr = inet_addr(ipAddress.c_str());
  device.sin_port = htons(kHCPPort);
  const ssize_t sent = sendto(socket.Get(), gBuffCommand, sizeof gBuffCommand, 0,
                              reinterpret_cast<const sockaddr *>(&device), sizeof device);
  if (sent < static_cast<ssize_t>(sizeof gBuffCommand) || !WaitReadable(socket.Get(), timeout)) {
    return std::string();
  }
  unsigned char answer[kAnswerRoom];
  const ssize_t received = recv(socket.Get(), answer, sizeof answer, 0);
  if (received < 0) {
    return std::string(); // readable, yet the receive failed (a pending error): no answer
  }
  try {
    const std::string mac = extractMACAddress(answer, static_cast<int>(received));
    mNewIPAddress = extractIPAddress(answer, static_cast<int>(received));
    return mac;
  } catch (...) {
    return std::string();
  }
}

bool KivNetBonjourUtil::checkMACAddress(std::string ipAddress, std::string macAddress,
                                        int timeout) {
  if (getMACAddressByHCP(std::move(ipAddress), timeout) == macAddress) {
    return true;
  }
  mNewIPAddress.clear();
  return false;
}

std::string KivNetBonjourUtil::queryMACAddress(std::string ipAddress, UInt32 timeout) {
  const std::lock_guard<std::mutex> gate(gCallGate);
  return getMACAddressByHCP(std::move(ipAddress),
                            static_cast<int>(std::min<UInt32>(timeout, INT_MAX)));
}

bool KivNetBonjourUtil::resolveNewIPAddress(char *ipAddress, const char *macAddress,
                                            UInt32 timeout) {
  const std::lock_guard<std::mutex> gate(gCallGate);
  mPrinterFound = false;
  if (ipAddress == nullptr || macAddress == nullptr) {
    return false;
  }
  try {
    mMACAddress = macAddress;
    mNewIPAddress.clear();
    // Success: remember the address, then hand it to the driver with its terminator.
    auto finish = [this, ipAddress]() {
      if (mNewIPAddress.size() > kMaxAddressLength) {
        return false;
      }
      setDriverProperty(mMACAddress, mNewIPAddress);
      std::memcpy(ipAddress, mNewIPAddress.c_str(), mNewIPAddress.size() + 1);
      return true;
    };

    const std::string remembered = getDriverProperty(mMACAddress);
    if (!remembered.empty()) {
      mPrinterFound = checkMACAddress(remembered, mMACAddress, kCheckSeconds);
      if (mPrinterFound && !mNewIPAddress.empty()) {
        return finish();
      }
    }

    // The driver's buffer holds 16 bytes; a text without a terminator in them is taken whole.
    const std::string current(ipAddress, strnlen(ipAddress, kAddressBufferSize));
    mPrinterFound = checkMACAddress(current, mMACAddress, kCheckSeconds);
    if (mPrinterFound && !mNewIPAddress.empty()) {
      return finish();
    }

    // Set before the thread starts, not by the thread: a stop that comes before the thread runs
    // (a time-out of 0) must not be undone by it.
    mStillBrowsing = true;
    mBrowseStarted = pthread_create(&mBonjourBrowse, nullptr, browseBonjourStatic, this) == 0;
    for (UInt32 second = 0; second < timeout && !mPrinterFound; ++second) {
      std::this_thread::sleep_for(std::chrono::seconds(1));
    }
    mStillBrowsing = false;
    stopBrowsing();

    if (mPrinterFound && !mNewIPAddress.empty()) {
      return finish();
    }
    return false;
  } catch (...) {
    mStillBrowsing = false;
    stopBrowsing();
    return false;
  }
}

void KivNetBonjourUtil::stopBrowsing() {
  if (!mBrowseStarted) {
    return;
  }
  {
    // Waits for a running callback: a device confirmed by its check still counts.
    const std::lock_guard<std::mutex> lock(mBrowsingLock);
    if (mBrowserRef) {
      mBrowserRef->StopSearch();
    }
  }
  pthread_join(mBonjourBrowse, nullptr);
  mBrowseStarted = false;
}

void KivNetBonjourUtil::browseBonjour() {
  std::unique_ptr<kiv::KivServiceBrowser> browser;
  if (mBrowserFactory) {
    browser = mBrowserFactory();
  }
  kiv::KivServiceBrowser *searching = nullptr;
  {
    // Either the relocation stops a browser it finds here, or this thread sees the cleared flag
    // and never searches: the join always returns.
    const std::lock_guard<std::mutex> lock(mBrowsingLock);
    if (!browser || !mStillBrowsing) {
      return;
    }
    mBrowserRef = std::move(browser);
    searching = mBrowserRef.get();
  }
  searching->SearchForServices("", kBrowsedServiceType, bonjourBrowserClientCallBack, nullptr);
  mStillBrowsing = false;
  const std::lock_guard<std::mutex> lock(mBrowsingLock);
  mBrowserRef.reset();
}

void *KivNetBonjourUtil::browseBonjourStatic(void *self) {
  try {
    static_cast<KivNetBonjourUtil *>(self)->browseBonjour();
  } catch (...) {
    // Nothing leaves the thread; the relocation finds nothing more.
  }
  return nullptr;
}

void KivNetBonjourUtil::bonjourBrowserClientCallBack(kiv::KivServiceBrowser *browser, UInt32,
                                                     const kiv::KivBrowsedService *domainOrService,
                                                     int, void *) {
  try {
    const std::lock_guard<std::mutex> lock(mBrowsingLock);
    if (!mStillBrowsing || browser == nullptr || domainOrService == nullptr) {
      return;
    }
    const std::vector<UInt32> addresses = browser->Resolve(*domainOrService, kResolveWaitMs);
    if (addresses.empty()) {
      return;
    }
    in_addr first;
    first.s_addr = addresses.front();
    char text[INET_ADDRSTRLEN] = {0};
    if (inet_ntop(AF_INET, &first, text, sizeof text) == nullptr) {
      return;
    }
    mPrinterFound = checkMACAddress(text, mMACAddress, kCheckSeconds);
    if (mPrinterFound) {
      mStillBrowsing = false; // later services are ignored
    }
  } catch (...) {
    // Called from the browser's loop: nothing may leave it.
  }
}

void KivNetBonjourUtil::setDriverProperty(const std::string &keyString,
                                          const std::string &valueString) {
  mStore->Set(keyString, valueString);
}

std::string KivNetBonjourUtil::getDriverProperty(const std::string &keyString) {
  return mStore->Get(keyString);
}
