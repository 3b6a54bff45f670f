// NetnsDiscovery: the host side of the network-namespace test, through the exported functions
// only. In the host namespace it checks the host information, discovers the devices with a
// broadcast query and checks every record, moves one device with a broadcast configuration and
// finds it again. With --expect-no-default-route (run where there is none) it checks that every
// host-information function lets the int -1 through. Refuses to run in the machine's own network
// namespace, so no broadcast ever leaves the machine.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "Interfaces/KivNetworkComm.h"
#include "tests/netns/NetnsPlan.h"

namespace {

typedef std::chrono::steady_clock Clock;

constexpr UInt32 kHCP1 = 0x48435031;
constexpr UInt32 kDiscoveryAnswer = 0x80000006;
constexpr UInt32 kConfigurationAnswer = 1;
constexpr UInt32 kTimedOut = 0x0A0000B6;
constexpr int kMaxDatagrams = 1000;

int gFailures = 0;

void Check(bool condition, const std::string &what) {
  if (!condition) {
    ++gFailures;
    std::printf("FAILED: %s\n", what.c_str());
  }
}

void CheckEqual(const std::string &actual, const std::string &expected, const std::string &what) {
  Check(actual == expected, what + ": '" + actual + "', expected '" + expected + "'");
}

struct Options {
  int devices = 0;
  int port = 0;
  std::string first, netmask, gateway, hostAddress, hostGateway, moveTo;
  bool expectNoDefaultRoute = false;
};

// One received datagram.
struct Answer {
  std::string from;
  std::vector<unsigned char> bytes;
};

// A UDP socket that may broadcast and waits at most a second per receive, with the handles it
// needs; released through the classes at the end (the library never releases a handle).
class Host {
public:
  Host() : mSocket(OpenUDPSocket(0)), mMessage(CreateBuffer()) {
    std::string any;
    mFrom = CreateSocketAddress(any, 0);
    Check(mSocket != nullptr, "OpenUDPSocket");
    Check(BindUDPSocket(mSocket) == 0, "BindUDPSocket");
    Check(SetSocketOptions(mSocket, kSocketKindUDP, BROADCAST_PERMITTED, 0) == 0,
          "SetSocketOptions BROADCAST_PERMITTED");
    Check(SetSocketOptions(mSocket, kSocketKindUDP, TIME_OUT, 1) == 0, "SetSocketOptions TIME_OUT");
  }
  ~Host() {
    CloseUDPSocket(mSocket);
    delete static_cast<KivUDPSocket *>(VerifySocketHandle(mSocket, kSocketKindUDP));
    delete VerifySockAddressHandle(mFrom);
    KivNetBuffer *buffer = VerifyBufferHandle(mMessage);
    buffer->ResetBuffer();
    delete buffer;
  }

  HANDLE message() const { return mMessage; }

  // Sends the container's message to 255.255.255.255.
  bool Broadcast(int port) {
    std::string text = "BROADCAST";
    HANDLE to = CreateSocketAddress(text, port);
    int sent = 0;
    const UInt32 code = SendTo(mSocket, to, mMessage, 0, sent);
    delete VerifySockAddressHandle(to);
    Check(code == 0, "SendTo BROADCAST returned " + std::to_string(code));
    return code == 0;
  }

  // Datagrams until `count` arrived or `seconds` passed.
  std::vector<Answer> Collect(std::size_t count, int seconds) {
    std::vector<Answer> answers;
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(seconds);
    for (int i = 0; i < kMaxDatagrams && answers.size() < count && Clock::now() < deadline; ++i) {
      int received = 0;
      const UInt32 code = RecvFrom(mSocket, mFrom, mMessage, 0, received);
      if (code == kTimedOut) {
        continue;
      }
      if (code != 0) {
        Check(false, "RecvFrom returned " + std::to_string(code));
        break;
      }
      Answer answer;
      GetAddressPort(mFrom, &answer.from, nullptr);
      const KivNetBuffer *buffer = VerifyBufferHandle(mMessage);
      answer.bytes.assign(buffer->GetBufferRef(), buffer->GetBufferRef() + received);
      answers.push_back(answer);
    }
    return answers;
  }

