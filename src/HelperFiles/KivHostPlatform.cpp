// Selection of the host platform: the Linux one, or a test's override.
#include "HelperFiles/KivHostPlatform.h"

#include <atomic>

#include "HelperFiles/KivLinuxHostPlatform.h"

namespace kiv {

namespace {
// Atomic so that a test setting it and a library thread reading it never race, even though the
// hook is meant for one thread at a time.
std::atomic<const KivHostPlatform *> gOverride{nullptr};
} // namespace

const KivHostPlatform &CurrentHostPlatform() {
  const KivHostPlatform *platform = gOverride.load(std::memory_order_acquire);
  return platform != nullptr ? *platform : LinuxHostPlatform();
}

const KivHostPlatform *SetHostPlatformOverride(const KivHostPlatform *platform) {
  return gOverride.exchange(platform, std::memory_order_acq_rel);
}

} // namespace kiv
