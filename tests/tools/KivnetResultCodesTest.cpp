// kivnet's result-code texts: each code family, made by the library's own constants and
// exceptions so that the tool's tables cannot drift from them, and the odd values.
#include <gtest/gtest.h>

#include <string>

#include "Asm_Deasm/KivHBN3Disassembler.h"
#include "Exceptions/KivSocketExceptions.h"
#include "Exceptions/KivWrapperException.h"
#include "Interfaces/KivCallFrame.h"
#include "tools/kivnet/ResultCodes.h"

namespace {

using namespace kiv::frame;

template <class Exception> UInt32 Thrown(const Exception &exception) {
  return kExceptionCodeBase + exception.GetErrorCode();
}

TEST(KivnetResultCodes, EveryFamilyAndTheOddValuesDecode) {
  const struct {
    UInt32 code;
    std::string text;
  } cases[] = {
      {0, "success"},
      {InterfaceCode(kFnSendTo, kKindGeneral),
       "SendTo: general failure (no builder or parser for the header type, or an unexpected "
       "exception)"},
      {0x0A091305, "function 0x13 (unknown): failure kind 0x05 (unknown)"},
      {Thrown(KivWrapperException(kClassHBN3Disassembler, KivHBN3Disassembler::kFnParseHCPResponse,
                                  COPY_ERROR)),
       "the HCP answer could not be read (COPY_ERROR)"},
      {Thrown(KivWrapperException(kClassHBN3Disassembler,
                                  KivHBN3Disassembler::kFnParseStatusCacheResponse, COPY_ERROR)),
       "the status answer could not be read (COPY_ERROR)"},
      {Thrown(KivWrapperException(kClassNetBuffer, 0xE00, BUFFER_NULL)),
       "message container function 0x0E failed (BUFFER_NULL)"},
      {Thrown(KivSocketException(REUSE_PORT_ERROR)),
       "address or port reuse refused (REUSE_PORT_ERROR)"},
      {Thrown(KivSocketException(SELECT_ERROR)), "a readiness wait failed (SELECT_ERROR)"},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(kivnet::DescribeCode(c.code), c.text) << kivnet::CodeHex(c.code);
  }
  // Just past each family's ends, another middle or prefix, and the close-twice result.
  for (UInt32 code : {0x0A0000C4u, 0x0A0000B0u, 0x0A0001B6u, 0x0A0707A9u, 0x0A0707A0u, 0x0A0A0000u,
                      0x0B091401u, 0xFFFFFFFFu}) {
    EXPECT_EQ(kivnet::DescribeCode(code), "not a KivNetworkComm result code") << std::hex << code;
  }
}

} // namespace
