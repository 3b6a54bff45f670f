// kivnet: finds and talks to network printers and scanners from the command line through
// libKivNetworkComm's exported functions.
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "tools/kivnet/CommandLine.h"
#include "tools/kivnet/Exchange.h"
#include "tools/kivnet/Report.h"

using namespace kivnet;

namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

int Failed(const CommandLine &line, const std::string &message) {
  std::fprintf(stderr, "kivnet: %s: %s\n", CommandName(line.command).c_str(), message.c_str());
  return kExitFailure;
}

int Print(const std::string &text) {
  std::fputs(text.c_str(), stdout);
  return 0;
}

int Run(const CommandLine &line) {
  switch (line.command) {
  case Command::kDiscover: {
    Discovery discovery;
    const Failure failure = Discover(line, discovery);
    if (failure.failed()) {
      return Failed(line, failure.Describe());
    }
    return Print(line.json ? DiscoveryJson(discovery) : DiscoveryTable(discovery));
  }
  case Command::kPing: {
    PingAnswer answer;
    const Failure failure = Ping(line, answer);
    if (failure.failed()) {
      return Failed(line, failure.Describe());
    }
    return Print(line.json ? PingJson(answer) : PingText(answer));
  }
  case Command::kStatus: {
    StatusAnswer answer;
    const Failure failure = Status(line, answer);
    if (failure.failed()) {
      return Failed(line, failure.Describe());
    }
    return Print(line.json ? StatusJson(answer) : StatusText(answer));
  }
  case Command::kSetIp: {
    ConfigAnswer answer;
    const Failure failure = SetIp(line, answer);
    if (failure.failed()) {
      return Failed(line, failure.Describe());
    }
    if (answer.record.iResponse != 0) {
      return Failed(line, "device " + line.mac + " refused the configuration (result byte " +
                              std::to_string(answer.record.iResponse) + ", answered from " +
                              answer.from + ")");
    }
    return Print(line.json ? ConfigJson(answer, line.mac) : ConfigText(answer, line.mac));
  }
  case Command::kHostInfo: {
    bool missing = false;
    HostInfo host;
    try {
      host = ReadHostInfo(line.interfaceName, missing);
    } catch (int) {
      // The library's signal that the host has no default IPv4 interface.
      return Failed(line, "this host has no default IPv4 interface (no default route)");
    }
    if (missing) {
      return Failed(line,
                    "no interface named '" + line.interfaceName + "' with a hardware address");
    }
    return Print(line.json ? HostInfoJson(host) : HostInfoText(host));
  }
  case Command::kNone:
    break;
  }
  return Print(HelpText(Command::kNone));
}

} // namespace

int main(int argc, char **argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  CommandLine line;
  std::string error;
  if (!ParseCommandLine(args, line, error)) {
    std::fprintf(stderr, "kivnet: %s (see 'kivnet %s--help')\n", error.c_str(),
                 line.command == Command::kNone ? "" : (CommandName(line.command) + " ").c_str());
    return kExitUsage;
  }
  if (line.help) {
    return Print(HelpText(line.command));
  }
  try {
    return Run(line);
  } catch (const std::exception &e) {
    return Failed(line, e.what());
  }
}
