// The host platform on Linux. The only source that talks to the system's interface tables.
#include "HelperFiles/KivLinuxHostPlatform.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/route.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <memory>
#include <string>

#include "CommonFiles/KivUniqueFd.h"

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

// How often the address list is read when the kernel reports it changed meanwhile.
constexpr int kAddressListingAttempts = 5;

// Reads a file in pieces into a fixed area and hands each line to `line` (without its line feed;
// the last line also when no line feed ends it). A line longer than the area is handed over cut to
// the area's size, and the rest of it is skipped. A read that fails ends the file there. Returns
// false when the file cannot be opened.
template <class Line> bool ForEachLine(const char *path, Line &&line) {
  const UniqueFd file(open(path, O_RDONLY | O_CLOEXEC));
  const int fd = file.Get();
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

// What a listing of the host's IPv4 addresses came to.
enum class Listing { kComplete, kStopped, kInterrupted, kFailed };

// One IPv4 address as getifaddrs describes it.
struct IPv4Address {
  const char *name; // the address's label (the interface's name, or an alias such as eth0:1)
  UInt32 address;   // network byte order
  UInt32 netmask;   // network byte order
};

// Lists the host's IPv4 addresses with one request to the kernel's routing socket (only the IPv4
// addresses: no interface list, no IPv6), in the order the kernel gives them, which is the order
// getifaddrs gives them in, and with the values getifaddrs gives: the name is the address's label,
// or the interface's name when it has none; the address is the interface's own end (IFA_LOCAL,
// which differs from IFA_ADDRESS on a point-to-point link), else IFA_ADDRESS; the net mask comes
// from the prefix length. `visit` returns false to stop the listing. kInterrupted: the kernel's
// list changed while it was being read, and the listing is to be started again.
template <class Visit> Listing ListIPv4Addresses(Visit &&visit) {
  const UniqueFd socketFd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  const int fd = socketFd.Get();
  if (fd < 0) {
    return Listing::kFailed;
  }
  constexpr UInt32 kSequence = 1;
  struct {
    nlmsghdr header;
    ifaddrmsg message;
  } request;
  std::memset(&request, 0, sizeof request);
  request.header.nlmsg_len = sizeof request;
  request.header.nlmsg_type = RTM_GETADDR;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.header.nlmsg_seq = kSequence;
  request.message.ifa_family = AF_INET;
  sockaddr_nl kernel;
  std::memset(&kernel, 0, sizeof kernel);
  kernel.nl_family = AF_NETLINK;
  ssize_t sent;
  do {
    sent = sendto(fd, &request, sizeof request, 0, reinterpret_cast<const sockaddr *>(&kernel),
                  sizeof kernel);
  } while (sent < 0 && errno == EINTR);
  if (sent != static_cast<ssize_t>(sizeof request)) {
    return Listing::kFailed;
  }
  // The kernel fills each reply to at most the area a receive offers once it has seen one, and
  // its first reply to less than 8 KiB: an area of 8 KiB is never cut short.
  alignas(nlmsghdr) char area[8192];
  for (;;) {
    sockaddr_nl from;
    iovec vector = {area, sizeof area};
    msghdr message;
    std::memset(&message, 0, sizeof message);
    message.msg_name = &from;
    message.msg_namelen = sizeof from;
    message.msg_iov = &vector;
    message.msg_iovlen = 1;
    const ssize_t count = recvmsg(fd, &message, 0);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count <= 0 || (message.msg_flags & MSG_TRUNC) != 0) {
      return Listing::kFailed;
    }
    if (from.nl_pid != 0) {
      continue; // not the kernel
    }
    size_t left = static_cast<size_t>(count);
    for (const nlmsghdr *header = reinterpret_cast<const nlmsghdr *>(area); NLMSG_OK(header, left);
         header = NLMSG_NEXT(header, left)) {
      if (header->nlmsg_seq != kSequence) {
        continue;
      }
      if ((header->nlmsg_flags & NLM_F_DUMP_INTR) != 0) {
        return Listing::kInterrupted;
      }
      if (header->nlmsg_type == NLMSG_DONE) {
        return Listing::kComplete;
      }
      if (header->nlmsg_type == NLMSG_ERROR) {
        return Listing::kFailed;
      }
      if (header->nlmsg_type != RTM_NEWADDR ||
          header->nlmsg_len < NLMSG_LENGTH(sizeof(ifaddrmsg))) {
        continue;
      }
      const ifaddrmsg *entry = static_cast<const ifaddrmsg *>(NLMSG_DATA(header));
      if (entry->ifa_family != AF_INET) {
        continue;
      }
      bool hasAddress = false, hasLocal = false;
      UInt32 address = 0, local = 0;
      char label[IF_NAMESIZE + 1] = {0};
      bool hasLabel = false;
      size_t attributesLeft = IFA_PAYLOAD(header);
      for (const rtattr *attribute = IFA_RTA(entry); RTA_OK(attribute, attributesLeft);
           attribute = RTA_NEXT(attribute, attributesLeft)) {
        const size_t payload = RTA_PAYLOAD(attribute);
        // An address of another size leaves it 0, as getifaddrs leaves it.
        UInt32 value = 0;
        if (payload == sizeof value) {
          std::memcpy(&value, RTA_DATA(attribute), sizeof value);
        }
        switch (attribute->rta_type) {
        case IFA_ADDRESS:
          hasAddress = true;
          address = value;
          break;
        case IFA_LOCAL:
          hasLocal = true;
          local = value;
          break;
        case IFA_LABEL:
          hasLabel = true;
          std::memcpy(label, RTA_DATA(attribute), std::min(payload, sizeof label - 1));
          label[sizeof label - 1] = '\0';
          break;
        default:
          break;
        }
      }
      if (!hasAddress && !hasLocal) {
        continue; // no address to describe
      }
      if (!hasLabel && if_indextoname(entry->ifa_index, label) == nullptr) {
        continue; // an interface that went away meanwhile
      }
      const unsigned prefix = entry->ifa_prefixlen > 32 ? 32u : entry->ifa_prefixlen;
      const UInt32 netmask = prefix == 0 ? 0 : htonl(0xFFFFFFFFu << (32 - prefix));
      if (!visit(IPv4Address{label, hasLocal ? local : address, netmask})) {
        return Listing::kStopped;
      }
    }
  }
}

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
  // A list that changed while it was read is read again, a few times at most.
  for (int attempt = 0; attempt < kAddressListingAttempts; ++attempt) {
    bool found = false;
    const Listing listing = ListIPv4Addresses([&](const IPv4Address &entry) {
      if (interfaceName != entry.name) {
        return true;
      }
      const bool holdsGateway =
          gateway != 0 && (entry.address & entry.netmask) == (gateway & entry.netmask);
      if (found && !holdsGateway) {
        return true;
      }
      found = true;
      info.fAddress = entry.address;
      info.fNetmask = entry.netmask;
      // Byte-wise operations, so the network byte order of both operands carries over.
      info.fBroadcastAddr = entry.address | ~entry.netmask;
      info.fDefaultGatewayAddr = gateway;
      return !holdsGateway;
    });
    if (listing != Listing::kInterrupted) {
      return listing != Listing::kFailed && found;
    }
  }
  return false;
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
