// Codes and names of the exception family.
#include <gtest/gtest.h>

#include "Common/Exceptions/KivExceptions.h"
#include "Exceptions/KivSocketExceptions.h"
#include "Exceptions/KivWrapperException.h"
#include "support/TestSupport.h"

namespace {

struct WrapperCase {
  UInt32 errorClass;
  UInt32 errorFunc;
  KivWrapperError error;
  UInt32 code;
  const char *name;
};

TEST(WrapperException, CodesAndNames) {
  const WrapperCase cases[] = {
      {0x80000, 0x500, BUFFER_NULL, 0x805A1, "Buffer passed is null"},
      {0x80000, 0x400, BUFFER_SIZE_ERROR, 0x804A2, "Unknown Error"},
      {0x10000, 0x500, BUFFER_SIZE_ERROR, 0x105A2, "Unknown Error"},
      {0x70000, 0x700, COPY_ERROR, 0x707A3, "Unknown Error"},
      {0x70000, 0x700, PARSE_ERROR, 0x707A4, "Unknown Error"},
      {0x10000, 0x100, MESSAGE_OBJ_NULL, 0x101A5, "KivNetMessage Container is null"},
      {0x10000, 0x100, INVALID_HDR_TYPE, 0x101A6, "Invalid Header Type"},
      {0x10000, 0x100, INVALID_RESPONSE, 0x101A7, "Unknown Error"},
      {0x10000, 0x100, BUFFER_ERROR, 0x101A8, "Invalid Buffer Size"},
      {0x10000, 0x100, static_cast<KivWrapperError>(9), 0x101A9, "Unknown Error"},
  };
  for (const WrapperCase &c : cases) {
    const KivWrapperException e(c.errorClass, c.errorFunc, c.error);
    EXPECT_EQ(e.GetErrorCode(), c.code) << c.name;
    EXPECT_EQ(e.GetExceptionName(), c.name);
    EXPECT_EQ(e.GetError(), "");
  }
}

TEST(WrapperException, CopyKeepsCodeAndNameAndSetErrorReplaces) {
  KivWrapperException original(0x30000, 0x100, BUFFER_SIZE_ERROR);
  const KivWrapperException copy(original);
  EXPECT_EQ(copy.GetErrorCode(), 0x301A2u);
  EXPECT_EQ(copy.GetExceptionName(), original.GetExceptionName());
  original.SetError(BUFFER_NULL);
  EXPECT_EQ(original.GetErrorCode(), 0x301A1u);
  EXPECT_EQ(copy.GetErrorCode(), 0x301A2u);
}

struct SocketCase {
  int branch; // 0 base, 1 UDP, 2 TCP
  KivSocketError error;
  UInt32 code;
  const char *name;
};

TEST(SocketException, CodesAndNamesPerClass) {
  const SocketCase cases[] = {
      {0, REUSE_PORT_ERROR, 0xB1, "KivSocketException.ReusePort"},
      {0, BROADCAST_NOT_PERMITTED_ERROR, 0xB2, "KivSocketException.BroadcastNotPermitted"},
      {0, NODELAY_NOT_PERMITTED_ERROR, 0xB3, "KivSocketException.NoDelayNotPermitted"},
      {0, UNKNOWN_ERROR, 0xB4, "KivSocketException.Unknown"},
      {0, GETSOCKOPT_FAILED, 0xC2, "KivSocketException.GetSockOpt"},
      {0, BIND_UDP_ERROR, 0xB5, "KivSocketException.Unknown"},
      {1, BIND_UDP_ERROR, 0xB5, "KivUDPSocketException.Bind"},
      {1, RECVFROM_ERROR, 0xB6, "KivUDPSocketException.RecvFrom"},
      {1, SENDTO_ERROR, 0xB7, "KivUDPSocketException.SendTo"},
      {1, UNKNOWN_UDP_ERROR, 0xB8, "KivUDPSocketException.Unknown"},
      {1, CONNECT_ERROR, 0xB9, "KivUDPSocketException.Unknown"},
      {2, CONNECT_ERROR, 0xB9, "KivTCPSocketException.Connect"},
      {2, CLIENT_RECV_ERROR, 0xBA, "KivTCPSocketException.Recv-Client"},
      {2, CLIENT_SEND_ERROR, 0xBB, "KivTCPSocketException.Send-Client"},
      {2, UNKNOWN_TCP_ERROR, 0xBC, "KivTCPSocketException.Unknown"},
      {2, BIND_TCP_ERROR, 0xBD, "KivTCPSocketException.Bind"},
      {2, LISTEN_ERROR, 0xBE, "KivTCPSocketException.Listen"},
      {2, ACCEPT_ERROR, 0xBF, "KivTCPSocketException.Accept"},
      {2, SERVER_RECV_ERROR, 0xC0, "KivTCPSocketException.Recv-Server"},
      {2, SERVER_SEND_ERROR, 0xC1, "KivTCPSocketException.Send-Server"},
      {2, SELECT_ERROR, 0xC3, "KivTCPSocketException.Unknown"},
  };
  for (const SocketCase &c : cases) {
    const KivSocketException base(c.error);
    const KivUDPSocketException udp(c.error);
    const KivTCPSocketException tcp(c.error);
    const KivSocketException *byBranch[] = {&base, &udp, &tcp};
    const KivSocketException &e = *byBranch[c.branch];
    EXPECT_EQ(e.GetErrorCode(), c.code) << c.name;
    EXPECT_EQ(e.GetExceptionName(), c.name);
  }
}

TEST(SocketException, DefaultIsUnknown) {
  const KivSocketException e;
  EXPECT_EQ(e.GetErrorCode(), 0xB4u);
  EXPECT_EQ(e.GetExceptionName(), "KivSocketException.Unknown");
}

TEST(SocketException, BranchesAreCaughtAsTheBase) {
  try {
    throw KivUDPSocketException(SENDTO_ERROR);
  } catch (const KivSocketException &e) {
    EXPECT_EQ(e.GetErrorCode(), 0xB7u);
    EXPECT_EQ(e.GetExceptionName(), "KivUDPSocketException.SendTo");
  }
}

TEST(Exceptions, RootDumpPrintsItsClass) {
  const KivExceptions root;
  EXPECT_EQ(root.GetExceptionName(), "KivException");
  EXPECT_EQ(kivtest::CaptureStdout([&] { root.Dump(); }), "Exception in Class KivException\n");
}

TEST(Exceptions, DumpWritesTheNameToStandardError) {
  testing::internal::CaptureStderr();
  KivWrapperException(0x80000, 0x500, BUFFER_NULL).Dump();
  KivTCPSocketException(CONNECT_ERROR).Dump();
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(err.rfind("Buffer passed is null: ", 0), 0u) << err;
  EXPECT_NE(err.find("\nKivTCPSocketException.Connect: "), std::string::npos) << err;
}

} // namespace
