// How fast the library builds and parses messages through its exported functions.
// Run: cmake -DKIV_BUILD_BENCHMARKS=ON ... && build/.../bench/KivMessageBench
#include <benchmark/benchmark.h>

#include <fstream>
#include <memory>
#include <iterator>
#include <string>
#include <vector>

#include "HelperFiles/KivHostPlatform.h"
#include "Interfaces/KivNetworkComm.h"
#include "support/FakeHostPlatform.h"

namespace {

// A container that releases its storage and itself.
struct Container {
  Container() : handle(CreateBuffer()) {}
  ~Container() {
    VerifyBufferHandle(handle)->ResetBuffer();
    delete VerifyBufferHandle(handle);
  }
  KivNetBuffer &buffer() { return *VerifyBufferHandle(handle); }
  HANDLE handle;
};

std::vector<unsigned char> CorpusFile(const std::string &name) {
  std::ifstream file(std::string(KIV_SOURCE_DIR) + "/fuzz/corpus/" + name, std::ios::binary);
  return std::vector<unsigned char>((std::istreambuf_iterator<char>(file)),
                                    std::istreambuf_iterator<char>());
}

void BM_CreatePing(benchmark::State &state) {
  Container message;
  UInt32 stamp = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(CreatePing(kHeaderTypeHBN3, ++stamp, message.handle));
  }
}
BENCHMARK(BM_CreatePing);

void BM_CreateDiscovery(benchmark::State &state) {
  Container message;
  for (auto _ : state) {
    benchmark::DoNotOptimize(CreateDiscovery(kHeaderTypeHCP1, message.handle));
  }
}
BENCHMARK(BM_CreateDiscovery);

void BM_CreateHostListEntry(benchmark::State &state) {
  Container message;
  char name[] = "\x0bSCANHOST-01";
  std::string pin = "1234";
  unsigned char id[6] = {0, 0x11, 0x22, 0x33, 0x44, 0x55};
  for (auto _ : state) {
    benchmark::DoNotOptimize(CreateHostListEntry(kHeaderTypeHBN3, false, 1, 0, 7, name, pin, id,
                                                 0x04E4, message.handle));
  }
}
BENCHMARK(BM_CreateHostListEntry);

void BM_ParsePingResponse(benchmark::State &state) {
  Container message;
  const unsigned char reply[24] = {'H', 'B', 'N', '3', 0,    0, 0, 1, 0, 0, 0, 0,
                                   0,   0,   0,   7,   0x80, 0, 0, 3, 0, 0, 0, 0};
  message.buffer().SetBuffer(reply, 24);
  HBNResponseInfo info;
  for (auto _ : state) {
    benchmark::DoNotOptimize(ParsePingResponse(kHeaderTypeHBN3, message.handle, info));
  }
}
BENCHMARK(BM_ParsePingResponse);

// The answer parse of a two-port device, with the host's interface read on every parse (the MAC
// conversion takes a snapshot of the default interface) or from a fixed fake.
void ParseDiscoveryAnswer(benchmark::State &state, bool realHost) {
  Container message;
  const std::vector<unsigned char> answer =
      CorpusFile("HcpParserFuzzer/discovery-two-of-four-ports");
  message.buffer().SetBuffer(answer.data(), static_cast<int>(answer.size()));
  kivtest::FakeHostPlatform fake("192.168.100.23", "255.255.255.0", "192.168.100.1");
  std::unique_ptr<kiv::HostPlatformOverrideScope> scope;
  if (!realHost) {
    scope.reset(new kiv::HostPlatformOverrideScope(fake));
  }
  KivNetRecord record;
  for (auto _ : state) {
    const UInt32 result =
        ParseHCPResponse(kHeaderTypeHCP1, message.handle, kHCPDiscoveryResponse, record);
    if (result != 0) {
      state.SkipWithError("the answer did not parse (no default interface?)");
      break;
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(answer.size()));
}
void BM_ParseHCPDiscoveryAnswer_FakeHost(benchmark::State &state) {
  ParseDiscoveryAnswer(state, false);
}
void BM_ParseHCPDiscoveryAnswer_RealHost(benchmark::State &state) {
  ParseDiscoveryAnswer(state, true);
}
BENCHMARK(BM_ParseHCPDiscoveryAnswer_FakeHost);
BENCHMARK(BM_ParseHCPDiscoveryAnswer_RealHost);

// What a handle check costs: GetHeaderType on a live container (the check and a field read) and
// on a pointer that is no handle, with a thousand other handles alive, against the reference of
// reading the class identifier straight through the pointer (what a check that trusted any
// pointer would cost).
struct ManyHandles {
  ManyHandles() {
    for (int i = 0; i < 1000; ++i) {
      containers.emplace_back(new Container());
    }
  }
  std::vector<std::unique_ptr<Container>> containers;
};

void BM_HandleCheck_LiveContainer(benchmark::State &state) {
  ManyHandles others;
  Container message;
  for (auto _ : state) {
    benchmark::DoNotOptimize(GetHeaderType(message.handle));
  }
}
BENCHMARK(BM_HandleCheck_LiveContainer);

void BM_HandleCheck_NoHandle(benchmark::State &state) {
  ManyHandles others;
  int local = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(GetHeaderType(&local));
  }
}
BENCHMARK(BM_HandleCheck_NoHandle);

void BM_HandleCheck_ReferenceFieldRead(benchmark::State &state) {
  Container message;
  KivNetBuffer *volatile pointer = &message.buffer();
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        pointer->getClassID() == kKivNetBufferClassID ? pointer->GetHeaderType() : 0x0A091101u);
  }
}
BENCHMARK(BM_HandleCheck_ReferenceFieldRead);

} // namespace
