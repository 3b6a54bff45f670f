// The device store on Linux: one small text file shared by every process on the host.
#ifndef KIV_HELPERFILES_KIVFILEDEVICESTORE_H
#define KIV_HELPERFILES_KIVFILEDEVICESTORE_H

#include <string>

#include "HelperFiles/KivDeviceStore.h"

namespace kiv {

// A text file, one device a line after a header line that names the store:
//
//   org.kivnetworkcomm.KivNetworkComm device store 1
//   000400128fbc 192.168.1.37
//
// Each line is the key (the MAC text as the driver gave it) and the address, separated by one
// space; bytes of a key or value that are spaces, control or non-ASCII bytes, or "%", are written
// as %XX (two uppercase hexadecimal digits).
//
//  - Reading never creates anything and takes no lock: a file that cannot be opened, is not a
//    regular file, is larger than 1 MiB, lacks the header line or holds a line that is not an
//    entry reads as empty.
//  - Writing holds an exclusive flock on a lock file beside the store ("<file>.lock", created on
//    first write), for at most 2 s of waiting, then reads the entries, replaces one, writes them
//    all to a new temporary file in the same folder, flushes it to disk and renames it over the
//    store. Readers therefore see the old file or the new one, never a mix, and two writers never
//    lose each other's entries. A store whose folder is missing gets it created (that one level,
//    mode 0755 less the umask); nothing else is created above it.
//
// Holds only its path, so one object serves every thread.
class KivFileDeviceStore : public KivDeviceStore {
public:
  // The text of the store's first line; it names the library's preference domain.
  static const char kHeader[];
  // Where the library keeps its store unless KIVNET_DEVICE_STORE names another file.
  static const char kDefaultPath[];

  // A store kept in the file `path`.
  explicit KivFileDeviceStore(std::string path);

  // The store file the library uses: the value of the environment variable KIVNET_DEVICE_STORE
  // when it is set and not empty, otherwise kDefaultPath.
  static std::string DefaultPath();

  // True when `text` is a dotted IPv4 address (four decimal numbers 0-255, each without leading
  // zeros) of at most 15 characters: what the store keeps and gives back.
  static bool IsStorableAddress(const std::string &text);

  std::string Get(const std::string &key) const override;
  bool Set(const std::string &key, const std::string &value) override;

  const std::string &Path() const { return mPath; }

private:
  std::string mPath;
};

} // namespace kiv

#endif // KIV_HELPERFILES_KIVFILEDEVICESTORE_H
