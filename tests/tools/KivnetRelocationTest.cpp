// kivnet query-mac and relocate against simulated devices and scripted peers answering on UDP
// port 5353 of their loopback addresses, with the device store in a scratch file and no DNS-SD
// daemon reachable: the MAC in both forms, the given address (stage 2), the remembered address
// (stage 1) while the given one is stale, a MAC nobody has, the store read as the library reads
// it, and the stage shown on a terminal and nowhere else.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <pty.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "sim/Simulator.h"
#include "support/ChannelPeer.h"
#include "support/DescriptorCheckedTest.h"
#include "tests/tools/InProcessKivnet.h"
#include "support/ScriptedResponder.h"
#include "tools/kivnet/Relocation.h"

namespace {

using kivtest::Ran;
using kivtest::RunWords;

namespace fs = std::filesystem;

// The browse must never reach a DNS-SD daemon of this machine, which would query the real
// network: the system bus is pointed at nothing before any test runs.
const bool kNoSystemBus =
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/kivnetworkcomm-test-bus", 1) == 0;

const char kStoreHeader[] = "org.kivnetworkcomm.KivNetworkComm device store 1\n";

// Device n's MAC in the relocation form.
std::string SimMac(int n) {
  char text[13];
  std::snprintf(text, sizeof text, "024b495600%02x", n);
  return text;
}

// A peer that answers the MAC query at once with another device's MAC, so a check of its address
// fails fast (a silent address takes the whole 2 s).
kivtest::Bytes OtherDevice() {
  return kivtest::HcpAnswer(
      {"IPADDRESS=127.0.11.99", "IPNETMASK=255.0.0.0", "MACUAA=\"FFFFFFFFFFFF\""});
}

// Loopback addresses 127.0.11.40 to 127.0.11.59 belong to this file. The store is a file in a
// scratch folder named by KIVNET_DEVICE_STORE.
class KivnetRelocation : public kivtest::DescriptorCheckedTest {
protected:
  void SetUp() override {
    ASSERT_TRUE(kNoSystemBus);
    char pattern[] = "/tmp/kivnet-relocation-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    mFolder = pattern;
    mStore = mFolder + "/devices";
    setenv("KIVNET_DEVICE_STORE", mStore.c_str(), 1);
    kivtest::DescriptorCheckedTest::SetUp();
  }
  void TearDown() override {
    kivtest::DescriptorCheckedTest::TearDown();
    unsetenv("KIVNET_DEVICE_STORE");
    fs::remove_all(mFolder);
  }
  std::string StoreText() const {
    std::ifstream in(mStore);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
  }

