// Fuzzes the HBN3 side of the parser: any message, through every HBN3 parse operation, must give
// a consistent answer or fail with that operation's own code, and never touch memory outside the
// message.
#include <climits>
#include <cstddef>
#include <cstdint>
#include <functional>

#include "../tests/support/FakeHostPlatform.h"
#include "Asm_Deasm/KivHBN3Disassembler.h"
#include "CommonFiles/KivNetBuffer.h"
#include "Exceptions/KivWrapperException.h"
#include "HelperFiles/KivHostPlatform.h"

namespace {

// No HBN3 operation needs the host, but the parser must not depend on the machine either way.
void InstallHost() {
  static kivtest::FakeHostPlatform platform("192.168.1.10", "255.255.255.0", "192.168.1.1");
  static kiv::HostPlatformOverrideScope scope(platform);
}

void Require(bool condition) {
  if (!condition) {
    __builtin_trap();
  }
}

// Runs `operation`; it succeeds exactly when the message holds `needed` bytes, and otherwise
// fails with COPY_ERROR of `function`.
void Expect(const std::function<void()> &operation, UInt32 function, size_t needed, size_t size) {
  try {
    operation();
  } catch (const KivWrapperException &e) {
    Require(e.GetErrorCode() ==
            KivWrapperException(kClassHBN3Disassembler, function, COPY_ERROR).GetErrorCode());
    Require(size < needed);
    return;
  }
  Require(size >= needed);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  InstallHost();
  if (size > static_cast<size_t>(INT_MAX)) {
    return 0;
  }
  static const unsigned char kNothing = 0;
  KivNetBuffer buffer;
  KivNetBufferStorageGuard guard(buffer);
  buffer.SetBuffer(size > 0 ? data : &kNothing, static_cast<int>(size));
  KivHBN3Disassembler parser(buffer);

  Expect([&] { Require(parser.ParsePingResponse().iStatus <= 1); },
         KivHBN3Disassembler::kFnParsePingResponse, 20, size);
  Expect([&] { Require(parser.ParseRequestScanResponse().iStatus <= 1); },
         KivHBN3Disassembler::kFnParseRequestScanResponse, 20, size);
  Expect([&] { parser.ParseHostListEntryResponse(); },
         KivHBN3Disassembler::kFnParseHostListEntryResponse, 28, size);
  Expect([&] { Require(parser.ParseRequestScan().iStatus == 0); },
         KivHBN3Disassembler::kFnParseRequestScan, 32, size);
  Expect(
      [&] {
        const StatCacheResponse r = parser.ParseStatusCacheResponse();
        Require(r.iPayloadLength >= 0 && r.strPayload.size() == size_t(r.iPayloadLength));
        Require(r.iPayloadLength <= static_cast<int>(size) - 40);
        Require(r.strAdapterUAA.size() == 12 && r.iReserved == 0);
        Require(r.strPrinterID.empty() == (r.iPayloadLength < 28));
      },
      KivHBN3Disassembler::kFnParseStatusCacheResponse, 40, size);
  return 0;
}
