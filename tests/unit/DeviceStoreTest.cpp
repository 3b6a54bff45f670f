// The device store file: its exact format, atomic replacement, damaged and unreadable files, a
// writer that cannot get the lock, and several processes writing at once.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "HelperFiles/KivFileDeviceStore.h"
#include "support/DescriptorCheckedTest.h"

namespace {

namespace fs = std::filesystem;
using kiv::KivFileDeviceStore;

const std::string kHeaderLine = std::string(KivFileDeviceStore::kHeader) + "\n";

// A fresh folder for each test, removed afterwards.
class DeviceStore : public kivtest::DescriptorCheckedTest {
protected:
  void SetUp() override {
    kivtest::DescriptorCheckedTest::SetUp();
    char pattern[] = "/tmp/kiv-store-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    folder = pattern;
    path = folder + "/devices";
  }
  void TearDown() override {
    fs::remove_all(folder);
    kivtest::DescriptorCheckedTest::TearDown();
  }

  std::string ReadFile() const {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
  }
  void WriteFile(const std::string &text) const {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
  }
  // Names in the folder, sorted.
  std::string Listing() const {
    std::vector<std::string> names;
    for (const auto &entry : fs::directory_iterator(folder)) {
      names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    std::string text;
    for (const std::string &name : names) {
      text += name + " ";
    }
    return text;
  }

  std::string folder, path;
};

TEST_F(DeviceStore, ReadingAMissingStoreGivesNothingAndCreatesNothing) {
  const KivFileDeviceStore store(path);
  EXPECT_EQ(store.Get("000400128fbc"), "");
  EXPECT_EQ(Listing(), "");
  const KivFileDeviceStore deeper(folder + "/missing/devices");
  EXPECT_EQ(deeper.Get("000400128fbc"), "");
  EXPECT_FALSE(fs::exists(folder + "/missing"));
}

TEST_F(DeviceStore, WritesOneLinePerDeviceAndEscapesKeys) {
  KivFileDeviceStore store(path);
  ASSERT_TRUE(store.Set("000400128fbc", "192.168.1.37"));
  ASSERT_TRUE(store.Set("024b49560001", "10.0.0.1"));
  ASSERT_TRUE(store.Set("000400128fbc", "192.168.1.38")); // replaces
  // Any key the driver gives survives: space, line break, "%" and non-ASCII bytes are escaped.
  const std::string odd = "00:04 AC\n%\xC3\xA9";
  ASSERT_TRUE(store.Set(odd, "127.0.0.1"));
  EXPECT_EQ(ReadFile(), kHeaderLine + "000400128fbc 192.168.1.38\n" +
                            "00:04%20AC%0A%25%C3%A9 127.0.0.1\n024b49560001 10.0.0.1\n");
  EXPECT_EQ(store.Get("000400128fbc"), "192.168.1.38");
  EXPECT_EQ(store.Get(odd), "127.0.0.1");
  EXPECT_EQ(store.Get("000400128FBC"), "") << "keys are compared exactly";
  EXPECT_EQ(Listing(), "devices devices.lock ") << "no temporary file is left behind";
  struct stat info;
  ASSERT_EQ(stat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0644u) << "drivers of every user read the store";
}

TEST_F(DeviceStore, KeepsOnlyDottedAddressesThatFitTheDriversBuffer) {
  struct Case {
    std::string value;
    bool storable;
  };
  const Case cases[] = {
      {"0.0.0.0", true},
      {"255.255.255.255", true},
      {"192.168.100.23", true},
      {"", false},
      {"1.2.3", false},
      {"1.2.3.4.5", false},
      {"256.1.1.1", false},
      {"01.2.3.4", false},
      {"1.2.3.4 ", false},
      {" 1.2.3.4", false},
      {"1.2.3.", false},
      {"1..2.3", false},
      {"1234.1.1.1", false},
      {"a.b.c.d", false},
      {"255.255.255.2555", false},
      {"1.2.3.4\n1.2", false},
      {std::string("1.2.3.4\0", 8), false},
  };
  KivFileDeviceStore store(path);
  for (const Case &c : cases) {
    EXPECT_EQ(KivFileDeviceStore::IsStorableAddress(c.value), c.storable) << c.value;
    EXPECT_EQ(store.Set("k", c.value), c.storable) << c.value;
  }
  EXPECT_FALSE(store.Set("", "1.2.3.4")) << "an empty key is never stored";
  EXPECT_EQ(store.Get("k"), "192.168.100.23") << "the last value stored";
}

TEST_F(DeviceStore, ReplacesTheFileAsAWholeSoReadersNeverSeeAMix) {
  KivFileDeviceStore store(path);
  ASSERT_TRUE(store.Set("a", "1.1.1.1"));
  // A reader holding the old file keeps reading the old file: the store was renamed over, not
  // rewritten in place.
  std::ifstream before(path);
  struct stat first, second;
  ASSERT_EQ(stat(path.c_str(), &first), 0);
  ASSERT_TRUE(store.Set("b", "2.2.2.2"));
  ASSERT_EQ(stat(path.c_str(), &second), 0);
  EXPECT_NE(first.st_ino, second.st_ino);
  std::ostringstream old;
  old << before.rdbuf();
  EXPECT_EQ(old.str(), kHeaderLine + "a 1.1.1.1\n");
  EXPECT_EQ(ReadFile(), kHeaderLine + "a 1.1.1.1\nb 2.2.2.2\n");
}

TEST_F(DeviceStore, ADamagedStoreReadsAsEmptyAndTheNextWriteStartsAfresh) {
  const std::string damaged[] = {
      "",
      "a 1.1.1.1\n",                           // no header line
      kHeaderLine.substr(0, 20),               // cut inside the header
      kHeaderLine + "a 1.1.1.1\nbrokenline\n", // a line without a value
      kHeaderLine + "a1.1.1.1\n",              // no separator
      kHeaderLine + "a 1.1.1.1\n 2.2.2.2\n",   // empty key
      kHeaderLine + "a%4 1.1.1.1\n",           // cut escape
      kHeaderLine + "a%zz 1.1.1.1\n",          // bad escape
      kHeaderLine + "a 1.1.1.1\t\n",           // control byte
      std::string("\0\xFF\xFE garbage", 11),   // not text
      kHeaderLine + "a 1.1.1.1 extra\n",       // two spaces
  };
  KivFileDeviceStore store(path);
  for (const std::string &text : damaged) {
    WriteFile(text);
    EXPECT_EQ(store.Get("a"), "") << kivtest::ToHex(kivtest::Bytes(text.begin(), text.end()));
  }
  ASSERT_TRUE(store.Set("b", "2.2.2.2"));
  EXPECT_EQ(ReadFile(), kHeaderLine + "b 2.2.2.2\n");
  // A file without the final line break is still read.
  WriteFile(kHeaderLine + "a 1.1.1.1");
  EXPECT_EQ(store.Get("a"), "1.1.1.1");
}

TEST_F(DeviceStore, AStoredValueTheDriverCannotTakeCountsAsAbsent) {
  WriteFile(kHeaderLine + "long 123.123.123.1234\n" + "longer 1.2.3.4.5.6.7.8.9\n" +
            "text hello\n" + "good 10.1.2.3\n");
  const KivFileDeviceStore store(path);
  EXPECT_EQ(store.Get("long") + "|" + store.Get("longer") + "|" + store.Get("text"), "||");
  EXPECT_EQ(store.Get("good"), "10.1.2.3");
}

TEST_F(DeviceStore, SomethingOtherThanAFileReadsAsEmpty) {
  const KivFileDeviceStore store(path);
  ASSERT_EQ(mkfifo(path.c_str(), 0644), 0);
  EXPECT_EQ(store.Get("a"), "") << "a FIFO must not hold the reader";
  fs::remove(path);
  fs::create_directory(path);
  EXPECT_EQ(store.Get("a"), "");
  fs::remove(path);
  WriteFile(kHeaderLine + std::string(1 << 20, 'x'));
  EXPECT_EQ(store.Get("a"), "") << "larger than 1 MiB";
}

// Runs `check` in a child process that has given up root (when it had it), and returns its
// exit status: root reads and writes every file whatever its mode.
int AsAnotherUser(const std::function<bool()> &check) {
  const pid_t child = fork();
  if (child == 0) {
    if (getuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) {
      _exit(2);
    }
    _exit(check() ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 3;
}

TEST_F(DeviceStore, AnUnreadableOrUnwritableStoreIsReportedNotFatal) {
  KivFileDeviceStore store(path);
  ASSERT_TRUE(store.Set("a", "1.1.1.1"));
  ASSERT_EQ(chmod(path.c_str(), 0), 0);
  ASSERT_EQ(chmod(folder.c_str(), 0755), 0);
  EXPECT_EQ(AsAnotherUser([&] { return store.Get("a").empty() && !store.Set("a", "2.2.2.2"); }), 0)
      << "a store another user made unreadable in a folder it cannot write";
  ASSERT_EQ(chmod(path.c_str(), 0644), 0);
  EXPECT_EQ(
      AsAnotherUser([&] { return store.Get("a") == "1.1.1.1" && !store.Set("a", "3.3.3.3"); }), 0)
      << "a readable store in a folder the user cannot write";
  EXPECT_EQ(store.Get("a"), "1.1.1.1");
}

TEST_F(DeviceStore, TheFirstWriteMakesTheStoresOwnFolderOnly) {
  KivFileDeviceStore store(folder + "/KivNetworkComm/devices");
  ASSERT_TRUE(store.Set("a", "1.1.1.1"));
  EXPECT_EQ(store.Get("a"), "1.1.1.1");
  KivFileDeviceStore deeper(folder + "/x/y/devices");
  EXPECT_FALSE(deeper.Set("a", "1.1.1.1"));
  EXPECT_FALSE(fs::exists(folder + "/x"));
}

TEST_F(DeviceStore, AWriterGivesUpWhenAnotherHoldsTheLockTooLong) {
  KivFileDeviceStore store(path);
  ASSERT_TRUE(store.Set("a", "1.1.1.1"));
  const int holder = open((path + ".lock").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(holder, 0);
  ASSERT_EQ(flock(holder, LOCK_EX), 0);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(store.Set("a", "2.2.2.2"));
  const double waited =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_GT(waited, 1.0);
  EXPECT_LT(waited, 10.0);
  EXPECT_EQ(store.Get("a"), "1.1.1.1") << "readers take no lock";
  close(holder);
  EXPECT_TRUE(store.Set("a", "2.2.2.2"));
}

TEST_F(DeviceStore, ProcessesWritingAtOnceLoseNothingAndNeverTearTheFile) {
  KivFileDeviceStore store(path);
  ASSERT_TRUE(store.Set("first", "9.9.9.9"));
  constexpr int kWriters = 4, kEach = 20;
  std::vector<pid_t> writers;
  for (int w = 0; w < kWriters; ++w) {
    const pid_t child = fork();
    if (child == 0) {
      bool ok = true;
      for (int i = 0; i < kEach; ++i) {
        ok = store.Set("w" + std::to_string(w) + "-" + std::to_string(i),
                       "10.0." + std::to_string(w) + "." + std::to_string(i)) &&
             ok;
      }
      _exit(ok ? 0 : 1);
    }
    ASSERT_GT(child, 0);
    writers.push_back(child);
  }
  // Meanwhile every read sees a whole store.
  int reads = 0, torn = 0;
  for (int alive = kWriters; alive > 0 && reads < 100000; ++reads) {
    torn += store.Get("first") == "9.9.9.9" ? 0 : 1;
    alive = 0;
    for (pid_t writer : writers) {
      alive += waitpid(writer, nullptr, WNOHANG) == 0 ? 1 : 0;
    }
  }
  for (pid_t writer : writers) {
    int status = 0;
    if (waitpid(writer, &status, 0) == writer) {
      EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "a write failed";
    }
  }
  EXPECT_EQ(torn, 0) << "of " << reads << " reads";
  for (int w = 0; w < kWriters; ++w) {
    for (int i = 0; i < kEach; ++i) {
      EXPECT_EQ(store.Get("w" + std::to_string(w) + "-" + std::to_string(i)),
                "10.0." + std::to_string(w) + "." + std::to_string(i));
    }
  }
  EXPECT_EQ(Listing(), "devices devices.lock ");
}

TEST(DeviceStorePath, TheEnvironmentNamesTheStoreElseTheSystemWideFile) {
  const char *saved = std::getenv("KIVNET_DEVICE_STORE");
  const std::string restore = saved != nullptr ? saved : "";
  setenv("KIVNET_DEVICE_STORE", "/tmp/elsewhere/devices", 1);
  EXPECT_EQ(KivFileDeviceStore::DefaultPath(), "/tmp/elsewhere/devices");
  setenv("KIVNET_DEVICE_STORE", "", 1);
  EXPECT_EQ(KivFileDeviceStore::DefaultPath(), "/var/lib/KivNetworkComm/devices");
  unsetenv("KIVNET_DEVICE_STORE");
  EXPECT_EQ(KivFileDeviceStore::DefaultPath(), "/var/lib/KivNetworkComm/devices");
  if (saved != nullptr) {
    setenv("KIVNET_DEVICE_STORE", restore.c_str(), 1);
  }
}

} // namespace
