// Fuzzes the HBN3 side of the parser: any message, through every HBN3 parse operation, must give
// a consistent answer exactly when it holds the fields the operation reads, and otherwise fail
// with that operation's own code; never touch memory outside the message.
#include <functional>

#include "Asm_Deasm/KivHBN3Disassembler.h"
#include "Exceptions/KivWrapperException.h"
#include "FuzzSupport.h"

using kivfuzz::Require;

namespace {

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
  return kivfuzz::WithMessage(data, size, [size](KivNetBuffer &container) {
    KivHBN3Disassembler parser(container);
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
  });
}
