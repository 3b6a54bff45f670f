// The host platform on Linux. The only source that talks to the system's interface tables.
#include "HelperFiles/KivLinuxHostPlatform.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <net/route.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <memory>
#include <string>

namespace kiv {

namespace {

struct IfaddrsDeleter {
  void operator()(ifaddrs *list) const { freeifaddrs(list); }
};
typedef std::unique_ptr<ifaddrs, IfaddrsDeleter> IfaddrsList;

IfaddrsList ReadInterfaceList() {
  ifaddrs *list = nullptr;
  if (getifaddrs(&list) != 0) {
    return IfaddrsList();
  }
  return IfaddrsList(list);
}

UInt32 InetAddressOf(const sockaddr *address) {
  sockaddr_in inet;
  std::memcpy(&inet, address, sizeof(inet));
  return inet.sin_addr.s_addr;
}

// A descriptor closed when its holder goes (-1: none).
class Descriptor {
public:
  explicit Descriptor(int fd) : mFd(fd) {}
  ~Descriptor() {
    if (mFd >= 0) {
      close(mFd);
    }
  }
  Descriptor(const Descriptor &) = delete;
  Descriptor &operator=(const Descriptor &) = delete;
  int get() const { return mFd; }

private:
  int mFd;
};

// Reads a file in pieces into a fixed area and hands each line to `line` (without its line feed;
// the last line also when no line feed ends it). A line longer than the area is handed over cut to
// the area's size, and the rest of it is skipped. A read that fails ends the file there. Returns
// false when the file cannot be opened.
template <class Line> bool ForEachLine(const char *path, Line &&line) {
  const Descriptor file(open(path, O_RDONLY | O_CLOEXEC));
  const int fd = file.get();
  if (fd < 0) {
    return false;
  }
  char area[4096];
  size_t held = 0;       // bytes of an unfinished line at the start of the area
  bool skipping = false; // within the rest of a line already handed over cut
  for (;;) {
    const ssize_t count = read(fd, area + held, sizeof area - held);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count <= 0) {
      if (held > 0 && !skipping) {
        line(area, held);
      }
      break;
    }
    const size_t end = held + static_cast<size_t>(count);
    size_t start = 0;     // the first byte of the line being read
    size_t search = held; // where its line feed may be
    while (const void *feed = std::memchr(area + search, '\n', end - search)) {
      const size_t at = static_cast<size_t>(static_cast<const char *>(feed) - area);
      if (!skipping) {
        line(area + start, at - start);
      }
      skipping = false;
      start = search = at + 1;
    }
    held = end - start;
    if (held == sizeof area) {
      if (!skipping) {
        line(area, held);
      }
      skipping = true;
      held = 0;
    } else if (start > 0) {
      std::memmove(area, area + start, held);
    }
  }
  return true;
}

// Reads the fields of one line of text, white-space separated, the way a C++ stream reads them
// (an unsigned number may carry a sign: "-1" is the largest value, as the kernel's signed printing
// of a large metric means it).
class FieldReader {
public:
  FieldReader(const char *text, size_t length) : mAt(text), mEnd(text + length) {}

  // The next word, or false at the end of the line.
  bool Word(std::string &word) {
    SkipSpace();
    const char *start = mAt;
    while (mAt < mEnd && !IsSpace(*mAt)) {
      ++mAt;
    }
    word.assign(start, static_cast<size_t>(mAt - start));
    return mAt > start;
  }

  // The next number in base 16 or 10; false when there is none or it does not fit.
  bool Number(int base, unsigned long &value) {
    SkipSpace();
    bool negative = false;
    if (mAt < mEnd && (*mAt == '+' || *mAt == '-')) {
      negative = *mAt == '-';
      ++mAt;
    }
    if (base == 16 && mEnd - mAt >= 2 && mAt[0] == '0' && (mAt[1] == 'x' || mAt[1] == 'X')) {
      mAt += 2;
    }
    unsigned long result = 0;
    const char *digits = mAt;
    for (; mAt < mEnd; ++mAt) {
      const int digit = DigitValue(*mAt, base);
      if (digit < 0) {
        break;
      }
      if (result > (std::numeric_limits<unsigned long>::max() - static_cast<unsigned long>(digit)) /
                       static_cast<unsigned long>(base)) {
        return false;
      }
      result = result * static_cast<unsigned long>(base) + static_cast<unsigned long>(digit);
    }
    if (mAt == digits) {
      return false;
    }
    value = negative ? 0ul - result : result;
    return true;
  }

private:
  static bool IsSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

