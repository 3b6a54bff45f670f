// kivnet's command line: what each command takes, its defaults, the one-line errors for
// everything it refuses, the configurations set-ip refuses without --force, and help texts and
// manual page that name every option.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "tools/kivnet/CommandLine.h"
#include "tools/kivnet/Relocation.h"

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

// What a parse of the words of a channel, query-mac or relocate line gave, as one line.
std::string ParsedWatch(const std::vector<std::string> &words) {
  kivnet::CommandLine l;
  std::string error;
  if (!kivnet::ParseCommandLine(words, l, error)) {
    return "error: " + error;
  }
  std::string sends;
  for (const std::string &bytes : l.sends) {
    sends += "[";
    for (unsigned char c : bytes) {
      char pair[4];
      std::snprintf(pair, sizeof pair, "%02x", c);
      sends += pair;
    }
    sends += "]";
  }
  return kivnet::CommandName(l.command) + " " + l.target + ":" + std::to_string(l.port) + " " +
         kivnet::EndPointName(l.endPoint) + " " + sends + (l.listen ? " listen" : "") + " frames " +
         std::to_string(l.frames) + " wait " + std::to_string(l.waitTenths) +
         (l.json ? " json" : "") + " " + l.mac + " " + l.from;
}

TEST(KivnetCommandLine, ChannelQueryMacAndRelocateLines) {
  const struct {
    std::vector<std::string> words;
    const char *parsed;
  } cases[] = {
      {{"channel", "127.0.0.10", "--port", "9100"},
       "channel 127.0.0.10:9100 scan  frames 0 wait 0  "},
      {{"channel", "10.0.0.1", "--port=40000", "--interface", "HID", "--send", "1b 45", "--send",
        "0d:0A", "--send", "00ff10", "--listen", "--frames", "3", "--wait", "2.5", "--json"},
       "channel 10.0.0.1:40000 hid [1b45][0d0a][00ff10] listen frames 3 wait 25 json  "},
      {{"channel", "10.0.0.1", "--port", "1", "--interface", "media"},
       "channel 10.0.0.1:1 media  frames 0 wait 0  "},
      {{"channel", "10.0.0.1", "--port", "1", "--interface", "print", "--frames", "1000000"},
       "channel 10.0.0.1:1 print  frames 1000000 wait 0  "},
      {{"channel", "10.0.0.1"}, "error: channel needs --port (the device's channel port)"},
      {{"channel", "--port", "1"}, "error: channel wants one device address"},
      {{"channel", "printer.local", "--port", "1"},
       "error: channel wants a dotted IPv4 address, not 'printer.local'"},
      {{"channel", "10.0.0.1", "--port", "1", "--interface", "fax"},
       "error: --interface wants scan, hid, print or media, not 'fax'"},
      {{"channel", "10.0.0.1", "--port", "1", "--send", "1 b45"},
       "error: --send wants hexadecimal bytes such as '1b 45 0d', not '1 b45'"},
      {{"channel", "10.0.0.1", "--port", "1", "--send", "0x1b"},
       "error: --send wants hexadecimal bytes such as '1b 45 0d', not '0x1b'"},
      {{"channel", "10.0.0.1", "--port", "1", "--send", " "},
       "error: --send wants hexadecimal bytes such as '1b 45 0d', not ' '"},
      {{"channel", "10.0.0.1", "--port", "1", "--frames", "0"},
       "error: --frames wants a number from 1 to 1000000, not '0'"},
      {{"channel", "10.0.0.1", "--port", "1", "--listen", "--listen"},
       "error: --listen given more than once"},
      {{"channel", "10.0.0.1", "--port", "1", "--to", "10.0.0.2"},
       "error: unknown option --to for channel"},
      {{"query-mac", "127.0.0.10"}, "query-mac 127.0.0.10:5353 scan  frames 0 wait 20  "},
      {{"query-mac", "127.0.0.10", "--wait", "60", "--json"},
       "query-mac 127.0.0.10:5353 scan  frames 0 wait 600 json  "},
      {{"query-mac", "127.0.0.10", "--wait", "1.5"},
       "error: --wait wants whole seconds from 1 to 60, not '1.5'"},
      {{"query-mac", "127.0.0.10", "--wait", "0"},
       "error: --wait wants whole seconds from 1 to 60, not '0'"},
      {{"query-mac", "127.0.0.10", "--port", "5353"}, "error: unknown option --port for query-mac"},
      // The library would read these as 255.255.255.255, or send with broadcasting allowed.
      {{"query-mac", "BROADCAST"}, "error: query-mac wants a dotted IPv4 address, not 'BROADCAST'"},
      {{"query-mac", "255.255.255.255"},
       "error: query-mac asks one device: 255.255.255.255 is the broadcast address"},
      {{"query-mac", "224.0.0.251"},
       "error: query-mac asks one device: 224.0.0.251 is a multicast address"},
      {{"relocate", "001b2c3d4e5f", "--from", "127.0.0.12"},
       "relocate :5353 scan  frames 0 wait 100 001B2C3D4E5F 127.0.0.12"},
      {{"relocate", "ET001b2c3d4e5f", "--from", "127.0.0.12", "--wait", "0"},
       "relocate :5353 scan  frames 0 wait 0 001B2C3D4E5F 127.0.0.12"},
      {{"relocate", "001b2c3d4e5f"}, "error: relocate needs --from (the address the device had)"},
      {{"relocate", "--from", "127.0.0.12"}, "error: relocate wants one MAC address"},
      {{"relocate", "00:1b:2c", "--from", "127.0.0.12"},
       "error: relocate wants a MAC address such as 00:1B:2C:3D:4E:5F, not '00:1b:2c'"},
      {{"relocate", "001b2c3d4e5f", "--from", "printer"},
       "error: --from wants a dotted IPv4 address, not 'printer'"},
      {{"relocate", "001b2c3d4e5f", "--from", "255.255.255.255"},
       "error: --from names one device: 255.255.255.255 is the broadcast address"},
      {{"relocate", "001b2c3d4e5f", "--from", "127.0.0.12", "--wait", "61"},
       "error: --wait wants whole seconds from 0 to 60, not '61'"},
      {{"--version"}, " :5353 scan  frames 0 wait 30  "},
      {{"--version", "ping"}, "error: --version takes nothing after it"},
  };
  for (const auto &c : cases) {
    std::string line;
    for (const std::string &word : c.words) {
      line += word + " ";
    }
    EXPECT_EQ(ParsedWatch(c.words), c.parsed) << line;
  }
}

