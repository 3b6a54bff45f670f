// What each member of the message layer reports when the allocator has no memory for the block it
// keeps: COPY_ERROR with its own class and function numbers, never std::bad_alloc, and its state
// as documented. The failure is provoked by this program's own operator new[], which refuses
// blocks of one chosen size.
#include <gtest/gtest.h>

#include <cstdlib>
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
class RefuseBlocksOf {
public:
  explicit RefuseBlocksOf(size_t size) { gRefusedSize = size; }
  ~RefuseBlocksOf() { gRefusedSize = 0; }
  RefuseBlocksOf(const RefuseBlocksOf &) = delete;
  RefuseBlocksOf &operator=(const RefuseBlocksOf &) = delete;
};

// The code `operation` throws while blocks of `size` bytes are refused.
UInt32 CodeWithout(size_t size, const std::function<void()> &operation) {
  RefuseBlocksOf refuse(size);
  return CodeOf(operation);
}

Bytes Contents(const KivNetBuffer &buffer) {
  return Bytes(buffer.GetBufferRef(), buffer.GetBufferRef() + buffer.GetBufferLength());
}

// An HBN3 message of `length` bytes whose header declares the rest as payload.
Bytes Hbn3Message(int length, unsigned char fill) {
  Bytes message(static_cast<size_t>(length), fill);
  const Bytes header = Hex("48424E33 00000001 00000002 00000003 00000004");
  std::copy(header.begin(), header.end(), message.begin());
  const UInt32 payload = static_cast<UInt32>(length - kHBN3HeaderLength);
  for (int i = 0; i < 4; ++i) {
    message[static_cast<size_t>(kHBN3OffsetDataLength + i)] =
        static_cast<unsigned char>(payload >> (24 - 8 * i));
  }
  return message;
}

// A payload of kRefused bytes.
class LargePayload : public KivPayload {
public:
  int GetPayloadLength() override { return kRefused; }
  void GetDataPayload(unsigned char *dataPayload, int payloadlen) override {
    std::fill(dataPayload, dataPayload + payloadlen, 0x5A);
  }
};

TEST(OutOfMemory, ContainerRefusesAndStaysAsDocumented) {
  const Bytes large(kRefused, 0x11), small = Hex("48424E33 0102");
  Bytes out(kRefused, 0xEE);
  KivNetBuffer buffer;
  KivNetBufferStorageGuard release(buffer);

  // SetBuffer leaves the container empty.
  buffer.SetBuffer(small.data(), 6);
  EXPECT_EQ(CodeWithout(kRefused, [&] { buffer.SetBuffer(large.data(), kRefused); }), 0x805A3u);
  EXPECT_EQ(buffer.GetBufferRef(), nullptr);
  EXPECT_EQ(buffer.GetBufferLength(), 0);

  // Inserting into an empty container leaves it empty; appending leaves the content as it was.
  EXPECT_EQ(CodeWithout(kRefused, [&] { buffer.InsertIntoBuffer(large.data(), kRefused); }),
            0x80CA3u);
  EXPECT_EQ(buffer.GetBufferRef(), nullptr);
  buffer.SetBuffer(small.data(), 6);
  EXPECT_EQ(CodeWithout(kRefused, [&] { buffer.InsertIntoBuffer(large.data(), kRefused - 6); }),
            0x80CA3u);
  EXPECT_EQ(Contents(buffer), small);

  // A partial extraction leaves the content and the destination as they were.
  buffer.SetBuffer(large.data(), kRefused);
  buffer.InsertIntoBuffer(small.data(), 6);
  EXPECT_EQ(CodeWithout(kRefused, [&] { buffer.ExtractFromBuffer(out.data(), 6); }), 0x80BA3u);
  EXPECT_EQ(Contents(buffer), Join({large, small}));
  EXPECT_EQ(out, Bytes(kRefused, 0xEE));
}

TEST(OutOfMemory, HeaderAndPayloadsRefuseTheirCopies) {
  const Bytes small = Hbn3Message(26, 0x22), large = Hbn3Message(kHBN3HeaderLength + kRefused, 0);
  KivHBN3Header header(small.data(), static_cast<int>(small.size()));
  LargePayload payload;
  Bytes name(256, 'n');
  name[0] = static_cast<unsigned char>(255);
  const unsigned char id[6] = {};
  Bytes status = Join({Hex("0004000A1B2C 0000 C0A80114 00001003"), Bytes(kRefused, 0x33)});

  ExpectCodes({
      {"header from a payload",
       [&] {
         RefuseBlocksOf refuse(kRefused);
         KivHBN3Header built(0x48424E33, 1, 2, 3, 4, payload);
       },
       0x101A3},
      {"header parse",
       [&] {
         RefuseBlocksOf refuse(kRefused);
         header.SetDataHeader(large.data(), static_cast<int>(large.size()));
       },
       0x105A3},
      {"host-list name",
       [&] {
         RefuseBlocksOf refuse(255);
         KivHBN3ScanHostPayLoad p(1, "", id, 0, reinterpret_cast<const char *>(name.data()));
       },
       0x201A3},
      {"status bytes",
       [&] {
         RefuseBlocksOf refuse(kRefused);
         KivHBN3StatusCacheResponsePayload p(status.data(), static_cast<int>(status.size()));
       },
       0x301A3},
  });
  // The header keeps the message it held.
  Bytes written(small.size());
  header.GetDataStream(written.data(), static_cast<int>(written.size()));
  EXPECT_EQ(written, small);
}

TEST(OutOfMemory, ConfigurationMessageRefusesPasswordAndRecordCopies) {
  const FakeHostPlatform host("192.168.1.10", "255.255.255.0", "192.168.1.1");
  kiv::HostPlatformOverrideScope scope(host);
  KivHCPConfigHeader header;
  header.SetEncryptedPassword(reinterpret_cast<const unsigned char *>("abc"), 3);
  const Bytes large(kRefused, 0x44);
  ExpectCodes({
      {"password",
       [&] {
         RefuseBlocksOf refuse(kRefused);
         header.SetEncryptedPassword(large.data(), kRefused);
       },
       0x409A3},
      {"record",
       [&] {
         RefuseBlocksOf refuse(kRefused);
         header.SetConfigTextRecord(large.data(), kRefused);
       },
       0x40AA3},
  });
  EXPECT_EQ(header.GetHeaderLength(), KivHCPConfigHeader::kFixedLength + 3);
}

TEST(OutOfMemory, ParserKeepsItsEarlierMessageAndTheBoundaryGivesTheCode) {
  const Bytes ping = Hex("48424E33 00000001 00000000 00000000 80000003 00000000");
  const Bytes large = Hbn3Message(kRefused, 0x55);
  KivNetBuffer first, second;
  KivNetBufferStorageGuard releaseFirst(first), releaseSecond(second);
  first.SetBuffer(ping.data(), static_cast<int>(ping.size()));
  second.SetBuffer(large.data(), kRefused);
  KivHBN3Disassembler parser(first);
  EXPECT_EQ(CodeWithout(kRefused, [&] { parser.SetMessage(&second); }), 0x704A3u);
  EXPECT_EQ(parser.ParsePingResponse().iStatus, 1u);

  // Through the exported function: the parser's code, and the caller's record unchanged.
  StatCacheResponse record;
  record.strPayload = "old";
  RefuseBlocksOf refuse(kRefused);
  EXPECT_EQ(ParseStatusCacheResponse(0x48424E33, &second, record), 0x0A0704A3u);
  EXPECT_EQ(record.strPayload, "old");
}

} // namespace
