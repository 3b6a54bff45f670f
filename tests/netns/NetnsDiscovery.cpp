// NetnsDiscovery: both sides of the network-namespace test. Given SERVE_SECONDS it serves
// simulated devices on the addresses of the test's device namespace, answering any peer and
// taking broadcasts, for that bounded time. Without it, it is the host, through the exported
// functions only: it discovers the devices with a broadcast query and checks every record. It
// refuses to run in the machine's own network namespace, so no broadcast ever leaves the machine.
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <thread>

#include "Interfaces/KivNetworkComm.h"
#include "netns/OwnNamespace.h"
#include "sim/Simulator.h"
#include "support/RecordText.h"
#include "support/ScopedContainer.h"

namespace {

constexpr UInt32 kHCP1 = 0x48435031;
int gFailures = 0;

void Check(bool condition, const std::string &what) {
  if (!condition) {
    ++gFailures;
    std::printf("FAILED: %s\n", what.c_str());
  }
}

// Broadcasts the discovery query to `port` and checks that every device answers once, from its
// own address, with its record, within ten seconds.
int Discover(int port, const std::vector<kivsim::DeviceRecord> &devices) {
  std::map<std::string, std::string> expected;
  for (const kivsim::DeviceRecord &device : devices) {
    expected[device.ipAddress] = "0 " + kivtest::RecordText(device);
  }
  std::string broadcast = "BROADCAST", any;
  std::unique_ptr<KivUDPSocket> socket(static_cast<KivUDPSocket *>(OpenUDPSocket(0)));
  std::unique_ptr<KivSocketAddress> to(
      static_cast<KivSocketAddress *>(CreateSocketAddress(broadcast, port))),
      from(static_cast<KivSocketAddress *>(CreateSocketAddress(any, 0)));
  kivtest::ScopedContainer container;
  HANDLE message = container.handle();
  int bytes = 0;
  Check(CreateDiscovery(kHCP1, message) == 0 && BindUDPSocket(socket.get()) == 0 &&
            SetSocketOptions(socket.get(), kSocketKindUDP, BROADCAST_PERMITTED, 0) == 0 &&
            SetSocketOptions(socket.get(), kSocketKindUDP, TIME_OUT, 1) == 0 &&
            SendTo(socket.get(), to.get(), message, 0, bytes) == 0,
        "the discovery query broadcast from a bound socket");
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  for (int i = 0; i < 1000 && !expected.empty() && std::chrono::steady_clock::now() < end; ++i) {
    UInt32 code = RecvFrom(socket.get(), from.get(), message, 0, bytes);
    if (code == 0x0A0000B6) {
      continue; // a second without an answer
    }
    const std::string sender = from->GetIPAddress();
    KivNetRecord record;
    code = code != 0 ? code : ParseHCPResponse(kHCP1, message, 0x80000006, record);
    const std::string got = std::to_string(code) + " " + kivtest::RecordText(record);
    Check(expected[sender] == got,
          "from " + sender + ": '" + got + "', expected '" + expected[sender] + "'");
    expected.erase(sender);
  }
  Check(expected.empty(), std::to_string(expected.size()) + " device(s) did not answer");
  std::printf("NetnsDiscovery: %d check(s) failed\n", gFailures);
  return gFailures == 0 ? 0 : 1;
}

} // namespace

int main(int argc, char **argv) {
  std::string why;
  if (!kivtest::InOwnNetworkNamespace(why)) {
    std::fprintf(stderr, "NetnsDiscovery: refusing to run: %s\n", why.c_str());
    return 3;
  }
  const int port = argc > 2 ? std::atoi(argv[2]) : 0, serve = argc > 3 ? std::atoi(argv[3]) : 0;
  if (argc < 3 || argc > 4 || port < 1 || port > 65535 || serve < 0 || serve > 600) {
    std::fputs("usage: NetnsDiscovery FIRST_ADDRESS PORT [SERVE_SECONDS]\n", stderr);
    return 2;
  }
  // Four devices from FIRST_ADDRESS on; every other one has a second port, so records differ in
  // more than their numbers.
  std::vector<kivsim::DeviceRecord> devices;
  for (int n = 1; n <= 4; ++n) {
    devices.push_back(kivsim::MakeDeviceRecord(n, kivsim::AddressAfter(argv[1], n - 1)));
    if (n % 2 == 0) {
      devices.back().ports.push_back({2, true, "KivSim Scanner " + std::to_string(n), "FFFF:2"});
    }
  }
  if (serve == 0) {
    return Discover(port, devices);
  }
  // The group listener on every address takes the broadcast queries; answering any peer is
  // safe only in a network the test made itself. A signal ends the serving sooner.
  kivsim::Simulator simulator({std::uint16_t(port), std::uint16_t(port), "0.0.0.0", true});
  for (const kivsim::DeviceRecord &device : devices) {
    simulator.AddDevice(device);
  }
  simulator.Start();
  std::printf("NetnsDiscovery: ready, %zu devices on port %d\n", devices.size(), port);
  std::fflush(stdout);
  std::this_thread::sleep_for(std::chrono::seconds(serve));
  return 0;
}
