// kivsim: serves simulated network devices on loopback addresses for a given time.
#include <signal.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <thread>

#include "KivNetworkCommVersion.h"
#include "sim/Simulator.h"

namespace {

volatile sig_atomic_t gInterrupted = 0;

void OnSignal(int) { gInterrupted = 1; }

const char kUsage[] =
    "usage: kivsim [options]\n"
    "Serves simulated devices that answer HCP discovery and configuration and HBN3 requests\n"
    "over UDP, each on its own loopback address, and stops by itself after --seconds.\n"
    "\n"
    "  --devices N           number of devices, 1 to 1000 (default 1)\n"
    "  --base-address A      address of the first device; the others follow (default 127.0.0.10)\n"
    "  --hcp-port P          HCP port (default 5353; 0: a free port)\n"
    "  --hbn3-port P         HBN3 port (default 0: a free port; may equal the HCP port)\n"
    "  --listen A            group listener: a query sent to A is answered by every device\n"
    "  --ports N             ports per device, 1 to 4 (default 1)\n"
    "  --password TEXT       password every device asks for in configuration messages\n"
    "  --host-list-status N  status in the host-list answers (default 0)\n"
    "  --seconds S           stop after S seconds, 1 to 86400 (default 60)\n"
    "  --fault-device N      apply the faults below to device N only (1: the first; default all)\n"
    "  --silent              faults: answer nothing\n"
    "  --delay-ms MS         faults: answer MS milliseconds late (up to 60000)\n"
    "  --truncate N          faults: cut every answer to N bytes\n"
    "  --garbage             faults: answer with bytes that form no message\n"
    "  --wrong-mac           faults: discovery answers name another MAC address\n"
    "  --copies N            faults: send every answer N times (up to 100)\n"
    "  --help                this text\n"
    "  --version             print the version and exit\n"
    "Devices answer only peers in 127.0.0.0/8 and may only have addresses there.\n";

// A whole number from `text` within [low, high]; exits with a message otherwise.
long Number(const char *option, const char *text, long low, long high) {
  char *end = nullptr;
  const long value = std::strtol(text, &end, 10);
  if (end == text || *end != '\0' || value < low || value > high) {
    std::fprintf(stderr, "kivsim: %s wants a number from %ld to %ld, not '%s'\n", option, low, high,
                 text);
    std::exit(2);
  }
  return value;
}

} // namespace

