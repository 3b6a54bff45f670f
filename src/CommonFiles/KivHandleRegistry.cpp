// The registry of live handles behind the boundary's handle checks.
#include "CommonFiles/KivHandleRegistry.h"

#include <mutex>
#include <unordered_map>

namespace kiv {

namespace {

struct Registry {
  std::mutex lock;
  std::unordered_map<const void *, UInt32> live; // handle address -> class identifier
};

Registry &TheRegistry() {
  // Made once and never destroyed: containers and sockets may be destroyed while the process
  // exits, after function-local statics are gone, and their destructors still call ForgetHandle.
  static Registry *registry = new Registry();
  return *registry;
}

} // namespace

void RegisterHandle(const void *object, UInt32 classID) {
  Registry &registry = TheRegistry();
  std::lock_guard<std::mutex> hold(registry.lock);
  registry.live[object] = classID;
}

void ForgetHandle(const void *object, UInt32 classID) noexcept {
  if (object == nullptr) {
    return;
  }
  Registry &registry = TheRegistry();
  std::lock_guard<std::mutex> hold(registry.lock);
  const auto found = registry.live.find(object);
  if (found != registry.live.end() && found->second == classID) {
    registry.live.erase(found);
  }
}

bool IsHandleOfKind(const void *object, UInt32 classID) noexcept {
  if (object == nullptr) {
    return false;
  }
  Registry &registry = TheRegistry();
  std::lock_guard<std::mutex> hold(registry.lock);
  const auto found = registry.live.find(object);
  return found != registry.live.end() && found->second == classID;
}

} // namespace kiv
