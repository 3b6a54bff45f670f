// kivnet channel against a simulated device's channel end point on loopback, through ReadManaged
// and through the listener: frames shown byte for byte, the written bytes arriving exactly, the
// open request of each interface, refused opens, a device that closes, bad frame headers, the
// quiet wait, JSON lines, and SIGINT and SIGTERM closing the channel of a running kivnet. Every
// run leaves no descriptor and no thread behind, and the device sees the host close.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "sim/Simulator.h"
#include "support/ChannelPeer.h"
#include "support/DescriptorCheckedTest.h"
#include "tests/tools/InProcessKivnet.h"

extern char **environ;

namespace {

using kivtest::Ran;
using kivtest::ReadAll;

using kivsim::ChannelScript;

// Loopback addresses 127.0.11.60 to 127.0.11.69 belong to this file.
const char kDevice[] = "127.0.11.60";

// The time in a summary line ("in 0.0 s;") varies with the machine's load.
std::string WithoutTime(const std::string &text) {
  return std::regex_replace(text, std::regex(" in [0-9]+\\.[0-9] s;"), " in T s;");
}

// The dump kivnet prints for a 20-byte pattern frame `k` (numbered from 0 by the device).
std::string Frame20(int k) {
  const char *const dumps[] = {
      "  0000  00 01 02 03 04 05 06 07  08 09 0a 0b 0c 0d 0e 0f  |................|\n"
      "  0010  10 11 12 13                                       |....|\n",
      "  0000  1f 20 21 22 23 24 25 26  27 28 29 2a 2b 2c 2d 2e  |. !\"#$%&'()*+,-.|\n"
      "  0010  2f 30 31 32                                       |/012|\n",
      "  0000  3e 3f 40 41 42 43 44 45  46 47 48 49 4a 4b 4c 4d  |>?@ABCDEFGHIJKLM|\n"
      "  0010  4e 4f 50 51                                       |NOPQ|\n",
  };
  return "frame " + std::to_string(k + 1) + ": 20 bytes\n" + dumps[k];
}

class KivnetChannel : public kivtest::DescriptorCheckedTest {
protected:
  void SetUp() override {
    kivtest::DescriptorCheckedTest::SetUp();
    mThreads = kivtest::CountThreadsBeforeATest();
    kivsim::SimulatorOptions options;
    options.hcpPort = 0;
    options.channelEnabled = true;
    mSimulator.reset(new kivsim::Simulator(options));
    mSimulator->AddDevice(kivsim::MakeDeviceRecord(1, kDevice));
    mSimulator->Start();
    mPort = std::to_string(mSimulator->ChannelPort());
  }
  void TearDown() override {
    mSimulator->Stop();
    mSimulator.reset();
    EXPECT_TRUE(kivtest::WaitFor([&] { return kivtest::CountThreads() == mThreads; }, 5))
        << "a thread was left running";
    kivtest::DescriptorCheckedTest::TearDown();
  }

  // Runs "kivnet channel <device> --port <port>" and `extra` in this process, the device playing
  // `script`.
  Ran Channel(const ChannelScript &script, const std::vector<std::string> &extra) {
    mSimulator->SetChannelScript(0, script);
    std::vector<std::string> args = {"channel", kDevice, "--port", mPort};
    args.insert(args.end(), extra.begin(), extra.end());
    return kivtest::RunKivnet(args);
  }

  // True once the device has seen connection `n` closed by the host.
  bool HostClosed(std::size_t n) {
    return mSimulator->WaitForChannel(
        0,
        [n](const kivsim::ChannelLog &log) {
          return log.connections.size() > n && log.connections[n].hostClosed;
        },
        5000);
  }

