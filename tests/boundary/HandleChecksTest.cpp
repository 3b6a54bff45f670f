// Handle checks at the boundary: every exported function that takes a handle refuses, with its own
// invalid-handle code, every pointer that is not a live handle of the kind it needs (null, other
// kinds, destroyed objects, pointers the library never made), without reading behind it. Run
// under AddressSanitizer and valgrind, a read of a destroyed or foreign object is a failure.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Interfaces/KivNetworkComm.h"

namespace {

// What a handle slot of an exported function accepts.
enum class Kind { kBuffer, kAddress, kUdp, kNothing };

// One pointer given to every slot, and the kind of handle it is (kNothing: no live handle).
struct Candidate {
  std::string name;
  HANDLE pointer;
  Kind kind;
};

// One handle slot of one exported function: called with the candidate in that slot (the other
// slots hold valid handles), it must give `refused`.
struct Slot {
  std::string function;
  Kind accepts;
  UInt32 refused;
  std::function<UInt32(HANDLE)> call;
};

// The live handles the slots need besides the one under test, and the candidates.
class HandleChecks : public ::testing::Test {
protected:
  void SetUp() override {
    mBuffer = CreateBuffer();
    std::string text = "127.0.0.1";
    mAddress = CreateSocketAddress(text, 9);
    mUdp = OpenUDPSocket(0);
    ASSERT_NE(mUdp, nullptr);
  }
  void TearDown() override {
    delete VerifyBufferHandle(mBuffer);
    delete VerifySockAddressHandle(mAddress);
    delete static_cast<KivUDPSocket *>(VerifySocketHandle(mUdp, 0));
  }

