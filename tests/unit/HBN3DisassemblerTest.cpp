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
#include "support/Thrown.h"

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

// copyData: at most iLen - 1 characters from iIndex; refusals carry function number 0xD00.
TEST(HBN3DisassemblerTest, CopyDataTakesLengthLessOneCharacters) {
  KivHBN3Disassembler parser;
  EXPECT_EQ(parser.copyData("ABCDEF", 4, 1), "BCD");
  EXPECT_EQ(parser.copyData("ABCDEF", 40, 4), "EF") << "the text ends first";
  EXPECT_EQ(parser.copyData("ABCDEF", 0, 6), "");
  ExpectCodes({{"negative length", [&] { parser.copyData("ABCDEF", -1, 0); }, 0x70DA3},
               {"past the end", [&] { parser.copyData("ABCDEF", 2, 7); }, 0x70DA3}});
}

// The value rules read from the held message itself give what they give with the held message
// passed as text, at every start and in both modes, refusals included.
TEST(HBN3DisassemblerTest, ValueOfTheHeldMessageIsTheValueOfItsText) {
  const Bytes message =
      Join({Text("IPADDRESS=10.0.0.5"), Bytes{0x0D, 0},
            Text("IPNAME=\"Kiv 1\"PWD=\"open x=printer 5 "), Bytes(40, 'a'), Bytes{0xC3, 0xA9}});
  const std::unique_ptr<KivHBN3Disassembler> parser = Holding(message);
  const std::string text(message.begin(), message.end());
  int quoted = 0, cut = 0;
  for (bool address : {false, true}) {
    parser->isAddress(address);
    for (int i = -1; i <= static_cast<int>(message.size()) + 1; ++i) {
      std::string fromText, fromHeld;
      const UInt32 textCode = CodeOf([&] { fromText = parser->getValue(text, i); });
      const UInt32 heldCode = CodeOf([&] { fromHeld = parser->getValue(i); });
      EXPECT_EQ(heldCode, textCode) << "start " << i;
      EXPECT_EQ(fromHeld, fromText) << "start " << i;
      quoted += fromHeld == "Kiv 1";
      cut += fromHeld == std::string(31, 'a');
    }
  }
  EXPECT_EQ(parser->getValue(10), "10.0.0.5") << "address mode stops before the length byte";
  EXPECT_EQ(quoted, 2);
  EXPECT_GT(cut, 0);
  EXPECT_EQ(CodeOf([&] { parser->getValue(static_cast<int>(message.size()) + 1); }), 0x70DA3u);
}

} // namespace
