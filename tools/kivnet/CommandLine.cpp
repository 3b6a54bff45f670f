// kivnet's command line. Every value is checked here, so the network code only ever sees
// addresses, ports and MAC texts in the forms the library expects.
#include "tools/kivnet/CommandLine.h"

#include <cctype>
#include <cstdlib>

namespace kivnet {

const char kBroadcast[] = "BROADCAST";

namespace {

const char kGeneralHelp[] =
    "usage: kivnet COMMAND [options]\n"
    "Finds and talks to network printers and scanners through libKivNetworkComm.\n"
    "\n"
    "commands:\n"
    "  discover    find devices (HCP discovery query; broadcast unless --to is given)\n"
    "  ping        ask one device for an HBN3 ping reply\n"
    "  status      read one device's status cache\n"
    "  set-ip      give a device (named by its MAC address) a new IPv4 configuration\n"
    "  host-info   show this host's network settings as the library sees them\n"
    "\n"
    "'kivnet COMMAND --help' describes each command. Exit status: 0 success, 1 a failure\n"
    "(the error line gives the library's result code and its meaning), 2 a wrong command line.\n";

const char kDiscoverHelp[] =
    "usage: kivnet discover [--to ADDRESS] [--port PORT] [--wait SECONDS] [--json]\n"
    "Sends the HCP discovery query and lists every device that answers within the wait.\n"
    "\n"
    "  --to ADDRESS    send to this IPv4 address instead of broadcasting to 255.255.255.255\n"
    "  --port PORT     the devices' HCP port (default 5353)\n"
    "  --wait SECONDS  how long to collect answers, 1 to 60 (default 3)\n"
    "  --json          print the devices as JSON instead of a table\n";

const char kPingHelp[] = "usage: kivnet ping ADDRESS [--port PORT] [--wait SECONDS] [--json]\n"
                         "Sends an HBN3 ping to the device at ADDRESS and waits for its reply.\n"
                         "\n"
                         "  --port PORT     the device's HBN3 port (default 5353)\n"
                         "  --wait SECONDS  how long to wait for the reply, 1 to 60 (default 3)\n"
                         "  --json          print the reply as JSON\n";

const char kStatusHelp[] =
    "usage: kivnet status ADDRESS [--port PORT] [--port-info N] [--channel N] [--wait SECONDS]\n"
    "                             [--json]\n"
    "Asks the device at ADDRESS for its status cache and prints the answer.\n"
    "\n"
    "  --port PORT     the device's HBN3 port (default 5353)\n"
    "  --port-info N   port information of the request (default 0)\n"
    "  --channel N     channel of the request (default 0)\n"
    "  --wait SECONDS  how long to wait for the answer, 1 to 60 (default 3)\n"
    "  --json          print the answer as JSON\n";

const char kSetIpHelp[] =
    "usage: kivnet set-ip --mac MAC --address A --netmask M --gateway G [--password P]\n"
    "                     [--to ADDRESS] [--port PORT] [--wait SECONDS] [--json]\n"
    "Sends an HCP configuration message that gives the device with the MAC address MAC the\n"
    "address A, net mask M and gateway G, and waits for the device's answer.\n"
    "\n"
    "  --mac MAC       the device's MAC address: 00:1B:2C:3D:4E:5F, 001b2c3d4e5f, or the\n"
    "                  ET001b2c3d4e5f form that discover prints\n"
    "  --password P    the device's configuration password (default none)\n"
    "  --to ADDRESS    send to this IPv4 address instead of broadcasting to 255.255.255.255\n"
    "  --port PORT     the device's HCP port (default 5353)\n"
    "  --wait SECONDS  how long to wait for the answer, 1 to 60 (default 3)\n"
    "  --json          print the outcome as JSON\n";

const char kHostInfoHelp[] =
    "usage: kivnet host-info [--interface NAME] [--json]\n"
    "Shows the host name and the default IPv4 interface's address, net mask, broadcast\n"
    "address and gateway, and the hardware addresses of the host's interfaces. Sends nothing.\n"
    "\n"
    "  --interface NAME  show the hardware address of this interface only\n"
    "  --json            print the settings as JSON\n";

struct CommandEntry {
  const char *name;
  Command command;
};
const CommandEntry kCommands[] = {
    {"discover", Command::kDiscover},  {"ping", Command::kPing},
    {"status", Command::kStatus},      {"set-ip", Command::kSetIp},
    {"host-info", Command::kHostInfo},
};

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

// Which options each command takes; a value option is followed by its value.
struct OptionEntry {
  const char *name;
  bool takesValue;
  bool (*allowed)(Command);
};

bool Any(Command) { return true; }
bool Exchanging(Command c) { return c != Command::kHostInfo; }
bool Sending(Command c) { return c == Command::kDiscover || c == Command::kSetIp; }
bool StatusOnly(Command c) { return c == Command::kStatus; }
bool SetIpOnly(Command c) { return c == Command::kSetIp; }
bool HostInfoOnly(Command c) { return c == Command::kHostInfo; }

const OptionEntry kOptions[] = {
    {"--help", false, Any},
    {"--json", false, Any},
    {"--to", true, Sending},
    {"--port", true, Exchanging},
    {"--wait", true, Exchanging},
    {"--port-info", true, StatusOnly},
    {"--channel", true, StatusOnly},
    {"--mac", true, SetIpOnly},
    {"--address", true, SetIpOnly},
    {"--netmask", true, SetIpOnly},
    {"--gateway", true, SetIpOnly},
    {"--password", true, SetIpOnly},
    {"--interface", true, HostInfoOnly},
};

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
  } else if (option == "--wait") {
    if (!Number(value, 1, kMaxWaitSeconds, number)) {
      error = "--wait wants whole seconds from 1 to " + std::to_string(kMaxWaitSeconds) +
              ", not '" + value + "'";
      return false;
    }
    line.waitSeconds = static_cast<int>(number);
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
  } else if (option == "--interface") {
    if (value.empty()) {
      error = "--interface wants an interface name";
      return false;
    }
    line.interfaceName = value;
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
  case Command::kNone:
    break;
  }
  return kGeneralHelp;
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

bool NormaliseMac(const std::string &text, std::string &mac) {
  std::string rest = text;
  // The form discovery reports: "ET" and 12 lowercase digits.
  if (rest.size() == 14 && (rest[0] == 'E' || rest[0] == 'e') &&
      (rest[1] == 'T' || rest[1] == 't')) {
    rest = rest.substr(2);
  }
  // Six pairs with one separator, the same each time.
  if (rest.size() == 17 && (rest[2] == ':' || rest[2] == '-')) {
    const char separator = rest[2];
    std::string joined;
    for (std::size_t i = 0; i < rest.size(); ++i) {
      if (i % 3 == 2) {
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

bool ParseCommandLine(const std::vector<std::string> &args, CommandLine &line, std::string &error) {
  line = CommandLine();
  if (args.empty()) {
    error = "no command given";
    return false;
  }
  if (args[0] == "--help" || args[0] == "-h" || args[0] == "help") {
    line.help = true;
    return true;
  }
  for (const CommandEntry &entry : kCommands) {
    if (args[0] == entry.name) {
      line.command = entry.command;
    }
  }
  if (line.command == Command::kNone) {
    error = "unknown command '" + args[0] + "'";
    return false;
  }
  const std::string name = CommandName(line.command);
  std::vector<std::string> positional;
  for (std::size_t i = 1; i < args.size(); ++i) {
    std::string option = args[i];
    std::string value;
    bool inlineValue = false;
    if (option.rfind("--", 0) != 0) {
      positional.push_back(option);
      continue;
    }
    const std::size_t equals = option.find('=');
    if (equals != std::string::npos) {
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
    if (!found->takesValue) {
      if (inlineValue) {
        error = option + " takes no value";
        return false;
      }
      (option == "--help" ? line.help : line.json) = true;
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
  if (line.help) {
    return true;
  }

  const bool wantsAddress = line.command == Command::kPing || line.command == Command::kStatus;
  if (wantsAddress) {
    if (positional.size() != 1) {
      error = name + " wants one device address";
      return false;
    }
    if (!IsDottedAddress(positional[0])) {
      error = name + " wants a dotted IPv4 address, not '" + positional[0] + "'";
      return false;
    }
    line.target = positional[0];
  } else if (!positional.empty()) {
    error = "unexpected argument '" + positional[0] + "' for " + name;
    return false;
  } else if (line.target.empty() && Sending(line.command)) {
    line.target = kBroadcast;
  }
  if (line.command == Command::kSetIp) {
    const char *missing = line.mac.empty()       ? "--mac"
                          : line.address.empty() ? "--address"
                          : line.netmask.empty() ? "--netmask"
                          : line.gateway.empty() ? "--gateway"
                                                 : nullptr;
    if (missing != nullptr) {
      error = std::string("set-ip needs ") + missing;
      return false;
    }
  }
  return true;
}

} // namespace kivnet
