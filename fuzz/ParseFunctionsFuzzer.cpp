// Fuzzes the exported parse functions: any received bytes, parsed as every kind of answer with
// both header types, must give a record or a parse failure's code, without touching memory
// outside the message. A failed parse leaves the caller's record as it was, and parsing leaves
// the container as it was.
#include <memory>
#include <vector>

#include "FuzzSupport.h"
#include "Interfaces/KivNetworkComm.h"

using kivfuzz::Require;

namespace {

// 0, or the code of a parse that failed in the parser (0x0A07 NN A3).
bool Success(UInt32 code) {
  Require(code == 0 || (code & 0xFFFF00FF) == 0x0A0700A3);
  return code == 0;
}

void ParseResponse(UInt32 (*parse)(UInt32, HANDLE, HBNResponseInfo &), UInt32 type, HANDLE h) {
  HBNResponseInfo info{"sender", 0xA1, 0xA2, 0xA3, 0xA4, 0xA5};
  Require(Success(parse(type, h, info)) ||
          (info.strIPAddress == "sender" && info.iPortInfo == 0xA1 && info.iStatus == 0xA3 &&
           info.iReport == 0xA4 && info.iTimeStamp == 0xA5));
}

void ParseStatus(UInt32 type, HANDLE h) {
  StatCacheResponse status{0xA1, 0xA2, "", 0, "", "", -7, "sentinel"};
  Require(Success(ParseStatusCacheResponse(type, h, status))
              ? status.strPayload.size() == static_cast<size_t>(status.iPayloadLength)
              : status.strPayload == "sentinel" && status.iPayloadLength == -7);
}

void ParseHCP(UInt32 type, HANDLE h, UInt32 answerKind) {
  KivNetRecord record;
  record.iResponse = 0x5A;
  record.strIPAddr = "sentinel";
  record.vecDeviceSpecific.resize(5);
  // Replaced, one entry per port slot at most; or left whole.
  Require(Success(ParseHCPResponse(type, h, answerKind, record))
              ? record.vecDeviceSpecific.size() <= 4
              : record.iResponse == 0x5A && record.strIPAddr == "sentinel" &&
                    record.vecDeviceSpecific.size() == 5);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  return kivfuzz::WithMessage(data, size, [&](KivNetBuffer &input) {
    // The parse functions take only containers the library made: a new one per input, holding
    // the input's bytes, destroyed (storage first) when the input is done.
    std::unique_ptr<KivNetBuffer> made(static_cast<KivNetBuffer *>(CreateBuffer()));
    KivNetBuffer &container = *made;
    KivNetBufferStorageGuard guard(container);
    if (size > 0) {
      container.SetBuffer(input.GetBufferRef(), input.GetBufferLength());
    }
    HANDLE h = made.get();
    for (UInt32 type : {0x48424E33u, 0x48435031u}) {
      ParseResponse(ParsePingResponse, type, h);
      ParseResponse(ParseRequestScanResponse, type, h);
      ParseResponse(ParseHostListEntryResponse, type, h);
      ParseResponse(ParseRequestScan, type, h);
      ParseStatus(type, h);
      ParseHCP(type, h, 0x80000006); // discovery answer
      ParseHCP(type, h, 0);          // configuration answer
    }
    // Parsing only reads the container.
    Require(container.GetBufferLength() == static_cast<int>(size) &&
            std::vector<uint8_t>(container.GetBufferRef(), container.GetBufferRef() + size) ==
                std::vector<uint8_t>(data, data + size));
  });
}
