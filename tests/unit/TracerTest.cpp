// Trace lines and hex dumps, byte for byte.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Common/Tracer/KivTracer.h"
#include "Sockets/KivSocket.h"
#include "support/TestSupport.h"

using kivtest::CaptureStdout;

namespace {

struct TraceCase {
  int kind;
  const char *expected;
};

TEST(Tracer, TraceLogBodyShapes) {
  const TraceCase cases[] = {
      {0, "Open in line:12 ## port=5\n"},
      {1, "Open in line:12 ## port=5\n"},
      {2, "Open in line:12 ## Parameters : port=5\n"},
      {3, "Open in line:12 ## Returns port=5\n"},
      {4, ""},
      {-1, ""},
  };
  for (const TraceCase &c : cases) {
    EXPECT_EQ(CaptureStdout([&] { TraceLogBody(c.kind, "Open", 12, "port=%d", 5); }), c.expected)
        << "kind " << c.kind;
  }
}

std::string Pairs(int count, int first = 0) {
  std::string text;
  char pair[8];
  for (int i = 0; i < count; ++i) {
    std::snprintf(pair, sizeof pair, "0x%02x ", (first + i) & 0xFF);
    text += pair;
  }
  return text;
}

std::vector<unsigned char> Counting(int count) {
  std::vector<unsigned char> bytes(static_cast<size_t>(count));
  for (int i = 0; i < count; ++i) {
    bytes[static_cast<size_t>(i)] = static_cast<unsigned char>(i);
  }
  return bytes;
}

TEST(Tracer, TraceLogStreamPrintsOneLineUpTo511Bytes) {
  std::vector<unsigned char> bytes = Counting(512);
  EXPECT_EQ(CaptureStdout([&] { TraceLogStream(bytes.data(), 3); }), "0x00 0x01 0x02 \n");
  EXPECT_EQ(CaptureStdout([&] { TraceLogStream(bytes.data(), 511); }), Pairs(511) + "\n");
  EXPECT_EQ(CaptureStdout([&] { TraceLogStream(bytes.data(), 512); }), "");
  EXPECT_EQ(CaptureStdout([&] { TraceLogStream(bytes.data(), 0); }), "");
  EXPECT_EQ(CaptureStdout([&] { TraceLogStream(nullptr, 4); }), "");
}

TEST(Tracer, DumpHexMessage2BreaksEveryTwentyBytes) {
  std::vector<unsigned char> bytes = Counting(40);
  EXPECT_EQ(CaptureStdout([&] { DumpHexMessage2(bytes.data(), 21); }),
            "DUMP LENGTH:21\n" + Pairs(20) + "\n" + Pairs(1, 20) + "\n");
  EXPECT_EQ(CaptureStdout([&] { DumpHexMessage2(bytes.data(), 40); }),
            "DUMP LENGTH:40\n" + Pairs(20) + "\n" + Pairs(20, 20) + "\n\n");
  EXPECT_EQ(CaptureStdout([&] { DumpHexMessage2(bytes.data(), 0); }), "DUMP LENGTH:0\n\n");
  EXPECT_EQ(CaptureStdout([&] { DumpHexMessage2(bytes.data(), -3); }), "DUMP LENGTH:-3\n\n");
}

TEST(Tracer, DumpHexMessage3IsFramedInRed) {
  std::vector<unsigned char> bytes = Counting(2);
  EXPECT_EQ(CaptureStdout([&] { DumpHexMessage3(bytes.data(), 0); }),
            "\x1b[0;31mDUMP LENGTH:0\n\x1b[0m\n");
  EXPECT_EQ(CaptureStdout([&] { DumpHexMessage3(bytes.data(), 2); }),
            "\x1b[0;31mDUMP LENGTH:2\n0x00 0x01 \x1b[0m\n");
}

} // namespace
