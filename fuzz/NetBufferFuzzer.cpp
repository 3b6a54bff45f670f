// Fuzzes the message container: a script of stores, appends, extractions and copies, with
// lengths taken from the input, must never touch memory outside the container's block.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "CommonFiles/KivNetBuffer.h"
#include "Exceptions/KivWrapperException.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  KivNetBuffer buffer;
  KivNetBufferStorageGuard guard(buffer);
  size_t at = 0;
  while (at + 2 <= size) {
    const uint8_t operation = data[at] % 5;
    // Lengths from -8 to 247 exercise the refusal of negative counts.
    const int length = static_cast<int>(data[at + 1]) - 8;
    at += 2;
    const int available = static_cast<int>(std::min<size_t>(size - at, 4096));
    const int sourceLength = length < 0 ? length : std::min(length, available);
    std::vector<unsigned char> room(length > 0 ? static_cast<size_t>(length) : 0);
    try {
      if (operation == 0) {
        buffer.SetBuffer(data + at, sourceLength);
      } else if (operation == 1) {
        buffer.InsertIntoBuffer(data + at, sourceLength);
      } else if (operation == 2) {
        buffer.ExtractFromBuffer(room.data(), length);
      } else if (operation == 3) {
        buffer.GetBuffer(room.data(), length);
      } else {
        buffer.ResetBuffer();
      }
    } catch (const KivWrapperException &) {
      // Refusals are expected; what matters is that nothing outside a buffer was touched.
    }
    if (sourceLength > 0) {
      at += static_cast<size_t>(sourceLength);
    }
  }
  return 0;
}
