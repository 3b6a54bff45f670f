// DNS-SD browse and resolve through the Avahi client library, on an Avahi simple poll loop that
// another thread can wake.
#include "HelperFiles/KivAvahiServiceBrowser.h"

#include <avahi-client/client.h>
#include <avahi-client/lookup.h>
#include <avahi-common/simple-watch.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <utility>

namespace kiv {

namespace {

// Services found while the callback is busy wait here; a network announcing more than this many
// web servers at once has the rest dropped rather than growing the queue without end.
constexpr std::size_t kMaxPending = 256;

template <typename T, void (*Free)(T *)> struct AvahiDeleter {
  void operator()(T *object) const { Free(object); }
};
// avahi_client_free and the lookup frees return values the deleter does not need.
void FreeClient(AvahiClient *client) { avahi_client_free(client); }
void FreeBrowser(AvahiServiceBrowser *browser) { avahi_service_browser_free(browser); }
void FreeResolver(AvahiServiceResolver *resolver) { avahi_service_resolver_free(resolver); }

typedef std::unique_ptr<AvahiSimplePoll, AvahiDeleter<AvahiSimplePoll, avahi_simple_poll_free>>
    PollPtr;
typedef std::unique_ptr<AvahiClient, AvahiDeleter<AvahiClient, FreeClient>> ClientPtr;
typedef std::unique_ptr<AvahiServiceBrowser, AvahiDeleter<AvahiServiceBrowser, FreeBrowser>>
    BrowserPtr;
typedef std::unique_ptr<AvahiServiceResolver, AvahiDeleter<AvahiServiceResolver, FreeResolver>>
    ResolverPtr;

// What one resolution has found so far.
struct Resolution {
  bool done = false;
  std::vector<UInt32> addresses;
};

class KivAvahiBrowser : public KivServiceBrowser {
public:
  KivAvahiBrowser() : mWake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
  ~KivAvahiBrowser() override {
    if (mWake >= 0) {
      close(mWake);
    }
  }
  KivAvahiBrowser(const KivAvahiBrowser &) = delete;
  KivAvahiBrowser &operator=(const KivAvahiBrowser &) = delete;

  bool SearchForServices(const std::string &domain, const std::string &type, Callback callback,
                         void *info) override;
  void StopSearch() override;
  std::vector<UInt32> Resolve(const KivBrowsedService &service, int waitMs) override;

private:
  bool Ended() const { return mStopped.load() || mFailed; }

  static int PollWithWake(pollfd *fds, unsigned int count, int timeout, void *self);
  static void OnClient(AvahiClient *client, AvahiClientState state, void *self);
  static void OnBrowse(AvahiServiceBrowser *browser, AvahiIfIndex interface, AvahiProtocol protocol,
                       AvahiBrowserEvent event, const char *name, const char *type,
                       const char *domain, AvahiLookupResultFlags flags, void *self);
  static void OnResolve(AvahiServiceResolver *resolver, AvahiIfIndex interface,
                        AvahiProtocol protocol, AvahiResolverEvent event, const char *name,
                        const char *type, const char *domain, const char *hostName,
                        const AvahiAddress *address, uint16_t port, AvahiStringList *txt,
                        AvahiLookupResultFlags flags, void *resolution);

  // Written by StopSearch from any thread: the flag, then one count on the descriptor, which the
  // poll loop watches beside Avahi's own descriptors.
  const int mWake;
  std::atomic<bool> mStopped{false};