  std::unique_ptr<kivsim::Simulator> mSimulator;
  std::string mPort;
  int mThreads = 0;
};

// Both read paths show the same frames, byte for byte, whether the stream comes whole or one byte
// at a time, with tickle packets before every frame.
TEST_F(KivnetChannel, FramesAreShownByteForByteOnBothPaths) {
  std::size_t connection = 0;
  for (bool byteByByte : {false, true}) {
    for (const char *path : {"", "--listen"}) {
      std::vector<std::string> extra = {"--frames", "3"};
      if (*path != '\0') {
        extra.push_back(path);
      }
      const Ran ran = Channel(kivsim::PatternScript(3, 20, 2, byteByByte), extra);
      EXPECT_EQ(ran.status, 0) << ran.err;
      EXPECT_EQ(ran.err, "");
      EXPECT_EQ(WithoutTime(ran.out), "opened the scan channel of " + std::string(kDevice) + ":" +
                                          mPort + "\n" + Frame20(0) + Frame20(1) + Frame20(2) +
                                          "3 frames (60 bytes) in T s; the count was reached; "
                                          "channel closed\n")
          << path << (byteByByte ? " byte by byte" : "");
      EXPECT_TRUE(HostClosed(connection++)) << path;
    }
  }
}

TEST_F(KivnetChannel, LongFramesShowTheirFirstBytesAndJsonLinesCarryThem) {
  for (const char *path : {"", "--listen"}) {
    std::vector<std::string> extra = {"--frames", "2", "--json"};
    if (*path != '\0') {
      extra.push_back(path);
    }
    const Ran ran = Channel(kivsim::PatternScript(2, 100), extra);
    EXPECT_EQ(ran.status, 0) << ran.err;
    std::vector<std::string> lines;
    for (std::size_t start = 0; start < ran.out.size();) {
      const std::size_t end = ran.out.find('\n', start);
      lines.push_back(ran.out.substr(start, end - start));
      start = end + 1;
    }
    ASSERT_EQ(lines.size(), 4u) << ran.out;
    EXPECT_EQ(lines[0], "{\"kind\": \"open\", \"address\": \"" + std::string(kDevice) +
                            "\", \"port\": " + mPort + ", \"interface\": \"scan\"}");
    std::string hex;
    for (int i = 0; i < 64; ++i) {
      char pair[4];
      std::snprintf(pair, sizeof pair, "%02x", (31 + i) & 0xFF);
      hex += pair;
    }
    EXPECT_NE(lines[2].find("{\"kind\": \"frame\", \"frame\": 2, \"length\": 100, \"seconds\": "),
              std::string::npos)
        << lines[2];
    EXPECT_NE(lines[2].find("\"hex\": \"" + hex + "\", \"hexBytes\": 64}"), std::string::npos)
        << lines[2];
    EXPECT_NE(lines[3].find("{\"kind\": \"end\", \"reason\": \"count\", \"frames\": 2, \"bytes\": "
                            "200, \"seconds\": "),
              std::string::npos)
        << lines[3];
  }
  const Ran text = Channel(kivsim::PatternScript(1, 100), {"--frames", "1"});
  EXPECT_NE(text.out.find("frame 1: 100 bytes (the first 64 shown)\n  0000  00 01 02 "),
            std::string::npos)
      << text.out;
  EXPECT_NE(text.out.find("\n  0030  30 31 32 33 34 35 36 37  38 39 3a 3b 3c 3d 3e 3f  "
                          "|0123456789:;<=>?|\n1 frame (100 bytes)"),
            std::string::npos)
      << text.out;
}

// Each interface sends its own open request; the bytes of every --send reach the device exactly,
// in order, after it.
TEST_F(KivnetChannel, OpenRequestsAndWrittenBytesOnTheWire) {
  const struct {
    const char *interface;
    unsigned char code;
  } cases[] = {{"scan", 0x02}, {"hid", 0x04}, {"print", 0x01}, {"media", 0x08}};
  std::size_t connection = 0;
  for (const auto &c : cases) {
    for (const char *path : {"", "--listen"}) {
      std::vector<std::string> extra = {"--interface", c.interface, "--send",   "1b 45:0D",
                                        "--send",      "00ff",      "--frames", "1"};
      if (*path != '\0') {
        extra.push_back(path);
      }
      const Ran ran = Channel(kivsim::PatternScript(1, 4), extra);
      EXPECT_EQ(ran.status, 0) << c.interface << " " << path << ": " << ran.err;
      EXPECT_NE(ran.out.find("opened the " + std::string(c.interface) + " channel of"),
                std::string::npos);
      EXPECT_NE(ran.out.find("\nsent 3 bytes: 1b 45 0d\nsent 2 bytes: 00 ff\nframe 1: 4 bytes\n"),
                std::string::npos)
          << ran.out;
      ASSERT_TRUE(HostClosed(connection));
      const kivsim::ChannelConnectionLog log =
          mSimulator->ChannelRecord(0).connections[connection++];
      EXPECT_EQ(log.openRequest,
                std::vector<unsigned char>({0x48, 0x42, 0x4E, 0x33, 0, 0, 0, 0, c.code}))
          << c.interface;
      EXPECT_EQ(log.written, std::vector<unsigned char>({0x1b, 0x45, 0x0d, 0x00, 0xff}))
          << c.interface;
    }
  }
}

TEST_F(KivnetChannel, ARefusedOpenAndANoConnectionAreToldApart) {
  for (ChannelScript::Handshake handshake :
       {ChannelScript::kNonZeroLength, ChannelScript::kWrongTag, ChannelScript::kCloseAfterFour}) {
    ChannelScript script = kivsim::PatternScript(1, 4);
    script.handshake = handshake;
    const Ran ran = Channel(script, {"--json"});
    EXPECT_EQ(ran.status, 1);
    EXPECT_EQ(ran.err, "kivnet: channel: the device at " + std::string(kDevice) + ":" + mPort +
                           " refused the open request of the scan interface (iResult -1: no "
                           "answer \"HBN3\" of length 0): OpenTCPSocket failed\n");
    EXPECT_NE(ran.out.find("\"kind\": \"open-refused\", \"function\": \"OpenTCPSocket\""),
              std::string::npos)
        << ran.out;
    EXPECT_EQ(ran.out.find('\n'), ran.out.size() - 1) << "one line: " << ran.out;
  }

  // A bound socket that does not listen: the connection is refused by the system.
  const int closed = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  inet_pton(AF_INET, "127.0.11.61", &address.sin_addr);
  socklen_t length = sizeof address;
  ASSERT_EQ(bind(closed, reinterpret_cast<sockaddr *>(&address), length), 0);
  ASSERT_EQ(getsockname(closed, reinterpret_cast<sockaddr *>(&address), &length), 0);
  const std::string port = std::to_string(ntohs(address.sin_port));
  std::FILE *out = std::tmpfile();
  std::FILE *err = std::tmpfile();
  const int status = kivnet::RunKivnet({"channel", "127.0.11.61", "--port", port}, out, err);
  close(closed);
  EXPECT_EQ(status, 1);
  EXPECT_EQ(ReadAll(out), "");
  EXPECT_EQ(ReadAll(err), "kivnet: channel: could not connect to 127.0.11.61:" + port +
                              ": Connection refused; OpenTCPSocket failed\n");
}

// The device's close ends the watch: a success, unless fewer frames came than --frames asked for.
// A close inside a frame is a close too.
TEST_F(KivnetChannel, TheDeviceClosingEndsTheWatch) {
  ChannelScript closing = kivsim::PatternScript(2, 8);
  closing.steps.push_back(kivsim::CloseStep());
  ChannelScript midFrame = kivsim::PatternScript(2, 8);
  kivsim::AppendChannelFault(midFrame, kivsim::ChannelFault::kCloseMidFrame);
  std::size_t connection = 0;
  for (const ChannelScript &script : {closing, midFrame}) {
    for (const char *path : {"", "--listen"}) {
      std::vector<std::string> extra;
      if (*path != '\0') {
        extra.push_back(path);
      }
      Ran ran = Channel(script, extra);
      EXPECT_EQ(ran.status, 0) << path << ": " << ran.err;
      EXPECT_NE(WithoutTime(ran.out).find("\n2 frames (16 bytes) in T s; the device closed the "
                                          "channel; channel closed\n"),
                std::string::npos)
          << path << ": " << ran.out;
      ++connection;

      extra.insert(extra.end(), {"--frames", "3", "--json"});
      ran = Channel(script, extra);
      EXPECT_EQ(ran.status, 1) << path;
      EXPECT_EQ(ran.err, "kivnet: channel: the device closed the channel after 2 of 3 frames\n");
      EXPECT_NE(ran.out.find("{\"error\": \"the device closed the channel after 2 of 3 frames\", "
                             "\"kind\": \"ended-early\","),
                std::string::npos)
          << ran.out;
      EXPECT_EQ(ran.out.find("\"kind\": \"end\""), std::string::npos) << ran.out;
      ++connection;
    }
  }
  EXPECT_EQ(mSimulator->ChannelRecord(0).accepted, connection);
}

// A frame header that is not "HBN3" or announces a length the library refuses ends the watch
// with a failure: nothing after it can be read as frames.
TEST_F(KivnetChannel, ABadFrameHeaderIsAFailureOnBothPaths) {
  std::size_t connection = 0;
  for (kivsim::ChannelFault fault :
       {kivsim::ChannelFault::kBadTag, kivsim::ChannelFault::kNegativeLength,
        kivsim::ChannelFault::kHugeLength}) {
    for (bool listen : {false, true}) {
      ChannelScript script = kivsim::PatternScript(1, 8);
      kivsim::AppendChannelFault(script, fault);
      const Ran ran = Channel(script, listen ? std::vector<std::string>{"--listen", "--json"}
                                             : std::vector<std::string>{"--json"});
      EXPECT_EQ(ran.status, 1);
      const std::string said =
          listen ? "kivnet: channel: the listener reported a bad frame header or a failed read "
                   "after 1 frame (callback (null, 1)); the channel cannot be read any further\n"
                 : "kivnet: channel: the device sent a frame header without \"HBN3\" or with a "
                   "length outside 0 to 64 MiB after 1 frame (ReadManaged count -2); the channel "
                   "cannot be read any further\n";
      EXPECT_EQ(ran.err, said) << static_cast<int>(fault);
      EXPECT_NE(ran.out.find("{\"kind\": \"frame\", \"frame\": 1, \"length\": 8,"),
                std::string::npos);
      EXPECT_NE(ran.out.find("\"kind\": \"bad-frame\","), std::string::npos) << ran.out;
      EXPECT_TRUE(HostClosed(connection++));
    }
  }
}

// --wait counts from the last frame; the watch then ends as asked.
TEST_F(KivnetChannel, TheQuietWaitEndsTheWatch) {
  for (const char *path : {"", "--listen"}) {
    std::vector<std::string> extra = {"--wait", "0.4"};
    if (*path != '\0') {
      extra.push_back(path);
    }
    const Ran ran = Channel(kivsim::PatternScript(2, 8), extra);
    EXPECT_EQ(ran.status, 0) << ran.err;
    EXPECT_NE(ran.out.find("; no frame for 0.4 s; channel closed\n"), std::string::npos) << ran.out;
    EXPECT_GE(ran.seconds, 0.4);
    EXPECT_LT(ran.seconds, 10.0); // generous: the wait, the close and the listener's end
    const Ran early = Channel(kivsim::PatternScript(2, 8), {"--wait", "0.2", "--frames", "3"});
    EXPECT_EQ(early.status, 1);
    EXPECT_EQ(early.err, "kivnet: channel: no frame came for 0.2 s after 2 of 3 frames\n");
  }
}

// ---- A running kivnet stopped by a signal ------------------------------------------------------

// kivnet started as its own process, its standard output and error on a pipe.
class Child {
public:
  explicit Child(const std::vector<std::string> &args) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
      return;
    }
    mOutput = ends[0];
    std::vector<char *> argv;
    std::vector<std::string> words = {KIVNET_PROGRAM};
    words.insert(words.end(), args.begin(), args.end());
    for (std::string &word : words) {
      argv.push_back(&word[0]);
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], 1);
    posix_spawn_file_actions_adddup2(&actions, ends[1], 2);
    // The child starts with SIGINT and SIGTERM at their defaults and unblocked, whatever this
    // process does with them.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none, stops;
    sigemptyset(&none);
    sigemptyset(&stops);
    sigaddset(&stops, SIGINT);
    sigaddset(&stops, SIGTERM);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &stops);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    if (posix_spawn(&mPid, words[0].c_str(), &actions, &attributes, argv.data(), environ) != 0) {
      mPid = -1;
    }
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
  }
  ~Child() {
    if (mPid > 0) {
      kill(mPid, SIGKILL);
      waitpid(mPid, nullptr, 0);
    }
    if (mOutput >= 0) {
      close(mOutput);
    }
  }
  Child(const Child &) = delete;
  Child &operator=(const Child &) = delete;
  bool Started() const { return mPid > 0; }

  // Reads the output until it holds `text` or 10 s pass; true when it does.
  bool WaitForOutput(const std::string &text) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (mText.find(text) == std::string::npos && std::chrono::steady_clock::now() < until) {
      if (!ReadSome(100)) {
        break;
      }
    }
    return mText.find(text) != std::string::npos;
  }

  // Sends `signal` and waits up to 10 s for the exit; the exit status, or -1.
  int SignalAndWait(int signal) {
    kill(mPid, signal);
    int status = 0;
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < until) {
      const pid_t done = waitpid(mPid, &status, WNOHANG);
      if (done == mPid) {
        mPid = -1;
        while (ReadSome(0)) {
        }
        return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
      }
      ReadSome(20);
    }
    return -1;
  }
  const std::string &Text() const { return mText; }

