// The factory of builders and parsers: which header types it serves, and that a refused message
// leaves no parser behind.
#include <gtest/gtest.h>

#include <memory>

#include "Asm_Deasm/KivHBN3Assembler.h"
#include "Asm_Deasm/KivHBN3Disassembler.h"
#include "CommonFiles/KivAsm_DeasmFactory.h"
#include "Exceptions/KivWrapperException.h"
#include "support/TestSupport.h"

using kivtest::Bytes;
using kivtest::Hex;

namespace {

constexpr UInt32 kHBN3 = 0x48424E33;
constexpr UInt32 kHCP1 = 0x48435031;
constexpr UInt32 kOtherTypes[] = {0x00000000, 0x48424E31 /* "HBN1" */, 0x48435030, 0x33424E48,
                                  0xFFFFFFFF};

TEST(AsmDeasmFactory, BuildersForHBN3AndHCP1Only) {
  for (UInt32 type : {kHBN3, kHCP1}) {
    std::unique_ptr<KivAssembler> builder(KivAsm_DeasmFactory::CreateAssembler(type));
    EXPECT_NE(dynamic_cast<KivHBN3Assembler *>(builder.get()), nullptr) << std::hex << type;
  }
  for (UInt32 type : kOtherTypes) {
    EXPECT_EQ(KivAsm_DeasmFactory::CreateAssembler(type), nullptr) << std::hex << type;
  }
}

TEST(AsmDeasmFactory, ParsersForHBN3AndHCP1OnlyAndTheContainerIsNotLookedAtOtherwise) {
  for (UInt32 type : kOtherTypes) {
    // A null container would be refused by the parser; for these types none is made.
    EXPECT_EQ(KivAsm_DeasmFactory::CreateDisassembler(type, nullptr), nullptr) << std::hex << type;
  }
  const Bytes ping = Hex("48424E33 00000001 00000000 00000000 80000003 00000000");
  for (UInt32 type : {kHBN3, kHCP1}) {
    KivNetBuffer container;
    container.SetBuffer(ping.data(), static_cast<int>(ping.size()));
    std::unique_ptr<KivDisassembler> parser(
        KivAsm_DeasmFactory::CreateDisassembler(type, &container));
    // The parser holds its own copy: the container may go before it is used.
    container.ResetBuffer();
    ASSERT_NE(dynamic_cast<KivHBN3Disassembler *>(parser.get()), nullptr);
    EXPECT_EQ(parser->GetHeaderType(), kHBN3);
    EXPECT_EQ(parser->GetCommandType(), 0x80000003u);
    EXPECT_EQ(parser->ParsePingResponse().iStatus, 1u);
  }
}

TEST(AsmDeasmFactory, RefusedMessagePassesTheExceptionAndLeavesNoParser) {
  // The sanitizer build's leak check fails the run if the refused parser were kept.
  for (UInt32 type : {kHBN3, kHCP1}) {
    try {
      KivAsm_DeasmFactory::CreateDisassembler(type, nullptr);
      ADD_FAILURE() << "a null container must be refused";
    } catch (const KivWrapperException &e) {
      EXPECT_EQ(e.GetErrorCode(), 0x704A1u);
    }
  }
}

TEST(AsmDeasmFactory, BuiltContainersReportTheirHeaderTypeAndCommand) {
  KivHBN3Assembler builder;
  KivNetBuffer ping = builder.CreatePing(1);
  KivNetBufferStorageGuard releasePing(ping);
  EXPECT_EQ(ping.GetHeaderType(), kHBN3);
  EXPECT_EQ(ping.GetCommandType(), 3u);
  KivNetBuffer query = builder.CreateDiscover();
  KivNetBufferStorageGuard releaseQuery(query);
  EXPECT_EQ(query.GetBufferLength(), 41);
  EXPECT_EQ(query.GetHeaderType(), 0u);
}

} // namespace
