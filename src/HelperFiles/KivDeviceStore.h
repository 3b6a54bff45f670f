// The seam between device relocation and the device store: the last known address of each
// device, by its MAC text. Internal to the library.
#ifndef KIV_HELPERFILES_KIVDEVICESTORE_H
#define KIV_HELPERFILES_KIVDEVICESTORE_H

#include <string>

namespace kiv {

// What device relocation needs of the device store. The library uses one Linux implementation
// (KivFileDeviceStore); tests hand the relocation a fake. Implementations never throw.
class KivDeviceStore {
public:
  virtual ~KivDeviceStore() = default;

  // The address stored for `key`, or "" when there is none, when the store cannot be read, or
  // when the stored value is not a dotted IPv4 address of at most 15 characters.
  virtual std::string Get(const std::string &key) const = 0;

  // Stores `value` for `key`, replacing the entry. Returns false when nothing was written: an
  // empty key, a value Get would not give back, or a store that cannot be written.
  virtual bool Set(const std::string &key, const std::string &value) = 0;
};

} // namespace kiv

#endif // KIV_HELPERFILES_KIVDEVICESTORE_H
