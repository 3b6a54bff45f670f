// The factory's choice of builder and parser by header type, and what the builder hands back.
#include <gtest/gtest.h>

#include <memory>

#include "Asm_Deasm/KivHBN3Assembler.h"
#include "Asm_Deasm/KivHBN3Disassembler.h"
#include "CommonFiles/KivAsm_DeasmFactory.h"
#include "support/TestSupport.h"

using namespace kivtest;

namespace {

// The exported functions hold their builder and parser themselves after asking IsKnownHeaderType,
// so it must name exactly the header types the factory makes them for.
TEST(AssemblerFactoryTest, KnownHeaderTypesAreThoseTheFactoryServes) {
  KivNetBuffer message;
  KivNetBufferStorageGuard release(message);
  const Bytes ping = Hex("48424E33 00000000 00000000 00000007 00000003 00000000");
  message.SetBuffer(ping.data(), 24);
  for (UInt32 type : {0x48424E33u, 0x48435031u, 0x48424E31u, 0x48435030u, 0u, 0xFFFFFFFFu}) {
    const bool known = type == 0x48424E33u || type == 0x48435031u;
    EXPECT_EQ(KivAsm_DeasmFactory::IsKnownHeaderType(type), known) << std::hex << type;
    const std::unique_ptr<KivAssembler> builder(KivAsm_DeasmFactory::CreateAssembler(type));
    const std::unique_ptr<KivDisassembler> parser(
        KivAsm_DeasmFactory::CreateDisassembler(type, &message));
    EXPECT_EQ(dynamic_cast<KivHBN3Assembler *>(builder.get()) != nullptr, known)
        << std::hex << type;
    EXPECT_EQ(dynamic_cast<KivHBN3Disassembler *>(parser.get()) != nullptr, known)
        << std::hex << type;
  }
}

// The builder writes each message into the block its container holds, which reads the header
// type and command from it like any stored message: a caller can take the block over as it is.
TEST(AssemblerFactoryTest, BuiltContainerHoldsTheMessageWithItsFields) {
  KivHBN3Assembler builder;
  KivNetBuffer ping = builder.CreatePing(7), query = builder.CreateDiscover(), taker;
  KivNetBufferStorageGuard g1(ping), g2(query), g3(taker);
  EXPECT_EQ(ToHex(ping.GetBufferRef(), ping.GetBufferLength()),
            ToHex(Hex("48424E33 00000000 00000000 00000007 00000003 00000000")));
  EXPECT_EQ(ping.GetHeaderType(), 0x48424E33u);
  EXPECT_EQ(ping.GetCommandType(), 3u);
  EXPECT_EQ(query.GetBufferLength(), 41);
  EXPECT_EQ(query.GetHeaderType(), 0u) << "the query's first four bytes";
  const unsigned char *const bytes = ping.GetBufferRef();
  taker.TakeBuffer(ping);
  EXPECT_EQ(taker.GetBufferRef(), bytes);
  EXPECT_EQ(taker.GetCommandType(), 3u);
}

} // namespace
