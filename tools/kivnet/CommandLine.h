// kivnet's command line: the commands, their options and their help texts.
#ifndef KIV_TOOLS_KIVNET_COMMANDLINE_H
#define KIV_TOOLS_KIVNET_COMMANDLINE_H

#include <string>
#include <vector>

#include "Common/KivTypes.h"

namespace kivnet {

enum class Command { kNone, kDiscover, kPing, kStatus, kSetIp, kHostInfo };

// The address text that sends to every device on the host's networks (255.255.255.255).
extern const char kBroadcast[];

// Defaults shared by the commands.
constexpr int kDefaultPort = 5353;
constexpr int kDefaultWaitSeconds = 3;
constexpr int kMaxWaitSeconds = 60;

// One parsed command line. Only the fields of the chosen command are set from the arguments;
// the others keep their defaults.
struct CommandLine {
  Command command = Command::kNone;
  bool help = false; // --help: print the command's help (or the general one) and stop
  bool json = false; // --json: machine-readable output
  // Where requests go: a dotted IPv4 address, or kBroadcast (discover and set-ip by default).
  std::string target;
  int port = kDefaultPort;
  int waitSeconds = kDefaultWaitSeconds;
  UInt32 portInfo = 0; // status: port information of the request
  UInt32 channel = 0;  // status: channel of the request
  std::string mac;     // set-ip: the device's MAC address, 12 uppercase hexadecimal digits
  std::string address; // set-ip: the new address, net mask and gateway (dotted)
  std::string netmask;
  std::string gateway;
  std::string password;      // set-ip: the device's password (may be empty)
  std::string interfaceName; // host-info: the interface whose MAC address to show
};

// Parses the arguments after the program name. Returns true with `line` filled, or false with
// `error` set to one line naming the wrong argument (without the program name).
bool ParseCommandLine(const std::vector<std::string> &args, CommandLine &line, std::string &error);

// The help text of `command`, or the general one for Command::kNone. Ends with a line break.
std::string HelpText(Command command);

// The command's name as typed ("discover", "set-ip", ...); "" for kNone.
std::string CommandName(Command command);

// A MAC address in any of the usual forms ("00:1B:2C:3D:4E:5F", "00-1b-2c-3d-4e-5f",
// "001b2c3d4e5f", or the "ET001b2c3d4e5f" form discovery reports) as 12 uppercase hexadecimal
// digits, the form a configuration message needs. False for anything else.
bool NormaliseMac(const std::string &text, std::string &mac);

// True for dotted-decimal IPv4 text of four numbers 0-255 without leading zeros.
bool IsDottedAddress(const std::string &text);

} // namespace kivnet

#endif // KIV_TOOLS_KIVNET_COMMANDLINE_H
