// Fuzzes the exported parse functions: any received bytes, stored in a container and parsed as
// every kind of answer with both header types, must give a code or a record without touching
// memory outside the message. Parsing must leave the container as it was, a failed parse must
// leave the caller's record as it was, and every code must have the library's form.
#include <arpa/inet.h>

#include <climits>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "HelperFiles/KivHostPlatform.h"
#include "Interfaces/KivNetworkComm.h"

namespace {

// A fixed host with a default interface, so the HCP parser's host information never depends on
// the machine running the fuzzer.
class FixedHost : public kiv::KivHostPlatform {
public:
  bool GetDefaultInterface(kiv::KivInterfaceInfo &info) const override {
    info.fAddress = htonl(0xC000020A);            // 192.0.2.10
    info.fNetmask = htonl(0xFFFFFF00);            // 255.255.255.0
    info.fBroadcastAddr = htonl(0xC00002FF);      // 192.0.2.255
    info.fDefaultGatewayAddr = htonl(0xC0000201); // 192.0.2.1
    return true;
  }
  std::string AddressToText(UInt32 address) const override {
    char text[INET_ADDRSTRLEN] = {};
    in_addr in;
    in.s_addr = address;
    return inet_ntop(AF_INET, &in, text, sizeof(text)) != nullptr ? text : "";
  }
  bool GetLinkAddresses(std::vector<kiv::KivLinkAddress> &list) const override {
    list.clear();
    return true;
  }
};

void Check(bool condition) {
  if (!condition) {
    __builtin_trap();
  }
}

// 0, or a code of the interface layer or of a caught exception (0x0A in the top byte).
void CheckCode(UInt32 code) { Check(code == 0 || (code >> 24) == 0x0A); }

HBNResponseInfo SentinelResponse() {
  HBNResponseInfo info;
  info.strIPAddress = "sender";
  info.iPortInfo = 0xA1;
  info.iChannelID = 0xA2;
  info.iStatus = 0xA3;
  info.iReport = 0xA4;
  info.iTimeStamp = 0xA5;
  return info;
}

bool Same(const HBNResponseInfo &a, const HBNResponseInfo &b) {
  return a.strIPAddress == b.strIPAddress && a.iPortInfo == b.iPortInfo &&
         a.iChannelID == b.iChannelID && a.iStatus == b.iStatus && a.iReport == b.iReport &&
         a.iTimeStamp == b.iTimeStamp;
}

void ParseResponse(UInt32 (*parse)(UInt32, HANDLE, HBNResponseInfo &), UInt32 headerType,
                   HANDLE container) {
  HBNResponseInfo info = SentinelResponse();
  const UInt32 code = parse(headerType, container, info);
  CheckCode(code);
  Check(code == 0 || Same(info, SentinelResponse()));
}

void ParseStatus(UInt32 headerType, HANDLE container) {
  StatCacheResponse status;
  status.strPayload = "sentinel";
  status.iPayloadLength = -7;
  const UInt32 code = ParseStatusCacheResponse(headerType, container, status);
  CheckCode(code);
  if (code == 0) {
    Check(status.strPayload.size() == static_cast<size_t>(status.iPayloadLength) ||
          status.strPayload.empty());
  } else {
    Check(status.strPayload == "sentinel" && status.iPayloadLength == -7);
  }
}

void ParseHCP(UInt32 headerType, HANDLE container, UInt32 answerKind) {
  KivNetRecord record;
  record.iResponse = 0x5A;
  record.strIPAddr = "sentinel";
  record.vecDeviceSpecific.resize(5);
  const UInt32 code = ParseHCPResponse(headerType, container, answerKind, record);
  CheckCode(code);
  if (code != 0) {
    Check(record.iResponse == 0x5A && record.strIPAddr == "sentinel" &&
          record.vecDeviceSpecific.size() == 5);
  } else {
    // At most one entry per port slot.
    Check(record.vecDeviceSpecific.size() <= 4);
  }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > INT_MAX) {
    return 0;
  }
  static const FixedHost host;
  kiv::HostPlatformOverrideScope scope(host);

  KivNetBuffer container;
  KivNetBufferStorageGuard release(container);
  if (size > 0) {
    container.SetBuffer(data, static_cast<int>(size));
  }
  const std::vector<unsigned char> before(container.GetBufferRef(),
                                          container.GetBufferRef() + container.GetBufferLength());
  HANDLE handle = &container;

  for (UInt32 headerType : {0x48424E33u, 0x48435031u}) {
    ParseResponse(ParsePingResponse, headerType, handle);
    ParseResponse(ParseRequestScanResponse, headerType, handle);
    ParseResponse(ParseHostListEntryResponse, headerType, handle);
    ParseResponse(ParseRequestScan, headerType, handle);
    ParseStatus(headerType, handle);
    ParseHCP(headerType, handle, 0x80000006); // discovery answer
    ParseHCP(headerType, handle, 0);          // configuration answer
  }

  // Parsing only reads the container.
  Check(container.GetBufferLength() == static_cast<int>(before.size()));
  Check(std::vector<unsigned char>(container.GetBufferRef(),
                                   container.GetBufferRef() + container.GetBufferLength()) ==
        before);
  return 0;
}
