// NetnsDiscovery: both sides of the network-namespace test. With --serve it serves simulated
// devices on the addresses of the test's device namespace, answering any peer and taking
// broadcasts, for a bounded time. Without it, it is the host, through the exported functions
// only: it discovers the devices with a broadcast query and checks every record. It refuses to run
// in the machine's own network namespace, so no broadcast ever leaves the machine.
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <map>
#include <thread>

#include "Interfaces/KivNetworkComm.h"
#include "sim/Simulator.h"

namespace {

constexpr UInt32 kHCP1 = 0x48435031;
int gFailures = 0;

void Check(bool condition, const std::string &what) {
  if (!condition) {
    ++gFailures;
    std::printf("FAILED: %s\n", what.c_str());
  }
}

// True only when this process provably runs in a network namespace other than the machine's:
// the one of process 1, or, where that link is shielded (some sandboxes hide process 1 even from
// root), the one of this process's topmost ancestor whose link can be read, which is where the
// test was started. Anything unreadable counts as "not isolated".
bool InOwnNetworkNamespace(std::string &why) {
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

// Serves the devices on `port` for `seconds` (a signal ends it sooner).
int Serve(int port, int seconds, const std::vector<kivsim::DeviceRecord> &devices) {
  kivsim::SimulatorOptions options;
  options.hcpPort = options.hbn3Port = static_cast<std::uint16_t>(port);
  options.groupAddress = "0.0.0.0"; // takes the broadcast queries
  options.answerAnyPeer = true;     // safe only in a network the test made itself
  kivsim::Simulator simulator(options);
  for (const kivsim::DeviceRecord &device : devices) {
    simulator.AddDevice(device);
  }
  simulator.Start();
  std::printf("NetnsDiscovery: ready, %zu devices on port %d\n", devices.size(), port);
  std::fflush(stdout);
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  return 0;
}

// The fields a host reads from a discovery answer, as one line, from the answer or the plan.
std::string Fields(const KivNetRecord &r) {
  std::string text = r.strIPAddr + " " + r.strIPNetMask + " " + r.strIPGateway + " " + r.strIPName +
                     " " + r.strMacUaa + " " + r.strAdapterName + " " + r.strPwdSet;
  for (const DeviceSpecific &p : r.vecDeviceSpecific) {
    text += " [" + std::to_string(p.iPortInfo) + " " + p.strProdID + " " + p.strPrintrVidPid + " " +
            p.strCPDAttached + "]";
  }
  return text;
}
std::string Fields(const kivsim::DeviceRecord &d) {
  char mac[16];
  std::snprintf(mac, sizeof mac, "ET%02x%02x%02x%02x%02x%02x", d.mac[0], d.mac[1], d.mac[2],
                d.mac[3], d.mac[4], d.mac[5]);
  std::string text = d.ipAddress + " " + d.netmask + " " + d.gateway + " " + d.ipName + " " + mac +
                     " " + d.adapterName + " FALSE";
  for (const kivsim::PortRecord &p : d.ports) {
    const std::string number = std::to_string(p.number);
    text += " [" + number + " " + p.productText + " " + p.vidPidText + " " + number + " 1]";
  }
  return text;
}

// Broadcasts the discovery query to `port` and checks that every device answers once, from its
// own address, with its record, within ten seconds.
int Discover(int port, const std::vector<kivsim::DeviceRecord> &devices) {
  std::map<std::string, std::string> expected;
  for (const kivsim::DeviceRecord &device : devices) {
    expected[device.ipAddress] = Fields(device);
  }
  std::string broadcast = "BROADCAST", any;
  HANDLE socket = OpenUDPSocket(0), to = CreateSocketAddress(broadcast, port),
         from = CreateSocketAddress(any, 0), message = CreateBuffer();
  int bytes = 0;
  Check(CreateDiscovery(kHCP1, message) == 0 && BindUDPSocket(socket) == 0 &&
            SetSocketOptions(socket, kSocketKindUDP, BROADCAST_PERMITTED, 0) == 0 &&
            SetSocketOptions(socket, kSocketKindUDP, TIME_OUT, 1) == 0 &&
            SendTo(socket, to, message, 0, bytes) == 0,
        "the discovery query broadcast from a bound socket");
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  for (int i = 0; i < 1000 && !expected.empty() && std::chrono::steady_clock::now() < end; ++i) {
    UInt32 code = RecvFrom(socket, from, message, 0, bytes);
    if (code == 0x0A0000B6) {
      continue; // a second without an answer
    }
    std::string sender;
    KivNetRecord record;
    GetAddressPort(from, &sender, nullptr);
    code = code != 0 ? code : ParseHCPResponse(kHCP1, message, 0x80000006, record);
    const auto device = expected.find(sender);
    Check(code == 0 && device != expected.end(),
          "the answer from " + sender + ": code " + std::to_string(code) + ", or not expected");
    if (code == 0 && device != expected.end()) {
      Check(Fields(record) == device->second,
            "record '" + Fields(record) + "', expected '" + device->second + "'");
      expected.erase(device);
    }
  }
  Check(expected.empty(), std::to_string(expected.size()) + " device(s) did not answer");
  CloseUDPSocket(socket);
  delete static_cast<KivUDPSocket *>(VerifySocketHandle(socket, kSocketKindUDP));
  delete VerifySockAddressHandle(to);
  delete VerifySockAddressHandle(from);
  VerifyBufferHandle(message)->ResetBuffer();
  delete VerifyBufferHandle(message);
  std::printf("NetnsDiscovery: %d check(s) failed\n", gFailures);
  return gFailures == 0 ? 0 : 1;
}

} // namespace

int main(int argc, char **argv) {
  std::string why;
  if (!InOwnNetworkNamespace(why)) {
    std::fprintf(stderr, "NetnsDiscovery: refusing to run: %s\n", why.c_str());
    return 3;
  }
  std::map<std::string, std::string> o; // "--name value" pairs
  for (int i = 1; i + 1 < argc; i += 2) {
    o[argv[i]] = argv[i + 1];
  }
  const int count = std::atoi(o["--devices"].c_str()), port = std::atoi(o["--port"].c_str()),
            serve = std::atoi(o["--serve"].c_str());
  if (argc % 2 == 0 || count < 1 || count > 100 || port < 1 || port > 65535 || serve < 0 ||
      serve > 600) {
    std::fputs("usage: NetnsDiscovery --devices N --first A --netmask M --gateway G --port P\n"
               "                      [--serve SECONDS]\n",
               stderr);
    return 2;
  }
  try {
    // Device n at --first + n - 1; every other device has a second port, so records differ in
    // more than their numbers.
    std::vector<kivsim::DeviceRecord> devices;
    for (int n = 1; n <= count; ++n) {
      devices.push_back(kivsim::MakeDeviceRecord(n, kivsim::AddressAfter(o["--first"], n - 1)));
      devices.back().netmask = o["--netmask"];
      devices.back().gateway = o["--gateway"];
      if (n % 2 == 0) {
        devices.back().ports.push_back({2, true, "KivSim Scanner " + std::to_string(n), "FFFF:2"});
      }
    }
    return serve > 0 ? Serve(port, serve, devices) : Discover(port, devices);
  } catch (const std::exception &e) {
    std::fprintf(stderr, "NetnsDiscovery: %s\n", e.what());
    return 1;
  }
}