int main(int argc, char **argv) {
  kivsim::SimulatorOptions options;
  long devices = 1;
  long ports = 1;
  long seconds = 60;
  long faultDevice = 0;
  long hostListStatus = 0;
  std::string base = "127.0.0.10";
  std::string password;
  bool passwordGiven = false;
  kivsim::Faults faults;

  for (int i = 1; i < argc; ++i) {
    const std::string option = argv[i];
    const bool hasValue = i + 1 < argc;
    auto value = [&]() -> const char * {
      if (!hasValue) {
        std::fprintf(stderr, "kivsim: %s wants a value\n", option.c_str());
        std::exit(2);
      }
      return argv[++i];
    };
    if (option == "--help" || option == "-h") {
      std::fputs(kUsage, stdout);
      return 0;
    } else if (option == "--version") {
      std::printf("kivsim (KivNetworkComm) %s\n", KIVNETWORKCOMM_VERSION);
      return 0;
    } else if (option == "--devices") {
      devices = Number("--devices", value(), 1, 1000);
    } else if (option == "--base-address") {
      base = value();
    } else if (option == "--hcp-port") {
      options.hcpPort = static_cast<std::uint16_t>(Number("--hcp-port", value(), 0, 65535));
    } else if (option == "--hbn3-port") {
      options.hbn3Port = static_cast<std::uint16_t>(Number("--hbn3-port", value(), 0, 65535));
    } else if (option == "--listen") {
      options.groupAddress = value();
    } else if (option == "--ports") {
      ports = Number("--ports", value(), 1, 4);
    } else if (option == "--password") {
      password = value();
      passwordGiven = true;
    } else if (option == "--host-list-status") {
      hostListStatus = Number("--host-list-status", value(), 0, 0x7FFFFFFF);
    } else if (option == "--seconds") {
      seconds = Number("--seconds", value(), 1, 86400);
    } else if (option == "--fault-device") {
      faultDevice = Number("--fault-device", value(), 1, 1000);
    } else if (option == "--silent") {
      faults.silent = true;
    } else if (option == "--delay-ms") {
      faults.delayMs = static_cast<int>(Number("--delay-ms", value(), 0, 60000));
    } else if (option == "--truncate") {
      faults.truncateTo = static_cast<int>(Number("--truncate", value(), 0, 65535));
    } else if (option == "--garbage") {
      faults.garbage = true;
    } else if (option == "--wrong-mac") {
      faults.wrongMac = true;
    } else if (option == "--copies") {
      faults.copies = static_cast<int>(Number("--copies", value(), 1, 100));
    } else {
      std::fprintf(stderr, "kivsim: unknown option %s (see --help)\n", option.c_str());
      return 2;
    }
  }
  if (faultDevice > devices) {
    std::fprintf(stderr, "kivsim: --fault-device %ld but only %ld devices\n", faultDevice, devices);
    return 2;
  }

  // Each device holds a socket per port: a thousand devices need more descriptors than the
  // usual soft limit.
  rlimit files{};
  if (getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max) {
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  struct sigaction action = {};
  action.sa_handler = OnSignal;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);

  try {
    kivsim::Simulator simulator(options);
    for (long n = 1; n <= devices; ++n) {
      kivsim::DeviceRecord record =
          kivsim::MakeDeviceRecord(static_cast<int>(n), kivsim::AddressAfter(base, n - 1));
      for (long p = 2; p <= ports; ++p) {
        record.ports.push_back(
            kivsim::PortRecord{static_cast<std::uint16_t>(p), true,
                               "KivSim Printer " + std::to_string(n) + " port " + std::to_string(p),
                               record.ports.front().vidPidText});
      }
      if (passwordGiven) {
        record.password = password;
        record.passwordSet = true;
      }
      record.hostListStatus = static_cast<std::uint32_t>(hostListStatus);
      const int index = simulator.AddDevice(record);
      if (faultDevice == 0 || faultDevice == n) {
        simulator.SetFaults(index, faults);
      }
    }
    simulator.Start();
    std::printf("kivsim: %ld device(s), HCP port %u, HBN3 port %u, group listener %s\n", devices,
                simulator.HcpPort(), simulator.Hbn3Port(),
                options.groupAddress.empty() ? "none" : options.groupAddress.c_str());
    for (int i = 0; i < simulator.DeviceCount(); ++i) {
      const kivsim::DeviceRecord record = simulator.Device(i);
      std::printf("device %d: %s mac %02x:%02x:%02x:%02x:%02x:%02x name %s ports %zu\n", i + 1,
                  record.ipAddress.c_str(), record.mac[0], record.mac[1], record.mac[2],
                  record.mac[3], record.mac[4], record.mac[5], record.ipName.c_str(),
                  record.ports.size());
    }
    std::printf("kivsim: serving for %ld s\n", seconds);

    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (gInterrupted == 0 && std::chrono::steady_clock::now() < end) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    simulator.Stop();

    unsigned long requests = 0;
    unsigned long answers = 0;
    for (int i = 0; i < simulator.DeviceCount(); ++i) {
      const kivsim::DeviceCounters counters = simulator.Counters(i);
      requests += counters.discovery + counters.configuration + counters.statusCache +
                  counters.ping + counters.hostList + counters.requestScan;
      answers += counters.answersSent;
      const kivsim::DeviceRecord record = simulator.Device(i);
      if (counters.configuration > 0) {
        std::printf("device %d: now %s mask %s gateway %s\n", i + 1, record.ipAddress.c_str(),
                    record.netmask.c_str(), record.gateway.c_str());
      }
    }
    std::printf("kivsim: stopped; %lu request(s) seen, %lu answer(s) sent\n", requests, answers);
  } catch (const std::exception &e) {
    std::fprintf(stderr, "kivsim: %s\n", e.what());
    return 1;
  }
  return 0;
}
