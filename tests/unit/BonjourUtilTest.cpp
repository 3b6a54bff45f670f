// Device relocation: the relocation query on the wire, the MAC and address items of answers, MAC
// queries to simulated devices on loopback, the three stages with a scripted store and browser
// (found late, unresolvable services, a stop racing the browse thread, failures inside the
// browse), and the Avahi browser where no daemon is reachable.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "HCP/KivHCPDiscoveryHeader.h"
#include "HelperFiles/KivAvahiServiceBrowser.h"
#include "HelperFiles/KivBonjourUtil.h"
#include "sim/Simulator.h"
#include "support/AddressBuffer.h"
#include "support/DescriptorCheckedTest.h"
#include "support/ScriptedResponder.h"

namespace {

using kivtest::Bytes;
using kivtest::HcpAnswer;
using kivtest::Hex;
using kivtest::Join;
using kivtest::ScriptedResponder;
using kivtest::Text;
using Clock = std::chrono::steady_clock;

// No test may reach a DNS-SD daemon of this machine, which would query the real network: the
// system bus is pointed at nothing before any test runs.
const bool kNoSystemBus =
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/kivnetworkcomm-test-bus", 1) == 0;

// The relocation form of simulated device n's MAC (02 4B 49 56 00 nn).
std::string SimMac(int n) {
  char text[13];
  std::snprintf(text, sizeof text, "024b495600%02x", n);
  return text;
}

UInt32 Address(const char *text) { return inet_addr(text); }

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// The relocation's process-wide state, for checks.
struct Peek : KivNetBonjourUtil {
  using KivNetBonjourUtil::mNewIPAddress;
  using KivNetBonjourUtil::mStillBrowsing;
};

// ---- Wire: the query and the answer items -------------------------------------------------------

TEST(RelocationQuery, IsTheHcpDiscoveryQueryByteForByte) {
  const Bytes query(gBuffCommand, gBuffCommand + kRelocationQueryLength);
  EXPECT_EQ(kivtest::ToHex(query),
            "00 00 00 00 00 01 00 00 00 00 00 00 00 5F 68 6F 73 74 2D 63 6F 6E 66 69 67 04 5F "
            "75 64 70 05 6C 6F 63 61 6C 00 00 21 00 01");
  Bytes built(KivHCPDiscoveryHeader::kQueryLength);
  KivHCPDiscoveryHeader().GetDataHeader(built.data(), static_cast<int>(built.size()));
  EXPECT_EQ(query, built);
}

TEST(MacText, TheAnswerFormBecomesLowercaseDigitsInOrdinaryBitOrder) {
  const std::pair<std::string, std::string> cases[] = {
      {"00200048F13D", "000400128fbc"},
      {"FFFFFFFFFFFF", "ffffffffffff"},
      {"8040C020A060", "010203040506"},
      {"0G0000000000", "080000000000"}, // "G" is the digit 16: 0x10, reversed 0x08
      {"00200048f13d", "00040012800c"}, // lowercase letters are no digits: 0
      {"00:20:00:48:", "004000002001"}, // nor are separators
      {"002000", "000400000000"},       // missing characters are 0
      {"00200048F13D99", "000400128fbc"},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(KivNetBonjourUtil::getConvertedMACAddress(c.first), c.second) << c.first;
  }
}

// The MAC and address of an answer held in a block of exactly its size, so that a read past the
// end is caught by AddressSanitizer.
std::string Items(const Bytes &answer) {
  std::unique_ptr<unsigned char[]> exact(new unsigned char[answer.size() + (answer.empty())]);
  if (!answer.empty()) {
    std::memcpy(exact.get(), answer.data(), answer.size());
  }
  const int length = static_cast<int>(answer.size());
  return KivNetBonjourUtil::extractMACAddress(exact.get(), length) + "|" +
         KivNetBonjourUtil::extractIPAddress(exact.get(), length);
}

TEST(AnswerItems, MacAndAddressAreCutOutByTheirKeysWithinTheAnswer) {
  const std::string mac = "MACUAA=\"00200048F13D\"";
  const struct {
    Bytes answer;
    std::string items;
  } cases[] = {
      {HcpAnswer({"IPADDRESS=10.1.2.3", "IPNETMASK=255.0.0.0", mac}), "000400128fbc|10.1.2.3"},
      // The MAC's 12 characters may end the answer; one fewer is no MAC.
      {Text("IPADDRESS=1.2.3.4\x08IPNETMASK MACUAA=\"00200048F13D"), "000400128fbc|1.2.3.4"},
      {Text("MACUAA=\"00200048F13"), "|"},
      {Text("MACUAA"), "|"},
      {HcpAnswer({"IPADDRESS=10.1.2.3", "IPNETMASK=255.0.0.0"}), "|10.1.2.3"},
      // Either address key missing, or the mask before the address, is no address.
      {HcpAnswer({"IPNETMASK=255.0.0.0", mac}), "000400128fbc|"},
      {HcpAnswer({"IPADDRESS=10.1.2.3", mac}), "000400128fbc|"},
      {HcpAnswer({"IPNETMASK=255.0.0.0", "IPADDRESS=10.1.2.3", mac}), "000400128fbc|"},
      // IPNETMASK 10 bytes after IPADDRESS leaves no room; 11 bytes is an empty address.
      {Text("IPADDRESS=IPNETMASK"), "|"},
      {Text("IPADDRESS=\x01IPNETMASK"), "|"},
      // 15 characters fit the driver's buffer; 16 and 20 are refused, not cut.
      {HcpAnswer({"IPADDRESS=192.168.100.123", "IPNETMASK=255.255.255.0"}), "|192.168.100.123"},
      {HcpAnswer({"IPADDRESS=192.168.100.1234", "IPNETMASK=255.255.255.0"}), "|"},
      {HcpAnswer({"IPADDRESS=12345678901234567890", "IPNETMASK=255.255.255.0"}), "|"},
      // Zero bytes inside the answer do not end the search; keys are case-sensitive.
      {Join({Hex("00 00"), HcpAnswer({"ipaddress=1.1.1.1", "IPADDRESS=2.2.2.2", "IPNETMASK=x"})}),
       "|2.2.2.2"},
      {Bytes(), "|"},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(Items(c.answer), c.items) << kivtest::ToHex(c.answer);
  }
  EXPECT_EQ(KivNetBonjourUtil::extractMACAddress(nullptr, 10) +
                KivNetBonjourUtil::extractIPAddress(nullptr, 10),
            "");
}

// ---- MAC queries to loopback peers
// ---------------------------------------------------------------

// Loopback addresses 127.0.10.1 to 127.0.10.49 belong to this file, each to one test, so that
// tests running at once never share a port 5353.
class MacQuery : public kivtest::DescriptorCheckedTest {};

TEST_F(MacQuery, TheDeviceAnswersWithItsMacAndItsAddressIsKept) {
  kivsim::Simulator simulator({5353, 0, "", false});
  simulator.AddDevice(kivsim::MakeDeviceRecord(1, "127.0.10.1"));
  simulator.Start();
  EXPECT_EQ(KivNetBonjourUtil::getMACAddressByHCP("127.0.10.1", 2), SimMac(1));
  EXPECT_EQ(Peek::mNewIPAddress, "127.0.10.1");
  EXPECT_EQ(simulator.Counters(0).discovery, 1u);
  EXPECT_TRUE(KivNetBonjourUtil::checkMACAddress("127.0.10.1", SimMac(1), 2));
  for (const std::string &other : {std::string("024B49560001"), std::string("02:4b:49:56:00:01"),
                                   SimMac(2), std::string("")}) {
    Peek::mNewIPAddress = "kept?";
    EXPECT_FALSE(KivNetBonjourUtil::checkMACAddress("127.0.10.1", other, 2)) << other;
    EXPECT_EQ(Peek::mNewIPAddress, "") << "a failed check forgets the address";
  }
  simulator.Stop();
}

TEST_F(MacQuery, SendsTheQueryToPort5353AndTakesTheFirstDatagram) {
  ScriptedResponder peer(
      "127.0.10.2", 5353,
      HcpAnswer({"IPADDRESS=10.9.8.7", "IPNETMASK=255.0.0.0", "MACUAA=\"00200048F13D\""}));
  EXPECT_EQ(KivNetBonjourUtil::getMACAddressByHCP("127.0.10.2", 2), "000400128fbc");
  EXPECT_EQ(Peek::mNewIPAddress, "10.9.8.7") << "the address the device reports, not the one asked";
  const std::vector<Bytes> received = peer.Received();
  ASSERT_EQ(received.size(), 1u);
  EXPECT_EQ(received[0], Bytes(gBuffCommand, gBuffCommand + kRelocationQueryLength));
}

TEST_F(MacQuery, NoUsableAnswerIsTheEmptyText) {
  {
    ScriptedResponder empty("127.0.10.3", 5353, Bytes());
    Peek::mNewIPAddress = "stale";
    EXPECT_EQ(KivNetBonjourUtil::getMACAddressByHCP("127.0.10.3", 2), "");
    EXPECT_EQ(Peek::mNewIPAddress, "") << "an answer without items has no address";
  }
  // Nobody there: the whole wait, then nothing, and the kept address is not touched.
  Peek::mNewIPAddress = "kept";
  Clock::time_point start = Clock::now();
  EXPECT_EQ(KivNetBonjourUtil::getMACAddressByHCP("127.0.10.4", 1), "");
  EXPECT_GE(SecondsSince(start), 0.9);
  EXPECT_LT(SecondsSince(start), 5.0);
  EXPECT_EQ(Peek::mNewIPAddress, "kept");
  start = Clock::now();
  EXPECT_EQ(KivNetBonjourUtil::getMACAddressByHCP("127.0.10.4", 0), "");
  EXPECT_EQ(KivNetBonjourUtil::getMACAddressByHCP("127.0.10.4", -5), "");
  EXPECT_LT(SecondsSince(start), 2.0) << "a time-out of 0 (or below) does not wait";
}

// ---- Relocation stages with a scripted store and browser
// -----------------------------------------

// A store in memory; it can be told to fail its writes.
class FakeStore : public kiv::KivDeviceStore {
public:
  std::string Get(const std::string &key) const override {
    const std::lock_guard<std::mutex> lock(mLock);
    ++gets;
    const auto found = entries.find(key);
    return found == entries.end() ? "" : found->second;
  }
  bool Set(const std::string &key, const std::string &value) override {
    const std::lock_guard<std::mutex> lock(mLock);
    ++sets;
    if (failWrites) {
      return false;
    }
    entries[key] = value;
    return true;
  }
  std::map<std::string, std::string> entries;
  bool failWrites = false;
  mutable int gets = 0;
  int sets = 0;

private:
  mutable std::mutex mLock;
};

// What a scripted browse reports, and what happened to it.
struct BrowseScript {
  struct Service {
    std::string name;
    int afterMs;                   // reported this long after the search began
    std::vector<UInt32> addresses; // what it resolves to; empty: the resolution fails
  };
  std::vector<Service> services;
  std::function<void()> beforeCreate;  // runs in the factory, on the browse thread
  std::function<void()> beforeResolve; // runs in Resolve, inside the callback

