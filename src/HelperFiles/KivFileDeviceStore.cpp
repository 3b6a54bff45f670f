// The device store as a text file, replaced atomically under an advisory lock.
#include "HelperFiles/KivFileDeviceStore.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <thread>
#include <utility>

#include "CommonFiles/KivUniqueFd.h"

namespace kiv {

const char KivFileDeviceStore::kHeader[] = "org.kivnetworkcomm.KivNetworkComm device store 1";
const char KivFileDeviceStore::kDefaultPath[] = "/var/lib/KivNetworkComm/devices";

namespace {

typedef std::map<std::string, std::string> Entries;

// The store holds a handful of devices; anything this large is not our file.
constexpr off_t kMaxFileSize = 1 << 20;
// A writer waits this long for another process to finish its write, then gives up: a process
// stuck while holding the lock must not stall every relocation on the host.
constexpr int kLockAttempts = 40;
constexpr std::chrono::milliseconds kLockRetry(50);

bool NeedsEscape(unsigned char c) { return c <= ' ' || c >= 0x7F || c == '%'; }

std::string Encode(const std::string &text) {
  static const char kDigits[] = "0123456789ABCDEF";
  std::string out;
  for (const char ch : text) {
    const unsigned char c = static_cast<unsigned char>(ch);
    if (NeedsEscape(c)) {
      out += '%';
      out += kDigits[c >> 4];
      out += kDigits[c & 0x0F];
    } else {
      out += ch;
    }
  }
  return out;
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  if (c >= 'A' && c <= 'F') {
    return c - 'A' + 10;
  }
  return -1;
}

// Decodes what Encode wrote; false for anything Encode would not have written.
bool Decode(const std::string &text, std::string &out) {
  out.clear();
  for (std::size_t i = 0; i < text.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c != '%') {
      if (NeedsEscape(c)) {
        return false;
      }
      out += text[i];
      continue;
    }
    if (i + 2 >= text.size()) {
      return false;
    }
    const int high = HexDigit(text[i + 1]), low = HexDigit(text[i + 2]);
    if (high < 0 || low < 0) {
      return false;
    }
    out += static_cast<char>(high << 4 | low);
    i += 2;
  }
  return true;
}

// The entries of the file's text; false when the text is not a store.
bool Parse(const std::string &text, Entries &entries) {
  entries.clear();
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
      if (line != KivFileDeviceStore::kHeader) {
        return false;
      }
      first = false;
      continue;
    }
    const std::size_t space = line.find(' ');
    std::string key, value;
    if (space == std::string::npos || !Decode(line.substr(0, space), key) ||
        !Decode(line.substr(space + 1), value) || key.empty()) {
      return false;
    }
    entries[key] = value;
  }
  return !first;
}

// Reads the store; false (and no entries) when it is missing, unreadable or not a store.
bool ReadEntries(const std::string &path, Entries &entries) {
  entries.clear();
  // O_NONBLOCK: a FIFO put where the store belongs must not hold the reader.
  const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  struct stat info;
  if (fd.Get() < 0 || fstat(fd.Get(), &info) != 0 || !S_ISREG(info.st_mode) ||
      info.st_size > kMaxFileSize) {
    return false;
  }
  std::string text;
  char chunk[4096];
  for (;;) {
    const ssize_t got = read(fd.Get(), chunk, sizeof chunk);
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got < 0) {
      return false;
    }
    if (got == 0) {
      break;
    }
    text.append(chunk, static_cast<std::size_t>(got));
    if (text.size() > static_cast<std::size_t>(kMaxFileSize)) {
      return false; // grew while read
    }
  }
  return Parse(text, entries);
}

bool WriteAll(int fd, const std::string &text) {
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t put = write(fd, text.data() + done, text.size() - done);
    if (put < 0 && errno == EINTR) {
      continue;
    }
    if (put <= 0) {
      return false;
    }
    done += static_cast<std::size_t>(put);
  }
  return true;
}

// The folder of `path` ("." for a bare file name) and the file's own name.
std::pair<std::string, std::string> SplitPath(const std::string &path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    return {".", path};
  }
  return {slash == 0 ? "/" : path.substr(0, slash), path.substr(slash + 1)};
}

