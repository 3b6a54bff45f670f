// Fuzzes the HCP answer parser: any datagram, read as a discovery answer and as a configuration
// answer, must give a record that keeps the answer format's promises or fail with the parser's one
// code, and never touch memory outside the message.
#include <climits>
#include <cstddef>
#include <cstdint>
#include <string>

#include "../tests/support/FakeHostPlatform.h"
#include "Asm_Deasm/KivHBN3Disassembler.h"
#include "CommonFiles/KivNetBuffer.h"
#include "Exceptions/KivWrapperException.h"
#include "HelperFiles/KivHostPlatform.h"

namespace {

// The code of every failed HCP parse: class 0x70000, function 0x700, COPY_ERROR.
constexpr UInt32 kParseFailed = 0x707A3;

// A host with a default interface, so the MAC conversion does not depend on the machine.
void InstallHost() {
  static kivtest::FakeHostPlatform platform("192.168.1.10", "255.255.255.0", "192.168.1.1");
  static kiv::HostPlatformOverrideScope scope(platform);
}

void Require(bool condition) {
  if (!condition) {
    __builtin_trap();
  }
}

// Parses the held message as `kind`; checks the record, or the code of a failure.
void ParseAs(KivHBN3Disassembler &parser, UInt32 kind) {
  KivNetRecord record;
  record.strIPAddr = "unchanged";
  try {
    Require(parser.ParseHCPResponse(kind, record) == 0);
  } catch (const KivWrapperException &e) {
    Require(e.GetErrorCode() == kParseFailed);
    return;
  }
  if (kind != kHCPDiscoveryResponse && record.iResponse != 0) {
    Require(record.strIPAddr == "unchanged");
    return;
  }
  if (kind != kHCPDiscoveryResponse) {
    Require(record.vecDeviceSpecific.empty() && record.strMacUaa.empty());
    return;
  }
  Require(record.strMacUaa.size() == 14 && record.strMacUaa.compare(0, 2, "ET") == 0);
  Require(record.strPwdSet.empty() || record.strPwdSet == "TRUE" || record.strPwdSet == "FALSE");
  Require(record.vecDeviceSpecific.size() <= 4);
  for (const DeviceSpecific &entry : record.vecDeviceSpecific) {
    Require(entry.iFlag == 1);
    Require(entry.strCPDAttached.size() >= 2 &&
            entry.strCPDAttached.compare(entry.strCPDAttached.size() - 2, 2, " 1") == 0);
  }
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
  ParseAs(parser, kHCPDiscoveryResponse);
  ParseAs(parser, 0x00000001);
  return 0;
}