  // Stores `bytes` back into the container, for parsing after the receive loop.
  void Hold(const std::vector<unsigned char> &bytes) {
    static const unsigned char kNothing = 0;
    VerifyBufferHandle(mMessage)->SetBuffer(bytes.empty() ? &kNothing : bytes.data(),
                                            static_cast<int>(bytes.size()));
  }

private:
  HANDLE mSocket;
  HANDLE mMessage;
  HANDLE mFrom;
};

std::string MacForm(const kivsim::DeviceRecord &device) {
  char text[16];
  std::snprintf(text, sizeof text, "ET%02x%02x%02x%02x%02x%02x", device.mac[0], device.mac[1],
                device.mac[2], device.mac[3], device.mac[4], device.mac[5]);
  return text;
}

std::string MacDigits(const kivsim::DeviceRecord &device) {
  char text[16];
  std::snprintf(text, sizeof text, "%02X%02X%02X%02X%02X%02X", device.mac[0], device.mac[1],
                device.mac[2], device.mac[3], device.mac[4], device.mac[5]);
  return text;
}

void CheckRecord(const KivNetRecord &record, const kivsim::DeviceRecord &device) {
  const std::string who = device.ipName + " ";
  CheckEqual(record.strIPAddr, device.ipAddress, who + "address");
  CheckEqual(record.strIPNetMask, device.netmask, who + "net mask");
  CheckEqual(record.strIPGateway, device.gateway, who + "gateway");
  CheckEqual(record.strIPName, device.ipName, who + "name");
  CheckEqual(record.strMacUaa, MacForm(device), who + "MAC");
  CheckEqual(record.strAdapterName, device.adapterName, who + "adapter name");
  CheckEqual(record.strPwdSet, "FALSE", who + "password set");
  Check(record.vecDeviceSpecific.size() == device.ports.size(), who + "port count");
  for (std::size_t i = 0; i < device.ports.size() && i < record.vecDeviceSpecific.size(); ++i) {
    const DeviceSpecific &port = record.vecDeviceSpecific[i];
    Check(port.iPortInfo == device.ports[i].number, who + "port number");
    CheckEqual(port.strProdID, device.ports[i].productText, who + "product");
    CheckEqual(port.strPrintrVidPid, device.ports[i].vidPidText, who + "vendor/product id");
    CheckEqual(port.strCPDAttached, std::to_string(device.ports[i].number) + " 1",
               who + "attached");
  }
}

// Broadcasts the discovery query and checks that every planned device answered once, from its
// own address, with its record.
void Discover(Host &host, const Options &options, std::vector<kivsim::DeviceRecord> &devices) {
  Check(CreateDiscovery(kHCP1, host.message()) == 0, "CreateDiscovery");
  if (!host.Broadcast(options.port)) {
    return;
  }
  const std::vector<Answer> answers = host.Collect(devices.size(), 10);
  Check(answers.size() == devices.size(), std::to_string(answers.size()) + " of " +
                                              std::to_string(devices.size()) +
                                              " devices answered the broadcast");
  std::map<std::string, int> answered;
  for (const Answer &answer : answers) {
    host.Hold(answer.bytes);
    KivNetRecord record;
    const UInt32 code = ParseHCPResponse(kHCP1, host.message(), kDiscoveryAnswer, record);
    Check(code == 0, "ParseHCPResponse of the answer from " + answer.from + " returned " +
                         std::to_string(code));
    bool known = false;
    for (const kivsim::DeviceRecord &device : devices) {
      if (device.ipAddress == answer.from) {
        known = true;
        ++answered[answer.from];
        CheckRecord(record, device);
      }
    }
    Check(known, "an answer from an unknown address " + answer.from);
  }
  for (const kivsim::DeviceRecord &device : devices) {
    Check(answered[device.ipAddress] == 1,
          device.ipAddress + " answered " + std::to_string(answered[device.ipAddress]) + " times");
  }
  std::printf("NetnsDiscovery: %zu device(s) answered the broadcast\n", answers.size());
}

// Gives device 1 the address `moveTo` with a broadcast configuration message.
void Move(Host &host, const Options &options, kivsim::DeviceRecord &device) {
  std::string mac = MacDigits(device), address = options.moveTo, netmask = device.netmask,
              gateway = device.gateway, password, unusedMac, unusedAddress;
  Check(CreateIPConfig(kHCP1, mac, unusedMac, unusedAddress, address, password, netmask, gateway,
                       host.message()) == 0,
        "CreateIPConfig");
  if (!host.Broadcast(options.port)) {
    return;
  }
  const std::vector<Answer> answers = host.Collect(1, 10);
  Check(answers.size() == 1, "one answer to the configuration message");
  if (answers.empty()) {
    return;
  }
  CheckEqual(answers[0].from, device.ipAddress, "the configuration answer's sender");
  host.Hold(answers[0].bytes);
  KivNetRecord record;
  Check(ParseHCPResponse(kHCP1, host.message(), kConfigurationAnswer, record) == 0,
        "ParseHCPResponse of the configuration answer");
  Check(record.iResponse == 0, "the device accepted the configuration");
  CheckEqual(record.strIPAddr, options.moveTo, "the configured address");
  device.ipAddress = options.moveTo;
  std::printf("NetnsDiscovery: %s moved to %s\n", device.ipName.c_str(), options.moveTo.c_str());
}

void CheckHostInformation(const Options &options) {
  CheckEqual(GetHostIPAddressString(), options.hostAddress, "host address");
  CheckEqual(GetHostGatewayString(), options.hostGateway, "host gateway");
  CheckEqual(GetHostNetMaskString(), "255.255.255.0", "host net mask");
  std::string broadcast = GetHostBroadcastAddressString();
  CheckEqual(broadcast, options.hostAddress.substr(0, options.hostAddress.rfind('.')) + ".255",
             "host broadcast address");
  Check(IsBroadcastAddress(broadcast), "IsBroadcastAddress of the broadcast address");
}

void CheckNoDefaultRoute() {
  std::string text = "10.0.0.1";
  unsigned char bytes[6];
  const std::vector<std::pair<const char *, std::function<void()>>> calls = {
      {"GetHostMACAddress", [] { GetHostMACAddress("lo"); }},
      {"GetHostIPAddress", [] { GetHostIPAddress(); }},
      {"GetHostBroadcastAddress", [] { GetHostBroadcastAddress(); }},
      {"GetHostGateway", [] { GetHostGateway(); }},
      {"GetHostNetMask", [] { GetHostNetMask(); }},
      {"GetHostIPAddressString", [] { GetHostIPAddressString(); }},
      {"GetHostBroadcastAddressString", [] { GetHostBroadcastAddressString(); }},
      {"GetHostGatewayString", [] { GetHostGatewayString(); }},
      {"GetHostNetMaskString", [] { GetHostNetMaskString(); }},
      {"GetHostname", [] { GetHostname(); }},
      {"GetLongFromIP", [&] { GetLongFromIP(text); }},
      {"IsBroadcastAddress", [&] { IsBroadcastAddress(text); }},
      {"ConvertCharStrToHexVal", [&] { ConvertCharStrToHexVal("0004AC1F2B3C", bytes); }},
      {"GetExactHexValOfString", [&] { GetExactHexValOfString("0004AC1F2B3C", bytes); }},
  };
  for (const auto &call : calls) {
    int thrown = 0;
    try {
      call.second();
    } catch (int value) {
      thrown = value;
    }
    Check(thrown == -1, std::string(call.first) + " without a default route threw " +
                            std::to_string(thrown) + ", not -1");
  }
  std::printf("NetnsDiscovery: every host-information function threw -1\n");
}

bool ParseOptions(int argc, char **argv, Options &options) {
  for (int i = 1; i < argc; ++i) {
    const std::string option = argv[i];
    if (option == "--expect-no-default-route") {
      options.expectNoDefaultRoute = true;
      continue;
    }
    if (i + 1 >= argc) {
      return false;
    }
    const std::string value = argv[++i];
    if (option == "--devices") {
      options.devices = std::atoi(value.c_str());
    } else if (option == "--port") {
      options.port = std::atoi(value.c_str());
    } else if (option == "--first") {
      options.first = value;
    } else if (option == "--netmask") {
      options.netmask = value;
    } else if (option == "--gateway") {
      options.gateway = value;
    } else if (option == "--host-address") {
      options.hostAddress = value;
    } else if (option == "--host-gateway") {
      options.hostGateway = value;
    } else if (option == "--move-to") {
      options.moveTo = value;
    } else {
      return false;
    }
  }
  return options.expectNoDefaultRoute ||
         (options.devices >= 1 && options.devices <= 100 && options.port >= 1 &&
          options.port <= 65535 && !options.first.empty() && !options.netmask.empty() &&
          !options.gateway.empty() && !options.hostAddress.empty() &&
          !options.hostGateway.empty() && !options.moveTo.empty());
}

} // namespace

int main(int argc, char **argv) {
  Options options;
  if (!ParseOptions(argc, argv, options)) {
    std::fputs("usage: NetnsDiscovery --devices N --first A --netmask M --gateway G --port P "
               "--host-address H --host-gateway HG --move-to A\n"
               "       NetnsDiscovery --expect-no-default-route\n",
               stderr);
    return 2;
  }
  std::string why;
  if (!kivnetns::InOwnNetworkNamespace(why)) {
    std::fprintf(stderr, "NetnsDiscovery: refusing to run: %s\n", why.c_str());
    return 3;
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  if (options.expectNoDefaultRoute) {
    CheckNoDefaultRoute();
  } else {
    CheckHostInformation(options);
    std::vector<kivsim::DeviceRecord> devices =
        kivnetns::PlannedDevices(options.devices, options.first, options.netmask, options.gateway);
    Host host;
    Discover(host, options, devices);
    Move(host, options, devices.front());
    Discover(host, options, devices);
  }
  if (gFailures > 0) {
    std::printf("NetnsDiscovery: %d check(s) failed\n", gFailures);
    return 1;
  }
  std::printf("NetnsDiscovery: all checks passed\n");
  return 0;
}
