// Fuzzes the HCP answer parser: any datagram, read as a discovery answer and as a configuration
// answer, must give a record that keeps the answer format's promises or fail with the parser's one
// code, and never touch memory outside the message.
#include "Asm_Deasm/KivHBN3Disassembler.h"
#include "Exceptions/KivWrapperException.h"
#include "FuzzSupport.h"

using kivfuzz::Require;

namespace {

// Parses the held message as `kind`; checks the record, or the code of a failure.
void ParseAs(KivHBN3Disassembler &parser, UInt32 kind) {
  KivNetRecord record;
  record.strIPAddr = "unchanged";
  try {
    Require(parser.ParseHCPResponse(kind, record) == 0);
  } catch (const KivWrapperException &e) {
    Require(e.GetErrorCode() == 0x707A3); // (0x70000, 0x700, COPY_ERROR)
    return;
  }
  if (kind != kHCPDiscoveryResponse) {
    // A refusal reads no addresses; no configuration answer fills the discovery fields.
    Require(record.iResponse == 0 || record.strIPAddr == "unchanged");
    Require(record.vecDeviceSpecific.empty() && record.strMacUaa.empty());
    return;
  }
  Require(record.strMacUaa.size() == 14 && record.strMacUaa.compare(0, 2, "ET") == 0);
  Require(record.strPwdSet.empty() || record.strPwdSet == "TRUE" || record.strPwdSet == "FALSE");
  Require(record.vecDeviceSpecific.size() <= 4);
  for (const DeviceSpecific &entry : record.vecDeviceSpecific) {
    const std::string &attached = entry.strCPDAttached;
    Require(entry.iFlag == 1 && attached.size() >= 2 &&
            attached.compare(attached.size() - 2, 2, " 1") == 0);
  }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  return kivfuzz::WithMessage(data, size, [](KivNetBuffer &container) {
    KivHBN3Disassembler parser(container);
    ParseAs(parser, kHCPDiscoveryResponse);
    ParseAs(parser, 0x00000001);
  });
}
