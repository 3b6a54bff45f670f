// Temporary: GetSocketID as the library is about to export it, for kivnet to build until then.
// Removed when the library's own GetSocketID arrives.
#include "Interfaces/KivCallFrame.h"
#include "Interfaces/KivNetworkComm.h"

extern "C" int GetSocketID(HANDLE objHandle, int iType);

extern "C" int GetSocketID(HANDLE objHandle, int iType) {
  KivSocket *socket = VerifySocketHandle(objHandle, iType);
  if (socket == nullptr) {
    return static_cast<int>(
        kiv::frame::InterfaceCode(kiv::frame::kFnGetSocketID, kiv::frame::kKindBadSocket));
  }
  try {
    return socket->GetSocket();
  } catch (const KivSocketException &e) {
    return static_cast<int>(kiv::frame::kExceptionCodeBase + e.GetErrorCode());
  }
}
