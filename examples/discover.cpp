// discover: sends the HCP discovery query to one address and prints every device that answers
// as a table.
//   usage: discover ADDRESS [PORT [SECONDS]]
// ADDRESS is a device, or a group address that several devices answer (kivsim --listen); PORT is
// the devices' HCP port (5353), SECONDS how long to wait for more answers (2). A driver searching
// the local network sends to "BROADCAST" instead, after
// SetSocketOptions(socket, kSocketKindUDP, BROADCAST_PERMITTED, 0).
#include <cstdio>
#include <cstdlib>
#include <string>

#include "HostHandles.h"

using namespace example;

int main(int argc, char **argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: discover ADDRESS [PORT [SECONDS]]\n");
    return 2;
  }
  // The headers a host is built with and the library it runs with should be of one major version.
  if (std::atoi(GetKivNetworkCommVersion()) != KIVNETWORKCOMM_VERSION_MAJOR) {
    std::fprintf(stderr, "built with KivNetworkComm %s headers but running library %s\n",
                 KIVNETWORKCOMM_VERSION, GetKivNetworkCommVersion());
  }
  const int port = argc > 2 ? std::atoi(argv[2]) : 5353;
  const int seconds = argc > 3 ? std::atoi(argv[3]) : 2;

  Container query = NewContainer(), answer = NewContainer();
  UdpSocket udp = NewUdpSocket(0); // port 0: the system picks a free local port at bind
  Address devices = NewAddress(argv[1], port), sender = NewAddress("", 0);
  int count = 0;
  if (!udp || !Succeeded("CreateDiscovery", CreateDiscovery(kHeaderTypeHCP1, query.get())) ||
      !Succeeded("BindUDPSocket", BindUDPSocket(udp.get())) ||
      // The time-out bounds each receive, so the loop below ends once the devices fall silent.
      !Succeeded("SetSocketOptions",
                 SetSocketOptions(udp.get(), kSocketKindUDP, TIME_OUT, seconds)) ||
      !Succeeded("SendTo", SendTo(udp.get(), devices.get(), query.get(), 0, count))) {
    return 1;
  }

  std::printf("%-15s  %-14s  %-12s  %s\n", "ADDRESS", "MAC", "NAME", "PORTS");
  int found = 0;
  // Every answer is one datagram; RecvFrom gives 0x0A0000B6 when the time-out passes. The count
  // is bounded too, in case something keeps sending.
  for (int received = 0; received < 1000; ++received) {
    if (RecvFrom(udp.get(), sender.get(), answer.get(), 0, count) != 0) {
      break;
    }
    KivNetRecord device; // the parser fills it only when the whole answer could be read
    const UInt32 code =
        ParseHCPResponse(kHeaderTypeHCP1, answer.get(), kHCPDiscoveryResponse, device);
    if (code != 0) {
      std::string from;
      GetAddressPort(sender.get(), &from, nullptr);
      std::fprintf(stderr, "ignored an answer from %s: ParseHCPResponse returned 0x%08X\n",
                   from.c_str(), static_cast<unsigned>(code));
      continue;
    }
    // One DeviceSpecific entry per attached port, each with its product text.
    std::string ports;
    for (const DeviceSpecific &entry : device.vecDeviceSpecific) {
      ports +=
          (ports.empty() ? "" : ", ") + std::to_string(entry.iPortInfo) + " " + entry.strProdID;
    }
    std::printf("%-15s  %-14s  %-12s  %s\n", device.strIPAddr.c_str(), device.strMacUaa.c_str(),
                device.strIPName.c_str(), ports.c_str());
    ++found;
  }
  std::printf("%d device(s)\n", found);
  return 0;
}
