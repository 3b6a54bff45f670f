// kivnet as a script sees it: exit statuses, what goes to standard output and standard error, the
// JSON error object, a failed write, and the system's reason for a failed send (in a network
// namespace the test makes, where loopback is down).
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "Interfaces/KivNetworkComm.h"
#include "support/DescriptorCheckedTest.h"
#include "tests/tools/InProcessKivnet.h"

namespace {

using kivtest::Ran;
using kivtest::ReadAll;
using kivtest::RunWords;

// A UDP socket on a loopback address that never answers: the device that is not there.
class SilentPeer {
public:
  SilentPeer() : mSocket(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    inet_pton(AF_INET, "127.0.7.9", &address.sin_addr);
    socklen_t length = sizeof address;
    if (bind(mSocket, reinterpret_cast<sockaddr *>(&address), length) == 0 &&
        getsockname(mSocket, reinterpret_cast<sockaddr *>(&address), &length) == 0) {
      mPort = ntohs(address.sin_port);
    }
  }
  ~SilentPeer() { close(mSocket); }
  SilentPeer(const SilentPeer &) = delete;
  SilentPeer &operator=(const SilentPeer &) = delete;
  std::string Port() const { return std::to_string(mPort); }

private:
  int mSocket;
  int mPort = 0;
};

typedef kivtest::DescriptorCheckedTest KivnetRun;

TEST_F(KivnetRun, ExitStatusAndWhereEachLineGoes) {
  SilentPeer peer;
  ASSERT_NE(peer.Port(), "0");
  const std::string silent = "127.0.7.9 --port " + peer.Port() + " --wait 0.2";
  const std::string nobody = "--to 127.0.7.9 --port " + peer.Port() + " --wait 0.2";
  const struct {
    std::string args;
    int status;
    const char *out; // a part of standard output ("" for nothing at all)
    const char *err; // a part of standard error ("" for nothing at all)
  } cases[] = {
      {"help", 0, "usage: kivnet COMMAND [options]\n", ""},
      {"help discover", 0, "3 none did", ""},
      {"status -h", 0, "usage: kivnet status ADDRESS", ""},
      {"ping", 2, "", "kivnet: ping wants one device address (see 'kivnet ping --help')\n"},
      {"ping --json", 2, "\"kind\": \"usage\",", "ping wants one device address"},
      {"discover --wait 2 --wait 3 --json", 2, "\"error\": \"--wait given more than once\"",
       "--wait given more than once"},
      {"discover " + nobody, 3, "no device answered in 0.", ""},
      {"discover --json " + nobody, 3, "\"devices\": [],", ""},
      {"discover --json-lines " + nobody, 3, "{\"kind\": \"summary\", \"devices\": 0,", ""},
      {"ping " + silent, 1, "", "kivnet: ping: no ping reply from 127.0.7.9:" /* port */},
      {"status --json " + silent, 1, "\"kind\": \"no-answer\",", "no status answer from 127.0.7.9"},
      {"help channel", 0, "usage: kivnet channel ADDRESS --port PORT", ""},
      // The channel's JSON is one object a line, its usage error too.
      {"channel 127.0.7.9 --json", 2,
       "{\"error\": \"channel needs --port (the device's channel port)\", \"kind\": \"usage\", ",
       "kivnet: channel needs --port (the device's channel port) (see 'kivnet channel --help')\n"},
      {"relocate 001122334455 --from 127.0.7.9 --wait 1.5", 2, "",
       "--wait wants whole seconds from 0 to 60, not '1.5'"},
  };
  for (const auto &c : cases) {
    const Ran ran = RunWords(c.args);
    EXPECT_EQ(ran.status, c.status) << c.args << "\n" << ran.out << ran.err;
    for (const auto &stream : {std::make_pair(ran.out, c.out), std::make_pair(ran.err, c.err)}) {
      const std::string want = stream.second;
      if (want.empty()) {
        EXPECT_EQ(stream.first, "") << c.args;
      } else {
        EXPECT_NE(stream.first.find(want), std::string::npos) << c.args << "\n" << stream.first;
      }
    }
  }
}

// --version names the version of the headers kivnet was built with; the running library here is
// the one built with them.
TEST_F(KivnetRun, VersionNamesTheLibrary) {
  const Ran ran = RunWords("--version");
  EXPECT_EQ(ran.status, 0);
  EXPECT_EQ(ran.out, std::string("kivnet (KivNetworkComm) ") + KIVNETWORKCOMM_VERSION + "\n");
  EXPECT_EQ(ran.err, "");
  EXPECT_STREQ(GetKivNetworkCommVersion(), KIVNETWORKCOMM_VERSION);
  EXPECT_EQ(RunWords("--version --json").status, 2);
}

// A result that cannot be written is a failure, said on standard error.
TEST_F(KivnetRun, AFailedWriteGivesAFailureStatus) {
  std::FILE *full = std::fopen("/dev/full", "w");
  if (full == nullptr) {
    GTEST_SKIP() << "no /dev/full";
  }
  std::FILE *err = std::tmpfile();
  const int status = kivnet::RunKivnet({"help"}, full, err);
  std::fclose(full);
  EXPECT_EQ(status, 1);
  EXPECT_EQ(ReadAll(err), "kivnet: cannot write the output: No space left on device\n");
}

// In a network namespace of its own loopback is down, so a send to 127.0.0.1 fails with the
// system's "Network is unreachable", which kivnet reports beside the library's code.
TEST_F(KivnetRun, AFailedSendSaysTheSystemsReason) {
  int pipeEnds[2];
  ASSERT_EQ(pipe(pipeEnds), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    close(pipeEnds[0]);
    if (unshare(CLONE_NEWNET) != 0) {
      _exit(77);
    }
    std::FILE *out = std::tmpfile();
    std::FILE *err = std::tmpfile();
    const int status =
        kivnet::RunKivnet({"ping", "127.0.0.1", "--wait", "0.2", "--json"}, out, err);
    const std::string text = std::to_string(status) + "\n" + ReadAll(err) + ReadAll(out);
    const ssize_t written = write(pipeEnds[1], text.data(), text.size());
    _exit(written == static_cast<ssize_t>(text.size()) ? 0 : 1);
  }
  close(pipeEnds[1]);
  std::string text;
  char chunk[1024];
  for (ssize_t n; (n = read(pipeEnds[0], chunk, sizeof chunk)) > 0;) {
    text.append(chunk, static_cast<std::size_t>(n));
  }
  close(pipeEnds[0]);
  int childStatus = 0;
  ASSERT_EQ(waitpid(child, &childStatus, 0), child);
  ASSERT_TRUE(WIFEXITED(childStatus));
  if (WEXITSTATUS(childStatus) == 77) {
    GTEST_SKIP() << "no network namespace can be made here";
  }
  for (const char *part : {"1\nkivnet: ping: cannot send to 127.0.0.1:5353: Network is "
                           "unreachable; SendTo returned 0x0A0000B7: the send failed "
                           "(SENDTO_ERROR)\n",
                           "\"kind\": \"call-failed\",", "\"code\": \"0x0A0000B7\",",
                           "\"system\": \"Network is unreachable\","}) {
    EXPECT_NE(text.find(part), std::string::npos) << part << " in\n" << text;
  }
}

} // namespace
