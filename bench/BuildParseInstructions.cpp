// Instructions and heap allocations per message of every exported building and parsing function,
// counted under callgrind. bench/callgrind-per-message.sh runs it and prints the table.
//
// Each function runs N times on a fixed input after one warm-up call; the callgrind counters are
// zeroed before the N calls and dumped after them under the case's name, so a dump holds exactly
// the N calls (set-up, the warm-up and the other cases excluded). Heap allocations are counted by
// this program's own malloc family (callgrind leaves malloc alone), so they include the C library's
// (getifaddrs, file streams) as well as operator new.
//
// Output, one line per case: "case<TAB>name<TAB>calls<TAB>allocations". A case that cannot run here
// (a real-host case on a machine without a default IPv4 interface) prints "skip<TAB>name<TAB>why".
#include <valgrind/callgrind.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "HelperFiles/KivHostPlatform.h"
#include "HelperFiles/KivNetHelperUtils.h"
#include "Interfaces/KivNetworkComm.h"
#include "support/FakeHostPlatform.h"

// ---- Allocation counter -------------------------------------------------------------------------

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
void __libc_free(void *block);
}

namespace {
unsigned long gAllocations = 0;
} // namespace

// Every heap block of the process goes through these (operator new calls malloc).
extern "C" void *malloc(size_t size) {
  ++gAllocations;
  return __libc_malloc(size);
}
extern "C" void *calloc(size_t count, size_t size) {
  ++gAllocations;
  return __libc_calloc(count, size);
}
extern "C" void *realloc(void *block, size_t size) {
  ++gAllocations;
  return __libc_realloc(block, size);
}
extern "C" void free(void *block) { __libc_free(block); }

namespace {

// ---- Inputs
// --------------------------------------------------------------------------------------

// A container made by the library, released with its storage.
struct Container {
  Container() : handle(CreateBuffer()) {}
  ~Container() {
    VerifyBufferHandle(handle)->ResetBuffer();
    delete VerifyBufferHandle(handle);
  }
  Container(const Container &) = delete;
  Container &operator=(const Container &) = delete;
  HANDLE handle;
};

std::vector<unsigned char> CorpusFile(const std::string &name) {
  std::ifstream file(std::string(KIV_SOURCE_DIR) + "/fuzz/corpus/" + name, std::ios::binary);
  std::vector<unsigned char> bytes((std::istreambuf_iterator<char>(file)),
                                   std::istreambuf_iterator<char>());
  if (bytes.empty()) {
    std::fprintf(stderr, "BuildParseInstructions: cannot read fuzz/corpus/%s\n", name.c_str());
    std::exit(2);
  }
  return bytes;
}

// A container holding a received message from the corpus.
struct Received : Container {
  explicit Received(const std::string &corpusName) {
    const std::vector<unsigned char> bytes = CorpusFile(corpusName);
    VerifyBufferHandle(handle)->SetBuffer(bytes.data(), static_cast<int>(bytes.size()));
  }
};

// The fixed host of the fake-host cases.
const kivtest::FakeHostPlatform &FakeHost() {
  static const kivtest::FakeHostPlatform host("192.168.100.23", "255.255.255.0", "192.168.100.1");
  return host;
}

bool RealHostHasDefaultInterface() {
  try {
    KivNetHelperUtils snapshot;
    return true;
  } catch (int) {
    return false;
  }
}

// ---- Measurement
// ---------------------------------------------------------------------------------

enum class Host { kNone, kFake, kReal };

// Any answer kind other than the discovery answer's asks for a configuration answer.
constexpr UInt32 kConfigurationAnswer = 0;

// Runs `call` once to warm up, then `calls` times between a zeroing and a dump of the callgrind
// counters named `name`. Every call must give 0: a failing call would measure another path.
void Measure(const char *name, Host host, int calls, const std::function<UInt32()> &call) {
  if (host == Host::kReal && !RealHostHasDefaultInterface()) {
    std::printf("skip\t%s\tthis machine has no default IPv4 interface\n", name);
    return;
  }
  std::unique_ptr<kiv::HostPlatformOverrideScope> fake;
  if (host != Host::kReal) {
    // Functions that need no host never ask it; the others see the fixed one.
    fake.reset(new kiv::HostPlatformOverrideScope(FakeHost()));
  }
  const UInt32 first = call();
  if (first != 0) {
    std::fprintf(stderr, "BuildParseInstructions: %s returned 0x%08X\n", name,
                 static_cast<unsigned>(first));
    std::exit(1);
  }
  UInt32 failures = 0;
  const unsigned long before = gAllocations;
  CALLGRIND_ZERO_STATS;
  for (int i = 0; i < calls; ++i) {
    failures |= call();
  }
  CALLGRIND_DUMP_STATS_AT(name);
  const unsigned long allocations = gAllocations - before;
  if (failures != 0) {
    std::fprintf(stderr, "BuildParseInstructions: %s failed during the run\n", name);
    std::exit(1);
  }
  std::printf("case\t%s\t%d\t%lu\n", name, calls, allocations);
  std::fflush(stdout);
}

} // namespace

