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

#include "sim/Simulator.h"

namespace {

volatile sig_atomic_t gInterrupted = 0;

void OnSignal(int) { gInterrupted = 1; }

const char kUsage[] =
    "usage: kivsim [options]\n"
    "Serves simulated devices that answer HCP discovery and configuration and HBN3 requests\n"
    "over UDP, and on request HBN3 TCP channels, each on its own loopback address, and stops\n"
    "by itself after --seconds.\n"
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
    "  --help                this text\n"
    "  --fault-device N      apply the faults below to device N only (1: the first; default all)\n"
    "  --silent              faults: answer nothing\n"
    "  --delay-ms MS         faults: answer MS milliseconds late (up to 60000)\n"
    "  --truncate N          faults: cut every answer to N bytes\n"
    "  --garbage             faults: answer with bytes that form no message\n"
    "  --wrong-mac           faults: discovery answers name another MAC address\n"
    "  --copies N            faults: send every answer N times (up to 100)\n"
    "  --no-ip-address       faults: discovery answers carry no IPADDRESS item\n"
    "  --no-netmask          faults: discovery answers carry no IPNETMASK item\n"
    "  --announce-address T  faults: discovery answers announce the address text T (up to 200\n"
    "                        bytes) instead of the device's own\n"
    "\n"
    "HBN3 TCP channels (each connection: the open request, the answer, then the frames):\n"
    "  --channel-port P      serve channels on port P of every device (0: a free port)\n"
    "  --channel-handshake H answer to a valid open request: accept (default), nonzero-length,\n"
    "                        wrong-tag, silent, close-after-four; an unknown request is closed\n"
    "  --channel-dummy N     byte 4 of the accepting answer, 0 to 255 (default 0)\n"
    "  --channel-frames N    frames sent after the answer, 0 to 10000 (default 0)\n"
    "  --channel-frame-size B  payload bytes per frame, 1 to 16777216 (default 64); byte i of\n"
    "                        frame k is (k * 31 + i) & 0xFF\n"
    "  --channel-tickles N   tickle packets before each frame, 0 to 1000 (default 0)\n"
    "  --channel-interval-ms MS  pause between frames, 0 to 600000 (default 0)\n"
    "  --channel-split       send every byte on its own, a few milliseconds apart\n"
    "  --channel-fault F     after the frames: bad-tag, negative-length, huge-length,\n"
    "                        close-mid-frame or silence (default: silence)\n"
    "The channel options apply to every device, or to --fault-device N only; the others accept\n"
    "and stay silent. A connection stays open until the host closes it unless its script closes.\n"
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
  bool noIpAddress = false;
  bool noNetmask = false;
  std::string announcedAddress;
  kivsim::ChannelScript::Handshake handshake = kivsim::ChannelScript::kAccept;
  kivsim::ChannelFault channelFault = kivsim::ChannelFault::kNone;
  long channelDummy = 0;
  long channelFrames = 0;
  long channelFrameSize = 64;
  long channelTickles = 0;
  long channelIntervalMs = 0;
  bool channelSplit = false;

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
    } else if (option == "--no-ip-address") {
      noIpAddress = true;
    } else if (option == "--no-netmask") {
      noNetmask = true;
    } else if (option == "--announce-address") {
      announcedAddress = value();
      if (announcedAddress.empty() || announcedAddress.size() > 200) {
        std::fprintf(stderr, "kivsim: --announce-address wants 1 to 200 bytes\n");
        return 2;
      }
    } else if (option == "--channel-port") {
      options.channelPort = static_cast<std::uint16_t>(Number("--channel-port", value(), 0, 65535));
      options.channelEnabled = true;
    } else if (option == "--channel-handshake") {
      const char *name = value();
      if (!kivsim::ParseChannelHandshake(name, handshake)) {
        std::fprintf(stderr, "kivsim: unknown --channel-handshake %s (see --help)\n", name);
        return 2;
      }
    } else if (option == "--channel-dummy") {
      channelDummy = Number("--channel-dummy", value(), 0, 255);
    } else if (option == "--channel-frames") {
      channelFrames = Number("--channel-frames", value(), 0, 10000);
    } else if (option == "--channel-frame-size") {
      channelFrameSize = Number("--channel-frame-size", value(), 1, 16777216);
    } else if (option == "--channel-tickles") {
      channelTickles = Number("--channel-tickles", value(), 0, 1000);
    } else if (option == "--channel-interval-ms") {
      channelIntervalMs = Number("--channel-interval-ms", value(), 0, 600000);
    } else if (option == "--channel-split") {
      channelSplit = true;
    } else if (option == "--channel-fault") {
      const char *name = value();
      if (!kivsim::ParseChannelFault(name, channelFault)) {
        std::fprintf(stderr, "kivsim: unknown --channel-fault %s (see --help)\n", name);
        return 2;
      }
    } else {
      std::fprintf(stderr, "kivsim: unknown option %s (see --help)\n", option.c_str());
      return 2;
    }
  }
  if (faultDevice > devices) {
    std::fprintf(stderr, "kivsim: --fault-device %ld but only %ld devices\n", faultDevice, devices);
    return 2;
  }
  // Every device given the script holds its frames whole (its connections share them).
  if (channelFrames * channelFrameSize * (faultDevice == 0 ? devices : 1) > 256L * 1024 * 1024) {
    std::fprintf(stderr, "kivsim: the channel frames of all devices exceed 256 MiB\n");
    return 2;
  }
  kivsim::ChannelScript script = kivsim::PatternScript(
      static_cast<int>(channelFrames), static_cast<int>(channelFrameSize),
      static_cast<int>(channelTickles), channelSplit, static_cast<int>(channelIntervalMs));
  kivsim::AppendChannelFault(script, channelFault, channelSplit);
  script.handshake = handshake;
  script.answerDummyByte = static_cast<unsigned char>(channelDummy);

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
      const bool faulty = faultDevice == 0 || faultDevice == n;
      if (faulty) {
        record.announceIpAddress = !noIpAddress;
        record.announceNetmask = !noNetmask;
        record.announcedIpAddress = announcedAddress;
      }
      const int index = simulator.AddDevice(record);
      if (faulty) {
        simulator.SetFaults(index, faults);
        simulator.SetChannelScript(index, script);
      }
    }
    simulator.Start();
    const std::string channel =
        options.channelEnabled ? ", channel port " + std::to_string(simulator.ChannelPort()) : "";
    std::printf("kivsim: %ld device(s), HCP port %u, HBN3 port %u%s, group listener %s\n", devices,
                simulator.HcpPort(), simulator.Hbn3Port(), channel.c_str(),
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
      const kivsim::ChannelLog channels = simulator.ChannelRecord(i);
      if (channels.accepted > 0) {
        unsigned long long written = 0;
        for (const kivsim::ChannelConnectionLog &connection : channels.connections) {
          written += connection.writtenCount;
        }
        std::printf("device %d: %lu channel connection(s), %llu byte(s) written by the host\n",
                    i + 1, channels.accepted, written);
      }
    }
    std::printf("kivsim: stopped; %lu request(s) seen, %lu answer(s) sent\n", requests, answers);
  } catch (const std::exception &e) {
    std::fprintf(stderr, "kivsim: %s\n", e.what());
    return 1;
  }
  return 0;
}
