// The socket base of the library and the message hex dumps.
#include "Sockets/KivSocket.h"

#include <cstdio>

namespace {

// The bytes of a dump, twenty to a line.
void DumpBytes(const unsigned char *message, int length) {
  if (message == nullptr) {
    return;
  }
  for (int i = 0; i < length; ++i) {
    std::printf("0x%02x ", message[i]);
    if ((i + 1) % 20 == 0) {
      std::printf("\n");
    }
  }
}

} // namespace

void DumpHexMessage2(unsigned char *message, int length) {
  std::printf("DUMP LENGTH:%d\n", length);
  DumpBytes(message, length);
  std::printf("\n");
}

void DumpHexMessage3(unsigned char *message, int length) {
  std::printf("\x1b[0;31mDUMP LENGTH:%d\n", length);
  DumpBytes(message, length);
  std::printf("\x1b[0m\n");
}