  std::vector<Slot> Slots() {
    std::vector<Slot> slots;
    HANDLE buffer = mBuffer, address = mAddress, udp = mUdp;
    auto buffers = [&](const std::string &name, UInt32 number, std::function<UInt32(HANDLE)> f) {
      slots.push_back({name, Kind::kBuffer, 0x0A090001u | (number << 8), f});
    };
    const UInt32 hbn3 = 0x48424E33;
    std::string text = "000000000000";
    static unsigned char unique[6] = {};
    buffers("CreateDiscovery", 0x05, [=](HANDLE h) { return CreateDiscovery(hbn3, h); });
    buffers("CreatePing", 0x06, [=](HANDLE h) { return CreatePing(hbn3, 1, h); });
    buffers("CreateStatusCacheRequest", 0x07,
            [=](HANDLE h) { return CreateStatusCacheRequest(hbn3, 1, 1, 1, h); });
    buffers("CreateHostListEntry", 0x08, [=](HANDLE h) mutable {
      return CreateHostListEntry(hbn3, false, 0, 1, 1, nullptr, text, unique, 0, h);
    });
    buffers("CreateRequestScan", 0x09,
            [=](HANDLE h) { return CreateRequestScan(hbn3, false, 1, 1, 1, h); });
    buffers("CreateRequestScanReply", 0x0A,
            [=](HANDLE h) { return CreateRequestScanReply(hbn3, false, 1, 1, h); });
    buffers("CreateIPConfig", 0x0B, [=](HANDLE h) mutable {
      return CreateIPConfig(hbn3, text, text, text, text, text, text, text, h);
    });
    buffers("ParseHCPResponse", 0x0C, [=](HANDLE h) {
      KivNetRecord record;
      return ParseHCPResponse(hbn3, h, 0x80000006, record);
    });
    buffers("ParsePingResponse", 0x0D, [=](HANDLE h) {
      HBNResponseInfo info;
      return ParsePingResponse(hbn3, h, info);
    });
    buffers("ParseRequestScanResponse", 0x0E, [=](HANDLE h) {
      HBNResponseInfo info;
      return ParseRequestScanResponse(hbn3, h, info);
    });
    buffers("ParseHostListEntryResponse", 0x0F, [=](HANDLE h) {
      HBNResponseInfo info;
      return ParseHostListEntryResponse(hbn3, h, info);
    });
    buffers("ParseStatusCacheResponse", 0x10, [=](HANDLE h) {
      StatCacheResponse status;
      return ParseStatusCacheResponse(hbn3, h, status);
    });
    buffers("ParseRequestScan", 0x35, [=](HANDLE h) {
      HBNResponseInfo info;
      return ParseRequestScan(hbn3, h, info);
    });
    buffers("GetHeaderType", 0x11, [](HANDLE h) { return GetHeaderType(h); });
    buffers("GetCommandType", 0x12, [](HANDLE h) { return GetCommandType(h); });
    // The validators give null for what they refuse: 0 here, 1 for a handle they return.
    slots.push_back({"VerifyBufferHandle", Kind::kBuffer, 0,
                     [](HANDLE h) { return UInt32(VerifyBufferHandle(h) != nullptr); }});
    slots.push_back({"VerifySockAddressHandle", Kind::kAddress, 0,
                     [](HANDLE h) { return UInt32(VerifySockAddressHandle(h) != nullptr); }});
    // Kinds 1 and 2 accept no handle made here.
    for (int kind = 0; kind <= 3; ++kind) {
      const Kind accepts = kind == 0 ? Kind::kUdp : Kind::kNothing;
      const std::string k = " kind " + std::to_string(kind);
      slots.push_back({"VerifySocketHandle" + k, accepts, 0,
                       [=](HANDLE h) { return UInt32(VerifySocketHandle(h, kind) != nullptr); }});
      slots.push_back({"SetSocketOptions" + k, accepts, 0x0A091702,
                       [=](HANDLE h) { return SetSocketOptions(h, kind, REUSE_ADDRESS, 0); }});
      slots.push_back({"RevitalizeSocket" + k, accepts, 0x0A092602,
                       [=](HANDLE h) { return UInt32(RevitalizeSocket(h, kind)); }});
      slots.push_back({"GetSocketID" + k, accepts, 0x0A092102,
                       [=](HANDLE h) { return UInt32(GetSocketID(h, kind)); }});
    }
    slots.push_back(
        {"BindUDPSocket", Kind::kUdp, 0x0A091802, [](HANDLE h) { return BindUDPSocket(h); }});
    slots.push_back(
        {"CloseUDPSocket", Kind::kUdp, 0x0A091602, [](HANDLE h) { return CloseUDPSocket(h); }});
    slots.push_back({"GetAddressPort", Kind::kAddress, 0x0A091903, [](HANDLE h) {
                       std::string ip;
                       int port = 0;
                       return GetAddressPort(h, &ip, &port);
                     }});
    // The socket is checked first, then the container, then the address.
    slots.push_back({"SendTo socket", Kind::kUdp, 0x0A091402, [=](HANDLE h) {
                       int sent = 0;
                       return SendTo(h, address, buffer, 0, sent);
                     }});
    slots.push_back({"SendTo buffer", Kind::kBuffer, 0x0A091401, [=](HANDLE h) {
                       int sent = 0;
                       return SendTo(udp, address, h, 0, sent);
                     }});
    slots.push_back({"SendTo address", Kind::kAddress, 0x0A091403, [=](HANDLE h) {
                       int sent = 0;
                       return SendTo(udp, h, buffer, 0, sent);
                     }});
    slots.push_back({"RecvFrom socket", Kind::kUdp, 0x0A091502, [=](HANDLE h) {
                       int received = 0;
                       return RecvFrom(h, address, buffer, 0, received);
                     }});
    slots.push_back({"RecvFrom buffer", Kind::kBuffer, 0x0A091501, [=](HANDLE h) {
                       int received = 0;
                       return RecvFrom(udp, address, h, 0, received);
                     }});
    slots.push_back({"RecvFrom address", Kind::kAddress, 0x0A091503, [=](HANDLE h) {
                       int received = 0;
                       return RecvFrom(udp, h, buffer, 0, received);
                     }});
    return slots;
  }

