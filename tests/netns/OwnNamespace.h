// Whether a test program runs in a network namespace of its own, not the machine's: programs that
// broadcast, multicast or answer any peer refuse to start otherwise.
#ifndef KIV_TESTS_NETNS_OWNNAMESPACE_H
#define KIV_TESTS_NETNS_OWNNAMESPACE_H

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

namespace kivtest {

// True only when this process provably runs in a network namespace other than the machine's:
// the one of process 1, or, where that link is shielded (some sandboxes hide process 1 even from
// root), the one of this process's topmost ancestor whose link can be read, which is where the
// test was started. Anything unreadable counts as "not isolated"; `why` then says what.
inline bool InOwnNetworkNamespace(std::string &why) {
  struct stat self = {}, reference = {}, ancestor = {};
  const bool first = stat("/proc/1/ns/net", &reference) == 0;
  // Bounded: a process tree is never this deep, and a loop in it would end here too.
  for (long pid = getppid(), depth = 0; !first && pid > 1 && depth < 256; ++depth) {
    if (stat(("/proc/" + std::to_string(pid) + "/ns/net").c_str(), &ancestor) == 0) {
      reference = ancestor;
    }
    // "pid (name) state ppid ...": the name may hold spaces and parentheses.
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(file, line);
    const std::size_t close = line.rfind(')');
    pid = close == std::string::npos ? 0 : std::atol(line.c_str() + close + 4);
  }
  if (stat("/proc/self/ns/net", &self) != 0 || reference.st_ino == 0) {
    why = "cannot read the network namespaces to compare";
  } else if (self.st_ino == reference.st_ino && self.st_dev == reference.st_dev) {
    why = "this is the machine's own network namespace";
  }
  return why.empty();
}

} // namespace kivtest

#endif // KIV_TESTS_NETNS_OWNNAMESPACE_H