  void Note(const std::string &event) {
    const std::lock_guard<std::mutex> lock(mLock);
    mEvents += event + ";";
  }
  std::string Events() {
    const std::lock_guard<std::mutex> lock(mLock);
    return mEvents;
  }
  kiv::KivServiceBrowserFactory Factory();

private:
  std::mutex mLock;
  std::string mEvents;
};

class FakeBrowser : public kiv::KivServiceBrowser {
public:
  explicit FakeBrowser(BrowseScript &script) : mScript(script) {}

  bool SearchForServices(const std::string &domain, const std::string &type, Callback callback,
                         void *info) override {
    mScript.Note("search " + type + " in '" + domain + "'");
    const Clock::time_point start = Clock::now();
    std::unique_lock<std::mutex> lock(mLock);
    for (const BrowseScript::Service &service : mScript.services) {
      if (mCondition.wait_until(lock, start + std::chrono::milliseconds(service.afterMs),
                                [this] { return mStopped; })) {
        break;
      }
      lock.unlock();
      kiv::KivBrowsedService found;
      found.name = service.name;
      found.type = type;
      found.domain = "local";
      callback(this, 0, &found, 0, info);
      lock.lock();
    }
    // A real browse goes on until it is stopped; a minute bounds a test that never stops it.
    mCondition.wait_for(lock, std::chrono::seconds(60), [this] { return mStopped; });
    mScript.Note("search returns");
    return true;
  }
  void StopSearch() override {
    mScript.Note("stop");
    const std::lock_guard<std::mutex> lock(mLock);
    mStopped = true;
    mCondition.notify_all();
  }
  std::vector<UInt32> Resolve(const kiv::KivBrowsedService &service, int waitMs) override {
    mScript.Note("resolve " + service.name + " " + std::to_string(waitMs));
    if (mScript.beforeResolve) {
      mScript.beforeResolve();
    }
    for (const BrowseScript::Service &known : mScript.services) {
      if (known.name == service.name) {
        return known.addresses;
      }
    }
    return {};
  }

private:
  BrowseScript &mScript;
  std::mutex mLock;
  std::condition_variable mCondition;
  bool mStopped = false;
};

kiv::KivServiceBrowserFactory BrowseScript::Factory() {
  return [this]() -> std::unique_ptr<kiv::KivServiceBrowser> {
    Note("create");
    if (beforeCreate) {
      beforeCreate();
    }
    return std::unique_ptr<kiv::KivServiceBrowser>(new FakeBrowser(*this));
  };
}

// Addresses 127.0.10.10 and up; a caller's buffer of 16 bytes with a guard area behind it.
class Relocation : public kivtest::DescriptorCheckedTest, protected kivtest::AddressBuffer {
protected:
  bool Relocate(const char *mac, UInt32 timeout) {
    KivNetBonjourUtil relocation(store, script.Factory());
    return relocation.resolveNewIPAddress(buffer, mac, timeout);
  }

