// What the network-namespace discovery test runs: the devices both of its programs agree on,
// and the check that a program is not in the machine's own network namespace.
#ifndef KIV_TESTS_NETNS_NETNSPLAN_H
#define KIV_TESTS_NETNS_NETNSPLAN_H

#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "sim/DeviceRecord.h"

namespace kivnetns {

// Device n of `count` (1-based) at `first` + n - 1 with the given mask and gateway; every other
// device has a second port, so records differ in more than their numbers.
inline std::vector<kivsim::DeviceRecord> PlannedDevices(int count, const std::string &first,
                                                        const std::string &netmask,
                                                        const std::string &gateway) {
  std::vector<kivsim::DeviceRecord> devices;
  for (int n = 1; n <= count; ++n) {
    kivsim::DeviceRecord record = kivsim::MakeDeviceRecord(n, kivsim::AddressAfter(first, n - 1));
    record.netmask = netmask;
    record.gateway = gateway;
    if (n % 2 == 0) {
      record.ports.push_back(
          kivsim::PortRecord{2, true, "KivSim Scanner " + std::to_string(n), "FFFF:2000"});
    }
    devices.push_back(record);
  }
  return devices;
}

// The network namespace of process `pid` as device and inode; false when its link cannot be read
// (another user's process, or one shielded from this one).
inline bool NamespaceOf(const std::string &pid, struct stat &where) {
  return stat(("/proc/" + pid + "/ns/net").c_str(), &where) == 0;
}

// The parent of process `pid`, or 0 when it cannot be read.
inline long ParentOf(long pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  std::getline(file, line);
  // "pid (name) state ppid ...": the name may hold spaces and parentheses.
  const std::size_t close = line.rfind(')');
  if (close == std::string::npos) {
    return 0;
  }
  std::istringstream rest(line.substr(close + 1));
  std::string state;
  long parent = 0;
  rest >> state >> parent;
  return parent;
}

// True only when this process provably runs in a network namespace other than the machine's:
// the one of process 1, or, where that link is shielded (some sandboxes hide process 1 even from
// root), the one of this process's topmost ancestor whose link can be read, which is where the
// test was started. Anything unreadable counts as "not isolated".
inline bool InOwnNetworkNamespace(std::string &why) {
  struct stat self = {}, reference = {};
  if (!NamespaceOf("self", self)) {
    why = "cannot read this process's network namespace";
    return false;
  }
  bool found = NamespaceOf("1", reference);
  if (!found) {
    // Bounded: a process tree is never this deep, and a loop in it would end here too.
    long pid = getppid();
    for (int depth = 0; depth < 256 && pid > 1; ++depth, pid = ParentOf(pid)) {
      struct stat ancestor = {};
      if (NamespaceOf(std::to_string(pid), ancestor)) {
        reference = ancestor;
        found = true;
      }
    }
  }
  if (!found) {
    why = "cannot read the machine's network namespace to compare";
    return false;
  }
  if (self.st_ino == reference.st_ino && self.st_dev == reference.st_dev) {
    why = "this is the machine's own network namespace";
    return false;
  }
  return true;
}

} // namespace kivnetns

#endif // KIV_TESTS_NETNS_NETNSPLAN_H
