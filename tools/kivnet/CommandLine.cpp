// kivnet's command line. Every value is checked here, so the network code only ever sees
// addresses, ports and MAC texts in the forms the library expects.
#include "tools/kivnet/CommandLine.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include <cctype>
#include <cstdlib>
#include <set>

namespace kivnet {

const char kBroadcast[] = "BROADCAST";

namespace {

// The help texts. man/kivnet.1 says the same in the manual's form; change both.
const char kGeneralHelp[] =
    "usage: kivnet COMMAND [options]\n"
    "       kivnet help [COMMAND]\n"
    "       kivnet --version\n"
    "Finds and talks to network printers and scanners through libKivNetworkComm.\n"
    "\n"
    "commands:\n"
    "  discover    find devices (HCP discovery query; broadcast unless --to is given)\n"
    "  ping        ask one device for an HBN3 ping reply\n"
    "  status      read one device's status cache\n"
    "  set-ip      give a device (named by its MAC address) a new IPv4 configuration\n"
    "  host-info   show this host's network settings as the library sees them\n"
    "  channel     open an HBN3 channel to a device, write bytes and show the frames it sends\n"
    "  query-mac   ask the device at one address for its MAC address\n"
    "  relocate    find a device again by its MAC address after its address changed\n"
    "\n"
    "'kivnet help COMMAND' or 'kivnet COMMAND --help' describes a command. Options may come in\n"
    "any order, each at most once (--send as often as needed), as '--option VALUE' or\n"
    "'--option=VALUE'; '--' ends them. 'kivnet --version' prints the version of kivnet and of\n"
    "the library it runs with.\n"
    "\n"
    "Exit status:\n"
    "  0    success (discover: at least one device answered)\n"
    "  1    failure: no answer, an unreadable answer, a refused configuration or channel, a\n"
    "       bad frame, or a failed library or system call (the error line gives the library's\n"
    "       result code and the system's reason)\n"
    "  2    wrong command line, or a set-ip configuration refused by the checks\n"
    "  3    discover: no device answered; query-mac: no MAC address came back; relocate: the\n"
    "       device was not found\n"
    "  130  channel: ended by SIGINT (Ctrl-C), after closing the channel; 143 for SIGTERM\n"
    "With --json or --json-lines a failure is also printed on standard output as one JSON\n"
    "object {\"error\": ..., \"kind\": ..., \"code\": ..., \"meaning\": ...}.\n";

const char kDiscoverHelp[] =
    "usage: kivnet discover [--to ADDRESS] [--port PORT] [--wait SECONDS]\n"
    "                       [--json | --json-lines]\n"
    "Sends the HCP discovery query and lists every device that answers within the wait, each\n"
    "as soon as it has answered. A device that answers more than once is listed once. Answers\n"
    "that cannot be read are reported on standard error.\n"
    "\n"
    "  --to ADDRESS    send to this IPv4 address instead of broadcasting to 255.255.255.255\n"
    "  --port PORT     the devices' HCP port (default 5353)\n"
    "  --wait SECONDS  how long to collect answers: 0.1 to 60, in tenths (default 3)\n"
    "  --json          print one JSON document with every device when the wait ends\n"
    "  --json-lines    print one JSON object a line: each device as it answers, each\n"
    "                  unreadable answer, and a summary last\n"
    "  -h, --help      print this help\n"
    "\n"
    "Exit status: 0 at least one device answered, 3 none did, 1 a failure, 2 a wrong command\n"
    "line.\n";

const char kPingHelp[] =
    "usage: kivnet ping ADDRESS [--port PORT] [--wait SECONDS] [--json]\n"
    "Sends an HBN3 ping to the device at ADDRESS and waits for its reply. Only a reply from\n"
    "ADDRESS counts; datagrams from elsewhere are passed over.\n"
    "\n"
    "  --port PORT     the device's HBN3 port (default 5353)\n"
    "  --wait SECONDS  how long to wait for the reply: 0.1 to 60, in tenths (default 3)\n"
    "  --json          print the reply as JSON\n"
    "  -h, --help      print this help\n"
    "\n"
    "Exit status: 0 the device replied, 1 no reply or an unreadable one, 2 a wrong command\n"
    "line.\n";

const char kStatusHelp[] =
    "usage: kivnet status ADDRESS [--port PORT] [--port-info N] [--channel N]\n"
    "                             [--wait SECONDS] [--json]\n"
    "Asks the device at ADDRESS for its status cache and prints the answer. Only an answer from\n"
    "ADDRESS counts; an answer that declares more status bytes than arrived is reported as cut\n"
    "short.\n"
    "\n"
    "  --port PORT     the device's HBN3 port (default 5353)\n"
    "  --port-info N   port information of the request, 0 to 4294967295 (default 0)\n"
    "  --channel N     channel of the request, 0 to 4294967295 (default 0)\n"
    "  --wait SECONDS  how long to wait for the answer: 0.1 to 60, in tenths (default 3)\n"
    "  --json          print the answer as JSON\n"
    "  -h, --help      print this help\n"
    "\n"
    "Exit status: 0 the device answered, 1 no answer or an unreadable or cut one, 2 a wrong\n"
    "command line.\n";

const char kSetIpHelp[] =
    "usage: kivnet set-ip --mac MAC --address A --netmask M --gateway G [--password P]\n"
    "                     [--to ADDRESS] [--port PORT] [--wait SECONDS] [--force] [--json]\n"
    "Sends an HCP configuration message that gives the device with the MAC address MAC the\n"
    "address A, net mask M and gateway G, and waits for the device's answer. Only an answer\n"
    "that names MAC counts, and with --to only one from ADDRESS or from the new address A;\n"
    "unreadable datagrams are passed over.\n"
    "\n"
    "  --mac MAC       the device's MAC address: 00:1B:2C:3D:4E:5F, 00-1b-2c-3d-4e-5f,\n"
    "                  001b.2c3d.4e5f, 001b2c3d4e5f, or the ET001b2c3d4e5f form that\n"
    "                  discover prints\n"
    "  --address A     the device's new IPv4 address\n"
    "  --netmask M     the device's new net mask, such as 255.255.255.0\n"
    "  --gateway G     the device's new default gateway, inside the new network; 0.0.0.0 for\n"
    "                  none\n"
    "  --password P    the device's configuration password, sent as given (default none)\n"
    "  --to ADDRESS    send to this IPv4 address (the device's present one) instead of\n"
    "                  broadcasting to 255.255.255.255\n"
    "  --port PORT     the device's HCP port (default 5353)\n"
    "  --wait SECONDS  how long to wait for the answer: 0.1 to 60, in tenths (default 3)\n"
    "  --force         send the configuration even when the checks below refuse it\n"
    "  --json          print the outcome as JSON\n"
    "  -h, --help      print this help\n"
    "\n"
    "The configuration re-addresses a real device, so it is refused (exit status 2) unless\n"
    "--force is given when the net mask is not contiguous or is 0.0.0.0, the address is\n"
    "0.0.0.0 or the network's own or broadcast address, or the gateway lies outside the new\n"
    "network.\n"
    "\n"
    "Exit status: 0 the device accepted, 1 no answer or a refusal by the device, 2 a wrong\n"
    "command line or a configuration refused by the checks.\n";

const char kHostInfoHelp[] =
    "usage: kivnet host-info [--interface NAME] [--json]\n"
    "Shows the host name, the default IPv4 interface (the one of the default route) with its\n"
    "address, net mask, broadcast address and gateway, and the hardware addresses of the\n"
    "host's interfaces. Sends nothing.\n"
    "\n"
    "  --interface NAME  show the hardware address of this interface only\n"
    "  --json            print the settings as JSON\n"
    "  -h, --help        print this help\n"
    "\n"
    "Exit status: 0 success, 1 no default IPv4 interface or no such interface, 2 a wrong\n"
    "command line.\n";

const char kChannelHelp[] =
    "usage: kivnet channel ADDRESS --port PORT [--interface scan|hid|print|media]\n"
    "                      [--send HEX]... [--listen] [--frames N] [--wait SECONDS] [--json]\n"
    "Opens an HBN3 channel to one end-point interface of the device at ADDRESS (the nine-byte\n"
    "open request and its answer), writes the bytes of each --send in order, then shows every\n"
    "frame the device sends: its number, its length and a hex dump (the first 64 bytes of a\n"
    "longer frame). Tickle packets are skipped. It ends when the device closes the channel,\n"
    "after --frames frames, after --wait seconds without a frame, or on Ctrl-C (SIGINT) or\n"
    "SIGTERM; the channel is then closed and a summary line printed.\n"
    "\n"
    "  --port PORT      the device's channel port (TCP), 1 to 65535; required\n"
    "  --interface I    the end-point interface to open: scan (default), hid, print, media\n"
    "  --send HEX       bytes to write after the open, as hexadecimal pairs, spaces or colons\n"
    "                   allowed (\"1b 45\", \"1b:45\", \"1b45\"); may be given more than once,\n"
    "                   each written as one write that may wait 5 s for the device to take it\n"
    "  --listen         have the library's listener thread hand the frames over (the frames\n"
    "                   then come to a callback) instead of reading them with ReadManaged; the\n"
    "                   listener ends by itself after more than 20 s without a frame\n"
    "  --frames N       stop after N frames, 1 to 1000000 (default: no count)\n"
    "  --wait SECONDS   stop when no frame has come for this long: 0.1 to 60, in tenths\n"
    "                   (default: no limit); counted from the open, then from each frame\n"
    "  --json           print one JSON object a line: the open, each write, each frame, and\n"
    "                   the end\n"
    "  -h, --help       print this help\n"
    "\n"
    "Exit status: 0 the channel ended as asked (with --frames: all N frames came), 1 the\n"
    "device refused the open request, could not be reached, sent a bad frame header, took no\n"
    "data, or ended the channel before N frames, 2 a wrong command line, 130 SIGINT (143\n"
    "SIGTERM) after the channel was closed.\n";

const char kQueryMacHelp[] =
    "usage: kivnet query-mac ADDRESS [--wait SECONDS] [--json]\n"
    "Asks the device at ADDRESS for its MAC address with the HCP discovery query sent to UDP\n"
    "port 5353 (QueryMACAddressByHCP) and prints it in the form relocate takes (12 lowercase\n"
    "hexadecimal digits) and in the ET form discover prints. A broadcast or multicast address\n"
    "is refused: the query would reach every device there.\n"
    "\n"
    "  --wait SECONDS  how long to wait for the answer: 1 to 60 whole seconds (default 2)\n"
    "  --json          print the answer as JSON\n"
    "  -h, --help      print this help\n"
    "\n"
    "Exit status: 0 a MAC address came back, 3 nothing usable answered within the wait, 2 a\n"
    "wrong command line.\n";

const char kRelocateHelp[] =
    "usage: kivnet relocate MAC --from ADDRESS [--wait SECONDS] [--json]\n"
    "Finds the device with the MAC address MAC again after its IPv4 address changed\n"
    "(ResolveNewIPAddress). Each candidate address is asked for its MAC address (the HCP\n"
    "discovery query to UDP port 5353, 2 s for the answer): first the address the device store\n"
    "remembers for MAC, then ADDRESS, then every web server DNS-SD finds within the wait. The\n"
    "address found is remembered in the device store. On a terminal the stage under way is\n"
    "shown on standard error, judged by the time passed (the library reports no progress).\n"
    "\n"
    "  MAC              the device's MAC address: 00:1B:2C:3D:4E:5F, 00-1b-2c-3d-4e-5f,\n"
    "                   001b.2c3d.4e5f, 001b2c3d4e5f, or the ET001b2c3d4e5f form that\n"
    "                   discover prints\n"
    "  --from ADDRESS   the dotted IPv4 address the device had (not a broadcast or multicast\n"
    "                   address); required\n"
    "  --wait SECONDS   how long the DNS-SD browse may take: 0 to 60 whole seconds (default\n"
    "                   10); the checks before it take up to 4 s more\n"
    "  --json           print the outcome as JSON\n"
    "  -h, --help       print this help\n"
    "\n"
    "The device store is the file KIVNET_DEVICE_STORE names, or /var/lib/KivNetworkComm/devices.\n"
    "\n"
    "Exit status: 0 the device was found, 3 it was not found, 2 a wrong command line.\n";

struct CommandEntry {
  const char *name;
  Command command;
};
const CommandEntry kCommands[] = {
    {"discover", Command::kDiscover},  {"ping", Command::kPing},
    {"status", Command::kStatus},      {"set-ip", Command::kSetIp},
    {"host-info", Command::kHostInfo}, {"channel", Command::kChannel},
    {"query-mac", Command::kQueryMac}, {"relocate", Command::kRelocate},
};

Command CommandNamed(const std::string &name) {
  for (const CommandEntry &entry : kCommands) {
    if (name == entry.name) {
      return entry.command;
    }
  }
  return Command::kNone;
}

// A whole decimal number within [low, high].
bool Number(const std::string &text, unsigned long long low, unsigned long long high,
            unsigned long long &value) {
  if (text.empty() || text.size() > 10) {
    return false;
  }
  for (char c : text) {
    if (c < '0' || c > '9') {
      return false;
    }
  }
  value = std::strtoull(text.c_str(), nullptr, 10);
  return value >= low && value <= high;
}

// Seconds with at most one decimal ("2", "0.5", "12.0") as tenths; false for anything else.
bool Tenths(const std::string &text, int &tenths) {
  const std::size_t dot = text.find('.');
  const std::string whole = text.substr(0, dot);
  std::string tenth = "0";
  if (dot != std::string::npos) {
    tenth = text.substr(dot + 1);
    if (tenth.size() != 1) {
      return false;
    }
  }
  unsigned long long seconds = 0, fraction = 0;
  if (whole.size() > 3 || !Number(whole, 0, 999, seconds) || !Number(tenth, 0, 9, fraction)) {
    return false;
  }
  tenths = static_cast<int>(seconds * 10 + fraction);
  return true;
}

// Which options each command takes; a value option is followed by its value. A repeatable
// option may be given more than once.
struct OptionEntry {
  const char *name;
  bool takesValue;
  bool (*allowed)(Command);
  bool repeatable;
};

bool Any(Command) { return true; }
bool Waiting(Command c) { return c != Command::kHostInfo; }
// query-mac and relocate always ask UDP port 5353: the library takes no port for them.
bool WithPort(Command c) {
  return c != Command::kHostInfo && c != Command::kQueryMac && c != Command::kRelocate;
}
bool Sending(Command c) { return c == Command::kDiscover || c == Command::kSetIp; }
bool DiscoverOnly(Command c) { return c == Command::kDiscover; }
bool StatusOnly(Command c) { return c == Command::kStatus; }
bool SetIpOnly(Command c) { return c == Command::kSetIp; }
bool HostInfoOrChannel(Command c) { return c == Command::kHostInfo || c == Command::kChannel; }
bool ChannelOnly(Command c) { return c == Command::kChannel; }
bool RelocateOnly(Command c) { return c == Command::kRelocate; }

const OptionEntry kOptions[] = {
    {"--help", false, Any, false},
    {"--json", false, Any, false},
    {"--json-lines", false, DiscoverOnly, false},
    {"--to", true, Sending, false},
    {"--port", true, WithPort, false},
    {"--wait", true, Waiting, false},
    {"--port-info", true, StatusOnly, false},
    {"--channel", true, StatusOnly, false},
    {"--mac", true, SetIpOnly, false},
    {"--address", true, SetIpOnly, false},
    {"--netmask", true, SetIpOnly, false},
    {"--gateway", true, SetIpOnly, false},
    {"--password", true, SetIpOnly, false},
    {"--force", false, SetIpOnly, false},
    {"--interface", true, HostInfoOrChannel, false},
    {"--send", true, ChannelOnly, true},
    {"--listen", false, ChannelOnly, false},
    {"--frames", true, ChannelOnly, false},
    {"--from", true, RelocateOnly, false},
};

// The end-point interfaces by the names --interface takes, in KivEndPointInterface order.
const char *const kEndPointNames[] = {"scan", "hid", "print", "media"};

// Stores one flag into `line`.
void SetFlag(const std::string &option, CommandLine &line) {
  if (option == "--help") {
    line.help = true;
  } else if (option == "--json") {
    line.json = true;
  } else if (option == "--json-lines") {
    line.jsonLines = true;
  } else if (option == "--force") {
    line.force = true;
  } else if (option == "--listen") {
    line.listen = true;
  }
}

// The seconds of --wait for the command: tenths from 0.1 to 60 for most, whole seconds for
// query-mac (1 to 60) and relocate (0 to 60), whose library functions count whole seconds.
bool ApplyWait(const std::string &value, CommandLine &line, std::string &error) {
  if (line.command == Command::kQueryMac || line.command == Command::kRelocate) {
    const unsigned long long low = line.command == Command::kQueryMac ? 1 : 0;
    unsigned long long seconds = 0;
    if (!Number(value, low, 60, seconds)) {
      error =
          "--wait wants whole seconds from " + std::to_string(low) + " to 60, not '" + value + "'";
      return false;
    }
    line.waitTenths = static_cast<int>(seconds * 10);
  } else {
    int tenths = 0;
    if (!Tenths(value, tenths) || tenths < kMinWaitTenths || tenths > kMaxWaitTenths) {
      error = "--wait wants seconds from 0.1 to 60 with at most one decimal, not '" + value + "'";
      return false;
    }
    line.waitTenths = tenths;
  }
  line.waitGiven = true;
  return true;
}

// Stores one option's value into `line`; false with `error` set when the value is wrong.
bool Apply(const std::string &option, const std::string &value, CommandLine &line,
           std::string &error) {
  unsigned long long number = 0;
  if (option == "--to") {
    if (value == kBroadcast || value == "broadcast") {
      line.target = kBroadcast;
    } else if (IsDottedAddress(value)) {
      line.target = value;
    } else {
      error = "--to wants a dotted IPv4 address or BROADCAST, not '" + value + "'";
      return false;
    }
  } else if (option == "--port") {
    if (!Number(value, 1, 65535, number)) {
      error = "--port wants a number from 1 to 65535, not '" + value + "'";
      return false;
    }
    line.port = static_cast<int>(number);
    line.portGiven = true;
  } else if (option == "--wait") {
    return ApplyWait(value, line, error);
  } else if (option == "--port-info" || option == "--channel") {
    if (!Number(value, 0, 0xFFFFFFFFull, number)) {
      error = option + " wants a number from 0 to 4294967295, not '" + value + "'";
      return false;
    }
    (option == "--port-info" ? line.portInfo : line.channel) = static_cast<UInt32>(number);
  } else if (option == "--mac") {
    if (!NormaliseMac(value, line.mac)) {
      error = "--mac wants a MAC address such as 00:1B:2C:3D:4E:5F, not '" + value + "'";
      return false;
    }
  } else if (option == "--address" || option == "--netmask" || option == "--gateway") {
    if (!IsDottedAddress(value)) {
      error = option + " wants a dotted IPv4 address, not '" + value + "'";
      return false;
    }
    (option == "--address"   ? line.address
     : option == "--netmask" ? line.netmask
                             : line.gateway) = value;
  } else if (option == "--password") {
    line.password = value;
  } else if (option == "--interface" && line.command == Command::kChannel) {
    std::string lower;
    for (char c : value) {
      lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    int found = -1;
    for (int i = 0; i < 4; ++i) {
      found = lower == kEndPointNames[i] ? i : found;
    }
    if (found < 0) {
      error = "--interface wants scan, hid, print or media, not '" + value + "'";
      return false;
    }
    line.endPoint = found;
  } else if (option == "--interface") {
    if (value.empty()) {
      error = "--interface wants an interface name";
      return false;
    }
    line.interfaceName = value;
  } else if (option == "--send") {
    std::string bytes;
    if (!ParseHexBytes(value, bytes)) {
      error = "--send wants hexadecimal bytes such as '1b 45 0d', not '" + value + "'";
      return false;
    }
    line.sends.push_back(bytes);
  } else if (option == "--frames") {
    if (!Number(value, 1, kMaxFrames, number)) {
      error = "--frames wants a number from 1 to " + std::to_string(kMaxFrames) + ", not '" +
              value + "'";
      return false;
    }
    line.frames = static_cast<int>(number);
  } else if (option == "--from") {
    if (!IsDottedAddress(value)) {
      // The library would read other text as 255.255.255.255 and broadcast its query.
      error = "--from wants a dotted IPv4 address, not '" + value + "'";
      return false;
    }
    line.from = value;
  }
  return true;
}

// The 32-bit value of dotted text already checked by IsDottedAddress, first octet highest.
UInt32 AddressValue(const std::string &text) {
  UInt32 value = 0;
  std::size_t start = 0;
  for (int part = 0; part < 4; ++part) {
    const std::size_t end = text.find('.', start);
    value = (value << 8) | static_cast<UInt32>(std::atoi(text.substr(start, end - start).c_str()));
    start = end + 1;
  }
  return value;
}

std::string AddressText(UInt32 value) {
  return std::to_string(value >> 24) + "." + std::to_string((value >> 16) & 0xFF) + "." +
         std::to_string((value >> 8) & 0xFF) + "." + std::to_string(value & 0xFF);
}

// The checks and the fields each command needs once every option has been read.
bool Complete(const std::vector<std::string> &positional, CommandLine &line, std::string &error) {
  const std::string name = CommandName(line.command);
  if (line.json && line.jsonLines) {
    error = "--json and --json-lines exclude each other";
    return false;
  }
  if (line.command == Command::kPing || line.command == Command::kStatus ||
      line.command == Command::kChannel || line.command == Command::kQueryMac) {
    if (positional.size() != 1) {
      error = name + " wants one device address";
      return false;
    }
    // query-mac: the library would read other text as 255.255.255.255 and broadcast its query.
    if (!IsDottedAddress(positional[0])) {
      error = name + " wants a dotted IPv4 address, not '" + positional[0] + "'";
      return false;
    }
    line.target = positional[0];
    if (line.command == Command::kQueryMac) {
      const std::string problem = BroadcastProblem(line.target);
      if (!problem.empty()) {
        error = "query-mac asks one device: " + problem;
        return false;
      }
    }
    if (line.command == Command::kChannel) {
      if (!line.portGiven) {
        error = "channel needs --port (the device's channel port)";
        return false;
      }
      if (!line.waitGiven) {
        line.waitTenths = 0;
      }
    } else if (line.command == Command::kQueryMac && !line.waitGiven) {
      line.waitTenths = kDefaultQueryMacSeconds * 10;
    }
    return true;
  }
  if (line.command == Command::kRelocate) {
    if (positional.size() != 1) {
      error = "relocate wants one MAC address";
      return false;
    }
    if (!NormaliseMac(positional[0], line.mac)) {
      error = "relocate wants a MAC address such as 00:1B:2C:3D:4E:5F, not '" + positional[0] + "'";
      return false;
    }
    if (line.from.empty()) {
      error = "relocate needs --from (the address the device had)";
      return false;
    }
    const std::string problem = BroadcastProblem(line.from);
    if (!problem.empty()) {
      error = "--from names one device: " + problem;
      return false;
    }
    if (!line.waitGiven) {
      line.waitTenths = kDefaultRelocateSeconds * 10;
    }
    return true;
  }
  if (!positional.empty()) {
    error = "unexpected argument '" + positional[0] + "' for " + name;
    return false;
  }
  if (line.target.empty() && Sending(line.command)) {
    line.target = kBroadcast;
  }
  if (line.command != Command::kSetIp) {
    return true;
  }
  const char *missing = line.mac.empty()       ? "--mac"
                        : line.address.empty() ? "--address"
                        : line.netmask.empty() ? "--netmask"
                        : line.gateway.empty() ? "--gateway"
                                               : nullptr;
  if (missing != nullptr) {
    error = std::string("set-ip needs ") + missing;
    return false;
  }
  if (!line.force) {
    const std::string problem = ConfigurationProblem(line.address, line.netmask, line.gateway);
    if (!problem.empty()) {
      error = problem + " (--force sends it anyway)";
      return false;
    }
  }
  return true;
}

} // namespace

std::string CommandName(Command command) {
  for (const CommandEntry &entry : kCommands) {
    if (entry.command == command) {
      return entry.name;
    }
  }
  return "";
}

std::vector<std::string> OptionNames(Command command) {
  std::vector<std::string> names = {"-h"};
  for (const OptionEntry &entry : kOptions) {
    if (entry.allowed(command)) {
      names.push_back(entry.name);
    }
  }
  return names;
}

std::string HelpText(Command command) {
  switch (command) {
  case Command::kDiscover:
    return kDiscoverHelp;
  case Command::kPing:
    return kPingHelp;
  case Command::kStatus:
    return kStatusHelp;
  case Command::kSetIp:
    return kSetIpHelp;
  case Command::kHostInfo:
    return kHostInfoHelp;
  case Command::kChannel:
    return kChannelHelp;
  case Command::kQueryMac:
    return kQueryMacHelp;
  case Command::kRelocate:
    return kRelocateHelp;
  case Command::kNone:
    break;
  }
  return kGeneralHelp;
}

std::string WaitText(int tenths) {
  return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10);
}

bool IsDottedAddress(const std::string &text) {
  std::size_t start = 0;
  for (int part = 0; part < 4; ++part) {
    std::size_t end = text.find('.', start);
    if (part < 3 && end == std::string::npos) {
      return false;
    }
    if (part == 3) {
      if (end != std::string::npos) {
        return false;
      }
      end = text.size();
    }
    const std::string digits = text.substr(start, end - start);
    if (digits.empty() || digits.size() > 3 || (digits.size() > 1 && digits[0] == '0')) {
      return false;
    }
    for (char c : digits) {
      if (c < '0' || c > '9') {
        return false;
      }
    }
    if (std::atoi(digits.c_str()) > 255) {
      return false;
    }
    start = end + 1;
  }
  return true;
}

std::string EndPointName(int endPoint) {
  return endPoint >= 0 && endPoint < 4 ? kEndPointNames[endPoint] : "scan";
}

bool ParseHexBytes(const std::string &text, std::string &bytes) {
  std::string out;
  std::string group;
  // Each group between separators holds whole bytes: "1b45 0d" is three, "1 b45" is wrong.
  auto flush = [&]() {
    if (group.size() % 2 != 0) {
      return false;
    }
    for (std::size_t i = 0; i < group.size(); i += 2) {
      out += static_cast<char>(std::strtoul(group.substr(i, 2).c_str(), nullptr, 16));
    }
    group.clear();
    return true;
  };
  for (char c : text) {
    if (c == ' ' || c == ':') {
      if (!flush()) {
        return false;
      }
    } else if (std::isxdigit(static_cast<unsigned char>(c))) {
      group += c;
    } else {
      return false;
    }
  }
  if (!flush() || out.empty()) {
    return false;
  }
  bytes = out;
  return true;
}

bool NormaliseMac(const std::string &text, std::string &mac) {
  std::string rest = text;
  // The form discovery reports: "ET" and 12 lowercase digits.
  if (rest.size() == 14 && (rest[0] == 'E' || rest[0] == 'e') &&
      (rest[1] == 'T' || rest[1] == 't')) {
    rest = rest.substr(2);
  }
  // Six pairs with one separator, the same each time ("00:1b:..." or "00-1b-..."), or three
  // groups of four with dots ("001b.2c3d.4e5f").
  std::size_t group = 0;
  char separator = 0;
  if (rest.size() == 17 && (rest[2] == ':' || rest[2] == '-')) {
    group = 2;
    separator = rest[2];
  } else if (rest.size() == 14 && rest[4] == '.') {
    group = 4;
    separator = '.';
  }
  if (group != 0) {
    std::string joined;
    for (std::size_t i = 0; i < rest.size(); ++i) {
      if (i % (group + 1) == group) {
        if (rest[i] != separator) {
          return false;
        }
      } else {
        joined += rest[i];
      }
    }
    rest = joined;
  }
  if (rest.size() != 12) {
    return false;
  }
  std::string digits;
  for (char c : rest) {
    if (!std::isxdigit(static_cast<unsigned char>(c))) {
      return false;
    }
    digits += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  }
  mac = digits;
  return true;
}

std::string BroadcastProblem(const std::string &address) {
  const UInt32 value = AddressValue(address);
  if (value == 0xFFFFFFFFu) {
    return address + " is the broadcast address";
  }
  if ((value >> 28) == 0xE) {
    return address + " is a multicast address";
  }
  std::string problem;
  struct ifaddrs *interfaces = nullptr;
  if (getifaddrs(&interfaces) != 0) {
    return problem;
  }
  for (const struct ifaddrs *i = interfaces; i != nullptr && problem.empty(); i = i->ifa_next) {
    if ((i->ifa_flags & IFF_BROADCAST) != 0 && i->ifa_broadaddr != nullptr &&
        i->ifa_broadaddr->sa_family == AF_INET &&
        ntohl(reinterpret_cast<const sockaddr_in *>(i->ifa_broadaddr)->sin_addr.s_addr) == value) {
      problem = address + " is the broadcast address of " + i->ifa_name;
    }
  }
  freeifaddrs(interfaces);
  return problem;
}

std::string ConfigurationProblem(const std::string &address, const std::string &netmask,
                                 const std::string &gateway) {
  const UInt32 mask = AddressValue(netmask);
  // Contiguous: the ones, inverted, are a run of low bits, so adding one gives a power of two.
  const UInt32 hostBits = ~mask;
  if ((hostBits & (hostBits + 1)) != 0) {
    return "the net mask " + netmask + " is not contiguous (its one bits must come first)";
  }
  if (mask == 0) {
    return "the net mask 0.0.0.0 would put every address on the device's own network";
  }
  const UInt32 host = AddressValue(address);
  if (host == 0) {
    return "the address 0.0.0.0 would leave the device without an address";
  }
  int prefix = 0;
  for (UInt32 bits = mask; bits != 0; bits <<= 1) {
    ++prefix;
  }
  const UInt32 network = host & mask;
  const std::string networkText = AddressText(network) + "/" + std::to_string(prefix);
  // Networks of one or two addresses (/31, /32) have no network or broadcast address of their own.
  if (prefix <= 30 && host == network) {
    return "the address " + address + " is the network address of " + networkText;
  }
  if (prefix <= 30 && host == (network | hostBits)) {
    return "the address " + address + " is the broadcast address of " + networkText;
  }
  const UInt32 router = AddressValue(gateway);
  if (router != 0 && (router & mask) != network) {
    return "the gateway " + gateway + " is outside the new network " + networkText;
  }
  return "";
}

bool AsksForJson(const std::vector<std::string> &args) {
  for (const std::string &arg : args) {
    if (arg == "--") {
      break;
    }
    if (arg == "--json" || arg == "--json-lines") {
      return true;
    }
  }
  return false;
}

bool ParseCommandLine(const std::vector<std::string> &args, CommandLine &line, std::string &error) {
  line = CommandLine();
  if (args.empty()) {
    error = "no command given";
    return false;
  }
  if (args[0] == "--version") {
    line.version = true;
    if (args.size() > 1) {
      error = "--version takes nothing after it";
      return false;
    }
    return true;
  }
  if (args[0] == "--help" || args[0] == "-h" || args[0] == "help") {
    line.help = true;
    if (args.size() > 2 || (args.size() == 2 && args[0] != "help")) {
      error = "help takes at most one command name";
      return false;
    }
    if (args.size() == 2) {
      line.command = CommandNamed(args[1]);
      if (line.command == Command::kNone) {
        error = "unknown command '" + args[1] + "'";
        return false;
      }
    }
    return true;
  }
  line.command = CommandNamed(args[0]);
  if (line.command == Command::kNone) {
    error = "unknown command '" + args[0] + "'";
    return false;
  }
  const std::string name = CommandName(line.command);
  std::vector<std::string> positional;
  std::set<std::string> given;
  bool optionsEnded = false;
  for (std::size_t i = 1; i < args.size(); ++i) {
    std::string option = args[i];
    if (optionsEnded || option.size() < 2 || option[0] != '-') {
      positional.push_back(option);
      continue;
    }
    if (option == "--") {
      optionsEnded = true;
      continue;
    }
    if (option == "-h") {
      option = "--help";
    }
    std::string value;
    bool inlineValue = false;
    const std::size_t equals = option.find('=');
    if (option.rfind("--", 0) == 0 && equals != std::string::npos) {
      value = option.substr(equals + 1);
      option = option.substr(0, equals);
      inlineValue = true;
    }
    const OptionEntry *found = nullptr;
    for (const OptionEntry &entry : kOptions) {
      if (option == entry.name && entry.allowed(line.command)) {
        found = &entry;
      }
    }
    if (found == nullptr) {
      error = "unknown option " + option + " for " + name;
      return false;
    }
    if (!given.insert(option).second && !found->repeatable) {
      error = option + " given more than once";
      return false;
    }
    if (!found->takesValue) {
      if (inlineValue) {
        error = option + " takes no value";
        return false;
      }
      SetFlag(option, line);
      continue;
    }
    if (!inlineValue) {
      if (i + 1 >= args.size()) {
        error = option + " wants a value";
        return false;
      }
      value = args[++i];
    }
    if (!Apply(option, value, line, error)) {
      return false;
    }
  }
  return line.help || Complete(positional, line, error);
}

} // namespace kivnet