  FakeStore store;
  BrowseScript script;
};

// A peer that answers with another device's MAC at once, so a check of its address fails fast.
Bytes OtherDevice() {
  return HcpAnswer({"IPADDRESS=127.0.0.99", "IPNETMASK=255.0.0.0", "MACUAA=\"FFFFFFFFFFFF\""});
}

TEST_F(Relocation, ADeviceStillAtTheDriversAddressIsConfirmedWithoutBrowsing) {
  kivsim::Simulator simulator({5353, 0, "", false});
  simulator.AddDevice(kivsim::MakeDeviceRecord(3, "127.0.10.10"));
  simulator.Start();
  Hold("127.0.10.10");
  EXPECT_TRUE(Relocate(SimMac(3).c_str(), 10));
  EXPECT_EQ(Held(), "127.0.10.10");
  EXPECT_TRUE(GuardIntact());
  EXPECT_EQ(store.entries[SimMac(3)], "127.0.10.10") << "the address is remembered";
  EXPECT_EQ(script.Events(), "") << "no browse";
  EXPECT_EQ(simulator.Counters(0).discovery, 1u);
  simulator.Stop();
}

TEST_F(Relocation, TheBrowseFindsTheDeviceSecondsLaterAndTheCallReturnsSoonAfter) {
  kivsim::Simulator simulator({5353, 0, "", false});
  simulator.AddDevice(kivsim::MakeDeviceRecord(5, "127.0.10.15"));
  simulator.Start();
  ScriptedResponder remembered("127.0.10.13", 5353, OtherDevice());
  ScriptedResponder stale("127.0.10.14", 5353, OtherDevice());
  store.entries[SimMac(5)] = "127.0.10.13";
  script.services = {{"web server", 300, {Address("127.0.10.14")}},
                     {"printer", 3000, {Address("127.0.10.15"), Address("127.0.10.14")}}};
  Hold("127.0.10.14");
  const Clock::time_point start = Clock::now();
  EXPECT_TRUE(Relocate(SimMac(5).c_str(), 10));
  const double took = SecondsSince(start);
  EXPECT_GE(took, 3.0);
  EXPECT_LT(took, 8.0) << "returns at the next one-second poll, not after the time-out";
  EXPECT_EQ(Held(), "127.0.10.15") << "the first address of the resolved service";
  EXPECT_TRUE(GuardIntact());
  EXPECT_EQ(store.entries[SimMac(5)], "127.0.10.15");
  EXPECT_EQ(script.Events(), "create;search _http._tcp in '';resolve web server 5000;"
                             "resolve printer 5000;stop;search returns;");
  EXPECT_EQ(remembered.Received().size(), 1u);
  EXPECT_EQ(stale.Received().size(), 2u) << "the driver's address, then the web server";
  simulator.Stop();
}

TEST_F(Relocation, AServiceThatCannotBeResolvedIsSkipped) {
  kivsim::Simulator simulator({5353, 0, "", false});
  simulator.AddDevice(kivsim::MakeDeviceRecord(6, "127.0.10.17"));
  simulator.Start();
  ScriptedResponder stale("127.0.10.16", 5353, OtherDevice());
  script.services = {{"gone", 0, {}}, {"printer", 100, {Address("127.0.10.17")}}};
  Hold("127.0.10.16");
  EXPECT_TRUE(Relocate(SimMac(6).c_str(), 5));
  EXPECT_EQ(Held(), "127.0.10.17");
  EXPECT_EQ(script.Events(), "create;search _http._tcp in '';resolve gone 5000;"
                             "resolve printer 5000;stop;search returns;");
  simulator.Stop();
}

TEST_F(Relocation, TheStopWaitsForARunningCheckWhoseFindStillCounts) {
  kivsim::Simulator simulator({5353, 0, "", false});
  simulator.AddDevice(kivsim::MakeDeviceRecord(7, "127.0.10.19"));
  simulator.Start();
  ScriptedResponder stale("127.0.10.18", 5353, OtherDevice());
  script.services = {{"printer", 0, {Address("127.0.10.19")}}};
  // The resolution lasts until the relocation has given up waiting and begun to stop the browse.
  script.beforeResolve = [] {
    const Clock::time_point limit = Clock::now() + std::chrono::seconds(20);
    while (Peek::mStillBrowsing && Clock::now() < limit) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  };
  Hold("127.0.10.18");
  EXPECT_TRUE(Relocate(SimMac(7).c_str(), 1));
  EXPECT_EQ(Held(), "127.0.10.19");
  EXPECT_EQ(script.Events(),
            "create;search _http._tcp in '';resolve printer 5000;stop;search returns;")
      << "the stop came only after the check";
  simulator.Stop();
}

TEST_F(Relocation, AStopBeforeTheBrowseBeganKeepsItFromSearching) {
  ScriptedResponder stale("127.0.10.20", 5353, OtherDevice());
  // The browse thread makes its browser only once the relocation has stopped browsing.
  script.beforeCreate = [] {
    const Clock::time_point limit = Clock::now() + std::chrono::seconds(20);
    while (Peek::mStillBrowsing && Clock::now() < limit) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  };
  script.services = {{"printer", 0, {Address("127.0.10.20")}}};
  Hold("127.0.10.20");
  const Clock::time_point start = Clock::now();
  EXPECT_FALSE(Relocate(SimMac(8).c_str(), 0));
  EXPECT_LT(SecondsSince(start), 10.0);
  EXPECT_EQ(script.Events(), "create;") << "made, never searched, never stopped";
  EXPECT_EQ(Held(), "127.0.10.20");
  EXPECT_TRUE(store.entries.empty());
}

TEST_F(Relocation, MissingArgumentsEndTheCallBeforeAnything) {
  Hold("127.0.10.22");
  KivNetBonjourUtil relocation(store, script.Factory());
  EXPECT_FALSE(relocation.resolveNewIPAddress(nullptr, "000400128fbc", 5));
  EXPECT_FALSE(relocation.resolveNewIPAddress(buffer, nullptr, 5));
  EXPECT_EQ(Held(), "127.0.10.22");
  EXPECT_EQ(store.gets + store.sets, 0);
  EXPECT_EQ(script.Events(), "");
}

TEST_F(Relocation, AStoreThatCannotBeWrittenDoesNotSpoilAFind) {
  ScriptedResponder device(
      "127.0.10.24", 5353,
      HcpAnswer({"IPADDRESS=127.0.10.25", "IPNETMASK=255.0.0.0", "MACUAA=\"00200048F13D\""}));
  store.failWrites = true;
  Hold("127.0.10.24");
  EXPECT_TRUE(Relocate("000400128fbc", 0));
  EXPECT_EQ(Held(), "127.0.10.25");
  EXPECT_EQ(store.sets, 1);
}

TEST_F(Relocation, FailuresInsideTheBrowseStayInside) {
  ScriptedResponder stale("127.0.10.26", 5353, OtherDevice());
  Hold("127.0.10.26");
  // A factory that throws, one that makes nothing, a resolution that throws.
  script.beforeCreate = [] { throw std::runtime_error("no browser"); };
  EXPECT_FALSE(Relocate(SimMac(10).c_str(), 1));
  KivNetBonjourUtil none(store, [] { return std::unique_ptr<kiv::KivServiceBrowser>(); });
  EXPECT_FALSE(none.resolveNewIPAddress(buffer, SimMac(10).c_str(), 1));
  script.beforeCreate = nullptr;
  script.services = {{"printer", 0, {Address("127.0.10.26")}}};
  script.beforeResolve = [] { throw std::bad_alloc(); };
  EXPECT_FALSE(Relocate(SimMac(10).c_str(), 1));
  EXPECT_EQ(Held(), "127.0.10.26");
}

TEST_F(Relocation, RelocationsFromTwoThreadsTakeTurns) {
  kivsim::Simulator simulator({5353, 0, "", false});
  simulator.AddDevice(kivsim::MakeDeviceRecord(11, "127.0.10.27"));
  simulator.AddDevice(kivsim::MakeDeviceRecord(12, "127.0.10.28"));
  simulator.Start();
  bool found[2] = {false, false};
  char addresses[2][16] = {"127.0.10.27", "127.0.10.28"};
  std::thread threads[2];
  for (int i = 0; i < 2; ++i) {
    threads[i] = std::thread([&, i] {
      FakeStore own;
      KivNetBonjourUtil relocation(own, nullptr);
      for (int round = 0; round < 5; ++round) {
        found[i] = relocation.resolveNewIPAddress(addresses[i], SimMac(11 + i).c_str(), 0);
        if (!found[i]) {
          break;
        }
      }
    });
  }
  for (std::thread &thread : threads) {
    thread.join();
  }
  EXPECT_TRUE(found[0] && found[1]);
  EXPECT_EQ(std::string(addresses[0]) + " " + addresses[1], "127.0.10.27 127.0.10.28");
  simulator.Stop();
}

// ---- The Avahi browser where no daemon answers
// ---------------------------------------------------

void NoteService(kiv::KivServiceBrowser *, UInt32, const kiv::KivBrowsedService *, int,
                 void *count) {
  ++*static_cast<int *>(count);
}

TEST(AvahiBrowserWithoutDaemon, FindsNothingAndNeverBlocks) {
  ASSERT_TRUE(kNoSystemBus);
  const int before = kivtest::CountOpenDescriptors();
  int found = 0;
  {
    std::unique_ptr<kiv::KivServiceBrowser> browser = kiv::MakeAvahiServiceBrowser();
    ASSERT_NE(browser, nullptr);
    const Clock::time_point start = Clock::now();
    EXPECT_FALSE(browser->SearchForServices("", "_http._tcp", NoteService, &found));
    EXPECT_LT(SecondsSince(start), 5.0);
    EXPECT_TRUE(browser->Resolve(kiv::KivBrowsedService(), 1000).empty());
    EXPECT_FALSE(browser->SearchForServices("", "_http._tcp", nullptr, nullptr));
  }
  {
    std::unique_ptr<kiv::KivServiceBrowser> browser = kiv::MakeAvahiServiceBrowser();
    browser->StopSearch();
    browser->StopSearch();
    EXPECT_TRUE(browser->SearchForServices("", "_http._tcp", NoteService, &found))
        << "stopped before it began: returns at once without searching";
  }
  EXPECT_EQ(found, 0);
  EXPECT_EQ(kivtest::CountOpenDescriptors(), before);
}

} // namespace
