// Trace lines and the one-line hex dump.
#include "Common/Tracer/KivTracer.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

void TraceLogBody(int iType, const char *func, int line, const char *format, ...) {
  char *text = nullptr;
  va_list args;
  va_start(args, format);
  const int formatted = vasprintf(&text, format, args);
  va_end(args);
  if (formatted < 0 || text == nullptr) {
    return;
  }
  const char *name = func != nullptr ? func : "";
  switch (iType) {
  case kTraceBody:
  case kTraceEntry:
    std::printf("%s in line:%d ## %s\n", name, line, text);
    break;
  case kTraceParameters:
    std::printf("%s in line:%d ## Parameters : %s\n", name, line, text);
    break;
  case kTraceReturns:
    std::printf("%s in line:%d ## Returns %s\n", name, line, text);
    break;
  default:
    break;
  }
  std::free(text);
}

void TraceLogStream(const unsigned char *message, int length) {
  // Longer blocks belong in DumpHexMessage2, which breaks its lines.
  if (message == nullptr || length < 1 || length > 511) {
    return;
  }
  for (int i = 0; i < length; ++i) {
    std::printf("0x%02x ", message[i]);
  }
  std::printf("\n");
}