// relocate takes the MAC in every form set-ip takes and hands the library the one form it
// compares: 12 lowercase digits without separators.
TEST(KivnetCommandLine, RelocateTakesTheUsualMacFormsAndPassesTheComparedOne) {
  for (const char *mac : {"00:1B:2C:3D:4E:5F", "00-1b-2c-3d-4e-5f", "001b.2c3d.4e5f",
                          "001B2C3D4E5F", "ET001b2c3d4e5f", "et001B2C3D4E5F"}) {
    kivnet::CommandLine line;
    std::string error;
    ASSERT_TRUE(kivnet::ParseCommandLine({"relocate", mac, "--from", "127.0.0.12"}, line, error))
        << mac << ": " << error;
    EXPECT_EQ(kivnet::RelocationForm(line.mac), "001b2c3d4e5f") << mac;
  }
}

TEST(KivnetCommandLine, HexBytesOfSend) {
  const struct {
    const char *text;
    bool ok;
    const char *hex;
  } cases[] = {
      {"1b", true, "1b"},
      {"1B450D", true, "1b450d"},
      {"1b 45:0d", true, "1b450d"},
      {"  1b  ", true, "1b"},
      {"1b::45", true, "1b45"},
      {"abc", false, ""},
      {"1b 4", false, ""},
      {"", false, ""},
      {":", false, ""},
      {"1b-45", false, ""},
      {"g0", false, ""},
      {"1b\t45", false, ""},
  };
  for (const auto &c : cases) {
    std::string bytes = "unchanged";
    EXPECT_EQ(kivnet::ParseHexBytes(c.text, bytes), c.ok) << c.text;
    std::string hex;
    for (unsigned char b : bytes) {
      char pair[4];
      std::snprintf(pair, sizeof pair, "%02x", b);
      hex += pair;
    }
    EXPECT_EQ(c.ok ? hex : bytes, c.ok ? c.hex : "unchanged") << c.text;
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
        kivnet::Command::kSetIp, kivnet::Command::kHostInfo, kivnet::Command::kChannel,
        kivnet::Command::kQueryMac, kivnet::Command::kRelocate}) {
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
