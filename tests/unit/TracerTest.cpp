// Trace lines and hex dumps, byte for byte.
#include <gtest/gtest.h>

#include <numeric>

#include "Common/Tracer/KivTracer.h"
#include "Sockets/KivSocket.h"
#include "support/TestSupport.h"

using namespace kivtest;

namespace {

TEST(Tracer, TraceLogBodyShapes) {
  const char *expected[] = {"Open in line:12 ## port=5\n", "Open in line:12 ## port=5\n",
                            "Open in line:12 ## Parameters : port=5\n",
                            "Open in line:12 ## Returns port=5\n", ""};
  for (int kind = 0; kind <= 4; ++kind) {
    EXPECT_EQ(CaptureStdout([&] { TraceLogBody(kind, "Open", 12, "port=%d", 5); }), expected[kind])
        << "kind " << kind;
  }
}

// "0xNN " for `count` bytes 00, 01, ... from `first`.
std::string Pairs(int count, int first = 0) {
  std::string text;
  char pair[8];
  for (int i = first; i < first + count; ++i) {
    std::snprintf(pair, sizeof pair, "0x%02x ", i & 0xFF);
    text += pair;
  }
  return text;
}

TEST(Tracer, HexDumps) {
  unsigned char bytes[512];
  std::iota(bytes, bytes + 512, 0); // 00 to FF, twice
  // One line of up to 511 bytes, nothing for more or for none.
  EXPECT_EQ(CaptureStdout([&] { TraceLogStream(bytes, 511); }), Pairs(511) + "\n");
  EXPECT_EQ(CaptureStdout([&] { TraceLogStream(bytes, 512); }), "");
  EXPECT_EQ(CaptureStdout([&] { TraceLogStream(nullptr, 4); }), "");
  // A line break after every twentieth byte.
  EXPECT_EQ(CaptureStdout([&] { DumpHexMessage2(bytes, 21); }),
            "DUMP LENGTH:21\n" + Pairs(20) + "\n" + Pairs(1, 20) + "\n");
  EXPECT_EQ(CaptureStdout([&] { DumpHexMessage2(bytes, 40); }),
            "DUMP LENGTH:40\n" + Pairs(20) + "\n" + Pairs(20, 20) + "\n\n");
  EXPECT_EQ(CaptureStdout([&] { DumpHexMessage3(bytes, 2); }),
            "\x1b[0;31mDUMP LENGTH:2\n0x00 0x01 \x1b[0m\n");
}

} // namespace
