// kivnet's command line: what each command accepts, its defaults, and the one-line errors for
// everything it refuses; MAC and address texts.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "tools/kivnet/CommandLine.h"

namespace {

using kivnet::Command;
using kivnet::CommandLine;
using kivnet::ParseCommandLine;

std::vector<std::string> Words(const std::string &text) {
  std::istringstream in(text);
  std::vector<std::string> words;
  for (std::string word; in >> word;) {
    words.push_back(word);
  }
  return words;
}

CommandLine Parsed(const std::string &text) {
  CommandLine line;
  std::string error;
  EXPECT_TRUE(ParseCommandLine(Words(text), line, error)) << text << ": " << error;
  return line;
}

TEST(KivnetCommandLine, DiscoverDefaultsToBroadcastOnPort5353ForThreeSeconds) {
  const CommandLine line = Parsed("discover");
  EXPECT_EQ(line.command, Command::kDiscover);
  EXPECT_EQ(line.target, "BROADCAST");
  EXPECT_EQ(line.port, 5353);
  EXPECT_EQ(line.waitSeconds, 3);
  EXPECT_FALSE(line.json);
  EXPECT_FALSE(line.help);
}

TEST(KivnetCommandLine, OptionsTakeTheirValueSeparatelyOrAfterAnEqualsSign) {
  const CommandLine line = Parsed("discover --to 127.0.0.2 --port=15353 --wait 1 --json");
  EXPECT_EQ(line.target, "127.0.0.2");
  EXPECT_EQ(line.port, 15353);
  EXPECT_EQ(line.waitSeconds, 1);
  EXPECT_TRUE(line.json);
  EXPECT_EQ(Parsed("discover --to broadcast").target, "BROADCAST");
}

TEST(KivnetCommandLine, PingAndStatusTakeOneAddress) {
  const CommandLine ping = Parsed("ping 127.0.0.10 --port 9");
  EXPECT_EQ(ping.command, Command::kPing);
  EXPECT_EQ(ping.target, "127.0.0.10");
  EXPECT_EQ(ping.port, 9);

  const CommandLine status = Parsed("status --port-info 4294967295 --channel 2 10.0.0.1");
  EXPECT_EQ(status.command, Command::kStatus);
  EXPECT_EQ(status.target, "10.0.0.1");
  EXPECT_EQ(status.portInfo, 0xFFFFFFFFu);
  EXPECT_EQ(status.channel, 2u);
}

TEST(KivnetCommandLine, SetIpNormalisesTheMacAndDefaultsToBroadcast) {
  const CommandLine line = Parsed("set-ip --mac ET024b49560002 --address 127.0.0.50 "
                                  "--netmask 255.0.0.0 --gateway 127.0.0.1 --password s3cret");
  EXPECT_EQ(line.command, Command::kSetIp);
  EXPECT_EQ(line.mac, "024B49560002");
  EXPECT_EQ(line.address, "127.0.0.50");
  EXPECT_EQ(line.netmask, "255.0.0.0");
  EXPECT_EQ(line.gateway, "127.0.0.1");
  EXPECT_EQ(line.password, "s3cret");
  EXPECT_EQ(line.target, "BROADCAST");
}

TEST(KivnetCommandLine, HelpNeedsNothingElse) {
  EXPECT_TRUE(Parsed("--help").help);
  EXPECT_EQ(Parsed("--help").command, Command::kNone);
  const CommandLine line = Parsed("set-ip --help");
  EXPECT_TRUE(line.help);
  EXPECT_EQ(line.command, Command::kSetIp);
  EXPECT_TRUE(Parsed("ping --help").help) << "no address needed for help";
  for (Command c : {Command::kNone, Command::kDiscover, Command::kPing, Command::kStatus,
                    Command::kSetIp, Command::kHostInfo}) {
    const std::string text = kivnet::HelpText(c);
    EXPECT_EQ(text.rfind("usage: kivnet ", 0), 0u) << text;
    EXPECT_EQ(text.back(), '\n');
  }
}

TEST(KivnetCommandLine, HostInfoTakesAnInterface) {
  const CommandLine line = Parsed("host-info --interface eth0 --json");
  EXPECT_EQ(line.command, Command::kHostInfo);
  EXPECT_EQ(line.interfaceName, "eth0");
  EXPECT_TRUE(line.json);
}

TEST(KivnetCommandLine, RefusedCommandLinesSayWhy) {
  const struct {
    const char *args;
    const char *error;
  } cases[] = {
      {"", "no command given"},
      {"find", "unknown command 'find'"},
      {"discover --bogus", "unknown option --bogus for discover"},
      {"discover --port-info 1", "unknown option --port-info for discover"},
      {"ping --to 127.0.0.1 127.0.0.1", "unknown option --to for ping"},
      {"host-info --port 1", "unknown option --port for host-info"},
      {"discover --to", "--to wants a value"},
      {"discover --json=yes", "--json takes no value"},
      {"discover --to 127.0.0", "--to wants a dotted IPv4 address or BROADCAST, not '127.0.0'"},
      {"discover --to 127.0.0.01",
       "--to wants a dotted IPv4 address or BROADCAST, not '127.0.0.01'"},
      {"discover --to 256.0.0.1", "--to wants a dotted IPv4 address or BROADCAST, not '256.0.0.1'"},
      {"discover --to localhost", "--to wants a dotted IPv4 address or BROADCAST, not 'localhost'"},
      {"discover --port 0", "--port wants a number from 1 to 65535, not '0'"},
      {"discover --port 65536", "--port wants a number from 1 to 65535, not '65536'"},
      {"discover --port -1", "--port wants a number from 1 to 65535, not '-1'"},
      {"discover --port 5e3", "--port wants a number from 1 to 65535, not '5e3'"},
      {"discover --wait 0", "--wait wants whole seconds from 1 to 60, not '0'"},
      {"discover --wait 61", "--wait wants whole seconds from 1 to 60, not '61'"},
      {"discover --wait 1.5", "--wait wants whole seconds from 1 to 60, not '1.5'"},
      {"discover 127.0.0.1", "unexpected argument '127.0.0.1' for discover"},
      {"ping", "ping wants one device address"},
      {"ping 127.0.0.1 127.0.0.2", "ping wants one device address"},
      {"status printer", "status wants a dotted IPv4 address, not 'printer'"},
      {"status 1.2.3.4 --channel 4294967296",
       "--channel wants a number from 0 to 4294967295, not '4294967296'"},
      {"set-ip --address 1.2.3.4 --netmask 255.0.0.0 --gateway 1.0.0.1", "set-ip needs --mac"},
      {"set-ip --mac 001122334455 --netmask 255.0.0.0 --gateway 1.0.0.1", "set-ip needs --address"},
      {"set-ip --mac 001122334455 --address 1.2.3.4 --gateway 1.0.0.1", "set-ip needs --netmask"},
      {"set-ip --mac 001122334455 --address 1.2.3.4 --netmask 255.0.0.0", "set-ip needs --gateway"},
      {"set-ip --mac 00112233445 --address 1.2.3.4 --netmask 255.0.0.0 --gateway 1.0.0.1",
       "--mac wants a MAC address such as 00:1B:2C:3D:4E:5F, not '00112233445'"},
      {"set-ip --mac 001122334455 --address 1.2.3.4 --netmask mask --gateway 1.0.0.1",
       "--netmask wants a dotted IPv4 address, not 'mask'"},
  };
  for (const auto &c : cases) {
    CommandLine line;
    std::string error;
    EXPECT_FALSE(ParseCommandLine(Words(c.args), line, error)) << c.args;
    EXPECT_EQ(error, c.error) << c.args;
  }
}

TEST(KivnetCommandLine, MacTexts) {
  const struct {
    const char *text;
    const char *mac; // "" when refused
  } cases[] = {
      {"00:1B:2C:3D:4E:5F", "001B2C3D4E5F"},
      {"00-1b-2c-3d-4e-5f", "001B2C3D4E5F"},
      {"001b2c3d4e5f", "001B2C3D4E5F"},
      {"ET001b2c3d4e5f", "001B2C3D4E5F"},
      {"et001B2C3D4E5F", "001B2C3D4E5F"},
      {"00:1B-2C:3D:4E:5F", ""},
      {"00:1B:2C:3D:4E:5", ""},
      {"001B2C3D4E5G", ""},
      {"0x1B2C3D4E5F", ""},
      {"ET001b2c3d4e5", ""},
      {"001b2c3d4e5f00", ""},
      {"", ""},
  };
  for (const auto &c : cases) {
    std::string mac = "unchanged";
    const bool accepted = kivnet::NormaliseMac(c.text, mac);
    EXPECT_EQ(accepted, *c.mac != '\0') << c.text;
    EXPECT_EQ(mac, accepted ? c.mac : "unchanged") << c.text;
  }
}

TEST(KivnetCommandLine, DottedAddresses) {
  for (const char *good : {"0.0.0.0", "127.0.0.1", "255.255.255.255", "10.20.30.40"}) {
    EXPECT_TRUE(kivnet::IsDottedAddress(good)) << good;
  }
  for (const char *bad : {"", "1.2.3", "1.2.3.4.", ".1.2.3", "1..2.3", "1.2.3.4.5", "01.2.3.4",
                          "1.2.3.256", "1.2.3.1000", "1.2.3.-4", "1.2.3.4 ", "a.b.c.d"}) {
    EXPECT_FALSE(kivnet::IsDottedAddress(bad)) << bad;
  }
}

} // namespace
