// The seam between device relocation and DNS service discovery: browse one service type, resolve
// a found service to its IPv4 addresses. Internal to the library.
#ifndef KIV_HELPERFILES_KIVSERVICEBROWSER_H
#define KIV_HELPERFILES_KIVSERVICEBROWSER_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Common/KivTypes.h"

namespace kiv {

// One service instance a browse reported, as the browser needs it back to resolve it.
struct KivBrowsedService {
  std::string name;        // instance name, e.g. "Office printer"
  std::string type;        // service type, e.g. "_http._tcp"
  std::string domain;      // domain it was found in, e.g. "local"
  int interfaceIndex = -1; // interface it was seen on (the browser's own numbering)
  int protocol = -1;       // transport it was seen over (the browser's own numbering)
};

// A DNS-SD browser for one relocation: made on the browse thread, searched once, released on the
// browse thread. The library uses one Linux implementation (MakeAvahiServiceBrowser()); tests
// hand the relocation a fake.
class KivServiceBrowser {
public:
  // Called once for each service found, on the thread that runs SearchForServices, one service
  // at a time (the next is reported only after this returns). `flags` are the browser's own
  // result flags; `error` is 0. `info` is the pointer given to SearchForServices. The callback
  // must not throw.
  typedef void (*Callback)(KivServiceBrowser *browser, UInt32 flags,
                           const KivBrowsedService *domainOrService, int error, void *info);

  virtual ~KivServiceBrowser() = default;

  // Browses for services of `type` in `domain` ("" for the default browsing domains) on the
  // calling thread and reports each one to `callback`. Blocks until StopSearch is called (from any
  // thread, also before this call: then it returns at once) or until the browse cannot go on (no
  // DNS-SD daemon, or the daemon went away). Returns false when no search could be started.
  virtual bool SearchForServices(const std::string &domain, const std::string &type,
                                 Callback callback, void *info) = 0;

  // Makes a running SearchForServices return soon and a later one return at once. Callable from
  // any thread, at any time, more than once. Does not wait for the search to return.
  virtual void StopSearch() = 0;

  // Resolves `service` (as reported to the callback) and returns its IPv4 addresses, network byte
  // order, in the order found; empty when it cannot be resolved within `waitMs` milliseconds or
  // the search was stopped. Blocks; call it only from the callback, on the searching thread.
  virtual std::vector<UInt32> Resolve(const KivBrowsedService &service, int waitMs) = 0;
};

// Makes the browser of one relocation; called on the browse thread. May return null when no
// browser can be made (the relocation then browses nothing).
typedef std::function<std::unique_ptr<KivServiceBrowser>()> KivServiceBrowserFactory;

} // namespace kiv

#endif // KIV_HELPERFILES_KIVSERVICEBROWSER_H
