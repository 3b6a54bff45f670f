// What each member of the message layer reports when the allocator has no memory for the block it
// keeps: COPY_ERROR with its own class and function numbers, never std::bad_alloc, and its state
// as documented. The failure is provoked by this program's own operator new[], which refuses
// blocks of one chosen size.
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <new>

#include "Asm_Deasm/KivHBN3Disassembler.h"
#include "CommonFiles/KivNetBuffer.h"
#include "HBN3/KivHBN3Header.h"
#include "HBN3/KivHBN3PayLoad.h"
#include "HCP/KivHCPConfigHeader.h"
#include "Interfaces/KivNetworkComm.h"
#include "support/FakeHostPlatform.h"
#include "support/TestSupport.h"
#include "support/Thrown.h"

namespace {

// Array allocations of exactly this many bytes fail while it is not 0.
size_t gRefusedSize = 0;

void *Allocate(size_t size) {
  void *block = std::malloc(size == 0 ? 1 : size);
  if (block == nullptr) {
    throw std::bad_alloc();
  }
  return block;
}

void *AllocateArray(size_t size) {
  if (gRefusedSize != 0 && size == gRefusedSize) {
    throw std::bad_alloc();
  }
  return Allocate(size);
}

} // namespace

// The whole family is replaced, so every block this program frees came from the same malloc.
void *operator new(size_t size) { return Allocate(size); }
void *operator new[](size_t size) { return AllocateArray(size); }
void *operator new(size_t size, const std::nothrow_t &) noexcept {
  try {
    return Allocate(size);
  } catch (...) {
    return nullptr;
  }
}
void *operator new[](size_t size, const std::nothrow_t &) noexcept {
  try {
    return AllocateArray(size);
  } catch (...) {
    return nullptr;
  }
}
void operator delete(void *block) noexcept { std::free(block); }
void operator delete[](void *block) noexcept { std::free(block); }
void operator delete(void *block, size_t) noexcept { std::free(block); }
void operator delete[](void *block, size_t) noexcept { std::free(block); }
void operator delete(void *block, const std::nothrow_t &) noexcept { std::free(block); }
void operator delete[](void *block, const std::nothrow_t &) noexcept { std::free(block); }

