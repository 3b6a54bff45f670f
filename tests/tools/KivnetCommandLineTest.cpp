// kivnet's command line: what each command takes, its defaults, the one-line errors for
// everything it refuses, the configurations set-ip refuses without --force, and help texts and
// manual page that name every option.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "tools/kivnet/CommandLine.h"

namespace {

// What a parse of the words in `args` gave: the fields as one line, or the error.
std::string Parsed(const std::string &args) {
  std::istringstream in(args);
  const std::vector<std::string> words{std::istream_iterator<std::string>(in), {}};
  kivnet::CommandLine l;
  std::string error;
  if (!kivnet::ParseCommandLine(words, l, error)) {
    return "error: " + error;
  }
  return kivnet::CommandName(l.command) + " " + l.target + ":" + std::to_string(l.port) + " " +
         kivnet::WaitText(l.waitTenths) + "s" + (l.json ? " json" : "") +
         (l.jsonLines ? " lines" : "") + (l.help ? " help" : "") + (l.force ? " force" : "") + " " +
         std::to_string(l.portInfo) + "/" + std::to_string(l.channel) + " " + l.mac + " " +
         l.address + " " + l.netmask + " " + l.gateway + " " + l.password + " " + l.interfaceName;
}

const std::string kSetIp = "set-ip --mac 001122334455 ";

TEST(KivnetCommandLine, AcceptedAndRefusedLines) {
  const struct {
    std::string args;
    const char *parsed;
  } cases[] = {
      {"discover", "discover BROADCAST:5353 3.0s 0/0      "},
      {"discover --to 127.0.0.2 --port=15353 --wait 0.5 --json-lines",
       "discover 127.0.0.2:15353 0.5s lines 0/0      "},
      {"discover --wait 60", "discover BROADCAST:5353 60.0s 0/0      "},
      {"status --port-info 4294967295 --channel 2 10.0.0.1",
       "status 10.0.0.1:5353 3.0s 4294967295/2      "},
      {"ping -- 10.0.0.1", "ping 10.0.0.1:5353 3.0s 0/0      "},
      {kSetIp + "--address 127.0.0.50 --netmask 255.0.0.0 --gateway 127.0.0.1 --password s3cret",
       "set-ip BROADCAST:5353 3.0s 0/0 001122334455 127.0.0.50 255.0.0.0 127.0.0.1 s3cret "},
      {"set-ip --mac 024b.4956.0001 --address 10.1.2.3 --netmask 255.255.255.254 --gateway "
       "0.0.0.0",
       "set-ip BROADCAST:5353 3.0s 0/0 024B49560001 10.1.2.3 255.255.255.254 0.0.0.0  "},
      {"help", " :5353 3.0s help 0/0      "},
      {"help set-ip", "set-ip :5353 3.0s help 0/0      "},
      {"ping -h", "ping :5353 3.0s help 0/0      "},
      {"", "error: no command given"},
      {"find", "error: unknown command 'find'"},
      {"help find", "error: unknown command 'find'"},
      {"ping -x 10.0.0.1", "error: unknown option -x for ping"},
      {"ping 10.0.0.1 --to 10.0.0.2", "error: unknown option --to for ping"},
      {"ping 10.0.0.1 --json-lines", "error: unknown option --json-lines for ping"},
      {"discover --json --json-lines", "error: --json and --json-lines exclude each other"},
      {"discover --port 1 --port 2", "error: --port given more than once"},
      {"discover --json=yes", "error: --json takes no value"},
      {"discover --to 256.0.0.1",
       "error: --to wants a dotted IPv4 address or BROADCAST, not '256.0.0.1'"},
      {"discover --port 65536", "error: --port wants a number from 1 to 65535, not '65536'"},
      {"discover --wait 0.05",
       "error: --wait wants seconds from 0.1 to 60 with at most one decimal, not '0.05'"},
      {"discover --wait 60.1",
       "error: --wait wants seconds from 0.1 to 60 with at most one decimal, not '60.1'"},
      {"discover --wait 0",
       "error: --wait wants seconds from 0.1 to 60 with at most one decimal, not '0'"},
      {"discover --wait .5",
       "error: --wait wants seconds from 0.1 to 60 with at most one decimal, not '.5'"},
      {"ping", "error: ping wants one device address"},
      {"ping -- -h", "error: ping wants a dotted IPv4 address, not '-h'"},
      {kSetIp + "--address 1.2.3.4 --netmask 255.0.0.0", "error: set-ip needs --gateway"},
      {"set-ip --mac 00:11-22:33:44:55 --address 1.2.3.4 --netmask 255.0.0.0 --gateway 1.0.0.1",
       "error: --mac wants a MAC address such as 00:1B:2C:3D:4E:5F, not '00:11-22:33:44:55'"},
      {"set-ip --mac 0011.2233.445 --address 1.2.3.4 --netmask 255.0.0.0 --gateway 1.0.0.1",
       "error: --mac wants a MAC address such as 00:1B:2C:3D:4E:5F, not '0011.2233.445'"},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(Parsed(c.args), c.parsed) << c.args;
  }
}

// set-ip re-addresses a real device: configurations that leave it unreachable are refused unless
// --force is given.
TEST(KivnetCommandLine, SetIpRefusesUnreachableConfigurationsWithoutForce) {
  const struct {
    const char *address, *netmask, *gateway, *problem;
  } cases[] = {
      {"192.168.1.20", "255.255.255.0", "192.168.1.1", ""},
      {"192.168.1.20", "255.255.0.255", "192.168.1.1",
       "the net mask 255.255.0.255 is not contiguous (its one bits must come first)"},
      {"192.168.1.20", "0.0.0.0", "192.168.1.1",
       "the net mask 0.0.0.0 would put every address on the device's own network"},
      {"0.0.0.0", "255.255.255.0", "0.0.0.0",
       "the address 0.0.0.0 would leave the device without an address"},
      {"192.168.1.0", "255.255.255.0", "192.168.1.1",
       "the address 192.168.1.0 is the network address of 192.168.1.0/24"},
      {"192.168.1.255", "255.255.255.0", "192.168.1.1",
       "the address 192.168.1.255 is the broadcast address of 192.168.1.0/24"},
      {"192.168.1.20", "255.255.255.0", "192.168.2.1",
       "the gateway 192.168.2.1 is outside the new network 192.168.1.0/24"},
      {"10.0.0.0", "255.255.255.254", "10.0.0.1", ""}, // a /31 has no network address
  };
  for (const auto &c : cases) {
    const std::string args =
        kSetIp + "--address " + c.address + " --netmask " + c.netmask + " --gateway " + c.gateway;
    const std::string problem = c.problem;
    EXPECT_EQ(Parsed(args).substr(0, 6), problem.empty() ? "set-ip" : "error:") << args;
    if (!problem.empty()) {
      EXPECT_EQ(Parsed(args), "error: " + problem + " (--force sends it anyway)");
      EXPECT_EQ(Parsed(args + " --force").substr(0, 6), "set-ip") << args;
    }
  }
}

// True when `help` has a line that describes `option` ("  --port PORT  ...", "  -h, --help ...").
bool Describes(const std::string &help, const std::string &option) {
  for (const char *before : {"\n  ", ", "}) {
    for (const char *after : {" ", ","}) {
      if (help.find(before + option + after) != std::string::npos) {
        return true;
      }
    }
  }
  return false;
}

// Every option a command takes is described in its help text and in the manual page, and the
// manual page has a section for every command.
TEST(KivnetCommandLine, HelpAndManualPageNameEveryOption) {
  std::ifstream file(KIVNET_MANUAL_PAGE);
  ASSERT_TRUE(file) << KIVNET_MANUAL_PAGE;
  const std::string manual{std::istreambuf_iterator<char>(file), {}};
  for (kivnet::Command command :
       {kivnet::Command::kDiscover, kivnet::Command::kPing, kivnet::Command::kStatus,
        kivnet::Command::kSetIp, kivnet::Command::kHostInfo}) {
    const std::string name = kivnet::CommandName(command);
    const std::string help = kivnet::HelpText(command);
    EXPECT_NE(kivnet::HelpText(kivnet::Command::kNone).find("  " + name + " "), std::string::npos)
        << name;
    EXPECT_NE(manual.find(".SS " + name), std::string::npos) << name;
    for (const std::string &option : kivnet::OptionNames(command)) {
      EXPECT_TRUE(Describes(help, option)) << name << " " << option;
      // In roff a hyphen of an option is written "\-".
      std::string roff;
      for (char c : option) {
        roff += c == '-' ? std::string("\\-") : std::string(1, c);
      }
      EXPECT_NE(manual.find(roff), std::string::npos) << name << " " << option;
    }
  }
}

} // namespace
