// kivnet's command line: the commands, their options and their help texts.
#ifndef KIV_TOOLS_KIVNET_COMMANDLINE_H
#define KIV_TOOLS_KIVNET_COMMANDLINE_H

#include <string>
#include <vector>

#include "Common/KivTypes.h"

namespace kivnet {

enum class Command {
  kNone,
  kDiscover,
  kPing,
  kStatus,
  kSetIp,
  kHostInfo,
  kChannel,
  kQueryMac,
  kRelocate,
};

// The address text that sends to every device on the host's networks (255.255.255.255).
extern const char kBroadcast[];

// Defaults shared by the commands. Waits are kept in tenths of a second.
constexpr int kDefaultPort = 5353;
constexpr int kDefaultWaitTenths = 30;
constexpr int kMinWaitTenths = 1;
constexpr int kMaxWaitTenths = 600;
// query-mac and relocate wait in whole seconds (the library's unit): their defaults.
constexpr int kDefaultQueryMacSeconds = 2;
constexpr int kDefaultRelocateSeconds = 10;
// channel: the most frames --frames may ask for.
constexpr int kMaxFrames = 1000000;

// Exit statuses, the same for every command.
constexpr int kExitSuccess = 0;
constexpr int kExitFailure = 1;      // no answer, an unreadable or refused answer, a failed call
constexpr int kExitUsage = 2;        // a wrong command line
constexpr int kExitNothingFound = 3; // discover, query-mac, relocate: no device found
// channel: ended by a signal, 128 + the signal's number (130 for SIGINT, 143 for SIGTERM)
constexpr int kExitSignalBase = 128;

// One parsed command line. Only the fields of the chosen command are set from the arguments;
// the others keep their defaults.
struct CommandLine {
  Command command = Command::kNone;
  bool help = false;      // --help, -h, or "help": print the command's help (or the general one)
  bool version = false;   // --version: print the versions of kivnet and of the library
  bool json = false;      // --json: one machine-readable document
  bool jsonLines = false; // --json-lines (discover): one object a line as devices answer
  // Where requests go: a dotted IPv4 address, or kBroadcast (discover and set-ip by default).
  std::string target;
  int port = kDefaultPort;
  bool portGiven = false;
  // The wait; for query-mac and relocate whole seconds times ten. channel: 0 when not given (no
  // limit).
  int waitTenths = kDefaultWaitTenths;
  bool waitGiven = false;
  UInt32 portInfo = 0; // status: port information of the request
  UInt32 channel = 0;  // status: channel of the request
  std::string mac;     // set-ip, relocate: the device's MAC address, 12 uppercase hex digits
  std::string address; // set-ip: the new address, net mask and gateway (dotted)
  std::string netmask;
  std::string gateway;
  std::string password;      // set-ip: the device's password (may be empty)
  bool force = false;        // set-ip: send a configuration the checks refuse
  std::string interfaceName; // host-info: the interface whose MAC address to show
  // channel: the end-point interface (a KivEndPointInterface value: 0 scan, 1 HID, 2 print,
  // 3 media), the bytes of each --send in order, the listener instead of reads, and the number
  // of frames after which to stop (0: no count).
  int endPoint = 0;
  std::vector<std::string> sends;
  bool listen = false;
  int frames = 0;
  std::string from; // relocate: the address the device had (dotted)
};

// Parses the arguments after the program name. Returns true with `line` filled, or false with
// `error` set to one line naming the wrong argument (without the program name); `line.command`
// then still tells the command when it was recognised.
bool ParseCommandLine(const std::vector<std::string> &args, CommandLine &line, std::string &error);

// True when the arguments ask for JSON output (--json or --json-lines before a "--"), so that
// even a command line that does not parse is answered in JSON.
bool AsksForJson(const std::vector<std::string> &args);

// The help text of `command`, or the general one for Command::kNone. Ends with a line break.
std::string HelpText(Command command);

// The options `command` takes ("--port", ...), "-h" and "--help" included.
std::vector<std::string> OptionNames(Command command);

// The command's name as typed ("discover", "set-ip", ...); "" for kNone.
std::string CommandName(Command command);

// A MAC address in any of the usual forms ("00:1B:2C:3D:4E:5F", "00-1b-2c-3d-4e-5f",
// "001b.2c3d.4e5f", "001b2c3d4e5f", or the "ET001b2c3d4e5f" form discovery reports) as 12
// uppercase hexadecimal digits, the form a configuration message needs. False for anything else.
bool NormaliseMac(const std::string &text, std::string &mac);

// Hexadecimal bytes ("1b 45 0d", "1b:45:0d", "1b450d"): groups of digit pairs separated by spaces
// or colons. False for an odd group, a character that is no digit or separator, or no byte.
bool ParseHexBytes(const std::string &text, std::string &bytes);

// The name --interface takes for an end-point interface value ("scan", "hid", "print", "media").
std::string EndPointName(int endPoint);

// Why a query to `address` (dotted) would not stay with one device: the MAC query of query-mac
// and relocate is sent with broadcasting allowed, so the limited broadcast address
// 255.255.255.255, a multicast address (224.0.0.0/4) or the broadcast address of one of the
// host's interfaces would reach every device there. Empty when none applies.
std::string BroadcastProblem(const std::string &address);

// True for dotted-decimal IPv4 text of four numbers 0-255 without leading zeros.
bool IsDottedAddress(const std::string &text);

// Why the device would be left unreachable by `address`, `netmask` and `gateway` (dotted texts):
// a net mask whose one bits are not contiguous or that is 0.0.0.0, the address 0.0.0.0, the
// network's own or broadcast address, or a gateway outside the new network (0.0.0.0, no
// gateway, passes). Empty when none applies.
std::string ConfigurationProblem(const std::string &address, const std::string &netmask,
                                 const std::string &gateway);

// The wait as seconds text with its tenth ("3.0", "0.5").
std::string WaitText(int tenths);

} // namespace kivnet

#endif // KIV_TOOLS_KIVNET_COMMANDLINE_H
