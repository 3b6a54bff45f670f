// kivnet's MAC query and relocation. The relocation functions report no progress and no reason,
// so what kivnet says about the stages comes from the device store (read, never written) and the
// time passed.
#include "tools/kivnet/Relocation.h"

#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "HelperFiles/KivFileDeviceStore.h"
#include "Interfaces/KivNetworkComm.h"

namespace kivnet {

namespace {

typedef std::chrono::steady_clock Clock;

double Since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

std::string Seconds1(double seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", seconds);
  return text;
}

} // namespace

std::string RelocationForm(const std::string &mac) {
  std::string lower;
  for (char c : mac) {
    lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  return lower;
}

std::string DeviceStorePath() { return kiv::KivFileDeviceStore::DefaultPath(); }

std::string RememberedAddress(const std::string &path, const std::string &mac) {
  return kiv::KivFileDeviceStore(path).Get(mac);
}

void QueryMac(const CommandLine &line, MacAnswer &answer) {
  answer = MacAnswer();
  answer.address = line.target;
  answer.waitSeconds = line.waitTenths / 10;
  std::string address = line.target;
  const Clock::time_point start = Clock::now();
  answer.mac = QueryMACAddressByHCP(address, static_cast<UInt16>(answer.waitSeconds));
  answer.seconds = Since(start);
}

RelocationPlan PlanRelocation(const CommandLine &line) {
  RelocationPlan plan;
  plan.mac = RelocationForm(line.mac);
  plan.store = DeviceStorePath();
  plan.remembered = RememberedAddress(plan.store, plan.mac);
  plan.given = line.from;
  plan.waitSeconds = line.waitTenths / 10;
  return plan;
}

void Relocate(const RelocationPlan &plan, RelocationResult &result) {
  result = RelocationResult();
  // The driver's buffer: 16 bytes, the address and its terminator; written only on success.
  char buffer[16] = {};
  std::strncpy(buffer, plan.given.c_str(), sizeof buffer - 1);
  const Clock::time_point start = Clock::now();
  result.found =
      ResolveNewIPAddress(buffer, plan.mac.c_str(), static_cast<UInt16>(plan.waitSeconds));
  result.seconds = Since(start);
  if (result.found) {
    result.address = std::string(buffer, strnlen(buffer, sizeof buffer));
    result.remembered = RememberedAddress(plan.store, plan.mac) == result.address;
  }
}

std::string RelocationStage(const RelocationPlan &plan, double elapsed) {
  const bool remembered = !plan.remembered.empty();
  const std::string total = remembered ? "/3 " : "/2 ";
  double stageStart = 0;
  int stage = 1;
  if (remembered) {
    if (elapsed < kCheckSeconds) {
      return "1" + total + "asking the remembered address " + plan.remembered + " (" +
             Seconds1(elapsed) + " s)";
    }
    stageStart = kCheckSeconds;
    stage = 2;
  }
  if (elapsed < stageStart + kCheckSeconds) {
    return std::to_string(stage) + total + "asking " + plan.given + ", the address given (" +
           Seconds1(elapsed - stageStart) + " s)";
  }
  const double browseStart = stageStart + kCheckSeconds;
  const std::string browse = std::to_string(stage + 1) + total;
  const double left = browseStart + plan.waitSeconds - elapsed;
  if (left > 0) {
    const long whole = static_cast<long>(left + 0.999);
    return browse + "browsing DNS-SD for web servers (" + std::to_string(whole) + " s left)";
  }
  return browse + "ending the browse";
}

} // namespace kivnet
