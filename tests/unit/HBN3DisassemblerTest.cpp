// The parser of received messages: classification, and every prefix of every message through
// every parse operation. The HBN3 answers' values are checked through the exported functions
// (tests/boundary/MessageFunctionsTest.cpp), the HCP answers in HcpAnswerParserTest.cpp, the
// status payload's rules with the payload class.
#include <gtest/gtest.h>

#include <functional>
#include <iterator>

#include "Asm_Deasm/KivHBN3Disassembler.h"
#include "Exceptions/KivWrapperException.h"
#include "support/FakeHostPlatform.h"
#include "support/MessageVectors.h"

using namespace kivtest;

namespace {

TEST(HBN3DisassemblerTest, ClassifiesByTagAndReadsTheCommandWhereTheTagSaysItIs) {
  EXPECT_EQ(Holding(PingReply())->GetCommandType(), 0x80000003u);
  // An HCP1 message has its command at 24, after the addresses.
  auto hcp = Holding(Join({Text("HCP1"), Bytes(20, 0x11), Hex("00010203")}));
  EXPECT_EQ(hcp->GetHeaderType(), 0x48435031u);
  EXPECT_EQ(hcp->GetCommandType(), 0x00010203u);
  auto cut = Holding(Hex("4842"));
  EXPECT_EQ(cut->GetHeaderType() | cut->GetCommandType(), 0u);
}

// For each operation, the shortest prefix of `message` it accepts (-1: none), with "!" when a
// longer prefix fails again. Anything but a result or a KivWrapperException fails the test.
std::string ShortestAccepted(const Bytes &message) {
  const std::function<void(KivHBN3Disassembler &, KivNetRecord &)> operations[] = {
      [](auto &p, auto &) { p.ParsePingResponse(); },
      [](auto &p, auto &) { p.ParseRequestScanResponse(); },
      [](auto &p, auto &) { p.ParseHostListEntryResponse(); },
      [](auto &p, auto &) { p.ParseRequestScan(); },
      [](auto &p, auto &) { p.ParseStatusCacheResponse(); },
      [](auto &p, auto &r) { p.ParseHCPResponse(kHCPDiscoveryResponse, r); },
      [](auto &p, auto &r) { p.ParseHCPResponse(1, r); }, // a configuration answer
  };
  std::string shortest;
  for (size_t k = 0; k < std::size(operations); ++k) {
    long first = -1;
    bool failsAgain = false;
    for (size_t length = 0; length <= message.size(); ++length) {
      auto parser = Holding(Bytes(message.begin(), message.begin() + static_cast<long>(length)));
      KivNetRecord record;
      bool accepted = true;
      try {
        operations[k](*parser, record);
      } catch (const KivWrapperException &) {
        accepted = false;
      } catch (...) {
        ADD_FAILURE() << "operation " << k << " threw something else at " << length << " bytes";
      }
      first = accepted && first < 0 ? static_cast<long>(length) : first;
      failsAgain = failsAgain || (!accepted && first >= 0);
    }
    shortest += (k == 0 ? "" : " ") + std::to_string(first) + (failsAgain ? "!" : "");
  }
  return shortest;
}

// Every prefix of every message through every operation: each operation refuses a message up to
// the last byte it reads and accepts it from there on, never reading outside it (the sanitizer
// stage checks that too). The HCP answers need a host with a default interface for the MAC
// conversion.
TEST(HBN3DisassemblerTest, EachOperationAcceptsEveryPrefixFromItsLastByteOn) {
  const FakeHostPlatform platform("192.168.1.10", "255.255.255.0", "192.168.1.1");
  kiv::HostPlatformOverrideScope scope(platform);
  // Operations: ping reply, request-scan reply, host-list answer, scan request, status-cache
  // answer, discovery answer, configuration answer.
  const std::pair<Bytes, const char *> cases[] = {
      {PingReply(), "20 20 -1 -1 -1 -1 -1"},
      {RequestScanReply(), "20 20 -1 -1 -1 -1 -1"},
      {HostListAnswer(), "20 20 28 -1 -1 -1 -1"},
      // Byte 26 of a scan request (06) reads as a configuration answer's refusal.
      {ScanRequest(), "20 20 28 32 -1 -1 27"},
      {StatusAnswer(), "20 20 28 32 40 -1 -1"},
      // Complete once the last key's separator arrived (its value then empty), 539 of 540 bytes;
      // byte 26 (the "_" of _udp) reads as a refusal.
      {DiscoveryAnswer(DeviceItems()), "20 20 28 32 40 539 27"},
      // Complete once the space after IPGATEWAY arrived, 83 of 92 bytes.
      {ConfigurationAnswer(0, ConfigurationText()), "20 20 28 32 40 -1 83"},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(ShortestAccepted(c.first), c.second) << ToHex(c.first);
  }
}

} // namespace