// Takes the writers' lock, waiting a bounded time for another writer.
bool Lock(const std::string &lockPath, UniqueFd &lock) {
  int fd = open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOCTTY, 0644);
  if (fd < 0 && errno == EACCES) {
    // A lock file another user made: flock needs no write access.
    fd = open(lockPath.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
  }
  lock.Reset(fd);
  if (fd < 0) {
    return false;
  }
  for (int attempt = 0; attempt < kLockAttempts; ++attempt) {
    if (flock(fd, LOCK_EX | LOCK_NB) == 0) {
      return true;
    }
    if (errno != EWOULDBLOCK && errno != EINTR) {
      return false;
    }
    std::this_thread::sleep_for(kLockRetry);
  }
  return false;
}

// Writes `text` to a new file in `folder` and renames it over `path`.
bool ReplaceFile(const std::string &folder, const std::string &name, const std::string &path,
                 const std::string &text) {
  std::string temporary = folder + "/." + name + ".XXXXXX";
  const UniqueFd fd(mkostemp(&temporary[0], O_CLOEXEC));
  if (fd.Get() < 0) {
    return false;
  }
  // Drivers of every user read the store.
  const bool written = fchmod(fd.Get(), 0644) == 0 && WriteAll(fd.Get(), text) &&
                       fsync(fd.Get()) == 0 && rename(temporary.c_str(), path.c_str()) == 0;
  if (!written) {
    unlink(temporary.c_str());
    return false;
  }
  // The rename itself reaches the disk with the folder.
  const UniqueFd directory(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (directory.Get() >= 0) {
    fsync(directory.Get());
  }
  return true;
}

} // namespace

KivFileDeviceStore::KivFileDeviceStore(std::string path) : mPath(std::move(path)) {}

std::string KivFileDeviceStore::DefaultPath() {
  const char *path = std::getenv("KIVNET_DEVICE_STORE");
  return path != nullptr && path[0] != '\0' ? std::string(path) : std::string(kDefaultPath);
}

bool KivFileDeviceStore::IsStorableAddress(const std::string &text) {
  if (text.empty() || text.size() > 15) {
    return false;
  }
  int parts = 0;
  std::size_t i = 0;
  while (i <= text.size()) {
    const std::size_t start = i;
    int value = 0;
    while (i < text.size() && text[i] >= '0' && text[i] <= '9' && i - start < 3) {
      value = value * 10 + (text[i] - '0');
      ++i;
    }
    const std::size_t digits = i - start;
    if (digits == 0 || value > 255 || (digits > 1 && text[start] == '0')) {
      return false;
    }
    ++parts;
    if (i == text.size()) {
      break;
    }
    if (text[i] != '.' || parts == 4) {
      return false;
    }
    ++i;
  }
  return parts == 4;
}

std::string KivFileDeviceStore::Get(const std::string &key) const {
  try {
    Entries entries;
    if (key.empty() || !ReadEntries(mPath, entries)) {
      return std::string();
    }
    const auto found = entries.find(key);
    if (found == entries.end() || !IsStorableAddress(found->second)) {
      return std::string();
    }
    return found->second;
  } catch (...) {
    // No memory: the store reads as empty, as when it cannot be read.
    return std::string();
  }
}

bool KivFileDeviceStore::Set(const std::string &key, const std::string &value) {
  try {
    if (key.empty() || !IsStorableAddress(value) || mPath.empty()) {
      return false;
    }
    const std::pair<std::string, std::string> split = SplitPath(mPath);
    if (split.second.empty()) {
      return false;
    }
    if (mkdir(split.first.c_str(), 0755) != 0 && errno != EEXIST) {
      return false;
    }
    UniqueFd lock;
    if (!Lock(mPath + ".lock", lock)) {
      return false;
    }
    Entries entries;
    ReadEntries(mPath, entries); // a missing or damaged store starts afresh
    entries[key] = value;
    std::string text = std::string(kHeader) + "\n";
    for (const auto &entry : entries) {
      text += Encode(entry.first) + " " + Encode(entry.second) + "\n";
    }
    return ReplaceFile(split.first, split.second, mPath, text);
  } catch (...) {
    return false;
  }
}

} // namespace kiv