namespace {

using namespace kivtest;

// A block size nothing else in these tests asks for.
constexpr int kRefused = 4099;

// Refuses array blocks of `size` bytes while it lives.
struct RefuseBlocksOf {
  explicit RefuseBlocksOf(size_t size) { gRefusedSize = size; }
  ~RefuseBlocksOf() { gRefusedSize = 0; }
};

// `operation` while blocks of `size` bytes are refused.
std::function<void()> Without(size_t size, const std::function<void()> &operation) {
  return [size, operation] {
    RefuseBlocksOf refuse(size);
    operation();
  };
}

Bytes Contents(const KivNetBuffer &buffer) {
  return Bytes(buffer.GetBufferRef(), buffer.GetBufferRef() + buffer.GetBufferLength());
}

// An HBN3 message of 24 + `payload` bytes of `fill` that declares them.
Bytes Hbn3Message(UInt32 payload, unsigned char fill) {
  return Join(
      {Hex("48424E33 00000001 00000000 00000000 80000003"),
       Bytes{UInt8(payload >> 24), UInt8(payload >> 16), UInt8(payload >> 8), UInt8(payload)},
       Bytes(payload, fill)});
}

// A payload of kRefused bytes.
struct LargePayload : KivPayload {
  int GetPayloadLength() override { return kRefused; }
  void GetDataPayload(unsigned char *dataPayload, int payloadlen) override {
    std::fill(dataPayload, dataPayload + payloadlen, 0x5A);
  }
};

// Each member that keeps a block, its code when the block cannot be had, and the state it then
// leaves: a container emptied by SetBuffer (and so still empty after the insertion that follows)
// and unchanged otherwise, a header, a parser and a configuration message that keep what they
// held.
TEST(OutOfMemory, EachMemberGivesItsCopyErrorAndKeepsItsDocumentedState) {
  const FakeHostPlatform host("192.168.1.10", "255.255.255.0", "192.168.1.1");
  kiv::HostPlatformOverrideScope scope(host);
  const Bytes large(kRefused, 0x11), small = Hbn3Message(4, 0x22),
                                     message = Hbn3Message(kRefused, 0x55);
  Bytes out(6, 0xEE), name(256, 'n');
  name[0] = static_cast<unsigned char>(255);
  const Bytes status = Join({Hex("0004000A1B2C 0000 C0A80114 00001003"), large});
  const unsigned char id[6] = {};
  KivNetBuffer emptied, holding, joined, received;
  KivNetBufferStorageGuard g1(emptied), g2(holding), g3(joined), g4(received);
  emptied.SetBuffer(small.data(), 28);
  holding.SetBuffer(small.data(), 28);
  joined.SetBuffer(large.data(), kRefused);
  joined.InsertIntoBuffer(small.data(), 6);
  received.SetBuffer(message.data(), static_cast<int>(message.size()));
  KivHBN3Header header(small.data(), 28);
  KivHBN3Disassembler parser(holding);
  KivHCPConfigHeader configuration;
  configuration.SetEncryptedPassword(small.data(), 3);
  LargePayload payload;
  ExpectCodes({
      {"SetBuffer", Without(kRefused, [&] { emptied.SetBuffer(large.data(), kRefused); }), 0x805A3},
      {"Insert into empty",
       Without(kRefused, [&] { emptied.InsertIntoBuffer(large.data(), kRefused); }), 0x80CA3},
      {"Insert", Without(kRefused, [&] { holding.InsertIntoBuffer(large.data(), kRefused - 28); }),
       0x80CA3},
      {"Extract", Without(kRefused, [&] { joined.ExtractFromBuffer(out.data(), 6); }), 0x80BA3},
      {"header from a payload",
       Without(kRefused, [&] { KivHBN3Header(0x48424E33, 1, 2, 3, 4, payload); }), 0x101A3},
      {"header parse",
       Without(kRefused, [&] { header.SetDataHeader(message.data(), kRefused + 24); }), 0x105A3},
      {"host-list name",
       Without(255,
               [&] {
                 KivHBN3ScanHostPayLoad p(1, "", id, 0,
                                          reinterpret_cast<const char *>(name.data()));
               }),
       0x201A3},
      {"status bytes",
       Without(kRefused,
               [&] {
                 KivHBN3StatusCacheResponsePayload p(status.data(),
                                                     static_cast<int>(status.size()));
               }),
       0x301A3},
      {"password",
       Without(kRefused, [&] { configuration.SetEncryptedPassword(large.data(), kRefused); }),
       0x409A3},
      {"record",
       Without(kRefused, [&] { configuration.SetConfigTextRecord(large.data(), kRefused); }),
       0x40AA3},
      {"parser", Without(kRefused + 24, [&] { parser.SetMessage(&received); }), 0x704A3},
  });
  EXPECT_EQ(emptied.GetBufferRef(), nullptr);
  EXPECT_EQ(Contents(holding), small);
  EXPECT_EQ(Contents(joined), Join({large, Bytes(small.begin(), small.begin() + 6)}));
  EXPECT_EQ(out, Bytes(6, 0xEE));
  Bytes written(28);
  header.GetDataStream(written.data(), 28);
  EXPECT_EQ(written, small);
  EXPECT_EQ(configuration.GetHeaderLength(), KivHCPConfigHeader::kFixedLength + 3);
  EXPECT_EQ(parser.ParseHostListEntryResponse().iStatus, 0x22222222u);
}

// Through an exported function: the parser's code, and the caller's record unchanged.
TEST(OutOfMemory, BoundaryGivesTheMembersCode) {
  const Bytes message = Hbn3Message(kRefused, 0x55);
  std::unique_ptr<KivNetBuffer> received(static_cast<KivNetBuffer *>(CreateBuffer()));
  KivNetBufferStorageGuard release(*received);
  received->SetBuffer(message.data(), static_cast<int>(message.size()));
  StatCacheResponse record;
  record.strPayload = "old";
  RefuseBlocksOf refuse(message.size());
  EXPECT_EQ(ParseStatusCacheResponse(0x48424E33, received.get(), record), 0x0A0704A3u);
  EXPECT_EQ(record.strPayload, "old");
}

// A builder whose message block cannot be had: the container's code for a message it could not
// store, and the caller's container still holds its earlier message.
TEST(OutOfMemory, BuildingWithoutMemoryForTheMessageLeavesTheContainer) {
  std::unique_ptr<KivNetBuffer> container(static_cast<KivNetBuffer *>(CreateBuffer()));
  KivNetBufferStorageGuard release(*container);
  const Bytes earlier = Hbn3Message(4, 0x22);
  container->SetBuffer(earlier.data(), static_cast<int>(earlier.size()));
  {
    RefuseBlocksOf refuse(kHBN3HeaderLength);
    EXPECT_EQ(CreatePing(0x48424E33, 7, container.get()), 0x0A0805A3u);
  }
  EXPECT_EQ(Contents(*container), earlier);
  EXPECT_EQ(CreatePing(0x48424E33, 7, container.get()), 0u);
  EXPECT_EQ(container->GetBufferLength(), kHBN3HeaderLength);
}

} // namespace