  // Used only by the searching thread.
  AvahiSimplePoll *mPoll = nullptr;
  AvahiClient *mClient = nullptr;
  bool mFailed = false;
  std::deque<std::pair<KivBrowsedService, UInt32>> mPending;
};

void KivAvahiBrowser::StopSearch() {
  mStopped.store(true);
  if (mWake >= 0) {
    const std::uint64_t one = 1;
    // A full counter (never, in practice) already wakes the loop.
    const ssize_t written = write(mWake, &one, sizeof one);
    (void)written;
  }
}

bool KivAvahiBrowser::SearchForServices(const std::string &domain, const std::string &type,
                                        Callback callback, void *info) {
  if (mWake < 0 || callback == nullptr) {
    return false;
  }
  if (mStopped.load()) {
    return true; // stopped before it began: nothing to search
  }
  const PollPtr poll(avahi_simple_poll_new());
  if (!poll) {
    return false;
  }
  avahi_simple_poll_set_func(poll.get(), PollWithWake, this);
  int error = 0;
  // Without AVAHI_CLIENT_NO_FAIL the client fails at once where no daemon is on the bus, instead
  // of waiting for one to appear.
  const ClientPtr client(avahi_client_new(avahi_simple_poll_get(poll.get()), AvahiClientFlags(0),
                                          OnClient, this, &error));
  if (!client) {
    return false;
  }
  mPoll = poll.get();
  mClient = client.get();
  bool searched = false;
  {
    // IPv4 mDNS only: the devices are reached over IPv4, and browsing both transports would
    // report every service twice.
    const BrowserPtr browser(avahi_service_browser_new(
        client.get(), AVAHI_IF_UNSPEC, AVAHI_PROTO_INET, type.c_str(),
        domain.empty() ? nullptr : domain.c_str(), AvahiLookupFlags(0), OnBrowse, this));
    searched = browser != nullptr;
    while (searched && !Ended()) {
      if (!mPending.empty()) {
        const std::pair<KivBrowsedService, UInt32> found = std::move(mPending.front());
        mPending.pop_front();
        try {
          callback(this, found.second, &found.first, 0, info);
        } catch (...) {
          // The callback must not throw; if it does, the search goes on with the next service.
        }
        continue;
      }
      // Blocks until Avahi has work, or StopSearch wakes the loop.
      if (avahi_simple_poll_iterate(mPoll, -1) != 0) {
        mFailed = true;
      }
    }
    // The browser is released here, before its client.
  }
  mPending.clear();
  mClient = nullptr;
  mPoll = nullptr;
  return searched;
}

std::vector<UInt32> KivAvahiBrowser::Resolve(const KivBrowsedService &service, int waitMs) {
  Resolution resolution;
  if (mClient == nullptr || Ended()) {
    return resolution.addresses;
  }
  try {
    const ResolverPtr resolver(avahi_service_resolver_new(
        mClient, service.interfaceIndex, service.protocol, service.name.c_str(),
        service.type.c_str(), service.domain.c_str(), AVAHI_PROTO_INET, AvahiLookupFlags(0),
        OnResolve, &resolution));
    if (!resolver) {
      return resolution.addresses;
    }
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(waitMs > 0 ? waitMs : 0);
    while (!resolution.done && !Ended()) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) {
        break;
      }
      // Services found meanwhile are queued by OnBrowse and reported after this one.
      if (avahi_simple_poll_iterate(mPoll, static_cast<int>(left.count()) + 1) != 0) {
        mFailed = true;
      }
    }
    // Freeing the resolver here means its callback can no longer reach `resolution`.
  } catch (...) {
    return std::vector<UInt32>();
  }
  return resolution.done ? resolution.addresses : std::vector<UInt32>();
}

int KivAvahiBrowser::PollWithWake(pollfd *fds, unsigned int count, int timeout, void *self) {
  KivAvahiBrowser *browser = static_cast<KivAvahiBrowser *>(self);
  try {
    std::vector<pollfd> all(fds, fds + count);
    all.push_back(pollfd{browser->mWake, POLLIN, 0});
    int ready = ::poll(all.data(), all.size(), timeout);
    if (ready < 0) {
      return ready;
    }
    for (unsigned int i = 0; i < count; ++i) {
      fds[i].revents = all[i].revents;
    }
    if (all.back().revents != 0) {
      std::uint64_t counter = 0;
      const ssize_t drained = read(browser->mWake, &counter, sizeof counter);
      (void)drained;
      --ready; // the caller looks only at its own descriptors
    }
    return ready;
  } catch (...) {
    // No memory for the descriptor list: Avahi reports a failed iteration and the search ends.
    return -1;
  }
}

void KivAvahiBrowser::OnClient(AvahiClient *, AvahiClientState state, void *self) {
  // The daemon went away or the bus was lost: nothing more will be found.
  if (state == AVAHI_CLIENT_FAILURE) {
    static_cast<KivAvahiBrowser *>(self)->mFailed = true;
  }
}

void KivAvahiBrowser::OnBrowse(AvahiServiceBrowser *, AvahiIfIndex interface,
                               AvahiProtocol protocol, AvahiBrowserEvent event, const char *name,
                               const char *type, const char *domain, AvahiLookupResultFlags flags,
                               void *self) {
  KivAvahiBrowser *browser = static_cast<KivAvahiBrowser *>(self);
  if (event == AVAHI_BROWSER_FAILURE) {
    browser->mFailed = true;
    return;
  }
  if (event != AVAHI_BROWSER_NEW || browser->mPending.size() >= kMaxPending) {
    return;
  }
  // Called from Avahi's C code: nothing may be thrown through it.
  try {
    KivBrowsedService service;
    service.name = name != nullptr ? name : "";
    service.type = type != nullptr ? type : "";
    service.domain = domain != nullptr ? domain : "";
    service.interfaceIndex = interface;
    service.protocol = protocol;
    browser->mPending.emplace_back(std::move(service), static_cast<UInt32>(flags));
  } catch (...) {
    // No memory: this service is not reported.
  }
}

void KivAvahiBrowser::OnResolve(AvahiServiceResolver *, AvahiIfIndex, AvahiProtocol,
                                AvahiResolverEvent event, const char *, const char *, const char *,
                                const char *, const AvahiAddress *address, uint16_t,
                                AvahiStringList *, AvahiLookupResultFlags, void *resolution) {
  Resolution *result = static_cast<Resolution *>(resolution);
  result->done = true;
  if (event == AVAHI_RESOLVER_FOUND && address != nullptr && address->proto == AVAHI_PROTO_INET) {
    try {
      result->addresses.push_back(address->data.ipv4.address); // network byte order already
    } catch (...) {
      // No memory: resolved to nothing.
    }
  }
}

} // namespace

std::unique_ptr<KivServiceBrowser> MakeAvahiServiceBrowser() {
  try {
    return std::unique_ptr<KivServiceBrowser>(new KivAvahiBrowser());
  } catch (...) {
    return nullptr;
  }
}

} // namespace kiv
