// kivnet's command line: what each command takes, its defaults, and the one-line errors for
// everything it refuses.
#include <gtest/gtest.h>

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
         std::to_string(l.waitSeconds) + "s" + (l.json ? " json" : "") + (l.help ? " help" : "") +
         " " + std::to_string(l.portInfo) + "/" + std::to_string(l.channel) + " " + l.mac + " " +
         l.address + " " + l.netmask + " " + l.gateway + " " + l.password + " " + l.interfaceName;
}

TEST(KivnetCommandLine, AcceptedAndRefusedLines) {
  const struct {
    const char *args, *parsed;
  } cases[] = {
      {"discover", "discover BROADCAST:5353 3s 0/0      "},
      {"discover --to 127.0.0.2 --port=15353 --wait 1 --json",
       "discover 127.0.0.2:15353 1s json 0/0      "},
      {"status --port-info 4294967295 --channel 2 10.0.0.1",
       "status 10.0.0.1:5353 3s 4294967295/2      "},
      {"set-ip --mac ET024b49560002 --address 127.0.0.50 --netmask 255.0.0.0 --gateway 127.0.0.1 "
       "--password s3cret",
       "set-ip BROADCAST:5353 3s 0/0 024B49560002 127.0.0.50 255.0.0.0 127.0.0.1 s3cret "},
      {"", "error: no command given"},
      {"find", "error: unknown command 'find'"},
      {"discover --to 256.0.0.1",
       "error: --to wants a dotted IPv4 address or BROADCAST, not '256.0.0.1'"},
      {"discover --port 65536", "error: --port wants a number from 1 to 65535, not '65536'"},
      {"set-ip --mac 001122334455 --address 1.2.3.4 --netmask 255.0.0.0",
       "error: set-ip needs --gateway"},
      {"set-ip --mac 00:11-22:33:44:55 --address 1.2.3.4 --netmask 255.0.0.0 --gateway 1.0.0.1",
       "error: --mac wants a MAC address such as 00:1B:2C:3D:4E:5F, not '00:11-22:33:44:55'"},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(Parsed(c.args), c.parsed) << c.args;
  }
}

} // namespace
