// Buffer handles through the shared library: creation, validation, header queries.
#include <gtest/gtest.h>

#include "Interfaces/KivNetworkComm.h"
#include "support/TestSupport.h"

namespace {

TEST(BufferHandle, CreatedHandleValidatesAndAnswersTheHeaderQueries) {
  HANDLE handle = CreateBuffer();
  KivNetBuffer *buffer = VerifyBufferHandle(handle);
  ASSERT_EQ(buffer, static_cast<KivNetBuffer *>(handle));
  EXPECT_EQ(GetHeaderType(handle), 0u) << "a container never filled has header type 0";
  EXPECT_EQ(GetCommandType(handle), 0u);
  const kivtest::Bytes ping = kivtest::Hex("48424E33 00000000 00000000 00000007 80000003 00000000");
  buffer->SetBuffer(ping.data(), static_cast<int>(ping.size()));
  EXPECT_EQ(GetHeaderType(handle), 0x48424E33u);
  EXPECT_EQ(GetCommandType(handle), 0x80000003u);
  buffer->ResetBuffer();
  delete buffer;
}

TEST(BufferHandle, NullAndForeignHandlesAreRefused) {
  // A block of the container's size whose class identifier field says something else.
  alignas(KivNetBuffer) unsigned char foreign[sizeof(KivNetBuffer)] = {};
  for (HANDLE handle : {static_cast<HANDLE>(nullptr), static_cast<HANDLE>(foreign)}) {
    EXPECT_EQ(VerifyBufferHandle(handle), nullptr);
    EXPECT_EQ(GetHeaderType(handle), 0x0A091101u);
    EXPECT_EQ(GetCommandType(handle), 0x0A091201u);
  }
}

} // namespace