private:
  // False at the end of the output.
  bool ReadSome(int milliseconds) {
    pollfd watched = {mOutput, POLLIN, 0};
    if (poll(&watched, 1, milliseconds) <= 0) {
      return milliseconds > 0;
    }
    char chunk[4096];
    const ssize_t n = read(mOutput, chunk, sizeof chunk);
    if (n <= 0) {
      return false;
    }
    mText.append(chunk, static_cast<std::size_t>(n));
    return true;
  }

  pid_t mPid = -1;
  int mOutput = -1;
  std::string mText;
};

// SIGINT or SIGTERM while kivnet waits for frames: the channel is closed (the device sees it),
// the listener joined, the summary printed, and the exit status is 128 + the signal.
TEST_F(KivnetChannel, ASignalClosesTheChannelAndEndsWith128PlusItsNumber) {
  const struct {
    const char *path;
    int signal;
    int status;
    const char *name;
  } cases[] = {{"", SIGINT, 130, "SIGINT"},
               {"--listen", SIGINT, 130, "SIGINT"},
               {"--listen", SIGTERM, 143, "SIGTERM"},
               {"", SIGTERM, 143, "SIGTERM"}};
  mSimulator->SetChannelScript(0, kivsim::PatternScript(2, 8));
  std::size_t connection = 0;
  for (const auto &c : cases) {
    std::vector<std::string> args = {"channel", kDevice, "--port", mPort};
    if (*c.path != '\0') {
      args.push_back(c.path);
    }
    Child kivnet(args);
    ASSERT_TRUE(kivnet.Started());
    ASSERT_TRUE(kivnet.WaitForOutput("frame 2: 8 bytes\n")) << kivnet.Text();
    EXPECT_EQ(kivnet.SignalAndWait(c.signal), c.status) << c.path << " " << c.name;
    EXPECT_NE(WithoutTime(kivnet.Text())
                  .find("\n2 frames (16 bytes) in T s; interrupted by " + std::string(c.name) +
                        "; channel closed\n"),
              std::string::npos)
        << kivnet.Text();
    EXPECT_TRUE(HostClosed(connection++)) << c.path << " " << c.name;
  }
}

} // namespace
