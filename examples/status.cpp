// status: asks one device for its status cache over UDP and prints the parsed answer.
//   usage: status ADDRESS [PORT [PORT-INFO [CHANNEL [SECONDS]]]]
// PORT is the device's HBN3 port (5353), PORT-INFO and CHANNEL go into the request's header (0),
// SECONDS is how long to wait for the answer (3).
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "HostHandles.h"

using namespace example;

int main(int argc, char **argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: status ADDRESS [PORT [PORT-INFO [CHANNEL [SECONDS]]]]\n");
    return 2;
  }
  const int port = argc > 2 ? std::atoi(argv[2]) : 5353;
  const UInt32 portInfo = argc > 3 ? std::strtoul(argv[3], nullptr, 0) : 0;
  const UInt32 channel = argc > 4 ? std::strtoul(argv[4], nullptr, 0) : 0;
  const int seconds = argc > 5 ? std::atoi(argv[5]) : 3;

  // The 24-byte request: an HBN3 header with command 1. The time stamp is the host's to choose;
  // the device copies it into its answer.
  Container request = NewContainer(), answer = NewContainer();
  const UInt32 timeStamp = static_cast<UInt32>(std::time(nullptr));
  UdpSocket udp = NewUdpSocket(0);
  Address device = NewAddress(argv[1], port), sender = NewAddress("", 0);
  int count = 0;
  if (!udp ||
      !Succeeded(
          "CreateStatusCacheRequest",
          CreateStatusCacheRequest(kHeaderTypeHBN3, portInfo, channel, timeStamp, request.get())) ||
      !Succeeded("BindUDPSocket", BindUDPSocket(udp.get())) ||
      !Succeeded("SetSocketOptions",
                 SetSocketOptions(udp.get(), kSocketKindUDP, TIME_OUT, seconds)) ||
      !Succeeded("SendTo", SendTo(udp.get(), device.get(), request.get(), 0, count)) ||
      // 0x0A0000B6 here: no answer within the time-out.
      !Succeeded("RecvFrom", RecvFrom(udp.get(), sender.get(), answer.get(), 0, count))) {
    return 1;
  }

  // A parser reads whatever it is given: check first that this is an HBN3 status-cache answer
  // (the request's command with the reply bit).
  if (GetHeaderType(answer.get()) != kHeaderTypeHBN3 ||
      GetCommandType(answer.get()) != (kCmdReplyFlag | kCmdStatusCacheRequest)) {
    std::fprintf(stderr, "the answer (%d bytes) is not a status-cache answer\n", count);
    return 1;
  }
  StatCacheResponse status; // the caller's own record; written only when the parse succeeds
  if (!Succeeded("ParseStatusCacheResponse",
                 ParseStatusCacheResponse(kHeaderTypeHBN3, answer.get(), status))) {
    return 1;
  }
  std::printf("adapter MAC      %s\n", status.strAdapterUAA.c_str());
  std::printf("adapter address  %s\n", status.strAdapterIPAddr.c_str());
  std::printf("printer id       %s\n", status.strPrinterID.c_str());
  std::printf("port info        %u\n", static_cast<unsigned>(status.iPortInfo));
  std::printf("channel          %u\n", static_cast<unsigned>(status.iChannelID));
  // The status bytes are binary (zero bytes included): strPayload holds iPayloadLength of them.
  std::printf("status bytes     %d:", status.iPayloadLength);
  for (int i = 0; i < status.iPayloadLength; ++i) {
    std::printf(" %02x", static_cast<unsigned char>(status.strPayload[i]));
  }
  std::printf("\n");
  return 0;
}
