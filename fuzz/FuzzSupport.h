// Set-up shared by the message fuzz targets: a fixed host and a container holding the input.
#ifndef KIV_FUZZ_FUZZSUPPORT_H
#define KIV_FUZZ_FUZZSUPPORT_H

#include <climits>
#include <cstddef>
#include <cstdint>

#include "../tests/support/FakeHostPlatform.h"
#include "CommonFiles/KivNetBuffer.h"

namespace kivfuzz {

// Stops the run with a crash report when an oracle does not hold.
inline void Require(bool condition) {
  if (!condition) {
    __builtin_trap();
  }
}

// Runs `body` on a container holding exactly the input, on a host with a default interface (so
// the MAC conversion of HCP answers never depends on the machine).
template <class Body> int WithMessage(const uint8_t *data, size_t size, Body &&body) {
  static kivtest::FakeHostPlatform platform("192.168.1.10", "255.255.255.0", "192.168.1.1");
  static kiv::HostPlatformOverrideScope scope(platform);
  static const unsigned char kNothing = 0;
  if (size > static_cast<size_t>(INT_MAX)) {
    return 0;
  }
  KivNetBuffer container;
  KivNetBufferStorageGuard guard(container);
  container.SetBuffer(size > 0 ? data : &kNothing, static_cast<int>(size));
  body(container);
  return 0;
}

} // namespace kivfuzz

#endif // KIV_FUZZ_FUZZSUPPORT_H