  static int DigitValue(char c, int base) {
    int digit = -1;
    if (c >= '0' && c <= '9') {
      digit = c - '0';
    } else if (c >= 'a' && c <= 'f') {
      digit = c - 'a' + 10;
    } else if (c >= 'A' && c <= 'F') {
      digit = c - 'A' + 10;
    }
    return digit < base ? digit : -1;
  }

  void SkipSpace() {
    while (mAt < mEnd && IsSpace(*mAt)) {
      ++mAt;
    }
  }

  const char *mAt;
  const char *mEnd;
};

} // namespace

// /proc/net/route prints each address as the hexadecimal value of the kernel's 32-bit word, so
// reading it back as a number restores the word with its bytes in network order. The table is
// read in pieces and each line's fields in place: no stream, no copy of the table.
bool ReadDefaultRoute(const char *path, std::string &interfaceName, UInt32 &gateway) {
  bool titles = true; // the first line names the columns
  bool found = false;
  unsigned long bestMetric = std::numeric_limits<unsigned long>::max();
  std::string name;
  ForEachLine(path, [&](const char *text, size_t length) {
    if (titles) {
      titles = false;
      return;
    }
    FieldReader fields(text, length);
    unsigned long destination = 0, via = 0, flags = 0, refCount = 0, use = 0, metric = 0, mask = 0;
    if (!fields.Word(name) || !fields.Number(16, destination) || !fields.Number(16, via) ||
        !fields.Number(16, flags) || !fields.Number(10, refCount) || !fields.Number(10, use) ||
        !fields.Number(10, metric) || !fields.Number(16, mask)) {
      return;
    }
    if (destination != 0 || mask != 0 || (flags & RTF_UP) == 0) {
      return;
    }
    if (!found || metric < bestMetric) {
      found = true;
      bestMetric = metric;
      interfaceName = name;
      gateway = static_cast<UInt32>(via);
    }
  });
  return found;
}

bool KivLinuxHostPlatform::GetDefaultInterface(KivInterfaceInfo &info) const {
  std::string interfaceName;
  UInt32 gateway = 0;
  if (!ReadDefaultRoute("/proc/net/route", interfaceName, gateway)) {
    return false;
  }
  IfaddrsList list = ReadInterfaceList();
  bool found = false;
  for (const ifaddrs *entry = list.get(); entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || entry->ifa_netmask == nullptr ||
        entry->ifa_addr->sa_family != AF_INET || interfaceName != entry->ifa_name) {
      continue;
    }
    const UInt32 address = InetAddressOf(entry->ifa_addr);
    const UInt32 netmask = InetAddressOf(entry->ifa_netmask);
    const bool holdsGateway = gateway != 0 && (address & netmask) == (gateway & netmask);
    if (!found || holdsGateway) {
      found = true;
      info.fAddress = address;
      info.fNetmask = netmask;
      // Byte-wise operations, so the network byte order of both operands carries over.
      info.fBroadcastAddr = address | ~netmask;
      info.fDefaultGatewayAddr = gateway;
      if (holdsGateway) {
        break;
      }
    }
  }
  return found;
}

std::string KivLinuxHostPlatform::AddressToText(UInt32 address) const {
  in_addr inet;
  inet.s_addr = address;
  char text[INET_ADDRSTRLEN] = {0};
  if (inet_ntop(AF_INET, &inet, text, sizeof(text)) == nullptr) {
    return std::string();
  }
  return std::string(text);
}

bool KivLinuxHostPlatform::GetLinkAddresses(std::vector<KivLinkAddress> &list) const {
  IfaddrsList interfaces = ReadInterfaceList();
  if (!interfaces) {
    return false;
  }
  list.clear();
  for (const ifaddrs *entry = interfaces.get(); entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_PACKET ||
        entry->ifa_name == nullptr) {
      continue;
    }
    sockaddr_ll link;
    std::memcpy(&link, entry->ifa_addr, sizeof(link));
    KivLinkAddress item;
    item.name = entry->ifa_name;
    // Interfaces without a 6-byte address (tunnels report none) give zeros past what they have.
    const size_t length = std::min<size_t>(link.sll_halen, sizeof(item.hwAddress));
    std::memcpy(item.hwAddress, link.sll_addr, length);
    list.push_back(item);
  }
  return true;
}

const KivHostPlatform &LinuxHostPlatform() {
  static const KivLinuxHostPlatform platform;
  return platform;
}

} // namespace kiv