  HANDLE mBuffer = nullptr, mAddress = nullptr, mUdp = nullptr;
};

// A block of the given size whose every 4-byte word holds one of the class identifiers, so a
// check that read an identifier anywhere in it would find one.
std::unique_ptr<UInt32[]> Lookalike(size_t words) {
  static const UInt32 ids[] = {0x62756666, 0x736f636b, 0x75647073, 0x74637043, 0x74637053};
  std::unique_ptr<UInt32[]> block(new UInt32[words]);
  for (size_t i = 0; i < words; ++i) {
    block[i] = ids[i % 5];
  }
  return block;
}

TEST_F(HandleChecks, EveryFunctionRefusesEveryPointerThatIsNotALiveHandleOfItsKind) {
  // Handles of each kind, destroyed through their classes.
  HANDLE goneBuffer = CreateBuffer();
  delete VerifyBufferHandle(goneBuffer);
  std::string text = "127.0.0.1";
  HANDLE goneAddress = CreateSocketAddress(text, 9);
  delete VerifySockAddressHandle(goneAddress);
  HANDLE goneUdp = OpenUDPSocket(0);
  delete static_cast<KivUDPSocket *>(VerifySocketHandle(goneUdp, 0));
  // Objects of the library's classes that the library never handed out, a block full of class
  // identifiers, a pointer into a live handle, and a local variable.
  KivNetBuffer ownContainer;
  KivSocketAddress ownAddress("127.0.0.1", 9);
  std::unique_ptr<UInt32[]> lookalike = Lookalike(64);
  int local = 0x62756666;

  const Candidate candidates[] = {
      {"null", nullptr, Kind::kNothing},
      {"container", mBuffer, Kind::kBuffer},
      {"address", mAddress, Kind::kAddress},
      {"UDP socket", mUdp, Kind::kUdp},
      {"destroyed container", goneBuffer, Kind::kNothing},
      {"destroyed address", goneAddress, Kind::kNothing},
      {"destroyed UDP socket", goneUdp, Kind::kNothing},
      {"host's own container", &ownContainer, Kind::kNothing},
      {"host's own address", &ownAddress, Kind::kNothing},
      {"block of class identifiers", lookalike.get(), Kind::kNothing},
      {"inside a container", static_cast<char *>(mBuffer) + 4, Kind::kNothing},
      {"local variable", &local, Kind::kNothing},
  };
  int checked = 0;
  for (const Slot &slot : Slots()) {
    for (const Candidate &candidate : candidates) {
      if (candidate.kind == slot.accepts) {
        continue; // a valid handle would run the operation
      }
      EXPECT_EQ(slot.call(candidate.pointer), slot.refused)
          << slot.function << " given " << candidate.name;
      ++checked;
    }
  }
  EXPECT_GT(checked, 300);
}

// A block released by the host and then reused for a UDP socket held "buff" where a container
// keeps its class identifier. The socket must still not pass for a container.
TEST_F(HandleChecks, ASocketInABlockThatOnceHeldAContainerIdentifierIsNoContainer) {
  // Through a volatile pointer, so the compiler cannot drop the block and the write as unused.
  void *volatile block = std::malloc(80);
  const UInt32 buff = 0x62756666;
  std::memcpy(static_cast<char *>(block) + 20, &buff, sizeof buff);
  std::free(block);
  // With the C library's allocator the socket gets that very block (sanitizers hold released
  // blocks back, so there the case is only that of any other socket).
  HANDLE socket = OpenUDPSocket(0);
  ASSERT_NE(socket, nullptr);
  EXPECT_EQ(GetHeaderType(socket), 0x0A091101u);
  EXPECT_EQ(CreatePing(0x48424E33, 1, socket), 0x0A090601u);
  EXPECT_EQ(VerifySocketHandle(socket, 0), socket) << "still a valid UDP socket";
  delete static_cast<KivUDPSocket *>(VerifySocketHandle(socket, 0));
}

// A handle of the same kind made at the address of a destroyed one is valid, being that kind.
TEST_F(HandleChecks, AContainerMadeWhereADestroyedOneLayIsValidAsAContainerOnly) {
  HANDLE first = CreateBuffer();
  delete VerifyBufferHandle(first);
  HANDLE second = CreateBuffer();
  EXPECT_EQ(VerifyBufferHandle(second), second);
  EXPECT_EQ(VerifySockAddressHandle(second), nullptr);
  EXPECT_EQ(VerifySocketHandle(second, 0), nullptr);
  EXPECT_EQ(GetHeaderType(second), 0u) << "an empty container";
  delete VerifyBufferHandle(second);
  EXPECT_EQ(GetHeaderType(second), 0x0A091101u);
}

} // namespace
