// Fuzzes the HBN3 channel's frame reader: arbitrary bytes from a device, waiting whole in a
// stream pair and then closed, are read with the untimed Read, the timed Read and the listener;
// each must give exactly the frames, counts and callbacks that an independent reading of the
// bytes gives, and touch no memory outside its buffers.
#include <cstddef>
#include <cstdint>

#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1 || size > 16384) {
    return 0;
  }
  // The first byte chooses the tickle limit of the reads (-1 to 2); the rest is the stream.
  const int maxTickles = static_cast<int>(data[0] % 4) - 1;
  const kivfuzz::Bytes stream(data + 1, data + size);
  const KivTimeVal noWait = {0, 0};
  kivfuzz::ReadBoxAll(stream, false, maxTickles, nullptr);
  kivfuzz::ReadBoxAll(stream, false, maxTickles, &noWait);
  kivfuzz::ListenAll(stream, false);
  return 0;
}