int main(int argc, char **argv) {
  const int calls = argc > 1 ? std::atoi(argv[1]) : 1000;
  if (calls <= 0) {
    std::fprintf(stderr, "usage: %s [calls per function, default 1000]\n", argv[0]);
    return 2;
  }
  if (!RUNNING_ON_VALGRIND) {
    std::fprintf(stderr, "BuildParseInstructions: not under callgrind; only allocations are "
                         "counted (run bench/callgrind-per-message.sh)\n");
  }

  // Building: each into the same container, as a driver reuses one.
  {
    Container out;
    UInt32 stamp = 0;
    Measure("CreateDiscovery", Host::kNone, calls,
            [&] { return CreateDiscovery(kHeaderTypeHCP1, out.handle); });
    Measure("CreatePing", Host::kNone, calls,
            [&] { return CreatePing(kHeaderTypeHBN3, ++stamp, out.handle); });
    Measure("CreateStatusCacheRequest", Host::kNone, calls,
            [&] { return CreateStatusCacheRequest(kHeaderTypeHBN3, 1, 5, ++stamp, out.handle); });
    char name[] = "\x0bSCANHOST-01";
    std::string pin = "1234";
    unsigned char id[6] = {0, 0x11, 0x22, 0x33, 0x44, 0x55};
    Measure("CreateHostListEntry", Host::kNone, calls, [&] {
      return CreateHostListEntry(kHeaderTypeHBN3, false, 1, 1, ++stamp, name, pin, id, 0x04E4,
                                 out.handle);
    });
    Measure("CreateRequestScan", Host::kNone, calls, [&] {
      return CreateRequestScan(kHeaderTypeHBN3, false, 1, ++stamp, 0x0102030405060708ull,
                               out.handle);
    });
    Measure("CreateRequestScanReply", Host::kNone, calls,
            [&] { return CreateRequestScanReply(kHeaderTypeHBN3, false, 1, ++stamp, out.handle); });
    std::string destMac = "0004000A1B2C", srcMac = "000000000000", srcIP = "192.168.100.23",
                destIP = "192.168.100.40", password = "secret", mask = "255.255.255.0",
                gateway = "192.168.100.1";
    const auto ipConfig = [&] {
      return CreateIPConfig(kHeaderTypeHCP1, destMac, srcMac, srcIP, destIP, password, mask,
                            gateway, out.handle);
    };
    Measure("CreateIPConfig (fake host)", Host::kFake, calls, ipConfig);
    Measure("CreateIPConfig (real host)", Host::kReal, calls, ipConfig);
  }

  // Parsing: each into a record the caller keeps, as a driver does.
  {
    Received discovery("HcpParserFuzzer/discovery-two-of-four-ports");
    Received configuration("HcpParserFuzzer/config-accepted");
    Received ping("ParseFunctionsFuzzer/ping-reply");
    Received scanReply("Hbn3ParserFuzzer/request-scan-reply");
    Received hostList("ParseFunctionsFuzzer/host-list-answer");
    Received status("ParseFunctionsFuzzer/status-answer");
    Received scanRequest("ParseFunctionsFuzzer/scan-request");
    KivNetRecord record;
    const auto parseDiscovery = [&] {
      return ParseHCPResponse(kHeaderTypeHCP1, discovery.handle, kHCPDiscoveryResponse, record);
    };
    Measure("ParseHCPResponse discovery (fake host)", Host::kFake, calls, parseDiscovery);
    Measure("ParseHCPResponse discovery (real host)", Host::kReal, calls, parseDiscovery);
    Measure("ParseHCPResponse configuration", Host::kNone, calls, [&] {
      return ParseHCPResponse(kHeaderTypeHCP1, configuration.handle, kConfigurationAnswer, record);
    });
    HBNResponseInfo info;
    Measure("ParsePingResponse", Host::kNone, calls,
            [&] { return ParsePingResponse(kHeaderTypeHBN3, ping.handle, info); });
    Measure("ParseRequestScanResponse", Host::kNone, calls,
            [&] { return ParseRequestScanResponse(kHeaderTypeHBN3, scanReply.handle, info); });
    Measure("ParseHostListEntryResponse", Host::kNone, calls,
            [&] { return ParseHostListEntryResponse(kHeaderTypeHBN3, hostList.handle, info); });
    StatCacheResponse statusRecord;
    Measure("ParseStatusCacheResponse", Host::kNone, calls,
            [&] { return ParseStatusCacheResponse(kHeaderTypeHBN3, status.handle, statusRecord); });
    Measure("ParseRequestScan", Host::kNone, calls,
            [&] { return ParseRequestScan(kHeaderTypeHBN3, scanRequest.handle, info); });
  }
  return 0;
}
