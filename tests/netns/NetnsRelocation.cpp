// NetnsRelocation: both sides of the relocation test between two network namespaces. "serve"
// plays a device that DHCP moved to ADDRESS, answering HCP on port 5353 there for a bounded time
// (its web server is announced over DNS-SD by the script). The host modes use the exported
// functions only: "relocate" finds the device from a stale address through the Avahi browse,
// then through the remembered address; "absent" relocates a device nobody has, while the script
// may take the DNS-SD daemons away. It refuses to run in the machine's own network namespace.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "Interfaces/KivNetworkComm.h"
#include "netns/OwnNamespace.h"
#include "sim/Simulator.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kDevice = 77;         // the simulated device's number, which makes its MAC
const char kMac[] = "024b4956004d"; // device 77's MAC in the form drivers give it
const char kNobody[] = "024b4956004e";

int gFailures = 0;

void Check(bool condition, const std::string &what) {
  if (!condition) {
    ++gFailures;
    std::printf("FAILED: %s\n", what.c_str());
  }
}

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Relocates `mac` from `stale` with `timeout`; prints and returns the outcome and the time taken.
bool Relocate(const char *what, const char *stale, const char *mac, UInt16 timeout, char *buffer,
              double &seconds) {
  std::memset(buffer, 0, 16);
  std::strncpy(buffer, stale, 15);
  const Clock::time_point start = Clock::now();
  const bool found = ResolveNewIPAddress(buffer, mac, timeout);
  seconds = SecondsSince(start);
  std::printf("NetnsRelocation: %s: %s after %.2f s, address %s\n", what,
              found ? "found" : "not found", seconds, buffer);
  return found;
}

int RelocateDevice(const char *stale, const char *moved, const char *store) {
  std::string address = moved;
  Check(QueryMACAddressByHCP(address, 2) == kMac, "the device answers a MAC query at " + address);

  char buffer[16];
  double seconds = 0;
  // The store knows nothing yet and the stale address stays silent for its 2-second check, so
  // only the browse can find the device.
  Check(Relocate("browse", stale, kMac, 10, buffer, seconds), "the browse finds the device");
  Check(std::string(buffer) == moved, std::string("the new address is ") + moved);
  Check(seconds >= 1.9 && seconds < 9.0, "found well within the time-out of 10 s");
  std::ifstream file(store);
  std::stringstream text;
  text << file.rdbuf();
  Check(text.str().find(std::string(kMac) + " " + moved + "\n") != std::string::npos,
        "the store remembers the new address: " + text.str());

  // Now the remembered address answers first.
  Check(Relocate("remembered", stale, kMac, 10, buffer, seconds), "found again");
  Check(std::string(buffer) == moved && seconds < 1.5, "at once, from the store");

  // A MAC nobody has: the stale check, the whole browse (which checks the device's web server and
  // finds another MAC), then false.
  Check(!Relocate("unknown MAC", stale, kNobody, 3, buffer, seconds), "no device has that MAC");
  Check(std::string(buffer) == stale, "the buffer is unchanged");
  Check(seconds >= 4.9 && seconds < 15.0, "the checks and the time-out, then the end");
  std::printf("NetnsRelocation: %d check(s) failed\n", gFailures);
  return gFailures == 0 ? 0 : 1;
}

int RelocateAbsent(const char *stale, int timeout) {
  char buffer[16];
  double seconds = 0;
  Check(!Relocate("daemons going away", stale, kNobody, static_cast<UInt16>(timeout), buffer,
                  seconds),
        "nothing found");
  Check(seconds >= timeout + 1.9 && seconds < timeout + 12.0,
        "the stale check and the time-out, whatever the daemons do");
  std::printf("NetnsRelocation: %d check(s) failed\n", gFailures);
  return gFailures == 0 ? 0 : 1;
}

int Serve(const char *address, int seconds) {
  // Answering any peer is safe only in a network the test made itself.
  kivsim::Simulator simulator({5353, 0, "", true});
  simulator.AddDevice(kivsim::MakeDeviceRecord(kDevice, address));
  simulator.Start();
  std::printf("NetnsRelocation: ready, device %s at %s:5353\n", kMac, address);
  std::fflush(stdout);
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  return 0;
}

} // namespace

int main(int argc, char **argv) {
  std::string why;
  if (!kivtest::InOwnNetworkNamespace(why)) {
    std::fprintf(stderr, "NetnsRelocation: refusing to run: %s\n", why.c_str());
    return 3;
  }
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "serve" && argc == 4 && std::atoi(argv[3]) > 0 && std::atoi(argv[3]) <= 600) {
    return Serve(argv[2], std::atoi(argv[3]));
  }
  if (mode == "relocate" && argc == 5) {
    return RelocateDevice(argv[2], argv[3], argv[4]);
  }
  if (mode == "absent" && argc == 4 && std::atoi(argv[3]) > 0 && std::atoi(argv[3]) <= 60) {
    return RelocateAbsent(argv[2], std::atoi(argv[3]));
  }
  std::fputs("usage: NetnsRelocation serve ADDRESS SECONDS\n"
             "       NetnsRelocation relocate STALE_ADDRESS NEW_ADDRESS STORE_FILE\n"
             "       NetnsRelocation absent STALE_ADDRESS TIMEOUT\n",
             stderr);
  return 2;
}
