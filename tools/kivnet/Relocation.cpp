// kivnet's MAC query and relocation. The relocation functions report no progress and no reason,
// so what kivnet says about the stages comes from the device store (read, never written) and the
// time passed.
#include "tools/kivnet/Relocation.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Interfaces/KivNetworkComm.h"

namespace kivnet {

namespace {

typedef std::chrono::steady_clock Clock;

const char kStoreHeader[] = "org.kivnetworkcomm.KivNetworkComm device store 1";
const char kDefaultStore[] = "/var/lib/KivNetworkComm/devices";
// A store larger than this is not the library's (it holds a handful of devices).
constexpr off_t kMaxStoreSize = 1 << 20;
// The longest dotted IPv4 address, "255.255.255.255".
constexpr std::size_t kMaxAddressLength = 15;

double Since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Bytes the store writes as %XX: spaces, control and non-ASCII bytes, and '%' itself.
bool Escaped(unsigned char c) { return c <= ' ' || c >= 0x7F || c == '%'; }

int UpperHexDigit(char c) {
  return c >= '0' && c <= '9' ? c - '0' : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

// A store field as written (%XX for the escaped bytes); false for anything the store would not
// have written.
bool Decode(const std::string &text, std::string &out) {
  out.clear();
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      if (Escaped(static_cast<unsigned char>(text[i]))) {
        return false;
      }
      out += text[i];
      continue;
    }
    if (i + 2 >= text.size() || UpperHexDigit(text[i + 1]) < 0 || UpperHexDigit(text[i + 2]) < 0) {
      return false;
    }
    out += static_cast<char>(UpperHexDigit(text[i + 1]) << 4 | UpperHexDigit(text[i + 2]));
    i += 2;
  }
  return true;
}

// The file's text, or false when it is missing, unreadable, not a regular file or too large.
bool ReadStore(const std::string &path, std::string &text) {
  // O_NONBLOCK: a FIFO where the store belongs must not hold kivnet.
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  if (fd < 0) {
    return false;
  }
  struct stat info;
  bool ok = fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_size <= kMaxStoreSize;
  char chunk[4096];
  while (ok) {
    const ssize_t got = read(fd, chunk, sizeof chunk);
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got <= 0) {
      ok = got == 0;
      break;
    }
    text.append(chunk, static_cast<std::size_t>(got));
    ok = text.size() <= static_cast<std::size_t>(kMaxStoreSize);
  }
  close(fd);
  return ok;
}

// Four numbers of one to three digits up to 255, joined by dots, at most 15 characters.
bool IsStoredAddress(const std::string &text) {
  if (text.empty() || text.size() > kMaxAddressLength) {
    return false;
  }
  int parts = 0;
  std::size_t start = 0;
  for (;;) {
    const std::size_t dot = text.find('.', start);
    const std::string digits = text.substr(start, dot == std::string::npos ? dot : dot - start);
    if (digits.empty() || digits.size() > 3 ||
        digits.find_first_not_of("0123456789") != std::string::npos ||
        std::atoi(digits.c_str()) > 255) {
      return false;
    }
    ++parts;
    if (dot == std::string::npos) {
      return parts == 4;
    }
    start = dot + 1;
  }
}

std::string Seconds1(double seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", seconds);
  return text;
}

} // namespace

std::string RelocationForm(const std::string &mac) {
  std::string lower;
  for (char c : mac) {
    lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  return lower;
}

std::string DeviceStorePath() {
  const char *named = std::getenv("KIVNET_DEVICE_STORE");
  return named != nullptr && named[0] != '\0' ? named : kDefaultStore;
}

std::string RememberedAddress(const std::string &path, const std::string &mac) {
  std::string text;
  if (!ReadStore(path, text)) {
    return "";
  }
  std::string found;
  std::size_t start = 0;
  bool first = true;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) {
      end = text.size();
    }
    const std::string line = text.substr(start, end - start);
    start = end + 1;
    if (first) {
      if (line != kStoreHeader) {
        return "";
      }
      first = false;
      continue;
    }
    const std::size_t space = line.find(' ');
    std::string key, value;
    if (space == std::string::npos || !Decode(line.substr(0, space), key) ||
        !Decode(line.substr(space + 1), value) || key.empty()) {
      return ""; // a line that is no entry: the whole store reads as empty
    }
    if (key == mac) {
      found = value; // a later entry for the same key wins
    }
  }
  return IsStoredAddress(found) ? found : "";
}

void QueryMac(const CommandLine &line, MacAnswer &answer) {
  answer = MacAnswer();
  answer.address = line.target;
  answer.waitSeconds = line.waitTenths / 10;
  std::string address = line.target;
  const Clock::time_point start = Clock::now();
  answer.mac = QueryMACAddressByHCP(address, static_cast<UInt16>(answer.waitSeconds));
  answer.seconds = Since(start);
}

RelocationPlan PlanRelocation(const CommandLine &line) {
  RelocationPlan plan;
  plan.mac = RelocationForm(line.mac);
  plan.store = DeviceStorePath();
  plan.remembered = RememberedAddress(plan.store, plan.mac);
  plan.given = line.from;
  plan.waitSeconds = line.waitTenths / 10;
  return plan;
}

void Relocate(const RelocationPlan &plan, RelocationResult &result) {
  result = RelocationResult();
  // The driver's buffer: 16 bytes, the address and its terminator; written only on success.
  char buffer[16] = {};
  std::strncpy(buffer, plan.given.c_str(), sizeof buffer - 1);
  const Clock::time_point start = Clock::now();
  result.found =
      ResolveNewIPAddress(buffer, plan.mac.c_str(), static_cast<UInt16>(plan.waitSeconds));
  result.seconds = Since(start);
  if (result.found) {
    result.address = std::string(buffer, strnlen(buffer, sizeof buffer));
    result.remembered = RememberedAddress(plan.store, plan.mac) == result.address;
  }
}

std::string RelocationStage(const RelocationPlan &plan, double elapsed) {
  const bool remembered = !plan.remembered.empty();
  const std::string total = remembered ? "/3 " : "/2 ";
  double stageStart = 0;
  int stage = 1;
  if (remembered) {
    if (elapsed < kCheckSeconds) {
      return "1" + total + "asking the remembered address " + plan.remembered + " (" +
             Seconds1(elapsed) + " s)";
    }
    stageStart = kCheckSeconds;
    stage = 2;
  }
  if (elapsed < stageStart + kCheckSeconds) {
    return std::to_string(stage) + total + "asking " + plan.given + ", the address given (" +
           Seconds1(elapsed - stageStart) + " s)";
  }
  const double browseStart = stageStart + kCheckSeconds;
  const std::string browse = std::to_string(stage + 1) + total;
  const double left = browseStart + plan.waitSeconds - elapsed;
  if (left > 0) {
    const long whole = static_cast<long>(left + 0.999);
    return browse + "browsing DNS-SD for web servers (" + std::to_string(whole) + " s left)";
  }
  return browse + "ending the browse";
}

} // namespace kivnet