  std::string mFolder, mStore;
};

TEST_F(KivnetRelocation, QueryMacPrintsBothFormsOrSaysNothingAnswered) {
  kivsim::Simulator simulator({5353, 0, "", false});
  simulator.AddDevice(kivsim::MakeDeviceRecord(40, "127.0.11.40"));
  simulator.Start();
  Ran ran = RunWords("query-mac 127.0.11.40");
  EXPECT_EQ(ran.status, 0) << ran.err;
  EXPECT_EQ(ran.err, "");
  EXPECT_EQ(ran.out.substr(0, 24), "127.0.11.40 answered in ");
  EXPECT_NE(ran.out.find(" s: MAC 024b49560028 (ET024b49560028)\n"), std::string::npos) << ran.out;
  ran = RunWords("query-mac 127.0.11.40 --json");
  EXPECT_EQ(ran.status, 0);
  EXPECT_NE(ran.out.find("\"address\": \"127.0.11.40\",\n  \"mac\": \"024b49560028\",\n  "
                         "\"macEt\": \"ET024b49560028\",\n"),
            std::string::npos)
      << ran.out;

  ran = RunWords("query-mac 127.0.11.49 --wait 1");
  EXPECT_EQ(ran.status, 3);
  EXPECT_EQ(ran.out, "no MAC address from 127.0.11.49 within 1 s\n");
  EXPECT_EQ(ran.err, "");
  EXPECT_GE(ran.seconds, 0.9);
  ran = RunWords("query-mac 127.0.11.49 --wait 1 --json");
  EXPECT_EQ(ran.status, 3);
  EXPECT_NE(ran.out.find("\"mac\": null,\n  \"macEt\": null,"), std::string::npos) << ran.out;
  simulator.Stop();
}

// The device still at the address given: confirmed there (one query) and remembered; the MAC in
// any of its usual forms.
TEST_F(KivnetRelocation, TheDeviceAtTheGivenAddressIsConfirmedAndRemembered) {
  kivsim::Simulator simulator({5353, 0, "", false});
  simulator.AddDevice(kivsim::MakeDeviceRecord(41, "127.0.11.41"));
  simulator.Start();
  unsigned long queries = 0;
  for (const char *mac : {"02:4B:49:56:00:29", "ET024b49560029", "024b.4956.0029"}) {
    const Ran ran = RunWords(std::string("relocate ") + mac + " --from 127.0.11.41 --wait 0");
    EXPECT_EQ(ran.status, 0) << mac << ": " << ran.out << ran.err;
    EXPECT_EQ(ran.err, "") << "no stage shown where standard error is not a terminal";
    EXPECT_EQ(ran.out.substr(0, 55), "024b49560029 is at 127.0.11.41, the address given (conf");
    EXPECT_NE(ran.out.find("\nremembered in the device store " + mStore + "\n"), std::string::npos)
        << ran.out;
    // The first run finds nothing remembered: one query. Later runs ask the remembered address
    // (the same) and are confirmed there.
    queries += 1;
    EXPECT_EQ(simulator.Counters(0).discovery, queries) << mac;
  }
  EXPECT_EQ(StoreText(), std::string(kStoreHeader) + SimMac(41) + " 127.0.11.41\n");
  simulator.Stop();
}

// The driver's address is stale; the store remembers where the device is: found there without a
// query to the stale address.
TEST_F(KivnetRelocation, TheRememberedAddressIsAskedFirst) {
  kivsim::Simulator simulator({5353, 0, "", false});
  simulator.AddDevice(kivsim::MakeDeviceRecord(42, "127.0.11.42"));
  simulator.Start();
  kivtest::ScriptedResponder stale("127.0.11.43", 5353, OtherDevice());
  std::ofstream(mStore) << kStoreHeader << SimMac(42) << " 127.0.11.42\n";
  const Ran ran = RunWords("relocate 02-4b-49-56-00-2a --from 127.0.11.43 --json");
  EXPECT_EQ(ran.status, 0) << ran.out << ran.err;
  for (const char *member :
       {"\"mac\": \"024b4956002a\",", "\"found\": true,", "\"address\": \"127.0.11.42\",",
        "\"given\": \"127.0.11.43\",", "\"rememberedBefore\": \"127.0.11.42\",",
        "\"remembered\": true,", "\"waitSeconds\": 10,"}) {
    EXPECT_NE(ran.out.find(member), std::string::npos) << member << " in\n" << ran.out;
  }
  EXPECT_EQ(stale.Received().size(), 0u);
  EXPECT_LT(ran.seconds, 1.9) << "the remembered address answered at once";
  simulator.Stop();
}

// Nobody has the MAC: the given address answers with another one, the browse finds nothing in
// its 0 s, and the outcome is "not found" with exit status 3; nothing is written to the store.
TEST_F(KivnetRelocation, AMacNobodyHasIsNotFound) {
  kivtest::ScriptedResponder other("127.0.11.44", 5353, OtherDevice());
  Ran ran = RunWords("relocate 024b4956fffe --from 127.0.11.44 --wait 0");
  EXPECT_EQ(ran.status, 3) << ran.out << ran.err;
  EXPECT_EQ(ran.out.substr(0, 28), "024b4956fffe not found in 0.");
  EXPECT_NE(ran.out.find(" s: no answer with that MAC from 127.0.11.44 (the address given) or "
                         "from a web server DNS-SD found in 0 s\n"),
            std::string::npos)
      << ran.out;
  EXPECT_EQ(other.Received().size(), 1u);
  ran = RunWords("relocate 024b4956fffe --from 127.0.11.44 --wait 0 --json");
  EXPECT_EQ(ran.status, 3);
  EXPECT_NE(ran.out.find("\"found\": false,\n  \"address\": null,"), std::string::npos) << ran.out;
  EXPECT_FALSE(fs::exists(mStore));
}

// The stage is drawn on a terminal, one line redrawn, and cleared at the end; with --json, or on
// a file, nothing is drawn. Here the remembered address and the given one stay silent (2 s each)
// and the browse takes its 1 s, so every stage shows.
TEST_F(KivnetRelocation, TheStageIsShownOnATerminalOnly) {
  int master = -1, slave = -1;
  if (openpty(&master, &slave, nullptr, nullptr, nullptr) != 0) {
    GTEST_SKIP() << "no pseudo-terminal can be made here";
  }
  fcntl(master, F_SETFD, FD_CLOEXEC);
  fcntl(slave, F_SETFD, FD_CLOEXEC);
  std::string drawn;
  std::thread reader([&] {
    char chunk[4096];
    for (ssize_t n; (n = read(master, chunk, sizeof chunk)) > 0;) {
      drawn.append(chunk, static_cast<std::size_t>(n));
    }
  });
  std::FILE *terminal = fdopen(slave, "w");
  ASSERT_NE(terminal, nullptr);
  std::ofstream(mStore) << kStoreHeader << SimMac(46) << " 127.0.11.45\n";
  const Ran ran = RunWords("relocate 024b4956002e --from 127.0.11.46 --wait 1", terminal);
  EXPECT_EQ(ran.status, 3);
  kivsim::Simulator simulator({5353, 0, "", false});
  simulator.AddDevice(kivsim::MakeDeviceRecord(47, "127.0.11.47"));
  simulator.Start();
  const Ran json = RunWords("relocate 024b4956002f --from 127.0.11.47 --json", terminal);
  EXPECT_EQ(json.status, 0);
  simulator.Stop();
  std::fclose(terminal); // the reader sees the end
  reader.join();
  close(master);

  EXPECT_GE(ran.seconds, 4.9);
  for (const char *stage : {"\r\033[Kkivnet: relocate: 1/3 asking the remembered address "
                            "127.0.11.45 (0.",
                            "\r\033[Kkivnet: relocate: 2/3 asking 127.0.11.46, the address given (",
                            "\r\033[Kkivnet: relocate: 3/3 browsing DNS-SD for web servers (1 s "
                            "left)"}) {
    EXPECT_NE(drawn.find(stage), std::string::npos) << stage << " in\n" << drawn;
  }
  EXPECT_EQ(drawn.substr(drawn.size() - 4), "\r\033[K") << "cleared at the end";
  EXPECT_EQ(drawn.find('\n'), std::string::npos) << "nothing but the one line";
  EXPECT_EQ(drawn.find("002f"), std::string::npos) << "nothing drawn for --json";
}

TEST_F(KivnetRelocation, TheStoreIsReadAsTheLibraryReadsIt) {
  const std::string mac = "024b49560030";
  const struct {
    std::string text;
    const char *remembered;
  } cases[] = {
      {std::string(kStoreHeader) + mac + " 127.0.11.48\n", "127.0.11.48"},
      {std::string(kStoreHeader) + mac + " 127.0.11.48", "127.0.11.48"},
      {std::string(kStoreHeader) + mac + " 10.0.0.1\nffffffffffff 10.0.0.2\n" + mac + " 10.0.0.3\n",
       "10.0.0.3"}, // the later entry wins
      {std::string(kStoreHeader) + "%30%32" + mac.substr(2) + " 10.0.0.4\n", "10.0.0.4"},
      {std::string(kStoreHeader), ""},
      {std::string(kStoreHeader) + "ffffffffffff 10.0.0.2\n", ""},
      {std::string(kStoreHeader) + mac + " 10.0.0.5\nno-space-here\n", ""}, // not a store
      {std::string(kStoreHeader) + mac + " 10.0.0.5\n%zz 10.0.0.6\n", ""},
      {"org.kivnetworkcomm.KivNetworkComm device store 2\n" + mac + " 10.0.0.5\n", ""},
      {std::string(kStoreHeader) + mac + " 300.0.0.1\n", ""},
      {std::string(kStoreHeader) + mac + " 1.2.3.4.5\n", ""},
      {std::string(kStoreHeader) + mac + " 0001.2.3.4\n", ""},
      {std::string(kStoreHeader) + mac + " printer\n", ""},
      {std::string(kStoreHeader) + mac + " 1.2.3.4%0A\n", ""},
  };
  for (const auto &c : cases) {
    std::ofstream(mStore, std::ios::trunc) << c.text;
    EXPECT_EQ(kivnet::RememberedAddress(mStore, mac), c.remembered) << c.text;
  }
  EXPECT_EQ(kivnet::RememberedAddress(mFolder + "/missing", mac), "");
  EXPECT_EQ(kivnet::RememberedAddress(mFolder, mac), "") << "a folder is no store";
  std::ofstream(mStore, std::ios::trunc) << kStoreHeader << mac << " 10.0.0.7\n"
                                         << std::string(1 << 20, 'x');
  EXPECT_EQ(kivnet::RememberedAddress(mStore, mac), "") << "over 1 MiB";
  ASSERT_EQ(mkfifo((mFolder + "/fifo").c_str(), 0600), 0);
  EXPECT_EQ(kivnet::RememberedAddress(mFolder + "/fifo", mac), "") << "a FIFO holds nothing";

  setenv("KIVNET_DEVICE_STORE", "", 1);
  EXPECT_EQ(kivnet::DeviceStorePath(), "/var/lib/KivNetworkComm/devices");
  setenv("KIVNET_DEVICE_STORE", mStore.c_str(), 1);
  EXPECT_EQ(kivnet::DeviceStorePath(), mStore);
}

TEST(KivnetRelocationStage, FollowsTheLibrarysBoundsByTimePassed) {
  kivnet::RelocationPlan plan;
  plan.given = "127.0.0.12";
  plan.waitSeconds = 5;
  const struct {
    const char *remembered;
    double elapsed;
    const char *stage;
  } cases[] = {
      {"", 0.0, "1/2 asking 127.0.0.12, the address given (0.0 s)"},
      {"", 1.96, "1/2 asking 127.0.0.12, the address given (2.0 s)"},
      {"", 2.0, "2/2 browsing DNS-SD for web servers (5 s left)"},
      {"", 6.5, "2/2 browsing DNS-SD for web servers (1 s left)"},
      {"", 7.0, "2/2 ending the browse"},
      {"127.0.0.5", 1.2, "1/3 asking the remembered address 127.0.0.5 (1.2 s)"},
      {"127.0.0.5", 2.4, "2/3 asking 127.0.0.12, the address given (0.4 s)"},
      {"127.0.0.5", 4.2, "3/3 browsing DNS-SD for web servers (5 s left)"},
      {"127.0.0.5", 30.0, "3/3 ending the browse"},
  };
  for (const auto &c : cases) {
    plan.remembered = c.remembered;
    EXPECT_EQ(kivnet::RelocationStage(plan, c.elapsed), c.stage) << c.elapsed;
  }
}

} // namespace
