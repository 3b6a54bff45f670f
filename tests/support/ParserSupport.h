// Fixtures of the parser tests: a parser holding given bytes, and every parse operation applied
// to one message.
#ifndef KIV_TESTS_SUPPORT_PARSERSUPPORT_H
#define KIV_TESTS_SUPPORT_PARSERSUPPORT_H

#include <functional>
#include <memory>
#include <vector>

#include "Asm_Deasm/KivHBN3Disassembler.h"
#include "CommonFiles/KivNetBuffer.h"
#include "Exceptions/KivWrapperException.h"
#include "support/TestSupport.h"
#include "support/Thrown.h"

namespace kivtest {

// A parser holding a copy of `bytes`; the container it came through is released, so the parser
// works from its own copy (exactly the message's size: a read past it is a sanitizer report).
inline std::unique_ptr<KivHBN3Disassembler> Holding(const Bytes &bytes) {
  static const unsigned char kNothing = 0;
  KivNetBuffer buffer;
  KivNetBufferStorageGuard guard(buffer);
  buffer.SetBuffer(bytes.empty() ? &kNothing : bytes.data(), static_cast<int>(bytes.size()));
  return std::unique_ptr<KivHBN3Disassembler>(new KivHBN3Disassembler(buffer));
}

struct ParseOperation {
  const char *name;
  std::function<void(KivHBN3Disassembler &)> run;
};

// Every parse operation a caller can apply to a received message.
inline std::vector<ParseOperation> EveryParseOperation() {
  return {
      {"ParsePingResponse", [](KivHBN3Disassembler &p) { p.ParsePingResponse(); }},
      {"ParseRequestScanResponse", [](KivHBN3Disassembler &p) { p.ParseRequestScanResponse(); }},
      {"ParseHostListEntryResponse",
       [](KivHBN3Disassembler &p) { p.ParseHostListEntryResponse(); }},
      {"ParseRequestScan", [](KivHBN3Disassembler &p) { p.ParseRequestScan(); }},
      {"ParseStatusCacheResponse", [](KivHBN3Disassembler &p) { p.ParseStatusCacheResponse(); }},
      {"ParseHCPResponse(discovery)",
       [](KivHBN3Disassembler &p) {
         KivNetRecord record;
         p.ParseHCPResponse(kHCPDiscoveryResponse, record);
       }},
      {"ParseHCPResponse(configuration)",
       [](KivHBN3Disassembler &p) {
         KivNetRecord record;
         p.ParseHCPResponse(1, record);
       }},
  };
}

} // namespace kivtest

#endif // KIV_TESTS_SUPPORT_PARSERSUPPORT_H
