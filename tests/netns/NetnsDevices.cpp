// NetnsDevices: serves simulated devices on the addresses of a test's own network namespace,
// answering any peer and taking broadcasts, for a bounded time. Refuses to run in the machine's
// own network namespace.
#include <signal.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <thread>

#include "sim/Simulator.h"
#include "tests/netns/NetnsPlan.h"

namespace {

volatile sig_atomic_t gStop = 0;

void OnSignal(int) { gStop = 1; }

const char kUsage[] = "usage: NetnsDevices --devices N --first ADDRESS --netmask M --gateway G "
                      "--port P --seconds S\n";

} // namespace

int main(int argc, char **argv) {
  int devices = 0, port = 0, seconds = 0;
  std::string first, netmask, gateway;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string option = argv[i];
    const char *value = argv[i + 1];
    if (option == "--devices") {
      devices = std::atoi(value);
    } else if (option == "--first") {
      first = value;
    } else if (option == "--netmask") {
      netmask = value;
    } else if (option == "--gateway") {
      gateway = value;
    } else if (option == "--port") {
      port = std::atoi(value);
    } else if (option == "--seconds") {
      seconds = std::atoi(value);
    }
  }
  if (devices < 1 || devices > 100 || port < 1 || port > 65535 || seconds < 1 || seconds > 600 ||
      first.empty() || netmask.empty() || gateway.empty()) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  // Answering any peer and listening on every address is only safe where the test made the
  // network itself.
  std::string why;
  if (!kivnetns::InOwnNetworkNamespace(why)) {
    std::fprintf(stderr, "NetnsDevices: refusing to run: %s\n", why.c_str());
    return 3;
  }

  struct sigaction action = {};
  action.sa_handler = OnSignal;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  try {
    kivsim::SimulatorOptions options;
    options.hcpPort = static_cast<std::uint16_t>(port);
    options.hbn3Port = static_cast<std::uint16_t>(port);
    options.groupAddress = "0.0.0.0"; // takes the broadcast queries
    options.answerAnyPeer = true;
    kivsim::Simulator simulator(options);
    for (const kivsim::DeviceRecord &record :
         kivnetns::PlannedDevices(devices, first, netmask, gateway)) {
      simulator.AddDevice(record);
    }
    simulator.Start();
    std::printf("NetnsDevices: ready, %d devices from %s on port %d\n", devices, first.c_str(),
                port);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (gStop == 0 && std::chrono::steady_clock::now() < end) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    simulator.Stop();
    unsigned long answers = 0;
    for (int i = 0; i < simulator.DeviceCount(); ++i) {
      answers += simulator.Counters(i).answersSent;
    }
    std::printf("NetnsDevices: stopped, %lu answers sent\n", answers);
  } catch (const std::exception &e) {
    std::fprintf(stderr, "NetnsDevices: %s\n", e.what());
    return 1;
  }
  return 0;
}
